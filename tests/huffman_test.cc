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
using Bytes = std::vector<uint8_t>;
using Entries = std::vector<uint32_t>;
using Texts = std::vector<std::string>;

// One table definition of a DHT segment: the Tc/Th byte, 16 counts, then the symbols.
Bytes definition(uint8_t tc_th, const Bytes& lengths, const Bytes& symbols) {
  Bytes out = {tc_th};
  for (size_t i = 0; i < 16; ++i) out.push_back(i < lengths.size() ? lengths[i] : 0);
  out.insert(out.end(), symbols.begin(), symbols.end());
  return out;
}

// A DHT segment as parseDHT sees it: the length field and the payload.
Bytes segment(const std::vector<Bytes>& definitions, const Bytes& trailing = {}) {
  Bytes out = {0, 0};
  for (const Bytes& d : definitions) out.insert(out.end(), d.begin(), d.end());
  out.insert(out.end(), trailing.begin(), trailing.end());
  out[0] = static_cast<uint8_t>(out.size() >> 8);
  out[1] = static_cast<uint8_t>(out.size());
  return out;
}

bool parseBytes(SimpleJPEGDecoder* decoder, const Bytes& bytes) {
  JPEGBuffer input(bytes.data(), bytes.size());
  return decoder->parseDHT(&input);
}

void parseDefaults(SimpleJPEGDecoder* decoder) {
  JPEGBuffer input(kMJPGDHTSeg + 2, 418);
  ASSERT_TRUE(decoder->parseDHT(&input));
  EXPECT_EQ(input.getRemainingBytes(), 0u);
}

const Entries& entries(const SimpleJPEGDecoder& decoder, bool ac, int th) {
  return (ac ? decoder.ac_huffman_tables_ : decoder.dc_huffman_tables_)[th]->entries_;
}

// Entries `first` to `last` (inclusive) hold `entry`.
struct Range {
  unsigned first, last;
  uint32_t entry;
};

void expectRanges(const Entries& table, const std::vector<Range>& ranges) {
  for (const Range& r : ranges) {
    for (unsigned i = r.first; i <= r.last; ++i) {
      ASSERT_LT(i, table.size());
      EXPECT_EQ(table[i], r.entry) << "index " << i;
    }
  }
}

// A whole entry: value, bits to consume, run.
constexpr uint32_t whole(int value, int length, int run = 0) {
  return 0xC0000000u | (static_cast<uint32_t>(value) & 0x1FFF) << 16 | length << 8 | run;
}

// ---- The default tables ---------------------------------------------------------------------

TEST(DefaultTablesTest, EntriesAndShape) {
  SimpleJPEGDecoder decoder;
  parseDefaults(&decoder);
  // DC 0: code 00 (symbol 0); code 010 with value bit 0 and 1; fetch entries of 10 bits for
  // code 11111110 and of 11 bits for 111111110 behind the link at 0xFF; the all-ones code empty.
  expectRanges(entries(decoder, false, 0), {{0x00, 0x3F, 0xC0000200},
                                            {0x40, 0x4F, 0xDFFF0400},
                                            {0x50, 0x5F, 0xC0010400},
                                            {0xFE, 0xFE, 0x800A0800},
                                            {0xFF, 0xFF, 0x40850200},
                                            {512, 527, 0x800B0100},
                                            {528, 543, 0}});
  // AC 0: code 00 (symbol 0x01) with value bit 0 and 1; end of block at 1010; a 9-bit fetch
  // with run 8; links with sub_bits 5 and 7.
  expectRanges(entries(decoder, true, 0), {{0x000, 0x03F, 0xDFFF0300},
                                           {0x040, 0x07F, 0xC0010300},
                                           {0x140, 0x15F, 0xA0000004},
                                           {0x1F8, 0x1F8, 0x80010908},
                                           {0x1FB, 0x1FB, 0x40950200},
                                           {0x1FF, 0x1FF, 0x40970280}});
  // Tables 0 and 1: 544 entries with one link at 255 for DC, where 256..511 are never
  // written; 768 for AC with five links at 507..511 to sub-tables of 32 entries in the order of
  // their codes, the last of 128, whose all-ones end is the one empty entry. Tables 2 and 3 are
  // not defined by the segment.
  for (int th = 0; th < 4; ++th) {
    SCOPED_TRACE(th);
    const Entries &dc = entries(decoder, false, th), &ac = entries(decoder, true, th);
    if (th >= 2) {
      EXPECT_EQ(dc, Entries(512, 0));
      EXPECT_EQ(ac, Entries(512, 0));
      continue;
    }
    ASSERT_EQ(dc.size(), 544u);
    ASSERT_EQ(ac.size(), 768u);
    std::vector<size_t> links;
    for (const Entries* table : {&dc, &ac}) {
      for (size_t i = 0; i < table->size(); ++i) {
        if ((*table)[i] >> 30 == 1) links.push_back(i);
      }
    }
    EXPECT_EQ(links, (std::vector<size_t>{255, 507, 508, 509, 510, 511}));
    for (uint32_t k = 0; k < 5; ++k) {
      EXPECT_EQ(ac[507 + k], (k < 4 ? 0x40950000u : 0x40970000u) | (512 + 32 * k));
    }
    EXPECT_EQ(std::count(dc.begin(), dc.begin() + 256, 0u), 0);
    EXPECT_EQ(std::count(dc.begin() + 256, dc.begin() + 512, 0u), 256);
    EXPECT_EQ(std::count(ac.begin(), ac.end(), 0u), 1);
    EXPECT_EQ(ac.back(), 0u);
  }
}

// The level-8 line of each code, for all four definitions; the first table's codes are 00 for
// the first symbol, 010 to 110 for the next five, then 1110, 11110 ... 111111110.
TEST(DefaultTablesTest, CodeLines) {
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/8);
  parseDefaults(&decoder);
  const Texts lines = capture.texts(8, "mjpeg");
  ASSERT_EQ(lines.size(), 12u + 12 + 162 + 162);
  EXPECT_EQ(Texts(lines.begin(), lines.begin() + 12),
            (Texts{"    symbol:0 bits:2 code:0", "    symbol:1 bits:3 code:2",
                   "    symbol:2 bits:3 code:3", "    symbol:3 bits:3 code:4",
                   "    symbol:4 bits:3 code:5", "    symbol:5 bits:3 code:6",
                   "    symbol:6 bits:4 code:e", "    symbol:7 bits:5 code:1e",
                   "    symbol:8 bits:6 code:3e", "    symbol:9 bits:7 code:7e",
                   "    symbol:10 bits:8 code:fe", "    symbol:11 bits:9 code:1fe"}));
}

// ---- buildTable on small lists --------------------------------------------------------------

TEST(BuildTableTest, SmallDefinitions) {
  // Builds table 2 from one definition; checks the array's size and the ranges.
  auto check = [](const char* name, bool ac, const Bytes& lengths, const Bytes& symbols,
                  size_t size, const std::vector<Range>& ranges) {
    SCOPED_TRACE(name);
    SimpleJPEGDecoder decoder;
    ASSERT_TRUE(parseBytes(&decoder, segment({definition(ac ? 0x12 : 0x02, lengths, symbols)})));
    EXPECT_EQ(entries(decoder, ac, 2).size(), size);
    expectRanges(entries(decoder, ac, 2), ranges);
  };
  // Value bits 000 to 111 behind the code give -7 to 7.
  check("one 1-bit code leaves half of the first level empty", false, {1}, {0x03}, 512,
        {{0, 15, whole(-7, 4)},
         {48, 63, whole(-4, 4)},
         {64, 79, whole(4, 4)},
         {112, 127, whole(7, 4)},
         {128, 255, 0}});
  check("ZRL: run 15, value 0", true, {0, 1}, {0xF0}, 512,
        {{0, 127, whole(0, 2, 15)}, {128, 511, 0}});
  check("three 1-bit codes: the third is cut to 0 and wins", false, {3}, {0x00, 0x00, 0x02}, 512,
        {{0, 31, whole(-3, 3)},
         {32, 63, whole(-2, 3)},
         {64, 95, whole(2, 3)},
         {96, 127, whole(3, 3)},
         {128, 255, whole(0, 1)}});
  // One bit more than the index: still 32 entries, the code owns 16 of them, and its value
  // bits are folded in as on the first level.
  check("a 9-bit DC code with 2 value bits", false, {0, 0, 0, 0, 0, 0, 0, 0, 1}, {0x02}, 544,
        {{0, 0, 0x40850200},
         {1, 255, 0},
         {512, 515, whole(-3, 3)},
         {516, 519, whole(-2, 3)},
         {520, 523, whole(2, 3)},
         {524, 527, whole(3, 3)},
         {528, 543, 0}});
}

TEST(BuildTableTest, SecondDefinitionOverwritesOnlyWhatItReaches) {
  SimpleJPEGDecoder decoder, reference;
  parseDefaults(&decoder);
  parseDefaults(&reference);
  const Entries& before = reference.dc_huffman_tables_[0]->entries_;
  // DC table 0 again, with the codes 0 (1 bit) and 100000000 (9 bits).
  ASSERT_TRUE(
      parseBytes(&decoder, segment({definition(0x00, {1, 0, 0, 0, 0, 0, 0, 0, 1}, {0x00, 0x00})})));
  const Entries& after = decoder.dc_huffman_tables_[0]->entries_;
  // Code 0 takes 0x00..0x7F, the new code a link at 0x80 to a sub-table behind the old one; the
  // rest of the first level, the old link at 0xFF and the old sub-table stay.
  ASSERT_EQ(after.size(), 544u + 32);
  expectRanges(after, {{0, 127, whole(0, 1)},
                       {0x80, 0x80, 0x40850000u | 544},
                       {544, 559, whole(0, 1)},
                       {560, 575, 0}});
  EXPECT_TRUE(std::equal(before.begin() + 0x81, before.end(), after.begin() + 0x81));
  EXPECT_EQ(entries(decoder, false, 1), entries(reference, false, 1));
  EXPECT_EQ(entries(decoder, true, 0), entries(reference, true, 0));
}

// ---- parseDHT -------------------------------------------------------------------------------

TEST(ParseDHTTest, SegmentsThatDefineNothingOrMuch) {
  SimpleJPEGDecoder decoder;
  // All 16 counts 0: 17 bytes, legal, and the table stays as it was.
  parseDefaults(&decoder);
  const Entries before = decoder.ac_huffman_tables_[1]->entries_;
  EXPECT_TRUE(parseBytes(&decoder, segment({definition(0x11, {}, {})})));
  EXPECT_EQ(decoder.ac_huffman_tables_[1]->entries_, before);
  // The number of symbols is not limited to 256.
  Bytes lengths(16, 0);
  lengths[14] = 100;
  lengths[15] = 200;
  EXPECT_TRUE(parseBytes(&decoder, segment({definition(0x13, lengths, Bytes(300, 0x00))})));
  EXPECT_GT(decoder.ac_huffman_tables_[3]->entries_.size(), 512u);
}

TEST(ParseDHTTest, Failures) {
  const Bytes good = definition(0x00, {1}, {0x00});  // DC 0, code 0 -> symbol 0
  Bytes too_long = segment({good});
  too_long[1] += 1;  // claims one byte more than there is
  const std::string length = "input->getLength16(&len)", rest = "dht + 17 <= limit",
                    symbols = "dht + lengths[i] <= limit";
  const struct {
    Bytes bytes;
    std::string check;
    bool table_built;  // DC table 0 holds the good definition afterwards
  } cases[] = {
      {{0x00, 0x01}, length, false},
      {too_long, length, false},
      {segment({good}, {0x01}), rest, true},  // 1 to 16 bytes behind a definition
      {segment({good}, Bytes(16, 0)), rest, true},
      {segment({definition(0x20, {1}, {0})}), "tc < 2", false},
      {segment({definition(0x04, {1}, {0})}), "th < 4", false},
      {segment({definition(0x24, {1}, {0})}), "tc < 2", false},  // tc comes first
      {segment({definition(0x00, {1, 3}, {0, 1, 2})}), symbols, false},
      {segment({good, definition(0x01, {0, 0, 9}, {1})}), symbols, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.bytes));
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    EXPECT_FALSE(parseBytes(&decoder, c.bytes));
    EXPECT_EQ(capture.jpegChecks(), Texts{c.check});
    EXPECT_EQ(decoder.dc_huffman_tables_[0]->entries_[0], c.table_built ? whole(0, 1) : 0u);
    // A definition that fails never reaches buildTable.
    EXPECT_EQ(decoder.dc_huffman_tables_[1]->entries_[0], 0u);
  }
  // The definition's line comes before its checks, so tc 2 shows as ac.
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/7);
  EXPECT_FALSE(parseBytes(&decoder, segment({definition(0x23, {1}, {0})})));
  EXPECT_EQ(capture.texts(7, "mjpeg"), (Texts{"DHT Marker.", "  DHT ac th=3"}));
}

// Links keep 16 bits of the sub-table's index: a table that grows beyond 65536 entries is
// refused. One 16-bit DC code makes a sub-table of 256 entries per definition, so 254 of them
// reach 65536 entries exactly, and the last link holds 65280.
TEST(ParseDHTTest, TableGrowthIsBounded) {
  Bytes lengths(16, 0);
  lengths[15] = 1;
  for (size_t count : {254, 255}) {
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    const Bytes bytes = segment(std::vector<Bytes>(count, definition(0x00, lengths, {0x00})));
    EXPECT_EQ(parseBytes(&decoder, bytes), count == 254);
    const Entries& table = decoder.dc_huffman_tables_[0]->entries_;
    EXPECT_EQ(capture.jpegChecks(),
              count == 254 ? Texts{} : Texts{"table->entries_.size() <= kMaxHuffmanTableEntries"});
    EXPECT_EQ(table.size(), 512u + 256 * count);
    if (count == 254) {
      EXPECT_EQ(table[0], 0x40880000u | 65280);
    }
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
