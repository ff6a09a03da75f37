// vidra-mjpeg: cutting a raw MJPEG stream (JPEG frames back to back, as `ffmpeg -f mjpeg`, many
// cameras and HTTP multipart streams send them) into frames.
//
// The cut, in every form below:
//   - A frame starts at SOI followed by the next marker (FF D8 FF). Bytes in front of it are
//     junk: skipped and counted.
//   - Its header segments are stepped over by their lengths, so that a thumbnail inside an APPn
//     or COM segment doesn't split it. Any other header segment that holds an SOI was cut off,
//     and the next frame begins there.
//   - Its entropy data ends at EOI (included in the frame), at the SOI of the next frame when EOI
//     went missing, or at the end of the data. Marker segments inside the entropy data (the
//     tables and header of a further scan) are stepped over when their length is plausible.
//   - A frame without EOI is "cut short"; it is still a frame.
// The cut of a frame depends only on the bytes from its SOI on, and takes time linear in them.
//
// Three forms:
//   findFrame()           stateless: the first frame of a byte range, or "need more data". For a
//                         parser over a growing buffer (GStreamer's baseparse, an adapter).
//   MJPEGSplitter         every frame of one buffer that holds the whole input, as offsets.
//   MJPEGStreamSplitter   bytes fed in pieces (a pipe, a socket, Python's feed()); it keeps only
//                         the frame being gathered.
// splitter_c.h has the same for C. Nothing here decodes, logs or allocates beyond the stream
// splitter's buffer; instances are independent and may be used on different threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {

// One frame as found in the data. Offsets count from the start of the data handed in.
struct SplitFrame {
  size_t offset = 0;       // of its SOI marker
  size_t size = 0;         // bytes, up to and including EOI when there is one
  size_t junk_before = 0;  // bytes skipped between the previous frame (or the start) and SOI
  bool cut_short = false;  // no EOI: the data ended, or the next frame began, inside it
  // The end of the data decided the cut, or a test on the way to it: more bytes behind the data
  // may cut this frame elsewhere. False: the same bytes cut the same way whatever follows them.
  bool needs_more = false;
  int32_t reserved[4] = {};  // room for later fields
};

enum class SplitStatus : uint8_t {
  kFrame = 0,  // a frame whose cut is final; skip `offset` junk bytes, then take `size` bytes
  kNeedMore,   // an SOI at `offset` (the bytes before it are junk already), but its cut isn't
               // final yet: call again with more data
  kNoFrame,    // no SOI: `junk_before` bytes at the start are junk for certain (all but the
               // last two, which may begin an SOI; all of them at the end of the input)
};

// The first frame of `data`. With `end_of_input` the data is all there is: a frame that runs to
// the end comes out as kFrame, cut short. Without it, a frame comes out only once its cut is
// final (needs_more false), so that repeated calls on a growing buffer cut exactly as one call
// on the whole input does. To bound a frame that never ends, call it with `size` = the limit
// and `end_of_input` true: the frame is then cut there (as cut short) as if the data ended.
// `frame` is filled for kFrame and kNeedMore (offset, size, junk_before = offset, flags), and
// junk_before for kNoFrame. A null `frame` returns kNoFrame.
VIDRA_MJPEG_EXPORT SplitStatus findFrame(const uint8_t* data, size_t size, bool end_of_input,
                                         SplitFrame* frame);

// Every frame of a buffer that holds the whole input, in order: frames and junk cover every byte
// once. The buffer must outlive the splitter.
class VIDRA_MJPEG_EXPORT MJPEGSplitter {
 public:
  MJPEGSplitter(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  // The next frame; false when no further SOI follows. A frame that runs to the end of the
  // buffer comes out cut short, with needs_more set.
  bool next(SplitFrame* frame);
  // Bytes consumed so far.
  size_t position() const { return pos_; }
  // Bytes behind the last frame that held no further SOI (known once next() returned false).
  size_t trailingJunk() const { return trailing_junk_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
  size_t trailing_junk_ = 0;
};

// A frame handed out by MJPEGStreamSplitter.
struct StreamFrame {
  const uint8_t* data = nullptr;  // valid until the next call of feed(), reserve() or next()
  size_t size = 0;
  uint64_t offset = 0;       // of its SOI, counted from the first byte fed
  uint64_t junk_before = 0;  // bytes skipped since the previous frame (or the start)
  bool cut_short = false;    // no EOI, or cut at the frame limit
  int32_t reserved[4] = {};  // room for later fields
};

// Cuts bytes that arrive in pieces, exactly as MJPEGSplitter cuts them all at once, handing each
// frame out as soon as more bytes can't change its cut. Memory holds the frame being gathered
// and what came behind it; junk is dropped as it is found. A frame that is still open after
// `frame_limit` bytes, with 64 KiB more buffered behind them, is cut at the limit as if the input
// ended there (cut short), so that a stream without frame ends can't fill the memory; the rest
// then counts as junk up to the next SOI. Total work is linear in the bytes fed, whatever the
// sizes of the pieces.
class VIDRA_MJPEG_EXPORT MJPEGStreamSplitter {
 public:
  static constexpr size_t kDefaultFrameLimit = size_t{64} << 20;

  // A limit below 3 bytes (an SOI) counts as 3.
  explicit MJPEGStreamSplitter(size_t frame_limit = kDefaultFrameLimit);
  ~MJPEGStreamSplitter();
  MJPEGStreamSplitter(const MJPEGStreamSplitter&) = delete;
  MJPEGStreamSplitter& operator=(const MJPEGStreamSplitter&) = delete;

  // Appends `size` bytes of input. Throws std::bad_alloc when the buffer can't grow.
  void feed(const uint8_t* data, size_t size);
  // Room for `size` bytes of input at the end of the buffer, to read into directly; then
  // commit() the bytes that arrived (at most `size`). Throws std::bad_alloc.
  uint8_t* reserve(size_t size);
  void commit(size_t size);
  // The input has ended: the last frame comes out, cut short if it has no end.
  void finish();

  // The next frame whose cut is final; false when more input is needed or, after finish(), when
  // no frame is left.
  bool next(StreamFrame* frame);

  // Junk bytes found since the last frame handed out; after finish() and a false next(), the
  // junk behind the last frame.
  uint64_t pendingJunk() const;
  // All junk bytes found so far.
  uint64_t totalJunk() const;
  // Bytes fed so far.
  uint64_t bytesFed() const;
  // True once an SOI has been seen (a frame is on its way or has come out).
  bool sawSOI() const;
  bool finished() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace jpeg
}  // namespace vidra
