// The frame report (decodeFrame) and the header reader (readFrameHeader).

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "jpeg.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

struct Outcome {
  bool ok = false;
  FrameReport report;
  test::Planes planes;
  Outcome(int w, int h) : planes(w, h) {}
};

Outcome decode(const std::vector<uint8_t>& frame, int w, int h, DecodeOptions options = {}) {
  Outcome out(w, h);
  out.ok = decodeFrame(frame.data(), frame.size(), w, h, out.planes.y.data(), out.planes.y_stride,
                       out.planes.u.data(), out.planes.uv_stride, out.planes.v.data(),
                       out.planes.uv_stride, options, &out.report);
  return out;
}

DecodeOptions withDecoder(Decoder decoder, bool fallback = false) {
  return {decoder, /*insert_dht=*/true, fallback};
}

using Status = FrameStatus;
using Path = DecodePath;
using Reason = RefusalReason;

// A grey frame, whose layout the own decoder refuses, goes to the fallback and comes out exactly
// as on the TurboJPEG path (FFmpeg's 1x2 chroma: the tool's tests). CMYK, which libjpeg stores as
// YCCK unless its Adobe segment says otherwise, is refused on both paths (RGB: the corpus table).
TEST(FrameReportTest, FallbackForLayoutsNotForColourSpaces) {
  const test::LogCapture quiet(/*mjpeg_level=*/0, /*check_level=*/0);  // refusals expected
  const std::vector<uint8_t> grey = test::encodeTestFrame(64, 48, TJSAMP_GRAY);
  const Outcome turbo = decode(grey, 64, 48, withDecoder(Decoder::kTurbo));
  const Outcome refused = decode(grey, 64, 48, withDecoder(Decoder::kOwn));
  const Outcome fallback = decode(grey, 64, 48, withDecoder(Decoder::kOwn, true));
  ASSERT_TRUE(turbo.ok);
  EXPECT_EQ(refused.report.reason, Reason::kUnsupportedLayout);
  EXPECT_TRUE(refused.planes == test::Planes(64, 48)) << "planes touched";
  EXPECT_EQ(std::make_pair(fallback.report.status, fallback.report.path),
            std::make_pair(Status::kClean, Path::kTurboFallback));
  EXPECT_TRUE(fallback.planes == turbo.planes);

  std::vector<uint8_t> pixels(64 * 48 * 4);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>(i * 7 + i / 256);
  tjhandle handle = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  ASSERT_EQ(
      tjCompress2(handle, pixels.data(), 64, 0, 48, TJPF_CMYK, &jpeg, &size, TJSAMP_444, 90, 0), 0);
  const std::vector<uint8_t> ycck(jpeg, jpeg + size);
  tjFree(jpeg);
  tjDestroy(handle);
  std::vector<uint8_t> cmyk = ycck;
  const char adobe[] = "Adobe";
  cmyk[std::search(cmyk.begin(), cmyk.end(), adobe, adobe + 5) - cmyk.begin() + 11] = 0;
  for (const auto& [frame, colour] :
       {std::pair(ycck, ColourSpace::kYCCK), std::pair(cmyk, ColourSpace::kCMYK)}) {
    for (Decoder decoder : {Decoder::kOwn, Decoder::kTurbo}) {
      const Outcome out = decode(frame, 64, 48, withDecoder(decoder, true));
      EXPECT_FALSE(out.ok);
      EXPECT_EQ(out.report.header.colour_space, colour);
      EXPECT_EQ(out.report.reason, Reason::kUnsupportedColourSpace);
      EXPECT_TRUE(out.planes == test::Planes(64, 48));
    }
  }
}

// With the fallback off and the automatic choice, decodeFrame() is decompressMJPEG() for every
// corpus frame, clean, damaged or quirky (but for other colour spaces, which it refuses).
TEST(FrameReportTest, EqualsDecompressMJPEGOnTheWholeCorpus) {
  const test::LogCapture quiet(/*mjpeg_level=*/0, /*check_level=*/0);  // refusals expected
  int frames = 0;
  for (const char* folder : {"webcam-480p", "webcam-720p", "damaged", "reftest"}) {
    for (const std::string& path : test::corpusFiles(folder)) {
      SCOPED_TRACE(path);
      const std::vector<uint8_t> frame = test::readFile(path);
      int w = 0, h = 0;
      if (!getJPEGImageSize(frame.data(), frame.size(), &w, &h) || w <= 0 || h <= 0) continue;
      test::Planes expected(w, h);
      const bool expected_ok = decompressMJPEG(
          frame.data(), frame.size(), w, h, true, expected.y.data(), expected.y_stride,
          expected.u.data(), expected.uv_stride, expected.v.data(), expected.uv_stride);
      const Outcome out = decode(frame, w, h);
      ++frames;
      // Frames in other colour spaces are the one intended difference.
      const ColourSpace colour = out.report.header.colour_space;
      if (colour != ColourSpace::kYCbCr && colour != ColourSpace::kGrey) {
        EXPECT_EQ(out.report.reason, Reason::kUnsupportedColourSpace);
        continue;
      }
      EXPECT_EQ(out.ok, expected_ok);
      EXPECT_TRUE(out.planes == expected);
      // The fallback takes over unsupported frames and changes nothing for the others.
      const Outcome with_fallback = decode(frame, w, h, withDecoder(Decoder::kAuto, true));
      const RefusalReason why = out.report.reason;
      if (why == Reason::kUnsupportedProcess || why == Reason::kUnsupportedLayout) {
        EXPECT_EQ(with_fallback.report.path, Path::kTurboFallback);
      } else {
        EXPECT_EQ(with_fallback.report.path, out.report.path);
        EXPECT_EQ(with_fallback.report.status, out.report.status);
        EXPECT_TRUE(with_fallback.planes == out.planes);
      }
      // The status agrees with the result; a refusal has a reason and leaves the planes as
      // they were. (The MCU counts of damaged frames are pinned in the next test.)
      const FrameReport& r = out.report;
      const bool accepted = r.status == Status::kClean || r.status == Status::kConcealed;
      EXPECT_EQ(out.ok, accepted);
      EXPECT_EQ(r.status == Status::kRefused, r.reason != Reason::kNone);
      EXPECT_TRUE(r.status != Status::kRefused || out.planes == test::Planes(w, h));
    }
  }
  if (frames == 0) GTEST_SKIP() << "corpus not found";
}

// The report of each damaged and quirky corpus frame on the own decoder, with the fallback.
TEST(FrameReportTest, DamagedAndQuirkyCorpusFrames) {
  const test::LogCapture quiet(/*mjpeg_level=*/0, /*check_level=*/0);  // refusals expected
  struct Case {
    const char* file;
    FrameStatus status;
    DecodePath path;
    int valid, total;  // MCUs
    RefusalReason reason = Reason::kNone;
  } cases[] = {
      {"damaged/flip-again-00.jpg", Status::kConcealed, Path::kOwn, 2320, 2400},
      {"damaged/flip-again-01.jpg", Status::kFailed, Path::kOwn, 0, 2400},
      {"damaged/flip-again-02.jpg", Status::kClean, Path::kOwn, 2400, 2400},
      {"damaged/trunc-again-00.jpg", Status::kFailed, Path::kOwn, 1600, 2400},
      {"damaged/trunc-again-01.jpg", Status::kFailed, Path::kOwn, 0, 2400},
      {"damaged/trunc-again-02.jpg", Status::kFailed, Path::kOwn, 1520, 2400},
      {"reftest/extraneous-data.jpg", Status::kClean, Path::kOwn, 1, 1},
      {"reftest/restarts.jpg", Status::kClean, Path::kOwn, 25, 25},
      {"reftest/jpg-gray.jpg", Status::kClean, Path::kTurboFallback, 0, 0},
      {"reftest/jpg-progressive.jpg", Status::kClean, Path::kTurboFallback, 0, 0},
      {"reftest/non-interleaved-mcu.jpg", Status::kClean, Path::kTurboFallback, 0, 0},
      {"reftest/rgb.jpg", Status::kRefused, Path::kNone, 0, 0, Reason::kUnsupportedColourSpace},
  };
  if (test::corpusDir().empty()) GTEST_SKIP() << "corpus not found";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const std::vector<uint8_t> frame = test::readFile(test::corpusDir() + "/" + c.file);
    FrameHeader header;
    ASSERT_TRUE(readFrameHeader(frame.data(), frame.size(), &header));
    const Outcome out =
        decode(frame, header.width, header.height, withDecoder(Decoder::kOwn, true));
    const FrameReport& r = out.report;
    EXPECT_EQ(std::make_tuple(r.status, r.path, r.valid_mcus, r.total_mcus, r.reason),
              std::make_tuple(c.status, c.path, c.valid, c.total, c.reason));
  }
}

// One frame for each reason, on the path that gives it.
TEST(FrameReportTest, RefusalReasons) {
  const test::LogCapture quiet(/*mjpeg_level=*/0, /*check_level=*/0);  // refusals expected
  const std::vector<uint8_t> good = test::encodeTestFrame(64, 48, TJSAMP_422);
  // `good` with `bytes` written over it at `at`, or put in there.
  auto edited = [&](size_t at, std::vector<uint8_t> bytes, bool insert = false) {
    std::vector<uint8_t> frame = good;
    if (insert) frame.insert(frame.begin() + at, bytes.size(), 0);
    std::copy(bytes.begin(), bytes.end(), frame.begin() + at);
    return frame;
  };
  const size_t sof = test::markerAt(good, 0xC0), dht = test::markerAt(good, 0xC4),
               sos = test::markerAt(good, 0xDA);
  ASSERT_LT(std::max({sof, dht, sos}), good.size());
  // A 4:4:4 frame header claiming 8000x8000 pixels ahead of a few bytes of scan.
  std::vector<uint8_t> huge = test::encodeTestFrame(64, 48, TJSAMP_444);
  const size_t huge_sof = test::markerAt(huge, 0xC0);
  huge[huge_sof + 5] = huge[huge_sof + 7] = 0x1F, huge[huge_sof + 6] = huge[huge_sof + 8] = 0x40;
  std::vector<uint8_t> cut(good.begin(), good.begin() + sof + 6);  // inside the frame header
  // 300 codes of one length: more than a table can hold.
  std::vector<uint8_t> bad_dht = edited(dht + 5, {0, 0xFF, 0xFF});

  struct Case {
    const char* name;
    std::vector<uint8_t> frame;
    int w, h;
    Decoder decoder;
    RefusalReason reason;
  } cases[] = {
      {"size, own", good, 64, 40, Decoder::kOwn, Reason::kSizeMismatch},
      {"size, turbo", good, 48, 48, Decoder::kTurbo, Reason::kSizeMismatch},
      {"no SOI, own", edited(0, {0x00}), 64, 48, Decoder::kOwn, Reason::kNotJPEG},
      {"no SOI, turbo", edited(1, {0x00}), 64, 48, Decoder::kTurbo, Reason::kNotJPEG},
      {"SOF1", edited(sof + 1, {0xC1}), 64, 48, Decoder::kOwn, Reason::kUnsupportedProcess},
      {"spectral selection", edited(sos + 2 + 2 + 1 + 2 * 3, {1}), 64, 48, Decoder::kOwn,
       Reason::kUnsupportedProcess},
      {"13 blocks per MCU", edited(sof + 11, {0x33}), 64, 48, Decoder::kOwn,
       Reason::kUnsupportedLayout},
      {"bad table, own", bad_dht, 64, 48, Decoder::kOwn, Reason::kBadHeader},
      {"bad table, turbo", bad_dht, 64, 48, Decoder::kTurbo, Reason::kTurboError},
      {"cut in header, own", cut, 64, 48, Decoder::kOwn, Reason::kTruncated},
      {"cut in header, turbo", cut, 64, 48, Decoder::kTurbo, Reason::kTruncated},
      {"too large", huge, 8000, 8000, Decoder::kOwn, Reason::kTooLarge},
      // Markers the own loop refuses: a fill byte (legal JPEG), RST0 or EOI before a scan (damage).
      {"fill byte", edited(2, {0xFF}, true), 64, 48, Decoder::kOwn, Reason::kUnsupportedProcess},
      {"RST0 in the header", edited(2, {0xFF, 0xD0}, true), 64, 48, Decoder::kOwn,
       Reason::kBadHeader},
      {"EOI instead of the scan", edited(sos + 1, {0xD9}), 64, 48, Decoder::kOwn,
       Reason::kTruncated},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (bool fallback : {false, true}) {
      // Other refusals stand with the fallback on; unsupported ones go to it (tested above).
      if (fallback &&
          (c.reason == Reason::kUnsupportedProcess || c.reason == Reason::kUnsupportedLayout)) {
        continue;
      }
      const Outcome out = decode(c.frame, c.w, c.h, withDecoder(c.decoder, fallback));
      EXPECT_FALSE(out.ok);
      EXPECT_EQ(out.report.status, Status::kRefused);
      EXPECT_EQ(out.report.reason, c.reason) << refusalReasonText(out.report.reason);
      EXPECT_TRUE(out.planes == test::Planes(c.w, c.h)) << "planes touched";
    }
  }
}

// Both entry points log the decoder's lines, line numbers included, exactly as they stand; a
// frame that the header shows unsupported goes to the fallback without them.
TEST(FrameReportTest, LogsTheDecodersLinesUnchanged) {
  std::vector<uint8_t> ffmpeg_422 = test::encodeTestFrame(64, 48, TJSAMP_422);
  const size_t sof = test::markerAt(ffmpeg_422, 0xC0);
  ffmpeg_422[sof + 11] = 0x22;  // luma 2x2, chroma 1x2: FFmpeg's 4:2:2
  ffmpeg_422[sof + 14] = ffmpeg_422[sof + 17] = 0x12;
  const std::vector<uint8_t> cut(ffmpeg_422.begin(), ffmpeg_422.begin() + sof + 9);
  const std::vector<uint8_t> good = test::encodeTestFrame(64, 48, TJSAMP_422);
  std::vector<uint8_t> bad_table = good;
  bad_table[test::markerAt(bad_table, 0xC4) + 4] = 0x20;  // table class 2
  const char* output_check =
      "144: JPEG assertion failed outputResults(width, height, y, y_stride, u, u_stride, v, "
      "v_stride)";
  struct Case {
    const std::vector<uint8_t>* frame;
    int height;
    std::vector<std::string> lines;
  } cases[] = {
      {&ffmpeg_422, 48, {"41: JPEG assertion failed c[2].v1_ == 1", output_check}},
      {&good, 40, {"Wrong output image size. Expected 64x48 got 64x40.", output_check}},
      {&cut,
       48,
       {"162: JPEG assertion failed input->getLength16(&len)",
        "116: JPEG assertion failed parseSOF0(&input)"}},
      {&bad_table,
       48,
       {"63: JPEG assertion failed tc < 2", "119: JPEG assertion failed parseDHT(&input)"}},
  };
  for (const Case& c : cases) {
    for (bool report : {false, true}) {
      test::LogCapture capture(/*mjpeg_level=*/2);
      test::Planes planes(64, c.height);
      if (report) {
        decode(*c.frame, 64, c.height, withDecoder(Decoder::kOwn));
      } else {
        SimpleJPEGDecoder().decompress(c.frame->data(), c.frame->size(), 64, c.height, true,
                                       planes.y.data(), planes.y_stride, planes.u.data(),
                                       planes.uv_stride, planes.v.data(), planes.uv_stride);
      }
      EXPECT_EQ(capture.texts(2, "mjpeg"), c.lines) << "report " << report;
    }
  }
  test::LogCapture capture(/*mjpeg_level=*/6);
  decode(ffmpeg_422, 64, 48, withDecoder(Decoder::kOwn, true));
  EXPECT_EQ(capture.texts(6, "mjpeg"), std::vector<std::string>{"Using jpeg-turbo"});
}

// Bad arguments are refused before anything is read or written.
TEST(FrameReportTest, RefusesBadArguments) {
  const std::vector<uint8_t> frame = test::encodeTestFrame(64, 48, TJSAMP_420);
  std::vector<uint8_t> y(64 * 48), u(32 * 24), v(32 * 24);
  struct Case {
    const char* name;
    const uint8_t* data;
    size_t size;
    int w, h;
    uint8_t *y, *u;
    int y_stride, uv_stride;
  } cases[] = {
      {"null data", nullptr, frame.size(), 64, 48, y.data(), u.data(), 64, 32},
      {"empty", frame.data(), 0, 64, 48, y.data(), u.data(), 64, 32},
      {"width 0", frame.data(), frame.size(), 0, 48, y.data(), u.data(), 64, 32},
      {"negative height", frame.data(), frame.size(), 64, -48, y.data(), u.data(), 64, 32},
      {"width 70000", frame.data(), frame.size(), 70000, 48, y.data(), u.data(), 70000, 35000},
      {"null luma", frame.data(), frame.size(), 64, 48, nullptr, u.data(), 64, 32},
      {"null chroma", frame.data(), frame.size(), 64, 48, y.data(), nullptr, 64, 32},
      {"null chroma, 1 wide", frame.data(), frame.size(), 1, 48, y.data(), nullptr, 1, 8},
      {"short luma stride", frame.data(), frame.size(), 64, 48, y.data(), u.data(), 63, 32},
      {"short chroma stride", frame.data(), frame.size(), 64, 48, y.data(), u.data(), 64, -31},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FrameReport report;
    report.status = Status::kClean;
    EXPECT_FALSE(decodeFrame(c.data, c.size, c.w, c.h, c.y, c.y_stride, c.u, c.uv_stride, v.data(),
                             c.uv_stride, DecodeOptions(), &report));
    EXPECT_EQ(report.status, Status::kRefused);
    EXPECT_EQ(report.reason, Reason::kInvalidArgument);
  }
  EXPECT_FALSE(decodeFrame(frame.data(), frame.size(), 64, 48, y.data(), 64, u.data(), 32, v.data(),
                           32, DecodeOptions(), nullptr));
  EXPECT_TRUE(std::all_of(y.begin(), y.end(), [](uint8_t s) { return s == 0; }));
}

// The header reader: the facts of the frame header, the tables and the scan, through junk and
// fill bytes between segments, and as far as a cut frame goes.
TEST(FrameHeaderTest, ReadsWhatTheSegmentsSay) {
  std::vector<uint8_t> frame = test::encodeTestFrame(70, 30, TJSAMP_422, 90, 1);
  FrameHeader h;
  ASSERT_TRUE(readFrameHeader(frame.data(), frame.size(), &h));
  // The restart interval is one MCU row: 70 / 16 MCUs, rounded up.
  EXPECT_EQ(std::make_tuple(h.width, h.height, h.precision, h.components, h.h_factors[0],
                            h.v_factors[0], h.sof_marker, h.progressive, h.restart_interval),
            std::make_tuple(70, 30, 8, 3, 2, 1, 0xC0, false, 5));
  EXPECT_TRUE(h.colour_space == ColourSpace::kYCbCr && h.subsampling == Subsampling::k422);
  EXPECT_TRUE(h.has_dht && h.has_scan);

  // Junk and fill bytes after SOI, and no tables: still read.
  std::vector<uint8_t> quirky = test::stripDHT(frame);
  quirky.insert(quirky.begin() + 2, {0x12, 0x34, 0xFF, 0xFF});
  ASSERT_TRUE(readFrameHeader(quirky.data(), quirky.size(), &h));
  EXPECT_EQ(h.width, 70);
  EXPECT_FALSE(h.has_dht);

  // Cut inside the scan header: the frame header is known, the scan is not.
  ASSERT_TRUE(readFrameHeader(frame.data(), test::markerAt(frame, 0xDA) + 4, &h));
  EXPECT_FALSE(h.has_scan);
  // No SOI, nothing at all, no frame header.
  EXPECT_FALSE(readFrameHeader(frame.data() + 1, frame.size() - 1, &h));
  EXPECT_FALSE(readFrameHeader(nullptr, 0, &h));
  EXPECT_EQ(h.width, 0);
  const uint8_t tables_only[] = {0xFF, 0xD8, 0xFF, 0xD9};
  EXPECT_FALSE(readFrameHeader(tables_only, sizeof(tables_only), &h));
  EXPECT_FALSE(readFrameHeader(frame.data(), frame.size(), nullptr));
}

// A header's size against its data: 16M pixels always pass, more need a byte per 512 pixels.
TEST(FrameHeaderTest, SizePlausibleForItsData) {
  FrameHeader claim;
  claim.width = claim.height = 4096;
  EXPECT_TRUE(frameSizePlausible(claim, 10));
  claim.width = claim.height = 8192;
  EXPECT_FALSE(frameSizePlausible(claim, 131071));
  EXPECT_TRUE(frameSizePlausible(claim, 131072));
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
