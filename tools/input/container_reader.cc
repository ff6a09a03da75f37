#include "input/container_reader.h"

#include <algorithm>
#include <cstdio>

#include "cli/cli.h"
#include "input/usual_size.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace vidra {
namespace tool {

namespace {

std::string avError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

class ContainerReader : public FrameReader {
 public:
  ~ContainerReader() override {
    av_packet_free(&packet_);
    avformat_close_input(&context_);
  }

  static std::unique_ptr<ContainerReader> probe(const std::string& path, ContainerProbe* result,
                                                std::string* message) {
    std::unique_ptr<ContainerReader> reader(new ContainerReader());
    reader->path_ = path;
    *result = ContainerProbe::kNotRecognised;
    if (avformat_open_input(&reader->context_, path.c_str(), nullptr, nullptr) < 0) {
      reader->context_ = nullptr;
      return nullptr;
    }
    const std::string format = reader->context_->iformat->name;
    if (format == "mjpeg" || format == "jpeg_pipe" || format == "mpjpeg" || format == "image2" ||
        format == "mjpeg_2000") {
      *result = ContainerProbe::kRawJPEG;
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
      *result = ContainerProbe::kNoVideo;
      *message = "no video track (a " + reader->format_ + " file with " + kinds + " tracks only)";
      return nullptr;
    }
    const AVCodecParameters* parameters = reader->context_->streams[stream]->codecpar;
    if (parameters->codec_id != AV_CODEC_ID_MJPEG) {
      *result = ContainerProbe::kOtherVideo;
      *message = "its video track (#" + std::to_string(stream) + " of a " + reader->format_ +
                 " file) is " + avcodec_get_name(parameters->codec_id) +
                 ", not MJPEG; this tool decodes MJPEG only";
      return nullptr;
    }
    reader->stream_ = stream;
    reader->packet_ = av_packet_alloc();
    *result = ContainerProbe::kMJPEGTrack;
    return reader;
  }

  bool next(Frame* frame) override {
    av_packet_unref(packet_);
    while (true) {
      const int status = av_read_frame(context_, packet_);
      if (status == AVERROR_EOF) {
        checkEndedEarly();
        return false;
      }
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
    if (frame->time_seconds >= 0) {
      const double duration =
          packet_->duration > 0 ? packet_->duration * av_q2d(stream->time_base) : frameDuration();
      end_seconds_ = std::max(end_seconds_, frame->time_seconds + duration);
    }
    frame->junk_before = 0;
    // The demuxer flags a packet that the end of the file cut off (AVI does).
    frame->cut_short = (packet_->flags & AV_PKT_FLAG_CORRUPT) != 0;
    cut_packets_ += frame->cut_short;
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
  // frames are read once ahead, through a second reader, as raw files are.
  bool usualFrameSize(int* width, int* height) const override {
    ContainerProbe probe;
    std::string message, read_error;
    const std::unique_ptr<ContainerReader> again = ContainerReader::probe(path_, &probe, &message);
    if (again == nullptr) return false;
    UsualSize sizes;
    for (Frame frame; !sizes.full() && again->nextOrStop(&frame, &read_error);) {
      sizes.add(frame.data, frame.size);
    }
    return sizes.mostCommon(width, height);
  }

  bool frameRate(int* num, int* den) const override {
    AVRational rate = rate_();
    if (rate.num <= 0 || rate.den <= 0) return false;
    *num = rate.num;
    *den = rate.den;
    return true;
  }

 private:
  ContainerReader() = default;

  AVRational rate_() const {
    const AVStream* stream = context_->streams[stream_];
    AVRational rate = stream->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) rate = stream->r_frame_rate;
    return rate;
  }
  double frameDuration() const {
    const AVRational rate = rate_();
    return rate.num > 0 && rate.den > 0 ? av_q2d(av_inv_q(rate)) : 0;
  }

  // A container whose header gives its duration (Matroska does) but whose frames stop more than
  // two frames (and a tenth of a second) short of it ended early: the file was cut off. So did
  // one whose demuxer flagged a packet as cut off.
  void checkEndedEarly() {
    if (count_ == 0) return;
    char text[160];
    if (cut_packets_ > 0) {
      std::snprintf(text, sizeof(text), ": the file ends early, inside frame %lld",
                    static_cast<long long>(count_ - 1));
      throw ToolError(kExitFrames, path_ + text);
    }
    if (context_->duration <= 0 || end_seconds_ < 0) return;
    const double declared = context_->duration / static_cast<double>(AV_TIME_BASE);
    const double start =
        context_->start_time != AV_NOPTS_VALUE ? context_->start_time / double(AV_TIME_BASE) : 0;
    if (end_seconds_ - start + std::max(0.1, 2 * frameDuration()) < declared) {
      std::snprintf(text, sizeof(text),
                    ": the file ends early: its frames reach %.3f s of the %.3f s its header gives",
                    end_seconds_ - start, declared);
      throw ToolError(kExitFrames, path_ + text);
    }
  }

  AVFormatContext* context_ = nullptr;
  AVPacket* packet_ = nullptr;
  int stream_ = -1;
  int64_t count_ = 0;
  int64_t cut_packets_ = 0;
  double end_seconds_ = -1;  // presentation end of the frames read so far
  std::string format_;
};

}  // namespace

std::unique_ptr<FrameReader> probeContainer(const std::string& path, ContainerProbe* result,
                                            std::string* message) {
  return ContainerReader::probe(path, result, message);
}

}  // namespace tool
}  // namespace vidra
