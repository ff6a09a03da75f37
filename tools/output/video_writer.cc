#include "output/video_writer.h"

#include <sys/stat.h>

#include <cctype>
#include <cerrno>

#include "cli/cli.h"

namespace vidra {
namespace tool {

namespace {

bool endsWith(const std::string& text, const std::string& suffix) {
  if (text.size() < suffix.size()) return false;
  for (size_t i = 0; i < suffix.size(); ++i) {
    const char c = text[text.size() - suffix.size() + i];
    if (std::tolower(static_cast<unsigned char>(c)) != suffix[i]) return false;
  }
  return true;
}

}  // namespace

VideoWriter::Format VideoWriter::formatFor(const std::string& path, const std::string& format) {
  if (format == "y4m") return Format::kY4M;
  if (format == "yuv" || format == "i420") return Format::kRawI420;
  if (!format.empty()) throw UsageError("--format expects y4m or yuv, got '" + format + "'");
  if (path == "-" || endsWith(path, ".y4m")) return Format::kY4M;
  if (endsWith(path, ".yuv") || endsWith(path, ".i420")) return Format::kRawI420;
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && (S_ISCHR(info.st_mode) || S_ISFIFO(info.st_mode))) {
    return Format::kRawI420;  // a sink such as /dev/null, or a FIFO
  }
  throw UsageError("can't tell the output format from '" + path +
                   "': name it *.y4m (YUV4MPEG2) or *.yuv (raw I420), '-' for Y4M on standard "
                   "output, or give --format y4m|yuv");
}

std::string VideoWriter::y4mHeader(int width, int height, int fps_num, int fps_den) {
  // C420jpeg: 4:2:0 with chroma sited between the luma samples, as JPEG has it (XYSCSS is the
  // same for older readers). JPEG samples use the full 0..255 range.
  return "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F" +
         std::to_string(fps_num) + ":" + std::to_string(fps_den) +
         " Ip A1:1 C420jpeg XYSCSS=420JPEG XCOLORRANGE=FULL";
}

VideoWriter::VideoWriter(const std::string& path, int fps_num, int fps_den,
                         const std::string& format)
    : path_(path), format_(formatFor(path, format)), fps_num_(fps_num), fps_den_(fps_den) {
  if (path == "-") {
    file_ = stdout;
    path_ = "standard output";
  } else {
    // Only a regular file that this run creates may be removed again by discard(): never a file
    // that was there before, a link's target or a FIFO that a player reads.
    struct stat before;
    created_ = lstat(path.c_str(), &before) != 0 && errno == ENOENT;
    file_ = std::fopen(path.c_str(), "wb");
    if (file_ == nullptr) throw ioError(path, "cannot create", errno);
    owns_file_ = true;
  }
  // A player reading a pipe or a FIFO (`-o - | mpv -`) gets each frame as it is decoded
  // rather than in stdio's buffer-sized pieces.
  struct stat info;
  flush_each_frame_ = fstat(fileno(file_), &info) != 0 || !S_ISREG(info.st_mode);
}

VideoWriter::~VideoWriter() {
  try {
    close();
  } catch (const ToolError&) {
  }
}

void VideoWriter::put(const void* data, size_t size) {
  if (size != 0 && std::fwrite(data, 1, size, file_) != size) {
    throw ioError(path_, "write failed", errno);
  }
  bytes_ += size;
}

void VideoWriter::setSize(int width, int height) {
  if (frames_ > 0) return;
  width_ = width;
  height_ = height;
}

bool VideoWriter::write(const I420Image& image) {
  if (frames_ == 0 && width_ == 0) setSize(image.width, image.height);
  if (image.width != width_ || image.height != height_) return false;
  if (frames_ == 0 && format_ == Format::kY4M) {
    const std::string header = y4mHeader(width_, height_, fps_num_, fps_den_) + "\n";
    put(header.data(), header.size());
  }
  if (format_ == Format::kY4M) put("FRAME\n", 6);
  put(image.y.data(), image.y.size());
  put(image.u.data(), image.u.size());
  put(image.v.data(), image.v.size());
  if (flush_each_frame_ && std::fflush(file_) != 0) throw ioError(path_, "write failed", errno);
  ++frames_;
  return true;
}

void VideoWriter::close() {
  if (file_ == nullptr) return;
  FILE* file = file_;
  file_ = nullptr;
  const bool flushed = std::fflush(file) == 0 && !std::ferror(file);
  const int error = errno;
  const bool closed = !owns_file_ || std::fclose(file) == 0;
  if (!flushed || !closed) throw ioError(path_, "write failed", flushed ? errno : error);
}

void VideoWriter::discard() {
  if (!owns_file_) return;
  if (file_ != nullptr) std::fclose(file_);
  file_ = nullptr;
  owns_file_ = false;
  if (created_) std::remove(path_.c_str());
}

}  // namespace tool
}  // namespace vidra
