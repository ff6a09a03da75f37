#include "splitter/frame_cutter.h"

#include <algorithm>
#include <cstring>

namespace vidra {
namespace jpeg {
namespace splitter {

namespace {

bool isStandalone(uint8_t marker) { return (marker >= 0xD0 && marker <= 0xD7) || marker == 0x01; }

// True for FF D8 FF at `p` (SOI followed by the next marker): what starts a frame.
bool soiAt(const uint8_t* data, size_t size, size_t p) {
  return p + 3 <= size && data[p] == 0xFF && data[p + 1] == 0xD8 && data[p + 2] == 0xFF;
}

}  // namespace

void FrameCutter::dropFront(size_t count) {
  if (soi_from_ == kNone) return;
  if (soi_at_ != kNone ? soi_at_ < count : soi_checked_ < count) {
    soi_from_ = kNone;  // nothing known about the bytes that stay
    return;
  }
  soi_from_ = std::max(soi_from_, count) - count;
  if (soi_at_ != kNone) soi_at_ -= count;
  soi_checked_ -= count;
}

size_t FrameCutter::findSOI(size_t from) {
  size_t start = from;
  if (soi_from_ != kNone && from >= soi_from_) {
    if (soi_at_ != kNone && from <= soi_at_) return soi_at_;
    // No SOI between soi_from_ and soi_checked_: go on from there.
    if (soi_at_ == kNone) start = std::max(from, soi_checked_);
  }
  if (start == from) soi_from_ = from;
  soi_at_ = kNone;
  // SOI needs 3 bytes: candidates are the positions below size_ - 2.
  const size_t limit = size_ > 2 ? size_ - 2 : 0;
  while (start < limit) {
    const void* hit = std::memchr(data_ + start, 0xFF, limit - start);
    if (hit == nullptr) break;
    const size_t p = static_cast<const uint8_t*>(hit) - data_;
    if (soiAt(data_, size_, p)) {
      soi_at_ = p;
      return p;
    }
    start = p + 1;
  }
  soi_checked_ = std::max(start, limit);
  return kNone;
}

void FrameCutter::mark(bool entropy, size_t at) {
  if (marked_) return;
  marked_ = true;
  resume_->entropy = entropy;
  resume_->at = at;
}

// Where the end of the data can decide a cut, so that cut() sets `needs_more` (each a test on
// size_ whose outcome more bytes could change), and mark() records where a later cut of the same
// frame can start again:
//  1. The data ends before the frame does: no marker after a header segment (p + 2 > size_, also
//     where a run of fill bytes reaches the end), no length behind one (p + 4 > size_), a
//     segment longer than the rest (segment_end > size_), entropy data without EOI up to the
//     end (pos < size_, memchr, q + 1 >= size_, a run of fill bytes included): each cuts the
//     frame at size_ as cut short; cut() flags them all at once.
//  2. FF D8 as the last two bytes of entropy data (q + 2 >= size_): the next SOI, if an FF
//     follows (soiAt needs 3 bytes).
//  3. A marker in entropy data with fewer than 5 bytes from it (q + 5 <= size_ fails): its
//     segment can't be tested yet.
//  4. A segment test that needs bytes beyond the data (the SOS segment's end <= size_, any other
//     one's end < size_ to read the marker at data_[end]).
// The other tests on size_ can't change: an SOI is searched for from left to right, so the first
// one found stays the first (findSOI, the header's search inside a segment, cut off by size_
// only when the segment runs past the end, which is case 1); containsSOI() runs only on a
// segment that lies inside the data.
size_t FrameCutter::scanEntropy(size_t pos, SplitFrame* frame) {
  while (pos < size_) {
    const void* hit = std::memchr(data_ + pos, 0xFF, size_ - pos);
    if (hit == nullptr) {
      mark(true, size_);  // no FF before the end: more bytes are scanned from there on
      break;
    }
    const size_t q = static_cast<const uint8_t*>(hit) - data_;
    if (q + 1 >= size_) {
      mark(true, q);
      break;
    }
    const uint8_t marker = data_[q + 1];
    if (marker == 0xFF) {  // fill byte
      pos = q + 1;
      continue;
    }
    if (marker == 0x00 || isStandalone(marker)) {  // stuffing and restart markers
      pos = q + 2;
      continue;
    }
    if (marker == 0xD9) return q + 2;
    if (marker == 0xD8) {
      // EOI went missing and the next frame begins here.
      if (q + 2 >= size_) {  // 2
        frame->needs_more = true;
        mark(true, q);
      }
      if (soiAt(data_, size_, q) || q + 2 >= size_) {
        frame->cut_short = true;
        return q;
      }
      pos = q + 2;
      continue;
    }
    // Any other marker: the tables and header of a further scan (progressive and multi-scan
    // frames), or damage. Step over the segment only when its length is plausible: an SOS
    // length must match its component count, anything else must end at the next marker, and
    // no frame may start inside it. Otherwise it was damage: scan on behind it.
    if (q + 5 > size_) {  // 3
      frame->needs_more = true;
      mark(true, q);
      pos = q + 2;
      continue;
    }
    const size_t length = (data_[q + 2] << 8) | data_[q + 3];
    const size_t end = q + 2 + length;
    const size_t components = data_[q + 4];
    bool plausible = marker == 0xDA
                         ? components >= 1 && components <= 4 && length == 6 + 2 * components
                         : length >= 2;
    // The SOS segment must lie inside the data, any other one also the marker behind it.
    if (plausible && (marker == 0xDA ? end : end + 1) > size_) {  // 4
      frame->needs_more = true;
      mark(true, q);
      plausible = false;
    }
    if (plausible && (marker == 0xDA || data_[end] == 0xFF) && !containsSOI(q + 2, end)) {
      pos = end;
      continue;
    }
    pos = q + 2;
  }
  mark(true, std::min(pos, size_));
  frame->cut_short = true;
  return size_;
}

size_t FrameCutter::cut(size_t soi, SplitFrame* frame, Resume* resume) {
  Resume local;
  resume_ = resume != nullptr ? resume : &local;
  marked_ = false;
  if (resume_->soi != soi) *resume_ = Resume{soi, false, soi + 2};
  frame->offset = soi;
  frame->cut_short = false;
  frame->needs_more = false;
  size_t end = kNone;
  size_t p = resume_->at;
  if (resume_->entropy) end = scanEntropy(p, frame);
  // Header segments, stepped over by their lengths.
  while (end == kNone) {
    const size_t top = p;
    while (p + 1 < size_ && data_[p] == 0xFF && data_[p + 1] == 0xFF) ++p;
    if (p + 2 > size_) {
      mark(false, top);
      frame->cut_short = true;
      end = size_;
      break;
    }
    const uint8_t marker = data_[p + 1];
    if (data_[p] != 0xFF || marker == 0x00) {
      // Not a marker where one must be: the header is damaged. Find the end by scanning.
      end = scanEntropy(p, frame);
      break;
    }
    if (marker == 0xD9) {
      end = p + 2;
      break;
    }
    if (marker == 0xD8) {
      frame->cut_short = true;
      end = p;
      break;
    }
    if (isStandalone(marker)) {
      p += 2;
      continue;
    }
    if (p + 4 > size_) {
      mark(false, top);
      frame->cut_short = true;
      end = size_;
      break;
    }
    const size_t length = (data_[p + 2] << 8) | data_[p + 3];
    if (length < 2) {
      end = scanEntropy(p + 2, frame);
      break;
    }
    const size_t segment_end = p + 2 + length;
    // APPn and COM may carry whole JPEG thumbnails; any other header segment that holds an
    // SOI was cut off and the next frame begins inside it.
    const bool may_hold_jpeg = (marker >= 0xE0 && marker <= 0xEF) || marker == 0xFE;
    if (!may_hold_jpeg) {
      const size_t s = findSOI(p + 2);
      if (s != kNone && s + 3 <= segment_end) {
        frame->cut_short = true;
        end = s;
        break;
      }
    }
    if (segment_end > size_) {
      mark(false, top);
      frame->cut_short = true;
      end = size_;
      break;
    }
    p = segment_end;
    if (marker == 0xDA) end = scanEntropy(p, frame);
  }
  // Every other cut short frame ends at an SOI, which lies inside the data.
  if (frame->cut_short && end == size_) frame->needs_more = true;  // 1
  frame->size = end - soi;
  resume_ = nullptr;
  return end;
}

}  // namespace splitter
}  // namespace jpeg
}  // namespace vidra
