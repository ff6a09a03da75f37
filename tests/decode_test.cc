// Whole frames through the library's own decoder: the samples against libjpeg-turbo's accurate
// decode, and the scalar and the vector forms against each other.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "jpeg.h"
#include "jpeg_dsp.h"
#include "mjpeg.h"
#include "support/test_support.h"

namespace vidra {
namespace jpeg {
namespace {

// libjpeg-turbo's accurate decode (flags 0), brought to 4:2:0 by the library's box filters.
bool referenceDecode(const std::vector<uint8_t>& frame, int subsampling, test::Planes* out) {
  const int w = out->width, h = out->height, cw = tjPlaneWidth(1, w, subsampling);
  // TurboJPEG may write the planes out to their padded size: room for 16 more rows.
  std::vector<uint8_t> y(size_t(w) * (h + 16)),
      u(size_t(cw) * (tjPlaneHeight(1, h, subsampling) + 16)), v(u.size());
  unsigned char* planes[3] = {y.data(), u.data(), v.data()};
  int strides[3] = {w, cw, cw};
  tjhandle handle = tjInitDecompress();
  // A warning (such as extraneous bytes in front of a marker) still gives the full picture.
  const bool ok =
      tjDecompressToYUVPlanes(handle, frame.data(), frame.size(), planes, w, strides, h, 0) == 0 ||
      tjGetErrorCode(handle) == TJERR_WARNING;
  tjDestroy(handle);
  adaptStrides(y.data(), w, out->y.data(), out->y_stride, w, h);
  const PlaneFn resample = subsampling == TJSAMP_444   ? resample444To420_c
                           : subsampling == TJSAMP_422 ? resample422To420_c
                                                       : adaptStrides;
  resample(u.data(), cw, out->u.data(), out->uv_stride, w / 2, h / 2);
  resample(v.data(), cw, out->v.data(), out->uv_stride, w / 2, h / 2);
  return ok;
}

// The lowest PSNR of the three planes of `a` against `b`.
double psnr(const test::Planes& a, const test::Planes& b) {
  double lowest = 99.0;
  for (auto plane : {&test::Planes::y, &test::Planes::u, &test::Planes::v}) {
    double sum = 0;
    for (size_t i = 0; i < (a.*plane).size(); ++i)
      sum += std::pow((a.*plane)[i] - (b.*plane)[i], 2);
    if (sum > 0) lowest = std::min(lowest, 10.0 * std::log10(65025.0 * (a.*plane).size() / sum));
  }
  return lowest;
}

// Decodes `frame` with every routine in its scalar form, then in its vector form (where there is
// one): the same result and planes. Unless `expect` is -1 the result must be `expect`, and an
// accepted frame within 35 dB of the accurate reference in every plane.
void checkFrame(const std::vector<uint8_t>& frame, int expect) {
  int width = 0, height = 0, subsampling = -1, colorspace = -1;
  tjhandle handle = tjInitDecompress();
  ASSERT_EQ(tjDecompressHeader3(handle, frame.data(), frame.size(), &width, &height, &subsampling,
                                &colorspace),
            0);
  tjDestroy(handle);
  DSPFunctions forms[2];  // the library's table holds the vector forms (TableFollowsTheProbe)
  initDSPScalar(&forms[0]);
  forms[1] = dsp();
  std::vector<test::Planes> pictures(2, test::Planes(width, height));
  bool ok[2];
  for (int i = 0; i < 2; ++i) {
    test::Planes& p = pictures[i];
    setDSPForTesting(&forms[i]);
    ok[i] = SimpleJPEGDecoder().decompress(frame.data(), frame.size(), width, height, false,
                                           p.y.data(), p.y_stride, p.u.data(), p.uv_stride,
                                           p.v.data(), p.uv_stride);
    setDSPForTesting(nullptr);
  }
  EXPECT_EQ(ok[0], ok[1]);
  EXPECT_TRUE(pictures[0] == pictures[1]);
  if (expect == -1) return;
  ASSERT_EQ(ok[1], expect == 1);
  if (!ok[1]) return;
  test::Planes reference(width, height);
  ASSERT_TRUE(referenceDecode(frame, subsampling, &reference));
  EXPECT_GE(psnr(pictures[1], reference), 35.0);
}

TEST(DecodeTest, Corpus) {
  for (const char* folder : {"webcam-480p", "webcam-720p", "reftest", "damaged"}) {
    const std::vector<std::string> files = test::corpusFiles(folder);
    VIDRA_REQUIRE_CORPUS(files, folder);
    for (const std::string& path : files) {
      SCOPED_TRACE(path);
      // Turned down: not baseline, one component (no chroma), component ids other than 1, 2, 3,
      // one scan per component (the first scan, luma alone, is all that is read).
      const std::string name = path.substr(path.find_last_of('/') + 1);
      const bool refused = name == "jpg-progressive.jpg" || name == "jpg-gray.jpg" ||
                           name == "rgb.jpg" || name == "non-interleaved-mcu.jpg";
      checkFrame(test::readFile(path), std::string(folder) == "damaged" ? -1 : !refused);
    }
  }
}

// Encoded frames of every accepted layout, odd sizes, restart intervals and default tables.
TEST(DecodeTest, EncodedLayouts) {
  for (const std::vector<uint8_t>& frame :
       {test::encodeTestFrame(101, 75, TJSAMP_420, 75, 1),
        test::stripDHT(test::encodeTestFrame(33, 17, TJSAMP_422, 50, 2)),
        test::encodeTestFrame(320, 240, TJSAMP_422, 90, 0),
        test::stripDHT(test::encodeTestFrame(17, 33, TJSAMP_444, 100, 1))})
    checkFrame(frame, 1);
}

// Rows decoded straight into the caller's planes (where the strides equal the decoder's) against
// the decoder's own planes and a copy: the same result, bytes and log lines for the whole corpus,
// damaged, cut and refused sizes included, in sentinel-filled planes ending with the caller's rows.
TEST(DecodeTest, DirectOutputChangesNothing) {
  std::vector<std::vector<uint8_t>> frames = {
      test::encodeTestFrame(101, 75, TJSAMP_420, 75, 1), test::encodeTestFrame(96, 40, TJSAMP_420),
      test::encodeTestFrame(64, 48, TJSAMP_444, 80, 1), test::encodeTestFrame(80, 24, TJSAMP_422)};
  for (const char* folder : {"webcam-480p", "webcam-720p", "reftest", "damaged"}) {
    for (const std::string& path : test::corpusFiles(folder))
      frames.push_back(test::readFile(path));
  }
  // Cut-off frames whose failed spans are concealed from rows on both sides of the boundary.
  const size_t count = frames.size();
  for (size_t i = 0; i < count; ++i) {
    for (size_t cut : {frames[i].size() / 3, frames[i].size() * 3 / 4}) {
      frames.emplace_back(frames[i].begin(), frames[i].begin() + cut);
    }
  }
  int direct = 0;
  for (const std::vector<uint8_t>& frame : frames) {
    int width = 0, height = 0;
    if (!getJPEGImageSize(frame.data(), frame.size(), &width, &height)) continue;
    SimpleJPEGDecoder probe;
    test::Planes first(width, height);
    probe.decompress(frame.data(), frame.size(), width, height, true, first.y.data(),
                     first.y_stride, first.u.data(), first.uv_stride, first.v.data(),
                     first.uv_stride);
    for (int wrong = 0; wrong < 2; ++wrong) {
      std::vector<test::Planes> planes;
      std::vector<std::vector<test::LogLine>> logs;
      bool ok[2];
      for (int allow = 0; allow < 2; ++allow) {
        planes.emplace_back(width, height, std::max(probe.channels_[1].stride_, 1),
                            std::max(probe.channels_[2].stride_, 1));
        test::Planes& p = planes.back();
        test::LogCapture capture(8);
        SimpleJPEGDecoder decoder;
        decoder.allow_direct_output_ = allow == 1;
        ok[allow] =
            decoder.decompress(frame.data(), frame.size(), width + wrong, height, true, p.y.data(),
                               p.y_stride, p.u.data(), p.uv_stride, p.v.data(), p.uv_stride);
        // The decoder forgets the planes once done; set up again on them, it decides alike.
        decoder.caller_ = {{p.y.data(), p.u.data(), p.v.data()},
                           {p.y_stride, p.uv_stride, p.uv_stride},
                           width + wrong,
                           height,
                           frame.data(),
                           frame.size()};
        decoder.setUpDirectOutput();
        direct += !decoder.direct_blocks_.empty();
        logs.push_back(capture.lines());
      }
      EXPECT_EQ(ok[0], ok[1]);
      EXPECT_TRUE(planes[0] == planes[1]) << frame.size() << " bytes, " << width << "x" << height;
      EXPECT_EQ(logs[0], logs[1]);
    }
  }
  EXPECT_GT(direct, 10) << "no frame went straight to the caller's planes";
}

// The library's table takes vector forms exactly where the probe reports a vector extension
// (SSSE3 + SSE4.1, or NEON, neither hidden by VIDRA_CPU_MASK), and then all that it allows.
TEST(DecodeTest, TableFollowsTheProbe) {
  DSPFunctions probed;
  initDSPScalar(&probed);
  initDSPx86(&probed, g_cpu_info_);
  initDSPArm(&probed, g_cpu_info_);
  EXPECT_EQ(std::memcmp(&dsp(), &probed, sizeof(probed)), 0);
  const bool vector = g_cpu_info_.supports_fast_decoder() || g_cpu_info_.has_neon();
  EXPECT_EQ(dsp().reconstructBlock != &reconstructBlock_c, vector);
  EXPECT_EQ(dsp().decodeMCUSpan != &decodeMCUSpan_c, vector);
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
