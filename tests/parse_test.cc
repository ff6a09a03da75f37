// SimpleJPEGDecoder from SOI to the entropy data: the marker loop, the frame header and its MCU
// grid, quantisation tables, the restart interval, the scan header and the block list.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "jpeg.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

using test::LogCapture;
using Bytes = std::vector<uint8_t>;
using Checks = std::vector<std::string>;
using Pairs = std::vector<std::pair<int, int>>;  // scan selector, Td/Ta byte

// ---- Building segments ----------------------------------------------------------------------

template <typename T>
std::vector<T> operator+(std::vector<T> a, const std::vector<T>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Bytes from ints, each cut to its low 8 bits; a big-endian 16-bit field.
Bytes of(std::initializer_list<int> values) { return Bytes(values.begin(), values.end()); }
Bytes be16(size_t value) { return of({int(value >> 8), int(value & 0xFF)}); }

// The length field (counting itself) and the payload: what a parser sees behind its marker.
Bytes withLength(const Bytes& payload) { return be16(payload.size() + 2) + payload; }

Bytes segment(uint8_t marker, const Bytes& payload) {
  return Bytes{0xFF, marker} + withLength(payload);
}

const Bytes kSOI = {0xFF, 0xD8};
const Bytes kEOI = {0xFF, 0xD9};

struct Comp {
  int id, h, v, tq;
};
using Comps = std::vector<Comp>;

// Frame header payload.
Bytes sof0(int width, int height, const Comps& comps, int precision = 8) {
  Bytes out = of({precision}) + be16(height) + be16(width) + of({int(comps.size())});
  for (const Comp& c : comps) out = out + of({c.id, c.h << 4 | c.v, c.tq});
  return out;
}

Bytes dqt(uint8_t pq_tq, const Bytes& steps) { return Bytes{pq_tq} + steps; }
Bytes dqt(uint8_t tq, uint8_t step = 1) { return dqt(tq, Bytes(64, step)); }

// Scan header from the length field on: the pairs, then Ss, Se and Ah/Al.
Bytes sos(const Pairs& pairs, int ss = 0, int se = 63, int ahal = 0) {
  Bytes out = of({int(pairs.size())});
  for (const auto& p : pairs) out = out + of({p.first, p.second});
  return withLength(out + of({ss, se, ahal}));
}

const Comps k420 = {{1, 2, 2, 0}, {2, 1, 1, 1}, {3, 1, 1, 1}};
const Comps k422 = {{1, 2, 1, 0}, {2, 1, 1, 1}, {3, 1, 1, 1}};
const Comps k444 = {{1, 1, 1, 0}, {2, 1, 1, 1}, {3, 1, 1, 1}};
const Comps kOne = {{1, 1, 1, 0}};
const Pairs kScan3 = {{1, 0x00}, {2, 0x11}, {3, 0x11}};

// Runs one parser over `bytes`, which start at the segment's length field.
template <typename Parse>
bool parse(SimpleJPEGDecoder* decoder, Parse parser, const Bytes& bytes,
           size_t* position = nullptr) {
  JPEGBuffer input(bytes.data(), bytes.size());
  const bool ok = (decoder->*parser)(&input);
  if (position) *position = input.position();
  return ok;
}

constexpr auto kSOF0 = &SimpleJPEGDecoder::parseSOF0;
constexpr auto kDQT = &SimpleJPEGDecoder::parseDQT;
constexpr auto kSOS = &SimpleJPEGDecoder::parseSOS;

// A decoder as the marker loop leaves it at the SOS marker: a frame header (unless there are no
// components), quantisation tables 0 and 1 and the default Huffman tables.
void prepare(SimpleJPEGDecoder* decoder, const Comps& comps, int width = 16, int height = 16) {
  ASSERT_TRUE(comps.empty() || parse(decoder, kSOF0, withLength(sof0(width, height, comps))));
  ASSERT_TRUE(parse(decoder, kDQT, withLength(dqt(0) + dqt(1))));
  JPEGBuffer dht(kMJPGDHTSeg + 2, 418);
  ASSERT_TRUE(decoder->parseDHT(&dht));
}

bool decompress(SimpleJPEGDecoder* decoder, const Bytes& frame, test::Planes* p,
                bool insert_dht = false) {
  return decoder->decompress(frame.data(), frame.size(), p->width, p->height, insert_dht,
                             p->y.data(), p->y_stride, p->u.data(), p->uv_stride, p->v.data(),
                             p->uv_stride);
}

bool sameTables(const SimpleJPEGDecoder& a, const SimpleJPEGDecoder& b) {
  for (int i = 0; i < 4; ++i) {
    if (a.dc_huffman_tables_[i]->entries_ != b.dc_huffman_tables_[i]->entries_ ||
        a.ac_huffman_tables_[i]->entries_ != b.ac_huffman_tables_[i]->entries_)
      return false;
  }
  return true;
}

// Parses `bytes` and returns the checks that failed on the way.
template <typename Parse>
Checks checksOf(SimpleJPEGDecoder* decoder, Parse parser, const Bytes& bytes, bool ok = false) {
  LogCapture capture;
  EXPECT_EQ(parse(decoder, parser, bytes), ok);
  return capture.jpegChecks();
}

// The block list as "cxy" triples: component, column and row of each block, in list order.
std::string blocksOf(const SimpleJPEGDecoder& decoder) {
  std::string out;
  for (const MCUBlock& b : decoder.mcu_blocks_) {
    out += (out.empty() ? "" : " ") + std::to_string(b.component_ * 100 + b.x_ * 10 + b.y_);
  }
  return out;
}

// ---- Marker loop ----------------------------------------------------------------------------

// Frame headers and quantisation tables are refused inside the loop, so their checks are listed
// here too, each followed by the loop's own check of the call.
TEST(MarkerLoopTest, FramesThatFailBeforeTheScan) {
  const std::string soi = "input.consumeUint8(0xff) && input.consumeUint8(0xd8)";
  const std::string next = "input.consumeUint8(0xff)", ignored = "parseAndIgnoreMarker(&input)";
  const Bytes tables = segment(0xDB, dqt(0)), header = segment(0xC0, sof0(16, 16, k420));
  // A frame header (0xC0) or quantisation tables (0xDB), from the length field on, behind SOI.
  auto at = [](uint8_t marker, const Bytes& bytes, const std::string& check) {
    const std::string call = marker == 0xC0 ? "parseSOF0(&input)" : "parseDQT(&input)";
    return std::make_pair(kSOI + Bytes{0xFF, marker} + bytes, Checks{check, call});
  };
  const std::string nf = "len == 6 + 3 * num_components && num_components <= 4";
  const std::string short_check = "len >= 0x40", header_check = "pq == 0 && tq < 4";
  Bytes nf_two = withLength(sof0(16, 16, k444));
  nf_two[7] = 2;  // with room for three components
  // The failed checks in order, or the level-3 line of an unhandled marker (fill bytes, EOI and
  // other frame markers before the scan: the report's refusal table).
  const std::pair<Bytes, Checks> cases[] = {
      {{}, {soi}},
      {kEOI, {soi}},
      {kSOI, {next}},
      {kSOI + Bytes{0xFF}, {"input.getUint8(&marker)"}},
      {kSOI + tables + Bytes{0x00} + header, {next}},            // no garbage skipped
      {kSOI + Bytes{0xFF, 0x00}, {"Unhandled JPEG marker 00"}},  // two digits
      {kSOI + segment(0xDF, {}), {"Unhandled JPEG marker df"}},  // just outside APPn
      {kSOI + segment(0xF0, {}), {"Unhandled JPEG marker f0"}},
      {kSOI + segment(0xDD, {0, 1, 2}), {"len == 2", "parseDRI(&input)"}},
      {kSOI + Bytes{0xFF, 0xFE, 0x00, 0x01}, {"input->getLength16(&len)", ignored}},
      {kSOI + tables + header + Bytes{0xFF, 0xDA, 0, 4, 1, 0}, {"len >= 4", "parseSOS(&input)"}},
      at(0xC0, {0x00, 0x0B, 8, 0, 16, 0, 16, 1, 1, 0x11}, "input->getLength16(&len)"),
      at(0xC0, withLength({8, 0, 16, 0, 16}), "len >= 6"),
      at(0xC0, nf_two, nf),
      at(0xC0, withLength(sof0(16, 16, k444 + Comps{{4, 1, 1, 0}, {5, 1, 1, 0}})), nf),
      at(0xC0, withLength(sof0(16, 16, {})), "num_components > 0"),
      at(0xC0, withLength(sof0(16, 16, {{1, 2, 2, 0}, {2, 2, 2, 0}, {3, 1, 3, 0}})), "nb <= 10"),
      at(0xC0, withLength(sof0(16, 16, {{1, 3, 3, 0}, {1, 1, 2, 0}})), "nb <= 10"),  // one slot, 11
      at(0xC0, withLength(sof0(16, 16, {{1, 1, 1, 0}, {16, 1, 1, 0}})),
         "component_id < kMaxComponents"),
      at(0xDB, Bytes{0x00, 0x44} + dqt(0), "input->getLength16(&len)"),  // past the end
      at(0xDB, {0x00, 0x02}, "input->getUint8(&header)"),                // no table at the end
      at(0xDB, withLength(dqt(0, Bytes(63, 1))) + kEOI, short_check),
      at(0xDB, withLength(dqt(0x10, Bytes(128, 1))), header_check),  // 16-bit steps
      at(0xDB, withLength(dqt(0x04)), header_check),
  };
  const test::Planes fresh(16, 16);
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.first));
    SimpleJPEGDecoder decoder;
    test::Planes planes(16, 16);
    LogCapture capture(/*mjpeg_level=*/3);
    EXPECT_FALSE(decompress(&decoder, c.first, &planes));
    EXPECT_EQ(capture.jpegChecks() + capture.texts(3, "mjpeg"), c.second);
    EXPECT_TRUE(planes == fresh);
  }
}

// Segments in any order, APPn and COM skipped unread, a later DRI over an earlier one, the frame
// header's component lines, nothing behind the first scan read. Component 4 selects quantisation
// table 200, unread as no scan names it, and its plane is cleared to grey, not left as allocated.
TEST(MarkerLoopTest, SegmentsInAnyOrderUpToTheScan) {
  const Bytes before_scan = kSOI + segment(0xDD, {0, 0}) + segment(0xDB, dqt(0) + dqt(1)) +
                            segment(0xE0, {'A', 'V', 'I', '1', 0, 0}) +
                            segment(0xC0, sof0(16, 16, k420 + Comps{{4, 1, 1, 200}})) +
                            segment(0xFE, {0xFF, 0xD9}) + segment(0xDD, {0xFF, 0x05}) +
                            Bytes(kMJPGDHTSeg, kMJPGDHTSeg + sizeof(kMJPGDHTSeg)) +
                            segment(0xEF, {});
  const Bytes frame = before_scan + Bytes{0xFF, 0xDA} + sos(kScan3) + kEOI;
  SimpleJPEGDecoder decoder;
  test::Planes planes(16, 16);
  LogCapture capture(/*mjpeg_level=*/8);
  decompress(&decoder, frame, &planes);
  std::string lines;  // level and text of each line up to the scan's end, code lines left out
  for (const test::LogLine& line : capture.lines()) {
    if (line.text.rfind("    symbol:", 0) == 0 || line.channel != "mjpeg" || line.level < 6) {
      continue;
    }
    lines += std::to_string(line.level) + " " + line.text + "\n";
    if (line.text.rfind("Read ", 0) == 0) break;
  }
  // The SOS line gives the offset of the scan's first length byte, in hex.
  EXPECT_EQ(lines,
            "6 Using simple jpeg decoder.\n7 DRI Marker.\n7   Restart interval:0\n7 DQT Marker.\n"
            "7 Marker ignored.\n7 SOF0 Marker.\n7   Header 16x16@8 num components:4\n"
            "8   Component 0 id=1 h1=2 v1=2 tq=0\n8   Component 1 id=2 h1=1 v1=1 tq=1\n"
            "8   Component 2 id=3 h1=1 v1=1 tq=1\n8   Component 3 id=4 h1=1 v1=1 tq=200\n"
            "7   MCUs: 1x1 total:1\n7 Marker ignored.\n7 DRI Marker.\n7   Restart interval:65285\n"
            "7 DHT Marker.\n7   DHT dc th=0\n7   DHT dc th=1\n7   DHT ac th=0\n7   DHT ac th=1\n"
            "7 Marker ignored.\n7 SOS Marker at 264.\n7 Read 0 bytes of entropy data.\n");
  EXPECT_EQ(decoder.restart_interval_, 65285);
  EXPECT_EQ(std::count(decoder.channels_[4].image_, decoder.channels_[4].image_ + 64, 0x80), 64);
}

// The default tables are loaded exactly when no DHT segment came, whatever insert_dht says; one
// of length 2, which defines nothing, rules them out all the same. They are the tables of ITU T.81
// K.3 to K.6, which libjpeg writes into every frame it encodes without optimised tables. The loop
// stops at the first SOS: a DHT segment redefining DC table 0 and a second scan, behind the first,
// change nothing.
TEST(MarkerLoopTest, HuffmanTablesUpToTheFirstScan) {
  const Bytes own = test::encodeTestFrame(64, 48, TJSAMP_420);
  const Bytes none = test::stripDHT(own);
  const Bytes empty = kSOI + segment(0xC4, {}) + Bytes(none.begin() + 2, none.end());
  const Bytes later = Bytes(own.begin(), own.end() - 2) +
                      segment(0xC4, Bytes{0x00, 1} + Bytes(15, 0) + Bytes{0x00}) +
                      Bytes{0xFF, 0xDA} + sos({{1, 0x00}}) + kEOI;
  SimpleJPEGDecoder defaults, nothing, reference;
  prepare(&defaults, {});
  test::Planes expected(64, 48);
  ASSERT_TRUE(decompress(&reference, own, &expected));
  EXPECT_TRUE(sameTables(reference, defaults));
  const std::pair<const Bytes*, const SimpleJPEGDecoder*> cases[] = {
      {&own, &reference}, {&none, &defaults}, {&empty, &nothing}, {&later, &reference}};
  for (const auto& c : cases) {
    for (bool insert_dht : {false, true}) {
      SCOPED_TRACE(testing::Message() << "case " << (&c - cases) << " insert_dht " << insert_dht);
      SimpleJPEGDecoder decoder;
      test::Planes planes(64, 48);
      LogCapture capture(/*mjpeg_level=*/7);
      EXPECT_EQ(decompress(&decoder, *c.first, &planes, insert_dht), c.second != &nothing);
      EXPECT_EQ(capture.contains("mjpeg", "Parsing default DHT"), c.second == &defaults);
      EXPECT_NE(decoder.dht_seen_, c.second == &defaults);
      EXPECT_EQ(decoder.mcu_blocks_.size(), 6u);  // the scan was reached in every case
      EXPECT_TRUE(sameTables(decoder, *c.second));
      EXPECT_EQ(planes == expected, c.second != &nothing);
    }
  }
}

// ---- Frame header ---------------------------------------------------------------------------

// Headers that pass, the grid they give and the planes that allocateImages makes of it.
TEST(FrameHeaderTest, AcceptedHeadersAndTheirGrid) {
  // Width and height, components, MCUs across and down, stride x height of each plane in order.
  const std::tuple<int, int, Comps, int, int, std::vector<std::pair<int, int>>> cases[] = {
      {1920, 1080, k420, 120, 68, {{1920, 1088}, {960, 544}, {960, 544}}},
      {100, 75, k444, 13, 10, {{104, 80}, {104, 80}, {104, 80}}},
      {0, 480, k420, 0, 30, {{0, 480}, {0, 240}, {0, 240}}},
      {32, 32, {{1, 2, 2, 0}, {2, 2, 2, 0}, {3, 1, 2, 0}}, 2, 2, {{32, 32}, {32, 32}, {16, 32}}},
      {160, 8, {{1, 10, 1, 0}}, 2, 1, {{160, 8}}},                       // nb limits the sum
      {16, 16, {{1, 1, 1, 0}, {2, 0, 3, 0}}, 2, 1, {{16, 8}, {0, 24}}},  // a factor of 0
      {16, 16, {{0, 1, 1, 0}, {0, 2, 2, 3}}, 1, 1, {{16, 16}}},          // id 0 named twice
  };
  for (const auto& [width, height, comps, mcus_x, mcus_y, planes] : cases) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    SimpleJPEGDecoder decoder;
    ASSERT_TRUE(parse(&decoder, kSOF0, withLength(sof0(width, height, comps, 12))));
    EXPECT_EQ(std::make_pair(decoder.mcus_x_, decoder.mcus_y_), std::make_pair(mcus_x, mcus_y));
    decoder.allocateImages();
    for (size_t i = 0; i < planes.size(); ++i) {
      const Comp& comp = comps[comps.size() - planes.size() + i];  // the later one stands
      const Channel& channel = decoder.channels_[comp.id];
      EXPECT_EQ(channel.stride_, planes[i].first) << "slot " << comp.id;
      EXPECT_EQ(channel.height_, planes[i].second) << "slot " << comp.id;
    }
    // Named slots only get planes.
    EXPECT_EQ(std::count_if(decoder.channels_, decoder.channels_ + kMaxComponents,
                            [](const Channel& channel) { return channel.image_; }),
              planes.size());
  }
}

// ---- Quantisation tables --------------------------------------------------------------------

// The AAN factors and the scaled steps of one table, among several in one segment.
TEST(QuantizationTest, StepsAreScaledInZigzagOrder) {
  // The AAN factors: round(2^14 s(r) s(c)), s(0) = 1, s(k) = sqrt(2) cos(k pi / 16).
  const double pi = std::acos(-1.0);
  auto s = [&](int k) { return k == 0 ? 1.0 : std::sqrt(2.0) * std::cos(k * pi / 16); };
  for (int n = 0; n < 64; ++n) {
    EXPECT_EQ(kAANScales[n], std::lround(16384 * s(n / 8) * s(n % 8))) << n;
  }
  Bytes steps(64);
  for (int k = 0; k < 64; ++k) steps[k] = static_cast<uint8_t>((k * 37 + 11) % 256);
  // DC is 4q; zigzag 4 (natural 9, factor 31521) holds the largest entry there can be; zigzag
  // 60 (factor 3552) gives 55.5, rounded up; a step of 1 at zigzag 63 (factor 1247) gives 0.
  steps[0] = steps[4] = 255, steps[60] = 64, steps[63] = 1, steps[9] = 0;
  // Four tables in one segment (Lq 262), these steps the second; the bytes behind it left alone.
  SimpleJPEGDecoder decoder;
  const Bytes bytes = withLength(dqt(3, 1) + dqt(2, steps) + dqt(1, 3) + dqt(0, 4)) + kEOI;
  size_t position = 0;
  ASSERT_TRUE(parse(&decoder, kDQT, bytes, &position));
  EXPECT_EQ(position, bytes.size() - 2);
  const QuantizationTable* tables = decoder.quantization_tables_;
  const int16_t* v = tables[2].values_;
  for (int k = 64; k < 128; ++k) EXPECT_EQ(v[k], 0) << k;
  EXPECT_EQ(std::make_tuple(v[0], v[4], v[60], v[63], v[9]), std::make_tuple(1020, 1962, 56, 0, 0));
  EXPECT_EQ(std::make_tuple(tables[3].values_[0], tables[1].values_[0], tables[0].values_[0]),
            std::make_tuple(4, 12, 16));
  // A short table behind a complete one: refused, and the complete one (steps 50) stands.
  EXPECT_EQ(checksOf(&decoder, kDQT, withLength(dqt(3, 50) + Bytes(30, 1))), Checks{"len >= 0x40"});
  EXPECT_EQ(tables[3].values_[0], 200);
}

// ---- Scan header ----------------------------------------------------------------------------

// Blocks in stream order, each with its quantisation and Huffman tables; td and ta differ per
// component, as an encoder's 0x00 and 0x11 would not show them swapped. (Where a block lands in
// its plane shows in every decoded frame; the walk over the grid: the kernel's test.)
TEST(ScanHeaderTest, BlockOrderAndRecords) {
  const std::pair<Comps, std::string> cases[] = {
      {k420, "100 110 101 111 200 300"}, {k422, "100 110 200 300"}, {k444, "100 200 300"}};
  const int tables[4] = {0, 0x01, 0x10, 0x11};  // Td/Ta byte of each component id
  for (const auto& c : cases) {
    SCOPED_TRACE(c.second);
    SimpleJPEGDecoder decoder;
    prepare(&decoder, c.first);
    ASSERT_TRUE(parse(&decoder, kSOS, sos({{1, tables[1]}, {2, tables[2]}, {3, tables[3]}})));
    EXPECT_EQ(blocksOf(decoder), c.second);
    for (const MCUBlock& b : decoder.mcu_blocks_) {
      const int t = tables[b.component_];
      EXPECT_EQ(b.quant_table_, decoder.quantization_tables_[b.component_ == 1 ? 0 : 1].values_);
      EXPECT_EQ(b.dc_table_, decoder.dc_huffman_tables_[t >> 4]->entries_.data());
      EXPECT_EQ(b.ac_table_, decoder.ac_huffman_tables_[t & 15]->entries_.data());
    }
  }
}

// The scan header's checks in order, with the blocks built when one fires, and odd scans that
// pass. Sizes are refused before planes are allocated: a plane must fit an int32 (65535x65535
// needs 4 GiB); frames over 32 MiB need a sixth of a byte of input per block, smaller ones pass
// without entropy data, to be concealed. 6144x6144 is 36 MiB, 589824 blocks: 98304 bytes must
// remain behind the pairs (Ss, Se, Ah/Al count); 5792x5792 (724 x 724 blocks) is below 32 MiB.
TEST(ScanHeaderTest, RefusalsAndOddScans) {
  const std::string ns = "len == 1 + ns * 2 + 3 && ns <= 4",
                    not_named = "header_.components_[cs].component_id_ >= 0",
                    no_blocks = "!mcu_blocks_.empty()",
                    no_dqt = "quantization_tables_[comp.tq_].valid_", c0 = "input->consumeUint8(0)";
  const std::string luma = "100 110 101 111", all = luma + " 200 300";
  Bytes ns_two = sos(kScan3);
  ns_two[2] = 2;  // with room for three pairs
  const Pairs two = {{1, 0}, {2, 0}};
  const std::string plane = "plane_bytes <= kMaxPlaneBytes";
  const std::string frame =
      "frame_bytes <= kLargeFrameBytes || input->getRemainingBytes() >= min_entropy_bytes";
  const Bytes td4 = sos({{1, 0x40}});
  const size_t needed = 589824 / 6 - 3;
  // Components ({}: no header), scan header from its length on, failed check or "", blocks, size.
  const std::tuple<Comps, Bytes, std::string, std::string, int> cases[] = {
      {k420, {0x00, 0x08, 1, 1, 0, 0, 63}, "input->getLength16(&len)", "", 16},
      {k420, {0x00, 0x05, 1, 1, 0}, "len >= 4", "", 16},
      {k420, ns_two, ns, "", 16},
      {k420, sos(kScan3 + two), ns, "", 16},  // ns 5
      {k420, sos({{1, 0x04}}), "ta < 4", "", 16},
      {k420, sos({{16, 0x00}}), "cs < kMaxComponents", "", 16},
      {k420, sos({{1, 0}, {5, 0}}), not_named, luma, 16},  // earlier pairs' blocks stay
      {{}, sos({{1, 0}}), not_named, "", 16},              // no frame header
      {{{1, 1, 1, 0}, {9, 1, 1, 0}}, sos({{1, 0}, {9, 0}}), "cs < 8", "100", 16},
      {{{1, 1, 1, 0}, {2, 1, 1, 4}}, sos(two), "comp.tq_ < 4", "100", 16},
      {{{1, 1, 1, 0}, {2, 1, 1, 3}}, sos(two), no_dqt, "100", 16},
      {k420, sos(kScan3, 1), c0, all, 16},
      {k420, sos(kScan3, 0, 0), "input->consumeUint8(63)", all, 16},
      {k420, sos(kScan3, 0, 63, 0x10), c0, all, 16},
      // No block per MCU: the kernel would have nothing to walk.
      {k420, sos({}), no_blocks, "", 16},
      {{{1, 0, 1, 0}, {2, 1, 0, 0}}, sos(two), no_blocks, "", 16},
      // Accepted: Huffman tables that no DHT defined (all empty, the kernel fails on them); a
      // selector twice; one component of 2x2 on the frame's grid; cs 9 with a factor of 0; id 0.
      {k420, sos({{1, 0x23}, {2, 0x32}}), "", luma + " 200", 16},
      {k420, sos({{2, 0x11}, {1, 0}, {2, 0x11}}), "", "200 " + luma + " 200", 16},
      {k420, sos({{1, 0}}), "", luma, 16},
      {{{1, 1, 1, 0}, {9, 0, 1, 0}}, sos({{9, 0}, {1, 0}}), "", "100", 16},
      {{{0, 1, 2, 0}}, sos({{0, 0}}), "", "0 1", 16},
      {kOne, td4 + Bytes(1 << 16, 0), plane, "", 65535},
      {kOne, td4 + Bytes(needed - 1, 0), frame, "", 6144},
      {kOne, td4 + Bytes(needed, 0), "td < 4", "", 6144},
      {kOne, td4, "td < 4", "", 5792},
  };
  const std::string before_planes[] = {"input->getLength16(&len)", "len >= 4", ns, plane, frame};
  for (const auto& [comps, bytes, check, blocks, size] : cases) {
    SCOPED_TRACE(::testing::PrintToString(bytes));
    SimpleJPEGDecoder decoder;
    prepare(&decoder, comps, size, size);
    EXPECT_EQ(checksOf(&decoder, kSOS, bytes, check.empty()),
              check.empty() ? Checks{} : Checks{check});
    EXPECT_EQ(blocksOf(decoder), blocks);
    const bool early = std::count(std::begin(before_planes), std::end(before_planes), check);
    const bool has_one = !comps.empty() && comps[0].id == 1;
    EXPECT_EQ(decoder.channels_[1].image_ != nullptr, has_one && !early);  // allocated?
  }
}

// ---- The frame's verdict --------------------------------------------------------------------

// A 4:4:4 frame with one-bit DC and end-of-block codes and a restart marker behind every MCU row;
// the first `good_rows` rows carry two bits per block, the others are empty and fail.
Bytes sparseFrame(int width, int height, int good_rows) {
  const int mcus_x = (width + 7) / 8, rows = (height + 7) / 8;
  const Bytes one_code = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00};
  Bytes frame = kSOI + segment(0xDB, dqt(0)) + segment(0xC4, Bytes{0x00} + one_code) +
                segment(0xC4, Bytes{0x10} + one_code) +
                segment(0xC0, sof0(width, height, {{1, 1, 1, 0}, {2, 1, 1, 0}, {3, 1, 1, 0}})) +
                segment(0xDD, be16(mcus_x)) + Bytes{0xFF, 0xDA} + sos({{1, 0}, {2, 0}, {3, 0}});
  for (int row = 0; row < rows; ++row) {
    if (row < good_rows) frame = frame + Bytes((mcus_x * 3 * 2 + 7) / 8, 0);
    frame = frame + of({0xFF, 0xD0 + row % 8});
  }
  return frame + kEOI;
}

// More than 80% of the MCUs must decode: 9 of 10, and the one of a frame of one. A frame of height
// 0 has no MCU: the block list is built, no entropy data read (there are two bytes), 0 of 0 fail.
TEST(VerdictTest, StrictlyMoreThan80Percent) {
  Bytes no_mcus = sparseFrame(8, 0, 0);
  no_mcus.insert(no_mcus.end() - 2, {0x12, 0x34});
  // MCUs (one per row), bad ones among them, the verdict.
  const std::tuple<int, int, bool> cases[] = {
      {10, 1, true}, {10, 2, false}, {1, 0, true}, {0, 0, false}};
  for (const auto& [mcus, bad_mcus, ok] : cases) {
    SCOPED_TRACE(std::to_string(bad_mcus) + " of " + std::to_string(mcus) + " bad");
    SimpleJPEGDecoder decoder;
    test::Planes planes(8, 8 * mcus);
    LogCapture capture(/*mjpeg_level=*/7);
    EXPECT_EQ(
        decompress(&decoder, mcus ? sparseFrame(8, 8 * mcus, mcus - bad_mcus) : no_mcus, &planes),
        ok);
    EXPECT_EQ(std::make_tuple(decoder.total_mcus_, decoder.valid_mcus_, decoder.mcu_blocks_.size()),
              std::make_tuple(mcus, mcus - bad_mcus, size_t{3}));
    EXPECT_EQ(capture.contains("mjpeg", "Read 0 bytes of entropy data."), mcus == 0);
    EXPECT_TRUE(capture.jpegChecks().empty());
  }
}

// The input bound of large frames refuses no frame that could pass: 36.8 MB of planes, the first
// 360 of 438 MCU rows with two bits a block: 82% of the MCUs, from a fifth of a byte per block.
TEST(VerdictTest, LargeSparseFrameWithinTheInputBound) {
  const Bytes frame = sparseFrame(3504, 3504, 360);
  ASSERT_LT(frame.size(), size_t{438} * 438 * 3 / 4);  // below a quarter of a byte per block
  SimpleJPEGDecoder decoder;
  test::Planes planes(3504, 3504);
  EXPECT_TRUE(decompress(&decoder, frame, &planes));
  EXPECT_EQ(decoder.valid_mcus_, 360 * 438);
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
