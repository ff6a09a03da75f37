// Vector forms of the conceal routines against their scalar twins.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "checkasm/checkasm.h"

namespace vidra {
namespace checkasm {
namespace {

constexpr int kGuard = 32;  // bytes in front of and behind every rectangle

struct Rectangle {
  int h;
  int stride;
  std::vector<uint8_t> memory;  // kGuard bytes, h rows of `stride` bytes, kGuard bytes
  std::vector<uint8_t> top;
  std::vector<uint8_t> bottom;

  Rectangle(int rows, int row_stride) : h(rows), stride(row_stride) {
    memory = randomBytes(static_cast<size_t>(2 * kGuard + std::max(h, 1) * stride));
    top = randomBytes(16);
    bottom = randomBytes(16);
  }
  uint8_t* dest(std::vector<uint8_t>* copy) const { return copy->data() + kGuard; }
};

// Runs both forms on copies of `r` and expects the same bytes everywhere, and the bytes outside
// the 16 x h rectangle (guards and the gaps between rows) as they were.
void compareForms(const Rectangle& r, const char* what) {
  std::vector<uint8_t> by_scalar = r.memory;
  std::vector<uint8_t> by_vector = r.memory;
  tables().scalar.interpolateRange16(r.dest(&by_scalar), r.h, r.stride, r.top.data(),
                                     r.bottom.data());
  tables().vector.interpolateRange16(r.dest(&by_vector), r.h, r.stride, r.top.data(),
                                     r.bottom.data());
  ASSERT_EQ(by_scalar, by_vector) << what << " h=" << r.h << " stride=" << r.stride;
  for (size_t i = 0; i < r.memory.size(); ++i) {
    const long offset = static_cast<long>(i) - kGuard;
    const bool inside = offset >= 0 && offset / r.stride < r.h && offset % r.stride < 16;
    if (!inside) {
      ASSERT_EQ(by_vector[i], r.memory[i])
          << what << " h=" << r.h << " stride=" << r.stride << " byte " << offset << " changed";
    }
  }
}

TEST(Checkasm_conceal, InterpolateRange16RandomRows) {
  CHECKASM_REQUIRE_VECTOR();
  for (int stride : {16, 17, 24, 40, 67}) {
    for (int h = 0; h <= 300; ++h) compareForms(Rectangle(h, stride), "random");
  }
}

TEST(Checkasm_conceal, InterpolateRange16ExtremeRows) {
  CHECKASM_REQUIRE_VECTOR();
  // Full-scale differences in both directions, differences of one (rounding of halves), and
  // the heights around the step boundaries.
  const std::vector<std::pair<uint8_t, uint8_t>> pairs = {{0, 255},   {255, 0},   {0, 1},    {1, 0},
                                                          {127, 128}, {128, 127}, {255, 255}};
  for (int h : {1, 2, 3, 8, 16, 24, 128, 129, 130, 256, 257, 258, 272, 300}) {
    for (const auto& pair : pairs) {
      Rectangle r(h, 20);
      for (int x = 0; x < 16; ++x) {
        // Alternate the direction across the row so that every lane sees both signs.
        r.top[x] = (x & 1) ? pair.second : pair.first;
        r.bottom[x] = (x & 1) ? pair.first : pair.second;
      }
      compareForms(r, "extreme");
    }
  }
}

TEST(Checkasm_conceal, InterpolateRange16Bench) {
  CHECKASM_REQUIRE_VECTOR();
  for (int h : {16, 48, 272}) {
    Rectangle r(h, 64);
    std::vector<uint8_t> scalar_out = r.memory;
    std::vector<uint8_t> vector_out = r.memory;
    const std::string name = "interpolateRange16 h=" + std::to_string(h);
    benchPair(
        name.c_str(),
        [&] {
          tables().scalar.interpolateRange16(r.dest(&scalar_out), h, r.stride, r.top.data(),
                                             r.bottom.data());
        },
        [&] {
          tables().vector.interpolateRange16(r.dest(&vector_out), h, r.stride, r.top.data(),
                                             r.bottom.data());
        });
    EXPECT_EQ(scalar_out, vector_out);
  }
}

}  // namespace
}  // namespace checkasm
}  // namespace vidra
