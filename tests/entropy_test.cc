// The entropy data driver: segments, stuffing, restart markers, spans and the bookkeeping of
// good and bad MCUs. Most tests put a scripted kernel in place of the real one (through the
// function table) and look at what each kernel call was given.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "jpeg.h"
#include "jpeg_dsp.h"
#include "mcu_kernel.h"
#include "mjpeg.h"
#include "support/test_support.h"

namespace vidra {
namespace jpeg {
namespace {

// What one kernel call was given.
struct Call {
  std::vector<uint8_t> segment;  // the bytes in front of the sentinel
  bool sentinel_ok;              // eight 0xFF bytes behind them, and the end right there
  uint32_t mcu_x, mcu_y, mcu_count, blocks_per_mcu, mcus_per_row;
};

struct Script {
  std::vector<Call> calls;
  std::vector<int> results;  // result of call i; 1 beyond the list
};
Script* g_script = nullptr;

int scriptedKernel(int16_t*, MCUSpanContext* context) {
  // The driver tells the kernel where its readable bytes end: the segment and the sentinel.
  const size_t total = static_cast<size_t>(context->dest_ - context->data_);
  Call call;
  call.sentinel_ok = total >= 8;
  if (call.sentinel_ok) {
    call.segment.assign(context->data_, context->data_ + total - 8);
    for (size_t i = total - 8; i < total; ++i) call.sentinel_ok &= context->data_[i] == 0xFF;
  }
  call.mcu_x = context->mcu_x_;
  call.mcu_y = context->mcu_y_;
  call.mcu_count = context->mcu_count_;
  call.blocks_per_mcu = context->blocks_per_mcu_;
  call.mcus_per_row = context->mcus_per_row_;
  const size_t index = g_script->calls.size();
  g_script->calls.push_back(call);
  return index < g_script->results.size() ? g_script->results[index] : 1;
}

class EntropyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    initDSPScalar(&scripted_);
    scripted_.decodeMCUSpan = scriptedKernel;
    setDSPForTesting(&scripted_);
    g_script = &script_;
    // One block per MCU by default; the scripted kernel never looks at it.
    decoder_.mcu_blocks_.resize(1);
    setGrid(4, 1);
  }
  void TearDown() override {
    setDSPForTesting(nullptr);
    g_script = nullptr;
  }

  void setGrid(int mcus_x, int mcus_y) {
    decoder_.mcus_x_ = mcus_x;
    decoder_.mcus_y_ = mcus_y;
    decoder_.total_mcus_ = mcus_x * mcus_y;
  }

  size_t decode(const std::vector<uint8_t>& data) {
    size_t consumed = 12345;
    EXPECT_TRUE(decoder_.decodeEntropyData(data.data(), data.size(), &consumed));
    // Every MCU is either good or marked bad.
    int bad = 0;
    for (uint8_t mark : decoder_.bad_mcus_) bad += mark;
    EXPECT_EQ(decoder_.valid_mcus_ + bad, decoder_.total_mcus_);
    return consumed;
  }

  std::vector<std::vector<uint8_t>> segments() const {
    std::vector<std::vector<uint8_t>> result;
    for (const Call& call : script_.calls) {
      EXPECT_TRUE(call.sentinel_ok);
      result.push_back(call.segment);
    }
    return result;
  }

  DSPFunctions scripted_;
  Script script_;
  SimpleJPEGDecoder decoder_;
};

using Segments = std::vector<std::vector<uint8_t>>;

// How the input is cut and de-stuffed, one case per row: (input, restart interval, MCUs,
// expected segments, expected consumed length).
TEST_F(EntropyTest, SegmentsAndConsumedLength) {
  struct Case {
    const char* name;
    std::vector<uint8_t> data;
    int32_t interval;
    int mcus;
    Segments segments;
    size_t consumed;
  };
  const Case cases[] = {
      {"length 0", {}, 0, 1, {{}}, 0},
      {"length 1", {0x5C}, 0, 1, {{0x5C}}, 1},
      {"plain bytes", {1, 2, 3, 4}, 0, 1, {{1, 2, 3, 4}}, 4},
      {"stuffing",
       {0x12, 0xFF, 0x00, 0x34, 0xFF, 0x00, 0xFF, 0x00, 0x56},
       0,
       1,
       {{0x12, 0xFF, 0x34, 0xFF, 0xFF, 0x56}},
       9},
      {"FF 00 as the last two bytes", {0x12, 0xFF, 0x00}, 0, 1, {{0x12, 0xFF}}, 3},
      {"FF as the last byte", {0x12, 0x34, 0xFF}, 0, 1, {{0x12, 0x34, 0xFF}}, 3},
      {"restart then one byte", {0x12, 0xFF, 0xD0, 0x34}, 1, 3, {{0x12, 0x34}, {}, {}}, 4},
      {"FF D0 at the end", {0x12, 0xFF, 0xD0}, 1, 2, {{0x12}, {}}, 3},
      {"FF D7 right after FF D0",
       {0x12, 0xFF, 0xD0, 0xFF, 0xD7, 0x34, 0x56},
       1,
       3,
       {{0x12}, {}, {0x34, 0x56}},
       7},
      {"restart numbers are not looked at",
       {1, 0xFF, 0xD5, 2, 0xFF, 0xD5, 3, 0xFF, 0xD2, 4, 5},
       2,
       8,
       {{1}, {2}, {3}, {4, 5}},
       11},
      {"stray APP0 ends the data",
       {0x12, 0x34, 0xFF, 0xE0, 0x56, 0x78},
       1,
       3,
       {{0x12, 0x34}, {}, {}},
       2},
      {"stray SOI", {0x12, 0xFF, 0xD8, 0x56}, 1, 2, {{0x12}, {}}, 1},
      {"EOI", {0x12, 0x34, 0xFF, 0xD9}, 1, 2, {{0x12, 0x34}, {}}, 2},
      {"FF FF is no fill", {0x12, 0xFF, 0xFF, 0x34}, 1, 2, {{0x12}, {}}, 1},
      {"data left over behind the last span",
       {1, 0xFF, 0xD0, 2, 0xFF, 0xD1, 3, 4},
       1,
       2,
       {{1}, {2}},
       6},
      {"interval below 1 with markers: one span, first segment",
       {1, 2, 0xFF, 0xD0, 3, 4},
       -1,
       4,
       {{1, 2}},
       4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    decoder_.bad_mcus_.clear();
    decoder_.valid_mcus_ = 0;
    setGrid(c.mcus, 1);
    decoder_.restart_interval_ = c.interval;
    script_ = {};
    EXPECT_EQ(decode(c.data), c.consumed);
    EXPECT_EQ(segments(), c.segments);
  }
}

TEST_F(EntropyTest, SpansAndTheirPlaceInTheGrid) {
  setGrid(3, 4);  // 12 MCUs
  decoder_.restart_interval_ = 5;
  std::vector<uint8_t> data = {1, 0xFF, 0xD0, 2, 0xFF, 0xD1, 3};
  decode(data);
  ASSERT_EQ(script_.calls.size(), 3u);
  const uint32_t expected[3][3] = {{0, 0, 5}, {2, 1, 5}, {1, 3, 2}};  // x, y, count
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(script_.calls[i].mcu_x, expected[i][0]) << i;
    EXPECT_EQ(script_.calls[i].mcu_y, expected[i][1]) << i;
    EXPECT_EQ(script_.calls[i].mcu_count, expected[i][2]) << i;
    EXPECT_EQ(script_.calls[i].blocks_per_mcu, 1u);
    EXPECT_EQ(script_.calls[i].mcus_per_row, 3u);
  }
  EXPECT_EQ(decoder_.valid_mcus_, 12);
  EXPECT_TRUE(decoder_.bad_mcus_.empty());  // an undamaged frame never allocates it
}

TEST_F(EntropyTest, FailedSpansAreMarkedAsAWhole) {
  setGrid(10, 1);
  decoder_.restart_interval_ = 4;
  script_.results = {1, 0, 1};
  decode({1, 0xFF, 0xD0, 2, 0xFF, 0xD1, 3});
  EXPECT_EQ(decoder_.bad_mcus_, (std::vector<uint8_t>{0, 0, 0, 0, 1, 1, 1, 1, 0, 0}));
  EXPECT_EQ(decoder_.valid_mcus_, 6);
}

TEST_F(EntropyTest, TwoFailuresKeepBothMarks) {
  setGrid(10, 1);
  decoder_.restart_interval_ = 3;
  script_.results = {0, 1, 0, 1};
  decode({1, 0xFF, 0xD0, 2, 0xFF, 0xD1, 3, 0xFF, 0xD2, 4});
  EXPECT_EQ(decoder_.bad_mcus_, (std::vector<uint8_t>{1, 1, 1, 0, 0, 0, 1, 1, 1, 0}));
  EXPECT_EQ(decoder_.valid_mcus_, 4);
}

TEST_F(EntropyTest, IntervalBelowOneBecomesTheFrame) {
  setGrid(4, 2);
  decoder_.restart_interval_ = 0;
  decode({1, 2, 3});
  EXPECT_EQ(decoder_.restart_interval_, 8);
  ASSERT_EQ(script_.calls.size(), 1u);
  EXPECT_EQ(script_.calls[0].mcu_count, 8u);
}

TEST_F(EntropyTest, NoMCUsNoKernelCall) {
  setGrid(0, 0);
  decoder_.restart_interval_ = -1;
  EXPECT_EQ(decode({1, 2, 3}), 0u);
  EXPECT_TRUE(script_.calls.empty());
  EXPECT_EQ(decoder_.valid_mcus_, 0);
}

TEST_F(EntropyTest, EmptyBlockListMarksEverySpanBadWithoutKernelCall) {
  decoder_.mcu_blocks_.clear();
  setGrid(6, 1);
  decoder_.restart_interval_ = 2;
  EXPECT_EQ(decode({1, 0xFF, 0xD0, 2, 0xFF, 0xD1, 3}), 7u);
  EXPECT_TRUE(script_.calls.empty());
  EXPECT_EQ(decoder_.bad_mcus_, std::vector<uint8_t>(6, 1));
  EXPECT_EQ(decoder_.valid_mcus_, 0);
}

TEST_F(EntropyTest, NullConsumedLengthIsReported) {
  test::LogCapture capture;
  const uint8_t data[] = {1, 2};
  EXPECT_FALSE(decoder_.decodeEntropyData(data, sizeof(data), nullptr));
  EXPECT_EQ(capture.texts(1, "check"), std::vector<std::string>{"Check failed consumed_length "});
  EXPECT_TRUE(script_.calls.empty());
}

// ---- With the real kernel --------------------------------------------------------------------

// Three MCUs of one 8x8 block over a 24x8 plane, with the default tables and steps of 1.
class EntropyKernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JPEGBuffer segment(kMJPGDHTSeg + 2, sizeof(kMJPGDHTSeg) - 2);
    ASSERT_TRUE(decoder_.parseDHT(&segment));
    for (int k = 0; k < 64; ++k) quant_[k] = 1;
    MCUBlock block = {};
    block.quant_table_ = quant_;
    block.ac_table_ = decoder_.ac_huffman_tables_[0]->entries_.data();
    block.dc_table_ = decoder_.dc_huffman_tables_[0]->entries_.data();
    block.image_ = plane_.data();
    block.stride_ = 24;
    block.mcu_width_ = 8;
    block.mcu_row_size_ = 8 * 24;
    decoder_.mcu_blocks_.push_back(block);
    decoder_.mcus_x_ = 3;
    decoder_.mcus_y_ = 1;
    decoder_.total_mcus_ = 3;
    decoder_.restart_interval_ = 1;
  }

  // The sample in the middle of MCU `i`.
  uint8_t sample(int i) const { return plane_[4 * 24 + 8 * i + 4]; }

  SimpleJPEGDecoder decoder_;
  alignas(16) int16_t quant_[128] = {};
  std::vector<uint8_t> plane_ = std::vector<uint8_t>(24 * 8, 0x11);
};

TEST_F(EntropyKernelTest, EachSegmentStartsWithFreshPredictors) {
  // DC +64 (category 7: 11110 + 1000000), EOB 1010: 1111 0100 0000 1010. 64 >> 5 = 2 gives
  // 130 in every span, since the predictor starts at 0 in each.
  const std::vector<uint8_t> span = {0xF4, 0x0A};
  std::vector<uint8_t> data = span;
  for (uint8_t marker : {0xD0, 0xD1}) {
    data.push_back(0xFF);
    data.push_back(marker);
    data.insert(data.end(), span.begin(), span.end());
  }
  size_t consumed = 0;
  ASSERT_TRUE(decoder_.decodeEntropyData(data.data(), data.size(), &consumed));
  EXPECT_EQ(consumed, data.size());
  EXPECT_EQ(decoder_.valid_mcus_, 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(sample(i), 130) << i;
}

TEST_F(EntropyKernelTest, LostRestartMarkerShiftsTheSegments) {
  // The marker between spans 1 and 2 is lost: span 1 decodes the front of the merged segment,
  // span 2 gets what was meant for span 3, and span 3 finds nothing but EOI.
  const std::vector<uint8_t> data = {0x28, 0x28, 0xFF, 0xD1, 0x28, 0xFF, 0xD9};
  size_t consumed = 0;
  ASSERT_TRUE(decoder_.decodeEntropyData(data.data(), data.size(), &consumed));
  EXPECT_EQ(consumed, 5u);
  EXPECT_EQ(decoder_.bad_mcus_, (std::vector<uint8_t>{0, 0, 1}));
  EXPECT_EQ(decoder_.valid_mcus_, 2);
  EXPECT_EQ(sample(0), 128);
  EXPECT_EQ(sample(1), 128);
  EXPECT_EQ(sample(2), 0x11);  // never written
}

TEST_F(EntropyKernelTest, EndOfInputFailsTheRemainingSpans) {
  const std::vector<uint8_t> data = {0x28};
  size_t consumed = 0;
  ASSERT_TRUE(decoder_.decodeEntropyData(data.data(), data.size(), &consumed));
  EXPECT_EQ(consumed, 1u);
  EXPECT_EQ(decoder_.bad_mcus_, (std::vector<uint8_t>{0, 1, 1}));
  // Zero bytes: every span fails, nothing is written.
  decoder_.bad_mcus_.clear();
  decoder_.valid_mcus_ = 0;
  std::fill(plane_.begin(), plane_.end(), 0x11);
  ASSERT_TRUE(decoder_.decodeEntropyData(data.data(), 0, &consumed));
  EXPECT_EQ(consumed, 0u);
  EXPECT_EQ(decoder_.bad_mcus_, (std::vector<uint8_t>{1, 1, 1}));
  EXPECT_EQ(sample(0), 0x11);
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
