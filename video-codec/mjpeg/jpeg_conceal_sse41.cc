// Vector form of the 16-wide range interpolation.
// TODO(conceal)

#include "jpeg_dsp.h"

namespace vidra {
namespace jpeg {

void interpolateRange16_sse41(uint8_t* dest, int h, int stride, const uint8_t* top,
                              const uint8_t* bottom) {
  interpolateRange16_c(dest, h, stride, top, bottom);
}

}  // namespace jpeg
}  // namespace vidra
