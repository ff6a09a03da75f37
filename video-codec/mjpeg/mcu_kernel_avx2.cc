// The MCU kernel with paired reconstruction, and the paired full path on its own, for AVX2
// (this file is compiled for AVX2, BMI1 and BMI2, so the kernel's bit handling uses the BMI2
// shifts, and only runs where the CPU probe allows them).

#include "jpeg_dsp.h"
#include "mcu_kernel_impl.h"
#include "reconstruct_avx2.h"

namespace vidra {
namespace jpeg {

void reconstructFullPair_avx2(const int16_t* a, uint8_t mask_a, uint8_t* dest_a, int stride_a,
                              const int16_t* b, uint8_t mask_b, uint8_t* dest_b, int stride_b) {
  Avx2Reconstruction().fullPair(a, dest_a, stride_a, b, dest_b, stride_b,
                                fullPathIn4x4(mask_a) && fullPathIn4x4(mask_b));
}

int decodeMCUSpan_avx2(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split) {
  return decodeSpan<Avx2Reconstruction>(coefficients, context, split);
}

}  // namespace jpeg
}  // namespace vidra
