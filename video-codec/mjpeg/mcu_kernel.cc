// The MCU kernel and scalar block reconstruction.
// TODO(kernel): decode_mcu_span_sse2_64, reconstructBlock_c.

#include "mcu_kernel.h"

#include "jpeg_dsp.h"

const uint32_t kZigzagNatural[128] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,   //
    12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28,  //
    35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51,  //
    58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63,  //
    63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63,  //
    63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63,  //
    63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63,  //
    63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63,  //
};

extern "C" int decode_mcu_span_sse2_64(int16_t*, MCUSpanContext*) { return 0; }

namespace vidra {
namespace jpeg {

void reconstructBlock_c(const int16_t*, uint8_t, uint8_t, uint8_t*, int) {}

}  // namespace jpeg
}  // namespace vidra
