// Plane copy and box resampling to 4:2:0.
//
// The exported functions are shared by both decoders: the library's own decoder brings its
// component planes into the caller's planes with them, and the TurboJPEG path does the same
// with the planes that TurboJPEG delivers. The resamplers dispatch through dsp(), so a
// processor without SSSE3/SSE4.1 runs the scalar forms below and never a vector form.

#include <cstddef>
#include <cstring>

#include "jpeg_dsp.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {

void fillGreyPlane(uint8_t* plane, int stride, int width, int rows) {
  if (rows <= 0 || stride == 0) return;
  if (stride > 0) {
    std::memset(plane, 0x80, static_cast<size_t>(stride) * static_cast<size_t>(rows));
    return;
  }
  if (width <= 0) return;
  for (int row = 0; row < rows; ++row) {
    std::memset(plane + static_cast<ptrdiff_t>(row) * stride, 0x80, static_cast<size_t>(width));
  }
}

// dst = (a[2x] + a[2x + 1] + b[2x] + b[2x + 1] + 1) >> 2 with a, b the source rows 2y, 2y + 1.
// The rounding term is 1, not 2: the vector forms reproduce exactly this.
void resample444To420_c(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, int width,
                        int height) {
  for (int y = 0; y < height; ++y) {
    const uint8_t* a = src + static_cast<ptrdiff_t>(2 * y) * src_stride;
    const uint8_t* b = a + src_stride;
    uint8_t* out = dst + static_cast<ptrdiff_t>(y) * dst_stride;
    for (int x = 0; x < width; ++x) {
      const unsigned sum = a[2 * x] + a[2 * x + 1] + b[2 * x] + b[2 * x + 1];
      out[x] = static_cast<uint8_t>((sum + 1) >> 2);
    }
  }
}

// dst = (a[x] + b[x] + 1) >> 1 with a, b the source rows 2y, 2y + 1; columns one to one.
void resample422To420_c(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, int width,
                        int height) {
  for (int y = 0; y < height; ++y) {
    const uint8_t* a = src + static_cast<ptrdiff_t>(2 * y) * src_stride;
    const uint8_t* b = a + src_stride;
    uint8_t* out = dst + static_cast<ptrdiff_t>(y) * dst_stride;
    for (int x = 0; x < width; ++x) {
      out[x] = static_cast<uint8_t>((a[x] + b[x] + 1u) >> 1);
    }
  }
}

void adaptStrides(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, int width,
                  int height) {
  if (height <= 0) return;
  if (src_stride == dst_stride && src_stride >= 0) {
    // One block copy, the bytes between `width` and the stride (of the last row too)
    // included: the destination must hold src_stride * height bytes, none for a stride of 0.
    // Equal negative strides (bottom-up planes) have no block to copy and go row by row below.
    std::memcpy(dst, src, static_cast<size_t>(src_stride) * static_cast<size_t>(height));
    return;
  }
  if (width <= 0) return;
  for (int y = 0; y < height; ++y) {
    std::memcpy(dst + static_cast<ptrdiff_t>(y) * dst_stride,
                src + static_cast<ptrdiff_t>(y) * src_stride, static_cast<size_t>(width));
  }
}

void resample444To420(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, int width,
                      int height) {
  if (width <= 0 || height <= 0) return;
  dsp().resample444To420(src, src_stride, dst, dst_stride, width, height);
}

void resample422To420(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, int width,
                      int height) {
  if (width <= 0 || height <= 0) return;
  dsp().resample422To420(src, src_stride, dst, dst_stride, width, height);
}

}  // namespace jpeg
}  // namespace vidra
