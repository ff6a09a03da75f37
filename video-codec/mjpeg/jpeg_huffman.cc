// DHT segments and the two-level Huffman lookup tables.
//
// parseDHT() reads the code lengths and symbols of each table of a segment and hands the
// codes, in canonical order, to buildTable(). The entry format that the kernel reads is defined
// in huffman_entry.h; this file makes entries only through its helpers.
//
// How buildTable() lays a table out:
//   - The first level is indexed by the next 9 (AC) or 8 (DC) bits of the stream. A code that
//     fits the index fills every slot that starts with it. When its value bits fit as well, the
//     slots hold the finished, sign-extended value ("whole" entries); else they hold the code's
//     length and the number of value bits to fetch ("fetch" entries).
//   - Longer codes share their first index bits with others: each such group gets a sub-table
//     of 5 to 8 bits behind the first level, built by the same function one level down, and
//     the group's first-level slot links to it.
//   - AC symbol 0 ends a block; its slots hold only the length to consume.
//   - Slots that no code reaches stay 0, the empty entry at which the kernel fails a span.
//
// A segment is refused, and the frame with it, when a table runs past the segment's end, names
// a class above 1 or a slot above 3, or would make its lookup table grow beyond
// kMaxHuffmanTableEntries (links address sub-tables in 16 bits). A slot that a later segment
// defines again is built again over its old entries: nothing is cleared, and entries that the
// new codes don't reach keep what they held.
//
// The log lines of the checks below carry their source line numbers: a line added or removed
// above a check changes what the decoder logs.

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
