// Pictures and files the tool writes: chroma completion, colour conversion, Y4M / raw I420,
// PNG.

#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"
#include "png_writer.h"
#include "tool/tool_test_support.h"
#include "y4m.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace vidra {
namespace test {
namespace {

using tool::I420Image;
using tool::RGBImage;

TEST(ToolImageTest, ConvertsBT601FullRange) {
  struct Case {
    int y, cb, cr;
    int r, g, b;
  } cases[] = {
      {0, 128, 128, 0, 0, 0},         {255, 128, 128, 255, 255, 255},
      {128, 128, 128, 128, 128, 128}, {76, 85, 255, 254, 0, 0},  // red
      {150, 44, 21, 0, 255, 1},                                  // green
      {29, 255, 107, 0, 0, 254},                                 // blue
      {255, 0, 255, 255, 208, 28},                               // red clamps
  };
  for (const Case& test : cases) {
    uint8_t rgb[3];
    tool::yuvToRGB(test.y, test.cb, test.cr, rgb);
    EXPECT_NEAR(rgb[0], test.r, 1) << test.y << "," << test.cb << "," << test.cr;
    EXPECT_NEAR(rgb[1], test.g, 1) << test.y << "," << test.cb << "," << test.cr;
    EXPECT_NEAR(rgb[2], test.b, 1) << test.y << "," << test.cb << "," << test.cr;
  }
}

// The decoder writes width/2 x height/2 chroma samples; files hold (width+1)/2 x (height+1)/2.
TEST(ToolImageTest, CompletesTheChromaOfOddSizes) {
  struct Case {
    int width, height;
  } cases[] = {{5, 3}, {4, 3}, {5, 4}, {1, 1}, {1, 5}, {6, 4}};
  for (const Case& test : cases) {
    SCOPED_TRACE(std::to_string(test.width) + "x" + std::to_string(test.height));
    I420Image image;
    image.resize(test.width, test.height);
    const int cw = image.chromaWidth(), ch = image.chromaHeight();
    ASSERT_EQ(image.u.size(), static_cast<size_t>(cw * ch));
    // What a decoder writes: distinct values in the decoded part, junk elsewhere.
    std::fill(image.u.begin(), image.u.end(), 0xEE);
    for (int row = 0; row < test.height / 2; ++row) {
      for (int col = 0; col < test.width / 2; ++col)
        image.u[row * cw + col] = static_cast<uint8_t>(10 * row + col);
    }
    image.v = image.u;
    image.completeChroma();
    for (int row = 0; row < ch; ++row) {
      for (int col = 0; col < cw; ++col) {
        uint8_t expected;
        if (test.width / 2 == 0 || test.height / 2 == 0) {
          expected = 0x80;
        } else {
          expected = static_cast<uint8_t>(10 * std::min(row, test.height / 2 - 1) +
                                          std::min(col, test.width / 2 - 1));
        }
        EXPECT_EQ(image.u[row * cw + col], expected) << row << "," << col;
        EXPECT_EQ(image.v[row * cw + col], expected) << row << "," << col;
      }
    }
  }
}

TEST(ToolImageTest, ThumbnailAveragesBoxes) {
  I420Image image;
  image.resize(8, 4);
  image.fill(0);
  // Left half black, right half white: a 2x1 thumbnail is one of each.
  for (int row = 0; row < 4; ++row) {
    for (int col = 4; col < 8; ++col) image.y[row * 8 + col] = 255;
  }
  const RGBImage thumb = tool::thumbnail(image, 2, 1);
  EXPECT_EQ(thumb.pixels, (std::vector<uint8_t>{0, 0, 0, 255, 255, 255}));
}

TEST(ToolVideoWriterTest, WritesY4MAndRawI420) {
  TempDir dir;
  I420Image image;
  image.resize(5, 3);  // odd: chroma planes 3x2
  image.fill(0x40);
  struct Case {
    std::string name;
    size_t header;  // bytes in front of the first frame
    size_t per_frame;
  } cases[] = {
      {"clip.y4m", tool::VideoWriter::y4mHeader(5, 3, 25, 1).size() + 1, 6 + 15 + 2 * 6},
      {"clip.yuv", 0, 15 + 2 * 6},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    const std::string path = dir.file(test.name);
    {
      tool::VideoWriter writer(path, 25, 1);
      EXPECT_TRUE(writer.write(image));
      EXPECT_TRUE(writer.write(image));
      I420Image other;
      other.resize(6, 3);
      EXPECT_FALSE(writer.write(other));  // one size per file
      EXPECT_EQ(writer.frames(), 2);
      writer.close();
    }
    FILE* file = std::fopen(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    std::fseek(file, 0, SEEK_END);
    EXPECT_EQ(static_cast<size_t>(std::ftell(file)), test.header + 2 * test.per_frame);
    std::fclose(file);
  }
  EXPECT_EQ(tool::VideoWriter::y4mHeader(640, 480, 30000, 1001),
            "YUV4MPEG2 W640 H480 F30000:1001 Ip A1:1 C420jpeg XYSCSS=420JPEG XCOLORRANGE=FULL");
  // FFmpeg reads the header as 4:2:0 in full range.
  const VideoProbe probe = probeVideo(dir.file("clip.y4m"));
  ASSERT_EQ(probe.error, "");
  EXPECT_EQ(probe.width, 5);
  EXPECT_EQ(probe.height, 3);
  EXPECT_EQ(probe.pix_fmt, AV_PIX_FMT_YUV420P);
  EXPECT_EQ(probe.frames, 2);
}

TEST(ToolVideoWriterTest, RejectsUnknownNamesAndUnwritablePaths) {
  for (const char* name : {"out.mp4", "out", "out.y4m.txt"}) {
    EXPECT_THROW(tool::VideoWriter::formatFor(name), tool::UsageError) << name;
  }
  EXPECT_EQ(tool::VideoWriter::formatFor("OUT.Y4M"), tool::VideoWriter::Format::kY4M);
  EXPECT_EQ(tool::VideoWriter::formatFor("-"), tool::VideoWriter::Format::kY4M);
  EXPECT_EQ(tool::VideoWriter::formatFor("a.i420"), tool::VideoWriter::Format::kRawI420);
  try {
    tool::VideoWriter writer("/nonexistent-folder/out.y4m", 30, 1);
    ADD_FAILURE() << "created";
  } catch (const tool::ToolError& error) {
    EXPECT_EQ(error.code(), tool::kExitUsage);
    EXPECT_NE(std::string(error.what()).find("/nonexistent-folder/out.y4m"), std::string::npos);
  }
}

TEST(ToolPNGWriterTest, WritesWhatLibpngReadsBack) {
  TempDir dir;
  RGBImage image;
  image.resize(7, 5);
  for (size_t i = 0; i < image.pixels.size(); ++i) image.pixels[i] = static_cast<uint8_t>(i * 7);
  const std::string path = dir.file("picture.png");
  tool::writePNG(path, image);

  png_image read;
  std::memset(&read, 0, sizeof(read));
  read.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_file(&read, path.c_str()));
  read.format = PNG_FORMAT_RGB;
  EXPECT_EQ(read.width, 7u);
  EXPECT_EQ(read.height, 5u);
  std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(read));
  ASSERT_TRUE(png_image_finish_read(&read, nullptr, pixels.data(), 0, nullptr));
  EXPECT_EQ(pixels, image.pixels);

  EXPECT_THROW(tool::writePNG(dir.file("no/such/folder.png"), image), tool::ToolError);
}

TEST(ToolArgParserTest, ParsesOptionsAndRejectsMistakes) {
  auto parse = [](std::vector<std::string> words, tool::ArgParser* parser) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    return parser->parse(static_cast<int>(argv.size()), argv.data(), 0);
  };
  auto make = [] {
    tool::ArgParser parser("x", "x", "test");
    parser.flag("verbose", 'v', "talk");
    parser.option("output", 'o', "OUT", "where");
    parser.option("count", 0, "N", "how many");
    return parser;
  };
  tool::ArgParser parser = make();
  ASSERT_TRUE(parse({"in", "-v", "-oout.y4m", "--count=7", "--", "-odd"}, &parser));
  EXPECT_TRUE(parser.has("verbose"));
  EXPECT_EQ(parser.value("output"), "out.y4m");
  EXPECT_EQ(parser.integer("count", 0, 0, 10), 7);
  EXPECT_EQ(parser.positional(), (std::vector<std::string>{"in", "-odd"}));

  const std::vector<std::vector<std::string>> mistakes = {
      {"--bogus"}, {"-x"}, {"--output"}, {"--verbose=1"}};
  for (const auto& words : mistakes) {
    tool::ArgParser p = make();
    EXPECT_THROW(parse(words, &p), tool::UsageError) << words[0];
  }
  tool::ArgParser range = make();
  ASSERT_TRUE(parse({"--count", "11"}, &range));
  EXPECT_THROW(range.integer("count", 0, 0, 10), tool::UsageError);

  int num = 0, den = 0;
  EXPECT_TRUE(tool::parseFrameRate("30000:1001", &num, &den));
  EXPECT_EQ(num, 30000);
  EXPECT_EQ(den, 1001);
  EXPECT_TRUE(tool::parseFrameRate("25", &num, &den));
  EXPECT_EQ(den, 1);
  for (const char* bad : {"", "0", "-5", "30:", "x", "30:0"}) {
    EXPECT_FALSE(tool::parseFrameRate(bad, &num, &den)) << bad;
  }
}

}  // namespace
}  // namespace test
}  // namespace vidra
