// Block reconstruction for AVX2: two blocks of the full path at once.
//
// The full path transforms a block with eight 128-bit vectors; here block A sits in the low
// 128 bits of each 256-bit vector and block B in the high 128 bits. Every AVX2 step used
// (adds, multiplies, shifts, packs and unpacks) works within each 128-bit half, so each half
// goes through exactly the steps of the SSE4.1 form and gives its samples. The DC and
// low-frequency paths, and a full-path block that finds no partner, use the SSE4.1 form.
//
// The form holds one full-path block back until a second comes. Observable order is kept:
// a pair writes all of A's rows before B's, a block of another path that could overlap the
// held block's rows writes only after the held block is flushed, and the kernel flushes at
// the end of every span, on failure too. Include only in files compiled for AVX2.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "reconstruct_common.h"
#include "reconstruct_sse41.h"

namespace vidra {
namespace jpeg {
namespace {

class Avx2Reconstruction {
 public:
  Avx2Reconstruction()
      : k_(Sse41Reconstruction::load()),
        sqrt2_(_mm256_set1_epi16(kAANSqrt2)),
        c1_847_(_mm256_set1_epi16(kAAN1_847)),
        c1_082_(_mm256_set1_epi16(kAAN1_082)),
        minus1_613_(_mm256_set1_epi16(kAANMinus1_613)),
        sample_bias_(_mm256_set1_epi8(static_cast<char>(0x80))) {}

  // The kernel's workspace and spare_ take turns: a held block stays in its workspace and the
  // kernel goes on in the other.
  VIDRA_ALWAYS_INLINE int16_t* reconstruct(int16_t* block, unsigned position_mask,
                                           unsigned last_position, uint8_t* dest, int stride) {
    switch (blockPath(position_mask, last_position)) {
      case BlockPath::kFull: {
        const bool in4x4 = fullPathIn4x4(position_mask);
        if (held_dest_ == nullptr) {
          int16_t* const next = spare_;
          held_ = block;
          spare_ = block;  // free again once the block is written
          held_in4x4_ = in4x4;
          held_dest_ = dest;
          held_stride_ = stride;
          return next;
        }
        fullPair(held_, held_dest_, held_stride_, block, dest, stride, held_in4x4_ && in4x4);
        held_dest_ = nullptr;
        break;
      }
      case BlockPath::kDC:
        if (held_dest_ != nullptr && mayOverlapHeld(dest, stride)) flush();
        Sse41Reconstruction::dc(k_, block[0], dest, stride);
        break;
      case BlockPath::kLowFrequency:
        if (held_dest_ != nullptr && mayOverlapHeld(dest, stride)) flush();
        Sse41Reconstruction::lowFrequency(k_, block, dest, stride);
        break;
    }
    return block;
  }

  // Writes the held block, if any, on its own.
  VIDRA_ALWAYS_INLINE void flush() {
    if (held_dest_ == nullptr) return;
    if (held_in4x4_) {
      Sse41Reconstruction::full4x4(k_, held_, held_dest_, held_stride_);
    } else {
      Sse41Reconstruction::full(k_, held_, held_dest_, held_stride_);
    }
    held_dest_ = nullptr;
  }

  // Two full-path blocks: `a` to `dest_a`, then `b` to `dest_b`. With `in4x4`, both blocks
  // hold values in rows 0..3 and columns 0..3 only.
  VIDRA_ALWAYS_INLINE void fullPair(const int16_t* a, uint8_t* dest_a, int stride_a,
                                    const int16_t* b, uint8_t* dest_b, int stride_b,
                                    bool in4x4) const {
    __m256i v[8];
    if (in4x4) {
      for (int r = 0; r < 4; ++r) v[r] = loadPair(a, b, r);
      aanPass<true>(v);
      transpose(v);
      aanPass<true>(v);
    } else {
      for (int r = 0; r < 8; ++r) v[r] = loadPair(a, b, r);
      aanPass<false>(v);
      transpose(v);
      aanPass<false>(v);
    }
    storePair(v, dest_a, stride_a, dest_b, stride_b);
  }

 private:
  static VIDRA_ALWAYS_INLINE __m256i loadPair(const int16_t* a, const int16_t* b, int row) {
    const __m128i low = _mm_load_si128(reinterpret_cast<const __m128i*>(a + 8 * row));
    const __m128i high = _mm_load_si128(reinterpret_cast<const __m128i*>(b + 8 * row));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
  }

  // Whether the rows of a block at `dest` could share a byte with those of the held block. It
  // may answer yes for blocks that don't touch, never no for blocks that do. Blocks whose
  // address ranges (first row to the end of the last) are apart can't touch; nor can two
  // blocks with the same stride S whose first rows lie 8 to S - 8 bytes apart, since then every
  // row of one is at least 8 bytes from every row of the other (the blocks beside each other
  // in one plane).
  VIDRA_ALWAYS_INLINE bool mayOverlapHeld(const uint8_t* dest, int stride) const {
    const intptr_t a = reinterpret_cast<intptr_t>(held_dest_);
    const intptr_t b = reinterpret_cast<intptr_t>(dest);
    const intptr_t span_a = 7 * static_cast<intptr_t>(held_stride_);
    const intptr_t span_b = 7 * static_cast<intptr_t>(stride);
    const intptr_t a_low = a + (span_a < 0 ? span_a : 0);
    const intptr_t a_high = a + (span_a > 0 ? span_a : 0) + 8;
    const intptr_t b_low = b + (span_b < 0 ? span_b : 0);
    const intptr_t b_high = b + (span_b > 0 ? span_b : 0) + 8;
    if (a_high <= b_low || b_high <= a_low) return false;
    const intptr_t distance = a < b ? b - a : a - b;
    return !(stride == held_stride_ && distance >= 8 && distance <= intptr_t{stride} - 8);
  }

  VIDRA_ALWAYS_INLINE static __m256i fmul(__m256i x, __m256i c) {
    return _mm256_mulhi_epi16(_mm256_slli_epi16(x, 2), c);
  }

  // Sse41Reconstruction::aanPass on both halves.
  template <bool kLow4>
  VIDRA_ALWAYS_INLINE void aanPass(__m256i v[8]) const {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i i4 = kLow4 ? zero : v[4];
    const __m256i i5 = kLow4 ? zero : v[5];
    const __m256i i6 = kLow4 ? zero : v[6];
    const __m256i i7 = kLow4 ? zero : v[7];
    // Even part.
    const __m256i a0 = _mm256_add_epi16(v[0], i4);
    const __m256i a1 = _mm256_sub_epi16(v[0], i4);
    const __m256i a3 = _mm256_add_epi16(v[2], i6);
    const __m256i a2 = _mm256_sub_epi16(fmul(_mm256_sub_epi16(v[2], i6), sqrt2_), a3);
    const __m256i e0 = _mm256_add_epi16(a0, a3);
    const __m256i e3 = _mm256_sub_epi16(a0, a3);
    const __m256i e1 = _mm256_add_epi16(a1, a2);
    const __m256i e2 = _mm256_sub_epi16(a1, a2);
    // Odd part.
    const __m256i z13 = _mm256_add_epi16(i5, v[3]);
    const __m256i z10 = _mm256_sub_epi16(i5, v[3]);
    const __m256i z11 = _mm256_add_epi16(v[1], i7);
    const __m256i z12 = _mm256_sub_epi16(v[1], i7);
    const __m256i s7 = _mm256_add_epi16(z11, z13);
    const __m256i s11 = fmul(_mm256_sub_epi16(z11, z13), sqrt2_);
    const __m256i z5 = fmul(_mm256_add_epi16(z10, z12), c1_847_);
    const __m256i s10 = _mm256_sub_epi16(fmul(z12, c1_082_), z5);
    const __m256i s12 = _mm256_add_epi16(_mm256_sub_epi16(fmul(z10, minus1_613_), z10), z5);
    const __m256i s6 = _mm256_sub_epi16(s12, s7);
    const __m256i s5 = _mm256_sub_epi16(s11, s6);
    const __m256i s4 = _mm256_add_epi16(s10, s5);
    v[0] = _mm256_add_epi16(e0, s7);
    v[7] = _mm256_sub_epi16(e0, s7);
    v[1] = _mm256_add_epi16(e1, s6);
    v[6] = _mm256_sub_epi16(e1, s6);
    v[2] = _mm256_add_epi16(e2, s5);
    v[5] = _mm256_sub_epi16(e2, s5);
    v[4] = _mm256_add_epi16(e3, s4);
    v[3] = _mm256_sub_epi16(e3, s4);
  }

  // Sse41Reconstruction::transpose on both halves.
  VIDRA_ALWAYS_INLINE static void transpose(__m256i v[8]) {
    const __m256i t0 = _mm256_unpacklo_epi16(v[0], v[1]);
    const __m256i t1 = _mm256_unpackhi_epi16(v[0], v[1]);
    const __m256i t2 = _mm256_unpacklo_epi16(v[2], v[3]);
    const __m256i t3 = _mm256_unpackhi_epi16(v[2], v[3]);
    const __m256i t4 = _mm256_unpacklo_epi16(v[4], v[5]);
    const __m256i t5 = _mm256_unpackhi_epi16(v[4], v[5]);
    const __m256i t6 = _mm256_unpacklo_epi16(v[6], v[7]);
    const __m256i t7 = _mm256_unpackhi_epi16(v[6], v[7]);
    const __m256i u0 = _mm256_unpacklo_epi32(t0, t2);
    const __m256i u1 = _mm256_unpackhi_epi32(t0, t2);
    const __m256i u2 = _mm256_unpacklo_epi32(t1, t3);
    const __m256i u3 = _mm256_unpackhi_epi32(t1, t3);
    const __m256i u4 = _mm256_unpacklo_epi32(t4, t6);
    const __m256i u5 = _mm256_unpackhi_epi32(t4, t6);
    const __m256i u6 = _mm256_unpacklo_epi32(t5, t7);
    const __m256i u7 = _mm256_unpackhi_epi32(t5, t7);
    v[0] = _mm256_unpacklo_epi64(u0, u4);
    v[1] = _mm256_unpackhi_epi64(u0, u4);
    v[2] = _mm256_unpacklo_epi64(u1, u5);
    v[3] = _mm256_unpackhi_epi64(u1, u5);
    v[4] = _mm256_unpacklo_epi64(u2, u6);
    v[5] = _mm256_unpackhi_epi64(u2, u6);
    v[6] = _mm256_unpacklo_epi64(u3, u7);
    v[7] = _mm256_unpackhi_epi64(u3, u7);
  }

  static VIDRA_ALWAYS_INLINE void storeTwoRows(__m128i rows, uint8_t* dest, int stride) {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dest), rows);
    _mm_storeh_pd(reinterpret_cast<double*>(dest + stride), _mm_castsi128_pd(rows));
  }

  // Sse41Reconstruction::storeSamples on both halves: all rows of A, then all rows of B.
  VIDRA_ALWAYS_INLINE void storePair(const __m256i v[8], uint8_t* dest_a, int stride_a,
                                     uint8_t* dest_b, int stride_b) const {
    const __m256i p0 = _mm256_xor_si256(
        _mm256_packs_epi16(_mm256_srai_epi16(v[0], 5), _mm256_srai_epi16(v[1], 5)), sample_bias_);
    const __m256i p1 = _mm256_xor_si256(
        _mm256_packs_epi16(_mm256_srai_epi16(v[2], 5), _mm256_srai_epi16(v[3], 5)), sample_bias_);
    const __m256i p2 = _mm256_xor_si256(
        _mm256_packs_epi16(_mm256_srai_epi16(v[4], 5), _mm256_srai_epi16(v[5], 5)), sample_bias_);
    const __m256i p3 = _mm256_xor_si256(
        _mm256_packs_epi16(_mm256_srai_epi16(v[6], 5), _mm256_srai_epi16(v[7], 5)), sample_bias_);
    const __m256i t0 = _mm256_unpacklo_epi8(p0, p1);
    const __m256i t1 = _mm256_unpackhi_epi8(p0, p1);
    const __m256i t2 = _mm256_unpacklo_epi8(p2, p3);
    const __m256i t3 = _mm256_unpackhi_epi8(p2, p3);
    const __m256i u0 = _mm256_unpacklo_epi8(t0, t1);
    const __m256i u1 = _mm256_unpackhi_epi8(t0, t1);
    const __m256i u2 = _mm256_unpacklo_epi8(t2, t3);
    const __m256i u3 = _mm256_unpackhi_epi8(t2, t3);
    const __m256i rows[4] = {_mm256_unpacklo_epi32(u0, u2), _mm256_unpackhi_epi32(u0, u2),
                             _mm256_unpacklo_epi32(u1, u3), _mm256_unpackhi_epi32(u1, u3)};
    for (int i = 0; i < 4; ++i) {
      storeTwoRows(_mm256_castsi256_si128(rows[i]),
                   dest_a + 2 * i * static_cast<ptrdiff_t>(stride_a), stride_a);
    }
    for (int i = 0; i < 4; ++i) {
      storeTwoRows(_mm256_extracti128_si256(rows[i], 1),
                   dest_b + 2 * i * static_cast<ptrdiff_t>(stride_b), stride_b);
    }
  }

  const Sse41Reconstruction::Constants k_;
  const __m256i sqrt2_, c1_847_, c1_082_, minus1_613_, sample_bias_;
  alignas(16) int16_t workspace_[64];
  // The workspace that the next hold hands to the kernel: not in the kernel's hands, and free
  // once no block is held.
  int16_t* spare_ = workspace_;
  int16_t* held_ = nullptr;
  uint8_t* held_dest_ = nullptr;  // null: no block held
  int held_stride_ = 0;
  bool held_in4x4_ = false;
};

}  // namespace
}  // namespace jpeg
}  // namespace vidra
