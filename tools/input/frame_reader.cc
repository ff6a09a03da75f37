#include "input/frame_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

#include "cli/cli.h"
#include "decoding/decoding.h"
#include "input/jpeg_headers.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

namespace vidra {
namespace tool {

namespace {

constexpr size_t kNone = static_cast<size_t>(-1);

bool isStandalone(uint8_t marker) { return (marker >= 0xD0 && marker <= 0xD7) || marker == 0x01; }

// True for FF D8 FF at `p` (SOI followed by the next marker): what starts a frame.
bool soiAt(const uint8_t* data, size_t size, size_t p) {
  return p + 3 <= size && data[p] == 0xFF && data[p + 1] == 0xD8 && data[p + 2] == 0xFF;
}

bool containsSOI(const uint8_t* data, size_t size, size_t from, size_t to) {
  for (size_t p = from; p + 3 <= to && p + 3 <= size; ++p) {
    if (soiAt(data, size, p)) return true;
  }
  return false;
}

std::string avError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

// Counts the sizes in frame headers and picks the most common one; of sizes equally common,
// the one seen first. Sizes the tool refuses to decode don't count. The first kFrames usable
// headers decide, so that a long input is not read through twice before decoding starts; that
// many frames outvote a few damaged headers all the same.
class SizeTally {
 public:
  static constexpr int64_t kFrames = 256;
  bool full() const { return frames_ >= kFrames; }

  void add(const uint8_t* data, size_t size) {
    const JPEGHeaderInfo header = readJPEGHeader(data, size);
    if (!frameSizeUsable(header.width, header.height)) return;
    Seen& seen = sizes_[{header.width, header.height}];
    if (seen.count++ == 0) seen.first = frames_;
    ++frames_;
  }

  bool mostCommon(int* width, int* height) const {
    const Seen* best = nullptr;
    for (const auto& [size, seen] : sizes_) {
      if (best == nullptr || seen.count > best->count ||
          (seen.count == best->count && seen.first < best->first)) {
        best = &seen;
        *width = size.first;
        *height = size.second;
      }
    }
    return best != nullptr;
  }

 private:
  struct Seen {
    int64_t count = 0;
    int64_t first = 0;  // the frame it was first seen in
  };
  std::map<std::pair<int, int>, Seen> sizes_;
  int64_t frames_ = 0;
};

}  // namespace

// ---- MJPEGSplitter ----------------------------------------------------------------------

size_t MJPEGSplitter::findSOI(size_t from) const {
  while (from + 3 <= size_) {
    const void* hit = std::memchr(data_ + from, 0xFF, size_ - 2 - from);
    if (hit == nullptr) return kNone;
    const size_t p = static_cast<const uint8_t*>(hit) - data_;
    if (soiAt(data_, size_, p)) return p;
    from = p + 1;
  }
  return kNone;
}

// Where the end of the data can decide a cut, so that next() sets `needs_more` (each a test on
// size_ whose outcome more bytes could change):
//  1. The data ends before the frame does: no marker after a header segment (p + 2 > size_, also
//     where a run of fill bytes reaches the end), no length behind one (p + 4 > size_), a
//     segment longer than the rest (segment_end > size_), entropy data without EOI up to the
//     end (pos < size_, memchr, q + 1 >= size_, a run of fill bytes included): each cuts the
//     frame at size_ as cut short; next() flags them all at once.
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
size_t MJPEGSplitter::scanEntropy(size_t pos, SplitFrame* frame) const {
  while (pos < size_) {
    const void* hit = std::memchr(data_ + pos, 0xFF, size_ - pos);
    if (hit == nullptr) break;
    const size_t q = static_cast<const uint8_t*>(hit) - data_;
    if (q + 1 >= size_) break;
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
      if (q + 2 >= size_) frame->needs_more = true;  // 2
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
    if (q + 5 > size_) {
      frame->needs_more = true;  // 3
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
    if (plausible && (marker == 0xDA ? end : end + 1) > size_) {
      frame->needs_more = true;  // 4
      plausible = false;
    }
    if (plausible && (marker == 0xDA || data_[end] == 0xFF) &&
        !containsSOI(data_, size_, q + 2, end)) {
      pos = end;
      continue;
    }
    pos = q + 2;
  }
  frame->cut_short = true;
  return size_;
}

bool MJPEGSplitter::next(SplitFrame* frame) {
  const size_t soi = findSOI(pos_);
  if (soi == kNone) {
    trailing_junk_ = size_ - pos_;
    pos_ = size_;
    return false;
  }
  frame->offset = soi;
  frame->junk_before = soi - pos_;
  frame->cut_short = false;
  frame->needs_more = false;
  size_t end = kNone;
  size_t p = soi + 2;
  // Header segments, stepped over by their lengths.
  while (end == kNone) {
    while (p + 1 < size_ && data_[p] == 0xFF && data_[p + 1] == 0xFF) ++p;
    if (p + 2 > size_) {
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
      for (size_t s = p + 2; s + 3 <= segment_end && s + 3 <= size_; ++s) {
        if (soiAt(data_, size_, s)) {
          frame->cut_short = true;
          end = s;
          break;
        }
      }
      if (end != kNone) break;
    }
    if (segment_end > size_) {
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
  pos_ = end;
  return true;
}

// ---- Raw streams and single JPEGs ------------------------------------------------------------

namespace {

// A file descriptor that closes with its owner.
struct OwnedFd {
  explicit OwnedFd(int fd) : fd(fd) {}
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  ~OwnedFd() {
    if (fd >= 0) ::close(fd);
  }
  int release() { return std::exchange(fd, -1); }
  int fd;
};

// The bytes of an input file: mapped when possible, else read into memory.
class FileBytes {
 public:
  FileBytes() = default;
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  ~FileBytes() {
    if (mapped_ != nullptr) munmap(mapped_, mapped_size_);
  }

  // Takes the file open on `fd` (`info` from fstat) from its current offset on, which is the
  // start for a file opened here and wherever standard input stands for "-". `name` is for
  // messages.
  void take(int fd, const struct stat& info, const std::string& name) {
    const off_t at = lseek(fd, 0, SEEK_CUR);
    const size_t from = at > 0 ? static_cast<size_t>(at) : 0;
    if (S_ISREG(info.st_mode) && static_cast<size_t>(info.st_size) > from) {
      mapped_size_ = static_cast<size_t>(info.st_size);
      void* mapped = mmap(nullptr, mapped_size_, PROT_READ, MAP_PRIVATE, fd, 0);
      if (mapped != MAP_FAILED) {
        mapped_ = static_cast<uint8_t*>(mapped);
        madvise(mapped, mapped_size_, MADV_SEQUENTIAL);
        data_ = mapped_ + from;
        size_ = mapped_size_ - from;
        return;
      }
    }
    uint8_t chunk[1 << 16];
    while (true) {
      const ssize_t got = ::read(fd, chunk, sizeof(chunk));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) throw ioError(name, "read error", errno);
      if (got == 0) break;
      owned_.insert(owned_.end(), chunk, chunk + got);
    }
    data_ = owned_.data();
    size_ = owned_.size();
  }

  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  uint8_t* mapped_ = nullptr;
  size_t mapped_size_ = 0;
  std::vector<uint8_t> owned_;
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

class RawReader : public FrameReader {
 public:
  RawReader(const std::string& path, std::unique_ptr<FileBytes> bytes)
      : bytes_(std::move(bytes)), splitter_(bytes_->data(), bytes_->size()) {
    path_ = path;
  }

  bool next(Frame* frame) override {
    SplitFrame split;
    if (!splitter_.next(&split)) {
      done_ = true;
      return false;
    }
    frame->data = bytes_->data() + split.offset;
    frame->size = split.size;
    frame->index = count_++;
    frame->byte_offset = static_cast<int64_t>(split.offset);
    frame->time_seconds = -1;
    frame->junk_before = split.junk_before;
    frame->cut_short = split.cut_short;
    return true;
  }

  std::string kind() const override {
    return done_ && count_ == 1 ? "JPEG file" : "raw MJPEG stream";
  }
  double progress() const override {
    return bytes_->size() ? static_cast<double>(splitter_.position()) / bytes_->size() : 1.0;
  }
  size_t trailingJunk() const override { return splitter_.trailingJunk(); }

  bool usualFrameSize(int* width, int* height) const override {
    MJPEGSplitter splitter(bytes_->data(), bytes_->size());
    SizeTally sizes;
    for (SplitFrame frame; !sizes.full() && splitter.next(&frame);) {
      sizes.add(bytes_->data() + frame.offset, frame.size);
    }
    return sizes.mostCommon(width, height);
  }

 private:
  std::unique_ptr<FileBytes> bytes_;
  MJPEGSplitter splitter_;
  int64_t count_ = 0;
  bool done_ = false;
};

// ---- Pipes and devices ----------------------------------------------------------------------

// A splitter test that met the end of the data shows the frame reaching to within 65535 bytes
// of that end (no segment length reaches further), so `needs_more` with this much more than the
// frame limit buffered means the frame is longer than the limit.
constexpr size_t kLookAhead = 65536;

// What a read(2) of a stream asks for.
constexpr size_t kStreamReadSize = 65536;

// A stream's buffer keeps up to this much capacity between frames, so that frames of a few MiB
// don't make it shrink and grow again every time; only more, left by a huge frame, is given back.
constexpr size_t kKeptCapacity = size_t{16} << 20;

// A raw MJPEG stream from a pipe, a FIFO or a device, read as it comes: each frame is handed
// out as soon as its cut is final, when the input has ended or MJPEGSplitter, run on the bytes
// buffered from the end of the last frame on, says more bytes can't change it (`needs_more`
// false). So the frames are the ones it cuts from the whole input, and memory holds about one
// frame, except that a frame longer than the frame limit is cut as the splitter cuts its first
// `frame_limit` bytes.
class StreamReader : public FrameReader {
 public:
  // Reads until the first SOI has come, so that an input without one fails before anything
  // is written. A source that never sends an SOI (/dev/zero) is read for as long as it sends;
  // memory stays bounded, as every read drops all but the last two bytes as junk. Takes `fd`
  // over when `owns_fd`.
  static std::unique_ptr<StreamReader> start(const std::string& name, int fd, bool owns_fd,
                                             size_t read_size, size_t frame_limit) {
    std::unique_ptr<StreamReader> reader(
        new StreamReader(name, fd, owns_fd, std::max<size_t>(read_size, 1), frame_limit));
    while (true) {
      reader->compact();
      reader->fill();
      if (!reader->read_error_.empty()) throw ToolError(kExitUsage, reader->read_error_);
      SplitFrame split;
      if (reader->findFrame(&split)) break;
      if (reader->eof_) {
        throw ToolError(kExitUsage, name + (reader->base_ + reader->buffer_.size() == 0
                                                ? ": no data"
                                                : ": no JPEG frame found (no SOI marker)"));
      }
    }
    reader->scanned_ = 0;  // next() cuts the first frame from what is there
    return reader;
  }

  ~StreamReader() override {
    if (owns_fd_) ::close(fd_);
  }

  bool next(Frame* frame) override {
    while (!done_) {
      if (shouldScan()) {
        SplitFrame split;
        if (findFrame(&split)) {
          const uint8_t* data = buffer_.data() + start_;
          bool final = eof_ || !split.needs_more;
          if (final ? split.size > frame_limit_
                    : buffer_.size() - start_ >= frame_limit_ + kLookAhead) {
            MJPEGSplitter(data, frame_limit_).next(&split);
            final = true;
          }
          if (final) {
            frame->data = data;
            frame->size = split.size;
            frame->index = count_++;
            frame->byte_offset = static_cast<int64_t>(base_ + start_);
            frame->time_seconds = -1;
            frame->junk_before = junk_;
            frame->cut_short = split.cut_short;
            junk_ = 0;
            start_ += split.size;
            scanned_ = 0;  // the rest may hold the next frame already
            return true;
          }
        } else if (eof_) {
          done_ = true;
          break;
        }
      }
      compact();
      fill();
    }
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
  // The size of a stream isn't known before its end.
  double progress() const override { return -1; }
  size_t trailingJunk() const override { return done_ ? junk_ : 0; }
  // Finding the usual size would mean reading ahead through the stream, and a live one has no
  // end to read to: false, and an output takes the size of the first picture.
  bool usualFrameSize(int* width, int* height) const override {
    (void)width;
    (void)height;
    return false;
  }

 private:
  // A frame limit holds at least an SOI (3 bytes), so that a frame cut at it is found again.
  StreamReader(const std::string& name, int fd, bool owns_fd, size_t read_size, size_t frame_limit)
      : fd_(fd),
        owns_fd_(owns_fd),
        read_size_(read_size),
        frame_limit_(std::max<size_t>(frame_limit, 3)) {
    path_ = name;
  }

  // One read(2): whatever the input holds now, up to read_size_ bytes; waits only when it holds
  // nothing. Sets eof_ at the end of the input, and on a read error with read_error_.
  void fill() {
    const size_t held = buffer_.size();
    buffer_.resize(held + read_size_);
    while (true) {
      const ssize_t got = ::read(fd_, buffer_.data() + held, read_size_);
      if (got >= 0) {
        buffer_.resize(held + static_cast<size_t>(got));
        eof_ = got == 0;
        return;
      }
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {  // a non-blocking descriptor: wait
        pollfd wait{fd_, POLLIN, 0};
        poll(&wait, 1, -1);
        continue;
      }
      read_error_ = ioError(path_, "read error", errno).what();
      buffer_.resize(held);
      eof_ = true;
      return;
    }
  }

  // True with the first frame of the bytes after start_ in `split`, offsets from start_, when
  // an SOI is there; the junk in front of it is counted and dropped. Without an SOI, all but
  // the last two bytes are junk (they may begin one), and at the end of the input all are.
  bool findFrame(SplitFrame* split) {
    const size_t size = buffer_.size() - start_;
    scanned_ = buffer_.size();
    MJPEGSplitter splitter(buffer_.data() + start_, size);
    size_t junk;
    const bool found = splitter.next(split);
    if (found) {
      junk = split->offset;
      split->offset = 0;
    } else {
      junk = eof_ ? size : size - std::min<size_t>(size, 2);
    }
    junk_ += junk;
    start_ += junk;
    return found;
  }

  // Whether to cut again. Every read does when the new bytes are at least an eighth of the
  // frame being gathered, or when no more input is waiting (a live source between frames).
  // When little came for a large frame, the next read waits up to 10 ms for more first, so that
  // a frame that trickles in isn't scanned from its start again for every few bytes.
  bool shouldScan() const {
    if (eof_) return true;
    if (buffer_.size() == scanned_) return false;
    const size_t pending = buffer_.size() - start_;
    if (pending >= frame_limit_ + kLookAhead || (buffer_.size() - scanned_) * 8 >= pending) {
      return true;
    }
    pollfd waiting{fd_, POLLIN, 0};
    return poll(&waiting, 1, pending <= (1 << 20) ? 0 : 10) <= 0;
  }

  // Drops the bytes before start_ (frames handed out, junk), so that the buffer holds only what
  // is still needed: the frame being gathered and what came behind it. Called before a read,
  // that is about once per frame. Invalidates the last frame's data. After a huge frame the
  // buffer also gives back the memory it no longer needs.
  void compact() {
    if (start_ == 0) return;
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<ptrdiff_t>(start_));
    base_ += start_;
    scanned_ = scanned_ > start_ ? scanned_ - start_ : 0;
    start_ = 0;
    if (buffer_.capacity() > kKeptCapacity &&
        buffer_.capacity() > 4 * (buffer_.size() + read_size_)) {
      buffer_.shrink_to_fit();
    }
  }

  int fd_;
  bool owns_fd_;
  size_t read_size_, frame_limit_;
  std::vector<uint8_t> buffer_;  // bytes base_ .. base_ + size() of the input
  size_t base_ = 0;
  size_t start_ = 0;    // the bytes before it went out as frames or were counted as junk
  size_t scanned_ = 0;  // buffer_.size() when findFrame() last found no final frame
  size_t junk_ = 0;     // junk bytes since the last frame (all behind it, once done_)
  int64_t count_ = 0;
  bool eof_ = false, done_ = false;
  std::string read_error_;
};

// ---- Containers through libavformat -------------------------------------------------------

class ContainerReader : public FrameReader {
 public:
  ~ContainerReader() override {
    av_packet_free(&packet_);
    avformat_close_input(&context_);
  }

  // What FFmpeg makes of `path`.
  enum class Probe {
    kMJPEGTrack,     // a container with an MJPEG video track: read it through this class
    kRawJPEG,        // FFmpeg sees JPEG data without a container: split it ourselves
    kOtherVideo,     // a container whose video isn't MJPEG (`message` says what it is)
    kNoVideo,        // a container whose tracks hold no video (audio only, ...)
    kNotRecognised,  // FFmpeg can't open it, or finds no track in it
  };

  static std::unique_ptr<ContainerReader> probe(const std::string& path, Probe* result,
                                                std::string* message) {
    std::unique_ptr<ContainerReader> reader(new ContainerReader());
    reader->path_ = path;
    *result = Probe::kNotRecognised;
    if (avformat_open_input(&reader->context_, path.c_str(), nullptr, nullptr) < 0) {
      reader->context_ = nullptr;
      return nullptr;
    }
    const std::string format = reader->context_->iformat->name;
    if (format == "mjpeg" || format == "jpeg_pipe" || format == "mpjpeg" || format == "image2" ||
        format == "mjpeg_2000") {
      *result = Probe::kRawJPEG;
      return nullptr;
    }
    if (avformat_find_stream_info(reader->context_, nullptr) < 0) return nullptr;
    const int stream =
        av_find_best_stream(reader->context_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    reader->format_ = format.substr(0, format.find(','));
    if (stream < 0) {
      // A file FFmpeg opened, with tracks but none of them video, is no MJPEG stream even where
      // its samples happen to hold FF D8 FF.
      std::string kinds;
      for (unsigned i = 0; i < reader->context_->nb_streams; ++i) {
        const char* kind =
            av_get_media_type_string(reader->context_->streams[i]->codecpar->codec_type);
        const std::string name = kind != nullptr ? kind : "unknown";
        if (kinds.find(name) == std::string::npos) kinds += (kinds.empty() ? "" : " and ") + name;
      }
      if (kinds.empty()) return nullptr;
      *result = Probe::kNoVideo;
      *message = "no video track (a " + reader->format_ + " file with " + kinds + " tracks only)";
      return nullptr;
    }
    const AVCodecParameters* parameters = reader->context_->streams[stream]->codecpar;
    if (parameters->codec_id != AV_CODEC_ID_MJPEG) {
      *result = Probe::kOtherVideo;
      *message = "its video track (#" + std::to_string(stream) + " of a " + reader->format_ +
                 " file) is " + avcodec_get_name(parameters->codec_id) +
                 ", not MJPEG; this tool decodes MJPEG only";
      return nullptr;
    }
    reader->stream_ = stream;
    reader->packet_ = av_packet_alloc();
    *result = Probe::kMJPEGTrack;
    return reader;
  }

  bool next(Frame* frame) override {
    av_packet_unref(packet_);
    while (true) {
      const int status = av_read_frame(context_, packet_);
      if (status == AVERROR_EOF) return false;
      if (status < 0) {
        throw ToolError(kExitFrames, path_ + ": reading stopped after " + std::to_string(count_) +
                                         " frames: " + avError(status));
      }
      if (packet_->stream_index == stream_ && packet_->size > 0) break;
      av_packet_unref(packet_);
    }
    const AVStream* stream = context_->streams[stream_];
    frame->data = packet_->data;
    frame->size = static_cast<size_t>(packet_->size);
    frame->index = count_++;
    frame->byte_offset = packet_->pos;
    frame->time_seconds =
        packet_->pts == AV_NOPTS_VALUE ? -1 : packet_->pts * av_q2d(stream->time_base);
    frame->junk_before = 0;
    frame->cut_short = false;
    return true;
  }

  std::string kind() const override {
    return format_ + " file (MJPEG track #" + std::to_string(stream_) + ")";
  }

  double progress() const override {
    if (context_->pb == nullptr) return 0;
    const int64_t size = avio_size(context_->pb);
    const int64_t at = avio_tell(context_->pb);
    return size > 0 && at >= 0 ? static_cast<double>(at) / size : 0;
  }

  // The track's size in its codec parameters is no help: avformat_find_stream_info() sets it
  // from decoding the first frame (damaged or not), and for interlaced MJPEG it is the size of
  // two fields while each frame's header, which the tool decodes, holds one. So the track's
  // frames are read once ahead, through a second reader, as raw streams are.
  bool usualFrameSize(int* width, int* height) const override {
    Probe probe;
    std::string message, read_error;
    const std::unique_ptr<ContainerReader> again = ContainerReader::probe(path_, &probe, &message);
    if (again == nullptr) return false;
    SizeTally sizes;
    for (Frame frame; !sizes.full() && again->nextOrStop(&frame, &read_error);) {
      sizes.add(frame.data, frame.size);
    }
    return sizes.mostCommon(width, height);
  }

  bool frameRate(int* num, int* den) const override {
    const AVStream* stream = context_->streams[stream_];
    AVRational rate = stream->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) rate = stream->r_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) return false;
    *num = rate.num;
    *den = rate.den;
    return true;
  }

 private:
  ContainerReader() = default;

  AVFormatContext* context_ = nullptr;
  AVPacket* packet_ = nullptr;
  int stream_ = -1;
  int64_t count_ = 0;
  std::string format_;
};

bool hasSOI(const uint8_t* data, size_t size) {
  MJPEGSplitter splitter(data, size);
  SplitFrame frame;
  return splitter.next(&frame);
}

}  // namespace

std::unique_ptr<FrameReader> FrameReader::open(const std::string& path) {
  auto bytes = std::make_unique<FileBytes>();
  struct stat info;
  if (path == "-") {
    // Standard input redirected from a file is read as that file is; anything else (a pipe, a
    // terminal, a socket) as a stream.
    if (fstat(STDIN_FILENO, &info) != 0 || !S_ISREG(info.st_mode))
      return openStream("standard input", STDIN_FILENO, false, kStreamReadSize, kStreamFrameLimit);
    bytes->take(STDIN_FILENO, info, "standard input");
    if (bytes->size() == 0) throw ToolError(kExitUsage, "standard input: no data");
    if (!hasSOI(bytes->data(), bytes->size())) {
      throw ToolError(kExitUsage, "standard input: no JPEG frame found (no SOI marker)");
    }
    return std::make_unique<RawReader>("standard input", std::move(bytes));
  }
  OwnedFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.fd < 0) throw ioError(path, "cannot open", errno);
  if (fstat(file.fd, &info) != 0) throw ioError(path, "cannot read", errno);
  if (S_ISDIR(info.st_mode)) throw ToolError(kExitUsage, path + ": is a directory, not a file");
  // A FIFO or a device (a camera, a serial line) is a raw stream that may never end.
  if (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode))
    return openStream(path, file.release(), true, kStreamReadSize, kStreamFrameLimit);
  bytes->take(file.fd, info, path);
  if (bytes->size() == 0) throw ToolError(kExitUsage, path + ": the file is empty");
  const uint8_t* data = bytes->data();
  if (bytes->size() >= 2 && data[0] == 0xFF && data[1] == 0xD8) {
    return std::make_unique<RawReader>(path, std::move(bytes));
  }
  ContainerReader::Probe probe;
  std::string message;
  std::unique_ptr<ContainerReader> container = ContainerReader::probe(path, &probe, &message);
  if (probe == ContainerReader::Probe::kMJPEGTrack) return container;
  if (probe == ContainerReader::Probe::kOtherVideo || probe == ContainerReader::Probe::kNoVideo)
    throw ToolError(kExitUsage, path + ": " + message);
  // Raw JPEG data behind some junk (or behind HTTP multipart headers, as IP cameras send it).
  if (hasSOI(data, bytes->size())) return std::make_unique<RawReader>(path, std::move(bytes));
  throw ToolError(kExitUsage,
                  path +
                      ": not a JPEG, an MJPEG stream or a video file with an MJPEG track "
                      "(no SOI marker in it, and FFmpeg finds no video in it)");
}

std::unique_ptr<FrameReader> FrameReader::openStream(const std::string& name, int fd, bool owns_fd,
                                                     size_t read_size, size_t frame_limit) {
  return StreamReader::start(name, fd, owns_fd, read_size, frame_limit);
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
