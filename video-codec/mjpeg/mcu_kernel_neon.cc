// Block reconstruction for NEON and the kernel form that uses it (aarch64; only runs where the
// CPU probe allows it).

#include "jpeg_dsp.h"
#include "mcu_kernel_impl.h"
#include "reconstruct_neon.h"

namespace vidra {
namespace jpeg {

void reconstructBlock_neon(const int16_t* coefficients, uint8_t position_mask,
                           uint8_t last_position, uint8_t* dest, int stride) {
  NeonReconstruction().reconstruct(coefficients, position_mask, last_position, dest, stride);
}

int decodeMCUSpan_neon(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split,
                       const MCUWideLevels* wide) {
  return decodeSpan<NeonReconstruction>(coefficients, context, split, wide);
}

}  // namespace jpeg
}  // namespace vidra
