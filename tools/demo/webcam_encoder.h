// Encodes pictures as USB webcams send MJPEG: baseline 4:2:2 (luma 2x1), an AVI1 APP0 segment,
// a restart marker after every few MCU rows, and no DHT segment (the decoder is expected to
// use the default Huffman tables).
#pragma once

#include <cstdint>
#include <vector>

#include "output/image.h"

namespace vidra {
namespace tool {

struct WebcamEncoding {
  int quality = 90;
  int restart_rows = 1;  // MCU rows between restart markers; 0: none
  bool strip_dht = true;
};

// Encodes `picture` with libjpeg. libjpeg writes the Annex K tables when it doesn't optimise
// them, so stripping the DHT segment leaves a frame that decodes the same. Throws ToolError
// if libjpeg reports an error.
std::vector<uint8_t> encodeWebcamFrame(const RGBImage& picture,
                                       const WebcamEncoding& encoding = WebcamEncoding());

}  // namespace tool
}  // namespace vidra
