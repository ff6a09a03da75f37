// DHT segments and the two-level Huffman lookup tables.
// TODO(parsing): parseDHT, buildTable.

#include "jpeg.h"
#include "jpeg_check.h"

namespace vidra {
namespace jpeg {

bool SimpleJPEGDecoder::parseDHT(JPEGBuffer*) { return false; }

void SimpleJPEGDecoder::ACHuffmanTable::buildTable(bool, const std::vector<HuffmanCode>&,
                                                   unsigned long, unsigned long, int, int, int) {}

}  // namespace jpeg
}  // namespace vidra
