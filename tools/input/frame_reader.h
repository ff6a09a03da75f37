// Frame sources: a single JPEG file, a raw MJPEG stream (frames back to back, as
// `ffmpeg -f mjpeg` and many cameras write them), or the MJPEG track of a container that
// FFmpeg's libavformat reads (AVI, MKV, MOV, ...).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vidra {
namespace tool {

// One frame as it was found in the input.
struct SplitFrame {
  size_t offset = 0;       // byte offset of its SOI marker
  size_t size = 0;         // bytes, up to and including EOI when there is one
  size_t junk_before = 0;  // bytes skipped between the previous frame (or the start) and SOI
  bool cut_short = false;  // no EOI: the input ended, or the next frame began, inside it
  // The end of the data decided the cut or a test on the way to it: more bytes behind the data
  // may cut this frame elsewhere. False: the same bytes cut the same way whatever follows them.
  bool needs_more = false;
};

// Cuts a byte range into JPEG frames. A frame starts at SOI (FF D8 FF); its header segments
// are stepped over by their lengths (so thumbnails inside APPn don't split it), and its
// entropy data ends at EOI, or at the SOI of the next frame when EOI went missing, or at the
// end of the input. Bytes between frames are skipped and counted.
class MJPEGSplitter {
 public:
  MJPEGSplitter(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  // The next frame; false when no further SOI follows.
  bool next(SplitFrame* frame);
  // Bytes consumed so far.
  size_t position() const { return pos_; }
  // Bytes after the last frame that held no further SOI (known once next() returned false).
  size_t trailingJunk() const { return trailing_junk_; }

 private:
  size_t findSOI(size_t from) const;
  // End of the frame whose entropy data starts at `pos`; sets `cut_short` and `needs_more` in
  // `frame`.
  size_t scanEntropy(size_t pos, SplitFrame* frame) const;

  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
  size_t trailing_junk_ = 0;
};

// A frame handed out by FrameReader. `data` stays valid until the next call of next().
struct Frame {
  const uint8_t* data = nullptr;
  size_t size = 0;
  int64_t index = 0;         // 0-based position in the input
  int64_t byte_offset = -1;  // where the frame starts in the file, -1 when unknown
  double time_seconds = -1;  // presentation time from the container, -1 when unknown
  size_t junk_before = 0;    // raw streams: bytes skipped in front of this frame
  bool cut_short = false;    // raw streams: no EOI
};

// Reads the frames of one input. Throws ToolError (kExitUsage) when the input can't be opened
// or holds nothing this tool can decode, with a message that names the path.
class FrameReader {
 public:
  virtual ~FrameReader() = default;

  // `path` "-" reads standard input (raw streams and single JPEGs only). Standard input from a
  // pipe or a terminal, a FIFO and a character device are read as streams: frames come out
  // while the input is still being written (a camera, `ffmpeg ... -f mjpeg -`), and memory
  // holds about one frame (see kStreamFrameLimit). A stream must hold an SOI; open() waits
  // for the first one.
  static std::unique_ptr<FrameReader> open(const std::string& path);
  // Reads `fd` as open() reads a stream, at most `read_size` bytes a read(2), frames cut after
  // `frame_limit` bytes (open() takes 64 KiB and kStreamFrameLimit); tests choose where reads
  // split the input. Takes `fd` over when `owns_fd`.
  static std::unique_ptr<FrameReader> openStream(const std::string& name, int fd, bool owns_fd,
                                                 size_t read_size, size_t frame_limit);

  // The next frame; false at the end of the input. Throws ToolError when reading fails.
  virtual bool next(Frame* frame) = 0;
  // next(), but a failed read (a file cut short, a damaged container) ends the input like its
  // end does, with the reason in `*read_error`; errors of other kinds (usage, I/O) still throw.
  bool nextOrStop(Frame* frame, std::string* read_error);
  // "JPEG file", "raw MJPEG stream", "AVI file (MJPEG track #0)", ...
  virtual std::string kind() const = 0;
  // Share of the input consumed, 0..1 (for the progress bar); -1 for a stream, whose size isn't
  // known before it ends.
  virtual double progress() const = 0;
  // Frame rate from the container; false when it doesn't say.
  virtual bool frameRate(int* num, int* den) const {
    (void)num;
    (void)den;
    return false;
  }
  // Junk bytes after the last frame (raw streams).
  virtual size_t trailingJunk() const { return 0; }
  // The input's usual frame size, for an output that holds one size: the most common size in
  // the frame headers (of sizes equally common, the one seen first), so that one damaged
  // header can't decide it. Sizes the tool refuses (frameSizeUsable) don't count. False when no
  // frame header gives one. Reads the first 256 usable headers ahead of next() (raw streams are
  // in memory already, containers are demuxed a second time). The headers are read by the
  // tool's own parser, which is stricter than the library: a frame damaged ahead of its frame
  // header doesn't count here although the library may still decode it. Streams return false:
  // they can't be read ahead (a live one has no end), so the first picture fixes the size.
  virtual bool usualFrameSize(int* width, int* height) const = 0;
  // Where in the input a frame is, for messages: "byte 1234" or "0.400 s".
  static std::string where(const Frame& frame);

  const std::string& path() const { return path_; }

 protected:
  std::string path_;
};

// A frame of a stream (see FrameReader::open) is cut short after this many bytes when no end
// for it has come by then, so that a stream without frame ends can't fill the memory.
constexpr size_t kStreamFrameLimit = size_t{64} << 20;

// Sets FFmpeg's own logging to quiet (the tool reports errors itself) or, with `verbose`, to
// errors.
void setFFmpegLogging(bool verbose);

}  // namespace tool
}  // namespace vidra
