// JPEGBuffer: bounded big-endian reader over a byte range, used by all marker-level parsing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {

// Every read stops at the end of the range and reports a shortage as its result; a failed read
// leaves the buffer usable. The buffer never logs, throws or allocates.
class JPEGBuffer {
 public:
  JPEGBuffer(const uint8_t* data, size_t length) : data_(data), length_(length), position_(0) {}

  bool getUint8(uint8_t* out);
  bool getUint16(uint16_t* out);
  bool consumeUint8(uint8_t expected);
  bool getLength16(uint16_t* len);
  const void* getData(size_t n);
  size_t getRemainingBytes() const { return length_ - position_; }
  // Offset of the next byte to read from the start of the range.
  size_t position() const { return position_; }

 private:
  const uint8_t* data_;
  size_t length_;
  size_t position_;                    // invariant: position_ <= length_
  std::shared_ptr<const void> owner_;  // holder of the bytes; empty in this library
};

}  // namespace jpeg
}  // namespace vidra
