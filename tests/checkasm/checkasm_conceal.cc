// Vector form of the 16-wide range interpolation against its scalar twin.

#include <utility>
#include <vector>

#include "checkasm/checkasm.h"

namespace vidra {
namespace checkasm {
namespace {

// Runs both forms on equal guarded rectangles; the reference rows are heap blocks of exactly
// 16 bytes, so that AddressSanitizer sees a read past them.
void compareForms(int h, int stride, const std::vector<uint8_t>& top,
                  const std::vector<uint8_t>& bottom) {
  GuardedPlane by_scalar(16, h, stride, 32), by_vector(16, h, stride, 32);
  tables().scalar.interpolateRange16(by_scalar.data(), h, stride, top.data(), bottom.data());
  tables().vector.interpolateRange16(by_vector.data(), h, stride, top.data(), bottom.data());
  ASSERT_EQ(firstDifference(by_scalar.bytes, by_vector.bytes), -1) << "h=" << h << " " << stride;
  ASSERT_EQ(by_vector.firstChangeOutside(), -1) << "h=" << h << " stride=" << stride;
}

TEST(Checkasm_conceal, InterpolateRange16) {
  CHECKASM_REQUIRE_VECTOR();
  // Every height up to 300, past the step boundaries (129, 257, 258, 272).
  for (int stride : {16, 17, 40}) {
    for (int h = 0; h <= 300; ++h) compareForms(h, stride, randomBytes(16), randomBytes(16));
  }
  // Full-scale differences and differences of one (rounding of halves), the direction
  // alternating across the row so that every lane sees both signs.
  const std::pair<uint8_t, uint8_t> pairs[] = {{0, 255}, {0, 1}, {127, 128}, {255, 255}};
  for (int h : {1, 2, 3, 8, 129, 257, 258, 272}) {
    for (const auto& [a, b] : pairs) {
      std::vector<uint8_t> top(16), bottom(16);
      for (int x = 0; x < 16; ++x) {
        top[x] = (x & 1) ? b : a;
        bottom[x] = (x & 1) ? a : b;
      }
      compareForms(h, 20, top, bottom);
    }
  }
  const std::vector<uint8_t> top = randomBytes(16), bottom = randomBytes(16);
  GuardedPlane out(16, 272, 64);
  benchPair(
      "interpolateRange16 h=272",
      [&] { tables().scalar.interpolateRange16(out.data(), 272, 64, top.data(), bottom.data()); },
      [&] { tables().vector.interpolateRange16(out.data(), 272, 64, top.data(), bottom.data()); });
}

}  // namespace
}  // namespace checkasm
}  // namespace vidra
