// Writers for decoded frames: YUV4MPEG2 (.y4m, which ffplay, mpv and FFmpeg read) and raw I420
// (.yuv, planes back to back).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "output/image.h"

namespace vidra {
namespace tool {

class VideoWriter {
 public:
  enum class Format { kY4M, kRawI420 };

  // The format for `path`: `format` when given ("y4m" or "yuv"), else from the file name: .y4m,
  // .yuv (also .i420), "-" for Y4M on standard output, and raw I420 for a device or FIFO that
  // exists (/dev/null). Throws UsageError for anything else.
  static Format formatFor(const std::string& path, const std::string& format = "");

  // Creates the file at once, so that an unwritable path fails before any decoding. Throws
  // ToolError naming the path.
  VideoWriter(const std::string& path, int fps_num, int fps_den, const std::string& format = "");
  ~VideoWriter();
  VideoWriter(const VideoWriter&) = delete;
  VideoWriter& operator=(const VideoWriter&) = delete;

  // Fixes the frame size before the first frame (decode gives the input's usual size);
  // without it the first frame fixes it.
  void setSize(int width, int height);
  // Appends one frame; the first one writes the Y4M header. Output that isn't a regular file
  // (standard output into a pipe, a FIFO) is flushed after each frame. Returns false, writing
  // nothing, for a frame of another size than the file's. Throws ToolError when the write fails.
  bool write(const I420Image& image);
  // Flushes and closes; throws ToolError when that fails. Called by the destructor otherwise
  // (which then swallows errors).
  void close();
  // Closes the file and removes it if this run created it, ignoring errors (standard output and
  // files that were there before stay): for a command that fails before any frame went into it.
  void discard();

  int64_t frames() const { return frames_; }
  // Bytes written so far.
  uint64_t bytes() const { return bytes_; }
  int width() const { return width_; }  // 0 until the size is fixed
  int height() const { return height_; }
  Format format() const { return format_; }
  const std::string& path() const { return path_; }

  // The stream header line, without the newline: "YUV4MPEG2 W640 H480 F30:1 Ip A1:1 C420jpeg
  // XYSCSS=420JPEG XCOLORRANGE=FULL". Exposed for tests.
  static std::string y4mHeader(int width, int height, int fps_num, int fps_den);

 private:
  void put(const void* data, size_t size);

  std::string path_;
  Format format_;
  FILE* file_ = nullptr;
  bool owns_file_ = false;
  bool created_ = false;           // the path didn't exist before the constructor opened it
  bool flush_each_frame_ = false;  // not a regular file: flushed after each frame
  int fps_num_, fps_den_;
  int width_ = 0, height_ = 0;
  int64_t frames_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace tool
}  // namespace vidra
