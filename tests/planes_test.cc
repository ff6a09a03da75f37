// The plane operations: box resampling to 4:2:0 and the copy between strides, through the
// exported functions (the processor's forms behind the guard for empty results). The scalar forms
// give the same bytes (checkasm) and are the ones exported under VIDRA_CPU_MASK=nosimd.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "jpeg_dsp.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

constexpr uint8_t kUntouched = 0xA5;

// Whole planes across the vector step: every result takes rows 2y, 2y + 1 and (4:4:4) columns
// 2x, 2x + 1, rounded with +1 for both (so a four-sample sum of 2 gives 0); the destination's
// stride gaps stay. A width or height of 0 or less writes nothing.
TEST(Resample, PlanesWithStrideGaps) {
  const int sizes[][2] = {{1, 3}, {15, 3}, {16, 3}, {17, 3}, {33, 3},
                          {8, 0}, {0, 3},  {-3, 3}, {8, -1}};
  for (const auto& [width, height] : sizes) {
    for (bool is444 : {true, false}) {
      const int src_stride = (is444 ? 2 : 1) * std::max(width, 0) + 5;
      const int dst_stride = std::max(width, 0) + 7, rows = std::max(height, 1);
      std::vector<uint8_t> src(static_cast<size_t>(2 * rows) * src_stride);
      for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 37 + i / 7);
      std::vector<uint8_t> dst(static_cast<size_t>(rows) * dst_stride, kUntouched);
      (is444 ? resample444To420 : resample422To420)(src.data(), src_stride, dst.data(), dst_stride,
                                                    width, height);
      for (int y = 0; y < rows; ++y) {
        const uint8_t* a = &src[static_cast<size_t>(2 * y) * src_stride];
        const uint8_t* b = a + src_stride;
        for (int x = 0; x < dst_stride; ++x) {
          const int expected = x >= width || y >= height ? kUntouched
                               : is444
                                   ? (a[2 * x] + a[2 * x + 1] + b[2 * x] + b[2 * x + 1] + 1) >> 2
                                   : (a[x] + b[x] + 1) >> 1;
          ASSERT_EQ(dst[static_cast<size_t>(y) * dst_stride + x], expected)
              << (is444 ? "444 " : "422 ") << width << "x" << height << " at " << x << "," << y;
        }
      }
    }
  }
}

// Equal positive strides: one block copy of stride * height bytes, the bytes behind `width`
// (whatever it says, 0 included) and those of the last row too. Otherwise `width` bytes per row,
// the rest of each destination row kept, also for equal negative strides (bottom-up planes): no
// block to copy. A height of 0, or a width of 0 or less on the row-by-row way, writes nothing.
TEST(AdaptStrides, BlockCopyOrRowCopy) {
  const struct {
    int src_stride, dst_stride, width, height;
  } cases[] = {{32, 32, 20, 3}, {32, 32, 0, 2}, {32, 33, 20, 3},  {20, 64, 20, 2},
               {64, 20, 20, 4}, {7, 5, 1, 1},   {-12, -12, 9, 4}, {16, 16, 8, 0},
               {16, 8, 8, 0},   {16, 8, 0, 4},  {16, 8, -1, 4}};
  for (const auto& c : cases) {
    const bool block = c.src_stride == c.dst_stride && c.src_stride > 0;
    const int src_abs = std::abs(c.src_stride), dst_abs = std::abs(c.dst_stride);
    std::vector<uint8_t> src(static_cast<size_t>(src_abs) * c.height);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 3 + 1);
    std::vector<uint8_t> dst(static_cast<size_t>(dst_abs) * c.height + 8, kUntouched);
    // Row 0 is the last one in memory for a negative stride.
    auto row0 = [&](int stride) { return stride < 0 ? size_t(c.height - 1) * -stride : 0; };
    adaptStrides(src.data() + row0(c.src_stride), c.src_stride, dst.data() + row0(c.dst_stride),
                 c.dst_stride, c.width, c.height);
    for (size_t i = 0; i < dst.size(); ++i) {
      const int y = static_cast<int>(i / dst_abs), x = static_cast<int>(i % dst_abs);
      const bool copied = y < c.height && x < (block ? dst_abs : c.width);
      ASSERT_EQ(dst[i], copied ? src[y * src_abs + x] : kUntouched)
          << c.src_stride << "->" << c.dst_stride << " width " << c.width << " at " << i;
    }
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
