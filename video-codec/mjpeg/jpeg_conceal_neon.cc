// NEON form of the 16-wide range interpolation.
//
// The 16 samples of a row are handled at once. A difference times a weight reaches 255 * 256,
// too wide for 16-bit lanes, so those sums are kept in four vectors of 32-bit lanes; shifted
// right by 8 they lie in -255..255 and fit 16 bits again. Each result lies between its two
// reference samples, so taking the low byte of each lane gives the same bytes as the scalar
// form stores.

#include <arm_neon.h>

#include "jpeg_dsp.h"

namespace vidra {
namespace jpeg {

void interpolateRange16_neon(uint8_t* dest, int h, int stride, const uint8_t* top,
                             const uint8_t* bottom) {
  if (h <= 0) return;
  // As in the scalar form: a single row has weight 0 and becomes a copy of `top`.
  const int step = h >= 2 ? 256 / (h - 1) : 0;

  const uint8x16_t top8 = vld1q_u8(top);
  const uint8x16_t bottom8 = vld1q_u8(bottom);
  const int16x8_t top_lo = vreinterpretq_s16_u16(vmovl_u8(vget_low_u8(top8)));
  const int16x8_t top_hi = vreinterpretq_s16_u16(vmovl_high_u8(top8));
  // bottom - top lies in -255..255: the wrapped unsigned difference read as signed.
  const int16x8_t diff_lo =
      vreinterpretq_s16_u16(vsubl_u8(vget_low_u8(bottom8), vget_low_u8(top8)));
  const int16x8_t diff_hi = vreinterpretq_s16_u16(vsubl_high_u8(bottom8, top8));

  // diff * weight + 128 grows by diff * step from one row to the next (step <= 256 fits 16
  // bits). Adding that product row by row gives the same 32-bit sums as multiplying by each
  // row's weight: nothing overflows, |diff * weight| stays below 2^17.
  const int16_t step16 = static_cast<int16_t>(step);
  const int32x4_t increment0 = vmull_n_s16(vget_low_s16(diff_lo), step16);
  const int32x4_t increment1 = vmull_high_n_s16(diff_lo, step16);
  const int32x4_t increment2 = vmull_n_s16(vget_low_s16(diff_hi), step16);
  const int32x4_t increment3 = vmull_high_n_s16(diff_hi, step16);
  int32x4_t sum0 = vdupq_n_s32(128);
  int32x4_t sum1 = sum0;
  int32x4_t sum2 = sum0;
  int32x4_t sum3 = sum0;

  for (int y = 0; y < h; ++y) {
    // top + ((diff * weight + 128) >> 8), the shift arithmetic, in 16-bit lanes.
    const int16x8_t sample_lo =
        vaddq_s16(top_lo, vcombine_s16(vshrn_n_s32(sum0, 8), vshrn_n_s32(sum1, 8)));
    const int16x8_t sample_hi =
        vaddq_s16(top_hi, vcombine_s16(vshrn_n_s32(sum2, 8), vshrn_n_s32(sum3, 8)));
    vst1q_u8(dest, vcombine_u8(vmovn_u16(vreinterpretq_u16_s16(sample_lo)),
                               vmovn_u16(vreinterpretq_u16_s16(sample_hi))));
    sum0 = vaddq_s32(sum0, increment0);
    sum1 = vaddq_s32(sum1, increment1);
    sum2 = vaddq_s32(sum2, increment2);
    sum3 = vaddq_s32(sum3, increment3);
    dest += stride;
  }
}

}  // namespace jpeg
}  // namespace vidra
