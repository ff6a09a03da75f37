// JTDecoder: decodes a frame through libjpeg-turbo's TurboJPEG API into the caller's 4:2:0
// planes. Serves processors without the vector level of the library's own decoder, and every
// frame when the caller forces it.
#pragma once

#include <cstdint>

#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {

class VIDRA_MJPEG_EXPORT JTDecoder {
 public:
  bool decompress(const uint8_t* data, uint32_t size, int width, int height, bool insert_dht,
                  uint8_t* y, int y_stride, uint8_t* u, int u_stride, uint8_t* v, int v_stride);

  bool ignore_warnings_ = false;  // handed to tjIgnoreWarnings(); never set by the library
};

}  // namespace jpeg
}  // namespace vidra
