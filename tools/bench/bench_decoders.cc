#include "bench/bench_decoders.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cstring>

#include "vidra/mjpeg.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

namespace vidra {
namespace tool {

BenchFrame makeBenchFrame(const uint8_t* data, size_t size, int width, int height, bool has_dht) {
  BenchFrame frame;
  frame.bytes.assign(size + AV_INPUT_BUFFER_PADDING_SIZE, 0);
  std::memcpy(frame.bytes.data(), data, size);
  frame.size = size;
  frame.width = width;
  frame.height = height;
  frame.has_dht = has_dht;
  return frame;
}

const char* decoderName(DecoderKind kind) {
  switch (kind) {
    case DecoderKind::kVidraOwn:
      return "vidra own decoder";
    case DecoderKind::kVidraTurbo:
      return "vidra turbo path";
    case DecoderKind::kLibjpegTurbo:
      return "libjpeg-turbo";
    case DecoderKind::kFFmpeg:
      return "FFmpeg mjpeg";
  }
  return "?";
}

bool isVidra(DecoderKind kind) {
  return kind == DecoderKind::kVidraOwn || kind == DecoderKind::kVidraTurbo;
}

namespace {

void fillGreyChroma(I420Image* out) {
  std::fill(out->u.begin(), out->u.end(), 0x80);
  std::fill(out->v.begin(), out->v.end(), 0x80);
}

// Brings chroma planes in the frame's own sampling to I420 with the library's exported plane
// operations: a box filter for 4:2:2 and 4:4:4, a stride adaption for 4:2:0. `shift_w` /
// `shift_h` are log2 of the subsampling. False for layouts without a filter (4:4:0, 4:1:1).
bool chromaToI420(const uint8_t* u, const uint8_t* v, int stride, int shift_w, int shift_h,
                  I420Image* out) {
  const int cw = out->width / 2, ch = out->height / 2, cs = out->chromaStride();
  if (shift_w == 1 && shift_h == 1) {
    jpeg::adaptStrides(u, stride, out->u.data(), cs, cw, ch);
    jpeg::adaptStrides(v, stride, out->v.data(), cs, cw, ch);
  } else if (shift_w == 1 && shift_h == 0) {
    jpeg::resample422To420(u, stride, out->u.data(), cs, cw, ch);
    jpeg::resample422To420(v, stride, out->v.data(), cs, cw, ch);
  } else if (shift_w == 0 && shift_h == 0) {
    jpeg::resample444To420(u, stride, out->u.data(), cs, cw, ch);
    jpeg::resample444To420(v, stride, out->v.data(), cs, cw, ch);
  } else {
    return false;
  }
  out->completeChroma();
  return true;
}

class VidraDecoder : public BenchDecoder {
 public:
  VidraDecoder(jpeg::Decoder decoder, bool fallback) {
    options_.decoder = decoder;
    options_.fallback = fallback;
  }
  BenchResult decode(const BenchFrame& frame, I420Image* out) override {
    out->resize(frame.width, frame.height);
    const int cs = out->chromaStride();
    options_.insert_dht = !frame.has_dht;
    jpeg::FrameReport report;
    jpeg::decodeFrame(frame.bytes.data(), frame.size, frame.width, frame.height, out->y.data(),
                      out->yStride(), out->u.data(), cs, out->v.data(), cs, options_, &report);
    if (report.status == jpeg::FrameStatus::kRefused) return BenchResult::kRefused;
    return report.path == jpeg::DecodePath::kTurboFallback ? BenchResult::kFallback
                                                           : BenchResult::kDecoded;
  }

 private:
  jpeg::DecodeOptions options_;
};

// tjDecompressToYUVPlanes with TJFLAG_FASTDCT: 4:2:0 straight into the picture's planes, whose
// chroma rounds up as TurboJPEG's does; 4:2:2 and 4:4:4 chroma into scratch planes and through
// the library's box filter; grey as luma with neutral chroma.
class LibjpegTurboDecoder : public BenchDecoder {
 public:
  LibjpegTurboDecoder() : handle_(tjInitDecompress()) {}
  ~LibjpegTurboDecoder() override {
    if (handle_ != nullptr) tjDestroy(handle_);
  }

  BenchResult decode(const BenchFrame& frame, I420Image* out) override {
    if (handle_ == nullptr) return BenchResult::kRefused;
    unsigned char* data = const_cast<unsigned char*>(frame.bytes.data());
    int width = 0, height = 0, subsampling = 0;
    if (tjDecompressHeader2(handle_, data, frame.size, &width, &height, &subsampling) != 0 ||
        width != frame.width || height != frame.height) {
      return BenchResult::kRefused;
    }
    int shift_w = 0, shift_h = 0;
    if (subsampling == TJSAMP_420) shift_w = shift_h = 1;
    if (subsampling == TJSAMP_422) shift_w = 1;
    if (subsampling != TJSAMP_420 && subsampling != TJSAMP_422 && subsampling != TJSAMP_444 &&
        subsampling != TJSAMP_GRAY) {
      return BenchResult::kRefused;  // 4:4:0, 4:1:1: no box filter for them in the library
    }
    out->resize(width, height);
    unsigned char* planes[3] = {out->y.data(), out->u.data(), out->v.data()};
    int strides[3] = {out->yStride(), out->chromaStride(), out->chromaStride()};
    const bool direct = subsampling == TJSAMP_420 || subsampling == TJSAMP_GRAY;
    if (!direct) {
      // TurboJPEG's chroma planes round up: tjPlaneWidth/Height say how large they are.
      const int chroma_width = tjPlaneWidth(1, width, subsampling);
      const size_t chroma =
          static_cast<size_t>(chroma_width) * tjPlaneHeight(1, height, subsampling);
      scratch_.resize(2 * chroma);
      planes[1] = scratch_.data();
      planes[2] = scratch_.data() + chroma;
      strides[1] = strides[2] = chroma_width;
    }
    if (tjDecompressToYUVPlanes(handle_, data, frame.size, planes, width, strides, height,
                                TJFLAG_FASTDCT) != 0 &&
        tjGetErrorCode(handle_) != TJERR_WARNING) {
      return BenchResult::kRefused;
    }
    if (subsampling == TJSAMP_GRAY) {
      fillGreyChroma(out);
    } else if (!direct) {
      chromaToI420(planes[1], planes[2], strides[1], shift_w, shift_h, out);
    }
    return BenchResult::kDecoded;
  }

 private:
  tjhandle handle_;
  std::vector<uint8_t> scratch_;
};

// FFmpeg's mjpeg decoder on one thread, then the same box filter.
class FFmpegDecoder : public BenchDecoder {
 public:
  FFmpegDecoder() {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
    if (codec == nullptr) return;
    context_ = avcodec_alloc_context3(codec);
    if (context_ == nullptr) return;
    context_->thread_count = 1;
    if (avcodec_open2(context_, codec, nullptr) < 0) avcodec_free_context(&context_);
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
  }
  ~FFmpegDecoder() override {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&context_);
  }

  BenchResult decode(const BenchFrame& frame, I420Image* out) override {
    if (context_ == nullptr || packet_ == nullptr || frame_ == nullptr)
      return BenchResult::kRefused;
    packet_->data = const_cast<uint8_t*>(frame.bytes.data());
    packet_->size = static_cast<int>(frame.size);
    const bool sent = avcodec_send_packet(context_, packet_) >= 0;
    packet_->data = nullptr;
    packet_->size = 0;
    if (!sent || avcodec_receive_frame(context_, frame_) < 0) {
      avcodec_flush_buffers(context_);
      return BenchResult::kRefused;
    }
    const AVPixFmtDescriptor* format =
        av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame_->format));
    bool ok = format != nullptr && frame_->width == frame.width && frame_->height == frame.height &&
              !(format->flags & AV_PIX_FMT_FLAG_RGB) && format->comp[0].depth == 8;
    if (ok) {
      out->resize(frame.width, frame.height);
      jpeg::adaptStrides(frame_->data[0], frame_->linesize[0], out->y.data(), out->yStride(),
                         frame.width, frame.height);
      if (format->nb_components == 1) {
        fillGreyChroma(out);
      } else {
        ok = chromaToI420(frame_->data[1], frame_->data[2], frame_->linesize[1],
                          format->log2_chroma_w, format->log2_chroma_h, out);
      }
    }
    av_frame_unref(frame_);
    return ok ? BenchResult::kDecoded : BenchResult::kRefused;
  }

 private:
  AVCodecContext* context_ = nullptr;
  AVPacket* packet_ = nullptr;
  AVFrame* frame_ = nullptr;
};

}  // namespace

std::unique_ptr<BenchDecoder> makeBenchDecoder(DecoderKind kind, bool fallback) {
  switch (kind) {
    case DecoderKind::kVidraOwn:
      return std::make_unique<VidraDecoder>(jpeg::Decoder::kOwn, fallback);
    case DecoderKind::kVidraTurbo:
      return std::make_unique<VidraDecoder>(jpeg::Decoder::kTurbo, false);
    case DecoderKind::kLibjpegTurbo:
      return std::make_unique<LibjpegTurboDecoder>();
    case DecoderKind::kFFmpeg:
      return std::make_unique<FFmpegDecoder>();
  }
  return nullptr;
}

}  // namespace tool
}  // namespace vidra
