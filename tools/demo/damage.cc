#include "demo/damage.h"

#include <algorithm>

#include "input/jpeg_headers.h"

namespace vidra {
namespace tool {

bool entropyRange(const std::vector<uint8_t>& frame, size_t* begin, size_t* end) {
  const JPEGHeaderInfo header = readJPEGHeader(frame.data(), frame.size());
  if (!header.has_sos) return false;
  *begin = header.header_bytes;
  *end = frame.size();
  for (size_t p = *begin; p + 1 < frame.size(); ++p) {
    if (frame[p] == 0xFF && frame[p + 1] == 0xD9) {
      *end = p;
      break;
    }
  }
  return *begin <= *end;
}

int flipBits(std::vector<uint8_t>* frame, int count, std::mt19937* rng) {
  size_t begin = 0, end = 0;
  if (!entropyRange(*frame, &begin, &end) || end - begin < 4) return 0;
  std::vector<uint8_t>& bytes = *frame;
  int flipped = 0;
  for (int attempt = 0; flipped < count && attempt < count * 100; ++attempt) {
    const size_t p = begin + (*rng)() % (end - begin);
    if (bytes[p] == 0xFF || (p > begin && bytes[p - 1] == 0xFF)) continue;
    const uint8_t flip = static_cast<uint8_t>(1u << ((*rng)() % 8));
    if ((bytes[p] ^ flip) == 0xFF) continue;
    bytes[p] ^= flip;
    ++flipped;
  }
  return flipped;
}

void cutOff(std::vector<uint8_t>* frame, double fraction) {
  size_t begin = 0, end = 0;
  if (!entropyRange(*frame, &begin, &end)) return;
  fraction = std::min(1.0, std::max(0.0, fraction));
  frame->resize(begin + static_cast<size_t>((end - begin) * fraction));
}

int junkBeforeRestarts(std::vector<uint8_t>* frame, int count, std::mt19937* rng) {
  size_t begin = 0, end = 0;
  if (!entropyRange(*frame, &begin, &end)) return 0;
  std::vector<size_t> markers;
  for (size_t p = begin; p + 1 < end; ++p) {
    // Skip a marker behind fill bytes: junk there would turn the fill into a marker.
    if ((*frame)[p] == 0xFF && (*frame)[p + 1] >= 0xD0 && (*frame)[p + 1] <= 0xD7 &&
        (p == begin || (*frame)[p - 1] != 0xFF)) {
      markers.push_back(p);
    }
  }
  std::shuffle(markers.begin(), markers.end(), *rng);
  markers.resize(std::min(markers.size(), static_cast<size_t>(std::max(0, count))));
  // Insert from the back, so that the positions in front stay valid.
  std::sort(markers.rbegin(), markers.rend());
  for (size_t at : markers) {
    std::vector<uint8_t> junk(1 + (*rng)() % 10);
    for (uint8_t& byte : junk) byte = static_cast<uint8_t>((*rng)() % 255);  // never 0xFF
    frame->insert(frame->begin() + static_cast<std::ptrdiff_t>(at), junk.begin(), junk.end());
  }
  return static_cast<int>(markers.size());
}

}  // namespace tool
}  // namespace vidra
