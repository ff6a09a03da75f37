// The splitter's public forms (vidra/splitter.h) on top of FrameCutter.

#include "vidra/splitter.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "splitter/frame_cutter.h"

namespace vidra {
namespace jpeg {

using splitter::FrameCutter;
using splitter::kNone;
using splitter::Resume;

SplitStatus findFrame(const uint8_t* data, size_t size, bool end_of_input, SplitFrame* frame) {
  if (frame == nullptr) return SplitStatus::kNoFrame;
  *frame = SplitFrame{};
  if (data == nullptr) size = 0;
  FrameCutter cutter(data, size);
  const size_t soi = cutter.findSOI(0);
  if (soi == kNone) {
    // The last two bytes may begin an SOI.
    frame->junk_before = end_of_input ? size : size - std::min<size_t>(size, 2);
    return SplitStatus::kNoFrame;
  }
  frame->junk_before = soi;
  cutter.cut(soi, frame, nullptr);
  return end_of_input || !frame->needs_more ? SplitStatus::kFrame : SplitStatus::kNeedMore;
}

bool MJPEGSplitter::next(SplitFrame* frame) {
  // A cutter per frame: its search for the next SOI ends at the next frame, so that the frames
  // of the buffer are still read through once in all.
  FrameCutter cutter(data_, size_);
  const size_t soi = cutter.findSOI(pos_);
  if (soi == kNone) {
    trailing_junk_ = size_ - pos_;
    pos_ = size_;
    return false;
  }
  frame->junk_before = soi - pos_;
  pos_ = cutter.cut(soi, frame, nullptr);
  return true;
}

// ---- MJPEGStreamSplitter ---------------------------------------------------------------------

namespace {

// A cut that met the end of the data shows the frame reaching to within 65535 bytes of that end
// (no segment length reaches further), so `needs_more` with this much more than the frame limit
// buffered means the frame is longer than the limit.
constexpr size_t kLookAhead = 65536;

// The buffer keeps up to this much capacity between frames, so that frames of a few MiB don't
// make it shrink and grow again every time; only more, left by a huge frame, is given back.
constexpr size_t kKeptCapacity = size_t{16} << 20;

}  // namespace

struct MJPEGStreamSplitter::State {
  size_t frame_limit;
  std::vector<uint8_t> buffer;  // bytes base .. base + size() of the input
  uint64_t base = 0;
  size_t start = 0;     // the bytes before it went out as frames or were counted as junk
  size_t reserved = 0;  // buffer.size() before reserve(), kNone when none is open
  FrameCutter cutter;
  Resume resume;  // of the frame at `start`, when one is being gathered
  // The buffer size at which a cut of that frame is worth trying again (see next()).
  size_t retry_size = 0;
  uint64_t pending_junk = 0, total_junk = 0;
  bool saw_soi = false, finished = false;

  void addJunk(size_t count) {
    pending_junk += count;
    total_junk += count;
    start += count;
  }

  // Drops the bytes before `start`: whenever they are at least as many as the bytes behind
  // them, so that every byte is moved a bounded number of times.
  void compact(size_t room) {
    if (start == 0) return;
    if (start < buffer.size() - start && buffer.size() + room <= buffer.capacity()) return;
    buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(start));
    base += start;
    cutter.dropFront(start);
    if (resume.soi != kNone) {
      resume.soi -= start;
      resume.at -= start;
    }
    retry_size = retry_size > start ? retry_size - start : 0;
    start = 0;
    if (buffer.capacity() > kKeptCapacity && buffer.capacity() > 4 * (buffer.size() + room)) {
      buffer.shrink_to_fit();
    }
  }
};

MJPEGStreamSplitter::MJPEGStreamSplitter(size_t frame_limit) : state_(new State) {
  state_->frame_limit = std::max<size_t>(frame_limit, 3);
  state_->reserved = kNone;
}

MJPEGStreamSplitter::~MJPEGStreamSplitter() = default;

uint8_t* MJPEGStreamSplitter::reserve(size_t size) {
  State& s = *state_;
  if (s.reserved != kNone) s.buffer.resize(s.reserved);
  s.compact(size);
  const size_t held = s.buffer.size();
  s.buffer.resize(held + size);  // on bad_alloc nothing has changed
  s.reserved = held;
  return s.buffer.data() + held;
}

void MJPEGStreamSplitter::commit(size_t size) {
  State& s = *state_;
  if (s.reserved == kNone) return;
  s.buffer.resize(s.reserved + std::min(size, s.buffer.size() - s.reserved));
  s.reserved = kNone;
}

void MJPEGStreamSplitter::feed(const uint8_t* data, size_t size) {
  if (size == 0 || data == nullptr) return;
  std::memcpy(reserve(size), data, size);
  commit(size);
}

void MJPEGStreamSplitter::finish() { state_->finished = true; }

bool MJPEGStreamSplitter::next(StreamFrame* out) {
  State& s = *state_;
  if (s.reserved != kNone) commit(0);
  const size_t size = s.buffer.size();
  if (s.start >= size) return false;
  s.cutter.setData(s.buffer.data(), size);
  const size_t soi = s.cutter.findSOI(s.start);
  if (soi == kNone) {
    // Without an SOI, all but the last two bytes are junk (they may begin one); at the end of
    // the input all are.
    s.addJunk(size - s.start - (s.finished ? 0 : std::min<size_t>(2, size - s.start)));
    return false;
  }
  s.saw_soi = true;
  s.addJunk(soi - s.start);
  // A cut starts again where the last one of this frame stopped being final, which is near the
  // end of the data, except behind a marker segment that runs past the end (up to 64 KiB): then
  // it is tried again only once an eighth more of that distance has come.
  const bool limit_reached = size - soi >= s.frame_limit + kLookAhead;
  if (!s.finished && !limit_reached && s.resume.soi == soi && size < s.retry_size) return false;
  SplitFrame frame;
  size_t end = s.cutter.cut(soi, &frame, &s.resume);
  bool final = s.finished || !frame.needs_more;
  if (final ? frame.size > s.frame_limit : limit_reached) {
    MJPEGSplitter(s.buffer.data() + soi, s.frame_limit).next(&frame);
    end = soi + frame.size;
    final = true;
  }
  if (!final) {
    s.retry_size = size + std::max<size_t>(1, (size - std::min(size, s.resume.at)) / 8);
    return false;
  }
  if (out != nullptr) {
    out->data = s.buffer.data() + soi;
    out->size = end - soi;
    out->offset = s.base + soi;
    out->junk_before = s.pending_junk;
    out->cut_short = frame.cut_short;
  }
  s.pending_junk = 0;
  s.start = end;
  s.resume = Resume{};
  return true;
}

uint64_t MJPEGStreamSplitter::pendingJunk() const { return state_->pending_junk; }
uint64_t MJPEGStreamSplitter::totalJunk() const { return state_->total_junk; }
uint64_t MJPEGStreamSplitter::bytesFed() const {
  const State& s = *state_;
  return s.base + (s.reserved != kNone ? s.reserved : s.buffer.size());
}
bool MJPEGStreamSplitter::sawSOI() const { return state_->saw_soi; }
bool MJPEGStreamSplitter::finished() const { return state_->finished; }

}  // namespace jpeg
}  // namespace vidra
