// The plane operations: box resampling to 4:2:0 and the copy between strides.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "jpeg_dsp.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

constexpr uint8_t kUntouched = 0xA5;

// The exported function (dispatched through the processor's table) and the scalar form must
// both give the documented results.
struct Form {
  const char* name;
  PlaneFn resample444;
  PlaneFn resample422;
};
const Form kForms[] = {{"exported", resample444To420, resample422To420},
                       {"scalar", resample444To420_c, resample422To420_c}};

TEST(Resample444To420, BoxAverageRoundsWithOne) {
  // 2x2 box (a0 a1 / b0 b1) -> result. The rounding term is 1, not 2: a sum of 2 gives 0.
  struct Case {
    uint8_t a0, a1, b0, b1, expected;
  };
  const Case cases[] = {
      {1, 2, 3, 4, 2},            // (10 + 1) >> 2
      {1, 0, 0, 0, 0},            // sum 1
      {1, 1, 0, 0, 0},            // sum 2: (2 + 1) >> 2 = 0, not 1
      {1, 1, 1, 0, 1},            // sum 3
      {0, 0, 0, 0, 0},            //
      {255, 255, 255, 255, 255},  // no overflow at the top
      {255, 255, 255, 254, 255},  // 1019 + 1 = 1020 -> 255
      {255, 255, 254, 254, 254},  // 1018 + 1 = 1019 -> 254
  };
  for (const Form& form : kForms) {
    for (const Case& c : cases) {
      const uint8_t src[4] = {c.a0, c.a1, c.b0, c.b1};
      uint8_t dst[2] = {kUntouched, kUntouched};
      form.resample444(src, 2, dst, 1, 1, 1);
      EXPECT_EQ(dst[0], c.expected) << form.name << " " << int(c.a0) << "," << int(c.a1) << "/"
                                    << int(c.b0) << "," << int(c.b1);
      EXPECT_EQ(dst[1], kUntouched) << form.name;
    }
  }
}

TEST(Resample422To420, PairAverageRoundsHalfUp) {
  struct Case {
    uint8_t a, b, expected;
  };
  const Case cases[] = {{0, 1, 1},       {254, 255, 255}, {3, 3, 3},   {0, 0, 0},
                        {255, 255, 255}, {10, 13, 12},    {13, 10, 12}};
  for (const Form& form : kForms) {
    for (const Case& c : cases) {
      const uint8_t src[2] = {c.a, c.b};
      uint8_t dst[2] = {kUntouched, kUntouched};
      form.resample422(src, 1, dst, 1, 1, 1);
      EXPECT_EQ(dst[0], c.expected) << form.name << " " << int(c.a) << "," << int(c.b);
      EXPECT_EQ(dst[1], kUntouched) << form.name;
    }
  }
}

// Reference of both formulas on a whole plane, with rows and columns kept apart: a result
// must take its rows 2y, 2y + 1 and (for 4:4:4) its columns 2x, 2x + 1, and the stride gaps
// of the destination stay as they were.
TEST(Resample, PlanesWithStrideGapsAcrossTheVectorStep) {
  for (const Form& form : kForms) {
    for (int width : {1, 15, 16, 17, 33}) {
      const int height = 3;
      for (bool is444 : {true, false}) {
        const int src_width = is444 ? 2 * width : width;
        const int src_stride = src_width + 5;
        const int dst_stride = width + 7;
        std::vector<uint8_t> src(static_cast<size_t>(2 * height) * src_stride);
        for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 37 + i / 7);
        std::vector<uint8_t> dst(static_cast<size_t>(height) * dst_stride, kUntouched);
        (is444 ? form.resample444 : form.resample422)(src.data(), src_stride, dst.data(),
                                                      dst_stride, width, height);
        for (int y = 0; y < height; ++y) {
          const uint8_t* a = &src[static_cast<size_t>(2 * y) * src_stride];
          const uint8_t* b = a + src_stride;
          for (int x = 0; x < dst_stride; ++x) {
            int expected = kUntouched;
            if (x < width) {
              expected = is444 ? (a[2 * x] + a[2 * x + 1] + b[2 * x] + b[2 * x + 1] + 1) >> 2
                               : (a[x] + b[x] + 1) >> 1;
            }
            ASSERT_EQ(dst[static_cast<size_t>(y) * dst_stride + x], expected)
                << form.name << (is444 ? " 444" : " 422") << " width " << width << " at " << x
                << "," << y;
          }
        }
      }
    }
  }
}

TEST(AdaptStrides, EqualStridesCopyWholeRowsAsOneBlock) {
  // Stride 32: all 32 bytes of every row arrive, those of the last row too, whatever `width`
  // says (also 0), and nothing behind stride * height.
  const int stride = 32, height = 3;
  for (int width : {20, 32, 0}) {
    std::vector<uint8_t> src(static_cast<size_t>(stride) * height);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i + 1);
    std::vector<uint8_t> dst(src.size() + 8, kUntouched);
    adaptStrides(src.data(), stride, dst.data(), stride, width, height);
    EXPECT_TRUE(std::equal(src.begin(), src.end(), dst.begin())) << "width " << width;
    for (size_t i = src.size(); i < dst.size(); ++i) EXPECT_EQ(dst[i], kUntouched) << i;
  }
}

TEST(AdaptStrides, OtherStridesCopyWidthBytesPerRow) {
  struct Case {
    int src_stride, dst_stride, width, height;
  };
  const Case cases[] = {{32, 33, 20, 3}, {20, 64, 20, 2}, {64, 20, 20, 4}, {7, 5, 1, 1}};
  for (const Case& c : cases) {
    std::vector<uint8_t> src(static_cast<size_t>(c.src_stride) * c.height);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 3 + 1);
    std::vector<uint8_t> dst(static_cast<size_t>(c.dst_stride) * c.height, kUntouched);
    adaptStrides(src.data(), c.src_stride, dst.data(), c.dst_stride, c.width, c.height);
    for (int y = 0; y < c.height; ++y) {
      for (int x = 0; x < c.dst_stride; ++x) {
        const int expected =
            x < c.width ? src[static_cast<size_t>(y) * c.src_stride + x] : kUntouched;
        ASSERT_EQ(dst[static_cast<size_t>(y) * c.dst_stride + x], expected)
            << c.src_stride << "->" << c.dst_stride << " at " << x << "," << y;
      }
    }
  }
}

// Bottom-up planes: equal negative strides have no block to copy; rows go one by one.
TEST(AdaptStrides, EqualNegativeStridesCopyRowByRow) {
  const int stride = 12, width = 9, height = 4;
  std::vector<uint8_t> src(static_cast<size_t>(stride) * height);
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i + 1);
  std::vector<uint8_t> dst(src.size(), kUntouched);
  const size_t last_row = static_cast<size_t>(height - 1) * stride;
  adaptStrides(src.data() + last_row, -stride, dst.data() + last_row, -stride, width, height);
  for (size_t i = 0; i < dst.size(); ++i) {
    EXPECT_EQ(dst[i], i % stride < static_cast<size_t>(width) ? src[i] : kUntouched) << i;
  }
}

TEST(PlaneOperations, EmptyResultsWriteNothing) {
  const std::vector<uint8_t> src(256, 0x11);
  struct Case {
    const char* name;
    PlaneFn fn;
    int src_stride, dst_stride, width, height;
  };
  const Case cases[] = {
      {"adaptStrides height 0, equal strides", adaptStrides, 16, 16, 8, 0},
      {"adaptStrides height 0", adaptStrides, 16, 8, 8, 0},
      {"adaptStrides width 0, row by row", adaptStrides, 16, 8, 0, 4},
      {"adaptStrides width -1, row by row", adaptStrides, 16, 8, -1, 4},
      {"resample444To420 height 0", resample444To420, 16, 8, 8, 0},
      {"resample444To420 width 0", resample444To420, 16, 8, 0, 4},
      {"resample444To420 width -3", resample444To420, 16, 8, -3, 4},
      {"resample422To420 height 0", resample422To420, 16, 8, 8, 0},
      {"resample422To420 width 0", resample422To420, 16, 8, 0, 4},
      {"resample422To420 height -1", resample422To420, 16, 8, 8, -1},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> dst(64, kUntouched);
    c.fn(src.data(), c.src_stride, dst.data(), c.dst_stride, c.width, c.height);
    EXPECT_EQ(dst, std::vector<uint8_t>(64, kUntouched)) << c.name;
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
