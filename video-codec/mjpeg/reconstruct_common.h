// What every form of block reconstruction shares: its constants and the choice of path.
//
// A block is reconstructed by one of three paths, chosen from what the kernel tells about it
// (`position_mask`, the OR of the natural indices it stored, and `last_position`, the zigzag
// position of its last value): the DC value alone, the four lowest frequencies, or the full
// 8x8 transform. Every form (reconstruct_c.h, reconstruct_sse41.h, reconstruct_neon.h) gives
// the same samples on every path.
#pragma once

#include <cstdint>

// Forces inlining where the compiler's estimate would keep a call in the kernel's loop.
#define VIDRA_ALWAYS_INLINE inline __attribute__((always_inline))

namespace vidra {
namespace jpeg {

// 16384 * cos((2i + 1) * pi / 16) / cos(pi / 16), rounded: the first cosine basis function at
// column (or row) i, with the s(1) scale of the stored coefficients divided out. 16384 is one
// half for rmul.
constexpr int16_t kLowFrequencyBasis[8] = {16384, 13890, 9281, 3259, -3259, -9281, -13890, -16384};

// Multipliers of the full path, for fmul: x * c / 16384 with 8 fraction bits of precision.
constexpr int16_t kAANSqrt2 = 23168;        // 362 * 64: 1.414 (2 cos(pi/4))
constexpr int16_t kAAN1_847 = 30272;        // 473 * 64: 1.848 (2 cos(pi/8))
constexpr int16_t kAAN1_082 = 17728;        // 277 * 64: 1.082
constexpr int16_t kAANMinus1_613 = -26432;  // -413 * 64: -2.613 + 1; the 1 is subtracted apart

enum class BlockPath { kDC, kLowFrequency, kFull };

// Internal linkage, as the forms are built for different instruction sets.
namespace {

// 0xF6 keeps every bit but those of 1 and 8: the test passes exactly when some stored AC value
// lies outside natural indices 1, 8 and 9.
inline BlockPath blockPath(unsigned position_mask, unsigned last_position) {
  if (position_mask & 0xF6) return BlockPath::kFull;
  return last_position == 0 ? BlockPath::kDC : BlockPath::kLowFrequency;
}

// Inside the full path: no stored index has bit 5 set, so all stores lie in rows 0..3 and rows
// 4..7 are zero; no stored index has bit 2 set, so all lie in columns 0..3 and columns 4..7 are
// zero. The vector forms then skip those inputs of a pass; adding or subtracting a zero changes
// no 16-bit value, so the samples are the same.
inline bool inTopRows(unsigned position_mask) { return (position_mask & 0x20) == 0; }
inline bool inLeftColumns(unsigned position_mask) { return (position_mask & 0x04) == 0; }

}  // namespace

}  // namespace jpeg
}  // namespace vidra
