// DHT segments and the lookup tables that buildTable makes of them.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "jpeg.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"
#include "wide_level.h"

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

// A DHT segment as parseDHT sees it: the length field and the payload, here the definitions
// and whatever other bytes are given in their place.
Bytes segment(const std::vector<Bytes>& definitions) {
  Bytes out = {0, 0};
  for (const Bytes& d : definitions) out.insert(out.end(), d.begin(), d.end());
  out[0] = static_cast<uint8_t>(out.size() >> 8);
  out[1] = static_cast<uint8_t>(out.size());
  return out;
}

// Runs parseDHT over `bytes` (from the length field on); an accepted segment is read to its end.
bool parseBytes(SimpleJPEGDecoder* decoder, const Bytes& bytes) {
  JPEGBuffer input(bytes.data(), bytes.size());
  const bool ok = decoder->parseDHT(&input);
  EXPECT_TRUE(!ok || input.getRemainingBytes() == 0);
  return ok;
}

void parseDefaults(SimpleJPEGDecoder* decoder) {
  ASSERT_TRUE(parseBytes(decoder, Bytes(kMJPGDHTSeg + 2, kMJPGDHTSeg + sizeof(kMJPGDHTSeg))));
}

const Entries& entries(const SimpleJPEGDecoder& decoder, bool ac, int th) {
  return (ac ? decoder.ac_huffman_tables_ : decoder.dc_huffman_tables_)[th]->entries_;
}

// The table has `size` entries; in each range, entries `first` to `last` (inclusive) hold `entry`.
using Range = std::tuple<unsigned, unsigned, uint32_t>;

void expectTable(const Entries& table, size_t size, const std::vector<Range>& ranges) {
  ASSERT_EQ(table.size(), size);
  for (const auto& [first, last, entry] : ranges) {
    for (unsigned i = first; i <= last; ++i) EXPECT_EQ(table[i], entry) << "index " << i;
  }
}

// A whole entry: value, bits to consume, run.
constexpr uint32_t whole(int value, int length, int run = 0) {
  return 0xC0000000u | (static_cast<uint32_t>(value) & 0x1FFF) << 16 | length << 8 | run;
}

// ---- The default tables ---------------------------------------------------------------------

// The entries, the tables' shape and the level-8 line of each code, for all four definitions.
TEST(DefaultTablesTest, EntriesShapeAndCodeLines) {
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/8);
  parseDefaults(&decoder);
  // DC 0: code 00 (symbol 0); code 010 with value bit 0 and 1; fetch entries of 10 bits for
  // code 11111110 and of 11 bits for 111111110 behind the link at 0xFF; the all-ones code empty.
  expectTable(entries(decoder, false, 0), 544,
              {{0x00, 0x3F, 0xC0000200},
               {0x40, 0x4F, 0xDFFF0400},
               {0x50, 0x5F, 0xC0010400},
               {0xFE, 0xFE, 0x800A0800},
               {0xFF, 0xFF, 0x40850200},
               {512, 527, 0x800B0100},
               {528, 543, 0}});
  // AC 0: code 00 (symbol 0x01) with value bit 0 and 1; end of block at 1010; 9-bit fetch, run 8.
  expectTable(entries(decoder, true, 0), 768,
              {{0x000, 0x03F, 0xDFFF0300},
               {0x040, 0x07F, 0xC0010300},
               {0x140, 0x15F, 0xA0000004},
               {0x1F8, 0x1F8, 0x80010908}});
  // Tables 0 and 1: 544 entries with one link at 255 for DC, where 256..511 are never written; 768
  // for AC with five links at 507..511 (sub_bits 5, the last 7) to sub-tables of 32 entries in the
  // order of their codes, the last of 128, whose all-ones end is the one empty entry.
  for (int th = 0; th < 2; ++th) {
    SCOPED_TRACE(th);
    const Entries &dc = entries(decoder, false, th), &ac = entries(decoder, true, th);
    ASSERT_EQ(std::make_pair(dc.size(), ac.size()), std::make_pair(size_t{544}, size_t{768}));
    std::vector<size_t> links;
    for (const Entries* table : {&dc, &ac})
      for (size_t i = 0; i < table->size(); ++i)
        if ((*table)[i] >> 30 == 1) links.push_back(i);
    EXPECT_EQ(links, (std::vector<size_t>{255, 507, 508, 509, 510, 511}));
    for (uint32_t k = 0; k < 5; ++k)
      EXPECT_EQ(ac[507 + k], (k < 4 ? 0x40950000u : 0x40970000u) | (512 + 32 * k));
    EXPECT_EQ(std::find(dc.begin(), dc.end(), 0u), dc.begin() + 256);
    EXPECT_EQ(std::count(dc.begin() + 256, dc.begin() + 512, 0u), 256);
    EXPECT_EQ(std::find(ac.begin(), ac.end(), 0u), ac.end() - 1);
  }
  // Tables 2 and 3 are not defined by the segment: 512 empty entries, as the kernel may look any
  // 9-bit index up in them.
  for (int th : {2, 3})
    EXPECT_TRUE(entries(decoder, false, th) == Entries(512, 0) &&
                entries(decoder, true, th) == Entries(512, 0));
  // Each code's line: 00 for the first symbol of the first table, 010 to 110 for the next five,
  // then 1110, 11110 ... 111111110.
  const Texts lines = capture.texts(8, "mjpeg");
  ASSERT_EQ(lines.size(), 12u + 12 + 162 + 162);
  EXPECT_EQ((Texts{lines[0], lines[1], lines[6], lines[11]}),
            (Texts{"    symbol:0 bits:2 code:0", "    symbol:1 bits:3 code:2",
                   "    symbol:6 bits:4 code:e", "    symbol:11 bits:9 code:1fe"}));
}

// Frames without DHT segments get the default tables from one decoder to the next: the first
// builds them and keeps a copy with their wide levels, later ones take the copy, or parse again
// while levels 7 and 8 log. A table that a segment built already is built over, as parsing the
// segment does (here DC 0, whose first sub-table moves up).
TEST(DefaultTablesTest, InstalledAsParsed) {
  const SimpleJPEGDecoder::DefaultDHT dht;
  const Bytes long_code = segment({definition(0x00, {0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {3})});
  for (const int round : {0, 1, 2, 3}) {  // first (maybe fills the copy), copy, logging, built
    SCOPED_TRACE(round);
    SimpleJPEGDecoder parsed, installed;
    if (round == 3) {
      ASSERT_TRUE(parseBytes(&parsed, long_code));
      ASSERT_TRUE(parseBytes(&installed, long_code));
    }
    Texts lines[2];
    {
      LogCapture capture(round == 2 ? 8 : 2);
      parseDefaults(&parsed);
      for (int pass = 0; pass < 2; ++pass) {
        for (const test::LogLine& line : capture.lines()) {
          lines[pass].push_back(std::to_string(line.level) + line.channel + line.text);
        }
        capture.clear();
        if (pass == 0) {
          ASSERT_TRUE(installed.parseDHT(&dht));
        }
      }
    }
    EXPECT_EQ(lines[0].size(), round == 2 ? 1u + 4 + 12 + 12 + 162 + 162 : 0u);
    EXPECT_EQ(lines[0], lines[1]);
    for (const bool ac : {false, true}) {
      for (int th = 0; th < 4; ++th) {
        EXPECT_EQ(entries(installed, ac, th), entries(parsed, ac, th));
        const uint32_t* kept = defaultWideLevel(entries(installed, ac, th), ac);
        EXPECT_EQ(kept != nullptr, th < 2 && (round < 3 || ac || th == 1));
        if (kept == nullptr) continue;
        Entries level(ac ? kWideACEntries : kWideDCEntries);
        buildWideLevel(entries(installed, ac, th).data(), ac, level.data());
        EXPECT_TRUE(std::equal(level.begin(), level.end(), kept));
      }
    }
  }
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
  ASSERT_TRUE(parseBytes(
      &decoder,
      segment(
          {definition(0x00, {1, 0, 0, 0, 0, 0, 0, 0, 1}, {0, 2}), definition(0x11, {}, {}),
           definition(0x13, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 100, 200}, Bytes(300, 0x00)),
           definition(0x02, {1}, {0x03}), definition(0x12, {0, 1}, {0xF0}),
           definition(0x03, {3}, {0x00, 0x00, 0x02})})));
  const Entries &before = entries(reference, false, 0), &after = entries(decoder, false, 0);
  // Code 0 takes 0x00..0x7F, the new code a link at 0x80 to a sub-table behind the old one, with
  // one bit more than the index: still 32 entries, the code owns 16 of them, and its value bits
  // are folded in as on the first level. The rest of the first level, the old link at 0xFF and
  // the old sub-table stay.
  expectTable(after, 544 + 32,
              {{0, 127, whole(0, 1)},
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
  expectTable(
      entries(decoder, false, 2), 512,
      {{0, 15, whole(-7, 4)}, {48, 63, whole(-4, 4)}, {64, 79, whole(4, 4)}, {128, 255, 0}});
  // ZRL: run 15, value 0.
  expectTable(entries(decoder, true, 2), 512, {{0, 127, whole(0, 2, 15)}, {128, 511, 0}});
  // Three 1-bit codes: the third is cut to 0 and wins.
  expectTable(entries(decoder, false, 3), 512,
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
  const Bytes code16 = definition(0x00, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {0});
  const std::string rest = "dht + 17 <= limit", symbols = "dht + lengths[i] <= limit";
  // The segment, the failed check (empty: accepted), DC table 0's first entry afterwards.
  const std::tuple<Bytes, std::string, uint32_t> cases[] = {
      {too_long, "input->getLength16(&len)", 0},
      {segment({good, Bytes(16, 0)}), rest, whole(0, 1)},  // 16 bytes: one short of a definition
      {segment({definition(0x20, {1}, {0})}), "tc < 2", 0},
      {segment({definition(0x04, {1}, {0})}), "th < 4", 0},
      {segment({good, definition(0x01, {0, 0, 9}, {1})}), symbols, whole(0, 1)},
      {segment(std::vector<Bytes>(254, code16)), "", 0x40880000u | 65280},
      {segment(std::vector<Bytes>(255, code16)),
       "table->entries_.size() <= kMaxHuffmanTableEntries", 0x40880000u},
  };
  for (const auto& [bytes, check, dc0] : cases) {
    SCOPED_TRACE(check + " " + std::to_string(bytes.size()) + " bytes");
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    EXPECT_EQ(parseBytes(&decoder, bytes), check.empty());
    EXPECT_EQ(capture.jpegChecks(), check.empty() ? Texts{} : Texts{check});
    EXPECT_EQ(decoder.dc_huffman_tables_[0]->entries_[0], dc0);
    // A definition that fails never reaches buildTable.
    EXPECT_EQ(decoder.dc_huffman_tables_[1]->entries_[0], 0u);
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
