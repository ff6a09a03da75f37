// The vidra-mjpeg binary as a person runs it: each subcommand on corpus frames and on streams
// and video files made here, and bad inputs, through exit codes and messages.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "tool/tool_test_support.h"
#include "vidra/cpu_info.h"

namespace vidra {
namespace test {
namespace {

using Bytes = std::vector<uint8_t>;

// A Y4M file the tool writes: its header, and its size with `frames` frames (chroma rounded up).
struct Y4M {
  int width = 0, height = 0, frames = 0;
  std::string fps = "30:1";
  std::string header() const {
    return "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F" + fps +
           " Ip A1:1 C420jpeg XYSCSS=420JPEG XCOLORRANGE=FULL\n";
  }
  size_t size() const {
    const size_t chroma = static_cast<size_t>((width + 1) / 2) * ((height + 1) / 2);
    return header().size() + frames * (6 + static_cast<size_t>(width) * height + 2 * chroma);
  }
  void expectIn(const std::string& data) const {
    EXPECT_EQ(data.substr(0, header().size()), header());
    EXPECT_EQ(data.size(), size());
  }
};

// A count line of the decode summary, e.g. "  decoded           6  ".
std::string summary(const char* label, long n) {
  char text[64];
  std::snprintf(text, sizeof(text), "  %-11s%8ld  ", label, n);
  return text;
}

// Runs the tool; expects exit code `code`, the fragments `out` on stdout and `err` on stderr,
// and, when `file` is given, the Y4M file `y4m` there.
ToolRun check(const std::vector<std::string>& args, int code, const std::vector<std::string>& out,
              const std::vector<std::string>& err, const std::string& file = "",
              const Y4M& y4m = {}) {
  SCOPED_TRACE(testing::PrintToString(args));
  const ToolRun run = runTool(args);
  EXPECT_EQ(run.code, code) << run.describe();
  for (const std::string& text : out) EXPECT_TRUE(has(run.out, text));
  for (const std::string& text : err) EXPECT_TRUE(has(run.err, text));
  if (file.empty()) return run;
  const Bytes written = readFile(file);
  y4m.expectIn(std::string(written.begin(), written.end()));
  return run;
}

// One usage mistake of each kind (exit 2, a message naming it), then the refusals that protect
// files: no output left behind by an error before the first frame, a file that was there before
// kept, the input never written over; and inputs that can't be read.
TEST(ToolCommandTest, UsageMistakesAndBadInputsExitWithAClearMessage) {
  TempDir dir;
  const std::string jpeg = dir.file("a.jpg"), missing = dir.file("missing.mjpeg"),
                    empty = dir.file("empty.mjpeg"), notes = dir.file("notes.txt"),
                    same = dir.file("same.yuv"), out = dir.file("a.y4m");
  const Bytes frame = encodeTestFrame(16, 16, TJSAMP_420);
  writeFile(jpeg, frame);
  writeFile(same, frame);
  writeFile(empty, std::string());
  writeFile(notes, std::string("these are notes, not pictures\n"));
  check({"--help"}, 0, {"exit status: 0 success, 1 some frames failed or were refused"}, {});
  check({"frobnicate"}, 2, {}, {"vidra-mjpeg: unknown command 'frobnicate'"});
  check({"decode", jpeg, "--bogus"}, 2, {},
        {"vidra-mjpeg decode: unknown option '--bogus'\nRun 'vidra-mjpeg decode --help' for"});
  check({"decode", jpeg, "--fps", "fast"}, 2, {}, {"--fps expects a rate"});
  check({"decode", dir.path()}, 2, {}, {dir.path() + ": is a directory, not a file"});
  check({"decode", jpeg, "-o", out, "--png", "0", "--png-file", "/no-folder/a.png"}, 2, {},
        {"/no-folder/a.png: cannot create"});
  EXPECT_FALSE(std::filesystem::exists(out));
  // Also when the PNG fails at the first frame; a file that was there before stays.
  check({"decode", jpeg, "-o", out, "--png", "0", "--png-file", dir.path()}, 2, {}, {});
  EXPECT_FALSE(std::filesystem::exists(out));
  writeFile(out, frame);
  check({"decode", jpeg, "-o", out, "--png", "0", "--png-file", dir.path()}, 2, {}, {});
  EXPECT_TRUE(std::filesystem::exists(out));
  check({"decode", same, "-o", same}, 2, {}, {same + ": is the input file"});
  check({"decode", jpeg, "--png", "0", "--png-file", jpeg}, 2, {}, {jpeg + ": is the input file"});
  EXPECT_EQ(readFile(same), frame);
  EXPECT_EQ(readFile(jpeg), frame);
  check({"info", missing}, 2, {}, {missing + ": cannot open: No such file or directory"});
  check({"decode", empty}, 2, {}, {empty + ": the file is empty"});
  check({"bench", notes}, 2, {}, {notes + ": not a JPEG, an MJPEG stream or a video file"});
}

TEST(ToolCommandTest, DecodesAnOddSizedFrameToY4M) {
  VIDRA_REQUIRE_CORPUS(corpusFiles("reftest"), "reftest");
  TempDir dir;
  const std::string in = corpusDir() + "/reftest/", out = dir.file("out.y4m");
  // The library writes the chroma rounded down, the file holds it rounded up.
  check({"decode", in + "jpg-size-17x17.jpg", "-o", out, "--turbo", "--fps", "30000:1001"}, 0, {},
        {"jpg-size-17x17.jpg: JPEG file, 1 frames, 17x17", summary("decoded", 1),
         "in the library's TurboJPEG path"},
        out, {17, 17, 1, "30000:1001"});
}

TEST(ToolCommandTest, RunsOnStreamsAndVideoFilesMadeFromCorpusFrames) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  std::vector<Bytes> frames;
  for (const std::string& file : files) frames.push_back(readFile(file));
  const std::string n = std::to_string(frames.size());
  auto first = [&](int k) { return std::vector<Bytes>(frames.begin(), frames.begin() + k); };
  TempDir dir;
  const std::string junk = dir.file("junk.mjpeg"), cut = dir.file("cut.mjpeg"),
                    cut_header = dir.file("cut-header.mjpeg"), huge = dir.file("huge.mjpeg"),
                    mixed = dir.file("mixed.mjpeg"), out = dir.file("out.y4m"),
                    yuv = dir.file("out.yuv"), no_frames = dir.file("no-frames.avi"),
                    no_output = dir.file("none.y4m");
  // Between each two of 6 frames, 5 bytes that hold FF D8 but start no frame.
  writeFile(junk, concatFrames(first(6), {0x00, 0x12, 0xFF, 0xD8, 0x00}));
  // The last of 3 frames cut in the middle of its entropy data, then inside its header.
  std::vector<Bytes> three = first(3);
  const std::string cut_at = std::to_string(frames[0].size() + frames[1].size());
  three[2].resize(three[2].size() / 2);
  writeFile(cut, concatFrames(three));
  three[2].resize(100);
  writeFile(cut_header, concatFrames(three));
  // A damaged frame header may claim up to 65535x65535: refused, not gigabytes allocated.
  writeFile(huge, concatFrames({frames[0], claimingSize(frames[1], 60000, 60000)}));
  // The first frame doesn't decide the output's size: the stream's usual size does. A frame
  // claiming 8192x8192 over a few bytes of scan is refused at once, not counted for the speed.
  Bytes big = claimingSize(frames[2], 8192, 8192);
  big.resize(markerAt(big, 0xDA) + 40);
  big.insert(big.end(), {0xFF, 0xD9});
  writeFile(mixed, concatFrames({encodeTestFrame(64, 32, TJSAMP_422), frames[0], big, frames[1]}));

  check({"decode", junk, "-o" + yuv, "--png=5", "-v"}, 0, {},
        {"raw MJPEG stream, 6 frames, 640x480", summary("decoded", 6), summary("junk", 25),
         "frame 5 (byte "});
  EXPECT_EQ(std::filesystem::file_size(yuv), 6u * 640 * 480 * 3 / 2);
  EXPECT_EQ(pngInfo(dir.file("out-frame5.png")), "640x480 RGB");
  // Failed, refused and unwritable frames keep their place in the output.
  check({"decode", cut, "-o", out}, 1, {},
        {"frame 2 (byte " + cut_at + ") is cut short", summary("cut short", 1),
         summary("decoded", 2)},
        out, {640, 480, 3});
  check({"decode", huge, "-o", out}, 1, {},
        {"frame 1 (byte " + std::to_string(frames[0].size()) + ") claims 60000x60000",
         summary("refused", 1)},
        out, {640, 480, 2});
  check({"decode", mixed, "-o", out}, 1, {},
        {"frame 0 (byte 0) is 64x32 but " + out + " holds 640x480", summary("not written", 1),
         summary("refused", 1)},
        out, {640, 480, 4});
  // Containers: their frame rate goes into the Y4M header; the first frame decides no size here.
  for (const bool odd_first : {false, true}) {
    const char* format = odd_first ? "matroska" : "avi";
    const std::string clip = dir.file(std::string("clip.") + format);
    std::vector<Bytes> track = first(4);
    if (odd_first) track[0] = encodeTestFrame(64, 32, TJSAMP_422);
    ASSERT_EQ(muxMJPEG(clip, format, track, 640, 480), "");
    check({"decode", clip, "-o", out}, odd_first, {},
          {format + std::string(" file (MJPEG track #0), 4 frames, "),
           odd_first ? summary("not written", 1) : summary("decoded", 4)},
          out, {640, 480, 4, "25:1"});
  }
  ASSERT_EQ(muxMJPEG(no_frames, "avi", {}, 640, 480), "");
  check({"decode", no_frames, "-o", no_output}, 2, {}, {"no MJPEG frames in it"});
  EXPECT_FALSE(std::filesystem::exists(no_output));

  // Every other corpus frame has a restart interval of two MCU rows of 40 MCUs.
  check({"info", junk}, 0,
        {"raw MJPEG stream, 6 frames", "layout    640x480 baseline 4:2:2 (2x1,1x1,1x1) (6)",
         "restart   80 MCUs (2 rows) (3), none (3)", "DHT       absent (6)", "quality   90 (6)"},
        {});
  // The header of the cut frame is whole: info reads it and marks the cut.
  check({"info", cut}, 0, {"  [cut short]\n", "  cut short: 1\n"}, {});
  check({"info", cut_header}, 1, {"header unreadable: the frame ends inside marker"},
        {"1 of 3 frames have unreadable headers"});
  // Every decoder on a folder and a stream, with threads.
  check({"bench", corpusDir() + "/webcam-480p", junk, "--threads", "2", "--time", "0"}, 0,
        {"webcam-480p: " + n + " frames, 640x480 ", "junk.mjpeg: 6 frames, 640x480"}, {});
}

// A live stream on standard input: the frames so far come out, flushed, while the input is open
// (a frame that ends at its EOI needs no byte behind it; 20 s is a liveness bound, not a speed),
// and the whole output is what the same bytes give from a file. A pipe without data or without
// an SOI fails as standard input did when read whole.
TEST(ToolCommandTest, DecodesALiveStreamOnStandardInputAsItComes) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  ASSERT_GE(files.size(), 6u);
  std::vector<Bytes> frames;
  for (size_t i = 0; i < files.size() && i < 6; ++i) frames.push_back(readFile(files[i]));
  const Bytes first = concatFrames({frames[0], frames[1]}),
              rest = concatFrames({frames[2], frames[3], frames[4], frames[5]});
  TempDir dir;
  const std::string file = dir.file("live.mjpeg");
  writeFile(file, concatFrames({first, rest}));
  const ToolRun expected = runTool({"decode", file, "-o", "-"});
  ASSERT_EQ(expected.code, 0) << expected.describe();

  ToolProcess live({"decode", "-", "-o", "-"});
  ASSERT_TRUE(live.send(first));
  const Y4M two{640, 480, 2};
  const std::string early = live.output(two.size(), 20000);
  ASSERT_EQ(early.size(), two.size())
      << "not both frames on stdout within 20 s while stdin is open";
  two.expectIn(early);
  ASSERT_TRUE(live.send(rest));
  const ToolRun run = live.finish();
  EXPECT_EQ(run.code, 0) << run.describe();
  EXPECT_TRUE(run.out == expected.out) << run.out.size() << " bytes, not " << expected.out.size();
  EXPECT_TRUE(has(run.err, "standard input: raw MJPEG stream, 6 frames, 640x480"));

  for (const std::string& input : {std::string(), std::string("not a picture\xFF\xD8")}) {
    ToolProcess piped({"decode", "-", "-o", "-"});
    EXPECT_TRUE(piped.send(Bytes(input.begin(), input.end())));
    const ToolRun failed = piped.finish();
    EXPECT_EQ(failed.code, 2) << failed.describe();
    EXPECT_TRUE(has(failed.err, "vidra-mjpeg: standard input: "));
    EXPECT_EQ(failed.out, "");
  }
}

// A frame with flipped bits that the own decoder accepts with a few MCUs concealed: counted apart
// from clean frames, and as accepted (exit 0). (The fallback, and refusals without it: FFmpeg's
// 4:2:2 below.)
TEST(ToolCommandTest, CountsConcealedFramesApartFromCleanOnes) {
  VIDRA_REQUIRE_CORPUS(corpusFiles("damaged"), "damaged");
  // The tool picks the own decoder by the same probe (VIDRA_CPU_MASK included) as this test.
  if (!CPUInfo().supports_fast_decoder()) {
    GTEST_SKIP() << "the own decoder doesn't run here (SSSE3/SSE4.1 missing or masked)";
  }
  check({"decode", corpusDir() + "/damaged/flip-again-00.jpg", "-v"}, 0, {},
        {summary("decoded", 0), summary("concealed", 1), ": concealed in "});
}

// The demo's clip, and the stream it saves: encoded as a webcam sends frames.
TEST(ToolCommandTest, DemoWritesAClipAStreamAndAContactSheet) {
  TempDir dir;
  check({"demo", "--frames", "12", "--size", "192x108", "--rounds", "1", "--out-dir", dir.path(),
         "--save-stream"},
        0, {"12 frames of 192x108", "frame   1  2 bits flipped"}, {},  // 7 * 12 / 60 flips
        dir.file("demo.y4m"), {192, 108, 12});
  // 8 columns of quarter-size thumbnails with borders, in 2 rows.
  EXPECT_EQ(pngInfo(dir.file("demo-contact.png")), "520x126 RGB");
  check({"info", dir.file("demo.mjpeg")}, 0, {"192x108 baseline", "DHT       absent (12)"}, {});
}

// PSNR of `a` against `b` in dB (99 for equal ones); -1 for different sizes.
double psnr(const Bytes& a, const Bytes& b) {
  if (a.size() != b.size() || a.empty()) return -1;
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += (a[i] - b[i]) * double(a[i] - b[i]);
  return sum == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * a.size() / sum);
}

// FFmpeg's 4:2:2 MJPEG, which the own decoder refuses (chroma 1x2): the TurboJPEG fallback
// decodes every frame, close to FFmpeg's own decode. Without it the own decoder refuses them all,
// and bench exits 1. (Containers: above; other layouts: the library's tests.)
TEST(ToolCommandTest, DecodesFFmpeg422ThroughTheFallback) {
  if (std::system("ffmpeg -version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no ffmpeg here";
  const bool own = CPUInfo().supports_fast_decoder();  // else the TurboJPEG path decodes all
  TempDir dir;
  const std::string out = dir.file("out.yuv"), reference = dir.file("reference.yuv"),
                    raw = dir.file("yuvj422p.mjpeg");
  const std::string make =
      "ffmpeg -loglevel error -y -f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 12 "
      "-c:v mjpeg -q:v 3 -pix_fmt yuvj422p -f mjpeg '" +
      raw + "' && ffmpeg -loglevel error -y -i '" + raw +
      "' -f rawvideo -pix_fmt yuvj420p -sws_flags area '" + reference + "'";
  ASSERT_EQ(std::system(make.c_str()), 0) << make;
  check({"decode", raw, "-o", out}, 0, {},
        {summary("decoded", 12), own ? summary("fallback", 12) : ""});
  EXPECT_GE(psnr(readFile(out), readFile(reference)), 45.0);
  if (own) {
    check({"decode", raw, "--no-fallback"}, 1, {},
          {summary("refused", 12), "12x  unsupported sampling layout"});
  }
  check({"bench", raw, "--decoders", "own,libjpeg-turbo", "--time", "0", "--no-fallback"}, 1,
        {"12/12\n"}, {});
  check({"bench", raw, "--decoders", "own", "--time", "0"}, 0, {"12/12"}, {});
}

// Inputs that break off or would make far more output than they hold: a Matroska file cut short,
// frames of a few bytes that claim 4096x4096 (24 MiB pictures), to a sink. (Marker soup: the
// splitter's tests; a stream without frames: the AVI above.)
TEST(ToolCommandTest, StopsOnInputsThatEndEarlyOrOutgrowTheirSize) {
  TempDir dir;
  const Bytes frame = encodeTestFrame(64, 48, TJSAMP_422);
  const std::string mkv = dir.file("cut.mkv"), claims = dir.file("claims.mjpeg");
  ASSERT_EQ(muxMJPEG(mkv, "matroska", std::vector<Bytes>(30, frame), 64, 48), "");
  std::filesystem::resize_file(mkv, std::filesystem::file_size(mkv) * 6 / 10);
  check({"decode", mkv, "-o", "/dev/null"}, 1, {}, {"the file ends early"});

  writeFile(claims, concatFrames(std::vector<Bytes>(2000, claimingSize(frame, 4096, 4096))));
  const ToolRun run = check({"decode", claims, "-o", "/dev/null"}, 1, {}, {"stopped: pictures"});
  const std::string output = "output     /dev/null: ";
  ASSERT_TRUE(has(run.err, output));
  const long written = std::atol(run.err.c_str() + run.err.find(output) + output.size());
  EXPECT_GT(written, 0);
  EXPECT_LE(written, 12) << run.err;  // 256 MiB of 24 MiB pictures, and one more
}

}  // namespace
}  // namespace test
}  // namespace vidra
