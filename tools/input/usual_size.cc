#include "input/usual_size.h"

#include "decoding/decoding.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace tool {

void UsualSize::add(const uint8_t* data, size_t size) {
  jpeg::FrameHeader header;
  jpeg::readFrameHeader(data, size, &header);
  if (!header.has_scan || !frameSizeUsable(header.width, header.height)) return;
  Seen& seen = sizes_[{header.width, header.height}];
  if (seen.count++ == 0) seen.first = frames_;
  ++frames_;
}

bool UsualSize::mostCommon(int* width, int* height) const {
  const Seen* best = nullptr;
  for (const auto& [size, seen] : sizes_) {
    if (best == nullptr || seen.count > best->count ||
        (seen.count == best->count && seen.first < best->first)) {
      best = &seen;
      *width = size.first;
      *height = size.second;
    }
  }
  return best != nullptr;
}

}  // namespace tool
}  // namespace vidra
