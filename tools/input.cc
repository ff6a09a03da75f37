#include "input.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

#include "cli.h"
#include "decoding.h"
#include "jpeg_headers.h"

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

size_t MJPEGSplitter::scanEntropy(size_t pos, bool* cut_short) const {
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
      if (soiAt(data_, size_, q) || q + 2 >= size_) {
        *cut_short = true;
        return q;
      }
      pos = q + 2;
      continue;
    }
    // Any other marker: the tables and header of a further scan (progressive and multi-scan
    // frames), or damage. Step over the segment only when its length is plausible: an SOS
    // length must match its component count, anything else must end at the next marker, and
    // no frame may start inside it. Otherwise it was damage: scan on behind it.
    if (q + 5 <= size_) {
      const size_t length = (data_[q + 2] << 8) | data_[q + 3];
      const size_t end = q + 2 + length;
      bool plausible;
      if (marker == 0xDA) {
        const size_t components = data_[q + 4];
        plausible =
            components >= 1 && components <= 4 && length == 6 + 2 * components && end <= size_;
      } else {
        plausible = length >= 2 && end < size_ && data_[end] == 0xFF;
      }
      if (plausible && !containsSOI(data_, size_, q + 2, end)) {
        pos = end;
        continue;
      }
    }
    pos = q + 2;
  }
  *cut_short = true;
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
  bool cut_short = false;
  size_t end = kNone;
  size_t p = soi + 2;
  // Header segments, stepped over by their lengths.
  while (end == kNone) {
    while (p + 1 < size_ && data_[p] == 0xFF && data_[p + 1] == 0xFF) ++p;
    if (p + 2 > size_) {
      cut_short = true;
      end = size_;
      break;
    }
    const uint8_t marker = data_[p + 1];
    if (data_[p] != 0xFF || marker == 0x00) {
      // Not a marker where one must be: the header is damaged. Find the end by scanning.
      end = scanEntropy(p, &cut_short);
      break;
    }
    if (marker == 0xD9) {
      end = p + 2;
      break;
    }
    if (marker == 0xD8) {
      cut_short = true;
      end = p;
      break;
    }
    if (isStandalone(marker)) {
      p += 2;
      continue;
    }
    if (p + 4 > size_) {
      cut_short = true;
      end = size_;
      break;
    }
    const size_t length = (data_[p + 2] << 8) | data_[p + 3];
    if (length < 2) {
      end = scanEntropy(p + 2, &cut_short);
      break;
    }
    const size_t segment_end = p + 2 + length;
    // APPn and COM may carry whole JPEG thumbnails; any other header segment that holds an
    // SOI was cut off and the next frame begins inside it.
    const bool may_hold_jpeg = (marker >= 0xE0 && marker <= 0xEF) || marker == 0xFE;
    if (!may_hold_jpeg) {
      for (size_t s = p + 2; s + 3 <= segment_end && s + 3 <= size_; ++s) {
        if (soiAt(data_, size_, s)) {
          cut_short = true;
          end = s;
          break;
        }
      }
      if (end != kNone) break;
    }
    if (segment_end > size_) {
      cut_short = true;
      end = size_;
      break;
    }
    p = segment_end;
    if (marker == 0xDA) end = scanEntropy(p, &cut_short);
  }
  frame->size = end - soi;
  frame->cut_short = cut_short;
  pos_ = end;
  return true;
}

// ---- Raw streams and single JPEGs ------------------------------------------------------------

namespace {

// The bytes of an input file: mapped when possible, else read into memory.
class FileBytes {
 public:
  FileBytes() = default;
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  ~FileBytes() {
    if (mapped_ != nullptr) munmap(mapped_, size_);
  }

  void map(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw ioError(path, "cannot open", errno);
    struct stat info;
    if (fstat(fd, &info) != 0) {
      const int error = errno;
      ::close(fd);
      throw ioError(path, "cannot read", error);
    }
    if (S_ISDIR(info.st_mode)) {
      ::close(fd);
      throw ToolError(kExitUsage, path + ": is a directory, not a file");
    }
    size_ = static_cast<size_t>(info.st_size);
    if (S_ISREG(info.st_mode) && size_ > 0) {
      void* mapped = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
      if (mapped != MAP_FAILED) {
        mapped_ = static_cast<uint8_t*>(mapped);
        madvise(mapped, size_, MADV_SEQUENTIAL);
        ::close(fd);
        return;
      }
    }
    ::close(fd);
    owned_ = readWholeFile(path);
    size_ = owned_.size();
  }

  void readStdin() {
    uint8_t chunk[1 << 16];
    while (true) {
      const size_t got = std::fread(chunk, 1, sizeof(chunk), stdin);
      owned_.insert(owned_.end(), chunk, chunk + got);
      if (got < sizeof(chunk)) break;
    }
    if (std::ferror(stdin)) throw ioError("standard input", "read error", errno);
    size_ = owned_.size();
  }

  const uint8_t* data() const { return mapped_ != nullptr ? mapped_ : owned_.data(); }
  size_t size() const { return size_; }

 private:
  uint8_t* mapped_ = nullptr;
  std::vector<uint8_t> owned_;
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
  if (path == "-") {
    bytes->readStdin();
    if (bytes->size() == 0) throw ToolError(kExitUsage, "standard input: no data");
    if (!hasSOI(bytes->data(), bytes->size())) {
      throw ToolError(kExitUsage, "standard input: no JPEG frame found (no SOI marker)");
    }
    return std::make_unique<RawReader>("standard input", std::move(bytes));
  }
  bytes->map(path);
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

std::vector<uint8_t> readWholeFile(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) throw ioError(path, "cannot open", errno);
  std::vector<uint8_t> data;
  uint8_t chunk[1 << 16];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof(chunk), file)) > 0) {
    data.insert(data.end(), chunk, chunk + got);
  }
  const bool failed = std::ferror(file) != 0;
  const int error = errno;
  std::fclose(file);
  if (failed) throw ioError(path, "read error", error);
  return data;
}

void setFFmpegLogging(bool verbose) { av_log_set_level(verbose ? AV_LOG_ERROR : AV_LOG_QUIET); }

}  // namespace tool
}  // namespace vidra
