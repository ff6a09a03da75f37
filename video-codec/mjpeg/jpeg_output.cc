// Output assembly: the decoder's planes into the caller's 4:2:0 planes.
// TODO(planes): outputResults.

#include "jpeg.h"
#include "jpeg_check.h"

namespace vidra {
namespace jpeg {

bool SimpleJPEGDecoder::outputResults(int, int, uint8_t*, int, uint8_t*, int, uint8_t*, int) {
  return false;
}

}  // namespace jpeg
}  // namespace vidra
