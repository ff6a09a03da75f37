// Decoder selection and the size query of the public entry points.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "jpeg.h"
#include "mjpeg.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

using test::LogCapture;

class SelectionTest : public ::testing::Test {
 protected:
  void TearDown() override { setForceJPEGTurboDecoder(false); }
};

TEST_F(SelectionTest, ForceFlagPicksTurboUntilCleared) {
  const std::vector<uint8_t> frame = test::encodeTestFrame(64, 48, TJSAMP_420);
  test::Planes planes(64, 48);
  for (bool force : {true, false, true, false}) {
    LogCapture capture(/*mjpeg_level=*/6);
    setForceJPEGTurboDecoder(force);
    decompressMJPEG(frame.data(), frame.size(), 64, 48, false, planes.y.data(), planes.y_stride,
                    planes.u.data(), planes.uv_stride, planes.v.data(), planes.uv_stride);
    const bool own = !force && g_cpu_info_.supports_fast_decoder();
    EXPECT_EQ(capture.texts(6, "mjpeg"),
              std::vector<std::string>{own ? "Using simple jpeg decoder." : "Using jpeg-turbo"})
        << "force=" << force;
    EXPECT_EQ(automaticDecoder() == Decoder::kOwn, own);
  }
}

// With the flag off on a processor that allows it, decompressMJPEG() is SimpleJPEGDecoder alone:
// the same result, planes and log lines as the decoder called directly, also for frames that it
// refuses (progressive) or fails after concealment (cut in half), where TurboJPEG must not be
// tried instead. Inputs lie in exact-size heap blocks (the address sanitizer sees reads behind
// them). Two calls add 4 GiB to the size, of which only the low 32 bits may reach the decoder,
// or the cut frame's entropy data would run on behind its end.
TEST_F(SelectionTest, FastPathIsSimpleJPEGDecoderAlone) {
  if (!g_cpu_info_.supports_fast_decoder()) {
    GTEST_SKIP() << "the processor (or VIDRA_CPU_MASK) rules out the fast path";
  }
  // The SOF0 marker turned into SOF2.
  std::vector<uint8_t> progressive = test::encodeTestFrame(64, 48, TJSAMP_420);
  progressive[test::markerAt(progressive, 0xC0) + 1] = 0xC2;
  std::vector<uint8_t> truncated = test::encodeTestFrame(64, 48, TJSAMP_420);
  truncated.resize(truncated.size() / 2);
  const size_t k4GiB = static_cast<size_t>(uint64_t{1} << 32);  // 0 on 32-bit builds
  const struct {
    const char* name;
    std::vector<uint8_t> frame;
    int width, height;
    size_t extra_size;
    bool ok;
  } cases[] = {
      {"4:2:0", test::encodeTestFrame(77, 45, TJSAMP_420), 77, 45, 0, true},
      {"4:2:2, 4 GiB more", test::encodeTestFrame(101, 75, TJSAMP_422), 101, 75, k4GiB, true},
      {"progressive", progressive, 64, 48, 0, false},
      {"truncated, 4 GiB more", truncated, 64, 48, k4GiB, false},
  };
  setForceJPEGTurboDecoder(false);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<uint8_t[]> data(new uint8_t[c.frame.size()]);
    std::copy(c.frame.begin(), c.frame.end(), data.get());
    test::Planes direct(c.width, c.height, c.width + 3, c.width / 2 + 5), entry = direct;
    LogCapture capture(/*mjpeg_level=*/6);
    SimpleJPEGDecoder decoder;
    const bool expected = decoder.decompress(data.get(), c.frame.size(), c.width, c.height, false,
                                             direct.y.data(), direct.y_stride, direct.u.data(),
                                             direct.uv_stride, direct.v.data(), direct.uv_stride);
    EXPECT_EQ(expected, c.ok);
    const std::vector<test::LogLine> direct_log = capture.lines();
    capture.clear();
    EXPECT_EQ(decompressMJPEG(data.get(), c.frame.size() + c.extra_size, c.width, c.height, false,
                              entry.y.data(), entry.y_stride, entry.u.data(), entry.uv_stride,
                              entry.v.data(), entry.uv_stride),
              expected);
    EXPECT_TRUE(entry == direct);
    EXPECT_EQ(capture.texts(6, "mjpeg"), std::vector<std::string>{"Using simple jpeg decoder."});
    EXPECT_EQ(capture.lines(), direct_log);
  }
}

// Only the header counts: a frame cut into its entropy data still gives its size. Bad headers
// are refused with TurboJPEG's reason; a stream that ends in its header, which TurboJPEG takes
// for a tables-only stream, gives 0x0 instead of whatever the caller's variables held.
TEST(ImageSizeTest, FromTheHeaderAlone) {
  const std::vector<uint8_t> frame = test::encodeTestFrame(101, 75, TJSAMP_422);
  std::vector<uint8_t> cut = test::encodeTestFrame(48, 40, TJSAMP_444);
  cut.resize(cut.size() - cut.size() / 3);
  const uint8_t garbage[] = {0x12, 0x34, 0x56, 0x78, 0x9a}, soi[] = {0xFF, 0xD8};
  const uint8_t bad_sof[] = {0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x02, 0xFF, 0xD9};
  const struct {
    const uint8_t* data;
    size_t size;
    bool ok;
    int width, height;
  } cases[] = {{frame.data(), frame.size(), true, 101, 75},
               {cut.data(), cut.size(), true, 48, 40},
               {soi, sizeof(soi), true, 0, 0},
               {garbage, sizeof(garbage), false, 0, 0},
               {frame.data(), 0, false, 0, 0},
               {frame.data(), 1, false, 0, 0},
               {bad_sof, sizeof(bad_sof), false, 0, 0},
               {nullptr, 0, false, 0, 0}};
  for (const auto& c : cases) {
    LogCapture capture;
    int width = -7, height = -7;
    EXPECT_EQ(getJPEGImageSize(c.data, c.size, &width, &height), c.ok) << c.size;
    EXPECT_EQ(std::make_pair(width, height), std::make_pair(c.width, c.height)) << c.size;
    const std::vector<std::string> lines = capture.texts(2, "mjpeg");
    ASSERT_EQ(lines.size(), c.ok ? 0u : 1u) << c.size;
    EXPECT_TRUE(c.ok || lines[0].rfind("Error decoding (M)JPEG header: ", 0) == 0) << lines[0];
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
