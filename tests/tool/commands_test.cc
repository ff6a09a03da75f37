// The vidra-mjpeg binary as a person runs it: each subcommand on corpus frames and on streams
// and video files made here, and bad inputs, through exit codes and messages.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "tool/tool_test_support.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace vidra {
namespace test {
namespace {

using Bytes = std::vector<uint8_t>;

bool contains(const std::string& text, const std::string& fragment) {
  return text.find(fragment) != std::string::npos;
}

// The number on the summary line "  <label>   <number>  ...", -1 when there is none.
long summaryValue(const std::string& text, const std::string& label) {
  const size_t at = text.find("\n  " + label + " ");
  if (at == std::string::npos) return -1;
  size_t p = at + 3 + label.size();
  while (p < text.size() && text[p] == ' ') ++p;
  if (p >= text.size() || !std::isdigit(static_cast<unsigned char>(text[p]))) return -1;
  return std::strtol(text.c_str() + p, nullptr, 10);
}

std::vector<Bytes> readAll(const std::vector<std::string>& files, size_t count) {
  std::vector<Bytes> frames;
  for (size_t i = 0; i < files.size() && i < count; ++i) frames.push_back(readFile(files[i]));
  return frames;
}

size_t fileSize(const std::string& path) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  return error ? 0 : static_cast<size_t>(size);
}

// Bytes of a Y4M file of `frames` frames as the tool writes it.
size_t y4mSize(int width, int height, int frames, int fps = 30) {
  const std::string header = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) +
                             " F" + std::to_string(fps) +
                             ":1 Ip A1:1 C420jpeg XYSCSS=420JPEG XCOLORRANGE=FULL\n";
  const size_t chroma = static_cast<size_t>((width + 1) / 2) * ((height + 1) / 2);
  return header.size() + frames * (6 + static_cast<size_t>(width) * height + 2 * chroma);
}

TEST(ToolCommandTest, HelpAndUsageMistakes) {
  struct Case {
    std::vector<std::string> args;
    int code;
    const char* output;  // expected on stdout (code 0) or stderr
  } cases[] = {
      {{"--help"}, 0, "commands:"},
      {{"decode", "--help"}, 0, "usage: vidra-mjpeg decode"},
      {{"info", "-h"}, 0, "usage: vidra-mjpeg info"},
      {{"bench", "--help"}, 0, "--threads"},
      {{"demo", "--help"}, 0, "demo-contact.png"},
      {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
      {{"decode"}, 2, "decode needs an INPUT"},
      {{"decode", "a.jpg", "b.jpg"}, 2, "one INPUT"},
      {{"decode", "a.jpg", "--bogus"}, 2, "unknown option '--bogus'"},
      {{"decode", "a.jpg", "-o", "out.mp4"}, 2, "can't tell the output format"},
      {{"decode", "a.jpg", "--png", "first"}, 2, "--png expects a whole number"},
      {{"decode", "a.jpg", "--fps", "fast"}, 2, "--fps expects a rate"},
      {{"info"}, 2, "info needs an INPUT"},
      {{"bench"}, 2, "at least one INPUT"},
      {{"bench", "x", "--decoders", "own,gpu"}, 2, "unknown decoder 'gpu'"},
      {{"bench", "x", "--threads", "0"}, 2, "--threads expects"},
      {{"demo", "--size", "10x10"}, 2, "--size expects"},
      {{"demo", "extra"}, 2, "demo takes no input"},
  };
  for (const Case& test : cases) {
    const ToolRun run = runTool(test.args);
    SCOPED_TRACE(test.args[0] + (test.args.size() > 1 ? " " + test.args[1] : ""));
    EXPECT_EQ(run.code, test.code) << run.describe();
    EXPECT_TRUE(contains(test.code == 0 ? run.out : run.err, test.output)) << run.describe();
    if (test.code == 2 && test.args.size() > 1 && test.args[0] != "frobnicate") {
      EXPECT_TRUE(contains(run.err, "--help' for usage")) << run.describe();
    }
  }
}

TEST(ToolCommandTest, BadInputsGiveAClearMessageAndExitCode) {
  TempDir dir;
  writeFile(dir.file("empty.mjpeg"), Bytes{});
  writeFile(dir.file("notes.txt"), std::string("these are notes, not pictures\n"));
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  struct Case {
    std::string input;
    const char* message;
  } cases[] = {
      {dir.file("missing.mjpeg"), "No such file or directory"},
      {dir.file("empty.mjpeg"), "the file is empty"},
      {dir.file("notes.txt"), "not a JPEG, an MJPEG stream or a video file"},
  };
  for (const char* command : {"decode", "info", "bench"}) {
    for (const Case& test : cases) {
      SCOPED_TRACE(std::string(command) + " " + test.input);
      const ToolRun run = runTool({command, test.input});
      EXPECT_EQ(run.code, 2) << run.describe();
      EXPECT_TRUE(contains(run.err, test.input)) << run.describe();
      EXPECT_TRUE(contains(run.err, test.message)) << run.describe();
    }
  }
  const ToolRun directory = runTool({"decode", dir.path()});
  EXPECT_EQ(directory.code, 2) << directory.describe();
  EXPECT_TRUE(contains(directory.err, "is a directory")) << directory.describe();
  if (!files.empty()) {
    const ToolRun unwritable = runTool({"decode", files[0], "-o", "/nonexistent-folder/out.y4m"});
    EXPECT_EQ(unwritable.code, 2) << unwritable.describe();
    EXPECT_TRUE(contains(unwritable.err, "/nonexistent-folder/out.y4m: cannot create"))
        << unwritable.describe();
  }
}

TEST(ToolCommandTest, DecodesACorpusFrameToY4MThatFFmpegReads) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  TempDir dir;
  for (const bool turbo : {false, true}) {
    SCOPED_TRACE(turbo ? "turbo path" : "own decoder");
    const std::string out = dir.file(turbo ? "turbo.y4m" : "own.y4m");
    std::vector<std::string> args = {"decode", files[0], "-o", out};
    if (turbo) args.push_back("--turbo");
    const ToolRun run = runTool(args);
    EXPECT_EQ(run.code, 0) << run.describe();
    EXPECT_TRUE(contains(run.err, "JPEG file, 1 frames, 640x480")) << run.describe();
    EXPECT_EQ(summaryValue(run.err, "decoded"), 1) << run.describe();
    EXPECT_TRUE(contains(run.err, turbo ? "turbo path (forced)" : "frames/s")) << run.describe();
    EXPECT_EQ(fileSize(out), y4mSize(640, 480, 1));
    const VideoProbe probe = probeVideo(out);
    ASSERT_EQ(probe.error, "");
    EXPECT_EQ(probe.format, "yuv4mpegpipe");
    EXPECT_EQ(probe.width, 640);
    EXPECT_EQ(probe.height, 480);
    EXPECT_EQ(probe.pix_fmt, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(probe.color_range, AVCOL_RANGE_JPEG);
    EXPECT_EQ(probe.frames, 1);
  }
}

TEST(ToolCommandTest, DecodesRawStreamsWithJunkAndWritesRawI420) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  const std::vector<Bytes> frames = readAll(files, 6);
  TempDir dir;
  const Bytes junk = {0x00, 0x12, 0xFF, 0xD8, 0x00};  // looks like a marker, isn't a frame
  writeFile(dir.file("stream.mjpeg"), concatFrames(frames, junk));
  const ToolRun run =
      runTool({"decode", dir.file("stream.mjpeg"), "-o", dir.file("out.yuv"), "--verbose"});
  EXPECT_EQ(run.code, 0) << run.describe();
  EXPECT_TRUE(contains(run.err, "raw MJPEG stream, 6 frames, 640x480")) << run.describe();
  EXPECT_EQ(summaryValue(run.err, "junk"), 25) << run.describe();  // 5 gaps of 5 bytes
  EXPECT_EQ(countOf(run.err, ": decoded in "), 6) << run.describe();
  EXPECT_EQ(fileSize(dir.file("out.yuv")), 6u * 640 * 480 * 3 / 2);
}

// The input ends in the middle of a frame: that frame is reported cut short, and it fails.
TEST(ToolCommandTest, StreamCutInTheMiddleOfAFrame) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  std::vector<Bytes> frames = readAll(files, 3);
  frames[2].resize(frames[2].size() / 2);
  TempDir dir;
  writeFile(dir.file("cut.mjpeg"), concatFrames(frames));
  const ToolRun decode = runTool({"decode", dir.file("cut.mjpeg"), "-o", dir.file("cut.y4m")});
  EXPECT_EQ(decode.code, 1) << decode.describe();
  EXPECT_TRUE(contains(
      decode.err,
      "frame 2 (byte " + std::to_string(frames[0].size() + frames[1].size()) + ") is cut short"))
      << decode.describe();
  EXPECT_EQ(summaryValue(decode.err, "cut short"), 1) << decode.describe();
  EXPECT_EQ(summaryValue(decode.err, "decoded"), 2) << decode.describe();
  // The output keeps one picture per input frame.
  EXPECT_EQ(fileSize(dir.file("cut.y4m")), y4mSize(640, 480, 3));

  // The header of the cut frame is whole: info reads it and marks the cut.
  const ToolRun info = runTool({"info", dir.file("cut.mjpeg")});
  EXPECT_EQ(info.code, 0) << info.describe();
  EXPECT_EQ(countOf(info.out, "[cut short]"), 1) << info.describe();
  // Cut inside the header: info can't read it.
  frames[2].resize(100);
  writeFile(dir.file("cut-header.mjpeg"), concatFrames(frames));
  const ToolRun header = runTool({"info", dir.file("cut-header.mjpeg")});
  EXPECT_EQ(header.code, 1) << header.describe();
  EXPECT_TRUE(contains(header.out, "header unreadable: the frame ends inside marker"))
      << header.describe();
  EXPECT_TRUE(contains(header.err, "1 of 3 frames have unreadable headers")) << header.describe();
}

// A damaged frame header may claim any size up to 65535x65535; the tool refuses sizes it
// can't hold instead of trying to allocate gigabytes.
TEST(ToolCommandTest, RefusesFramesThatClaimHugeSizes) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  std::vector<Bytes> frames = readAll(files, 2);
  Bytes& frame = frames[1];
  size_t sof = 0;
  for (size_t p = 2; p + 9 < frame.size() && sof == 0; ++p) {
    if (frame[p] == 0xFF && frame[p + 1] == 0xC0) sof = p;
  }
  ASSERT_NE(sof, 0u);
  frame[sof + 5] = frame[sof + 7] = 0xEA;  // 60000 = 0xEA60 lines and columns
  frame[sof + 6] = frame[sof + 8] = 0x60;
  TempDir dir;
  writeFile(dir.file("huge.mjpeg"), concatFrames(frames));
  const ToolRun run = runTool({"decode", dir.file("huge.mjpeg"), "-o", dir.file("out.y4m")});
  EXPECT_EQ(run.code, 1) << run.describe();
  EXPECT_TRUE(contains(run.err, "frame 1 (byte " + std::to_string(frames[0].size()) +
                                    ") claims 60000x60000, more than this tool decodes"))
      << run.describe();
  EXPECT_EQ(summaryValue(run.err, "refused"), 1) << run.describe();
  EXPECT_EQ(fileSize(dir.file("out.y4m")), y4mSize(640, 480, 2));
}

TEST(ToolCommandTest, DecodesMJPEGTracksOfVideoFiles) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  const std::vector<Bytes> frames = readAll(files, 4);
  TempDir dir;
  struct Case {
    const char* file;
    const char* format;
    const char* kind;
  } cases[] = {{"clip.avi", "avi", "avi file (MJPEG track #0), 4 frames"},
               {"clip.mkv", "matroska", "matroska file (MJPEG track #0), 4 frames"}};
  for (const Case& test : cases) {
    SCOPED_TRACE(test.file);
    const std::string error = muxMJPEG(dir.file(test.file), test.format, frames, 640, 480);
    if (!error.empty()) {
      ADD_FAILURE() << "can't make the " << test.format << " file: " << error;
      continue;
    }
    const std::string out = dir.file(std::string(test.file) + ".y4m");
    const ToolRun run = runTool({"decode", dir.file(test.file), "-o", out});
    EXPECT_EQ(run.code, 0) << run.describe();
    EXPECT_TRUE(contains(run.err, test.kind)) << run.describe();
    // The container's frame rate goes into the Y4M header.
    EXPECT_EQ(fileSize(out), y4mSize(640, 480, 4, 25)) << run.describe();
    const ToolRun info = runTool({"info", dir.file(test.file)});
    EXPECT_EQ(info.code, 0) << info.describe();
    EXPECT_EQ(countOf(info.out, "640x480"), 4 + 1) << info.describe();  // 4 frames + summary
  }
}

// Odd sizes: chroma rounds down in the library, and up in the file, as players expect.
TEST(ToolCommandTest, DecodesOddSizes) {
  const std::string dir_name = corpusDir();
  const std::vector<std::string> files = corpusFiles("reftest");
  VIDRA_REQUIRE_CORPUS(files, "reftest");
  TempDir dir;
  struct Case {
    const char* file;
    int width, height;
  } cases[] = {{"jpg-size-1x1.jpg", 1, 1},
               {"jpg-size-17x17.jpg", 17, 17},
               {"jpg-size-33x33.jpg", 33, 33},
               {"restarts.jpg", 33, 33}};
  for (const Case& test : cases) {
    for (const char* path : {"", "--turbo"}) {
      SCOPED_TRACE(std::string(test.file) + " " + path);
      const std::string out = dir.file(std::string(test.file) + path + ".y4m");
      std::vector<std::string> args = {"decode", dir_name + "/reftest/" + test.file, "-o", out};
      if (*path) args.push_back(path);
      const ToolRun run = runTool(args);
      EXPECT_EQ(run.code, 0) << run.describe();
      EXPECT_EQ(fileSize(out), y4mSize(test.width, test.height, 1)) << run.describe();
      const VideoProbe probe = probeVideo(out);
      EXPECT_EQ(probe.error, "");
      EXPECT_EQ(probe.width, test.width);
      EXPECT_EQ(probe.frames, 1);
    }
  }
}

TEST(ToolCommandTest, WritesAFrameAsPNG) {
  const std::vector<std::string> files = corpusFiles("webcam-720p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-720p");
  const std::vector<Bytes> frames = readAll(files, 3);
  TempDir dir;
  writeFile(dir.file("clip.mjpeg"), concatFrames(frames));
  const ToolRun run =
      runTool({"decode", dir.file("clip.mjpeg"), "-o", dir.file("clip.y4m"), "--png", "2"});
  EXPECT_EQ(run.code, 0) << run.describe();
  int width = 0, height = 0;
  ASSERT_TRUE(pngSize(dir.file("clip-frame2.png"), &width, &height)) << run.describe();
  EXPECT_EQ(width, 1280);
  EXPECT_EQ(height, 720);

  const ToolRun beyond =
      runTool({"decode", dir.file("clip.mjpeg"), "--png", "3", "--png-file", dir.file("x.png")});
  EXPECT_EQ(beyond.code, 2) << beyond.describe();
  EXPECT_TRUE(contains(beyond.err, "--png 3: the input has only 3 frames")) << beyond.describe();
}

TEST(ToolCommandTest, DecodesToStandardOutputFromStandardInput) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  const ToolRun run = runTool({"decode", "-", "-o", "-", "--quiet"}, files[1]);
  EXPECT_EQ(run.code, 0) << run.describe();
  EXPECT_EQ(run.out.rfind("YUV4MPEG2 W640 H480 F30:1 ", 0), 0u) << run.describe().substr(0, 300);
  EXPECT_EQ(run.out.size(), y4mSize(640, 480, 1));
  EXPECT_EQ(run.err, "");
}

// Damaged frames are concealed or fail; either way the tool reports them and never crashes.
TEST(ToolCommandTest, ReportsDamagedCorpusFrames) {
  const std::vector<std::string> files = corpusFiles("damaged");
  VIDRA_REQUIRE_CORPUS(files, "damaged");
  TempDir dir;
  writeFile(dir.file("damaged.mjpeg"), concatFrames(readAll(files, files.size())));
  const ToolRun run = runTool({"decode", dir.file("damaged.mjpeg"), "-o", dir.file("d.y4m"), "-v"});
  EXPECT_TRUE(run.code == 0 || run.code == 1) << run.describe();
  EXPECT_TRUE(contains(run.err, std::to_string(files.size()) + " frames")) << run.describe();
  // The trunc-* frames have no EOI.
  EXPECT_TRUE(contains(run.err, "is cut short")) << run.describe();
  EXPECT_EQ(fileSize(dir.file("d.y4m")), y4mSize(640, 480, static_cast<int>(files.size())));
}

TEST(ToolCommandTest, InfoDescribesEachFrame) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  TempDir dir;
  writeFile(dir.file("all.mjpeg"), concatFrames(readAll(files, files.size())));
  const ToolRun run = runTool({"info", dir.file("all.mjpeg")});
  EXPECT_EQ(run.code, 0) << run.describe();
  const int n = static_cast<int>(files.size());
  EXPECT_EQ(countOf(run.out, " baseline    640x480    4:2:2 (2x1,1x1,1x1) "), n) << run.out;
  // Every other frame has a restart interval of two MCU rows of 40 MCUs.
  EXPECT_EQ(countOf(run.out, "80 MCUs (2 rows) no   90      AVI1"), n / 2) << run.out;
  EXPECT_TRUE(contains(run.out, "raw MJPEG stream, " + std::to_string(n) + " frames")) << run.out;
  EXPECT_TRUE(contains(run.out, "DHT       absent (" + std::to_string(n) + ")")) << run.out;
  EXPECT_TRUE(contains(run.out, "quality   90 (" + std::to_string(n) + ")")) << run.out;

  const std::vector<std::string> reference = corpusFiles("reftest");
  if (!reference.empty()) {
    const ToolRun progressive =
        runTool({"info", corpusDir() + "/reftest/jpg-progressive.jpg", "--tables"});
    EXPECT_EQ(progressive.code, 0) << progressive.describe();
    EXPECT_TRUE(contains(progressive.out, "progressive")) << progressive.out;
    EXPECT_TRUE(contains(progressive.out, "quantisation table 0 (8-bit), luma: quality"))
        << progressive.out;
  }
}

TEST(ToolCommandTest, BenchComparesTheDecoders) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  const ToolRun run = runTool({"bench", corpusDir() + "/webcam-480p", "--time", "0"});
  EXPECT_EQ(run.code, 0) << run.describe();
  EXPECT_TRUE(
      contains(run.out, "webcam-480p: " + std::to_string(files.size()) + " frames, 640x480 4:2:2"))
      << run.out;
  for (const char* decoder :
       {"vidra own decoder", "vidra turbo path", "libjpeg-turbo", "FFmpeg mjpeg"}) {
    EXPECT_TRUE(contains(run.out, decoder)) << decoder << "\n" << run.out;
  }
  EXPECT_TRUE(contains(run.out, "1.00x")) << run.out;  // libjpeg-turbo against itself

  TempDir dir;
  writeFile(dir.file("two.mjpeg"), concatFrames(readAll(files, 2)));
  const ToolRun threads = runTool({"bench", dir.file("two.mjpeg"), "--threads", "2", "--time", "0",
                                   "--decoders", "own,libjpeg-turbo"});
  EXPECT_EQ(threads.code, 0) << threads.describe();
  EXPECT_EQ(countOf(threads.out, "      2 "), 2) << threads.out;  // a 2-thread row per decoder
  EXPECT_TRUE(contains(threads.out, "scaling")) << threads.out;
  EXPECT_FALSE(contains(threads.out, "FFmpeg")) << threads.out;
}

TEST(ToolCommandTest, DemoWritesAClipAndAContactSheet) {
  TempDir dir;
  const ToolRun run = runTool(
      {"demo", "--frames", "12", "--size", "192x108", "--rounds", "1", "--out-dir", dir.path()});
  EXPECT_EQ(run.code, 0) << run.describe();
  EXPECT_TRUE(contains(run.out, "12 frames of 192x108")) << run.out;
  EXPECT_TRUE(contains(run.out, "damaged on the way")) << run.out;
  EXPECT_TRUE(contains(run.out, "frame   1  2 bits flipped")) << run.out;  // 7 * 12 / 60
  const VideoProbe probe = probeVideo(dir.file("demo.y4m"));
  ASSERT_EQ(probe.error, "") << run.describe();
  EXPECT_EQ(probe.width, 192);
  EXPECT_EQ(probe.height, 108);
  EXPECT_EQ(probe.frames, 12);
  int width = 0, height = 0;
  ASSERT_TRUE(pngSize(dir.file("demo-contact.png"), &width, &height));
  EXPECT_EQ(width, 8 + 8 * (48 + 8 + 8));  // 8 columns of quarter-size thumbnails with borders
  EXPECT_EQ(height, 8 + 2 * (27 + 8 + 16 + 8));

  const ToolRun missing = runTool({"demo", "--frames", "2", "--out-dir", dir.file("nope")});
  EXPECT_EQ(missing.code, 2) << missing.describe();
  EXPECT_TRUE(contains(missing.err, "nope: no such folder")) << missing.describe();
}

}  // namespace
}  // namespace test
}  // namespace vidra
