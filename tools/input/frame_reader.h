// Frame sources: a single JPEG file, a raw MJPEG stream (frames back to back, as
// `ffmpeg -f mjpeg` and many cameras write them) from a file, a pipe or a device, or the MJPEG
// track of a container that FFmpeg's libavformat reads (AVI, MKV, MOV, ...).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace vidra {
namespace tool {

// A frame handed out by FrameReader. `data` stays valid until the next call of next().
struct Frame {
  const uint8_t* data = nullptr;
  size_t size = 0;
  int64_t index = 0;         // 0-based position in the input
  int64_t byte_offset = -1;  // where the frame starts in the file, -1 when unknown
  double time_seconds = -1;  // presentation time from the container, -1 when unknown
  size_t junk_before = 0;    // raw streams: bytes skipped in front of this frame
  bool cut_short = false;    // raw streams: no EOI; containers: a packet the file cut off
};

// Reads the frames of one input. Throws ToolError (kExitUsage) when the input can't be opened
// or holds nothing this tool can decode, with a message that names the path.
class FrameReader {
 public:
  virtual ~FrameReader() = default;

  // `path` "-" reads standard input. Raw streams, files included, are read as streams
  // (vidra::jpeg::MJPEGStreamSplitter): frames come out as they are cut, and memory holds about
  // one frame. A pipe, a FIFO or a device may still be being written (a camera, `ffmpeg ... -f
  // mjpeg -`); a stream must hold an SOI, and open() waits for the first one.
  static std::unique_ptr<FrameReader> open(const std::string& path);
  // Reads `fd` as open() reads a pipe, at most `read_size` bytes a read(2), frames cut after
  // `frame_limit` bytes; tests choose where reads split the input. Takes `fd` over when
  // `owns_fd`.
  static std::unique_ptr<FrameReader> openStream(const std::string& name, int fd, bool owns_fd,
                                                 size_t read_size, size_t frame_limit);

  // The next frame; false at the end of the input. Throws ToolError when reading fails.
  virtual bool next(Frame* frame) = 0;
  // next(), but a failed read (a file cut short, a damaged container) ends the input like its
  // end does, with the reason in `*read_error`; errors of other kinds (usage, I/O) still throw.
  bool nextOrStop(Frame* frame, std::string* read_error);
  // "JPEG file", "raw MJPEG stream", "AVI file (MJPEG track #0)", ...
  virtual std::string kind() const = 0;
  // Share of the input consumed, 0..1 (for the progress bar); -1 when the size isn't known
  // before the end (a pipe).
  virtual double progress() const = 0;
  // Frame rate from the container; false when it doesn't say.
  virtual bool frameRate(int* num, int* den) const {
    (void)num;
    (void)den;
    return false;
  }
  // Junk bytes after the last frame (raw streams).
  virtual size_t trailingJunk() const { return 0; }
  // The input's usual frame size, for an output that holds one size (see UsualSize). Reads the
  // first frames ahead of next(), a second time through the input; false when no frame gives
  // one, and for pipes, which can't be read twice (the first picture then fixes the size).
  virtual bool usualFrameSize(int* width, int* height) const = 0;
  // Where in the input a frame is, for messages: "byte 1234" or "0.400 s".
  static std::string where(const Frame& frame);

  const std::string& path() const { return path_; }

 protected:
  std::string path_;
};

// Sets FFmpeg's own logging to quiet (the tool reports errors itself) or, with `verbose`, to
// errors.
void setFFmpegLogging(bool verbose);

}  // namespace tool
}  // namespace vidra
