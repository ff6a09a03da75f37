// Concealment: range interpolation, and the repair of bad MCUs in the decoder's planes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
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

// ---- interpolateRange -----------------------------------------------------------------------

constexpr uint8_t kUntouched = 0xA5;
constexpr int kStride = 20;  // wider than 16, so that bytes right of the rectangle show

// Runs interpolateRange() for the widths of the scalar path (below 16) and the dispatched one
// (16) on at least 8 rows of kStride bytes, all kUntouched at first; rows first..first + rows - 1
// must hold want(x, y) left of the width and kUntouched right of it.
template <typename Want>
void expectRows(int h, const std::vector<uint8_t>& top, const std::vector<uint8_t>& bottom,
                int first, int rows, Want want) {
  for (int w : {1, 8, 15, 16}) {
    std::vector<uint8_t> out(static_cast<size_t>(std::max(h, 8)) * kStride, kUntouched);
    interpolateRange(out.data(), w, h, kStride, top.data(), bottom.data());
    for (int y = first; y < first + rows; ++y) {
      for (int x = 0; x < kStride; ++x) {
        ASSERT_EQ(out[y * kStride + x], x < w ? want(x, y) : kUntouched)
            << int(top[x % 16]) << "->" << int(bottom[x % 16]) << " h " << h << " w " << w
            << " row " << y << " column " << x;
      }
    }
  }
}

// Rows from row `first` on; row y has the weight y * (256 / (h - 1)), truncated. h = 8 stops
// short of `bottom`, h = 2 reaches it, from h = 258 on every row repeats `top`. Differences of one:
// the shift rounds halves upwards, also for negative differences, so +1 turns at weight 128 and -1
// only above it; h = 3 has the weights 0, 128, 256, and h = 129 has 126, 128, 130 at rows 63, 64,
// 65. h = 1 would divide by zero: its one row has weight 0, and the row below stays untouched.
// (Each column has its own references: the repair tests and checkasm use random ones.)
TEST(InterpolateRange, LiteralRows) {
  const struct {
    int h, top, bottom, first;
    std::vector<int> rows;
  } cases[] = {{8, 100, 200, 0, {100, 114, 128, 142, 156, 170, 184, 198}},
               {2, 30, 90, 0, {30, 90}},
               {258, 200, 100, 255, {200, 200, 200}},
               {3, 50, 51, 0, {50, 51, 51}},
               {3, 51, 50, 0, {51, 51, 50}},
               {129, 50, 51, 63, {50, 51, 51}},
               {129, 51, 50, 63, {51, 51, 50}},
               {1, 30, 90, 0, {30, 0xA5}}};
  for (const auto& c : cases) {
    expectRows(c.h, std::vector<uint8_t>(16, c.top), std::vector<uint8_t>(16, c.bottom), c.first,
               int(c.rows.size()), [&](int, int y) { return c.rows[y - c.first]; });
  }
}

// A width above 16 is a fault of the caller and reported; nothing is written then, nor for an
// empty rectangle, which is no fault (w == 16 and h == 0 reports nothing).
TEST(InterpolateRange, BadSizesWriteNothing) {
  const std::vector<uint8_t> top(32, 10), bottom(32, 250);
  const std::vector<std::string> line = {"Check failed: w <= 16 (17 vs. 16) "};
  const std::pair<int, int> sizes[] = {{17, 8}, {0, 8}, {-3, 8}, {16, 0}, {8, -1}};
  for (int check_level : {1, 0}) {
    for (const auto& [w, h] : sizes) {
      LogCapture log(2, check_level);
      std::vector<uint8_t> out(8 * 32, kUntouched);
      interpolateRange(out.data(), w, h, 32, top.data(), bottom.data());
      EXPECT_EQ(out, std::vector<uint8_t>(8 * 32, kUntouched)) << "w " << w << " h " << h;
      EXPECT_EQ(log.texts(1, "check"), w > 16 && check_level == 1 ? line : decltype(line){});
      EXPECT_EQ(log.lines().size(), log.texts(1, "check").size());
    }
  }
}

// ---- fixBadMCUs on a hand-built decoder -----------------------------------------------------

struct Factors {
  int slot, h, v;
};
const std::vector<Factors> k420 = {{1, 2, 2}, {2, 1, 1}, {3, 1, 1}};
using Spans = std::vector<std::pair<int, int>>;  // first MCU number, number of MCUs

enum Fill { kInterpolate, kCopy, kGrey };

// One rectangle of one plane after the repair. `above` and `below` are the plane rows an
// interpolation blends between; a copy repeats row `above`.
struct Region {
  int slot, x, y, w, h;
  Fill fill;
  int above, below;
};

// `regions` plus those of a run of 4:2:0 MCUs in column `mcu_x`, MCU rows first..last. A copy
// at the top of the grid repeats the row below the run, elsewhere the row above it.
std::vector<Region> run420(int mcu_x, int first, int last, Fill fill,
                           std::vector<Region> regions = {}) {
  for (int slot = 1; slot <= 3; ++slot) {
    const int size = slot == 1 ? 16 : 8, y = first * size, h = (last - first + 1) * size;
    const int above = fill == kCopy && y == 0 ? h : y - 1;
    regions.push_back({slot, mcu_x * size, y, size, h, fill, above, y + h});
  }
  return regions;
}

// Puts a decoder into the state that the frame header, the scan header and the entropy driver
// leave (a grid of `mcus_x` x `mcus_y` MCUs, random samples, the bad spans), repairs it, and
// compares every byte of every plane with the planes before and `regions` written over them.
void expectRepair(const char* name, int mcus_x, int mcus_y, const std::vector<Factors>& slots,
                  const Spans& bad_spans, const std::vector<Region>& regions) {
  SCOPED_TRACE(name);
  SimpleJPEGDecoder d;
  d.mcus_x_ = mcus_x;
  d.mcus_y_ = mcus_y;
  d.total_mcus_ = mcus_x * mcus_y;
  d.valid_mcus_ = 77;  // whatever it is, the repair leaves it alone
  std::vector<std::vector<uint8_t>> before(kMaxComponents);  // the planes as decoded
  std::mt19937 rng(1234);
  for (const Factors& f : slots) {
    d.header_.components_[f.slot] = {f.slot, f.h, f.v, 0};
    Channel& channel = d.channels_[f.slot];
    channel.stride_ = f.h * 8 * mcus_x;
    channel.height_ = f.v * 8 * mcus_y;
    channel.image_ = new uint8_t[channel.stride_ * channel.height_];
    before[f.slot].resize(channel.stride_ * channel.height_);
    for (uint8_t& sample : before[f.slot]) sample = static_cast<uint8_t>(rng());
    std::copy(before[f.slot].begin(), before[f.slot].end(), channel.image_);
  }
  if (!bad_spans.empty()) d.bad_mcus_.assign(d.total_mcus_, 0);
  for (const auto& [first, count] : bad_spans) std::fill_n(&d.bad_mcus_[first], count, 1);
  const std::vector<uint8_t> map = d.bad_mcus_;
  LogCapture log(8, 1);
  d.fixBadMCUs();
  EXPECT_TRUE(log.lines().empty()) << "repair logs nothing";
  EXPECT_TRUE(d.bad_mcus_ == map && d.valid_mcus_ == 77) << "booked as repaired";

  auto expected = before;
  for (const Region& r : regions) {
    const int stride = d.channels_[r.slot].stride_, step = 256 / (r.h - 1);
    for (int y = 0; y < r.h; ++y) {
      for (int x = r.x; x < r.x + r.w; ++x) {
        const int top = r.fill == kGrey ? 0x80 : before[r.slot][r.above * stride + x];
        const int bottom = r.fill == kInterpolate ? before[r.slot][r.below * stride + x] : top;
        expected[r.slot][(r.y + y) * stride + x] =
            uint8_t(top + (((bottom - top) * y * step + 128) >> 8));
      }
    }
  }
  for (int slot = 0; slot < kMaxComponents; ++slot) {
    const auto& e = expected[slot];
    const size_t i = std::mismatch(e.begin(), e.end(), d.channels_[slot].image_).first - e.begin();
    EXPECT_EQ(i, e.size()) << "slot " << slot << " differs at byte " << i;
  }
}

TEST(FixBadMCUs, RunsInsideTheGridAreInterpolated) {
  // 640x480: luma 16x16 at column 80, row 160 between rows 159 and 176; chroma 8x8 at column
  // 40, row 80 between rows 79 and 88. Slots 0 and 4 stay as decoded.
  expectRepair("OneMCUInside", 40, 30, {{0, 1, 1}, {1, 2, 2}, {2, 1, 1}, {3, 1, 1}, {4, 1, 1}},
               {{10 * 40 + 5, 1}},
               {{1, 80, 160, 16, 16, kInterpolate, 159, 176},
                {2, 40, 80, 8, 8, kInterpolate, 79, 88},
                {3, 40, 80, 8, 8, kInterpolate, 79, 88}});
  // Rows 4..8 of column 7: one interpolation over 80 luma rows; row 10: a run of its own, with
  // the good MCU of row 9 giving its reference row above.
  Spans spans = {{10 * 40 + 7, 1}};
  for (int y = 4; y <= 8; ++y) spans.push_back({y * 40 + 7, 1});
  expectRepair("RunsInOneColumn", 40, 30, k420, spans,
               run420(7, 4, 8, kInterpolate, run420(7, 10, 10, kInterpolate)));
  // A failed span of 1.5 MCU rows from the left edge: runs of 2 MCUs in 20 columns, 1 elsewhere.
  std::vector<Region> regions;
  for (int x = 0; x < 40; ++x) regions = run420(x, 10, x < 20 ? 11 : 10, kInterpolate, regions);
  expectRepair("SpanOfOneAndAHalfRows", 40, 30, k420, {{10 * 40, 60}}, regions);
}

TEST(FixBadMCUs, RunsAtTheEdgesAreCopiedOrGrey) {
  // Chroma copies move 8 bytes per row: the samples right of the MCU keep their values.
  expectRepair("TopEdge", 40, 30, k420, {{7, 1}, {47, 1}}, run420(7, 0, 1, kCopy));
  // 1920x1080: the last MCU row lies partly below the frame and still counts as the bottom.
  expectRepair("BottomEdge", 120, 68, k420, {{67 * 120 + 119, 1}}, run420(119, 67, 67, kCopy));
  Spans column;
  for (int y = 0; y < 30; ++y) column.push_back({y * 40 + 3, 1});
  expectRepair("WholeColumn", 40, 30, k420, column, run420(3, 0, 29, kGrey));
}

TEST(FixBadMCUs, SamplingFactors) {
  // Luma 3x1 is 24 samples wide, too wide to interpolate: grey; its chroma as usual.
  expectRepair("WideLuma", 4, 6, {{1, 3, 1}, {2, 1, 1}, {3, 1, 1}}, {{9, 1}, {2, 1}},
               {{1, 24, 16, 24, 8, kGrey, 0, 0},
                {1, 48, 0, 24, 8, kGrey, 0, 0},
                {2, 8, 16, 8, 8, kInterpolate, 15, 24},
                {3, 8, 16, 8, 8, kInterpolate, 15, 24},
                {2, 16, 0, 8, 8, kCopy, 8, 0},
                {3, 16, 0, 8, 8, kCopy, 8, 0}});
  // Slot 2 has a factor of 0 and an empty plane, where a copy would still move 8 bytes per
  // row; slot 3 was never named and has no plane. Both are skipped.
  expectRepair("EmptyAndMissingPlanes", 4, 2, {{1, 2, 2}, {2, 0, 1}}, {{0, 1}, {6, 1}},
               {{1, 0, 0, 16, 16, kCopy, 16, 0}, {1, 32, 16, 16, 16, kCopy, 15, 0}});
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
