// The MCU kernel and single-block reconstruction for SSSE3 + SSE4.1 (this file is compiled
// for them and only runs where the CPU probe allows it).

#include "jpeg_dsp.h"
#include "mcu_kernel_impl.h"
#include "reconstruct_sse41.h"

namespace vidra {
namespace jpeg {

void reconstructBlock_sse41(const int16_t* coefficients, uint8_t position_mask,
                            uint8_t last_position, uint8_t* dest, int stride) {
  Sse41Reconstruction().reconstruct(coefficients, position_mask, last_position, dest, stride);
}

int decodeMCUSpan_sse41(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split,
                        const MCUWideLevels* wide) {
  return decodeSpan<Sse41Reconstruction>(coefficients, context, split, wide);
}

}  // namespace jpeg
}  // namespace vidra
