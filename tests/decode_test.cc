// Whole frames through the library's own decoder: the samples against libjpeg-turbo's accurate
// decode, and the scalar and the vector forms against each other.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <cmath>
#include <string>
#include <vector>

#include "jpeg.h"
#include "jpeg_dsp.h"
#include "mjpeg.h"
#include "support/test_support.h"

namespace vidra {
namespace jpeg {
namespace {

// Y, U and V of a test::Planes.
constexpr std::vector<uint8_t> test::Planes::*kPlanes[3] = {&test::Planes::y, &test::Planes::u,
                                                            &test::Planes::v};

// libjpeg-turbo's accurate decode (flags 0), brought to 4:2:0 by the library's box filters.
bool referenceDecode(const std::vector<uint8_t>& frame, int subsampling, test::Planes* out) {
  const int w = out->width, h = out->height;
  const int cw = tjPlaneWidth(1, w, subsampling), ch = tjPlaneHeight(1, h, subsampling);
  // TurboJPEG may write the planes out to their padded size: room for 16 more rows.
  std::vector<uint8_t> y(static_cast<size_t>(w) * (h + 16)), u(static_cast<size_t>(cw) * (ch + 16)),
      v(u.size());
  unsigned char* planes[3] = {y.data(), u.data(), v.data()};
  int strides[3] = {w, cw, cw};
  tjhandle handle = tjInitDecompress();
  const int result = tjDecompressToYUVPlanes(
      handle, frame.data(), static_cast<unsigned long>(frame.size()), planes, w, strides, h, 0);
  // A warning (such as extraneous bytes in front of a marker) still gives the full picture.
  const bool ok = result == 0 || tjGetErrorCode(handle) == TJERR_WARNING;
  tjDestroy(handle);
  adaptStrides(y.data(), w, out->y.data(), out->y_stride, w, h);
  for (auto [src, dst] : {std::pair{&u, &out->u}, std::pair{&v, &out->v}}) {
    const int ds = out->uv_stride;
    if (subsampling == TJSAMP_444)
      resample444To420_c(src->data(), cw, dst->data(), ds, w / 2, h / 2);
    if (subsampling == TJSAMP_422)
      resample422To420_c(src->data(), cw, dst->data(), ds, w / 2, h / 2);
    if (subsampling == TJSAMP_420) adaptStrides(src->data(), cw, dst->data(), ds, w / 2, h / 2);
  }
  return ok;
}

double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return sum == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * a.size() / sum);
}

enum class Expect { kAccepted, kRefused, kAnything };

// Decodes `frame` with every routine in its scalar form, then in its vector form (where the
// processor has one): the same result and the same planes. An accepted frame must come within
// 35 dB of the accurate reference in every plane.
void checkFrame(const std::vector<uint8_t>& frame, Expect expect) {
  int width = 0, height = 0, subsampling = -1, colorspace = -1;
  tjhandle handle = tjInitDecompress();
  ASSERT_EQ(tjDecompressHeader3(handle, frame.data(), static_cast<unsigned long>(frame.size()),
                                &width, &height, &subsampling, &colorspace),
            0);
  tjDestroy(handle);
  DSPFunctions forms[2];
  initDSPScalar(&forms[0]);
  forms[1] = forms[0];
  initDSPx86(&forms[1], g_cpu_info_);
  std::vector<test::Planes> pictures(2, test::Planes(width, height));
  bool ok[2];
  for (int i = 0; i < 2; ++i) {
    test::Planes& p = pictures[i];
    setDSPForTesting(&forms[i]);
    SimpleJPEGDecoder decoder;
    ok[i] = decoder.decompress(frame.data(), frame.size(), width, height, false, p.y.data(),
                               p.y_stride, p.u.data(), p.uv_stride, p.v.data(), p.uv_stride);
    setDSPForTesting(nullptr);
  }
  EXPECT_EQ(ok[0], ok[1]);
  for (auto plane : kPlanes) EXPECT_EQ(pictures[0].*plane, pictures[1].*plane);
  if (expect == Expect::kAnything) return;
  ASSERT_EQ(ok[1], expect == Expect::kAccepted);
  if (expect == Expect::kRefused) return;
  test::Planes reference(width, height);
  ASSERT_TRUE(referenceDecode(frame, subsampling, &reference));
  for (auto plane : kPlanes) EXPECT_GE(psnr(pictures[1].*plane, reference.*plane), 35.0);
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
      checkFrame(test::readFile(path), std::string(folder) == "damaged" ? Expect::kAnything
                                       : refused                        ? Expect::kRefused
                                                                        : Expect::kAccepted);
    }
  }
}

// Encoded frames of every accepted layout, odd sizes, restart intervals and default tables.
TEST(DecodeTest, EncodedLayouts) {
  const std::vector<uint8_t> frames[] = {
      test::encodeTestFrame(101, 75, TJSAMP_420, 75, 1),
      test::stripDHT(test::encodeTestFrame(33, 17, TJSAMP_422, 50, 2)),
      test::encodeTestFrame(320, 240, TJSAMP_422, 90, 0),
      test::stripDHT(test::encodeTestFrame(17, 33, TJSAMP_444, 100, 1))};
  for (const std::vector<uint8_t>& frame : frames) {
    SCOPED_TRACE(&frame - frames);
    checkFrame(frame, Expect::kAccepted);
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
