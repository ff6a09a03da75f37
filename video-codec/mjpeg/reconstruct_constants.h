// Constants of block reconstruction, shared by the scalar and the vector form.
#pragma once

#include <cstdint>

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

}  // namespace jpeg
}  // namespace vidra
