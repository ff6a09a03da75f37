// Vector forms of the box resamplers (SSSE3 + SSE4.1).
//
// Both take 16 results per step with unaligned loads and stores over the columns in whole
// steps of 16, and hand the strip of columns behind them to the scalar form, so that they read
// exactly the source area of the scalar forms and write exactly the same bytes.

#include <emmintrin.h>
#include <smmintrin.h>
#include <tmmintrin.h>

#include <cstddef>

#include "jpeg_dsp.h"

namespace vidra {
namespace jpeg {

// 16 results of row pair (a, b) from source columns 2x .. 2x + 31: pmaddubsw against ones
// separates even and odd columns and adds each pair in one 16-bit lane (at most 510 per row,
// 1020 for the box, far from the signed 16-bit limit), then (sum + 1) >> 2 as in the scalar
// form, and packs back to bytes.
void resample444To420_sse41(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                            int width, int height) {
  const int wide = width / 16 * 16;
  const __m128i ones = _mm_set1_epi8(1);
  const __m128i round = _mm_set1_epi16(1);
  for (int y = 0; y < height && wide > 0; ++y) {
    const uint8_t* a = src + static_cast<ptrdiff_t>(2 * y) * src_stride;
    const uint8_t* b = a + src_stride;
    uint8_t* out = dst + static_cast<ptrdiff_t>(y) * dst_stride;
    for (int x = 0; x < wide; x += 16) {
      const __m128i a0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + 2 * x));
      const __m128i a1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + 2 * x + 16));
      const __m128i b0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 2 * x));
      const __m128i b1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 2 * x + 16));
      __m128i lo = _mm_add_epi16(_mm_maddubs_epi16(a0, ones), _mm_maddubs_epi16(b0, ones));
      __m128i hi = _mm_add_epi16(_mm_maddubs_epi16(a1, ones), _mm_maddubs_epi16(b1, ones));
      lo = _mm_srli_epi16(_mm_add_epi16(lo, round), 2);
      hi = _mm_srli_epi16(_mm_add_epi16(hi, round), 2);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm_packus_epi16(lo, hi));
    }
  }
  if (wide < width) {
    resample444To420_c(src + 2 * wide, src_stride, dst + wide, dst_stride, width - wide, height);
  }
}

// 16 results of row pair (a, b) from source columns x .. x + 15: pavgb computes exactly
// (a + b + 1) >> 1 per byte.
void resample422To420_sse41(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                            int width, int height) {
  const int wide = width / 16 * 16;
  for (int y = 0; y < height && wide > 0; ++y) {
    const uint8_t* a = src + static_cast<ptrdiff_t>(2 * y) * src_stride;
    const uint8_t* b = a + src_stride;
    uint8_t* out = dst + static_cast<ptrdiff_t>(y) * dst_stride;
    for (int x = 0; x < wide; x += 16) {
      const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + x));
      const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + x));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm_avg_epu8(va, vb));
    }
  }
  if (wide < width) {
    resample422To420_c(src + wide, src_stride, dst + wide, dst_stride, width - wide, height);
  }
}

}  // namespace jpeg
}  // namespace vidra
