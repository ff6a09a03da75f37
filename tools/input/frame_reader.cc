#include "input/frame_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "cli/cli.h"
#include "input/container_reader.h"
#include "input/stream_reader.h"

extern "C" {
#include <libavutil/log.h>
}

namespace vidra {
namespace tool {

namespace {

// A file descriptor that closes with its owner unless released.
struct OwnedFd {
  explicit OwnedFd(int fd) : fd(fd) {}
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  ~OwnedFd() {
    if (fd >= 0) ::close(fd);
  }
  int release() {
    const int owned = fd;
    fd = -1;
    return owned;
  }
  int fd;
};

}  // namespace

std::unique_ptr<FrameReader> FrameReader::open(const std::string& path) {
  struct stat info;
  if (path == "-") {
    // Standard input redirected from a file is read as that file is (from where it stands);
    // anything else (a pipe, a terminal, a socket) as a live stream.
    const bool regular = fstat(STDIN_FILENO, &info) == 0 && S_ISREG(info.st_mode);
    return startStreamReader("standard input", STDIN_FILENO, false, kStreamReadSize,
                             regular ? kFileFrameLimit : kStreamFrameLimit);
  }
  OwnedFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.fd < 0) throw ioError(path, "cannot open", errno);
  if (fstat(file.fd, &info) != 0) throw ioError(path, "cannot read", errno);
  if (S_ISDIR(info.st_mode)) throw ToolError(kExitUsage, path + ": is a directory, not a file");
  // A FIFO or a device (a camera, a serial line) is a raw stream that may never end.
  if (!S_ISREG(info.st_mode)) {
    return startStreamReader(path, file.release(), true, kStreamReadSize, kStreamFrameLimit);
  }
  if (info.st_size == 0) throw ToolError(kExitUsage, path + ": the file is empty");
  uint8_t start[2] = {0, 0};
  const bool jpeg = pread(file.fd, start, 2, 0) == 2 && start[0] == 0xFF && start[1] == 0xD8;
  if (!jpeg) {
    ContainerProbe probe;
    std::string message;
    std::unique_ptr<FrameReader> container = probeContainer(path, &probe, &message);
    if (probe == ContainerProbe::kMJPEGTrack) return container;
    if (probe == ContainerProbe::kOtherVideo || probe == ContainerProbe::kNoVideo)
      throw ToolError(kExitUsage, path + ": " + message);
  }
  // A JPEG or raw MJPEG data, maybe behind some junk (or behind HTTP multipart headers, as IP
  // cameras send it).
  return startStreamReader(path, file.release(), true, kStreamReadSize, kFileFrameLimit,
                           path +
                               ": not a JPEG, an MJPEG stream or a video file with an MJPEG "
                               "track (no SOI marker in it, and FFmpeg finds no video in it)");
}

std::unique_ptr<FrameReader> FrameReader::openStream(const std::string& name, int fd, bool owns_fd,
                                                     size_t read_size, size_t frame_limit) {
  return startStreamReader(name, fd, owns_fd, read_size, frame_limit);
}

bool FrameReader::nextOrStop(Frame* frame, std::string* read_error) {
  try {
    return next(frame);
  } catch (const ToolError& error) {
    if (error.code() != kExitFrames) throw;
    *read_error = error.what();
    return false;
  }
}

std::string FrameReader::where(const Frame& frame) {
  char text[64];
  if (frame.time_seconds >= 0) {
    std::snprintf(text, sizeof(text), "%.3f s", frame.time_seconds);
  } else if (frame.byte_offset >= 0) {
    std::snprintf(text, sizeof(text), "byte %lld", static_cast<long long>(frame.byte_offset));
  } else {
    return "";
  }
  return text;
}

void setFFmpegLogging(bool verbose) { av_log_set_level(verbose ? AV_LOG_ERROR : AV_LOG_QUIET); }

}  // namespace tool
}  // namespace vidra
