// The entropy data driver: segments, stuffing, restart markers, spans and the bookkeeping of good
// and bad MCUs, with a stand-in kernel (through the function table) recording each call.

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "jpeg.h"
#include "jpeg_dsp.h"
#include "mcu_kernel.h"
#include "mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

using Bytes = std::vector<uint8_t>;
using Span = std::array<uint32_t, 3>;  // mcu_x_, mcu_y_, mcu_count_

std::vector<Bytes> g_segments;  // the bytes each kernel call got in front of the sentinel
std::vector<Span> g_spans;

// Fails a span whose segment is empty (as the real kernel does: the sentinel matches no code) or
// starts with 0xEE, standing for damage. Eight 0xFF bytes must close every segment, at the end.
int standInKernel(int16_t*, MCUSpanContext* context, const MCURowSplit*, const MCUWideLevels*) {
  const size_t total = static_cast<size_t>(context->dest_ - context->data_);
  g_spans.push_back({context->mcu_x_, context->mcu_y_, context->mcu_count_});
  g_segments.emplace_back();
  EXPECT_GE(total, 8u);
  if (total < 8) return 0;
  EXPECT_EQ(Bytes(context->data_ + total - 8, context->data_ + total), Bytes(8, 0xFF));
  g_segments.back().assign(context->data_, context->data_ + total - 8);
  return !g_segments.back().empty() && g_segments.back()[0] != 0xEE;
}

class EntropyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    initDSPScalar(&stand_in_);
    stand_in_.decodeMCUSpan = standInKernel;
    setDSPForTesting(&stand_in_);
    g_segments.clear();
    g_spans.clear();
  }
  void TearDown() override { setDSPForTesting(nullptr); }

  DSPFunctions stand_in_;
};

TEST_F(EntropyTest, SegmentsSpansAndMarks) {
  // clang-format off
  // name, input, restart_interval_, MCUs across and down, blocks per MCU, then the segments
  // handed to the kernel (one per call), the consumed length, bad_mcus_ (empty: never allocated)
  // and the spans (checked when not empty).
  const struct { const char* name; Bytes data; int interval, mcus_x, mcus_y; size_t blocks_per_mcu;
                 std::vector<Bytes> segments; size_t consumed; Bytes bad; std::vector<Span> spans;
  } cases[] = {
      {"length 0", {}, 0, 1, 1, 1, {{}}, 0, {1}, {}},
      {"stuffing, FF 00 as the last two bytes",
       {0x12, 0xFF, 0x00, 0x34, 0xFF, 0x00, 0xFF, 0x00, 0x56, 0xFF, 0x00}, 0, 1, 1, 1,
       {{0x12, 0xFF, 0x34, 0xFF, 0xFF, 0x56, 0xFF}}, 11, {}, {}},
      {"FF as the last byte", {0x12, 0x34, 0xFF}, 0, 1, 1, 1, {{0x12, 0x34, 0xFF}}, 3, {}, {}},
      {"restart marker, then one byte", {0x12, 0xFF, 0xD0, 0x34}, 1, 3, 1, 1,
       {{0x12, 0x34}, {}, {}}, 4, {0, 1, 1}, {}},
      {"FF D0 as the last two bytes", {0x12, 0xFF, 0xD0}, 1, 2, 1, 1,
       {{0x12}, {}}, 3, {0, 1}, {}},
      {"FF D7 right after FF D0; numbers not looked at",
       {1, 0xFF, 0xD0, 0xFF, 0xD7, 2, 0xFF, 0xD5, 3, 0xFF, 0xD2, 4, 5}, 1, 5, 1, 1,
       {{1}, {}, {2}, {3}, {4, 5}}, 13, {0, 1, 0, 0, 0}, {}},
      {"SOI, just above the restart markers", {0x12, 0xFF, 0xD8, 0x34, 0x56}, 1, 2, 1, 1,
       {{0x12}, {}}, 1, {0, 1}, {}},
      {"FF CF, below the restart markers", {0x12, 0xFF, 0xCF, 0x34, 0x56}, 1, 2, 1, 1,
       {{0x12}, {}}, 1, {0, 1}, {}},
      {"FF FF is no fill", {0x12, 0xFF, 0xFF, 0x34}, 1, 2, 1, 1, {{0x12}, {}}, 1, {0, 1}, {}},
      {"data left over behind the last span", {1, 0xFF, 0xD0, 2, 0xFF, 0xD1, 3, 4}, 1, 2, 1, 1,
       {{1}, {2}}, 6, {}, {}},
      {"10 MCUs, interval 4, the second span fails", {1, 0xFF, 0xD0, 0xEE, 0xFF, 0xD1, 3, 4},
       4, 10, 1, 1, {{1}, {0xEE}, {3, 4}}, 8, {0, 0, 0, 0, 1, 1, 1, 1, 0, 0},
       {{0, 0, 4}, {4, 0, 4}, {8, 0, 2}}},
      {"interval below 1 with markers: one span, first segment", {0xEE, 2, 0xFF, 0xD0, 3, 4},
       0, 4, 2, 1, {{0xEE, 2}}, 4, Bytes(8, 1), {{0, 0, 8}}},
      {"two failures, spans over row ends", {0xEE, 0xFF, 0xD0, 2, 0xFF, 0xD1, 0xEE, 5}, 5, 3, 4, 1,
       {{0xEE}, {2}, {0xEE, 5}}, 8, {1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 1, 1},
       {{0, 0, 5}, {2, 1, 5}, {1, 3, 2}}},
      {"no MCUs: no kernel call", {1, 2, 3}, -1, 0, 0, 1, {}, 0, {}, {}},
      // A scan without components can't be decoded: every span is bad, without a kernel call.
      {"no blocks", {1, 0xFF, 0xD0, 2}, 2, 4, 1, 0, {}, 4, {1, 1, 1, 1}, {}},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder decoder;
    decoder.mcu_blocks_.resize(c.blocks_per_mcu);
    decoder.mcus_x_ = c.mcus_x;
    decoder.mcus_y_ = c.mcus_y;
    decoder.total_mcus_ = c.mcus_x * c.mcus_y;
    decoder.restart_interval_ = c.interval;
    g_segments.clear();
    g_spans.clear();
    size_t consumed = 12345;
    EXPECT_TRUE(decoder.decodeEntropyData(c.data.data(), c.data.size(), &consumed));
    EXPECT_EQ(consumed, c.consumed);
    EXPECT_EQ(g_segments, c.segments);
    EXPECT_EQ(c.spans.empty() ? c.spans : g_spans, c.spans);  // empty: not checked
    EXPECT_EQ(decoder.bad_mcus_, c.bad);
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
