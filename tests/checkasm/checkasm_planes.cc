// Vector forms of the box resamplers against their scalar twins.

#include <algorithm>
#include <string>

#include "checkasm/checkasm.h"

namespace vidra {
namespace checkasm {
namespace {

enum class Kind { k444, k422 };

// What each kind reads for a result of `width` x `height`.
int sourceWidth(Kind kind, int width) { return kind == Kind::k444 ? 2 * width : width; }

jpeg::PlaneFn scalarOf(Kind kind) {
  return kind == Kind::k444 ? tables().scalar.resample444To420 : tables().scalar.resample422To420;
}
jpeg::PlaneFn vectorOf(Kind kind) {
  return kind == Kind::k444 ? tables().vector.resample444To420 : tables().vector.resample422To420;
}
const char* nameOf(Kind kind) { return kind == Kind::k444 ? "444To420" : "422To420"; }

// Runs both forms on the same source (rows `src_stride` apart, the allocation ending behind
// the last row's area) into guarded destinations starting at `dst_offset`, and compares the
// destinations byte for byte, guards and stride gaps included.
void compareOn(Kind kind, const std::vector<uint8_t>& src, int src_offset, int src_stride,
               int width, int height, int dst_stride, int dst_offset = 0) {
  SCOPED_TRACE(std::string(nameOf(kind)) + " width " + std::to_string(width) + " height " +
               std::to_string(height) + " src_stride " + std::to_string(src_stride) +
               " dst_stride " + std::to_string(dst_stride) + " src_offset " +
               std::to_string(src_offset) + " dst_offset " + std::to_string(dst_offset));
  GuardedPlane expected(width, height, dst_stride, 64 + dst_offset);
  GuardedPlane actual(width, height, dst_stride, 64 + dst_offset);
  scalarOf(kind)(src.data() + src_offset, src_stride, expected.data(), dst_stride, width, height);
  vectorOf(kind)(src.data() + src_offset, src_stride, actual.data(), dst_stride, width, height);
  EXPECT_EQ(firstDifference(expected.bytes, actual.bytes), -1);
  EXPECT_EQ(actual.firstChangeOutside(), -1);
  EXPECT_EQ(expected.firstChangeOutside(), -1);
}

void compareRandom(Kind kind, int width, int height, int src_gap, int dst_gap, int src_offset = 0,
                   int dst_offset = 0) {
  const int src_width = sourceWidth(kind, width);
  const int src_stride = src_width + src_gap;
  std::vector<uint8_t> src = randomBytes(static_cast<size_t>(src_offset));
  const std::vector<uint8_t> plane = tightPlane(src_width, 2 * height, src_stride);
  src.insert(src.end(), plane.begin(), plane.end());
  compareOn(kind, src, src_offset, src_stride, width, height, width + dst_gap, dst_offset);
}

class PlanesCheckasm : public ::testing::TestWithParam<Kind> {};

TEST_P(PlanesCheckasm, RandomWidthsOddHeightsAndStrideGaps) {
  CHECKASM_REQUIRE_VECTOR();
  for (int width = 1; width <= 70; ++width) {
    for (int height : {1, 3, 7}) {
      for (int src_gap : {0, 5, 32}) {
        for (int dst_gap : {0, 3, 16}) compareRandom(GetParam(), width, height, src_gap, dst_gap);
      }
    }
  }
}

TEST_P(PlanesCheckasm, LargeWidths) {
  CHECKASM_REQUIRE_VECTOR();
  for (int width : {959, 960, 1920}) {
    compareRandom(GetParam(), width, 9, 0, 0);
    compareRandom(GetParam(), width, 5, 64, 7);
  }
}

TEST_P(PlanesCheckasm, NoAlignmentAssumed) {
  CHECKASM_REQUIRE_VECTOR();
  for (int src_offset = 0; src_offset < 16; ++src_offset) {
    for (int dst_offset : {0, 1, 7, 15}) {
      compareRandom(GetParam(), 49, 3, 1, 2, src_offset, dst_offset);
    }
  }
}

// Every value of a 2x2 box sum modulo 4 (the rounding step), the extremes, and widths
// around the vector step.
TEST_P(PlanesCheckasm, RoundingEdgesAroundTheVectorStep) {
  CHECKASM_REQUIRE_VECTOR();
  const Kind kind = GetParam();
  // Row values chosen so that columns produce the box sums 0, 1, 2, 3, 4 and 1020 (444), or
  // the pair sums 1 (0 + 1), 509 (254 + 255), 6 (3 + 3) and 510 (422).
  const uint8_t top444[][2] = {{0, 0}, {1, 0}, {1, 1}, {1, 1}, {2, 1}, {255, 255}};
  const uint8_t bottom444[][2] = {{0, 0}, {0, 0}, {0, 0}, {1, 0}, {1, 0}, {255, 255}};
  const int expected444[] = {0, 0, 0, 1, 1, 255};
  const uint8_t top422[] = {0, 254, 3, 255, 1};
  const uint8_t bottom422[] = {1, 255, 3, 255, 1};
  const int expected422[] = {1, 255, 3, 255, 1};
  for (int width : {15, 16, 17, 31, 32, 33}) {
    for (int height : {1, 2}) {
      const int src_width = sourceWidth(kind, width);
      const int src_stride = src_width + 3;
      std::vector<uint8_t> src = tightPlane(src_width, 2 * height, src_stride);
      std::vector<int> expected(static_cast<size_t>(width));
      for (int y = 0; y < height; ++y) {
        uint8_t* a = src.data() + static_cast<size_t>(2 * y) * src_stride;
        uint8_t* b = a + src_stride;
        for (int x = 0; x < width; ++x) {
          if (kind == Kind::k444) {
            const int k = (x + y) % 6;
            a[2 * x] = top444[k][0];
            a[2 * x + 1] = top444[k][1];
            b[2 * x] = bottom444[k][0];
            b[2 * x + 1] = bottom444[k][1];
            expected[x] = expected444[k];
          } else {
            const int k = (x + y) % 5;
            a[x] = top422[k];
            b[x] = bottom422[k];
            expected[x] = expected422[k];
          }
        }
        GuardedPlane out(width, 1, width);
        vectorOf(kind)(a, src_stride, out.data(), width, width, 1);
        for (int x = 0; x < width; ++x) {
          EXPECT_EQ(out.data()[x], expected[x]) << "width " << width << " row " << y << " x " << x;
        }
        EXPECT_TRUE(out.untouchedOutside());
      }
      compareOn(kind, src, 0, src_stride, width, height, width + 1);
    }
  }
}

TEST_P(PlanesCheckasm, EmptyResultsWriteNothing) {
  CHECKASM_REQUIRE_VECTOR();
  const std::vector<uint8_t> src = randomBytes(256);
  for (int width : {0, -1, 5}) {
    for (int height : {0, -2}) {
      GuardedPlane out(0, 0, 16);
      vectorOf(GetParam())(src.data(), 32, out.data(), 16, width, height);
      EXPECT_TRUE(out.untouchedOutside()) << width << "x" << height;
    }
    GuardedPlane out(0, 0, 16);
    if (width <= 0) vectorOf(GetParam())(src.data(), 32, out.data(), 16, width, 3);
    EXPECT_TRUE(out.untouchedOutside()) << width << "x3";
  }
}

TEST_P(PlanesCheckasm, Bench) {
  CHECKASM_REQUIRE_VECTOR();
  if (!benchRequested()) return;
  const Kind kind = GetParam();
  // The chroma of a 1920x1080 frame: 960x540 results.
  const int width = 960, height = 540;
  const int src_stride = sourceWidth(kind, width);
  const std::vector<uint8_t> src = tightPlane(src_stride, 2 * height, src_stride);
  std::vector<uint8_t> dst_c(static_cast<size_t>(width) * height);
  std::vector<uint8_t> dst_v(dst_c.size());
  benchPair((std::string("resample") + nameOf(kind) + " 960x540").c_str(),
            [&] { scalarOf(kind)(src.data(), src_stride, dst_c.data(), width, width, height); },
            [&] { vectorOf(kind)(src.data(), src_stride, dst_v.data(), width, width, height); },
            200);
  EXPECT_EQ(dst_c, dst_v);
}

INSTANTIATE_TEST_SUITE_P(Resample, PlanesCheckasm, ::testing::Values(Kind::k444, Kind::k422),
                         [](const ::testing::TestParamInfo<Kind>& info) {
                           return std::string(nameOf(info.param));
                         });

}  // namespace
}  // namespace checkasm
}  // namespace vidra
