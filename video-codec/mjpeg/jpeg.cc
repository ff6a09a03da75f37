// SimpleJPEGDecoder: object lifetime, the marker loop and the frame-level parsers.
// TODO(parsing): marker loop, SOF0, DQT, DRI, SOS, allocateImages.

#include "jpeg.h"

#include "jpeg_check.h"
#include "vidra/log.h"

namespace vidra {
namespace jpeg {

const float SimpleJPEGDecoder::kMinValidMCUs = 0.8f;

SimpleJPEGDecoder::SimpleJPEGDecoder() {
  for (int i = 0; i < 4; ++i) {
    dc_huffman_tables_[i] = new ACHuffmanTable;
    dc_huffman_tables_[i]->entries_.reserve(1024);
    dc_huffman_tables_[i]->entries_.resize(512, 0);
    ac_huffman_tables_[i] = new ACHuffmanTable;
    ac_huffman_tables_[i]->entries_.reserve(1024);
    ac_huffman_tables_[i]->entries_.resize(512, 0);
  }
}

SimpleJPEGDecoder::~SimpleJPEGDecoder() {
  for (int i = 0; i < 4; ++i) {
    delete dc_huffman_tables_[i];
    delete ac_huffman_tables_[i];
  }
  for (Channel& channel : channels_) delete[] channel.image_;
}

bool SimpleJPEGDecoder::decompress(const uint8_t*, size_t, int, int, bool, uint8_t*, int,
                                   uint8_t*, int, uint8_t*, int) {
  valid_mcus_ = 0;
  VIDRA_LOG(6, "mjpeg") << "Using simple jpeg decoder.";
  return false;
}

bool SimpleJPEGDecoder::parseAndIgnoreMarker(JPEGBuffer*) { return false; }
bool SimpleJPEGDecoder::parseSOF0(JPEGBuffer*) { return false; }
void SimpleJPEGDecoder::allocateImages() {}
bool SimpleJPEGDecoder::parseDQT(JPEGBuffer*) { return false; }
bool SimpleJPEGDecoder::parseDRI(JPEGBuffer*) { return false; }
bool SimpleJPEGDecoder::parseSOS(JPEGBuffer*) { return false; }

}  // namespace jpeg
}  // namespace vidra
