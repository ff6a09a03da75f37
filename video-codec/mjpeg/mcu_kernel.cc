// The MCU kernel's exported entry and its plain integer form.
//
// decode_mcu_span_sse2_64 runs the kernel form that the function table chose from the CPU
// probe: the one below, whose reconstruction is plain integer code, or one of
// mcu_kernel_sse41.cc and mcu_kernel_avx2.cc. All give the same samples.

#include "mcu_kernel.h"

#include <cstring>

#include "jpeg_dsp.h"
#include "mcu_kernel_impl.h"
#include "reconstruct_c.h"

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

extern "C" int decode_mcu_span_sse2_64(int16_t* coefficients, MCUSpanContext* context) {
  return vidra::jpeg::dsp().decodeMCUSpan(coefficients, context, nullptr);
}

namespace vidra {
namespace jpeg {

void reconstructBlock_c(const int16_t* coefficients, uint8_t position_mask, uint8_t last_position,
                        uint8_t* dest, int stride) {
  ScalarReconstruction().reconstruct(coefficients, position_mask, last_position, dest, stride);
}

int decodeMCUSpan_c(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split) {
  return decodeSpan<ScalarReconstruction>(coefficients, context, split);
}

}  // namespace jpeg
}  // namespace vidra
