// The entropy data driver: de-stuffing, restart segments and spans.
// TODO(kernel): decodeEntropyData.

#include "jpeg.h"

namespace vidra {
namespace jpeg {

bool SimpleJPEGDecoder::decodeEntropyData(const uint8_t*, size_t, size_t* consumed_length) {
  *consumed_length = 0;
  return true;
}

}  // namespace jpeg
}  // namespace vidra
