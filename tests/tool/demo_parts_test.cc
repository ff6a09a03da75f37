// The demo's parts: the webcam-style encoder, the scene, and the damage it does to frames.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "damage.h"
#include "demo_scene.h"
#include "jpeg_headers.h"
#include "support/test_support.h"
#include "webcam_encoder.h"

namespace vidra {
namespace test {
namespace {

using Bytes = std::vector<uint8_t>;

// Marker codes (the byte behind each 0xFF that isn't stuffing) in stream order.
Bytes markerCodes(const Bytes& frame) {
  Bytes codes;
  for (size_t p = 0; p + 1 < frame.size(); ++p) {
    if (frame[p] == 0xFF && frame[p + 1] != 0x00 && frame[p + 1] != 0xFF)
      codes.push_back(frame[p + 1]);
  }
  return codes;
}

Bytes webcamFrame(int width, int height, int index = 3) {
  tool::DemoScene scene(width, height);
  tool::RGBImage picture;
  scene.render(index, &picture);
  return tool::encodeWebcamFrame(picture);
}

TEST(ToolWebcamEncoderTest, EncodesAsAWebcamSendsFrames) {
  tool::DemoScene scene(320, 240);
  tool::RGBImage picture;
  scene.render(5, &picture);
  const Bytes frame = tool::encodeWebcamFrame(picture);
  const tool::JPEGHeaderInfo header = tool::readJPEGHeader(frame.data(), frame.size());
  ASSERT_TRUE(header.ok()) << header.error;
  EXPECT_EQ(tool::samplingName(header.components), "4:2:2 (2x1,1x1,1x1)");
  EXPECT_FALSE(header.has_dht);
  EXPECT_EQ(header.restart_interval, 20);  // one row of 16x8 MCUs
  EXPECT_EQ(header.app_tags, std::vector<std::string>{"AVI1"});
  EXPECT_EQ(tool::estimateQuality(header.dqt[0], nullptr), 90);

  // TurboJPEG uses the default tables for a frame without DHT; the picture comes back close.
  tjhandle handle = tjInitDecompress();
  std::vector<uint8_t> rgb(picture.pixels.size());
  ASSERT_EQ(tjDecompress2(handle, frame.data(), frame.size(), rgb.data(), 320, 0, 240, TJPF_RGB, 0),
            0)
      << tjGetErrorStr();
  tjDestroy(handle);
  double error = 0;
  for (size_t i = 0; i < rgb.size(); ++i) error += std::pow(rgb[i] - picture.pixels[i], 2.0);
  const double psnr = 10 * std::log10(255.0 * 255.0 / (error / rgb.size()));
  EXPECT_GT(psnr, 30.0);
}

// The scene moves and has detail: frames differ, and no frame is flat.
TEST(ToolDemoSceneTest, RendersMovingDetail) {
  tool::DemoScene scene(160, 90);
  tool::RGBImage first, later;
  scene.render(0, &first);
  scene.render(10, &later);
  EXPECT_NE(first.pixels, later.pixels);
  int jumps = 0;
  for (size_t i = 3; i < first.pixels.size(); ++i)
    jumps += std::abs(first.pixels[i] - first.pixels[i - 3]) > 24;
  EXPECT_GT(jumps, 500);
}

TEST(ToolDamageTest, FlipsBitsOnlyInEntropyData) {
  const Bytes clean = webcamFrame(128, 64);
  std::mt19937 rng(1);
  for (int count : {1, 5, 50}) {
    Bytes frame = clean;
    EXPECT_EQ(tool::flipBits(&frame, count, &rng), count);
    ASSERT_EQ(frame.size(), clean.size());
    size_t begin = 0, end = 0;
    ASSERT_TRUE(tool::entropyRange(clean, &begin, &end));
    int changed_bits = 0;
    for (size_t i = 0; i < frame.size(); ++i) {
      if (frame[i] == clean[i]) continue;
      EXPECT_GE(i, begin);
      EXPECT_LT(i, end);
      changed_bits += __builtin_popcount(frame[i] ^ clean[i]);
    }
    EXPECT_EQ(changed_bits, count);
    EXPECT_EQ(markerCodes(frame), markerCodes(clean));
  }
}

TEST(ToolDamageTest, PutsJunkBeforeRestartMarkers) {
  const Bytes clean = webcamFrame(128, 64);  // 8 MCU rows: 7 restart markers
  std::mt19937 rng(2);
  Bytes frame = clean;
  EXPECT_EQ(tool::junkBeforeRestarts(&frame, 3, &rng), 3);
  EXPECT_GE(frame.size(), clean.size() + 3);
  EXPECT_LE(frame.size(), clean.size() + 30);
  // No junk byte is 0xFF, so the markers stay the same.
  EXPECT_EQ(markerCodes(frame), markerCodes(clean));
  EXPECT_EQ(std::count(frame.begin(), frame.end(), 0xFF),
            std::count(clean.begin(), clean.end(), 0xFF));
  // Asking for more markers than there are damages them all.
  frame = clean;
  EXPECT_EQ(tool::junkBeforeRestarts(&frame, 100, &rng), 7);
}

TEST(ToolDamageTest, CutsFramesOff) {
  const Bytes clean = webcamFrame(64, 32);
  size_t begin = 0, end = 0;
  ASSERT_TRUE(tool::entropyRange(clean, &begin, &end));
  EXPECT_EQ(end + 2, clean.size());  // EOI closes the frame
  Bytes frame = clean;
  tool::cutOff(&frame, 0.5);
  EXPECT_EQ(frame.size(), begin + (end - begin) / 2);
  EXPECT_TRUE(std::equal(frame.begin(), frame.end(), clean.begin()));
}

}  // namespace
}  // namespace test
}  // namespace vidra
