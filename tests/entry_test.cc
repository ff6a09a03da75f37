// Decoder selection and the size query of the public entry points.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <tuple>
#include <utility>

#include "mjpeg.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

using test::LogCapture;

// Which decoder handled a call, from its level-6 line.
std::string decoderUsed(const LogCapture& capture) {
  for (const test::LogLine& line : capture.lines()) {
    if (line.level == 6 && line.text == "Using jpeg-turbo") return "turbo";
    if (line.level == 6 && line.text == "Using simple jpeg decoder.") return "simple";
  }
  return "none";
}

class SelectionTest : public ::testing::Test {
 protected:
  void TearDown() override { setForceJPEGTurboDecoder(false); }
};

TEST_F(SelectionTest, ForceFlagPicksTurboUntilCleared) {
  const std::vector<uint8_t> frame = test::encodeTestFrame(64, 48, TJSAMP_420);
  test::Planes planes(64, 48);
  const std::string fast = g_cpu_info_.supports_fast_decoder() ? "simple" : "turbo";
  for (bool force : {true, false, true, false}) {
    LogCapture capture(/*mjpeg_level=*/6);
    setForceJPEGTurboDecoder(force);
    decompressMJPEG(frame.data(), frame.size(), 64, 48, false, planes.y.data(), planes.y_stride,
                    planes.u.data(), planes.uv_stride, planes.v.data(), planes.uv_stride);
    EXPECT_EQ(decoderUsed(capture), force ? "turbo" : fast) << "force=" << force;
  }
}

// Only the header counts: a frame cut into its entropy data still gives its size.
TEST_F(SelectionTest, ImageSizeComesFromTheHeaderWhateverTheFlag) {
  std::vector<uint8_t> cut = test::encodeTestFrame(48, 40, TJSAMP_444);
  cut.resize(cut.size() - cut.size() / 3);
  for (const auto& [frame, w, h] :
       {std::make_tuple(test::encodeTestFrame(101, 75, TJSAMP_422), 101, 75),
        std::make_tuple(cut, 48, 40)}) {
    for (bool force : {false, true}) {
      setForceJPEGTurboDecoder(force);
      int width = 0, height = 0;
      EXPECT_TRUE(getJPEGImageSize(frame.data(), frame.size(), &width, &height));
      EXPECT_EQ(std::make_pair(width, height), std::make_pair(w, h)) << force;
    }
  }
}

TEST(ImageSizeTest, BadHeadersAreRefusedWithTheirReason) {
  const std::vector<uint8_t> frame = test::encodeTestFrame(32, 32, TJSAMP_420);
  const uint8_t garbage[] = {0x12, 0x34, 0x56, 0x78, 0x9a};
  const uint8_t bad_sof[] = {0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x02, 0xFF, 0xD9};
  const std::pair<const uint8_t*, size_t> cases[] = {{garbage, sizeof(garbage)},
                                                     {frame.data(), 0},
                                                     {frame.data(), 1},
                                                     {bad_sof, sizeof(bad_sof)},
                                                     {nullptr, 0}};
  for (const auto& [data, size] : cases) {
    LogCapture capture;
    int width = -7, height = -7;
    EXPECT_FALSE(getJPEGImageSize(data, size, &width, &height)) << size;
    ASSERT_EQ(capture.texts(2, "mjpeg").size(), 1u);
    EXPECT_EQ(capture.texts(2, "mjpeg")[0].rfind("Error decoding (M)JPEG header: ", 0), 0u);
  }
}

// TurboJPEG takes a stream that ends in its header for a tables-only stream and says yes
// without a size; the caller then reads 0x0 instead of whatever its variables held.
TEST(ImageSizeTest, HeaderlessStreamGivesZeroSize) {
  const uint8_t soi[] = {0xFF, 0xD8};
  int width = -7, height = -7;
  getJPEGImageSize(soi, sizeof(soi), &width, &height);
  EXPECT_EQ(std::make_pair(width, height), std::make_pair(0, 0));
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
