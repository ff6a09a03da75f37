// Plane copy and box resampling to 4:2:0.
// TODO(planes)

#include "jpeg_dsp.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {

void resample444To420_c(const uint8_t*, int, uint8_t*, int, int, int) {}
void resample422To420_c(const uint8_t*, int, uint8_t*, int, int, int) {}

void adaptStrides(const uint8_t*, int, uint8_t*, int, int, int) {}
void resample444To420(const uint8_t*, int, uint8_t*, int, int, int) {}
void resample422To420(const uint8_t*, int, uint8_t*, int, int, int) {}

}  // namespace jpeg
}  // namespace vidra
