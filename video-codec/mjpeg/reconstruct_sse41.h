// Block reconstruction for SSSE3 + SSE4.1.
//
// Each path gives the same samples as its plain integer twin in reconstruct_c.h: eight lanes
// of 16 bits wrap like the scalar 16-bit steps, _mm_mulhrs_epi16 is rmul, _mm_mulhi_epi16 is
// hmul, and a signed saturating pack followed by an XOR with 0x80 is toSample. Include only in
// files compiled for SSE4.1 (or above).
#pragma once

#include <emmintrin.h>
#include <smmintrin.h>
#include <tmmintrin.h>

#include <cstddef>
#include <cstdint>

#include "reconstruct_common.h"

namespace vidra {
namespace jpeg {
namespace {

inline __m128i fmul(__m128i x, __m128i c) { return _mm_mulhi_epi16(_mm_slli_epi16(x, 2), c); }

// Stores two rows of eight samples: the low half of `rows` at `dest`, the high half one row
// further down.
inline void storeTwoRows(__m128i rows, uint8_t* dest, int stride) {
  _mm_storel_epi64(reinterpret_cast<__m128i*>(dest), rows);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(dest + stride), _mm_unpackhi_epi64(rows, rows));
}

class Sse41Reconstruction {
 public:
  struct Constants {
    __m128i basis;
    __m128i basis_row[8];  // kLowFrequencyBasis[y] in every lane
    __m128i sqrt2, c1_847, c1_082, minus1_613;
    __m128i sample_bias;  // 0x80 in every byte
  };

  static Constants load() {
    Constants k;
    k.basis = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kLowFrequencyBasis));
    // pshufb pattern that repeats lane y, built from a lane-0 pattern by adding 2y.
    const __m128i lane0 = _mm_set1_epi16(0x0100);
    for (int y = 0; y < 8; ++y) {
      const __m128i pattern = _mm_add_epi8(lane0, _mm_set1_epi8(static_cast<char>(2 * y)));
      k.basis_row[y] = _mm_shuffle_epi8(k.basis, pattern);
    }
    k.sqrt2 = _mm_set1_epi16(kAANSqrt2);
    k.c1_847 = _mm_set1_epi16(kAAN1_847);
    k.c1_082 = _mm_set1_epi16(kAAN1_082);
    k.minus1_613 = _mm_set1_epi16(kAANMinus1_613);
    k.sample_bias = _mm_set1_epi8(static_cast<char>(0x80));
    return k;
  }

  Sse41Reconstruction() : k_(load()) {}

  // The full path is split once more: a block whose values all lie in rows 0..3, or in
  // columns 0..3, or both, skips the zero inputs of a pass (see inTopRows, inLeftColumns).
  VIDRA_ALWAYS_INLINE void reconstruct(const int16_t* block, unsigned position_mask,
                                       unsigned last_position, uint8_t* dest, int stride) {
    switch (blockPath(position_mask, last_position)) {
      case BlockPath::kFull:
        if (inTopRows(position_mask)) {
          if (inLeftColumns(position_mask)) {
            fullPart<true, true>(k_, block, dest, stride);
          } else {
            fullPart<true, false>(k_, block, dest, stride);
          }
        } else if (inLeftColumns(position_mask)) {
          fullPart<false, true>(k_, block, dest, stride);
        } else {
          full(k_, block, dest, stride);
        }
        break;
      case BlockPath::kDC:
        dc(k_, block[0], dest, stride);
        break;
      case BlockPath::kLowFrequency:
        lowFrequency(k_, block, dest, stride);
        break;
    }
  }

  VIDRA_ALWAYS_INLINE static void dc(const Constants&, int16_t c0, uint8_t* dest, int stride) {
    int value = c0 >> 5;
    value = value < -128 ? -128 : (value > 127 ? 127 : value);
    const __m128i samples = _mm_set1_epi8(static_cast<char>(value + 128));
    for (int y = 0; y < 8; ++y) {
      _mm_storel_epi64(reinterpret_cast<__m128i*>(dest + static_cast<ptrdiff_t>(y) * stride),
                       samples);
    }
  }

  VIDRA_ALWAYS_INLINE static void lowFrequency(const Constants& k, const int16_t* block,
                                               uint8_t* dest, int stride) {
    const __m128i row0 = _mm_load_si128(reinterpret_cast<const __m128i*>(block));
    const __m128i row1 = _mm_load_si128(reinterpret_cast<const __m128i*>(block + 8));
    // Lanes 0 and 1 of each row, halved or not, spread over all lanes.
    const __m128i half0 = _mm_srai_epi16(row0, 1);
    const __m128i half1 = _mm_srai_epi16(row1, 1);
    const __m128i c0 = _mm_shuffle_epi32(_mm_shufflelo_epi16(half0, 0x00), 0x00);
    const __m128i c1 = _mm_shuffle_epi32(_mm_shufflelo_epi16(row0, 0x55), 0x00);
    const __m128i c8 = _mm_shuffle_epi32(_mm_shufflelo_epi16(half1, 0x00), 0x00);
    const __m128i c9 = _mm_shuffle_epi32(_mm_shufflelo_epi16(row1, 0x55), 0x00);
    const __m128i top = _mm_srai_epi16(_mm_add_epi16(c0, _mm_mulhrs_epi16(c1, k.basis)), 1);
    const __m128i bottom = _mm_add_epi16(c8, _mm_mulhrs_epi16(c9, k.basis));
    for (int y = 0; y < 8; y += 2) {
      const __m128i a =
          _mm_srai_epi16(_mm_add_epi16(top, _mm_mulhrs_epi16(bottom, k.basis_row[y])), 3);
      const __m128i b =
          _mm_srai_epi16(_mm_add_epi16(top, _mm_mulhrs_epi16(bottom, k.basis_row[y + 1])), 3);
      const __m128i samples = _mm_xor_si128(_mm_packs_epi16(a, b), k.sample_bias);
      storeTwoRows(samples, dest + static_cast<ptrdiff_t>(y) * stride, stride);
    }
  }

  // One AAN pass on eight vectors at once: v[i] holds input i of eight transforms, one per
  // lane; on return v[o] holds output o. With `kLow4`, inputs 4..7 are taken as zero and v[4..7]
  // isn't read, and the compiler drops every add or subtract of that zero: the short pass for a
  // block whose values all lie in rows (or columns) 0..3. Adding or subtracting zero changes no
  // 16-bit value, so both forms give the same outputs.
  template <bool kLow4 = false>
  static inline void aanPass(const Constants& k, __m128i v[8]) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i i4 = kLow4 ? zero : v[4];
    const __m128i i5 = kLow4 ? zero : v[5];
    const __m128i i6 = kLow4 ? zero : v[6];
    const __m128i i7 = kLow4 ? zero : v[7];
    // Even part.
    const __m128i a0 = _mm_add_epi16(v[0], i4);
    const __m128i a1 = _mm_sub_epi16(v[0], i4);
    const __m128i a3 = _mm_add_epi16(v[2], i6);
    const __m128i a2 = _mm_sub_epi16(fmul(_mm_sub_epi16(v[2], i6), k.sqrt2), a3);
    const __m128i e0 = _mm_add_epi16(a0, a3);
    const __m128i e3 = _mm_sub_epi16(a0, a3);
    const __m128i e1 = _mm_add_epi16(a1, a2);
    const __m128i e2 = _mm_sub_epi16(a1, a2);
    // Odd part.
    const __m128i z13 = _mm_add_epi16(i5, v[3]);
    const __m128i z10 = _mm_sub_epi16(i5, v[3]);
    const __m128i z11 = _mm_add_epi16(v[1], i7);
    const __m128i z12 = _mm_sub_epi16(v[1], i7);
    const __m128i s7 = _mm_add_epi16(z11, z13);
    const __m128i s11 = fmul(_mm_sub_epi16(z11, z13), k.sqrt2);
    const __m128i z5 = fmul(_mm_add_epi16(z10, z12), k.c1_847);
    const __m128i s10 = _mm_sub_epi16(fmul(z12, k.c1_082), z5);
    const __m128i s12 = _mm_add_epi16(_mm_sub_epi16(fmul(z10, k.minus1_613), z10), z5);
    const __m128i s6 = _mm_sub_epi16(s12, s7);
    const __m128i s5 = _mm_sub_epi16(s11, s6);
    const __m128i s4 = _mm_add_epi16(s10, s5);
    v[0] = _mm_add_epi16(e0, s7);
    v[7] = _mm_sub_epi16(e0, s7);
    v[1] = _mm_add_epi16(e1, s6);
    v[6] = _mm_sub_epi16(e1, s6);
    v[2] = _mm_add_epi16(e2, s5);
    v[5] = _mm_sub_epi16(e2, s5);
    v[4] = _mm_add_epi16(e3, s4);
    v[3] = _mm_sub_epi16(e3, s4);
  }

  // 8x8 transpose of 16-bit lanes: on return v[c] lane r is the old v[r] lane c.
  static inline void transpose(__m128i v[8]) {
    const __m128i t0 = _mm_unpacklo_epi16(v[0], v[1]);
    const __m128i t1 = _mm_unpackhi_epi16(v[0], v[1]);
    const __m128i t2 = _mm_unpacklo_epi16(v[2], v[3]);
    const __m128i t3 = _mm_unpackhi_epi16(v[2], v[3]);
    const __m128i t4 = _mm_unpacklo_epi16(v[4], v[5]);
    const __m128i t5 = _mm_unpackhi_epi16(v[4], v[5]);
    const __m128i t6 = _mm_unpacklo_epi16(v[6], v[7]);
    const __m128i t7 = _mm_unpackhi_epi16(v[6], v[7]);
    const __m128i u0 = _mm_unpacklo_epi32(t0, t2);
    const __m128i u1 = _mm_unpackhi_epi32(t0, t2);
    const __m128i u2 = _mm_unpacklo_epi32(t1, t3);
    const __m128i u3 = _mm_unpackhi_epi32(t1, t3);
    const __m128i u4 = _mm_unpacklo_epi32(t4, t6);
    const __m128i u5 = _mm_unpackhi_epi32(t4, t6);
    const __m128i u6 = _mm_unpacklo_epi32(t5, t7);
    const __m128i u7 = _mm_unpackhi_epi32(t5, t7);
    v[0] = _mm_unpacklo_epi64(u0, u4);
    v[1] = _mm_unpackhi_epi64(u0, u4);
    v[2] = _mm_unpacklo_epi64(u1, u5);
    v[3] = _mm_unpackhi_epi64(u1, u5);
    v[4] = _mm_unpacklo_epi64(u2, u6);
    v[5] = _mm_unpackhi_epi64(u2, u6);
    v[6] = _mm_unpacklo_epi64(u3, u7);
    v[7] = _mm_unpackhi_epi64(u3, u7);
  }

  // The final shift, toSample and the byte transpose back to rows, from lane r of v[x] holding
  // sample x of row r.
  VIDRA_ALWAYS_INLINE static void storeSamples(const Constants& k, const __m128i v[8],
                                               uint8_t* dest, int stride) {
    // p0 = columns 0 and 1 (each eight rows), p1 = columns 2 and 3, ...
    const __m128i p0 = _mm_xor_si128(
        _mm_packs_epi16(_mm_srai_epi16(v[0], 5), _mm_srai_epi16(v[1], 5)), k.sample_bias);
    const __m128i p1 = _mm_xor_si128(
        _mm_packs_epi16(_mm_srai_epi16(v[2], 5), _mm_srai_epi16(v[3], 5)), k.sample_bias);
    const __m128i p2 = _mm_xor_si128(
        _mm_packs_epi16(_mm_srai_epi16(v[4], 5), _mm_srai_epi16(v[5], 5)), k.sample_bias);
    const __m128i p3 = _mm_xor_si128(
        _mm_packs_epi16(_mm_srai_epi16(v[6], 5), _mm_srai_epi16(v[7], 5)), k.sample_bias);
    const __m128i t0 = _mm_unpacklo_epi8(p0, p1);  // x0 x2 of rows 0..7
    const __m128i t1 = _mm_unpackhi_epi8(p0, p1);  // x1 x3
    const __m128i t2 = _mm_unpacklo_epi8(p2, p3);  // x4 x6
    const __m128i t3 = _mm_unpackhi_epi8(p2, p3);  // x5 x7
    const __m128i u0 = _mm_unpacklo_epi8(t0, t1);  // x0..x3 of rows 0..3
    const __m128i u1 = _mm_unpackhi_epi8(t0, t1);  // x0..x3 of rows 4..7
    const __m128i u2 = _mm_unpacklo_epi8(t2, t3);  // x4..x7 of rows 0..3
    const __m128i u3 = _mm_unpackhi_epi8(t2, t3);  // x4..x7 of rows 4..7
    storeTwoRows(_mm_unpacklo_epi32(u0, u2), dest, stride);
    storeTwoRows(_mm_unpackhi_epi32(u0, u2), dest + 2 * static_cast<ptrdiff_t>(stride), stride);
    storeTwoRows(_mm_unpacklo_epi32(u1, u3), dest + 4 * static_cast<ptrdiff_t>(stride), stride);
    storeTwoRows(_mm_unpackhi_epi32(u1, u3), dest + 6 * static_cast<ptrdiff_t>(stride), stride);
  }

  VIDRA_ALWAYS_INLINE static void full(const Constants& k, const int16_t* block, uint8_t* dest,
                                       int stride) {
    fullPart<false, false>(k, block, dest, stride);
  }

  // The full transform, columns first. With `kTopRows`, rows 4..7 of the block are zero: pass 1
  // has zero inputs 4..7 and isn't given them. With `kLeftColumns`, columns 4..7 are zero: pass
  // 1 works lane by lane, so it gives zero in lanes 4..7, which after the transpose are the
  // inputs 4..7 of pass 2.
  template <bool kTopRows, bool kLeftColumns>
  VIDRA_ALWAYS_INLINE static void fullPart(const Constants& k, const int16_t* block, uint8_t* dest,
                                           int stride) {
    __m128i v[8];
    for (int r = 0; r < (kTopRows ? 4 : 8); ++r) {
      v[r] = _mm_load_si128(reinterpret_cast<const __m128i*>(block + 8 * r));
    }
    aanPass<kTopRows>(k, v);      // columns: lane c of v[r] is work[r][c]; writes all eight
    transpose(v);                 // lane r of v[c] is work[r][c]
    aanPass<kLeftColumns>(k, v);  // rows: lane r of v[x] is sample x of row r, before the shift
    storeSamples(k, v, dest, stride);
  }

 private:
  const Constants k_;
};

}  // namespace
}  // namespace jpeg
}  // namespace vidra
