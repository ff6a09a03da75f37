// JPEGBuffer: bounded big-endian reader over a byte range.

#include "jpeg_buffer.h"

namespace vidra {
namespace jpeg {

bool JPEGBuffer::getUint8(uint8_t* out) {
  if (getRemainingBytes() < 1) return false;
  *out = data_[position_];
  position_ += 1;
  return true;
}

bool JPEGBuffer::getUint16(uint16_t* out) {
  if (getRemainingBytes() < 2) return false;
  *out = static_cast<uint16_t>((data_[position_] << 8) | data_[position_ + 1]);
  position_ += 2;
  return true;
}

bool JPEGBuffer::consumeUint8(uint8_t expected) {
  uint8_t value = 0;
  if (!getUint8(&value)) return false;
  return value == expected;
}

// Reads a segment length field, which counts itself, and hands back the payload length. True
// only when the whole payload lies inside the range.
bool JPEGBuffer::getLength16(uint16_t* len) {
  uint16_t value = 0;
  if (!getUint16(&value)) return false;
  if (value < 2) return false;
  *len = static_cast<uint16_t>(value - 2);
  return getRemainingBytes() >= *len;
}

const void* JPEGBuffer::getData(size_t n) {
  if (getRemainingBytes() < n) return nullptr;
  const uint8_t* result = data_ + position_;
  position_ += n;
  return result;
}

}  // namespace jpeg
}  // namespace vidra
