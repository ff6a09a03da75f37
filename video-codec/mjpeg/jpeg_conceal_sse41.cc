// Vector form of the 16-wide range interpolation.
//
// The 16 samples of a row are handled at once in four vectors of 32-bit lanes: a difference
// times a weight reaches 255 * 256, too wide for 16-bit lanes. Each result lies between its
// two reference samples, so taking the low byte of each lane gives the same bytes as the
// scalar form stores.

#include <smmintrin.h>

#include "jpeg_dsp.h"

namespace vidra {
namespace jpeg {

void interpolateRange16_sse41(uint8_t* dest, int h, int stride, const uint8_t* top,
                              const uint8_t* bottom) {
  if (h <= 0) return;
  // As in the scalar form: a single row has weight 0 and becomes a copy of `top`.
  const int step = h >= 2 ? 256 / (h - 1) : 0;

  const __m128i zero = _mm_setzero_si128();
  const __m128i top8 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(top));
  const __m128i bottom8 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bottom));
  const __m128i top_lo16 = _mm_cvtepu8_epi16(top8);
  const __m128i top_hi16 = _mm_unpackhi_epi8(top8, zero);
  // bottom - top lies in -255..255 and fits 16 bits.
  const __m128i diff_lo16 = _mm_sub_epi16(_mm_cvtepu8_epi16(bottom8), top_lo16);
  const __m128i diff_hi16 = _mm_sub_epi16(_mm_unpackhi_epi8(bottom8, zero), top_hi16);

  // Columns 0-3, 4-7, 8-11 and 12-15, widened to 32 bits.
  const __m128i top0 = _mm_cvtepu16_epi32(top_lo16);
  const __m128i top1 = _mm_cvtepu16_epi32(_mm_srli_si128(top_lo16, 8));
  const __m128i top2 = _mm_cvtepu16_epi32(top_hi16);
  const __m128i top3 = _mm_cvtepu16_epi32(_mm_srli_si128(top_hi16, 8));

  // diff * weight + 128 grows by diff * step from one row to the next. Adding that product
  // row by row gives the same 32-bit sums as multiplying by each row's weight (nothing
  // overflows: |diff * weight| stays below 2^17), with one multiplication per rectangle.
  const __m128i step32 = _mm_set1_epi32(step);
  const __m128i increment0 = _mm_mullo_epi32(_mm_cvtepi16_epi32(diff_lo16), step32);
  const __m128i increment1 =
      _mm_mullo_epi32(_mm_cvtepi16_epi32(_mm_srli_si128(diff_lo16, 8)), step32);
  const __m128i increment2 = _mm_mullo_epi32(_mm_cvtepi16_epi32(diff_hi16), step32);
  const __m128i increment3 =
      _mm_mullo_epi32(_mm_cvtepi16_epi32(_mm_srli_si128(diff_hi16, 8)), step32);
  __m128i sum0 = _mm_set1_epi32(128);
  __m128i sum1 = sum0;
  __m128i sum2 = sum0;
  __m128i sum3 = sum0;

  // Byte 0 of each 32-bit lane, moved to bytes 0-3, 4-7, 8-11 or 12-15 of the row.
  const __m128i gather0 =
      _mm_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i gather1 =
      _mm_setr_epi8(-1, -1, -1, -1, 0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i gather2 =
      _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, 0, 4, 8, 12, -1, -1, -1, -1);
  const __m128i gather3 =
      _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 4, 8, 12);

  for (int y = 0; y < h; ++y) {
    // top + ((diff * weight + 128) >> 8), the shift arithmetic.
    const __m128i sample0 = _mm_add_epi32(top0, _mm_srai_epi32(sum0, 8));
    const __m128i sample1 = _mm_add_epi32(top1, _mm_srai_epi32(sum1, 8));
    const __m128i sample2 = _mm_add_epi32(top2, _mm_srai_epi32(sum2, 8));
    const __m128i sample3 = _mm_add_epi32(top3, _mm_srai_epi32(sum3, 8));
    const __m128i row = _mm_or_si128(
        _mm_or_si128(_mm_shuffle_epi8(sample0, gather0), _mm_shuffle_epi8(sample1, gather1)),
        _mm_or_si128(_mm_shuffle_epi8(sample2, gather2), _mm_shuffle_epi8(sample3, gather3)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dest), row);
    sum0 = _mm_add_epi32(sum0, increment0);
    sum1 = _mm_add_epi32(sum1, increment1);
    sum2 = _mm_add_epi32(sum2, increment2);
    sum3 = _mm_add_epi32(sum3, increment3);
    dest += stride;
  }
}

}  // namespace jpeg
}  // namespace vidra
