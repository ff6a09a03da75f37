// Vector block reconstruction.
// TODO(kernel)

#include "jpeg_dsp.h"

namespace vidra {
namespace jpeg {

void reconstructBlock_sse41(const int16_t* coefficients, uint8_t position_mask,
                            uint8_t last_position, uint8_t* dest, int stride) {
  reconstructBlock_c(coefficients, position_mask, last_position, dest, stride);
}

}  // namespace jpeg
}  // namespace vidra
