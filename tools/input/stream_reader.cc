#include "input/stream_reader.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "cli/cli.h"
#include "input/usual_size.h"
#include "vidra/splitter.h"

namespace vidra {
namespace tool {

namespace {

// The library's stream splitter fed by read(2): each frame is handed out as soon as its cut is
// final, so the frames are the ones a cut of the whole input gives, except that a frame longer
// than the frame limit is cut there.
class StreamReader : public FrameReader {
 public:
  StreamReader(const std::string& name, int fd, bool owns_fd, size_t read_size, size_t frame_limit)
      : fd_(fd),
        owns_fd_(owns_fd),
        read_size_(std::max<size_t>(read_size, 1)),
        frame_limit_(frame_limit),
        splitter_(frame_limit) {
    path_ = name;
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
      const off_t at = lseek(fd, 0, SEEK_CUR);
      start_offset_ = at > 0 ? static_cast<uint64_t>(at) : 0;
      regular_ = true;
      const uint64_t size = static_cast<uint64_t>(info.st_size);
      size_at_open_ = size > start_offset_ ? size - start_offset_ : 0;
    }
  }
  ~StreamReader() override {
    if (owns_fd_) ::close(fd_);
  }

  // Reads until the first frame is cut or an SOI has come (see startStreamReader).
  void start(const std::string& no_soi_message) {
    while (!splitter_.finished()) {
      fill();
      if (!read_error_.empty()) throw ToolError(kExitUsage, read_error_);
      if (splitter_.next(&pending_)) {
        has_pending_ = true;
        return;
      }
      if (splitter_.sawSOI()) return;
    }
    if (splitter_.bytesFed() == 0) {
      throw ToolError(kExitUsage, path_ + (regular_ ? ": the file is empty" : ": no data"));
    }
    throw ToolError(kExitUsage, !no_soi_message.empty()
                                    ? no_soi_message
                                    : path_ + ": no JPEG frame found (no SOI marker)");
  }

  bool next(Frame* frame) override {
    jpeg::StreamFrame cut;
    bool found = std::exchange(has_pending_, false);
    if (found) cut = pending_;
    while (!found && !splitter_.finished()) {
      found = splitter_.next(&cut);
      if (!found) fill();
    }
    if (!found) found = splitter_.next(&cut);  // the last frame, once the input has ended
    if (found) {
      frame->data = cut.data;
      frame->size = cut.size;
      frame->index = count_++;
      frame->byte_offset = static_cast<int64_t>(start_offset_ + cut.offset);
      frame->time_seconds = -1;
      frame->junk_before = cut.junk_before;
      frame->cut_short = cut.cut_short;
      return true;
    }
    done_ = true;
    // A read error ends the stream after the frames that came before it.
    if (!read_error_.empty()) {
      throw ToolError(kExitFrames, std::exchange(read_error_, "") + " (after " +
                                       std::to_string(count_) + " frames)");
    }
    return false;
  }

  std::string kind() const override {
    return done_ && count_ == 1 ? "JPEG file" : "raw MJPEG stream";
  }
  double progress() const override {
    if (!regular_) return -1;
    return size_at_open_ > 0
               ? std::min(1.0, static_cast<double>(splitter_.bytesFed()) / size_at_open_)
               : 1.0;
  }
  size_t trailingJunk() const override { return done_ ? splitter_.pendingJunk() : 0; }

  // A file is read a second time from the same offset, through a splitter of its own, as far as
  // the usual size needs; pread() leaves the reading position alone.
  bool usualFrameSize(int* width, int* height) const override {
    if (!regular_) return false;
    jpeg::MJPEGStreamSplitter splitter(frame_limit_);
    UsualSize sizes;
    constexpr size_t kChunk = size_t{1} << 20;
    off_t at = static_cast<off_t>(start_offset_);
    while (!sizes.full() && !splitter.finished()) {
      uint8_t* room = splitter.reserve(kChunk);
      ssize_t got;
      do {
        got = pread(fd_, room, kChunk, at);
      } while (got < 0 && errno == EINTR);
      splitter.commit(got > 0 ? static_cast<size_t>(got) : 0);
      if (got <= 0) splitter.finish();
      at += std::max<ssize_t>(got, 0);
      for (jpeg::StreamFrame frame; !sizes.full() && splitter.next(&frame);) {
        sizes.add(frame.data, frame.size);
      }
    }
    return sizes.mostCommon(width, height);
  }

 private:
  // One read(2): whatever the input holds now, up to read_size_ bytes; waits only when it holds
  // nothing. At the end of the input, and on a read error (with read_error_), the splitter is
  // told that the input has ended.
  void fill() {
    uint8_t* room = splitter_.reserve(read_size_);
    while (true) {
      const ssize_t got = ::read(fd_, room, read_size_);
      if (got > 0) {
        splitter_.commit(static_cast<size_t>(got));
        return;
      }
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {  // non-blocking: wait
        pollfd wait{fd_, POLLIN, 0};
        poll(&wait, 1, -1);
        continue;
      }
      splitter_.commit(0);
      if (got < 0) read_error_ = ioError(path_, "read error", errno).what();
      if (got == 0) checkShrunk();
      splitter_.finish();
      return;
    }
  }

  // A file that ends before the size it had when it was opened was cut while it was read.
  void checkShrunk() {
    const uint64_t read = splitter_.bytesFed();
    if (!regular_ || read >= size_at_open_) return;
    struct stat info;
    const uint64_t now = fstat(fd_, &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
    read_error_ = path_ + ": the file shrank while it was read (from " +
                  std::to_string(start_offset_ + size_at_open_) + " to " + std::to_string(now) +
                  " bytes)";
  }

  int fd_;
  bool owns_fd_;
  size_t read_size_, frame_limit_;
  jpeg::MJPEGStreamSplitter splitter_;
  jpeg::StreamFrame pending_;  // the first frame, cut by start()
  bool has_pending_ = false;
  bool regular_ = false;
  uint64_t start_offset_ = 0, size_at_open_ = 0;
  int64_t count_ = 0;
  bool done_ = false;
  std::string read_error_;
};

}  // namespace

std::unique_ptr<FrameReader> startStreamReader(const std::string& name, int fd, bool owns_fd,
                                               size_t read_size, size_t frame_limit,
                                               const std::string& no_soi_message) {
  auto reader = std::make_unique<StreamReader>(name, fd, owns_fd, read_size, frame_limit);
  reader->start(no_soi_message);
  return reader;
}

}  // namespace tool
}  // namespace vidra
