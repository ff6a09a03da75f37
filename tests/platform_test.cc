// The logging and CPU probe layers. (The check macros' lines: the decoder tests that pin them.)

#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>

#include "support/test_support.h"
#include "vidra/cpu_info.h"
#include "vidra/log.h"

namespace vidra {
namespace {

using test::LogCapture;

TEST(LoggingTest, DisabledLevelsEvaluateNothingPrintfSitesAndBreakStep) {
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
  // A break level of 3 calls handleAssertion() for such lines; with breaks off, execution goes on.
  setLoggerBreakLevel(3);
  VIDRA_LOGF(3, "mjpeg", "again");
  setLoggerBreakLevel(0);
  EXPECT_TRUE(capture.contains("assert", "Reached terminating log level"));
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

TEST(CpuInfoTest, MaskHidesFeatures) {
  const char* saved = std::getenv("VIDRA_CPU_MASK");
  const std::string saved_value = saved ? saved : "";
  for (const char* mask : {"nosse41", "nosimd"}) {
    setenv("VIDRA_CPU_MASK", mask, 1);
    EXPECT_FALSE(CPUInfo().supports_fast_decoder() || CPUInfo().has_sse41()) << mask;
  }
  EXPECT_FALSE(CPUInfo().has_ssse3());  // hidden by "nosimd" only
  EXPECT_FALSE(CPUInfo().has_avx2());
  setenv("VIDRA_CPU_MASK", " noavx2", 1);
  const CPUInfo no_avx2;
  EXPECT_FALSE(no_avx2.has_avx2());
  for (const char* mask : {"noneon", "nosse41, noneon", "nosimd"}) {
    setenv("VIDRA_CPU_MASK", mask, 1);
    EXPECT_FALSE(CPUInfo().has_neon()) << mask;
  }
  unsetenv("VIDRA_CPU_MASK");
  const CPUInfo plain;
#if defined(__x86_64__)
  const bool both = __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("sse4.1");
  EXPECT_TRUE(!both || plain.supports_fast_decoder());
#endif
  // Every aarch64 processor has NEON; no other has it.
#if defined(__aarch64__)
  EXPECT_TRUE(plain.has_neon());
#else
  EXPECT_FALSE(plain.has_neon());
#endif
  EXPECT_EQ(plain.supports_fast_decoder(), plain.has_ssse3() && plain.has_sse41());
  EXPECT_EQ(no_avx2.supports_fast_decoder(), plain.supports_fast_decoder());
#if defined(__x86_64__)
  EXPECT_EQ(plain.has_avx2(), __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
                                  __builtin_cpu_supports("bmi2"));
#endif
  if (saved) setenv("VIDRA_CPU_MASK", saved_value.c_str(), 1);
}

}  // namespace
}  // namespace vidra
