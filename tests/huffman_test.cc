// DHT segments and the lookup tables that buildTable makes of them.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "jpeg.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

using test::LogCapture;
using Table = SimpleJPEGDecoder::ACHuffmanTable;

// One table definition of a DHT segment: the Tc/Th byte, 16 counts, then the symbols.
std::vector<uint8_t> definition(uint8_t tc_th, const std::vector<uint8_t>& lengths,
                                const std::vector<uint8_t>& symbols) {
  std::vector<uint8_t> out = {tc_th};
  for (size_t i = 0; i < 16; ++i) out.push_back(i < lengths.size() ? lengths[i] : 0);
  out.insert(out.end(), symbols.begin(), symbols.end());
  return out;
}

// A DHT segment as parseDHT sees it: the length field and the payload.
std::vector<uint8_t> segment(const std::vector<std::vector<uint8_t>>& definitions,
                             const std::vector<uint8_t>& trailing = {}) {
  std::vector<uint8_t> payload;
  for (const auto& d : definitions) payload.insert(payload.end(), d.begin(), d.end());
  payload.insert(payload.end(), trailing.begin(), trailing.end());
  const size_t length = payload.size() + 2;
  std::vector<uint8_t> out(length);
  out[0] = static_cast<uint8_t>(length >> 8);
  out[1] = static_cast<uint8_t>(length);
  std::copy(payload.begin(), payload.end(), out.begin() + 2);
  return out;
}

bool parseBytes(SimpleJPEGDecoder* decoder, const std::vector<uint8_t>& bytes) {
  JPEGBuffer input(bytes.data(), bytes.size());
  return decoder->parseDHT(&input);
}

void parseDefaults(SimpleJPEGDecoder* decoder) {
  JPEGBuffer input(kMJPGDHTSeg + 2, 418);
  ASSERT_TRUE(decoder->parseDHT(&input));
  EXPECT_EQ(input.getRemainingBytes(), 0u);
}

const Table& table(const SimpleJPEGDecoder& decoder, bool ac, int th) {
  return ac ? *decoder.ac_huffman_tables_[th] : *decoder.dc_huffman_tables_[th];
}

bool isLink(uint32_t entry) { return (entry >> 30) == 1; }

// ---- The default tables ---------------------------------------------------------------------

TEST(DefaultTablesTest, Entries) {
  SimpleJPEGDecoder decoder;
  parseDefaults(&decoder);
  struct Row {
    bool ac;
    unsigned first, last;  // inclusive
    uint32_t entry;
  } rows[] = {
      {false, 0x00, 0x3F, 0xC0000200},   // code 00, symbol 0: value 0, length 2
      {false, 0x40, 0x4F, 0xDFFF0400},   // code 010, symbol 1, value bit 0: -1, length 4
      {false, 0x50, 0x5F, 0xC0010400},   // the same, value bit 1: +1
      {false, 0xFE, 0xFE, 0x800A0800},   // code 11111110, symbol 10: fetch 10 bits
      {false, 0xFF, 0xFF, 0x40850200},   // link: level 8, sub_bits 5, offset 512
      {false, 512, 527, 0x800B0100},     // code 111111110, symbol 11: fetch 11 bits
      {false, 528, 543, 0},              // the all-ones code is empty
      {true, 0x000, 0x03F, 0xDFFF0300},  // code 00, symbol 0x01, value bit 0: -1
      {true, 0x040, 0x07F, 0xC0010300},  // value bit 1: +1
      {true, 0x140, 0x15F, 0xA0000004},  // code 1010, symbol 0: end of block
      {true, 0x1F8, 0x1F8, 0x80010908},  // 9-bit code, symbol 0x81: fetch, run 8
      {true, 0x1FB, 0x1FB, 0x40950200},  // link: level 9, sub_bits 5, offset 512
      {true, 0x1FF, 0x1FF, 0x40970280},  // link: level 9, sub_bits 7, offset 640
  };
  for (const Row& row : rows) {
    const std::vector<uint32_t>& entries = table(decoder, row.ac, 0).entries_;
    for (unsigned i = row.first; i <= row.last; ++i) {
      ASSERT_LT(i, entries.size());
      EXPECT_EQ(entries[i], row.entry) << (row.ac ? "AC" : "DC") << " index " << i;
    }
  }
}

TEST(DefaultTablesTest, ShapeOfAllEightTables) {
  SimpleJPEGDecoder decoder;
  parseDefaults(&decoder);
  for (int th = 0; th < 4; ++th) {
    for (bool ac : {false, true}) {
      SCOPED_TRACE(std::string(ac ? "AC " : "DC ") + std::to_string(th));
      const std::vector<uint32_t>& entries = table(decoder, ac, th).entries_;
      if (th >= 2) {  // not defined by the default segment
        EXPECT_EQ(entries.size(), 512u);
        EXPECT_TRUE(std::all_of(entries.begin(), entries.end(), [](uint32_t e) { return !e; }));
        continue;
      }
      EXPECT_EQ(entries.size(), ac ? 768u : 544u);
      std::vector<size_t> links;
      std::vector<int> sub_bits;
      for (size_t i = 0; i < entries.size(); ++i) {
        if (!isLink(entries[i])) continue;
        links.push_back(i);
        sub_bits.push_back((entries[i] >> 16) & 15);
      }
      if (ac) {
        EXPECT_EQ(links, (std::vector<size_t>{507, 508, 509, 510, 511}));
        EXPECT_EQ(sub_bits, (std::vector<int>{5, 5, 5, 5, 7}));
        // Sub-tables follow each other in the order of their codes.
        for (size_t k = 0; k < links.size(); ++k) {
          EXPECT_EQ(entries[links[k]] & 0xFFFF, 512u + 32 * k);
        }
        // The one empty entry of an AC table is its all-ones 16-bit code.
        EXPECT_EQ(std::count(entries.begin(), entries.end(), 0u), 1);
        EXPECT_EQ(entries.back(), 0u);
      } else {
        EXPECT_EQ(links, (std::vector<size_t>{255}));
        // Entries 256..511 of a DC table are never written.
        EXPECT_TRUE(std::all_of(entries.begin() + 256, entries.begin() + 512,
                                [](uint32_t e) { return !e; }));
      }
      // Nothing written is below the empty threshold.
      for (size_t i = 0; i < 256; ++i) EXPECT_GE(entries[i], 0x40000000u) << i;
    }
  }
}

// The codes of the first default table, as its level-8 lines tell them.
TEST(DefaultTablesTest, CanonicalCodesOfLuminanceDC) {
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/8);
  parseDefaults(&decoder);
  const std::vector<std::string> lines = capture.texts(8, "mjpeg");
  ASSERT_EQ(lines.size(), 12u + 12 + 162 + 162);
  const std::vector<std::string> expected = {
      "    symbol:0 bits:2 code:0",   "    symbol:1 bits:3 code:2",
      "    symbol:2 bits:3 code:3",   "    symbol:3 bits:3 code:4",
      "    symbol:4 bits:3 code:5",   "    symbol:5 bits:3 code:6",
      "    symbol:6 bits:4 code:e",   "    symbol:7 bits:5 code:1e",
      "    symbol:8 bits:6 code:3e",  "    symbol:9 bits:7 code:7e",
      "    symbol:10 bits:8 code:fe", "    symbol:11 bits:9 code:1fe",
  };
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 12), expected);
  EXPECT_EQ(capture.texts(7, "mjpeg"),
            (std::vector<std::string>{"DHT Marker.", "  DHT dc th=0", "  DHT dc th=1",
                                      "  DHT ac th=0", "  DHT ac th=1"}));
}

TEST(DefaultTablesTest, NoCodeLinesWhenLevel8IsOff) {
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/7);
  parseDefaults(&decoder);
  EXPECT_TRUE(capture.texts(8, "mjpeg").empty());
  EXPECT_EQ(capture.texts(7, "mjpeg").size(), 5u);
}

// ---- buildTable on small lists --------------------------------------------------------------

struct Expect {
  unsigned first, last;  // inclusive
  uint32_t entry;
};

struct BuildCase {
  const char* name;
  bool ac;
  std::vector<uint8_t> lengths;
  std::vector<uint8_t> symbols;
  size_t size;  // of the array afterwards
  std::vector<Expect> entries;
};

TEST(BuildTableTest, SmallDefinitions) {
  const BuildCase cases[] = {
      {"one 1-bit code leaves half of the first level empty",
       false,
       {1},
       {0x03},
       512,
       {{0, 15, 0xC0000000 | 0x1FF9 << 16 | 4 << 8},   // code 0, value bits 000: -7
        {48, 63, 0xC0000000 | 0x1FFC << 16 | 4 << 8},  // 011: -4
        {64, 79, 0xC0000000 | 0x0004 << 16 | 4 << 8},  // 100: +4
        {112, 127, 0xC0000000 | 0x0007 << 16 | 4 << 8},
        {128, 255, 0}}},
      {"DC symbol 0 is a whole entry, never end of block",
       false,
       {1},
       {0x00},
       512,
       {{0, 127, 0xC0000100}, {128, 255, 0}}},
      {"AC symbol 0 is end of block",
       true,
       {1},
       {0x00},
       512,
       {{0, 255, 0xA0000001}, {256, 511, 0}}},
      {"ZRL is a whole entry with run 15 and value 0",
       true,
       {0, 1},
       {0xF0},
       512,
       {{0, 127, 0xC000020F}, {128, 511, 0}}},
      {"three 1-bit codes: the third is cut to 0 and wins",
       false,
       {3},
       {0x00, 0x00, 0x02},
       512,
       {{0, 31, 0xC0000000 | 0x1FFD << 16 | 3 << 8},
        {32, 63, 0xC0000000 | 0x1FFE << 16 | 3 << 8},
        {64, 95, 0xC0000000 | 0x0002 << 16 | 3 << 8},
        {96, 127, 0xC0000000 | 0x0003 << 16 | 3 << 8},
        {128, 255, 0xC0000100}}},
      {"a 9-bit DC code gets a 32-entry sub-table and owns 16 entries",
       false,
       {0, 0, 0, 0, 0, 0, 0, 0, 1},
       {0x00},
       544,
       {{0, 0, 0x40850200}, {1, 255, 0}, {512, 527, 0xC0000100}, {528, 543, 0}}},
      {"a 16-bit AC code with a value: 128-entry sub-table, fetch in it",
       true,
       {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
       {0x35},
       640,
       {{0, 0, 0x40970200}, {1, 511, 0}, {512, 512, 0x80050703}, {513, 639, 0}}},
      {"8-bit AC codes: a fetch entry, and whole entries where the value fits",
       true,
       {0, 0, 0, 0, 0, 0, 0, 2},
       {0x1A, 0x01},
       512,
       {{0, 1, 0x800A0801},
        {2, 2, 0xC0000000 | 0x1FFF << 16 | 9 << 8},
        {3, 3, 0xC0000000 | 0x0001 << 16 | 9 << 8},
        {4, 511, 0}}},
  };
  for (const BuildCase& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    ASSERT_TRUE(
        parseBytes(&decoder, segment({definition(c.ac ? 0x12 : 0x02, c.lengths, c.symbols)})));
    const std::vector<uint32_t>& entries = table(decoder, c.ac, 2).entries_;
    EXPECT_EQ(entries.size(), c.size);
    for (const Expect& e : c.entries) {
      for (unsigned i = e.first; i <= e.last && i < entries.size(); ++i) {
        EXPECT_EQ(entries[i], e.entry) << "index " << i;
      }
    }
  }
}

// A group closes when the first record behind it comes, and its link is written once the
// sub-table is complete; the next group's sub-table lies behind it.
TEST(BuildTableTest, GroupsFollowCodeOrder) {
  // DC: two 9-bit codes (prefix 0000 0000), then 10-bit codes behind, the first ones with
  // prefix 0000 0001.
  SimpleJPEGDecoder decoder;
  ASSERT_TRUE(parseBytes(&decoder, segment({definition(0x00, {0, 0, 0, 0, 0, 0, 0, 0, 2, 3},
                                                       {0x01, 0x02, 0x00, 0x00, 0x00})})));
  const std::vector<uint32_t>& entries = decoder.dc_huffman_tables_[0]->entries_;
  // Codes: 000000000, 000000001 (9 bits), 0000000100, 0000000101, 0000000110 (10 bits).
  ASSERT_EQ(entries.size(), 512u + 32 + 32);
  EXPECT_EQ(entries[0], 0x40850200u);
  EXPECT_EQ(entries[1], 0x40850220u);
  // First sub-table: 1 bit of code each, plus 1 resp. 2 value bits, 4 bits of index left.
  EXPECT_EQ(entries[512], 0xC0000000u | 0x1FFF << 16 | 2 << 8);  // 0 then value bit 0
  EXPECT_EQ(entries[512 + 8], 0xC0000000u | 0x0001 << 16 | 2 << 8);
  EXPECT_EQ(entries[512 + 16], 0xC0000000u | 0x1FFD << 16 | 3 << 8);
  // Second sub-table: 2-bit codes of symbol 0, eight entries each; the all-ones one is empty.
  for (int i = 0; i < 24; ++i) EXPECT_EQ(entries[544 + i], 0xC0000200u) << i;
  for (int i = 24; i < 32; ++i) EXPECT_EQ(entries[544 + i], 0u) << i;
}

TEST(BuildTableTest, SecondDefinitionOverwritesOnlyWhatItReaches) {
  SimpleJPEGDecoder decoder;
  parseDefaults(&decoder);
  const std::vector<uint32_t> before = decoder.dc_huffman_tables_[0]->entries_;
  // DC table 0 again, with one 1-bit code and one 9-bit code.
  ASSERT_TRUE(
      parseBytes(&decoder, segment({definition(0x00, {1, 0, 0, 0, 0, 0, 0, 0, 1}, {0x00, 0x00})})));
  const std::vector<uint32_t>& after = decoder.dc_huffman_tables_[0]->entries_;
  // Code 0 takes 0x00..0x7F; code 100000000 (9 bits) gets a new sub-table behind the old one
  // and a link at 0x80; the rest of the first level and the old sub-table stay.
  ASSERT_EQ(after.size(), before.size() + 32);
  for (int i = 0; i < 128; ++i) EXPECT_EQ(after[i], 0xC0000100u) << i;
  EXPECT_EQ(after[0x80], 0x40850000u | static_cast<uint32_t>(before.size()));
  for (size_t i = 0x81; i < before.size(); ++i) EXPECT_EQ(after[i], before[i]) << i;
  EXPECT_EQ(after[0xFF], 0x40850200u);  // the old link still leads to the old sub-table
  for (size_t i = before.size(); i < before.size() + 16; ++i) EXPECT_EQ(after[i], 0xC0000100u);
  // Other tables are untouched.
  SimpleJPEGDecoder reference;
  parseDefaults(&reference);
  EXPECT_EQ(decoder.dc_huffman_tables_[1]->entries_, reference.dc_huffman_tables_[1]->entries_);
  EXPECT_EQ(decoder.ac_huffman_tables_[0]->entries_, reference.ac_huffman_tables_[0]->entries_);
}

// ---- parseDHT -------------------------------------------------------------------------------

TEST(ParseDHTTest, SegmentsThatDefineNothing) {
  SimpleJPEGDecoder decoder;
  const std::vector<uint8_t> empty = {0x00, 0x02, 0xFF, 0xD9};
  JPEGBuffer input(empty.data(), empty.size());
  EXPECT_TRUE(decoder.parseDHT(&input));
  EXPECT_EQ(input.position(), 2u);
  // All 16 counts 0: 17 bytes, legal, and the table stays as it was.
  parseDefaults(&decoder);
  const std::vector<uint32_t> before = decoder.ac_huffman_tables_[1]->entries_;
  EXPECT_TRUE(parseBytes(&decoder, segment({definition(0x11, {}, {})})));
  EXPECT_EQ(decoder.ac_huffman_tables_[1]->entries_, before);
}

TEST(ParseDHTTest, MoreThan256SymbolsAreAccepted) {
  SimpleJPEGDecoder decoder;
  std::vector<uint8_t> symbols(300, 0x00);
  std::vector<uint8_t> lengths(16, 0);
  lengths[15] = 200;
  lengths[14] = 100;
  EXPECT_TRUE(parseBytes(&decoder, segment({definition(0x10, lengths, symbols)})));
  EXPECT_GT(decoder.ac_huffman_tables_[0]->entries_.size(), 512u);
}

struct FailureCase {
  const char* name;
  std::vector<uint8_t> bytes;
  std::vector<std::string> checks;
  bool table_built;  // DC table 0 holds the good definition afterwards
};

TEST(ParseDHTTest, Failures) {
  const std::vector<uint8_t> good = definition(0x00, {1}, {0x00});  // DC 0, code 0 -> symbol 0
  std::vector<uint8_t> too_long = segment({good});
  too_long[1] += 1;  // claims one byte more than there is
  const FailureCase cases[] = {
      {"no length", {0x00}, {"input->getLength16(&len)"}, false},
      {"length below 2", {0x00, 0x01}, {"input->getLength16(&len)"}, false},
      {"length past the end", too_long, {"input->getLength16(&len)"}, false},
      {"1 byte behind a good definition", segment({good}, {0x01}), {"dht + 17 <= limit"}, true},
      {"16 bytes behind a good definition",
       segment({good}, std::vector<uint8_t>(16, 0)),
       {"dht + 17 <= limit"},
       true},
      {"tc 2", segment({definition(0x20, {1}, {0})}), {"tc < 2"}, false},
      {"th 4", segment({definition(0x04, {1}, {0})}), {"th < 4"}, false},
      {"tc and th wrong", segment({definition(0x24, {1}, {0})}), {"tc < 2"}, false},
      {"more symbols than bytes",
       segment({definition(0x00, {1, 3}, {0, 1, 2})}),
       {"dht + lengths[i] <= limit"},
       false},
      {"good then short",
       segment({good, definition(0x01, {0, 0, 9}, {1})}),
       {"dht + lengths[i] <= limit"},
       true},
  };
  for (const FailureCase& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    EXPECT_FALSE(parseBytes(&decoder, c.bytes));
    EXPECT_EQ(capture.jpegChecks(), c.checks);
    const std::vector<uint32_t>& entries = decoder.dc_huffman_tables_[0]->entries_;
    EXPECT_EQ(entries[0], c.table_built ? 0xC0000100u : 0u);
    // A definition that fails never reaches buildTable.
    EXPECT_EQ(decoder.dc_huffman_tables_[1]->entries_[0], 0u);
  }
}

TEST(ParseDHTTest, TcTwoIsLoggedAsAC) {
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/7);
  EXPECT_FALSE(parseBytes(&decoder, segment({definition(0x23, {1}, {0})})));
  EXPECT_EQ(capture.texts(7, "mjpeg"), (std::vector<std::string>{"DHT Marker.", "  DHT ac th=3"}));
}

// Links keep 16 bits of the sub-table's index: a table that grows beyond 65536 entries is
// refused. One 16-bit DC code makes a sub-table of 256 entries per definition.
TEST(ParseDHTTest, TableGrowthIsBounded) {
  const std::vector<uint8_t> one_long_code =
      definition(0x00, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {0x00});
  const int fit = (65536 - 512) / 256;  // 254 definitions reach 65536 entries exactly
  std::vector<std::vector<uint8_t>> definitions(fit, one_long_code);
  {
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    EXPECT_TRUE(parseBytes(&decoder, segment(definitions)));
    const std::vector<uint32_t>& entries = decoder.dc_huffman_tables_[0]->entries_;
    EXPECT_EQ(entries.size(), 65536u);
    EXPECT_EQ(entries[0], 0x40880000u | (65536 - 256));  // the last link is exact
    EXPECT_TRUE(capture.jpegChecks().empty());
  }
  definitions.push_back(one_long_code);
  {
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    EXPECT_FALSE(parseBytes(&decoder, segment(definitions)));
    EXPECT_EQ(capture.jpegChecks(),
              (std::vector<std::string>{"table->entries_.size() <= kMaxHuffmanTableEntries"}));
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
