// Concealment of MCUs that failed to decode.
// TODO(conceal): fixBadMCUs, fixMCURange, interpolateRange, copyRange.

#include "jpeg.h"
#include "jpeg_dsp.h"

namespace vidra {
namespace jpeg {

void SimpleJPEGDecoder::fixBadMCUs() {}
void SimpleJPEGDecoder::fixMCURange(int, int, int) {}

void interpolateRange16_c(uint8_t*, int, int, const uint8_t*, const uint8_t*) {}
void interpolateRange(uint8_t*, int, int, int, const uint8_t*, const uint8_t*) {}

}  // namespace jpeg
}  // namespace vidra
