// Block reconstruction for NEON (aarch64).
//
// Each path gives the same samples as its plain integer twin in reconstruct_c.h, eight lanes of
// 16 bits at a time: additions and subtractions wrap like the scalar 16-bit steps, and nothing
// saturates before the final step, where a saturating narrow to signed bytes followed by an
// XOR with 0x80 is toSample. The two products map onto doubling multiplies:
//   rmul(a, k) = (a * k + 2^14) >> 15 = vqrdmulh(a, k), which saturates only for
//     a = k = -32768; no basis entry is -32768;
//   hmul(a, c) = (a * c) >> 16 = vqdmulh(a, c / 2) for even c, which saturates only for
//     a = c / 2 = -32768; every full-path multiplier is even and its half above -32768.
#pragma once

#include <arm_neon.h>

#include <cstddef>
#include <cstdint>

#include "reconstruct_common.h"

namespace vidra {
namespace jpeg {
namespace {

constexpr bool halvesExactly(int16_t c) { return c % 2 == 0 && c / 2 > -32768; }
static_assert(halvesExactly(kAANSqrt2) && halvesExactly(kAAN1_847) && halvesExactly(kAAN1_082) &&
                  halvesExactly(kAANMinus1_613),
              "vqdmulh by c / 2 is hmul by c only for even c");
constexpr bool noMinimum(const int16_t* values, int n) {
  return n == 0 || (values[0] != -32768 && noMinimum(values + 1, n - 1));
}
static_assert(noMinimum(kLowFrequencyBasis, 8), "vqrdmulh is rmul unless both are -32768");

// fmul: the input times 4 (wrapping shift), then hmul by the multiplier, given as its half.
VIDRA_ALWAYS_INLINE int16x8_t fmul(int16x8_t x, int16x8_t half_c) {
  return vqdmulhq_s16(vshlq_n_s16(x, 2), half_c);
}

// toSample of each lane of `values`, stored as eight bytes.
VIDRA_ALWAYS_INLINE void storeRow(int16x8_t values, uint8_t* dest) {
  vst1_u8(dest, veor_u8(vreinterpret_u8_s8(vqmovn_s16(values)), vdup_n_u8(0x80)));
}

struct NeonReconstruction {
  struct Constants {
    int16x8_t basis;                              // kLowFrequencyBasis
    int16x8_t sqrt2, c1_847, c1_082, minus1_613;  // the full-path multipliers, halved
  };

  NeonReconstruction() : k_(load()) {}

  // The form's interface to the kernel (mcu_kernel_impl.h).
  VIDRA_ALWAYS_INLINE void reconstruct(const int16_t* block, unsigned position_mask,
                                       unsigned last_position, uint8_t* dest, int stride) {
    reconstruct(k_, block, position_mask, last_position, dest, stride);
  }

  static Constants load() {
    Constants k;
    k.basis = vld1q_s16(kLowFrequencyBasis);
    k.sqrt2 = vdupq_n_s16(kAANSqrt2 / 2);
    k.c1_847 = vdupq_n_s16(kAAN1_847 / 2);
    k.c1_082 = vdupq_n_s16(kAAN1_082 / 2);
    k.minus1_613 = vdupq_n_s16(kAANMinus1_613 / 2);
    return k;
  }

  // The shared path choice (reconstruct_common.h), with one more step inside the full path:
  // a block whose values all lie in rows 0..3 and columns 0..3 skips the other 48, which are
  // zero; adding or subtracting a zero changes no 16-bit value, so the samples are the same.
  VIDRA_ALWAYS_INLINE static void reconstruct(const Constants& constants, const int16_t* block,
                                              unsigned position_mask, unsigned last_position,
                                              uint8_t* dest, int stride) {
    switch (blockPath(position_mask, last_position)) {
      case BlockPath::kFull:
        if (inTopRows(position_mask) && inLeftColumns(position_mask)) {
          full4x4(constants, block, dest, stride);
        } else {
          full(constants, block, dest, stride);
        }
        break;
      case BlockPath::kDC:
        dc(constants, block[0], dest, stride);
        break;
      case BlockPath::kLowFrequency:
        lowFrequency(constants, block, dest, stride);
        break;
    }
  }

  VIDRA_ALWAYS_INLINE static void dc(const Constants&, int16_t c0, uint8_t* dest, int stride) {
    int value = c0 >> 5;
    value = value < -128 ? -128 : (value > 127 ? 127 : value);
    const uint8x8_t samples = vdup_n_u8(static_cast<uint8_t>(value + 128));
    for (int y = 0; y < 8; ++y) vst1_u8(dest + static_cast<ptrdiff_t>(y) * stride, samples);
  }

  VIDRA_ALWAYS_INLINE static void lowFrequency(const Constants& k, const int16_t* block,
                                               uint8_t* dest, int stride) {
    // rmul is symmetric: K[x] times the broadcast value, lane x.
    const int16x8_t top = vshrq_n_s16(vaddq_s16(vdupq_n_s16(static_cast<int16_t>(block[0] >> 1)),
                                                vqrdmulhq_n_s16(k.basis, block[1])),
                                      1);
    const int16x8_t bottom = vaddq_s16(vdupq_n_s16(static_cast<int16_t>(block[8] >> 1)),
                                       vqrdmulhq_n_s16(k.basis, block[9]));
    for (int y = 0; y < 8; ++y) {
      const int16x8_t row =
          vshrq_n_s16(vaddq_s16(top, vqrdmulhq_n_s16(bottom, kLowFrequencyBasis[y])), 3);
      storeRow(row, dest + static_cast<ptrdiff_t>(y) * stride);
    }
  }

  // One AAN pass on eight vectors at once: v[i] holds input i of eight transforms, one per
  // lane; on return v[o] holds output o. With `kLow4`, inputs 4..7 are taken as zero and v[4..7]
  // isn't read, and the compiler drops every add or subtract of that zero: the short pass for a
  // block whose values all lie in rows (or columns) 0..3.
  template <bool kLow4 = false>
  VIDRA_ALWAYS_INLINE static void aanPass(const Constants& k, int16x8_t v[8]) {
    const int16x8_t zero = vdupq_n_s16(0);
    const int16x8_t i4 = kLow4 ? zero : v[4];
    const int16x8_t i5 = kLow4 ? zero : v[5];
    const int16x8_t i6 = kLow4 ? zero : v[6];
    const int16x8_t i7 = kLow4 ? zero : v[7];
    // Even part.
    const int16x8_t a0 = vaddq_s16(v[0], i4);
    const int16x8_t a1 = vsubq_s16(v[0], i4);
    const int16x8_t a3 = vaddq_s16(v[2], i6);
    const int16x8_t a2 = vsubq_s16(fmul(vsubq_s16(v[2], i6), k.sqrt2), a3);
    const int16x8_t e0 = vaddq_s16(a0, a3);
    const int16x8_t e3 = vsubq_s16(a0, a3);
    const int16x8_t e1 = vaddq_s16(a1, a2);
    const int16x8_t e2 = vsubq_s16(a1, a2);
    // Odd part.
    const int16x8_t z13 = vaddq_s16(i5, v[3]);
    const int16x8_t z10 = vsubq_s16(i5, v[3]);
    const int16x8_t z11 = vaddq_s16(v[1], i7);
    const int16x8_t z12 = vsubq_s16(v[1], i7);
    const int16x8_t s7 = vaddq_s16(z11, z13);
    const int16x8_t s11 = fmul(vsubq_s16(z11, z13), k.sqrt2);
    const int16x8_t z5 = fmul(vaddq_s16(z10, z12), k.c1_847);
    const int16x8_t s10 = vsubq_s16(fmul(z12, k.c1_082), z5);
    const int16x8_t s12 = vaddq_s16(vsubq_s16(fmul(z10, k.minus1_613), z10), z5);
    const int16x8_t s6 = vsubq_s16(s12, s7);
    const int16x8_t s5 = vsubq_s16(s11, s6);
    const int16x8_t s4 = vaddq_s16(s10, s5);
    v[0] = vaddq_s16(e0, s7);
    v[7] = vsubq_s16(e0, s7);
    v[1] = vaddq_s16(e1, s6);
    v[6] = vsubq_s16(e1, s6);
    v[2] = vaddq_s16(e2, s5);
    v[5] = vsubq_s16(e2, s5);
    v[4] = vaddq_s16(e3, s4);
    v[3] = vsubq_s16(e3, s4);
  }

  // 8x8 transpose of 16-bit lanes: on return v[c] lane r is the old v[r] lane c. Transposes
  // of 2x2 blocks of 16, then 32, then 64 bits.
  VIDRA_ALWAYS_INLINE static void transpose(int16x8_t v[8]) {
    int32x4_t t[8];
    for (int i = 0; i < 8; i += 2) {
      t[i] = vreinterpretq_s32_s16(vtrn1q_s16(v[i], v[i + 1]));
      t[i + 1] = vreinterpretq_s32_s16(vtrn2q_s16(v[i], v[i + 1]));
    }
    // t[0]: columns 0, 2, 4, 6 of rows 0 and 1; t[1]: columns 1, 3, 5, 7 of them; t[2], t[3]
    // the same of rows 2 and 3, and so on.
    int64x2_t u[8];
    for (int i = 0; i < 8; i += 4) {
      u[i] = vreinterpretq_s64_s32(vtrn1q_s32(t[i], t[i + 2]));          // columns 0, 4
      u[i + 1] = vreinterpretq_s64_s32(vtrn1q_s32(t[i + 1], t[i + 3]));  // columns 1, 5
      u[i + 2] = vreinterpretq_s64_s32(vtrn2q_s32(t[i], t[i + 2]));      // columns 2, 6
      u[i + 3] = vreinterpretq_s64_s32(vtrn2q_s32(t[i + 1], t[i + 3]));  // columns 3, 7
    }
    // u[0..3] hold rows 0..3, u[4..7] rows 4..7.
    for (int c = 0; c < 4; ++c) {
      v[c] = vreinterpretq_s16_s64(vtrn1q_s64(u[c], u[c + 4]));
      v[c + 4] = vreinterpretq_s16_s64(vtrn2q_s64(u[c], u[c + 4]));
    }
  }

  // The final shift and toSample, from lane r of v[x] holding sample x of row r: transposed
  // back to rows, then each row narrowed and stored.
  VIDRA_ALWAYS_INLINE static void storeSamples(int16x8_t v[8], uint8_t* dest, int stride) {
    transpose(v);
    for (int r = 0; r < 8; ++r) {
      storeRow(vshrq_n_s16(v[r], 5), dest + static_cast<ptrdiff_t>(r) * stride);
    }
  }

  VIDRA_ALWAYS_INLINE static void full(const Constants& k, const int16_t* block, uint8_t* dest,
                                       int stride) {
    int16x8_t v[8];
    for (int r = 0; r < 8; ++r) v[r] = vld1q_s16(block + 8 * r);
    aanPass(k, v);  // columns: lane c of v[r] is work[r][c]
    transpose(v);   // lane r of v[c] is work[r][c]
    aanPass(k, v);  // rows: lane r of v[x] is sample x of row r, before the final shift
    storeSamples(v, dest, stride);
  }

  // full() for a block whose values outside rows 0..3 and columns 0..3 are all zero: pass 1
  // has zero inputs 4..7 (rows 4..7) and gives zero in lanes 4..7 (columns 4..7), which are the
  // inputs 4..7 of pass 2.
  VIDRA_ALWAYS_INLINE static void full4x4(const Constants& k, const int16_t* block, uint8_t* dest,
                                          int stride) {
    int16x8_t v[8];
    for (int r = 0; r < 4; ++r) v[r] = vld1q_s16(block + 8 * r);
    for (int r = 4; r < 8; ++r) v[r] = vdupq_n_s16(0);
    aanPass<true>(k, v);  // reads v[0..3], writes all eight
    transpose(v);
    aanPass<true>(k, v);
    storeSamples(v, dest, stride);
  }

  Constants k_;
};

}  // namespace
}  // namespace jpeg
}  // namespace vidra
