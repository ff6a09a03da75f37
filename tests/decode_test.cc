// Whole frames through the library's own decoder: the samples against libjpeg-turbo's accurate
// decode, and the scalar and the vector forms against each other.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "jpeg.h"
#include "jpeg_dsp.h"
#include "mjpeg.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

// A frame's planes in 4:2:0, tightly packed.
struct Picture {
  int width = 0, height = 0;
  std::vector<uint8_t> y, u, v;
  Picture() = default;
  Picture(int w, int h)
      : width(w),
        height(h),
        y(static_cast<size_t>(w) * h, 0x3C),
        u(static_cast<size_t>(w / 2) * (h / 2), 0x3C),
        v(static_cast<size_t>(w / 2) * (h / 2), 0x3C) {}
};

struct Header {
  int width = 0, height = 0, subsampling = -1, colorspace = -1;
};

bool readHeader(const std::vector<uint8_t>& frame, Header* header) {
  tjhandle handle = tjInitDecompress();
  const int result = tjDecompressHeader3(
      handle, frame.data(), static_cast<unsigned long>(frame.size()), &header->width,
      &header->height, &header->subsampling, &header->colorspace);
  tjDestroy(handle);
  return result == 0;
}

// libjpeg-turbo's accurate decode (flags 0), brought to 4:2:0 by the library's box filters.
bool referenceDecode(const std::vector<uint8_t>& frame, const Header& header, Picture* out) {
  if (header.subsampling != TJSAMP_444 && header.subsampling != TJSAMP_422 &&
      header.subsampling != TJSAMP_420) {
    return false;
  }
  const int w = header.width, h = header.height;
  const int cw = tjPlaneWidth(1, w, header.subsampling);
  const int ch = tjPlaneHeight(1, h, header.subsampling);
  // TurboJPEG may write the planes out to their padded size: room for 16 more rows.
  std::vector<uint8_t> y(static_cast<size_t>(w) * (h + 16)), u(static_cast<size_t>(cw) * (ch + 16)),
      v(static_cast<size_t>(cw) * (ch + 16));
  unsigned char* planes[3] = {y.data(), u.data(), v.data()};
  int strides[3] = {w, cw, cw};
  tjhandle handle = tjInitDecompress();
  const int result = tjDecompressToYUVPlanes(
      handle, frame.data(), static_cast<unsigned long>(frame.size()), planes, w, strides, h, 0);
  // A warning (such as extraneous bytes in front of a marker) still gives the full picture.
  const bool ok = result == 0 || tjGetErrorCode(handle) == TJERR_WARNING;
  tjDestroy(handle);
  if (!ok) return false;
  *out = Picture(w, h);
  out->y.assign(y.begin(), y.begin() + static_cast<ptrdiff_t>(w) * h);
  for (auto [src, dst] : {std::pair{&u, &out->u}, std::pair{&v, &out->v}}) {
    switch (header.subsampling) {
      case TJSAMP_444:
        resample444To420_c(src->data(), cw, dst->data(), w / 2, w / 2, h / 2);
        break;
      case TJSAMP_422:
        resample422To420_c(src->data(), cw, dst->data(), w / 2, w / 2, h / 2);
        break;
      case TJSAMP_420:
        adaptStrides(src->data(), cw, dst->data(), w / 2, w / 2, h / 2);
        break;
      default:
        return false;
    }
  }
  return true;
}

double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.empty()) return 99.0;
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    const double d = static_cast<double>(a[i]) - b[i];
    sum += d * d;
  }
  if (sum == 0) return 99.0;
  return 10.0 * std::log10(255.0 * 255.0 * a.size() / sum);
}

bool decodeSimple(const std::vector<uint8_t>& frame, Picture* picture) {
  SimpleJPEGDecoder decoder;
  return decoder.decompress(frame.data(), frame.size(), picture->width, picture->height, false,
                            picture->y.data(), picture->width, picture->u.data(),
                            picture->width / 2, picture->v.data(), picture->width / 2);
}

// Runs the library's own decoder with every routine in its scalar form, then in its vector
// form (where the processor has one), through the function table.
class FormsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    initDSPScalar(&scalar_);
    vector_ = scalar_;
    initDSPx86(&vector_, g_cpu_info_);
  }
  void TearDown() override { setDSPForTesting(nullptr); }

  bool decodeWith(const DSPFunctions& forms, const std::vector<uint8_t>& frame, Picture* out) {
    setDSPForTesting(&forms);
    const bool ok = decodeSimple(frame, out);
    setDSPForTesting(nullptr);
    return ok;
  }

  DSPFunctions scalar_, vector_;
};

// Frames that the library's own decoder turns down, and why.
bool expectRefused(const std::string& path, const Header& header) {
  const std::string name = path.substr(path.find_last_of('/') + 1);
  if (name == "jpg-progressive.jpg") return true;      // not baseline
  if (header.subsampling == TJSAMP_GRAY) return true;  // one component: no chroma slots
  if (name == "rgb.jpg") return true;                  // component ids are not 1, 2, 3
  // One scan per component: the decoder reads the first scan only, which names luma alone.
  if (name == "non-interleaved-mcu.jpg") return true;
  return false;
}

TEST_F(FormsTest, CorpusAgainstAccurateReference) {
  int decoded = 0;
  for (const char* folder : {"webcam-480p", "webcam-720p", "reftest"}) {
    const std::vector<std::string> files = test::corpusFiles(folder);
    VIDRA_REQUIRE_CORPUS(files, folder);
    for (const std::string& path : files) {
      SCOPED_TRACE(path);
      const std::vector<uint8_t> frame = test::readFile(path);
      Header header;
      ASSERT_TRUE(readHeader(frame, &header));
      Picture reference;
      const bool have_reference = referenceDecode(frame, header, &reference);

      Picture scalar(header.width, header.height), vector(header.width, header.height);
      const bool scalar_ok = decodeWith(scalar_, frame, &scalar);
      const bool vector_ok = decodeWith(vector_, frame, &vector);
      EXPECT_EQ(scalar_ok, vector_ok);
      EXPECT_EQ(scalar.y, vector.y);
      EXPECT_EQ(scalar.u, vector.u);
      EXPECT_EQ(scalar.v, vector.v);

      if (expectRefused(path, header)) {
        EXPECT_FALSE(vector_ok);
        continue;
      }
      ASSERT_TRUE(vector_ok);
      ASSERT_TRUE(have_reference);
      const double py = psnr(vector.y, reference.y);
      const double pu = psnr(vector.u, reference.u);
      const double pv = psnr(vector.v, reference.v);
      EXPECT_GE(py, 35.0);
      EXPECT_GE(pu, 35.0);
      EXPECT_GE(pv, 35.0);
      RecordProperty(path.substr(path.find_last_of('/') + 1),
                     std::to_string(py) + " " + std::to_string(pu) + " " + std::to_string(pv));
      ++decoded;
    }
  }
  EXPECT_GT(decoded, 20);
}

// The public entry point gives what the decoder gives (it picks the library's own decoder
// where the processor allows it, TurboJPEG elsewhere; both must be close to the reference).
TEST(DecodeTest, EntryPointOnWebcamFrames) {
  for (const char* folder : {"webcam-480p", "webcam-720p"}) {
    const std::vector<std::string> files = test::corpusFiles(folder);
    VIDRA_REQUIRE_CORPUS(files, folder);
    for (const std::string& path : files) {
      SCOPED_TRACE(path);
      const std::vector<uint8_t> frame = test::readFile(path);
      Header header;
      ASSERT_TRUE(readHeader(frame, &header));
      Picture reference, out(header.width, header.height);
      ASSERT_TRUE(referenceDecode(frame, header, &reference));
      ASSERT_TRUE(decompressMJPEG(frame.data(), frame.size(), out.width, out.height, true,
                                  out.y.data(), out.width, out.u.data(), out.width / 2,
                                  out.v.data(), out.width / 2));
      EXPECT_GE(psnr(out.y, reference.y), 35.0);
      EXPECT_GE(psnr(out.u, reference.u), 35.0);
      EXPECT_GE(psnr(out.v, reference.v), 35.0);
    }
  }
}

// Damaged frames take the concealment path; both forms must still agree to the byte.
TEST_F(FormsTest, DamagedFramesAgreeAcrossForms) {
  const std::vector<std::string> files = test::corpusFiles("damaged");
  VIDRA_REQUIRE_CORPUS(files, "damaged");
  for (const std::string& path : files) {
    SCOPED_TRACE(path);
    const std::vector<uint8_t> frame = test::readFile(path);
    Header header;
    ASSERT_TRUE(readHeader(frame, &header));
    Picture scalar(header.width, header.height), vector(header.width, header.height);
    EXPECT_EQ(decodeWith(scalar_, frame, &scalar), decodeWith(vector_, frame, &vector));
    EXPECT_EQ(scalar.y, vector.y);
    EXPECT_EQ(scalar.u, vector.u);
    EXPECT_EQ(scalar.v, vector.v);
  }
}

// Encoded frames of every accepted layout, odd sizes and restart intervals included.
TEST_F(FormsTest, EncodedLayoutsAgainstAccurateReference) {
  struct Case {
    int width, height, subsampling, quality, restart_rows;
  };
  const Case cases[] = {
      {64, 48, TJSAMP_420, 90, 0},   {101, 75, TJSAMP_420, 75, 1}, {96, 64, TJSAMP_422, 95, 0},
      {33, 17, TJSAMP_422, 50, 2},   {48, 40, TJSAMP_444, 90, 0},  {17, 33, TJSAMP_444, 100, 1},
      {320, 240, TJSAMP_422, 90, 2}, {1, 1, TJSAMP_420, 90, 0},
  };
  for (const Case& c : cases) {
    for (bool strip : {false, true}) {
      SCOPED_TRACE(testing::Message()
                   << c.width << "x" << c.height << " sampling " << c.subsampling << " q"
                   << c.quality << " rst " << c.restart_rows << (strip ? " no DHT" : ""));
      std::vector<uint8_t> frame =
          test::encodeTestFrame(c.width, c.height, c.subsampling, c.quality, c.restart_rows);
      if (strip) frame = test::stripDHT(frame);
      Header header;
      ASSERT_TRUE(readHeader(frame, &header));
      Picture reference;
      ASSERT_TRUE(referenceDecode(frame, header, &reference));
      Picture scalar(c.width, c.height), vector(c.width, c.height);
      ASSERT_TRUE(decodeWith(scalar_, frame, &scalar));
      ASSERT_TRUE(decodeWith(vector_, frame, &vector));
      EXPECT_EQ(scalar.y, vector.y);
      EXPECT_EQ(scalar.u, vector.u);
      EXPECT_EQ(scalar.v, vector.v);
      // Quality 50 leaves more for the fast transform to get wrong; the bound holds there too.
      EXPECT_GE(psnr(vector.y, reference.y), 35.0);
      EXPECT_GE(psnr(vector.u, reference.u), 35.0);
      EXPECT_GE(psnr(vector.v, reference.v), 35.0);
    }
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
