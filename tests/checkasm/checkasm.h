// Harness that proves every vector routine identical to its scalar twin.
//
// Each area of the library has a file checkasm_<area>.cc with tests that build inputs (random
// and edge cases), run the scalar entry of the table and the vector entry on copies, and
// compare the outputs byte for byte. The tests skip where the processor (or VIDRA_CPU_MASK)
// allows no vector forms. VIDRA_CHECKASM_BENCH=1 also prints the time per call of both forms.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "jpeg_dsp.h"
#include "mjpeg.h"

namespace vidra {
namespace checkasm {

struct Tables {
  jpeg::DSPFunctions scalar;
  jpeg::DSPFunctions vector;
  bool vector_available;
};

inline const Tables& tables() {
  static const Tables t = [] {
    Tables result;
    jpeg::initDSPScalar(&result.scalar);
    result.vector = result.scalar;
    jpeg::initDSPx86(&result.vector, jpeg::g_cpu_info_);
    result.vector_available = jpeg::g_cpu_info_.supports_fast_decoder();
    return result;
  }();
  return t;
}

#define CHECKASM_REQUIRE_VECTOR()                                                   \
  do {                                                                              \
    if (!::vidra::checkasm::tables().vector_available)                              \
      GTEST_SKIP() << "no vector forms on this processor (or hidden by the mask)"; \
  } while (0)

// Deterministic random source, seeded per test so that failures reproduce.
inline std::mt19937& rng() {
  static std::mt19937 generator(20261122u);
  return generator;
}

inline std::vector<uint8_t> randomBytes(size_t n) {
  std::vector<uint8_t> bytes(n);
  std::uniform_int_distribution<int> byte(0, 255);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(byte(rng()));
  return bytes;
}

inline bool benchRequested() {
  const char* value = std::getenv("VIDRA_CHECKASM_BENCH");
  return value != nullptr && value[0] == '1';
}

// Prints the time per call of `scalar` and `vector` when VIDRA_CHECKASM_BENCH=1.
template <typename Scalar, typename Vector>
void benchPair(const char* name, Scalar&& scalar, Vector&& vector, int iterations = 20000) {
  if (!benchRequested()) return;
  auto time = [iterations](auto&& fn) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < iterations; ++i) fn();
    const auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - start).count() / iterations;
  };
  const double c = time(scalar);
  const double v = time(vector);
  std::printf("checkasm %-28s scalar %9.1f ns  vector %9.1f ns  x%.2f\n", name, c, v, c / v);
}

}  // namespace checkasm
}  // namespace vidra
