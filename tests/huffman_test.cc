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

// The entries, the shape of the tables and the level-8 line of each code, for all four
// definitions.
TEST(DefaultTablesTest, EntriesShapeAndCodeLines) {
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/8);
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
  // The first table's codes are 00 for the first symbol, 010 to 110 for the next five, then
  // 1110, 11110 ... 111111110.
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

// ---- buildTable -----------------------------------------------------------------------------

// A second segment on top of the default tables: DC table 0 again, with the codes 0 (1 bit) and
// 100000000 (9 bits, its symbol 2 asks for 2 value bits); AC table 1 with all 16 counts 0 (17
// bytes, legal, the table stays as it was); AC table 3 with 300 symbols, as their number is not
// limited to 256; and small lists for the fresh tables DC 2, AC 2 and DC 3.
TEST(BuildTableTest, DefinitionsOverwriteOnlyWhatTheyReach) {
  SimpleJPEGDecoder decoder, reference;
  parseDefaults(&decoder);
  parseDefaults(&reference);
  Bytes lengths(16, 0);
  lengths[14] = 100;
  lengths[15] = 200;
  ASSERT_TRUE(parseBytes(
      &decoder,
      segment({definition(0x00, {1, 0, 0, 0, 0, 0, 0, 0, 1}, {0, 2}), definition(0x11, {}, {}),
               definition(0x13, lengths, Bytes(300, 0x00)), definition(0x02, {1}, {0x03}),
               definition(0x12, {0, 1}, {0xF0}), definition(0x03, {3}, {0x00, 0x00, 0x02})})));
  const Entries &before = entries(reference, false, 0), &after = entries(decoder, false, 0);
  // Code 0 takes 0x00..0x7F, the new code a link at 0x80 to a sub-table behind the old one, with
  // one bit more than the index: still 32 entries, the code owns 16 of them, and its value bits
  // are folded in as on the first level. The rest of the first level, the old link at 0xFF and
  // the old sub-table stay.
  ASSERT_EQ(after.size(), 544u + 32);
  expectRanges(after, {{0, 127, whole(0, 1)},
                       {0x80, 0x80, 0x40850000u | 544},
                       {544, 547, whole(-3, 3)},
                       {548, 551, whole(-2, 3)},
                       {552, 555, whole(2, 3)},
                       {556, 559, whole(3, 3)},
                       {560, 575, 0}});
  EXPECT_TRUE(std::equal(before.begin() + 0x81, before.end(), after.begin() + 0x81));
  for (int t : {1, 2, 3})  // DC 1, AC 0 and AC 1 are untouched
    EXPECT_EQ(entries(decoder, t > 1, t & 1), entries(reference, t > 1, t & 1));
  // One 1-bit code leaves half of the first level empty; value bits 000 to 111 give -7 to 7
  // (the sign boundary at 011/100 shown).
  EXPECT_EQ(entries(decoder, false, 2).size(), 512u);
  expectRanges(
      entries(decoder, false, 2),
      {{0, 15, whole(-7, 4)}, {48, 63, whole(-4, 4)}, {64, 79, whole(4, 4)}, {128, 255, 0}});
  // ZRL: run 15, value 0.
  EXPECT_EQ(entries(decoder, true, 2).size(), 512u);
  expectRanges(entries(decoder, true, 2), {{0, 127, whole(0, 2, 15)}, {128, 511, 0}});
  // Three 1-bit codes: the third is cut to 0 and wins.
  EXPECT_EQ(entries(decoder, false, 3).size(), 512u);
  expectRanges(entries(decoder, false, 3),
               {{0, 31, whole(-3, 3)}, {96, 127, whole(3, 3)}, {128, 255, whole(0, 1)}});
  EXPECT_GT(entries(decoder, true, 3).size(), 512u);
}

// ---- parseDHT -------------------------------------------------------------------------------

// Links keep 16 bits of the sub-table's index: a table that grows beyond 65536 entries is
// refused. One 16-bit DC code makes a sub-table of 256 entries per definition, so 254 of them
// reach 65536 entries exactly and the last link holds 65280; with 255 it would wrap to 0.
TEST(ParseDHTTest, FailuresAndTableGrowth) {
  const Bytes good = definition(0x00, {1}, {0x00});  // DC 0, code 0 -> symbol 0
  Bytes too_long = segment({good});
  too_long[1] += 1;  // claims one byte more than there is
  auto grown = [](size_t count) {
    return segment(std::vector<Bytes>(
        count, definition(0x00, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {0})));
  };
  const std::string length = "input->getLength16(&len)", rest = "dht + 17 <= limit",
                    symbols = "dht + lengths[i] <= limit";
  const struct {
    Bytes bytes;
    std::string check;  // empty: accepted
    uint32_t dc0;       // DC table 0's first entry afterwards
  } cases[] = {
      {{0x00, 0x01}, length, 0},
      {too_long, length, 0},
      {segment({good}, {0x01}), rest, whole(0, 1)},  // 1 to 16 bytes behind a definition
      {segment({good}, Bytes(16, 0)), rest, whole(0, 1)},
      {segment({definition(0x20, {1}, {0})}), "tc < 2", 0},
      {segment({definition(0x04, {1}, {0})}), "th < 4", 0},
      {segment({definition(0x24, {1}, {0})}), "tc < 2", 0},  // tc comes first
      {segment({definition(0x00, {1, 3}, {0, 1, 2})}), symbols, 0},
      {segment({good, definition(0x01, {0, 0, 9}, {1})}), symbols, whole(0, 1)},
      {grown(254), "", 0x40880000u | 65280},
      {grown(255), "table->entries_.size() <= kMaxHuffmanTableEntries", 0x40880000u},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.check + " " + std::to_string(c.bytes.size()) + " bytes");
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    EXPECT_EQ(parseBytes(&decoder, c.bytes), c.check.empty());
    EXPECT_EQ(capture.jpegChecks(), c.check.empty() ? Texts{} : Texts{c.check});
    EXPECT_EQ(decoder.dc_huffman_tables_[0]->entries_[0], c.dc0);
    // A definition that fails never reaches buildTable.
    EXPECT_EQ(decoder.dc_huffman_tables_[1]->entries_[0], 0u);
  }
  // The definition's line comes before its checks, so tc 2 shows as ac.
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/7);
  EXPECT_FALSE(parseBytes(&decoder, segment({definition(0x23, {1}, {0})})));
  EXPECT_EQ(capture.texts(7, "mjpeg"), (Texts{"DHT Marker.", "  DHT ac th=3"}));
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
