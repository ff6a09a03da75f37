// The cut behind every splitter form (vidra/splitter.h): one frame from its SOI, over data that
// may grow between calls. Internal to the library.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vidra/splitter.h"

namespace vidra {
namespace jpeg {
namespace splitter {

constexpr size_t kNone = static_cast<size_t>(-1);

// Where a cut can start again once more bytes have come: the walk's state at the first test
// that the end of the data decided. Everything before it is decided by the bytes alone.
struct Resume {
  size_t soi = kNone;  // the frame it belongs to
  bool entropy = false;
  size_t at = 0;  // header: the next segment's marker; entropy data: the scan position
};

// Cuts frames out of `data`. The data may grow (setData() with the same bytes and more behind
// them) and lose bytes at its front (dropFront()); what the cutter learnt about the bytes stays
// valid then, so that repeated cuts of a growing frame take linear time in all.
class FrameCutter {
 public:
  FrameCutter() = default;
  FrameCutter(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  void setData(const uint8_t* data, size_t size) {
    data_ = data;
    size_ = size;
  }
  // The first `count` bytes are gone; positions shift down by `count`.
  void dropFront(size_t count);

  // The first SOI (FF D8 FF) at or after `from`; kNone when there is none.
  size_t findSOI(size_t from);

  // Cuts the frame at `soi` (an SOI position). Fills `frame` (offset, size, cut_short,
  // needs_more; junk_before is the caller's) and returns its end. With `resume` (may be null),
  // starts where the last cut of this frame stopped being final, and updates it.
  size_t cut(size_t soi, SplitFrame* frame, Resume* resume);

 private:
  // True when an SOI begins at p with from <= p and p + 3 <= to.
  bool containsSOI(size_t from, size_t to) {
    const size_t soi = findSOI(from);
    return soi != kNone && soi + 3 <= to;
  }
  size_t scanEntropy(size_t pos, SplitFrame* frame);
  // Records the walk's state at the first test that the end of the data decided.
  void mark(bool entropy, size_t at);

  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  // What findSOI() learnt: from soi_from_ on, the first SOI is soi_at_; or, when soi_at_ is
  // kNone, no SOI starts before soi_checked_ (positions p with p + 3 <= the size it saw).
  size_t soi_from_ = kNone;
  size_t soi_at_ = kNone;
  size_t soi_checked_ = 0;
  // The cut under way.
  Resume* resume_ = nullptr;
  bool marked_ = false;
};

}  // namespace splitter
}  // namespace jpeg
}  // namespace vidra
