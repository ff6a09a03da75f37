// Harness that proves every vector routine identical to its scalar twin: each checkasm_<area>.cc
// builds inputs (random and edge cases), runs the table's scalar and vector entries on copies and
// compares the outputs byte for byte, skipping where the processor (or VIDRA_CPU_MASK) allows no
// vector forms. VIDRA_CHECKASM_BENCH=1 also prints the time per call of both forms.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
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
    jpeg::initDSPArm(&result.vector, jpeg::g_cpu_info_);
    result.vector_available =
        jpeg::g_cpu_info_.supports_fast_decoder() || jpeg::g_cpu_info_.has_neon();
    return result;
  }();
  return t;
}

#define CHECKASM_REQUIRE_VECTOR()                                                  \
  do {                                                                             \
    if (!::vidra::checkasm::tables().vector_available)                             \
      GTEST_SKIP() << "no vector forms on this processor (or hidden by the mask)"; \
  } while (0)

// Deterministic random source, seeded per test so that failures reproduce: the first call in
// each test reseeds it from the test's full name, so a test's inputs don't depend on which
// tests ran before it (--gtest_filter, shuffling). VIDRA_CHECKASM_SEED=<n> gives other inputs.
inline uint32_t baseSeed() {
  const char* value = std::getenv("VIDRA_CHECKASM_SEED");
  return value != nullptr ? static_cast<uint32_t>(std::strtoul(value, nullptr, 0)) : 20261122u;
}

inline std::mt19937& rng() {
  static std::mt19937 generator;
  static bool seeded = false;
  static const ::testing::TestInfo* seeded_for = nullptr;
  const ::testing::TestInfo* current = ::testing::UnitTest::GetInstance()->current_test_info();
  if (!seeded || current != seeded_for) {
    seeded = true;
    seeded_for = current;
    uint32_t seed = baseSeed();
    if (current != nullptr) {
      // FNV-1a over "Suite.Name".
      for (const char* text : {current->test_suite_name(), ".", current->name()}) {
        for (; *text != '\0'; ++text) seed = (seed ^ static_cast<uint8_t>(*text)) * 16777619u;
      }
    }
    generator.seed(seed);
  }
  return generator;
}

inline std::vector<uint8_t> randomBytes(size_t n) {
  std::vector<uint8_t> bytes(n);
  std::uniform_int_distribution<int> byte(0, 255);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(byte(rng()));
  return bytes;
}

// A source plane of `rows` rows `stride` bytes apart whose allocation ends right behind the last
// row's `width` bytes: a read past what the routine may read runs off the heap block. Random.
inline std::vector<uint8_t> tightPlane(int width, int rows, int stride) {
  if (rows <= 0) return {};
  return randomBytes(static_cast<size_t>(rows - 1) * stride + width);
}

// A destination plane of `rows` rows of `width` bytes, `stride` bytes apart, with `guard` bytes
// in front and behind. Everything starts out as a fixed pattern, which the bytes outside the rows
// (guards and stride gaps) must keep.
struct GuardedPlane {
  GuardedPlane(int width, int rows, int stride, int guard = 64)
      : width(width), rows(rows), stride(stride), guard(guard), bytes(2 * guard + rows * stride) {
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = pattern(i);
  }
  uint8_t* data() { return bytes.data() + guard; }
  static uint8_t pattern(size_t i) { return static_cast<uint8_t>(0x5A ^ (i * 7)); }
  // The index of the first changed byte outside the rows, or -1.
  long firstChangeOutside() const {
    for (size_t i = 0; i < bytes.size(); ++i) {
      const long offset = static_cast<long>(i) - guard;
      const bool inside = offset >= 0 && offset / stride < rows && offset % stride < width;
      if (!inside && bytes[i] != pattern(i)) return static_cast<long>(i);
    }
    return -1;
  }

  int width, rows, stride, guard;
  std::vector<uint8_t> bytes;
};

// Index of the first byte where `a` and `b` differ, or -1 when they are equal (sizes too).
inline long firstDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  const size_t n = std::min(a.size(), b.size());
  const long at = std::mismatch(a.begin(), a.begin() + n, b.begin()).first - a.begin();
  return at == static_cast<long>(n) && a.size() == b.size() ? -1 : at;
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
