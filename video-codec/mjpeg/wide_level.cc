// Wide first levels of the Huffman lookup tables (see wide_level.h).

#include "wide_level.h"

#include <algorithm>
#include <cstdint>

#include "huffman_entry.h"

namespace vidra {
namespace jpeg {

void buildWideLevel(const uint32_t* table, bool is_ac, uint32_t* wide) {
  const unsigned wide_bits = is_ac ? kWideACIndexBits : kWideDCIndexBits;
  for (uint32_t index = 0; index < (1u << wide_bits); ++index) {
    // The table's own first level is indexed by all but the last of these bits.
    const uint32_t entry = table[index >> 1];
    uint32_t out = 0;
    if (entry >= kWholeEntry) {
      // The kernel shifts by a wide entry's low six bits, and its bit reservoir only promises
      // the wide index's bits: longer entries (which no DHT segment makes) stay with the table.
      if (entryLength(entry) <= wide_bits) {
        out = wideWholeEntry(entryLength(entry), entryRun(entry), entryValue(entry));
      }
    } else if (entry >= kEndOfBlockEntry) {
      // An end of block in an AC table; in a DC table the kernel reads the entry as a fetch.
      if (is_ac) out = entry;
    } else if (entry >= kFetchEntry) {
      // The value bits follow the code's; where both fit, the index holds the value too.
      const unsigned length = entryLength(entry);
      const unsigned size = entrySize(entry);
      if (length + size <= wide_bits) {
        const uint32_t raw = (index >> (wide_bits - length - size)) & ((1u << size) - 1);
        out = wideWholeEntry(length + size, entryRun(entry), extendValue(raw, size));
      }
    }
    wide[index] = out;
  }
}

void WideLevels::build(const MCUBlock* blocks, size_t count, const std::vector<Ready>& ready) {
  // The tables that the blocks use, each once (a frame's blocks share two to four), with their
  // ready level or the offset in entries_ of the one made here.
  struct Table {
    const uint32_t* entries;
    bool is_ac;
    const uint32_t* level;
    size_t offset;
  };
  std::vector<Table> tables;
  std::vector<size_t> table_of(2 * count);  // per block and kind: index into tables
  size_t size = 0;
  for (size_t slot = 0; slot < 2 * count; ++slot) {
    const bool is_ac = slot >= count;
    const MCUBlock& block = blocks[slot % count];
    const uint32_t* entries = is_ac ? block.ac_table_ : block.dc_table_;
    const auto same = [&](const auto& table) {
      return table.entries == entries && table.is_ac == is_ac;
    };
    // A block without a table gets the zero level: the kernel goes to the (null) table itself,
    // as it would without wide levels.
    if (entries == nullptr) {
      table_of[slot] = SIZE_MAX;
      continue;
    }
    table_of[slot] =
        static_cast<size_t>(std::find_if(tables.begin(), tables.end(), same) - tables.begin());
    if (table_of[slot] < tables.size()) continue;
    const auto known = std::find_if(ready.begin(), ready.end(), [&](const Ready& level) {
      return level.table == entries && level.is_ac == is_ac;
    });
    tables.push_back({entries, is_ac, known != ready.end() ? known->level : nullptr, size});
    if (known == ready.end()) size += is_ac ? kWideACEntries : kWideDCEntries;
  }
  entries_.resize(size);
  for (const Table& table : tables) {
    if (table.level == nullptr) {
      buildWideLevel(table.entries, table.is_ac, entries_.data() + table.offset);
    }
  }

  pointers_.resize(2 * count);
  for (size_t slot = 0; slot < 2 * count; ++slot) {
    const size_t t = table_of[slot];
    pointers_[slot] = t >= tables.size()           ? kNoWideLevel
                      : tables[t].level != nullptr ? tables[t].level
                                                   : entries_.data() + tables[t].offset;
  }
  levels_.dc_ = pointers_.data();
  levels_.ac_ = pointers_.data() + count;
}

}  // namespace jpeg
}  // namespace vidra
