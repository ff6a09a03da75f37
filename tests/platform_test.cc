// The logging and CPU probe layers.

#include <gtest/gtest.h>

#include <cstdlib>

#include "jpeg_check.h"
#include "support/test_support.h"
#include "vidra/cpu_info.h"
#include "vidra/log.h"

namespace vidra {
namespace {

using test::LogCapture;

// Counts how often it is formatted into a stream.
struct Counted {
  int* count;
};
std::ostream& operator<<(std::ostream& out, const Counted& counted) {
  ++*counted.count;
  return out << "counted";
}

TEST(LoggingTest, DisabledLevelsFormatNothing) {
  LogCapture capture(/*mjpeg_level=*/6);
  int formatted = 0;
  VIDRA_LOG(7, "mjpeg") << Counted{&formatted};
  VIDRA_LOG(3, "other") << Counted{&formatted};  // other channels keep the default level 2
  EXPECT_EQ(formatted, 0);
  EXPECT_TRUE(capture.lines().empty());

  VIDRA_LOG(6, "mjpeg") << Counted{&formatted} << " " << 42;
  EXPECT_EQ(formatted, 1);
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].text, "counted 42");
  EXPECT_EQ(capture.lines()[0].level, 6);
  EXPECT_EQ(capture.lines()[0].channel, "mjpeg");
}

TEST(LoggingTest, LevelsPerChannelAndDefault) {
  LogCapture capture;
  EXPECT_TRUE(isLoggerEnabled(2, "mjpeg"));
  EXPECT_FALSE(isLoggerEnabled(3, "mjpeg"));
  setLoggerLevel("mjpeg", 0);
  EXPECT_FALSE(isLoggerEnabled(1, "mjpeg"));
  EXPECT_TRUE(isLoggerEnabled(1, "check"));
  setLoggerLevel(nullptr, 8);
  EXPECT_TRUE(isLoggerEnabled(8, "anything"));
  EXPECT_FALSE(isLoggerEnabled(2, "mjpeg"));  // its own level still stands
  resetLoggerLevels();
  EXPECT_TRUE(isLoggerEnabled(2, "mjpeg"));
  EXPECT_FALSE(isLoggerEnabled(3, "anything"));
}

TEST(LoggingTest, PrintfSitesAndBreakStep) {
  LogCapture capture(/*mjpeg_level=*/3);
  VIDRA_LOGF(3, "mjpeg", "Unhandled JPEG marker %02x", 0xc2);
  ASSERT_EQ(capture.texts(3, "mjpeg").size(), 1u);
  EXPECT_EQ(capture.texts(3, "mjpeg")[0], "Unhandled JPEG marker c2");

  // A host that asks messages up to level 3 to break gets handleAssertion() called; with
  // assertion breaks off, execution simply goes on.
  setLoggerBreakLevel(3);
  VIDRA_LOGF(3, "mjpeg", "again");
  setLoggerBreakLevel(0);
  EXPECT_TRUE(capture.contains("assert", "Reached terminating log level"));
}

int g_check_line = 0;
bool failingParser(int value) {
  g_check_line = __LINE__ + 1;
  JPEG_CHECK(value < 4);
  return true;
}

TEST(CheckTest, JpegCheckLogsLineAndText) {
  LogCapture capture;
  EXPECT_TRUE(failingParser(3));
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_FALSE(failingParser(4));
  ASSERT_EQ(capture.jpegChecks(), (std::vector<std::string>{"value < 4"}));
  const std::string& text = capture.lines()[0].text;
  EXPECT_EQ(text.substr(0, text.find(':')), std::to_string(g_check_line));
}

TEST(CheckTest, JpegCheckSilentWhenLevelDisabled) {
  LogCapture capture(/*mjpeg_level=*/1);
  EXPECT_FALSE(failingParser(9));
  EXPECT_TRUE(capture.lines().empty());
}

TEST(CheckTest, ComparisonAndPlainChecksGoOn) {
  LogCapture capture;
  EXPECT_EQ((MakeCheckOpString<int, int>(20, 16, "w <= 16")), "w <= 16 (20 vs. 16)");
  int w = 20;
  VIDRA_CHECK_LE(w, 16);
  int* consumed_length = nullptr;
  VIDRA_CHECK(consumed_length);
  EXPECT_EQ(capture.texts(1, "check"),
            (std::vector<std::string>{"Check failed: w <= 16 (20 vs. 16) ",
                                      "Check failed consumed_length "}));
  w = 16;
  VIDRA_CHECK_LE(w, 16);
  EXPECT_EQ(capture.lines().size(), 2u);
}

TEST(CpuInfoTest, MaskHidesFeatures) {
  const char* saved = std::getenv("VIDRA_CPU_MASK");
  const std::string saved_value = saved ? saved : "";

  setenv("VIDRA_CPU_MASK", "nosimd", 1);
  CPUInfo hidden;
  EXPECT_FALSE(hidden.supports_fast_decoder());
  EXPECT_FALSE(hidden.has_ssse3());

  setenv("VIDRA_CPU_MASK", "nosse41", 1);
  CPUInfo no_sse41;
  EXPECT_FALSE(no_sse41.supports_fast_decoder());
  EXPECT_FALSE(no_sse41.has_sse41());

  unsetenv("VIDRA_CPU_MASK");
  CPUInfo plain;
#if defined(__x86_64__)
  if (__builtin_cpu_supports("ssse3") && __builtin_cpu_supports("sse4.1")) {
    EXPECT_TRUE(plain.supports_fast_decoder());
  }
#endif
  EXPECT_EQ(plain.supports_fast_decoder(), plain.has_ssse3() && plain.has_sse41());

  if (saved) setenv("VIDRA_CPU_MASK", saved_value.c_str(), 1);
}

}  // namespace
}  // namespace vidra
