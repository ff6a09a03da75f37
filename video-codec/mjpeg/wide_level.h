// Wide first levels of the Huffman lookup tables, for the MCU kernel's common path.
//
// The kernel reads most symbols in a first level one bit wider than a table's own (10 index bits
// for AC tables, 9 for DC), made from the table here: the table's whole entries, and its fetch
// entries whose value bits fit into the wider index, become wide whole entries (huffman_entry.h);
// an AC table's end-of-block entries stay as they are; every other index holds 0, where the
// kernel looks the table itself up. So a wide level changes how fast the kernel decodes, never
// what it decodes. The wider index turns the fetch entries of the common mid-size values (a
// 5-bit code with 5 value bits, say) into whole ones, and a fetch costs a mispredicted branch.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mcu_kernel.h"

namespace vidra {
namespace jpeg {

constexpr size_t kWideDCEntries = 512;   // 9 index bits
constexpr size_t kWideACEntries = 1024;  // 10 index bits

// Writes the wide level of `table`, whose first level it reads (256 entries of a DC table, 512
// of an AC table), to `wide` (kWideDCEntries or kWideACEntries entries).
void buildWideLevel(const uint32_t* table, bool is_ac, uint32_t* wide);

// The wide levels of a block list's tables, each table's made once.
class WideLevels {
 public:
  // A table's entries and a wide level already made from them.
  struct Ready {
    const uint32_t* table;
    bool is_ac;
    const uint32_t* level;
  };

  // Makes the levels of the tables that blocks[0, count) use, except those in `ready`. Throws
  // std::bad_alloc when their memory can't be had.
  void build(const MCUBlock* blocks, size_t count, const std::vector<Ready>& ready = {});
  const MCUWideLevels* levels() const { return &levels_; }

 private:
  std::vector<uint32_t> entries_;
  std::vector<const uint32_t*> pointers_;  // dc_ for each block, then ac_ for each block
  MCUWideLevels levels_ = {};
};

}  // namespace jpeg
}  // namespace vidra
