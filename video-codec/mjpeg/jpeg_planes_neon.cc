// NEON forms of the box resamplers.
//
// Both take 16 results per step with unaligned loads and stores over the columns in whole
// steps of 16, and hand the strip of columns behind them to the scalar form, so that they read
// exactly the source area of the scalar forms and write exactly the same bytes.

#include <arm_neon.h>

#include <cstddef>

#include "jpeg_dsp.h"

namespace vidra {
namespace jpeg {

// 16 results of row pair (a, b) from source columns 2x .. 2x + 31: a pairwise widening add of
// row a and a pairwise widening accumulate of row b give the four-sample sums in 16-bit lanes
// (at most 1020), then (sum + 1) >> 2 as in the scalar form, narrowed back to bytes.
void resample444To420_neon(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                           int width, int height) {
  const int wide = width / 16 * 16;
  const uint16x8_t round = vdupq_n_u16(1);
  for (int y = 0; y < height && wide > 0; ++y) {
    const uint8_t* a = src + static_cast<ptrdiff_t>(2 * y) * src_stride;
    const uint8_t* b = a + src_stride;
    uint8_t* out = dst + static_cast<ptrdiff_t>(y) * dst_stride;
    for (int x = 0; x < wide; x += 16) {
      const uint16x8_t lo = vpadalq_u8(vpaddlq_u8(vld1q_u8(a + 2 * x)), vld1q_u8(b + 2 * x));
      const uint16x8_t hi =
          vpadalq_u8(vpaddlq_u8(vld1q_u8(a + 2 * x + 16)), vld1q_u8(b + 2 * x + 16));
      vst1q_u8(out + x, vcombine_u8(vshrn_n_u16(vaddq_u16(lo, round), 2),
                                    vshrn_n_u16(vaddq_u16(hi, round), 2)));
    }
  }
  if (wide < width) {
    resample444To420_c(src + 2 * wide, src_stride, dst + wide, dst_stride, width - wide, height);
  }
}

// 16 results of row pair (a, b) from source columns x .. x + 15: the rounding halving add
// computes exactly (a + b + 1) >> 1 per byte.
void resample422To420_neon(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                           int width, int height) {
  const int wide = width / 16 * 16;
  for (int y = 0; y < height && wide > 0; ++y) {
    const uint8_t* a = src + static_cast<ptrdiff_t>(2 * y) * src_stride;
    const uint8_t* b = a + src_stride;
    uint8_t* out = dst + static_cast<ptrdiff_t>(y) * dst_stride;
    for (int x = 0; x < wide; x += 16) {
      vst1q_u8(out + x, vrhaddq_u8(vld1q_u8(a + x), vld1q_u8(b + x)));
    }
  }
  if (wide < width) {
    resample422To420_c(src + wide, src_stride, dst + wide, dst_stride, width - wide, height);
  }
}

}  // namespace jpeg
}  // namespace vidra
