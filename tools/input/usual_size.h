// The usual frame size of an input: the size an output that holds one size takes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

namespace vidra {
namespace tool {

// Counts the sizes in frame headers and picks the most common one; of sizes equally common, the
// one seen first, so that one damaged header can't decide it. Only frames whose header reaches a
// scan count (a fragment of marker-like junk claims any size; decode skips those as junk), and
// only sizes the tool decodes (frameSizeUsable). Headers are read by the library
// (vidra::jpeg::readFrameHeader), as decode reads them. The first kFrames such frames decide, so
// that a long input is not read through twice before decoding starts; that many frames outvote a
// few damaged headers.
class UsualSize {
 public:
  static constexpr int64_t kFrames = 256;
  bool full() const { return frames_ >= kFrames; }

  void add(const uint8_t* data, size_t size);
  // False when no frame counted.
  bool mostCommon(int* width, int* height) const;

 private:
  struct Seen {
    int64_t count = 0;
    int64_t first = 0;  // the frame it was first seen in
  };
  std::map<std::pair<int, int>, Seen> sizes_;
  int64_t frames_ = 0;
};

}  // namespace tool
}  // namespace vidra
