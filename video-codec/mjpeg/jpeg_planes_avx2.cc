// AVX2 forms of the box resamplers: the steps of jpeg_planes_sse41.cc on 32 results at a time.
// Each row's columns in whole steps of 32 are done here; the strip of columns behind them goes
// to the SSE4.1 form (which hands its own rest to the scalar form), so that the source area
// read and the bytes written are exactly those of the scalar forms.

#include <immintrin.h>

#include <cstddef>

#include "jpeg_dsp.h"

namespace vidra {
namespace jpeg {

void resample444To420_avx2(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                           int width, int height) {
  const int wide = width / 32 * 32;
  const __m256i ones = _mm256_set1_epi8(1);
  const __m256i round = _mm256_set1_epi16(1);
  for (int y = 0; y < height && wide > 0; ++y) {
    const uint8_t* a = src + static_cast<ptrdiff_t>(2 * y) * src_stride;
    const uint8_t* b = a + src_stride;
    uint8_t* out = dst + static_cast<ptrdiff_t>(y) * dst_stride;
    for (int x = 0; x < wide; x += 32) {
      const __m256i a0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + 2 * x));
      const __m256i a1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + 2 * x + 32));
      const __m256i b0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 2 * x));
      const __m256i b1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 2 * x + 32));
      __m256i lo = _mm256_add_epi16(_mm256_maddubs_epi16(a0, ones), _mm256_maddubs_epi16(b0, ones));
      __m256i hi = _mm256_add_epi16(_mm256_maddubs_epi16(a1, ones), _mm256_maddubs_epi16(b1, ones));
      lo = _mm256_srli_epi16(_mm256_add_epi16(lo, round), 2);
      hi = _mm256_srli_epi16(_mm256_add_epi16(hi, round), 2);
      // packus works within 128-bit halves; the permute puts the 32 results in order.
      const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(lo, hi), 0xD8);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x), packed);
    }
  }
  if (wide < width) {
    resample444To420_sse41(src + 2 * wide, src_stride, dst + wide, dst_stride, width - wide,
                           height);
  }
}

void resample422To420_avx2(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                           int width, int height) {
  const int wide = width / 32 * 32;
  for (int y = 0; y < height && wide > 0; ++y) {
    const uint8_t* a = src + static_cast<ptrdiff_t>(2 * y) * src_stride;
    const uint8_t* b = a + src_stride;
    uint8_t* out = dst + static_cast<ptrdiff_t>(y) * dst_stride;
    for (int x = 0; x < wide; x += 32) {
      const __m256i va = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + x));
      const __m256i vb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + x));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x), _mm256_avg_epu8(va, vb));
    }
  }
  if (wide < width) {
    resample422To420_sse41(src + wide, src_stride, dst + wide, dst_stride, width - wide, height);
  }
}

}  // namespace jpeg
}  // namespace vidra
