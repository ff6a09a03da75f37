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

bool forcesTurbo(DecoderKind kind) { return kind == DecoderKind::kVidraTurbo; }

bool isVidra(DecoderKind kind) {
  return kind == DecoderKind::kVidraOwn || kind == DecoderKind::kVidraTurbo;
}

namespace {

// Brings planes in the frame's own sampling to the I420 that the library delivers, with the
// library's exported plane operations: a box filter for 4:2:2 and 4:4:4 chroma, a stride
// adaption for 4:2:0. `shift_w` / `shift_h` are log2 of the chroma subsampling; `u` null
// means a grey frame. False for layouts the library has no filter for (4:4:0, 4:1:1).
bool toI420(const uint8_t* y, int y_stride, const uint8_t* u, const uint8_t* v, int uv_stride,
            int shift_w, int shift_h, I420Image* out) {
  const int w = out->width, h = out->height, cw = w / 2, ch = h / 2, cs = out->chromaStride();
  jpeg::adaptStrides(y, y_stride, out->y.data(), out->yStride(), w, h);
  if (u == nullptr) {
    std::fill(out->u.begin(), out->u.end(), 0x80);
    std::fill(out->v.begin(), out->v.end(), 0x80);
    return true;
  }
  if (shift_w == 1 && shift_h == 1) {
    jpeg::adaptStrides(u, uv_stride, out->u.data(), cs, cw, ch);
    jpeg::adaptStrides(v, uv_stride, out->v.data(), cs, cw, ch);
  } else if (shift_w == 1 && shift_h == 0) {
    jpeg::resample422To420(u, uv_stride, out->u.data(), cs, cw, ch);
    jpeg::resample422To420(v, uv_stride, out->v.data(), cs, cw, ch);
  } else if (shift_w == 0 && shift_h == 0) {
    jpeg::resample444To420(u, uv_stride, out->u.data(), cs, cw, ch);
    jpeg::resample444To420(v, uv_stride, out->v.data(), cs, cw, ch);
  } else {
    return false;
  }
  return true;
}

class VidraDecoder : public BenchDecoder {
 public:
  bool decode(const BenchFrame& frame, I420Image* out) override {
    out->resize(frame.width, frame.height);
    const int cs = out->chromaStride();
    return jpeg::decompressMJPEG(frame.bytes.data(), frame.size, frame.width, frame.height,
                                 !frame.has_dht, out->y.data(), out->yStride(), out->u.data(), cs,
                                 out->v.data(), cs);
  }
};

// tjDecompressToYUV with TJFLAG_FASTDCT into planes of the frame's own sampling, then the box
// filter to I420.
class LibjpegTurboDecoder : public BenchDecoder {
 public:
  LibjpegTurboDecoder() : handle_(tjInitDecompress()) {}
  ~LibjpegTurboDecoder() override {
    if (handle_ != nullptr) tjDestroy(handle_);
  }

  bool decode(const BenchFrame& frame, I420Image* out) override {
    if (handle_ == nullptr) return false;
    unsigned char* data = const_cast<unsigned char*>(frame.bytes.data());
    int width = 0, height = 0, subsampling = 0;
    if (tjDecompressHeader2(handle_, data, frame.size, &width, &height, &subsampling) != 0 ||
        width != frame.width || height != frame.height) {
      return false;
    }
    // tjDecompressToYUV pads each plane's rows to 4 bytes and stores the planes back to back.
    constexpr int kPad = 4;
    buffer_.resize(tjBufSizeYUV2(width, kPad, height, subsampling));
    if (tjDecompressToYUV(handle_, data, frame.size, buffer_.data(), TJFLAG_FASTDCT) != 0 &&
        tjGetErrorCode(handle_) != TJERR_WARNING) {
      return false;
    }
    const bool grey = subsampling == TJSAMP_GRAY;
    int strides[3], offsets[3] = {0, 0, 0};
    for (int i = 0; i < (grey ? 1 : 3); ++i) {
      strides[i] = (tjPlaneWidth(i, width, subsampling) + kPad - 1) / kPad * kPad;
      if (i > 0)
        offsets[i] = offsets[i - 1] + strides[i - 1] * tjPlaneHeight(i - 1, height, subsampling);
    }
    int shift_w = 0, shift_h = 0;
    switch (subsampling) {
      case TJSAMP_422:
        shift_w = 1;
        break;
      case TJSAMP_420:
        shift_w = shift_h = 1;
        break;
      case TJSAMP_444:
        break;
      case TJSAMP_GRAY:
        break;
      default:
        return false;  // 4:4:0, 4:1:1: no box filter for them in the library
    }
    out->resize(width, height);
    const uint8_t* base = buffer_.data();
    return toI420(base, strides[0], grey ? nullptr : base + offsets[1],
                  grey ? nullptr : base + offsets[2], grey ? 0 : strides[1], shift_w, shift_h, out);
  }

 private:
  tjhandle handle_;
  std::vector<uint8_t> buffer_;
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

  bool decode(const BenchFrame& frame, I420Image* out) override {
    if (context_ == nullptr || packet_ == nullptr || frame_ == nullptr) return false;
    packet_->data = const_cast<uint8_t*>(frame.bytes.data());
    packet_->size = static_cast<int>(frame.size);
    const bool sent = avcodec_send_packet(context_, packet_) >= 0;
    packet_->data = nullptr;
    packet_->size = 0;
    if (!sent || avcodec_receive_frame(context_, frame_) < 0) {
      avcodec_flush_buffers(context_);
      return false;
    }
    const AVPixFmtDescriptor* format =
        av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame_->format));
    bool ok = format != nullptr && frame_->width == frame.width && frame_->height == frame.height &&
              !(format->flags & AV_PIX_FMT_FLAG_RGB) && format->comp[0].depth == 8;
    if (ok) {
      out->resize(frame.width, frame.height);
      const bool grey = format->nb_components == 1;
      ok = toI420(frame_->data[0], frame_->linesize[0], grey ? nullptr : frame_->data[1],
                  grey ? nullptr : frame_->data[2], grey ? 0 : frame_->linesize[1],
                  format->log2_chroma_w, format->log2_chroma_h, out);
    }
    av_frame_unref(frame_);
    return ok;
  }

 private:
  AVCodecContext* context_ = nullptr;
  AVPacket* packet_ = nullptr;
  AVFrame* frame_ = nullptr;
};

}  // namespace

std::unique_ptr<BenchDecoder> makeBenchDecoder(DecoderKind kind) {
  switch (kind) {
    case DecoderKind::kVidraOwn:
    case DecoderKind::kVidraTurbo:
      return std::make_unique<VidraDecoder>();
    case DecoderKind::kLibjpegTurbo:
      return std::make_unique<LibjpegTurboDecoder>();
    case DecoderKind::kFFmpeg:
      return std::make_unique<FFmpegDecoder>();
  }
  return nullptr;
}

}  // namespace tool
}  // namespace vidra
