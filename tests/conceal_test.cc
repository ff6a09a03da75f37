// Concealment: range interpolation, and the repair of bad MCUs in the decoder's planes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "jpeg.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

using test::LogCapture;

// ---- interpolateRange -----------------------------------------------------------------------

// A rectangle of `h` rows of `stride` bytes, filled with a marker value so that the test sees
// which bytes were written.
struct Target {
  static constexpr uint8_t kUntouched = 0xA5;
  Target(int rows, int row_stride)
      : h(rows),
        stride(row_stride),
        bytes(static_cast<size_t>(std::max(rows, 1)) * row_stride, kUntouched) {}
  uint8_t at(int x, int y) const { return bytes[static_cast<size_t>(y) * stride + x]; }
  int h, stride;
  std::vector<uint8_t> bytes;
};

std::vector<uint8_t> row16(uint8_t value) { return std::vector<uint8_t>(16, value); }

// Both the scalar path (w below 16) and the dispatched one (w == 16).
const int kWidths[] = {1, 8, 15, 16};

TEST(InterpolateRange, BlendsUpwardsAndDownwardsAndStopsShortOfBottom) {
  struct Case {
    uint8_t top, bottom;
    std::vector<int> rows;
  };
  const Case cases[] = {
      {100, 200, {100, 114, 128, 142, 156, 170, 184, 198}},
      {200, 100, {200, 186, 172, 158, 144, 130, 116, 102}},
  };
  for (const Case& c : cases) {
    for (int w : kWidths) {
      Target t(8, 20);
      interpolateRange(t.bytes.data(), w, 8, t.stride, row16(c.top).data(), row16(c.bottom).data());
      for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < w; ++x) {
          ASSERT_EQ(t.at(x, y), c.rows[y]) << "top " << int(c.top) << " w " << w << " row " << y;
        }
        // Nothing right of the rectangle, up to the stride.
        for (int x = w; x < t.stride; ++x) ASSERT_EQ(t.at(x, y), Target::kUntouched);
      }
    }
  }
}

// The step is 256 / (h - 1), truncated, and the weight of row y is y * step. A difference of
// +255 in one column and -255 in the next shows every weight from 0 to 256 distinctly.
TEST(InterpolateRange, StepAndLastWeightFollowTheHeight) {
  struct Case {
    int h, step, last_weight;
  };
  const Case cases[] = {{2, 256, 256}, {8, 36, 252},  {16, 17, 255}, {24, 11, 253}, {32, 8, 248},
                        {48, 5, 235},  {64, 4, 252},  {128, 2, 254}, {129, 2, 256}, {200, 1, 199},
                        {256, 1, 255}, {257, 1, 256}, {258, 0, 0},   {272, 0, 0},   {1000, 0, 0}};
  std::vector<uint8_t> top(16), bottom(16);
  for (int x = 0; x < 16; ++x) {
    top[x] = (x & 1) ? 255 : 0;
    bottom[x] = (x & 1) ? 0 : 255;
  }
  auto expected = [](int x, int weight) {
    return (x & 1) ? 255 + ((-255 * weight + 128) >> 8) : ((255 * weight + 128) >> 8);
  };
  for (const Case& c : cases) {
    for (int w : kWidths) {
      Target t(c.h, 16);
      interpolateRange(t.bytes.data(), w, c.h, t.stride, top.data(), bottom.data());
      for (int y = 0; y < c.h; ++y) {
        for (int x = 0; x < w; ++x) {
          ASSERT_EQ(t.at(x, y), expected(x, y * c.step))
              << "h " << c.h << " w " << w << " row " << y << " column " << x;
        }
      }
      for (int x = 0; x < w; ++x) {
        EXPECT_EQ(t.at(x, c.h - 1), expected(x, c.last_weight)) << "h " << c.h << " w " << w;
      }
    }
  }
}

TEST(InterpolateRange, DifferenceOfOneRoundsHalvesUpwards) {
  // h = 3 has the weights 0, 128, 256; h = 129 has 126, 128, 130 at rows 63, 64, 65.
  struct Case {
    int h;
    uint8_t top, bottom;
    std::vector<std::pair<int, int>> row_values;
  };
  const Case cases[] = {
      {3, 50, 51, {{0, 50}, {1, 51}, {2, 51}}},
      {3, 51, 50, {{0, 51}, {1, 51}, {2, 50}}},
      {129, 50, 51, {{63, 50}, {64, 51}, {65, 51}, {128, 51}}},
      {129, 51, 50, {{63, 51}, {64, 51}, {65, 50}, {128, 50}}},
  };
  for (const Case& c : cases) {
    for (int w : kWidths) {
      Target t(c.h, 16);
      interpolateRange(t.bytes.data(), w, c.h, t.stride, row16(c.top).data(),
                       row16(c.bottom).data());
      for (const auto& [y, value] : c.row_values) {
        EXPECT_EQ(t.at(w - 1, y), value)
            << "h " << c.h << " " << int(c.top) << "->" << int(c.bottom) << " row " << y;
      }
    }
  }
}

TEST(InterpolateRange, ReferenceRowsDecideEveryColumnByItself) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int h : {2, 8, 16, 40, 129, 272}) {
    std::vector<uint8_t> top(16), bottom(16);
    for (int x = 0; x < 16; ++x) top[x] = static_cast<uint8_t>(byte(rng));
    for (int w : kWidths) {
      // Equal reference rows: every row equals them.
      Target same(h, 24);
      interpolateRange(same.bytes.data(), w, h, same.stride, top.data(), top.data());
      for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) ASSERT_EQ(same.at(x, y), top[x]) << "h " << h << " row " << y;
      }
    }
    // Random reference rows: each sample lies between its own column's references, the first
    // row copies `top`.
    for (int x = 0; x < 16; ++x) bottom[x] = static_cast<uint8_t>(byte(rng));
    Target t(h, 16);
    interpolateRange(t.bytes.data(), 16, h, t.stride, top.data(), bottom.data());
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < 16; ++x) {
        ASSERT_GE(t.at(x, y), std::min(top[x], bottom[x]));
        ASSERT_LE(t.at(x, y), std::max(top[x], bottom[x]));
        if (y == 0) {
          ASSERT_EQ(t.at(x, y), top[x]);
        }
      }
    }
  }
}

TEST(InterpolateRange, TallRectangleRepeatsTop) {
  // 17 luma MCUs of 16 rows: the step is 0 and the bottom row has no influence.
  const int h = 272;
  std::vector<uint8_t> top(16), bottom(16);
  for (int x = 0; x < 16; ++x) {
    top[x] = static_cast<uint8_t>(10 * x);
    bottom[x] = static_cast<uint8_t>(255 - 10 * x);
  }
  for (int w : kWidths) {
    Target t(h, 16);
    interpolateRange(t.bytes.data(), w, h, t.stride, top.data(), bottom.data());
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) ASSERT_EQ(t.at(x, y), top[x]) << "row " << y;
    }
  }
}

TEST(InterpolateRange, TooWideIsReportedAndNothingIsWritten) {
  const std::vector<uint8_t> top(32, 10), bottom(32, 250);
  for (int check_level : {1, 0}) {
    LogCapture log(2, check_level);
    Target t(8, 32);
    interpolateRange(t.bytes.data(), 17, 8, t.stride, top.data(), bottom.data());
    EXPECT_TRUE(std::all_of(t.bytes.begin(), t.bytes.end(),
                            [](uint8_t b) { return b == Target::kUntouched; }));
    const std::vector<std::string> expected =
        check_level >= 1 ? std::vector<std::string>{"Check failed: w <= 16 (17 vs. 16) "}
                         : std::vector<std::string>{};
    EXPECT_EQ(log.texts(1, "check"), expected);
  }
  // The largest allowed width reports nothing.
  LogCapture log;
  Target t(8, 32);
  interpolateRange(t.bytes.data(), 16, 8, t.stride, top.data(), bottom.data());
  EXPECT_TRUE(log.lines().empty());
}

TEST(InterpolateRange, EmptyAndSingleRowRectangles) {
  LogCapture log;
  const std::vector<uint8_t> top = row16(30), bottom = row16(90);
  struct Case {
    int w, h;
  };
  // Nothing to write: no sample may change, and none of these is a fault worth a line.
  for (const Case& c : {Case{0, 8}, Case{-3, 8}, Case{16, 0}, Case{8, -1}, Case{16, -100}}) {
    Target t(8, 16);
    interpolateRange(t.bytes.data(), c.w, c.h, t.stride, top.data(), bottom.data());
    EXPECT_TRUE(std::all_of(t.bytes.begin(), t.bytes.end(),
                            [](uint8_t b) { return b == Target::kUntouched; }))
        << "w " << c.w << " h " << c.h;
  }
  // One row has weight 0 and copies `top` (and doesn't divide by zero).
  for (int w : kWidths) {
    Target t(2, 16);
    interpolateRange(t.bytes.data(), w, 1, t.stride, top.data(), bottom.data());
    for (int x = 0; x < 16; ++x) {
      EXPECT_EQ(t.at(x, 0), x < w ? 30 : Target::kUntouched) << "w " << w;
      EXPECT_EQ(t.at(x, 1), Target::kUntouched);
    }
  }
  EXPECT_TRUE(log.lines().empty());
}

// ---- fixBadMCUs on a hand-built decoder -----------------------------------------------------

struct Factors {
  int slot, h, v;
};

// Puts the decoder into the state that the frame header, the scan header and the entropy
// driver leave behind: header, grid, random planes, and the bad spans (first MCU, count).
void buildDecoder(SimpleJPEGDecoder* d, int width, int height, const std::vector<Factors>& slots,
                  const std::vector<std::pair<int, int>>& bad_spans, unsigned seed) {
  int hmax = 1, vmax = 1;
  for (const Factors& f : slots) {
    hmax = std::max(hmax, f.h);
    vmax = std::max(vmax, f.v);
  }
  d->header_.width_ = width;
  d->header_.height_ = height;
  d->mcus_x_ = ((width + 7) / 8 + hmax - 1) / hmax;
  d->mcus_y_ = ((height + 7) / 8 + vmax - 1) / vmax;
  d->total_mcus_ = d->mcus_x_ * d->mcus_y_;
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> byte(0, 255);
  for (const Factors& f : slots) {
    Component& component = d->header_.components_[f.slot];
    component.component_id_ = f.slot;
    component.h1_ = f.h;
    component.v1_ = f.v;
    Channel& channel = d->channels_[f.slot];
    channel.mcu_width_ = f.h * 8;
    channel.stride_ = channel.mcu_width_ * d->mcus_x_;
    channel.mcu_row_size_ = channel.stride_ * 8 * f.v;
    channel.height_ = d->mcus_y_ * 8 * f.v;
    const int size = channel.stride_ * channel.height_;
    channel.image_ = new uint8_t[size];
    for (int i = 0; i < size; ++i) channel.image_[i] = static_cast<uint8_t>(byte(rng));
  }
  if (!bad_spans.empty()) d->bad_mcus_.assign(d->total_mcus_, 0);
  for (const auto& [first, count] : bad_spans) {
    std::fill_n(d->bad_mcus_.begin() + first, count, 1);
  }
  d->valid_mcus_ =
      d->total_mcus_ - static_cast<int>(std::count(d->bad_mcus_.begin(), d->bad_mcus_.end(), 1));
}

std::vector<std::vector<uint8_t>> planesOf(const SimpleJPEGDecoder& d) {
  std::vector<std::vector<uint8_t>> planes(kMaxComponents);
  for (int slot = 0; slot < kMaxComponents; ++slot) {
    const Channel& c = d.channels_[slot];
    if (c.image_ != nullptr) planes[slot].assign(c.image_, c.image_ + c.stride_ * c.height_);
  }
  return planes;
}

enum class Fill { kInterpolate, kCopy, kGrey };

// What one rectangle of one plane must hold after the repair. The reference rows are plane
// rows outside every repaired rectangle: `above` and `below` for kInterpolate, `above` alone
// (the row repeated) for kCopy.
struct Region {
  int slot, x, y, w, h;
  Fill fill;
  int above = -1, below = -1;
};

Region interpolated(int slot, int x, int y, int w, int h, int above, int below) {
  return {slot, x, y, w, h, Fill::kInterpolate, above, below};
}
Region copied(int slot, int x, int y, int w, int h, int source) {
  return {slot, x, y, w, h, Fill::kCopy, source, -1};
}
Region grey(int slot, int x, int y, int w, int h) { return {slot, x, y, w, h, Fill::kGrey}; }

// Works out the expected planes from the planes before the repair, and compares all bytes of
// every plane, so that a byte written outside the regions fails as well.
void expectRepaired(const SimpleJPEGDecoder& d, const std::vector<std::vector<uint8_t>>& before,
                    const std::vector<Region>& regions) {
  std::vector<std::vector<uint8_t>> expected = before;
  for (const Region& r : regions) {
    const int stride = d.channels_[r.slot].stride_;
    const std::vector<uint8_t>& old = before[r.slot];
    std::vector<uint8_t>& plane = expected[r.slot];
    const int step = r.h > 1 ? 256 / (r.h - 1) : 0;
    for (int y = 0; y < r.h; ++y) {
      for (int x = r.x; x < r.x + r.w; ++x) {
        int value = 0x80;
        if (r.fill == Fill::kCopy) {
          value = old[r.above * stride + x];
        } else if (r.fill == Fill::kInterpolate) {
          const int top = old[r.above * stride + x];
          const int bottom = old[r.below * stride + x];
          value = top + (((bottom - top) * y * step + 128) >> 8);
        }
        plane[(r.y + y) * stride + x] = static_cast<uint8_t>(value);
      }
    }
  }
  const std::vector<std::vector<uint8_t>> after = planesOf(d);
  for (int slot = 0; slot < kMaxComponents; ++slot) {
    ASSERT_EQ(after[slot].size(), expected[slot].size());
    const int stride = d.channels_[slot].stride_;
    for (size_t i = 0; i < after[slot].size(); ++i) {
      ASSERT_EQ(int(after[slot][i]), int(expected[slot][i]))
          << "slot " << slot << " column " << i % stride << " row " << i / stride
          << (after[slot][i] == before[slot][i] ? " (not written)" : " (written)");
    }
  }
}

struct RepairCase {
  std::string name;
  int width, height;
  std::vector<Factors> factors;
  std::vector<std::pair<int, int>> bad_spans;  // first MCU number, number of MCUs
  std::vector<Region> regions;
};

const std::vector<Factors> k420 = {{1, 2, 2}, {2, 1, 1}, {3, 1, 1}};

// Regions of a run of bad 4:2:0 MCUs (column `mcu_x`, rows first..last). A copy at the top
// edge repeats the row below the run, elsewhere the row above it.
void add420(std::vector<Region>* regions, int mcu_x, int first, int last, Fill fill) {
  const int mcu_rows = last - first + 1;
  for (int slot = 1; slot <= 3; ++slot) {
    const int size = slot == 1 ? 16 : 8;
    const int x = mcu_x * size, y = first * size, h = mcu_rows * size;
    switch (fill) {
      case Fill::kInterpolate:
        regions->push_back(interpolated(slot, x, y, size, h, y - 1, y + h));
        break;
      case Fill::kCopy:
        regions->push_back(copied(slot, x, y, size, h, y == 0 ? h : y - 1));
        break;
      case Fill::kGrey:
        regions->push_back(grey(slot, x, y, size, h));
        break;
    }
  }
}

std::vector<RepairCase> repairCases() {
  std::vector<RepairCase> cases;

  // One bad MCU in the middle: luma 16x16 at column 80, row 160 between rows 159 and 176;
  // chroma 8x8 at column 40, row 80 between rows 79 and 88. Slots 0 and 4 stay as decoded.
  cases.push_back({"OneMCUInside",
                   640,
                   480,
                   {{0, 1, 1}, {1, 2, 2}, {2, 1, 1}, {3, 1, 1}, {4, 1, 1}},
                   {{10 * 40 + 5, 1}},
                   {interpolated(1, 80, 160, 16, 16, 159, 176),
                    interpolated(2, 40, 80, 8, 8, 79, 88), interpolated(3, 40, 80, 8, 8, 79, 88)}});
  cases.push_back(
      {"TopEdgeRepeatsRowBelow",
       640,
       480,
       k420,
       {{7, 1}},
       {copied(1, 112, 0, 16, 16, 16), copied(2, 56, 0, 8, 8, 8), copied(3, 56, 0, 8, 8, 8)}});
  cases.push_back({"BottomEdgeRepeatsRowAbove",
                   640,
                   480,
                   k420,
                   {{29 * 40 + 7, 1}},
                   {copied(1, 112, 464, 16, 16, 463), copied(2, 56, 232, 8, 8, 231),
                    copied(3, 56, 232, 8, 8, 231)}});
  {
    RepairCase c{"WholeColumnIsGrey", 640, 480, k420, {}, {}};
    for (int y = 0; y < 30; ++y) c.bad_spans.push_back({y * 40 + 3, 1});
    c.regions = {grey(1, 48, 0, 16, 480), grey(2, 24, 0, 8, 240), grey(3, 24, 0, 8, 240)};
    cases.push_back(c);
  }
  {
    // Rows 4..8 of column 7: one interpolation over 80 luma rows (step 3) between the row
    // above the run and the row below it.
    RepairCase c{"RunOfFiveMCUs", 640, 480, k420, {}, {}};
    for (int y = 4; y <= 8; ++y) c.bad_spans.push_back({y * 40 + 7, 1});
    c.regions = {interpolated(1, 112, 64, 16, 80, 63, 144), interpolated(2, 56, 32, 8, 40, 31, 72),
                 interpolated(3, 56, 32, 8, 40, 31, 72)};
    cases.push_back(c);
  }
  cases.push_back(
      {"TwoRunsAroundOneGoodMCU",
       640,
       480,
       k420,
       {{10 * 40 + 2, 1}, {12 * 40 + 2, 1}},
       {interpolated(1, 32, 160, 16, 16, 159, 176), interpolated(1, 32, 192, 16, 16, 191, 208),
        interpolated(2, 16, 80, 8, 8, 79, 88), interpolated(2, 16, 96, 8, 8, 95, 104),
        interpolated(3, 16, 80, 8, 8, 79, 88), interpolated(3, 16, 96, 8, 8, 95, 104)}});
  {
    RepairCase c{"WholeMCURowEachColumnByItself", 640, 480, k420, {{10 * 40, 40}}, {}};
    for (int x = 0; x < 40; ++x) add420(&c.regions, x, 10, 10, Fill::kInterpolate);
    cases.push_back(c);
  }
  {
    // A failed span of one and a half MCU rows from the left edge: runs of two MCUs in the
    // first 20 columns, runs of one in the others.
    RepairCase c{"SpanOfOneAndAHalfRows", 640, 480, k420, {{10 * 40, 60}}, {}};
    for (int x = 0; x < 40; ++x) add420(&c.regions, x, 10, x < 20 ? 11 : 10, Fill::kInterpolate);
    cases.push_back(c);
  }
  {
    RepairCase c{"LowerPartLost", 640, 480, k420, {{20 * 40, 400}}, {}};
    for (int x = 0; x < 40; ++x) add420(&c.regions, x, 20, 29, Fill::kCopy);
    cases.push_back(c);
  }
  {
    RepairCase c{"UpperPartLost", 640, 480, k420, {{0, 5 * 40}}, {}};
    for (int x = 0; x < 40; ++x) add420(&c.regions, x, 0, 4, Fill::kCopy);
    cases.push_back(c);
  }
  {
    RepairCase c{"WholeFrameLost", 640, 480, k420, {{0, 1200}}, {}};
    c.regions = {grey(1, 0, 0, 640, 480), grey(2, 0, 0, 320, 240), grey(3, 0, 0, 320, 240)};
    cases.push_back(c);
  }
  // 1920x1080: the last MCU row lies partly below the frame and still counts as the bottom.
  cases.push_back(
      {"LastRowPartlyOutsideFrame",
       1920,
       1080,
       k420,
       {{67 * 120 + 119, 1}, {66 * 120 + 118, 1}},
       {copied(1, 1904, 1072, 16, 16, 1071), copied(2, 952, 536, 8, 8, 535),
        copied(3, 952, 536, 8, 8, 535), interpolated(1, 1888, 1056, 16, 16, 1055, 1072),
        interpolated(2, 944, 528, 8, 8, 527, 536), interpolated(3, 944, 528, 8, 8, 527, 536)}});
  // One MCU row: every run is the whole column, so every bad MCU is grey.
  cases.push_back({"SingleMCURowIsGrey",
                   64,
                   16,
                   k420,
                   {{1, 2}},
                   {grey(1, 16, 0, 32, 16), grey(2, 8, 0, 16, 8), grey(3, 8, 0, 16, 8)}});
  // Luma 3x1 is 24 samples wide, too wide to interpolate: grey. Chroma of the same MCUs is
  // interpolated or copied as usual. 96x48 gives a grid of 4 x 6 MCUs.
  cases.push_back({"WideLumaIsGreyChromaIsNot",
                   96,
                   48,
                   {{1, 3, 1}, {2, 1, 1}, {3, 1, 1}},
                   {{2 * 4 + 1, 1}, {2, 1}},
                   {grey(1, 24, 16, 24, 8), interpolated(2, 8, 16, 8, 8, 15, 24),
                    interpolated(3, 8, 16, 8, 8, 15, 24), grey(1, 48, 0, 24, 8),
                    copied(2, 16, 0, 8, 8, 8), copied(3, 16, 0, 8, 8, 8)}});
  // 4:4:4: every plane is 8 samples across, so copies move 8 bytes per row and the samples right
  // of the MCU (column 9 and on) keep their values.
  cases.push_back({"EightWideCopiesLeaveTheNextColumnAlone",
                   64,
                   64,
                   {{1, 1, 1}, {2, 1, 1}, {3, 1, 1}},
                   {{2, 1}, {7 * 8 + 5, 1}, {3 * 8 + 1, 1}},
                   {copied(1, 16, 0, 8, 8, 8), copied(2, 16, 0, 8, 8, 8), copied(3, 16, 0, 8, 8, 8),
                    copied(1, 40, 56, 8, 8, 55), copied(2, 40, 56, 8, 8, 55),
                    copied(3, 40, 56, 8, 8, 55), interpolated(1, 8, 24, 8, 8, 23, 32),
                    interpolated(2, 8, 24, 8, 8, 23, 32), interpolated(3, 8, 24, 8, 8, 23, 32)}});
  // 4:2:2: luma 16 wide and 8 high, chroma 8x8.
  cases.push_back({"FourTwoTwo",
                   64,
                   32,
                   {{1, 2, 1}, {2, 1, 1}, {3, 1, 1}},
                   {{1 * 4 + 1, 1}},
                   {interpolated(1, 16, 8, 16, 8, 7, 16), interpolated(2, 8, 8, 8, 8, 7, 16),
                    interpolated(3, 8, 8, 8, 8, 7, 16)}});
  // A plane with a factor of 0 is empty (a zero-sized array): nothing may be written to it,
  // also not at the top edge where the copy would move 8 bytes per row.
  cases.push_back({"EmptyPlanesAreSkipped",
                   64,
                   32,
                   {{1, 2, 2}, {2, 0, 1}, {3, 1, 0}},
                   {{0, 1}, {1 * 4 + 2, 1}},
                   {copied(1, 0, 0, 16, 16, 16), copied(1, 32, 16, 16, 16, 15)}});
  // Slot 3 never named: its image_ is null and it is skipped.
  cases.push_back({"MissingPlaneIsSkipped",
                   64,
                   64,
                   {{1, 2, 2}, {2, 1, 1}},
                   {{1 * 4 + 1, 1}},
                   {interpolated(1, 16, 16, 16, 16, 15, 32), interpolated(2, 8, 8, 8, 8, 7, 16)}});
  // bad_mcus_ sized but without a bad MCU, and bad_mcus_ empty: nothing changes.
  cases.push_back({"NoBadMCU", 640, 480, k420, {{5, 0}}, {}});
  cases.push_back({"NoMap", 640, 480, k420, {}, {}});
  return cases;
}

class FixBadMCUs : public ::testing::TestWithParam<RepairCase> {};

TEST_P(FixBadMCUs, RepairsExactlyTheRuns) {
  const RepairCase& c = GetParam();
  SimpleJPEGDecoder decoder;
  buildDecoder(&decoder, c.width, c.height, c.factors, c.bad_spans, 1234);
  const std::vector<uint8_t> map = decoder.bad_mcus_;
  const int valid = decoder.valid_mcus_;
  const std::vector<std::vector<uint8_t>> before = planesOf(decoder);
  {
    LogCapture log(8, 1);
    decoder.fixBadMCUs();
    EXPECT_TRUE(log.lines().empty()) << "repair logs nothing";
  }
  expectRepaired(decoder, before, c.regions);
  // Nothing is booked as repaired.
  EXPECT_EQ(decoder.bad_mcus_, map);
  EXPECT_EQ(decoder.valid_mcus_, valid);
}

INSTANTIATE_TEST_SUITE_P(Runs, FixBadMCUs, ::testing::ValuesIn(repairCases()),
                         [](const ::testing::TestParamInfo<RepairCase>& info) {
                           return info.param.name;
                         });

TEST(FixBadMCUsGrid, EmptyGridWalksNothing) {
  for (const auto& [mcus_x, mcus_y] : {std::pair{0, 4}, std::pair{4, 0}, std::pair{-1, -1}}) {
    SimpleJPEGDecoder decoder;
    buildDecoder(&decoder, 64, 64, k420, {{0, 4}}, 5);
    decoder.mcus_x_ = mcus_x;
    decoder.mcus_y_ = mcus_y;
    const std::vector<std::vector<uint8_t>> before = planesOf(decoder);
    decoder.fixBadMCUs();
    EXPECT_EQ(planesOf(decoder), before) << mcus_x << " x " << mcus_y;
  }
}

TEST(FixBadMCUsGrid, FixMCURangeTreatsTheGivenRowsAsOneRun) {
  // Called directly, the range needn't be marked: rows 1..2 of column 0 in a 4:2:0 frame of
  // 2 x 4 MCUs (32x64 luma) are interpolated over 32 luma rows between rows 15 and 48.
  SimpleJPEGDecoder decoder;
  buildDecoder(&decoder, 32, 64, k420, {}, 9);
  const std::vector<std::vector<uint8_t>> before = planesOf(decoder);
  decoder.fixMCURange(0, 1, 2);
  expectRepaired(decoder, before,
                 {interpolated(1, 0, 16, 16, 32, 15, 48), interpolated(2, 0, 8, 8, 16, 7, 24),
                  interpolated(3, 0, 8, 8, 16, 7, 24)});
}

TEST(FixBadMCUsGrid, RunsOutsideTheGridWriteNothing) {
  SimpleJPEGDecoder decoder;
  buildDecoder(&decoder, 32, 64, k420, {}, 11);  // 2 x 4 MCUs
  const std::vector<std::vector<uint8_t>> before = planesOf(decoder);
  struct Run {
    int mcu_x, first_row, last_row;
  };
  for (const Run& run : {Run{2, 1, 1}, Run{-1, 1, 1}, Run{0, -1, 1}, Run{0, 2, 4}, Run{0, 3, 2}}) {
    decoder.fixMCURange(run.mcu_x, run.first_row, run.last_row);
    EXPECT_EQ(planesOf(decoder), before)
        << run.mcu_x << " " << run.first_row << ".." << run.last_row;
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
