// The tool's parts, tested directly: reading raw MJPEG streams (files, pipes), colour
// conversion, chroma completion, PNG, and the damage the demo does to frames.

#include <gtest/gtest.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "cli/cli.h"
#include "demo/damage.h"
#include "demo/demo_scene.h"
#include "demo/webcam_encoder.h"
#include "input/frame_reader.h"
#include "output/image.h"
#include "output/png_writer.h"
#include "support/test_support.h"
#include "tool/tool_test_support.h"

namespace vidra {
namespace test {
namespace {

using Bytes = std::vector<uint8_t>;

// The size an output takes: the most common one in the frame headers, ties to the size seen
// first; sizes the tool refuses and frames without a size don't count.
TEST(ToolUsualSizeTest, TakesTheMostCommonFrameSizeAsTheUsualOne) {
  const Bytes a = encodeTestFrame(48, 32, TJSAMP_422), b = encodeTestFrame(32, 16, TJSAMP_420);
  const Bytes huge = claimingSize(a, 9000, 9000), sizeless = {0xFF, 0xD8, 0xFF, 0xD9};
  const struct {
    std::vector<Bytes> frames;
    int width, height;  // 0 x 0: none
  } cases[] = {
      {{b, a, a}, 48, 32},       {{a, b, b, a}, 48, 32},   {{b, a, b, a}, 32, 16},
      {{huge, huge, b}, 32, 16}, {{sizeless, huge}, 0, 0},
  };
  TempDir dir;
  for (const auto& test : cases) {
    writeFile(dir.file("s.mjpeg"), concatFrames(test.frames));
    int width = 0, height = 0;
    EXPECT_EQ(tool::FrameReader::open(dir.file("s.mjpeg"))->usualFrameSize(&width, &height),
              test.width > 0);
    EXPECT_EQ(width, test.width);
    EXPECT_EQ(height, test.height);
  }
}

// A frame without end from a source that stays open comes out at the frame limit, before the
// input ends: the writer holds the pipe open until then (20 s at most, a liveness bound).
TEST(ToolStreamReaderTest, CutsAnEndlessFrameAtTheLimitWhileThePipeStaysOpen) {
  const size_t limit = 256 << 10;
  Bytes data = {0xFF, 0xD8, 0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00};
  data.resize(limit + 70000);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::promise<void> frame_seen;
  std::future<bool> writer = std::async(std::launch::async, [&] {
    for (size_t at = 0; at < data.size();) {
      const ssize_t put = ::write(fds[1], data.data() + at, data.size() - at);
      if (put <= 0) break;
      at += static_cast<size_t>(put);
    }
    const bool in_time =
        frame_seen.get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    ::close(fds[1]);
    return in_time;
  });
  const std::unique_ptr<tool::FrameReader> live =
      tool::FrameReader::openStream("p", fds[0], true, 65536, limit);
  tool::Frame frame;
  ASSERT_TRUE(live->next(&frame));
  frame_seen.set_value();
  EXPECT_TRUE(writer.get()) << "the frame came out only at the end of the input";
  EXPECT_EQ(frame.size, limit);
  EXPECT_TRUE(frame.cut_short);
}

// A file that shrinks while it is read ends in a read error behind the frames before the cut.
TEST(ToolStreamReaderTest, ReportsAFileThatShrinksWhileItIsRead) {
  TempDir dir;
  const std::string file = dir.file("s.mjpeg");
  writeFile(file, concatFrames(std::vector<Bytes>(300, encodeTestFrame(64, 64, TJSAMP_420))));
  const std::unique_ptr<tool::FrameReader> reader = tool::FrameReader::open(file);
  tool::Frame frame;
  ASSERT_TRUE(reader->next(&frame));
  ASSERT_EQ(truncate(file.c_str(), 1000), 0);
  std::string error;
  int frames = 1;
  while (reader->nextOrStop(&frame, &error)) ++frames;
  EXPECT_LT(frames, 300);
  EXPECT_TRUE(has(error, file + ": the file shrank while it was read (from ")) << error;
}

TEST(ToolImageTest, ConvertsBT601FullRange) {
  const std::array<int, 6> cases[] = {
      // Y, Cb, Cr -> R, G, B
      {0, 128, 128, 0, 0, 0},         {255, 128, 128, 255, 255, 255}, {76, 85, 255, 254, 0, 0},
      {150, 44, 21, 0, 255, 1},       {29, 255, 107, 0, 0, 254},      {255, 0, 255, 255, 208, 28},
      {200, 128, 100, 161, 220, 200},  // rounds to nearest below zero too
      {100, 128, 130, 103, 99, 100},
  };
  for (const auto& test : cases) {
    uint8_t rgb[3];
    tool::yuvToRGB(test[0], test[1], test[2], rgb);
    EXPECT_EQ((std::array<int, 3>{rgb[0], rgb[1], rgb[2]}),
              (std::array<int, 3>{test[3], test[4], test[5]}))
        << test[0] << "," << test[1] << "," << test[2];
  }
}

// The decoder writes width/2 x height/2 chroma samples; files hold (width+1)/2 x (height+1)/2.
TEST(ToolImageTest, CompletesTheChromaOfOddSizes) {
  const std::pair<int, int> sizes[] = {{5, 3}, {4, 3}, {5, 4}, {1, 5}, {6, 4}};
  for (const auto& [width, height] : sizes) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    tool::I420Image image;
    image.resize(width, height);
    const int w2 = width / 2, h2 = height / 2, cw = image.chromaWidth(), ch = image.chromaHeight();
    // What a decoder writes: distinct values in the decoded part, junk elsewhere.
    std::fill(image.u.begin(), image.u.end(), 0xEE);
    for (int i = 0; i < h2 * cw; ++i) {
      if (i % cw < w2) image.u[i] = 10 * (i / cw) + i % cw;
    }
    image.v = image.u;
    image.completeChroma();
    for (int i = 0; i < ch * cw; ++i) {
      const int row = i / cw, col = i % cw;
      const int expected =
          w2 == 0 || h2 == 0 ? 0x80 : 10 * std::min(row, h2 - 1) + std::min(col, w2 - 1);
      EXPECT_EQ(image.u[i], expected) << row << "," << col;
    }
    EXPECT_EQ(image.v, image.u);
  }
}

TEST(ToolPNGWriterTest, WritesWhatLibpngReadsBack) {
  TempDir dir;
  tool::RGBImage image;
  image.resize(7, 5);
  for (size_t i = 0; i < image.pixels.size(); ++i) image.pixels[i] = static_cast<uint8_t>(i * 7);
  tool::writePNG(dir.file("picture.png"), image);
  Bytes pixels;
  EXPECT_EQ(pngInfo(dir.file("picture.png"), &pixels), "7x5 RGB");
  EXPECT_EQ(pixels, image.pixels);
  EXPECT_THROW(tool::writePNG(dir.file("no/such/folder.png"), image), tool::ToolError);
}

// Marker codes (the byte behind each 0xFF that isn't stuffing or fill) in stream order.
Bytes markerCodes(const Bytes& frame) {
  Bytes codes;
  for (size_t p = 0; p + 1 < frame.size(); ++p) {
    if (frame[p] == 0xFF && frame[p + 1] != 0x00 && frame[p + 1] != 0xFF)
      codes.push_back(frame[p + 1]);
  }
  return codes;
}

TEST(ToolDamageTest, DamagesOnlyTheEntropyDataAndKeepsTheMarkers) {
  tool::RGBImage picture;
  tool::DemoScene(128, 64).render(3, &picture);
  const Bytes clean = tool::encodeWebcamFrame(picture);  // 8 MCU rows: 7 restart markers
  size_t begin = 0, end = 0;
  ASSERT_TRUE(tool::entropyRange(clean, &begin, &end));
  std::mt19937 rng(1);
  for (int count : {1, 5, 50}) {
    Bytes frame = clean;
    EXPECT_EQ(tool::flipBits(&frame, count, &rng), count);
    ASSERT_EQ(frame.size(), clean.size());
    int changed_bits = 0;
    for (size_t i = 0; i < frame.size(); ++i) {
      EXPECT_TRUE(frame[i] == clean[i] || (i >= begin && i < end)) << i;
      changed_bits += __builtin_popcount(frame[i] ^ clean[i]);
    }
    EXPECT_EQ(changed_bits, count);
    EXPECT_EQ(markerCodes(frame), markerCodes(clean));
  }
}

}  // namespace
}  // namespace test
}  // namespace vidra
