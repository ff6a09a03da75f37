// The MCU kernel for AVX2 with BMI1 and BMI2: the symbol loop built with the BMI2 shifts
// (shlx, shrx), with the SSE4.1 form of reconstruction, here in VEX encoding. This file is
// compiled for those extensions and only runs where the CPU probe allows them.
//
// Reconstructing two full-path blocks at once (one in each 128-bit half of 256-bit vectors)
// was measured here too: holding a block back until a partner comes cost more in the symbol
// loop than the paired transform saved, so the kernel writes each block as it comes.

#include "jpeg_dsp.h"
#include "mcu_kernel_impl.h"
#include "reconstruct_sse41.h"

namespace vidra {
namespace jpeg {

int decodeMCUSpan_avx2(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split,
                       const MCUWideLevels* wide) {
  return decodeSpan<Sse41Reconstruction>(coefficients, context, split, wide);
}

}  // namespace jpeg
}  // namespace vidra
