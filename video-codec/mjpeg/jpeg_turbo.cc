// JTDecoder: the TurboJPEG path.
// TODO(turbo)

#include "jpeg_turbo.h"

#include "vidra/log.h"

namespace vidra {
namespace jpeg {

bool JTDecoder::decompress(const uint8_t*, uint32_t, int, int, bool, uint8_t*, int, uint8_t*,
                           int, uint8_t*, int) {
  VIDRA_LOG(6, "mjpeg") << "Using jpeg-turbo";
  return false;
}

}  // namespace jpeg
}  // namespace vidra
