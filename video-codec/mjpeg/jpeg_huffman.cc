// DHT segments and the two-level Huffman lookup tables.
//
// The entry format is described in huffman_entry.h.

#include <algorithm>
#include <cstring>

#include "huffman_entry.h"
#include "jpeg.h"
#include "jpeg_check.h"

namespace vidra {
namespace jpeg {

namespace {

// Links hold the sub-table's array index in 16 bits, so a table must not grow beyond this.
// It takes many redefinitions of one table in a frame (or one absurd definition) to get
// there; such a frame is refused rather than left with links that point elsewhere.
constexpr size_t kMaxHuffmanTableEntries = 65536;

}  // namespace

bool SimpleJPEGDecoder::parseDHT(JPEGBuffer* input) {
  VIDRA_LOG(7, "mjpeg") << "DHT Marker.";
  uint16_t len = 0;
  JPEG_CHECK(input->getLength16(&len));
  // Inside the range that getLength16 has seen, so this cannot come back null.
  const uint8_t* segment = static_cast<const uint8_t*>(input->getData(len));
  if (len == 0) return true;

  // `dht` and `limit` are offsets into the payload rather than addresses, so that the bounds
  // tests never form a pointer past the end of the input.
  size_t dht = 0;
  const size_t limit = len;
  while (dht < limit) {
    JPEG_CHECK(dht + 17 <= limit);
    const int tc = segment[dht] >> 4;
    const int th = segment[dht] & 15;
    VIDRA_LOG(7, "mjpeg") << "  DHT " << (tc != 0 ? "ac" : "dc") << " th=" << th;
    JPEG_CHECK(tc < 2);
    JPEG_CHECK(th < 4);
    uint8_t lengths[16];
    std::memcpy(lengths, segment + dht + 1, sizeof(lengths));
    dht += 17;  // now on the first symbol

    // Canonical code assignment (ITU-T T.81 Annex C). The list isn't tested for sense: codes
    // that overflow their length are cut to width by buildTable, and the later one wins.
    std::vector<HuffmanCode> codes;
    uint32_t code = 0;
    for (int i = 0; i < 16; ++i) {
      JPEG_CHECK(dht + lengths[i] <= limit);
      for (int j = 0; j < lengths[i]; ++j) {
        const uint32_t symbol = segment[dht++];
        VIDRA_LOGF(8, "mjpeg", "    symbol:%d bits:%d code:%x", static_cast<int>(symbol), i + 1,
                   code);
        codes.push_back({symbol, i + 1, code});
        ++code;
      }
      code <<= 1;
    }
    codes.push_back({0, -1, 0});  // the end record closes the last group

    ACHuffmanTable* table = tc != 0 ? ac_huffman_tables_[th] : dc_huffman_tables_[th];
    if (tc != 0) {
      table->buildTable(true, codes, 0, codes.size(), 0, 0, 9);
    } else {
      table->buildTable(false, codes, 0, codes.size(), 0, 0, 8);
    }
    JPEG_CHECK(table->entries_.size() <= kMaxHuffmanTableEntries);
  }
  return true;
}

// Enters codes[first, last) into the level whose entry 0 is at `table_offset`. Neighbouring
// codes that are longer than the index and share their first `index_bits` bits form a group,
// which becomes one sub-table when the first record behind it is reached; the link to it is
// written once the sub-table is complete. Nothing is cleared: a later write replaces an earlier
// one, and entries that the list doesn't reach keep what they held.
void SimpleJPEGDecoder::ACHuffmanTable::buildTable(bool is_ac,
                                                   const std::vector<HuffmanCode>& codes,
                                                   unsigned long first, unsigned long last,
                                                   int table_offset, int prefix_bits,
                                                   int index_bits) {
  bool group_open = false;
  uint32_t group_slot = 0;
  unsigned long group_first = 0;
  int group_bits = 0;

  for (unsigned long i = first; i < last; ++i) {
    const HuffmanCode& record = codes[i];
    const bool end_record = record.bits < 0;
    const int remaining = record.bits - prefix_bits;

    // The code without the bits that earlier levels consumed, and its slot at this level if it
    // is longer than the index. The end record has neither.
    uint32_t suffix = 0;
    bool has_slot = false;
    uint32_t slot = 0;
    if (!end_record) {
      suffix = record.code & (((1u << record.bits) - 1) >> prefix_bits);
      if (remaining > index_bits) {
        has_slot = true;
        slot = suffix >> (remaining - index_bits);
      }
    }

    if (group_open && (!has_slot || slot != group_slot)) {
      const int sub_bits = std::max(group_bits, 5);
      const size_t sub_offset = entries_.size();
      entries_.resize(sub_offset + (size_t{1} << sub_bits), 0);
      buildTable(is_ac, codes, group_first, i, static_cast<int>(sub_offset),
                 prefix_bits + index_bits, sub_bits);
      entries_[table_offset + group_slot] =
          linkEntry(static_cast<unsigned>(index_bits), static_cast<unsigned>(sub_bits),
                    static_cast<uint32_t>(sub_offset));
      group_open = false;
    }
    if (end_record) break;

    const uint32_t run = record.symbol >> 4;
    const int size = static_cast<int>(record.symbol & 15);

    if (remaining + size <= index_bits) {
      // Code and value bits fit: one entry for each value the index bits can hold.
      const int spare = index_bits - remaining;
      const uint32_t base = suffix << spare;
      uint32_t* out = entries_.data() + table_offset + base;
      if (is_ac && record.symbol == 0) {
        std::fill(out, out + (size_t{1} << spare),
                  endOfBlockEntry(static_cast<unsigned>(remaining)));
      } else {
        const uint32_t value_mask = (1u << size) - 1;
        for (uint32_t j = 0; j < (1u << spare); ++j) {
          const uint32_t raw = ((base + j) >> (spare - size)) & value_mask;
          out[j] = wholeEntry(static_cast<unsigned>(remaining + size), run,
                              extendValue(raw, static_cast<unsigned>(size)));
        }
      }
    } else if (remaining > index_bits) {
      // Longer than the index: into the sub-table of its slot.
      const int extra_bits = remaining - index_bits;
      if (!group_open) {
        group_open = true;
        group_slot = slot;
        group_first = i;
        group_bits = extra_bits;
      } else {
        group_bits = std::max(group_bits, extra_bits);
      }
    } else {
      // The code fits, its value bits don't: the kernel fetches them from the stream.
      const int spare = index_bits - remaining;
      uint32_t* out = entries_.data() + table_offset + (suffix << spare);
      std::fill(out, out + (size_t{1} << spare),
                fetchEntry(static_cast<unsigned>(size), static_cast<unsigned>(remaining), run));
    }
  }
}

}  // namespace jpeg
}  // namespace vidra
