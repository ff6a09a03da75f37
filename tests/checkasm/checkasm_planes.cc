// Vector forms of the box resamplers against their scalar twins.

#include <string>

#include "checkasm/checkasm.h"

namespace vidra {
namespace checkasm {
namespace {

enum class Kind { k444, k422 };

const char* nameOf(Kind kind) { return kind == Kind::k444 ? "444To420" : "422To420"; }
jpeg::PlaneFn formOf(const jpeg::DSPFunctions& table, Kind kind) {
  return kind == Kind::k444 ? table.resample444To420 : table.resample422To420;
}

// Runs both forms on one source (rows `src_gap` bytes apart beyond what a row reads, starting
// `src_offset` bytes into an allocation that ends right behind the last row's area) into guarded
// destinations; compares them byte for byte, guards and stride gaps included. With `edges`, the
// samples are only 0, 1, 254 and 255: every rounding remainder of a sum and both extremes.
void compare(Kind kind, int width, int height, int src_gap, int dst_gap, int src_offset,
             int dst_offset, bool edges = false) {
  SCOPED_TRACE(testing::Message() << nameOf(kind) << " " << width << "x" << height << " gaps "
                                  << src_gap << "/" << dst_gap << " offsets " << src_offset << "/"
                                  << dst_offset << (edges ? " edges" : ""));
  const int src_width = kind == Kind::k444 ? 2 * width : width;
  const int src_stride = src_width + src_gap, dst_stride = width + dst_gap;
  std::vector<uint8_t> src = randomBytes(static_cast<size_t>(src_offset));
  const std::vector<uint8_t> plane = tightPlane(src_width, 2 * height, src_stride);
  src.insert(src.end(), plane.begin(), plane.end());
  if (edges) {
    for (uint8_t& b : src) b = static_cast<uint8_t>(b & 1 ? 255 - (b & 2) / 2 : (b & 2) / 2);
  }
  GuardedPlane expected(width, height, dst_stride, 64 + dst_offset), actual = expected;
  formOf(tables().scalar, kind)(src.data() + src_offset, src_stride, expected.data(), dst_stride,
                                width, height);
  formOf(tables().vector, kind)(src.data() + src_offset, src_stride, actual.data(), dst_stride,
                                width, height);
  EXPECT_EQ(firstDifference(expected.bytes, actual.bytes), -1);
  EXPECT_EQ(actual.firstChangeOutside(), -1);
}

// Every width up to 70 (short rows, the vector step and its remainder) and a few large ones, odd
// heights, with and without stride gaps, at source and destination offsets of no alignment.
TEST(Checkasm_planes, Resample) {
  CHECKASM_REQUIRE_VECTOR();
  for (Kind kind : {Kind::k444, Kind::k422}) {
    for (int width = 1; width <= 70; ++width) {
      for (int height : {1, 3, 7}) {
        for (int src_gap : {0, 5, 32}) {
          for (int dst_gap : {0, 3, 16}) {
            compare(kind, width, height, src_gap, dst_gap, (width + src_gap) % 16,
                    (width * 3 + dst_gap) % 16, height == 3);
          }
        }
      }
    }
    for (int width : {959, 960, 1920}) {
      compare(kind, width, 9, 0, 0, 0, 0);
      compare(kind, width, 5, 64, 7, 3, 9, true);
    }
    // The chroma of a 1920x1080 frame: 960x540 results.
    const int src_stride = kind == Kind::k444 ? 1920 : 960;
    const std::vector<uint8_t> src = tightPlane(src_stride, 1080, src_stride);
    std::vector<uint8_t> dst(960 * 540);
    const auto run = [&](const jpeg::DSPFunctions& table) {
      formOf(table, kind)(src.data(), src_stride, dst.data(), 960, 960, 540);
    };
    benchPair((std::string("resample") + nameOf(kind) + " 960x540").c_str(),
              [&] { run(tables().scalar); }, [&] { run(tables().vector); }, 200);
  }
}

}  // namespace
}  // namespace checkasm
}  // namespace vidra
