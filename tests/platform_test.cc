// The logging and CPU probe layers. (The check macros' lines: the decoder tests that pin them.)

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <tuple>
#include <utility>

#include "support/test_support.h"
#include "vidra/cpu_info.h"
#include "vidra/log.h"

namespace vidra {
namespace {

using test::LogCapture;

TEST(LoggingTest, DisabledLevelsEvaluateNothingAndPrintfSitesFormat) {
  LogCapture capture(/*mjpeg_level=*/6);
  int evaluated = 0;
  auto counted = [&] { return ++evaluated, "counted"; };
  VIDRA_LOG(7, "mjpeg") << counted();
  VIDRA_LOG(3, "other") << counted();  // other channels keep the default level 2
  EXPECT_EQ(evaluated, 0);
  EXPECT_TRUE(capture.lines().empty());

  VIDRA_LOG(6, "mjpeg") << counted() << " " << 42;
  EXPECT_EQ(evaluated, 1);
  ASSERT_EQ(capture.lines().size(), 1u);
  const auto& line = capture.lines()[0];
  EXPECT_EQ(std::tie(line.text, line.level, line.channel),
            std::make_tuple("counted 42", 6, "mjpeg"));

  VIDRA_LOGF(3, "mjpeg", "Unhandled JPEG marker %02x", 0xc2);
  EXPECT_EQ(capture.texts(3, "mjpeg"), (std::vector<std::string>{"Unhandled JPEG marker c2"}));
}

TEST(LoggingTest, LevelsPerChannelAndDefault) {
  LogCapture capture;
  setLoggerLevel("mjpeg", 0);
  EXPECT_FALSE(isLoggerEnabled(1, "mjpeg"));
  EXPECT_TRUE(isLoggerEnabled(1, "check"));
  setLoggerLevel(std::string(40, 'x').c_str(), 0);  // a name longer than a slot holds
  EXPECT_FALSE(isLoggerEnabled(1, std::string(40, 'x').c_str()));
  setLoggerLevel(nullptr, 8);
  EXPECT_TRUE(isLoggerEnabled(8, "anything"));
  EXPECT_FALSE(isLoggerEnabled(2, "mjpeg"));  // its own level still stands
  resetLoggerLevels();                        // back to level 2 everywhere
  EXPECT_TRUE(isLoggerEnabled(2, "mjpeg"));
  EXPECT_FALSE(isLoggerEnabled(3, "mjpeg"));
  EXPECT_FALSE(isLoggerEnabled(3, "anything"));
}

// A sink installed "if unset" yields to one that a host set first, and to nothing else.
TEST(LoggingTest, SinkIfUnsetKeepsTheHostsSink) {
  auto quiet = [](void*, int, const char*, const char*, int, const char*) {};
  {
    LogCapture host;  // a host's sink
    EXPECT_FALSE(setLogSinkIfUnset(quiet, nullptr));
    VIDRA_LOG(2, "mjpeg") << "kept";
    EXPECT_TRUE(host.contains("mjpeg", "kept"));
  }
  EXPECT_TRUE(setLogSinkIfUnset(quiet, nullptr));  // the capture restored stderr
  EXPECT_FALSE(setLogSinkIfUnset(quiet, nullptr));
  setLogSink(nullptr, nullptr);
}

// Each mask word hides its feature and nothing else (blanks around words don't count); the
// unmasked probe agrees with the compiler's, and the fast decoder needs SSSE3 and SSE4.1.
TEST(CpuInfoTest, MaskHidesFeatures) {
  const char* saved = std::getenv("VIDRA_CPU_MASK");
  const std::string saved_value = saved ? saved : "";
  unsetenv("VIDRA_CPU_MASK");
  const CPUInfo plain;
  auto features = [](const CPUInfo& c) {  // SSSE3, SSE4.1, AVX2, NEON, the fast decoder
    return std::array<bool, 5>{c.has_ssse3(), c.has_sse41(), c.has_avx2(), c.has_neon(),
                               c.supports_fast_decoder()};
  };
  const std::pair<const char*, std::array<bool, 5>> kept[] = {
      {"nosse41", {1, 0, 1, 1, 0}},
      {" noavx2", {1, 1, 0, 1, 1}},
      {"nosse41, noneon", {1, 0, 1, 0, 0}},
      {"nosimd", {0, 0, 0, 0, 0}},
  };
  for (const auto& [mask, keeps] : kept) {
    setenv("VIDRA_CPU_MASK", mask, 1);
    std::array<bool, 5> expected = features(plain);
    for (int i = 0; i < 5; ++i) expected[i] = expected[i] && keeps[i];
    EXPECT_EQ(features(CPUInfo()), expected) << mask;
  }
  if (saved) setenv("VIDRA_CPU_MASK", saved_value.c_str(), 1);
  if (!saved) unsetenv("VIDRA_CPU_MASK");
  EXPECT_EQ(plain.supports_fast_decoder(), plain.has_ssse3() && plain.has_sse41());
#if defined(__x86_64__)
  EXPECT_EQ(plain.supports_fast_decoder(),
            __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("sse4.1"));
  EXPECT_EQ(plain.has_avx2(), __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
                                  __builtin_cpu_supports("bmi2"));
#endif
#if defined(__aarch64__)
  EXPECT_TRUE(plain.has_neon());  // every aarch64 processor has it
#else
  EXPECT_FALSE(plain.has_neon());
#endif
}

}  // namespace
}  // namespace vidra
