// Vector forms of the box resamplers.
// TODO(planes)

#include "jpeg_dsp.h"

namespace vidra {
namespace jpeg {

void resample444To420_sse41(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                            int width, int height) {
  resample444To420_c(src, src_stride, dst, dst_stride, width, height);
}
void resample422To420_sse41(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                            int width, int height) {
  resample422To420_c(src, src_stride, dst, dst_stride, width, height);
}

}  // namespace jpeg
}  // namespace vidra
