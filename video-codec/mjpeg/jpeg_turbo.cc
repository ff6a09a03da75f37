// JTDecoder: the TurboJPEG path.
//
// The frame goes through tjDecompressToYUV() into one buffer of planar YUV in the frame's own
// chroma layout, and from there into the caller's 4:2:0 planes: luma row by row, chroma through
// the plane operations that the library's own decoder ends in as well. TurboJPEG either
// delivers the whole frame or the call fails; nothing is concealed here.

#include "jpeg_turbo.h"

#include <turbojpeg.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "jpeg_dsp.h"
#include "tj_compat.h"
#include "vidra/log.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

// TurboJPEG's fastest inverse DCT and no other flag.
constexpr int kDecompressFlags = TJFLAG_FASTDCT;
static_assert(kDecompressFlags == 2048, "TJFLAG_FASTDCT is expected to be 2048");

constexpr uint32_t kDHTSegmentSize = sizeof(kMJPGDHTSeg);
static_assert(kDHTSegmentSize == 420, "the default DHT segment is 420 bytes");

constexpr uint8_t kGrey = 0x80;

// Owns the TurboJPEG handle of one call. The handle is destroyed exactly once: by destroy() on
// the way out of a decoded frame, whose result counts, or by the destructor on every other way
// out (refusals and exceptions), whose result is ignored.
class HandleOwner {
 public:
  explicit HandleOwner(tjhandle handle) : handle_(handle) {}
  ~HandleOwner() {
    if (owned_) tjDestroy(handle_);
  }
  HandleOwner(const HandleOwner&) = delete;
  HandleOwner& operator=(const HandleOwner&) = delete;

  tjhandle get() const { return handle_; }
  int destroy() {
    owned_ = false;
    return tjDestroy(handle_);
  }

 private:
  tjhandle handle_;
  bool owned_ = true;
};

// Where tjDecompressToYUV() puts the planes of a frame.
//
// The function writes the planes one behind the other, Y then Cb then Cr, each with
// tjPlaneHeight() rows whose length is tjPlaneWidth() rounded up to a multiple of 4 (TJPAD), the
// row padding that tjDecompressToYUV() always asks for. tjPlaneWidth() and tjPlaneHeight()
// themselves round the frame's size up to whole chroma samples: a 101x75 4:2:0 frame has a Y
// plane of 102 x 76 samples in rows of 104 bytes, and chroma planes of 51 x 38 samples in rows
// of 52 bytes. For widths whose rows need no padding and heights that fit the subsampling, this
// is the packed layout w x h, cw x ch, ...; for all other sizes reading the packed layout would
// take samples from the wrong place, so the offsets are derived from the library here. The
// bytes between a plane's width and its row length are never written by TurboJPEG (libjpeg-turbo
// 2.1.5, checked for sizes from 1x1 to 1279x721 in every layout).
struct YUVLayout {
  int planes = 0;
  int width[3] = {};   // samples that TurboJPEG writes per row
  int height[3] = {};  // rows
  int stride[3] = {};  // bytes from one row to the next
  size_t offset[3] = {};
  size_t size = 0;  // bytes of the whole buffer
};

// Fills `layout` for a frame of `width` x `height` in `subsampling`. False when TurboJPEG knows
// no such layout, or when the sum of the planes disagrees with TJBUFSIZEYUV(), the size that
// tjDecompressToYUV() assumes for its buffer: then the planes can't be found safely.
bool computeLayout(int width, int height, int subsampling, YUVLayout* layout) {
  if (width <= 0 || height <= 0 || subsampling < 0 || subsampling >= TJ_NUMSAMP) return false;
  layout->planes = subsampling == TJSAMP_GRAY ? 1 : 3;
  size_t offset = 0;
  for (int i = 0; i < layout->planes; ++i) {
    const int plane_width = tjPlaneWidth(i, width, subsampling);
    const int plane_height = tjPlaneHeight(i, height, subsampling);
    if (plane_width <= 0 || plane_height <= 0) return false;
    layout->width[i] = plane_width;
    layout->height[i] = plane_height;
    layout->stride[i] = TJPAD(plane_width);
    layout->offset[i] = offset;
    offset += static_cast<size_t>(layout->stride[i]) * static_cast<size_t>(plane_height);
  }
  layout->size = offset;
  return static_cast<unsigned long>(offset) == TJBUFSIZEYUV(width, height, subsampling);
}

}  // namespace

bool JTDecoder::decompress(const uint8_t* data, uint32_t size, int width, int height,
                           bool insert_dht, uint8_t* y, int y_stride, uint8_t* u, int u_stride,
                           uint8_t* v, int v_stride) {
  VIDRA_LOG(6, "mjpeg") << "Using jpeg-turbo";

  // A failed tjInitDecompress() gives a null handle; tjIgnoreWarnings() refuses that.
  HandleOwner handle(tjInitDecompress());
  if (tjIgnoreWarnings(handle.get(), ignore_warnings_) < 0) return false;

  // The stream copy: SOI (the first two bytes, not looked at), the default tables, and the rest
  // of the frame. Any DHT segment of the frame's own comes behind the default one and replaces
  // its tables. Declared before the YUV buffer, so that it is released after it.
  std::unique_ptr<uint8_t[]> stream_copy;
  const uint8_t* stream = data;
  uint32_t stream_size = size;
  if (insert_dht) {
    // Refused without reading `data`: a stream of fewer than two bytes has no SOI to put the
    // tables behind, and for a size within 420 bytes of 4 GiB the 32-bit length of the copy
    // would wrap around and the copy would be shorter than the bytes put into it.
    if (data == nullptr || size < 2 || size > UINT32_MAX - kDHTSegmentSize) return false;
    stream_size = size + kDHTSegmentSize;
    stream_copy.reset(new uint8_t[stream_size]);
    std::memcpy(stream_copy.get(), data, 2);
    std::memcpy(stream_copy.get() + 2, kMJPGDHTSeg, kDHTSegmentSize);
    std::memcpy(stream_copy.get() + 2 + kDHTSegmentSize, data + 2, size - 2);
    stream = stream_copy.get();
  }

  // tjDecompressHeader2() answers 0 without writing anything for a stream that ends before a
  // frame header (a tables-only stream, or SOI alone); the start values then fail the checks
  // below. TurboJPEG doesn't write through the stream pointer.
  int jpeg_width = 0;
  int jpeg_height = 0;
  int subsampling = -1;
  if (tjDecompressHeader2(handle.get(), const_cast<uint8_t*>(stream), stream_size, &jpeg_width,
                          &jpeg_height, &subsampling) != 0) {
    VIDRA_LOG(2, "mjpeg") << "Error decoding (M)JPEG header: " << tjGetErrorStr();
    return false;
  }

  // This path doesn't scale or crop.
  if (jpeg_width != width || jpeg_height != height) return false;

  // Refused quietly, like a size mismatch, before anything is decoded: a stream without a frame
  // header (whose size stays 0x0, which a caller could ask for), a layout whose buffer can't be
  // laid out, and a missing luma plane, or a missing chroma plane where chroma rows are due.
  YUVLayout layout;
  if (!computeLayout(jpeg_width, jpeg_height, subsampling, &layout)) return false;
  const int w = jpeg_width;
  const int h = jpeg_height;
  const int cw = w / 2;
  const int ch = h / 2;
  if (y == nullptr || (ch > 0 && (u == nullptr || v == nullptr))) return false;

  std::unique_ptr<uint8_t[]> yuv(new uint8_t[layout.size]);
  if (tjDecompressToYUV(handle.get(), const_cast<uint8_t*>(stream), stream_size, yuv.get(),
                        kDecompressFlags) != 0) {
    VIDRA_LOG(2, "mjpeg") << "Error decoding (M)JPEG image: " << tjGetErrorStr();
    return false;
  }

  const uint8_t* src_y = yuv.get() + layout.offset[0];
  for (int row = 0; row < h; ++row) {
    std::memcpy(y + static_cast<ptrdiff_t>(row) * y_stride,
                src_y + static_cast<ptrdiff_t>(row) * layout.stride[0], static_cast<size_t>(w));
  }

  uint8_t* const src_cb = yuv.get() + layout.offset[1];
  uint8_t* const src_cr = yuv.get() + layout.offset[2];
  switch (subsampling) {
    case TJSAMP_444:
      resample444To420(src_cb, layout.stride[1], u, u_stride, cw, ch);
      resample444To420(src_cr, layout.stride[2], v, v_stride, cw, ch);
      break;
    case TJSAMP_422:
      resample422To420(src_cb, layout.stride[1], u, u_stride, cw, ch);
      resample422To420(src_cr, layout.stride[2], v, v_stride, cw, ch);
      break;
    case TJSAMP_420:
      // When a caller's stride equals the row length, adaptStrides() copies whole rows, padding
      // included. TurboJPEG leaves that padding unwritten, so it is set to grey first and the
      // caller's stride gaps receive defined bytes.
      for (int plane = 1; plane < 3; ++plane) {
        const int pad = layout.stride[plane] - layout.width[plane];
        if (pad == 0) continue;
        uint8_t* row = yuv.get() + layout.offset[plane] + layout.width[plane];
        for (int r = 0; r < layout.height[plane]; ++r, row += layout.stride[plane]) {
          std::memset(row, kGrey, static_cast<size_t>(pad));
        }
      }
      adaptStrides(src_cb, layout.stride[1], u, u_stride, cw, ch);
      adaptStrides(src_cr, layout.stride[2], v, v_stride, cw, ch);
      break;
    default:
      // TJSAMP_GRAY has no chroma. TJSAMP_440 (chroma at half height, full width) and TJSAMP_411
      // (quarter width) have chroma that no plane operation of the library brings to 4:2:0;
      // their frames come out like grey ones, luma as decoded and chroma neutral, which is
      // also what the library's own decoder does with layouts it can't express. The result is
      // that of tjDestroy() as for every other frame.
      fillGreyPlane(u, u_stride, cw, ch);
      fillGreyPlane(v, v_stride, cw, ch);
      break;
  }

  if (handle.destroy() != 0) {
    VIDRA_LOG(2, "mjpeg") << "Error releasing jpeg handle: " << tjGetErrorStr();
    return false;
  }
  return true;
}

}  // namespace jpeg
}  // namespace vidra
