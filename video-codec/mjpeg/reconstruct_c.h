// Block reconstruction in plain integer code: the reference form, which every vector form
// (reconstruct_sse41.h, reconstruct_neon.h) reproduces sample for sample. Every intermediate is
// a signed 16-bit value, as in the vector lanes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "reconstruct_common.h"

namespace vidra {
namespace jpeg {
namespace {

// Every intermediate of reconstruction is a signed 16-bit value; sums and differences wrap.
inline int16_t wrap16(int32_t x) { return static_cast<int16_t>(static_cast<uint16_t>(x)); }

// Rounded product at 15 fraction bits (the vector instruction pmulhrsw).
inline int16_t rmul(int16_t a, int16_t k) {
  return wrap16((((static_cast<int32_t>(a) * k) >> 14) + 1) >> 1);
}

// Upper 16 bits of the product, truncated (pmulhw).
inline int16_t hmul(int16_t a, int16_t c) {
  return static_cast<int16_t>((static_cast<int32_t>(a) * c) >> 16);
}

// Product with a multiplier of the full path (x * c / 16384), its input taken times 4 first.
inline int16_t fmul(int16_t x, int16_t c) { return hmul(wrap16(4 * static_cast<int32_t>(x)), c); }

inline uint8_t toSample(int32_t x) {
  if (x < -128) x = -128;
  if (x > 127) x = 127;
  return static_cast<uint8_t>(x + 128);
}

inline int16_t add(int16_t a, int16_t b) { return wrap16(static_cast<int32_t>(a) + b); }
inline int16_t sub(int16_t a, int16_t b) { return wrap16(static_cast<int32_t>(a) - b); }

// One AAN pass: eight inputs in order of frequency to eight outputs in order of position.
void aanPass(const int16_t in[8], int16_t out[8]) {
  // Even part.
  const int16_t a0 = add(in[0], in[4]);
  const int16_t a1 = sub(in[0], in[4]);
  const int16_t a3 = add(in[2], in[6]);
  const int16_t a2 = sub(fmul(sub(in[2], in[6]), kAANSqrt2), a3);
  const int16_t e0 = add(a0, a3);
  const int16_t e3 = sub(a0, a3);
  const int16_t e1 = add(a1, a2);
  const int16_t e2 = sub(a1, a2);
  // Odd part.
  const int16_t z13 = add(in[5], in[3]);
  const int16_t z10 = sub(in[5], in[3]);
  const int16_t z11 = add(in[1], in[7]);
  const int16_t z12 = sub(in[1], in[7]);
  const int16_t s7 = add(z11, z13);
  const int16_t s11 = fmul(sub(z11, z13), kAANSqrt2);
  const int16_t z5 = fmul(add(z10, z12), kAAN1_847);
  const int16_t s10 = sub(fmul(z12, kAAN1_082), z5);
  const int16_t s12 = add(sub(fmul(z10, kAANMinus1_613), z10), z5);
  const int16_t s6 = sub(s12, s7);
  const int16_t s5 = sub(s11, s6);
  const int16_t s4 = add(s10, s5);
  out[0] = add(e0, s7);
  out[7] = sub(e0, s7);
  out[1] = add(e1, s6);
  out[6] = sub(e1, s6);
  out[2] = add(e2, s5);
  out[5] = sub(e2, s5);
  out[4] = add(e3, s4);
  out[3] = sub(e3, s4);
}

class ScalarReconstruction {
 public:
  void reconstruct(const int16_t* block, unsigned position_mask, unsigned last_position,
                   uint8_t* dest, int stride) {
    switch (blockPath(position_mask, last_position)) {
      case BlockPath::kFull:
        full(block, dest, stride);
        break;
      case BlockPath::kDC:
        dc(block[0], dest, stride);
        break;
      case BlockPath::kLowFrequency:
        lowFrequency(block, dest, stride);
        break;
    }
  }

  // All 64 samples from the DC value alone.
  static void dc(int16_t c0, uint8_t* dest, int stride) {
    const uint8_t sample = toSample(c0 >> 5);
    for (int y = 0; y < 8; ++y) std::memset(dest + static_cast<ptrdiff_t>(y) * stride, sample, 8);
  }

  // Blocks whose values all lie at natural indices 0, 1, 8 and 9.
  static void lowFrequency(const int16_t* block, uint8_t* dest, int stride) {
    const int16_t c0 = block[0], c1 = block[1], c8 = block[8], c9 = block[9];
    int16_t top[8], bottom[8];
    for (int x = 0; x < 8; ++x) {
      top[x] = wrap16((wrap16((c0 >> 1) + rmul(c1, kLowFrequencyBasis[x]))) >> 1);
      bottom[x] = wrap16((c8 >> 1) + rmul(c9, kLowFrequencyBasis[x]));
    }
    for (int y = 0; y < 8; ++y) {
      uint8_t* row = dest + static_cast<ptrdiff_t>(y) * stride;
      for (int x = 0; x < 8; ++x) {
        row[x] = toSample(add(top[x], rmul(bottom[x], kLowFrequencyBasis[y])) >> 3);
      }
    }
  }

  // The 8x8 AAN inverse transform, columns first.
  static void full(const int16_t* block, uint8_t* dest, int stride) {
    int16_t work[8][8];
    int16_t in[8], out[8];
    for (int c = 0; c < 8; ++c) {
      for (int r = 0; r < 8; ++r) in[r] = block[8 * r + c];
      aanPass(in, out);
      for (int r = 0; r < 8; ++r) work[r][c] = out[r];
    }
    for (int r = 0; r < 8; ++r) {
      aanPass(work[r], out);
      uint8_t* row = dest + static_cast<ptrdiff_t>(r) * stride;
      for (int x = 0; x < 8; ++x) row[x] = toSample(out[x] >> 5);
    }
  }
};

}  // namespace
}  // namespace jpeg
}  // namespace vidra
