// SimpleJPEGDecoder from SOI to the entropy data: the marker loop, the frame header and its MCU
// grid, quantisation tables, the restart interval, the scan header and the block list.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
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

// ---- Building segments ----------------------------------------------------------------------

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The length field (counting itself) and the payload: what a parser sees behind its marker.
Bytes withLength(const Bytes& payload) {
  const size_t length = payload.size() + 2;
  return Bytes{static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)} + payload;
}

Bytes segment(uint8_t marker, const Bytes& payload) {
  return Bytes{0xFF, marker} + withLength(payload);
}

const Bytes kSOI = {0xFF, 0xD8};
const Bytes kEOI = {0xFF, 0xD9};

struct Comp {
  int id, h, v, tq;
};

Bytes sof0(int width, int height, const std::vector<Comp>& comps, int precision = 8) {
  Bytes out = {static_cast<uint8_t>(precision), static_cast<uint8_t>(height >> 8),
               static_cast<uint8_t>(height),    static_cast<uint8_t>(width >> 8),
               static_cast<uint8_t>(width),     static_cast<uint8_t>(comps.size())};
  for (const Comp& c : comps) {
    out.push_back(static_cast<uint8_t>(c.id));
    out.push_back(static_cast<uint8_t>(c.h << 4 | c.v));
    out.push_back(static_cast<uint8_t>(c.tq));
  }
  return out;
}

Bytes dqt(uint8_t pq_tq, const Bytes& steps) {
  Bytes out = {pq_tq};
  return out + steps;
}

Bytes dqt(uint8_t tq, uint8_t step = 1) { return dqt(tq, Bytes(64, step)); }

// Scan header payload: (selector, Td/Ta byte) pairs, then Ss, Se and Ah/Al.
Bytes sos(const std::vector<std::pair<int, int>>& pairs, int ss = 0, int se = 63, int ahal = 0) {
  Bytes out = {static_cast<uint8_t>(pairs.size())};
  for (const auto& p : pairs) {
    out.push_back(static_cast<uint8_t>(p.first));
    out.push_back(static_cast<uint8_t>(p.second));
  }
  return out +
         Bytes{static_cast<uint8_t>(ss), static_cast<uint8_t>(se), static_cast<uint8_t>(ahal)};
}

Bytes defaultDHT() { return Bytes(kMJPGDHTSeg, kMJPGDHTSeg + sizeof(kMJPGDHTSeg)); }

const std::vector<Comp> k420 = {{1, 2, 2, 0}, {2, 1, 1, 1}, {3, 1, 1, 1}};
const std::vector<std::pair<int, int>> kScan3 = {{1, 0x00}, {2, 0x11}, {3, 0x11}};

// Runs one parser over `bytes`, which start at the segment's length field.
template <typename Parse>
bool parse(SimpleJPEGDecoder* decoder, Parse parser, const Bytes& bytes,
           size_t* position = nullptr) {
  JPEGBuffer input(bytes.data(), bytes.size());
  const bool ok = (decoder->*parser)(&input);
  if (position) *position = input.position();
  return ok;
}

// A decoder that has seen a frame header, quantisation tables 0 and 1 and the default
// Huffman tables, as the marker loop leaves it at the SOS marker.
void prepare(SimpleJPEGDecoder* decoder, const Bytes& frame_header, bool tables = true) {
  if (!frame_header.empty()) {
    ASSERT_TRUE(parse(decoder, &SimpleJPEGDecoder::parseSOF0, withLength(frame_header)));
  }
  if (tables) {
    ASSERT_TRUE(parse(decoder, &SimpleJPEGDecoder::parseDQT, withLength(dqt(0) + dqt(1))));
  }
  JPEGBuffer dht(kMJPGDHTSeg + 2, 418);
  ASSERT_TRUE(decoder->parseDHT(&dht));
}

bool untouched(const test::Planes& planes) {
  for (const auto* plane : {&planes.y, &planes.u, &planes.v}) {
    if (std::any_of(plane->begin(), plane->end(), [](uint8_t b) { return b != 0xA5; })) {
      return false;
    }
  }
  return true;
}

bool decompress(SimpleJPEGDecoder* decoder, const Bytes& frame, int width, int height,
                test::Planes* planes) {
  return decoder->decompress(frame.data(), frame.size(), width, height, false, planes->y.data(),
                             planes->y_stride, planes->u.data(), planes->uv_stride,
                             planes->v.data(), planes->uv_stride);
}

// ---- Marker loop ----------------------------------------------------------------------------

struct LoopCase {
  const char* name;
  Bytes frame;
  Checks checks;
  std::string unhandled;  // the level-3 line, if any
};

TEST(MarkerLoopTest, FramesThatFailBeforeTheScan) {
  const Bytes tables = segment(0xDB, dqt(0));
  const Bytes header = segment(0xC0, sof0(16, 16, k420));
  const LoopCase cases[] = {
      {"empty", {}, {"input.consumeUint8(0xff) && input.consumeUint8(0xd8)"}, ""},
      {"one byte", {0xFF}, {"input.consumeUint8(0xff) && input.consumeUint8(0xd8)"}, ""},
      {"FF D9", {0xFF, 0xD9}, {"input.consumeUint8(0xff) && input.consumeUint8(0xd8)"}, ""},
      {"no FF first",
       {0xD8, 0xFF, 0xD8},
       {"input.consumeUint8(0xff) && input.consumeUint8(0xd8)"},
       ""},
      {"SOI alone", kSOI, {"input.consumeUint8(0xff)"}, ""},
      {"ends after FF", kSOI + Bytes{0xFF}, {"input.getUint8(&marker)"}, ""},
      {"ends before SOS", kSOI + tables + header, {"input.consumeUint8(0xff)"}, ""},
      {"garbage between segments",
       kSOI + tables + Bytes{0x00} + header,
       {"input.consumeUint8(0xff)"},
       ""},
      {"FF FF between segments",
       kSOI + tables + Bytes{0xFF} + header,
       {},
       "Unhandled JPEG marker ff"},
      {"marker code 00", kSOI + Bytes{0xFF, 0x00} + header, {}, "Unhandled JPEG marker 00"},
      {"EOI behind the tables", kSOI + tables + kEOI, {}, "Unhandled JPEG marker d9"},
      {"SOF2", kSOI + tables + segment(0xC2, sof0(16, 16, k420)), {}, "Unhandled JPEG marker c2"},
      {"SOF1", kSOI + segment(0xC1, sof0(16, 16, k420)), {}, "Unhandled JPEG marker c1"},
      {"SOF9", kSOI + segment(0xC9, sof0(16, 16, k420)), {}, "Unhandled JPEG marker c9"},
      {"DAC", kSOI + segment(0xCC, {0x00, 0x00}), {}, "Unhandled JPEG marker cc"},
      {"RST0", kSOI + Bytes{0xFF, 0xD0}, {}, "Unhandled JPEG marker d0"},
      {"second SOI", kSOI + kSOI, {}, "Unhandled JPEG marker d8"},
      {"DNL", kSOI + segment(0xDC, {0x00, 0x10}), {}, "Unhandled JPEG marker dc"},
      {"bad SOF0", kSOI + segment(0xC0, {8, 0, 16}), {"len >= 6", "parseSOF0(&input)"}, ""},
      {"bad DHT", kSOI + segment(0xC4, {0x20}), {"dht + 17 <= limit", "parseDHT(&input)"}, ""},
      {"bad DQT", kSOI + segment(0xDB, dqt(0x10)), {"pq == 0 && tq < 4", "parseDQT(&input)"}, ""},
      {"bad DRI", kSOI + segment(0xDD, {0, 1, 2}), {"len == 2", "parseDRI(&input)"}, ""},
      {"short APP0",
       kSOI + Bytes{0xFF, 0xE0, 0x00, 0x10, 'J', 'F'},
       {"input->getLength16(&len)", "parseAndIgnoreMarker(&input)"},
       ""},
      {"short APP15",
       kSOI + Bytes{0xFF, 0xEF, 0x00},
       {"input->getLength16(&len)", "parseAndIgnoreMarker(&input)"},
       ""},
      {"short COM",
       kSOI + Bytes{0xFF, 0xFE, 0x00, 0x01},
       {"input->getLength16(&len)", "parseAndIgnoreMarker(&input)"},
       ""},
      {"bad SOS",
       kSOI + tables + header + Bytes{0xFF, 0xDA, 0x00, 0x04, 0x01, 0x00},
       {"len >= 4", "parseSOS(&input)"},
       ""},
      {"SOS without frame header",
       kSOI + tables + segment(0xDA, sos({{1, 0}})),
       {"header_.components_[cs].component_id_ >= 0", "parseSOS(&input)"},
       ""},
  };
  for (const LoopCase& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    test::Planes planes(16, 16);
    LogCapture capture(/*mjpeg_level=*/3);
    EXPECT_FALSE(decompress(&decoder, c.frame, 16, 16, &planes));
    EXPECT_EQ(capture.jpegChecks(), c.checks);
    EXPECT_EQ(capture.texts(3, "mjpeg"), c.unhandled.empty() ? Checks{} : Checks{c.unhandled});
    EXPECT_TRUE(untouched(planes));
  }
}

TEST(MarkerLoopTest, SilentWhenLevel2IsOff) {
  SimpleJPEGDecoder decoder;
  test::Planes planes(16, 16);
  LogCapture capture(/*mjpeg_level=*/0, /*check_level=*/0);
  EXPECT_FALSE(decompress(&decoder, kSOI + segment(0xC0, {8}), 16, 16, &planes));
  EXPECT_TRUE(capture.lines().empty());
}

// Segments in any order, APPn and COM skipped unread, and nothing behind the first scan read.
TEST(MarkerLoopTest, SegmentsInAnyOrderUpToTheScan) {
  const Bytes before_scan = kSOI + segment(0xDB, dqt(0) + dqt(1)) +
                            segment(0xE0, {'A', 'V', 'I', '1'}) +
                            segment(0xC0, sof0(16, 16, k420)) + segment(0xFE, {0xFF, 0xD9}) +
                            segment(0xDD, {0, 5}) + defaultDHT() + segment(0xEF, {});
  const Bytes frame = before_scan + segment(0xDA, sos(kScan3)) + kEOI;
  SimpleJPEGDecoder decoder;
  test::Planes planes(16, 16);
  LogCapture capture(/*mjpeg_level=*/7);
  decompress(&decoder, frame, 16, 16, &planes);

  std::vector<std::string> lines;
  for (const test::LogLine& line : capture.lines()) {
    if (line.channel == "mjpeg" && line.level >= 6) lines.push_back(line.text);
    if (line.text.rfind("Read ", 0) == 0) break;
  }
  char sos_line[32];
  std::snprintf(sos_line, sizeof(sos_line), "SOS Marker at %zx.", before_scan.size() + 2);
  const std::vector<std::string> expected = {"Using simple jpeg decoder.",
                                             "DQT Marker.",
                                             "Marker ignored.",
                                             "SOF0 Marker.",
                                             "  Header 16x16@8 num components:3",
                                             "  MCUs: 1x1 total:1",
                                             "Marker ignored.",
                                             "DRI Marker.",
                                             "  Restart interval:5",
                                             "DHT Marker.",
                                             "  DHT dc th=0",
                                             "  DHT dc th=1",
                                             "  DHT ac th=0",
                                             "  DHT ac th=1",
                                             "Marker ignored.",
                                             sos_line,
                                             "Read 0 bytes of entropy data."};
  EXPECT_EQ(lines, expected);
  EXPECT_TRUE(decoder.dht_seen_);
  EXPECT_EQ(decoder.restart_interval_, 5);
  EXPECT_EQ(decoder.mcu_blocks_.size(), 6u);
}

TEST(MarkerLoopTest, DefaultTablesOnlyWithoutAnyDHT) {
  const Bytes frame = test::encodeTestFrame(64, 48, TJSAMP_420);
  const Bytes stripped = test::stripDHT(frame);
  SimpleJPEGDecoder reference;
  prepare(&reference, {}, false);
  struct Case {
    const char* name;
    Bytes frame;
    bool defaults;
  } cases[] = {
      {"own tables", frame, false},
      {"no DHT", stripped, true},
      {"empty DHT", kSOI + segment(0xC4, {}) + Bytes(stripped.begin() + 2, stripped.end()), false},
  };
  for (const Case& c : cases) {
    for (bool insert_dht : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (insert_dht ? " insert_dht" : ""));
      SimpleJPEGDecoder decoder;
      test::Planes planes(64, 48);
      LogCapture capture(/*mjpeg_level=*/7);
      decoder.decompress(c.frame.data(), c.frame.size(), 64, 48, insert_dht, planes.y.data(),
                         planes.y_stride, planes.u.data(), planes.uv_stride, planes.v.data(),
                         planes.uv_stride);
      const Checks lines = capture.texts(7, "mjpeg");
      EXPECT_EQ(std::count(lines.begin(), lines.end(), "Parsing default DHT"), c.defaults ? 1 : 0);
      EXPECT_TRUE(decoder.dht_seen_ != c.defaults);
      ASSERT_EQ(decoder.mcu_blocks_.size(), 6u);  // the scan was reached in every case
      if (c.defaults) {
        for (int i = 0; i < 4; ++i) {
          EXPECT_EQ(decoder.dc_huffman_tables_[i]->entries_,
                    reference.dc_huffman_tables_[i]->entries_);
          EXPECT_EQ(decoder.ac_huffman_tables_[i]->entries_,
                    reference.ac_huffman_tables_[i]->entries_);
        }
      }
      if (std::string(c.name) == "empty DHT") {
        // Nothing was defined and no defaults were loaded: the tables are all empty, and
        // the scan header passes all the same.
        for (int i = 0; i < 4; ++i) {
          EXPECT_EQ(std::count(decoder.dc_huffman_tables_[i]->entries_.begin(),
                               decoder.dc_huffman_tables_[i]->entries_.end(), 0u),
                    512);
        }
      }
    }
  }
}

// The loop stops at the first SOS marker: a DHT segment or a second scan behind the first
// scan's entropy data changes nothing.
TEST(MarkerLoopTest, NothingBehindTheFirstScanIsParsed) {
  const Bytes frame = test::encodeTestFrame(48, 32, TJSAMP_422);
  const Bytes redefinition = segment(0xC4, Bytes{0x00, 1} + Bytes(15, 0) + Bytes{0x00});
  const Bytes body(frame.begin(), frame.end() - 2);
  const Bytes later = body + redefinition + segment(0xDA, sos({{1, 0x00}})) + kEOI;
  SimpleJPEGDecoder a, b;
  test::Planes planes_a(48, 32), planes_b(48, 32);
  LogCapture capture(/*mjpeg_level=*/7);
  decompress(&a, frame, 48, 32, &planes_a);
  const Checks lines_a = capture.texts(7, "mjpeg");
  capture.clear();
  decompress(&b, later, 48, 32, &planes_b);
  const Checks lines_b = capture.texts(7, "mjpeg");
  auto count = [](const Checks& lines, const std::string& prefix) {
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
  };
  EXPECT_EQ(count(lines_a, "DHT Marker."), count(lines_b, "DHT Marker."));
  EXPECT_EQ(count(lines_a, "SOS Marker at "), 1);
  EXPECT_EQ(count(lines_b, "SOS Marker at "), 1);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(a.dc_huffman_tables_[i]->entries_, b.dc_huffman_tables_[i]->entries_);
    EXPECT_EQ(a.ac_huffman_tables_[i]->entries_, b.ac_huffman_tables_[i]->entries_);
  }
  EXPECT_EQ(a.mcu_blocks_.size(), b.mcu_blocks_.size());
}

// ---- Frame header ---------------------------------------------------------------------------

struct SOFCase {
  const char* name;
  Bytes payload;  // without the length field, unless `raw`
  Checks checks;
  bool raw = false;
};

TEST(FrameHeaderTest, Refusals) {
  Bytes nf_zero = sof0(16, 16, {});
  Bytes nf_two_len_three = sof0(16, 16, {{1, 1, 1, 0}, {2, 1, 1, 0}, {3, 1, 1, 0}});
  nf_two_len_three[5] = 2;
  Bytes nf_five =
      sof0(16, 16, {{1, 1, 1, 0}, {2, 1, 1, 0}, {3, 1, 1, 0}, {4, 1, 1, 0}, {5, 1, 1, 0}});
  const SOFCase cases[] = {
      {"no length", {0x00}, {"input->getLength16(&len)"}, true},
      {"length 1", {0x00, 0x01, 8, 0, 16, 0, 16, 0}, {"input->getLength16(&len)"}, true},
      {"length past the end",
       {0x00, 0x0B, 8, 0, 16, 0, 16, 1, 1, 0x11},
       {"input->getLength16(&len)"},
       true},
      {"len 5", {8, 0, 16, 0, 16}, {"len >= 6"}},
      {"Nf 2 with room for 3",
       nf_two_len_three,
       {"len == 6 + 3 * num_components && num_components <= 4"}},
      {"Nf 5", nf_five, {"len == 6 + 3 * num_components && num_components <= 4"}},
      {"Nf 0", nf_zero, {"num_components > 0"}},
      {"11 blocks", sof0(16, 16, {{1, 2, 2, 0}, {2, 2, 2, 0}, {3, 1, 3, 0}}), {"nb <= 10"}},
      {"11 blocks in one component", sof0(16, 16, {{1, 11, 1, 0}}), {"nb <= 10"}},
      {"id 16", sof0(16, 16, {{1, 1, 1, 0}, {16, 1, 1, 0}}), {"component_id < kMaxComponents"}},
      {"id 255", sof0(16, 16, {{255, 1, 1, 0}}), {"component_id < kMaxComponents"}},
  };
  for (const SOFCase& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    EXPECT_FALSE(
        parse(&decoder, &SimpleJPEGDecoder::parseSOF0, c.raw ? c.payload : withLength(c.payload)));
    EXPECT_EQ(capture.jpegChecks(), c.checks);
  }
}

TEST(FrameHeaderTest, HeaderLineComesBeforeTheComponentCountCheck) {
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/8);
  EXPECT_FALSE(parse(&decoder, &SimpleJPEGDecoder::parseSOF0, withLength(sof0(33, 17, {}, 12))));
  EXPECT_EQ(capture.texts(7, "mjpeg"),
            (Checks{"SOF0 Marker.", "  Header 33x17@12 num components:0"}));
}

TEST(FrameHeaderTest, LogLines) {
  SimpleJPEGDecoder decoder;
  LogCapture capture(/*mjpeg_level=*/8);
  size_t position = 0;
  const Bytes bytes =
      withLength(sof0(640, 480, {{1, 2, 2, 0}, {2, 1, 1, 1}, {3, 1, 1, 200}})) + kEOI;
  ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseSOF0, bytes, &position));
  EXPECT_EQ(position, bytes.size() - 2);
  std::vector<std::string> lines;
  for (const test::LogLine& line : capture.lines()) {
    lines.push_back(std::to_string(line.level) + " " + line.text);
  }
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "7 SOF0 Marker.", "7   Header 640x480@8 num components:3",
                       "8   Component 0 id=1 h1=2 v1=2 tq=0", "8   Component 1 id=2 h1=1 v1=1 tq=1",
                       "8   Component 2 id=3 h1=1 v1=1 tq=200", "7   MCUs: 40x30 total:1200"}));
}

struct GridCase {
  const char* name;
  int width, height;
  std::vector<Comp> comps;
  int precision, mcus_x, mcus_y;
  std::vector<std::pair<int, int>> planes;  // stride x height of each named slot in order
};

// Headers that pass, and the grid and planes they give.
TEST(FrameHeaderTest, AcceptedHeadersAndTheirGrid) {
  const GridCase cases[] = {
      {"width 0", 0, 480, k420, 8, 0, 30, {{0, 480}, {0, 240}, {0, 240}}},
      {"height 0", 64, 0, k420, 8, 4, 0, {{64, 0}, {32, 0}, {32, 0}}},
      {"precision 12", 16, 16, {{1, 1, 1, 0}}, 12, 2, 2, {{16, 16}}},
      {"ten blocks",
       32,
       32,
       {{1, 2, 2, 0}, {2, 2, 2, 0}, {3, 1, 2, 0}},
       8,
       2,
       2,
       {{32, 32}, {32, 32}, {16, 32}}},
      {"factors 10x1", 160, 8, {{1, 10, 1, 0}}, 8, 2, 1, {{160, 8}}},
      {"a factor of 0", 16, 16, {{1, 1, 1, 0}, {2, 0, 3, 0}}, 8, 2, 1, {{16, 8}, {0, 24}}},
      {"id 0 and id 15", 16, 8, {{0, 1, 1, 0}, {15, 2, 1, 0}}, 8, 1, 1, {{8, 8}, {16, 8}}},
      {"1x1 pixels, 2x2 luma", 1, 1, k420, 8, 1, 1, {{16, 16}, {8, 8}, {8, 8}}},
      {"65535 wide", 65535, 8, {{1, 1, 1, 0}}, 8, 8192, 1, {{65536, 8}}},
  };
  for (const GridCase& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseSOF0,
                      withLength(sof0(c.width, c.height, c.comps, c.precision))));
    EXPECT_TRUE(capture.jpegChecks().empty());
    EXPECT_EQ(decoder.header_.precision_, c.precision);
    EXPECT_EQ(decoder.mcus_x_, c.mcus_x);
    EXPECT_EQ(decoder.mcus_y_, c.mcus_y);
    EXPECT_EQ(decoder.total_mcus_, c.mcus_x * c.mcus_y);
    decoder.allocateImages();
    for (size_t i = 0; i < c.comps.size(); ++i) {
      const Comp& comp = c.comps[i];
      const Channel& channel = decoder.channels_[comp.id];
      EXPECT_EQ(decoder.header_.components_[comp.id].component_id_, comp.id);
      EXPECT_NE(channel.image_, nullptr);
      EXPECT_EQ(channel.stride_, c.planes[i].first) << "slot " << comp.id;
      EXPECT_EQ(channel.height_, c.planes[i].second) << "slot " << comp.id;
      EXPECT_EQ(channel.mcu_width_, comp.h * 8);
      EXPECT_EQ(channel.mcu_row_size_, channel.stride_ * 8 * comp.v);
    }
    int named = 0;
    for (int slot = 0; slot < kMaxComponents; ++slot) {
      const bool has_plane = decoder.channels_[slot].image_ != nullptr;
      EXPECT_EQ(has_plane, decoder.header_.components_[slot].component_id_ >= 0) << slot;
      named += has_plane;
    }
    EXPECT_EQ(named, static_cast<int>(c.comps.size()));
  }
}

TEST(FrameHeaderTest, SameIdTwiceSharesASlotButCountsTwice) {
  SimpleJPEGDecoder decoder;
  LogCapture capture;
  // 3x3 + 1x1 = 10 blocks pass; the slot keeps the second one's values, the grid the first's.
  ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseSOF0,
                    withLength(sof0(48, 48, {{1, 3, 3, 0}, {1, 1, 1, 2}}))));
  EXPECT_EQ(decoder.header_.components_[1].h1_, 1);
  EXPECT_EQ(decoder.header_.components_[1].tq_, 2);
  EXPECT_EQ(decoder.mcus_x_, 2);
  EXPECT_FALSE(parse(&decoder, &SimpleJPEGDecoder::parseSOF0,
                     withLength(sof0(48, 48, {{1, 3, 3, 0}, {1, 1, 2, 0}}))));
  EXPECT_EQ(capture.jpegChecks(), Checks{"nb <= 10"});
}

TEST(FrameHeaderTest, SecondHeaderOverwritesWhatItNames) {
  SimpleJPEGDecoder decoder;
  ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseSOF0, withLength(sof0(640, 480, k420))));
  ASSERT_TRUE(
      parse(&decoder, &SimpleJPEGDecoder::parseSOF0, withLength(sof0(320, 240, {{1, 1, 1, 0}}))));
  EXPECT_EQ(decoder.header_.width_, 320);
  EXPECT_EQ(decoder.mcus_x_, 40);  // from the second header's factors alone
  EXPECT_EQ(decoder.mcus_y_, 30);
  EXPECT_EQ(decoder.header_.components_[2].component_id_, 2);  // still named
  decoder.allocateImages();
  EXPECT_EQ(decoder.channels_[1].stride_, 320);
  EXPECT_EQ(decoder.channels_[2].stride_, 320);
  EXPECT_EQ(decoder.channels_[3].height_, 240);
}

// The geometry of real frames, through the whole marker loop.
TEST(FrameHeaderTest, GeometryOfEncodedFrames) {
  struct Case {
    int width, height, subsampling;
    int mcus_x, mcus_y;
    int luma_w, luma_h, chroma_w, chroma_h;
  } cases[] = {
      {640, 480, TJSAMP_420, 40, 30, 640, 480, 320, 240},
      {1920, 1080, TJSAMP_420, 120, 68, 1920, 1088, 960, 544},
      {1280, 720, TJSAMP_422, 80, 90, 1280, 720, 640, 720},
      {100, 75, TJSAMP_444, 13, 10, 104, 80, 104, 80},
      {17, 17, TJSAMP_420, 2, 2, 32, 32, 16, 16},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
    const Bytes frame = test::encodeTestFrame(c.width, c.height, c.subsampling);
    SimpleJPEGDecoder decoder;
    test::Planes planes(c.width, c.height);
    LogCapture capture;
    decompress(&decoder, frame, c.width, c.height, &planes);
    EXPECT_EQ(decoder.header_.width_, c.width);
    EXPECT_EQ(decoder.header_.height_, c.height);
    EXPECT_EQ(decoder.mcus_x_, c.mcus_x);
    EXPECT_EQ(decoder.mcus_y_, c.mcus_y);
    EXPECT_EQ(decoder.total_mcus_, c.mcus_x * c.mcus_y);
    EXPECT_EQ(decoder.channels_[1].stride_, c.luma_w);
    EXPECT_EQ(decoder.channels_[1].height_, c.luma_h);
    for (int slot : {2, 3}) {
      EXPECT_EQ(decoder.channels_[slot].stride_, c.chroma_w);
      EXPECT_EQ(decoder.channels_[slot].height_, c.chroma_h);
    }
  }
}

// ---- Quantisation tables --------------------------------------------------------------------

TEST(QuantizationTest, AANTableFollowsItsFormula) {
  const double pi = std::acos(-1.0);
  auto s = [&](int k) { return k == 0 ? 1.0 : std::sqrt(2.0) * std::cos(k * pi / 16); };
  for (int r = 0; r < 8; ++r) {
    for (int c = 0; c < 8; ++c) {
      EXPECT_EQ(kAANScales[8 * r + c], std::lround(16384 * s(r) * s(c))) << r << "," << c;
      EXPECT_EQ(kAANScales[8 * r + c], kAANScales[8 * c + r]);
    }
  }
  EXPECT_EQ(std::vector<int32_t>(kAANScales, kAANScales + 8),
            (std::vector<int32_t>{16384, 22725, 21407, 19266, 16384, 12873, 8867, 4520}));
  EXPECT_EQ(*std::max_element(kAANScales, kAANScales + 64), 31521);
  EXPECT_EQ(kAANScales[9], 31521);
  EXPECT_EQ(*std::min_element(kAANScales, kAANScales + 64), 1247);
  EXPECT_EQ(kAANScales[63], 1247);
}

int16_t scaled(int q, int k) {
  return static_cast<int16_t>((q * kAANScales[kZigzagNatural[k]] + 2048) >> 12);
}

TEST(QuantizationTest, StepsAreScaledInZigzagOrder) {
  Bytes steps(64);
  for (int k = 0; k < 64; ++k) steps[k] = static_cast<uint8_t>((k * 37 + 11) % 256);
  SimpleJPEGDecoder decoder;
  ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseDQT, withLength(dqt(2, steps))));
  const QuantizationTable& table = decoder.quantization_tables_[2];
  EXPECT_TRUE(table.valid_);
  for (int k = 0; k < 64; ++k) EXPECT_EQ(table.values_[k], scaled(steps[k], k)) << k;
  for (int k = 64; k < 128; ++k) EXPECT_EQ(table.values_[k], 0) << k;
  EXPECT_FALSE(decoder.quantization_tables_[0].valid_);
}

TEST(QuantizationTest, ScalingEdges) {
  struct Case {
    const char* name;
    Bytes steps;
    int position;
    int16_t value;
  } cases[] = {
      {"all 255: the largest entry, natural index 9", Bytes(64, 255), 4, 1962},
      {"DC is 4q", Bytes(64, 1), 0, 4},
      {"DC is 4q", Bytes(64, 16), 0, 64},
      {"DC is 4q", Bytes(64, 255), 0, 1020},
      {"step 1 at factor 1247 scales to 0", Bytes(64, 1), 63, 0},
      {"step 2 at factor 1247 rounds up to 1", Bytes(64, 2), 63, 1},
      {"step 0", Bytes(64, 0), 9, 0},
      // 64 x 3552 = 55.5 x 4096: halves round up. Natural index 47 is zigzag position 60.
      {"a half rounds up", Bytes(64, 64), 60, 56},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseDQT, withLength(dqt(1, c.steps))));
    EXPECT_TRUE(decoder.quantization_tables_[1].valid_);
    EXPECT_EQ(decoder.quantization_tables_[1].values_[c.position], c.value);
  }
  SimpleJPEGDecoder decoder;
  ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseDQT, withLength(dqt(0, 255))));
  const int16_t* values = decoder.quantization_tables_[0].values_;
  EXPECT_EQ(*std::max_element(values, values + 64), 1962);
}

TEST(QuantizationTest, SeveralTablesInOneSegment) {
  for (int count : {2, 4}) {
    Bytes payload;
    for (int t = 0; t < count; ++t) payload = payload + dqt(static_cast<uint8_t>(3 - t), t + 1);
    const Bytes bytes = withLength(payload) + kEOI;
    ASSERT_EQ(bytes[0] << 8 | bytes[1], count == 2 ? 132 : 262);
    SimpleJPEGDecoder decoder;
    size_t position = 0;
    ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseDQT, bytes, &position));
    EXPECT_EQ(position, bytes.size() - 2);
    for (int t = 0; t < count; ++t) {
      EXPECT_TRUE(decoder.quantization_tables_[3 - t].valid_);
      EXPECT_EQ(decoder.quantization_tables_[3 - t].values_[0], 4 * (t + 1));
    }
  }
}

TEST(QuantizationTest, LaterTableReplacesEarlier) {
  SimpleJPEGDecoder decoder;
  ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseDQT, withLength(dqt(0, 50))));
  ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseDQT, withLength(dqt(0, 3))));
  EXPECT_EQ(decoder.quantization_tables_[0].values_[0], 12);
}

TEST(QuantizationTest, Refusals) {
  struct Case {
    const char* name;
    Bytes bytes;  // from the length field on
    Checks checks;
    bool table0_valid;
  } cases[] = {
      {"no length", {0x00}, {"input->getLength16(&len)"}, false},
      {"length past the end", Bytes{0x00, 0x44} + dqt(0), {"input->getLength16(&len)"}, false},
      {"no table, more bytes behind", Bytes{0x00, 0x02} + kEOI, {"len >= 0x40"}, false},
      {"no table at the end of the input", {0x00, 0x02}, {"input->getUint8(&header)"}, false},
      {"one table and 30 bytes", withLength(dqt(0) + Bytes(30, 1)), {"len >= 0x40"}, true},
      {"one step short", withLength(dqt(0, Bytes(63, 1))) + kEOI, {"len >= 0x40"}, false},
      {"16-bit steps", withLength(dqt(0x10, Bytes(128, 1))), {"pq == 0 && tq < 4"}, false},
      {"table 4", withLength(dqt(0x04)), {"pq == 0 && tq < 4"}, false},
      {"short with a bad header byte", withLength(dqt(0x14, Bytes(10, 1))), {"len >= 0x40"}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    EXPECT_FALSE(parse(&decoder, &SimpleJPEGDecoder::parseDQT, c.bytes));
    EXPECT_EQ(capture.jpegChecks(), c.checks);
    EXPECT_EQ(decoder.quantization_tables_[0].valid_, c.table0_valid);
  }
}

// ---- Restart interval -----------------------------------------------------------------------

TEST(RestartIntervalTest, Values) {
  for (int ri : {0, 1, 17, 256, 65535}) {
    SimpleJPEGDecoder decoder;
    LogCapture capture(/*mjpeg_level=*/7);
    size_t position = 0;
    const Bytes bytes = withLength({static_cast<uint8_t>(ri >> 8), static_cast<uint8_t>(ri)});
    ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseDRI, bytes, &position));
    EXPECT_EQ(position, 4u);
    EXPECT_EQ(decoder.restart_interval_, ri);
    EXPECT_EQ(capture.texts(7, "mjpeg"),
              (Checks{"DRI Marker.", "  Restart interval:" + std::to_string(ri)}));
  }
}

TEST(RestartIntervalTest, Refusals) {
  struct Case {
    Bytes bytes;
    Checks checks;
  } cases[] = {
      {{0x00}, {"input->getLength16(&len)"}},
      {{0x00, 0x05, 0, 1, 2}, {"len == 2"}},
      {{0x00, 0x02, 0, 1}, {"len == 2"}},
      {{0x00, 0x03, 0}, {"len == 2"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.bytes));
    SimpleJPEGDecoder decoder;
    LogCapture capture;
    EXPECT_FALSE(parse(&decoder, &SimpleJPEGDecoder::parseDRI, c.bytes));
    EXPECT_EQ(capture.jpegChecks(), c.checks);
    EXPECT_EQ(decoder.restart_interval_, -1);
  }
}

// ---- Scan header ----------------------------------------------------------------------------

struct Block {
  int component, x, y;
  bool operator==(const Block& o) const { return component == o.component && x == o.x && y == o.y; }
};

void PrintTo(const Block& b, std::ostream* os) {
  *os << "(" << b.component << ": " << b.x << "," << b.y << ")";
}

TEST(ScanHeaderTest, BlockOrderOfEncodedFrames) {
  struct Case {
    int subsampling;
    std::vector<Block> blocks;
  } cases[] = {
      {TJSAMP_420, {{1, 0, 0}, {1, 1, 0}, {1, 0, 1}, {1, 1, 1}, {2, 0, 0}, {3, 0, 0}}},
      {TJSAMP_422, {{1, 0, 0}, {1, 1, 0}, {2, 0, 0}, {3, 0, 0}}},
      {TJSAMP_444, {{1, 0, 0}, {2, 0, 0}, {3, 0, 0}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.subsampling);
    const Bytes frame = test::encodeTestFrame(64, 48, c.subsampling);
    SimpleJPEGDecoder decoder;
    test::Planes planes(64, 48);
    LogCapture capture;
    decompress(&decoder, frame, 64, 48, &planes);
    std::vector<Block> blocks;
    for (const MCUBlock& b : decoder.mcu_blocks_) {
      blocks.push_back({b.component_, b.x_, b.y_});
      const Channel& channel = decoder.channels_[b.component_];
      // libjpeg gives luma table 0 and chroma table 1, for quantisation and Huffman alike.
      const int t = b.component_ == 1 ? 0 : 1;
      EXPECT_EQ(b.quant_table_, decoder.quantization_tables_[t].values_);
      EXPECT_EQ(b.dc_table_, decoder.dc_huffman_tables_[t]->entries_.data());
      EXPECT_EQ(b.ac_table_, decoder.ac_huffman_tables_[t]->entries_.data());
      EXPECT_EQ(b.image_, channel.image_ + b.y_ * 8 * channel.stride_ + b.x_ * 8);
      EXPECT_EQ(b.stride_, channel.stride_);
      EXPECT_EQ(b.mcu_width_, channel.mcu_width_);
      EXPECT_EQ(b.mcu_row_size_, channel.mcu_row_size_);
    }
    EXPECT_EQ(blocks, c.blocks);
  }
}

// Where the kernel puts a block: image_ + mcu_x * mcu_width_ + mcu_y * mcu_row_size_.
TEST(ScanHeaderTest, DestinationArithmetic) {
  SimpleJPEGDecoder decoder;
  prepare(&decoder, sof0(640, 480, k420));
  ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseSOS, withLength(sos(kScan3))));
  ASSERT_EQ(decoder.mcu_blocks_.size(), 6u);
  const MCUBlock& luma = decoder.mcu_blocks_[3];  // block (1,1) of the first component
  const uint8_t* plane = decoder.channels_[1].image_;
  EXPECT_EQ(luma.stride_, 640);
  EXPECT_EQ(luma.mcu_width_, 16);
  EXPECT_EQ(luma.mcu_row_size_, 10240);
  EXPECT_EQ(luma.image_, plane + 5128);
  EXPECT_EQ(luma.image_ + 3 * luma.mcu_width_ + 2 * luma.mcu_row_size_, plane + 25656);
  EXPECT_EQ(25656 % 640, 56);
  EXPECT_EQ(25656 / 640, 40);
  const MCUBlock& chroma = decoder.mcu_blocks_[4];
  EXPECT_EQ(chroma.stride_, 320);
  EXPECT_EQ(chroma.mcu_width_, 8);
  EXPECT_EQ(chroma.mcu_row_size_, 2560);
  EXPECT_EQ(chroma.image_ + 3 * chroma.mcu_width_ + 2 * chroma.mcu_row_size_,
            decoder.channels_[2].image_ + 24 + 5120);
  // Ids 1, 2, 3 use DC predictor slots 1, 2, 3.
  EXPECT_EQ(decoder.mcu_blocks_[0].component_, 1);
  EXPECT_EQ(decoder.mcu_blocks_[4].component_, 2);
  EXPECT_EQ(decoder.mcu_blocks_[5].component_, 3);
}

struct ScanCase {
  const char* name;
  std::vector<Comp> comps;  // empty: no frame header
  Bytes bytes;              // from the length field on
  Checks checks;
  size_t blocks_built;  // records in the list when the check fails
  bool tables = true;
};

TEST(ScanHeaderTest, Refusals) {
  const std::vector<Comp> with_9 = {{1, 1, 1, 0}, {9, 1, 1, 0}};
  const std::vector<Comp> tq_4 = {{1, 1, 1, 0}, {2, 1, 1, 4}};
  const std::vector<Comp> tq_2 = {{1, 1, 1, 0}, {2, 1, 1, 2}};
  const std::vector<Comp> zero = {{1, 0, 1, 0}, {2, 1, 0, 0}};
  Bytes ns_two_len_three = withLength(sos({{1, 0}, {2, 0x11}, {3, 0x11}}));
  ns_two_len_three[2] = 2;
  const ScanCase cases[] = {
      {"no length", k420, {0x00}, {"input->getLength16(&len)"}, 0},
      {"length past the end", k420, {0x00, 0x08, 1, 1, 0, 0, 63}, {"input->getLength16(&len)"}, 0},
      {"len 3", k420, {0x00, 0x05, 1, 1, 0}, {"len >= 4"}, 0},
      {"ns 2 with room for 3", k420, ns_two_len_three, {"len == 1 + ns * 2 + 3 && ns <= 4"}, 0},
      {"ns 5",
       k420,
       withLength(sos({{1, 0}, {2, 0x11}, {3, 0x11}, {1, 0}, {2, 0}})),
       {"len == 1 + ns * 2 + 3 && ns <= 4"},
       0},
      {"td 4", k420, withLength(sos({{1, 0x40}})), {"td < 4"}, 0},
      {"td 4 before cs 200", k420, withLength(sos({{200, 0x40}})), {"td < 4"}, 0},
      {"ta 4", k420, withLength(sos({{1, 0x04}})), {"ta < 4"}, 0},
      {"cs 16", k420, withLength(sos({{16, 0x00}})), {"cs < kMaxComponents"}, 0},
      {"cs not named",
       k420,
       withLength(sos({{1, 0}, {5, 0}})),
       {"header_.components_[cs].component_id_ >= 0"},
       4},
      {"no frame header",
       {},
       withLength(sos({{1, 0}})),
       {"header_.components_[cs].component_id_ >= 0"},
       0},
      {"cs 9", with_9, withLength(sos({{1, 0}, {9, 0}})), {"cs < 8"}, 1},
      {"tq 4", tq_4, withLength(sos({{1, 0}, {2, 0}})), {"comp.tq_ < 4"}, 1},
      {"no DQT",
       k420,
       withLength(sos(kScan3)),
       {"quantization_tables_[comp.tq_].valid_"},
       0,
       false},
      {"table 2 undefined",
       tq_2,
       withLength(sos({{1, 0}, {2, 0}})),
       {"quantization_tables_[comp.tq_].valid_"},
       1},
      {"Ss 1", k420, withLength(sos(kScan3, 1)), {"input->consumeUint8(0)"}, 6},
      {"Se 0", k420, withLength(sos(kScan3, 0, 0)), {"input->consumeUint8(63)"}, 6},
      {"Ah/Al 0x10", k420, withLength(sos(kScan3, 0, 63, 0x10)), {"input->consumeUint8(0)"}, 6},
      // No block per MCU: the kernel would have nothing to walk.
      {"ns 0", k420, withLength(sos({})), {"!mcu_blocks_.empty()"}, 0},
      {"ns 0 without frame header", {}, withLength(sos({})), {"!mcu_blocks_.empty()"}, 0},
      {"all factors 0", zero, withLength(sos({{1, 0}, {2, 0}})), {"!mcu_blocks_.empty()"}, 0},
  };
  for (const ScanCase& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    prepare(&decoder, c.comps.empty() ? Bytes{} : sof0(16, 16, c.comps), c.tables);
    LogCapture capture;
    EXPECT_FALSE(parse(&decoder, &SimpleJPEGDecoder::parseSOS, c.bytes));
    EXPECT_EQ(capture.jpegChecks(), c.checks);
    EXPECT_EQ(decoder.mcu_blocks_.size(), c.blocks_built);
  }
}

TEST(ScanHeaderTest, AcceptedOddScans) {
  struct Case {
    const char* name;
    std::vector<Comp> comps;
    std::vector<std::pair<int, int>> pairs;
    std::vector<Block> blocks;
  } cases[] = {
      {"undefined Huffman tables",
       k420,
       {{1, 0x23}, {2, 0x32}},
       {{1, 0, 0}, {1, 1, 0}, {1, 0, 1}, {1, 1, 1}, {2, 0, 0}}},
      {"a selector twice",
       k420,
       {{2, 0x11}, {1, 0}, {2, 0x11}},
       {{2, 0, 0}, {1, 0, 0}, {1, 1, 0}, {1, 0, 1}, {1, 1, 1}, {2, 0, 0}}},
      {"one component of 2x2", k420, {{1, 0}}, {{1, 0, 0}, {1, 1, 0}, {1, 0, 1}, {1, 1, 1}}},
      {"cs 9 with a factor of 0", {{1, 1, 1, 0}, {9, 0, 1, 0}}, {{9, 0}, {1, 0}}, {{1, 0, 0}}},
      {"id 0", {{0, 1, 2, 0}}, {{0, 0}}, {{0, 0, 0}, {0, 0, 1}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    prepare(&decoder, sof0(16, 16, c.comps));
    LogCapture capture;
    EXPECT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseSOS, withLength(sos(c.pairs))));
    EXPECT_TRUE(capture.jpegChecks().empty());
    std::vector<Block> blocks;
    for (const MCUBlock& b : decoder.mcu_blocks_) blocks.push_back({b.component_, b.x_, b.y_});
    EXPECT_EQ(blocks, c.blocks);
  }
}

// Planes that the scan doesn't name are grey, not whatever the allocator left there.
TEST(ScanHeaderTest, UnnamedPlanesAreGrey) {
  SimpleJPEGDecoder decoder;
  prepare(&decoder, sof0(24, 16, {{1, 1, 1, 0}, {2, 1, 1, 1}, {3, 1, 1, 1}, {4, 1, 1, 1}}));
  ASSERT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseSOS, withLength(sos({{3, 0x11}})) + kEOI));
  for (int slot : {1, 2, 4}) {
    const Channel& channel = decoder.channels_[slot];
    ASSERT_EQ(channel.stride_ * channel.height_, 24 * 16);
    EXPECT_TRUE(std::all_of(channel.image_, channel.image_ + 24 * 16, [](uint8_t b) {
      return b == 0x80;
    })) << slot;
  }
}

TEST(ScanHeaderTest, LogLinesAndPosition) {
  // A frame of width 0 has no MCU: the list is built and no entropy data is read.
  const Bytes head = kSOI + segment(0xDB, dqt(0) + dqt(1)) + segment(0xC0, sof0(0, 16, k420));
  const Bytes frame = head + segment(0xDA, sos(kScan3)) + Bytes{0x12, 0x34} + kEOI;
  SimpleJPEGDecoder decoder;
  test::Planes planes(16, 16);
  LogCapture capture(/*mjpeg_level=*/7);
  decompress(&decoder, frame, 0, 16, &planes);
  const Checks lines = capture.texts(7, "mjpeg");
  EXPECT_NE(std::find(lines.begin(), lines.end(), "Parsing default DHT"), lines.end());
  // The offset of the scan header's first length byte, in hex.
  char sos_line[32];
  std::snprintf(sos_line, sizeof(sos_line), "SOS Marker at %zx.", head.size() + 2);
  ASSERT_EQ(std::string(sos_line), "SOS Marker at 9d.");
  const auto sos_line_at = std::find(lines.begin(), lines.end(), std::string(sos_line));
  ASSERT_NE(sos_line_at, lines.end());
  ASSERT_NE(sos_line_at + 1, lines.end());
  EXPECT_EQ(*(sos_line_at + 1), "Read 0 bytes of entropy data.");
  EXPECT_EQ(decoder.mcu_blocks_.size(), 6u);
  EXPECT_TRUE(capture.texts(1, "check").empty());
}

// ---- Sizes that the decoder refuses before it allocates ---------------------------------------

TEST(PlaneSizeTest, PlanesBeyondInt32AreRefused) {
  for (const std::vector<Comp>& comps :
       {std::vector<Comp>{{1, 1, 1, 0}}, k420, std::vector<Comp>{{1, 2, 4, 0}}}) {
    SimpleJPEGDecoder decoder;
    prepare(&decoder, sof0(65535, 65535, comps));
    LogCapture capture;
    EXPECT_FALSE(parse(&decoder, &SimpleJPEGDecoder::parseSOS,
                       withLength(sos({{1, 0}})) + Bytes(1 << 16, 0)));
    EXPECT_EQ(capture.jpegChecks(), Checks{"plane_bytes <= kMaxPlaneBytes"});
    for (const Channel& channel : decoder.channels_) EXPECT_EQ(channel.image_, nullptr);
  }
}

// Frames of more than 32 MiB need two bits of input per block.
TEST(PlaneSizeTest, LargeFramesNeedInputToMatch) {
  // One component of 6144x6144: 36 MiB, 589824 blocks, so at least 147456 bytes must remain
  // behind the component pairs (Ss, Se and Ah/Al count).
  const Bytes header = withLength(sos({{1, 0x40}}));  // td 4: fails right behind the check
  const size_t needed = 589824 / 4 - 3;
  struct Case {
    size_t data;
    Checks checks;
  } cases[] = {
      {needed - 1,
       {"frame_bytes <= kLargeFrameBytes || input->getRemainingBytes() >= "
        "min_entropy_bytes"}},
      {needed, {"td < 4"}},
  };
  for (const Case& c : cases) {
    SimpleJPEGDecoder decoder;
    prepare(&decoder, sof0(6144, 6144, {{1, 1, 1, 0}}));
    LogCapture capture;
    EXPECT_FALSE(parse(&decoder, &SimpleJPEGDecoder::parseSOS, header + Bytes(c.data, 0)));
    EXPECT_EQ(capture.jpegChecks(), c.checks);
  }
  // Small frames go through with no entropy data at all, to be concealed.
  SimpleJPEGDecoder decoder;
  prepare(&decoder, sof0(2048, 2048, k420));  // 6 MiB of planes
  LogCapture capture;
  EXPECT_TRUE(parse(&decoder, &SimpleJPEGDecoder::parseSOS, withLength(sos(kScan3))));
  EXPECT_TRUE(capture.jpegChecks().empty());
}

// ---- The frame's verdict --------------------------------------------------------------------

// Replaces the entropy-coded segments named in `bad` (counted from 0 between restart markers)
// by stuffed 0xFF bytes, which decode to the all-ones code that no table defines.
Bytes breakSegments(const Bytes& frame, const std::vector<bool>& bad) {
  size_t pos = 2;
  // Past the segments in front of the scan, then past the scan header.
  while (!(frame[pos] == 0xFF && frame[pos + 1] == 0xDA)) {
    pos += 2 + (frame[pos + 2] << 8 | frame[pos + 3]);
  }
  pos += 2 + (frame[pos + 2] << 8 | frame[pos + 3]);
  Bytes out(frame.begin(), frame.begin() + pos);
  size_t index = 0;
  Bytes segment_bytes;
  for (; pos < frame.size(); ++pos) {
    const bool marker = frame[pos] == 0xFF && pos + 1 < frame.size() && frame[pos + 1] != 0x00;
    if (!marker) {
      segment_bytes.push_back(frame[pos]);
      continue;
    }
    out = out + (index < bad.size() && bad[index] ? Bytes{0xFF, 0x00, 0xFF, 0x00} : segment_bytes);
    out = out + Bytes{frame[pos], frame[pos + 1]};
    ++pos;
    ++index;
    segment_bytes.clear();
  }
  return out;
}

// More than 80% of the MCUs must decode, in single precision: 9 of 10, 961 of 1200.
TEST(VerdictTest, StrictlyMoreThan80Percent) {
  struct Case {
    int mcus, bad;
    bool ok;
  } cases[] = {{10, 0, true},      {10, 1, true}, {10, 2, false}, {1200, 239, true},
               {1200, 240, false}, {1, 0, true},  {1, 1, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.bad) + " of " + std::to_string(c.mcus) + " bad");
    // One MCU per row and a restart marker behind every row: one MCU per span.
    const Bytes frame = test::encodeTestFrame(8, 8 * c.mcus, TJSAMP_444, 90, 1);
    std::vector<bool> bad(c.mcus, false);
    for (int i = 0; i < c.bad; ++i) bad[(i * 7919) % c.mcus] = true;
    const Bytes damaged = breakSegments(frame, bad);
    SimpleJPEGDecoder decoder;
    test::Planes planes(8, 8 * c.mcus);
    LogCapture capture;
    EXPECT_EQ(decompress(&decoder, damaged, 8, 8 * c.mcus, &planes), c.ok);
    EXPECT_EQ(decoder.total_mcus_, c.mcus);
    EXPECT_EQ(decoder.valid_mcus_, c.mcus - c.bad);
    EXPECT_TRUE(capture.jpegChecks().empty());
  }
}

TEST(VerdictTest, NoMCUsIsNoSuccess) {
  const Bytes frame = kSOI + segment(0xDB, dqt(0) + dqt(1)) + segment(0xC0, sof0(0, 0, k420)) +
                      segment(0xDA, sos(kScan3)) + kEOI;
  SimpleJPEGDecoder decoder;
  test::Planes planes(0, 0);
  LogCapture capture;
  EXPECT_FALSE(decompress(&decoder, frame, 0, 0, &planes));
  EXPECT_EQ(decoder.total_mcus_, 0);
  EXPECT_TRUE(capture.jpegChecks().empty());
}

// ---- Real frames ----------------------------------------------------------------------------

TEST(CorpusTest, WebcamFramesUseTheDefaultTables) {
  const std::vector<std::string> files = test::corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  for (const std::string& path : files) {
    SCOPED_TRACE(path);
    const Bytes frame = test::readFile(path);
    SimpleJPEGDecoder decoder;
    test::Planes planes(640, 480);
    LogCapture capture(/*mjpeg_level=*/7);
    decompress(&decoder, frame, 640, 480, &planes);
    const Checks lines = capture.texts(7, "mjpeg");
    EXPECT_NE(std::find(lines.begin(), lines.end(), "Parsing default DHT"), lines.end());
    EXPECT_EQ(decoder.mcus_x_, 40);
    EXPECT_EQ(decoder.mcus_y_, 60);
    EXPECT_EQ(decoder.mcu_blocks_.size(), 4u);
  }
}

TEST(CorpusTest, ProgressiveFrameIsAnUnhandledMarker) {
  const std::vector<std::string> files = test::corpusFiles("reftest");
  VIDRA_REQUIRE_CORPUS(files, "reftest");
  for (const std::string& path : files) {
    if (path.find("progressive") == std::string::npos) continue;
    const Bytes frame = test::readFile(path);
    SimpleJPEGDecoder decoder;
    test::Planes planes(64, 64);
    LogCapture capture(/*mjpeg_level=*/3);
    EXPECT_FALSE(decompress(&decoder, frame, 64, 64, &planes));
    EXPECT_EQ(capture.texts(3, "mjpeg"), Checks{"Unhandled JPEG marker c2"});
    EXPECT_TRUE(untouched(planes));
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
