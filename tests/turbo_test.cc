// The TurboJPEG path: JTDecoder called directly and through decompressMJPEG() with the force
// flag, against libjpeg-turbo's own planes brought to 4:2:0 by a plain box filter.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "jpeg_dsp.h"
#include "jpeg_turbo.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

// Stand-ins for two TurboJPEG entries: the test binary's definitions take the place of the
// shared library's for every caller in this process, the decoder included, and forward to the
// real ones. They let tjDestroy() fail and keep the stream that the decoder hands over.
namespace {
bool g_fail_destroy = false;
std::vector<uint8_t> g_decoded_stream;
const uint8_t* g_decoded_stream_at = nullptr;
}  // namespace

extern "C" int tjDestroy(tjhandle handle) {
  static const auto real = reinterpret_cast<int (*)(tjhandle)>(dlsym(RTLD_NEXT, "tjDestroy"));
  const int result = real(handle);
  return g_fail_destroy ? -1 : result;
}

extern "C" int tjDecompressToYUV(tjhandle handle, unsigned char* jpeg, unsigned long size,
                                 unsigned char* yuv, int flags) {
  using Fn = int (*)(tjhandle, unsigned char*, unsigned long, unsigned char*, int);
  static const auto real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "tjDecompressToYUV"));
  g_decoded_stream_at = jpeg;
  if (jpeg != nullptr) g_decoded_stream.assign(jpeg, jpeg + size);
  return real(handle, jpeg, size, yuv, flags);
}

namespace vidra {
namespace jpeg {
namespace {

using test::LogCapture;
using test::Planes;
using Frame = std::vector<uint8_t>;

// Planes whose every byte, stride gaps included, holds a position-dependent pattern.
Planes patterned(int width, int height, int y_stride, int uv_stride) {
  Planes planes(width, height, y_stride, uv_stride);
  std::iota(planes.y.begin(), planes.y.end(), uint8_t{1});
  std::iota(planes.u.begin(), planes.u.end(), uint8_t{101});
  std::iota(planes.v.begin(), planes.v.end(), uint8_t{201});
  return planes;
}

// "" when equal, else the size of the first differing plane and where it first differs.
std::string firstDifference(const Planes& actual, const Planes& expected) {
  for (auto plane : {&Planes::y, &Planes::u, &Planes::v}) {
    const std::vector<uint8_t>& a = actual.*plane;
    const auto at = std::mismatch(a.begin(), a.end(), (expected.*plane).begin()).first;
    if (at != a.end()) return std::to_string(a.size()) + " at " + std::to_string(at - a.begin());
  }
  return "";
}

// Decodes `frame` with tjDecompressToYUVPlanes() into tight planes and writes into `out` what the
// TurboJPEG path must write there: luma cropped, chroma halved by the scalar resamplers (proven
// by the plane tests), grey chroma over whole strides for layouts without a 4:2:0 form, and whole
// rows with grey padding for a 4:2:0 plane whose stride is TurboJPEG's padded row length. Sets
// `ok`; returns the level-2 line of a failure, "" for none.
std::string referenceDecode(const Frame& frame, Planes* out, bool* ok) {
  const std::unique_ptr<void, int (*)(tjhandle)> handle(tjInitDecompress(), tjDestroy);
  unsigned char* jpeg = const_cast<unsigned char*>(frame.data());
  int w = 0, h = 0, sub = -1, pw[3] = {};
  std::vector<uint8_t> planes[3];
  unsigned char* pointers[3] = {};
  *ok = false;
  if (tjDecompressHeader2(handle.get(), jpeg, frame.size(), &w, &h, &sub) != 0)
    return std::string("Error decoding (M)JPEG header: ") + tjGetErrorStr();
  if (w != out->width || h != out->height) return "";
  for (int i = 0; i < (sub == TJSAMP_GRAY ? 1 : 3); ++i) {
    pw[i] = tjPlaneWidth(i, w, sub);
    planes[i].resize(static_cast<size_t>(pw[i]) * tjPlaneHeight(i, h, sub));
    pointers[i] = planes[i].data();
  }
  if (tjDecompressToYUVPlanes(handle.get(), jpeg, frame.size(), pointers, 0, pw, 0,
                              TJFLAG_FASTDCT) != 0)
    return std::string("Error decoding (M)JPEG image: ") + tjGetErrorStr();
  *ok = true;
  for (int row = 0; row < h; ++row)
    std::copy_n(&planes[0][static_cast<size_t>(row) * pw[0]], w, &out->y[row * out->y_stride]);
  const int stride = out->uv_stride;
  const bool whole_rows = sub != TJSAMP_420 || stride == TJPAD(pw[1]);
  for (int c = 1; c < 3; ++c) {
    uint8_t* dst = (c == 1 ? out->u : out->v).data();
    if (sub == TJSAMP_444 || sub == TJSAMP_422) {
      (sub == TJSAMP_444 ? resample444To420_c : resample422To420_c)(planes[c].data(), pw[c], dst,
                                                                    stride, w / 2, h / 2);
      continue;
    }
    for (int y = 0; y < h / 2; ++y) {
      for (int x = 0; x < (whole_rows ? stride : w / 2); ++x)
        dst[y * stride + x] = sub == TJSAMP_420 && x < pw[c] ? planes[c][y * pw[c] + x] : 0x80;
    }
  }
  return "";
}

// How decodeTurbo() makes its call: kEntry goes through decompressMJPEG() with the force flag,
// else JTDecoder is called directly; kFailDestroy makes tjDestroy() fail; kNull* pass that
// plane as null.
enum { kEntry = 1, kIgnoreWarnings = 2, kFailDestroy = 4, kNullY = 8, kNullU = 16, kNullV = 32 };

// Returns the result of the call and leaves its level-2 lines on "mjpeg" in `errors`.
bool decodeTurbo(const uint8_t* data, size_t size, bool insert_dht, Planes* p, int how,
                 std::vector<std::string>* errors) {
  LogCapture capture(/*mjpeg_level=*/6);
  uint8_t* y = how & kNullY ? nullptr : p->y.data();
  uint8_t* u = how & kNullU ? nullptr : p->u.data();
  uint8_t* v = how & kNullV ? nullptr : p->v.data();
  g_fail_destroy = how & kFailDestroy;
  setForceJPEGTurboDecoder(how & kEntry);
  JTDecoder decoder;
  decoder.ignore_warnings_ = how & kIgnoreWarnings;
  const bool ok = how & kEntry ? decompressMJPEG(data, size, p->width, p->height, insert_dht, y,
                                                 p->y_stride, u, p->uv_stride, v, p->uv_stride)
                               : decoder.decompress(data, static_cast<uint32_t>(size), p->width,
                                                    p->height, insert_dht, y, p->y_stride, u,
                                                    p->uv_stride, v, p->uv_stride);
  setForceJPEGTurboDecoder(false);
  g_fail_destroy = false;
  EXPECT_EQ(capture.texts(6, "mjpeg"), std::vector<std::string>{"Using jpeg-turbo"});
  *errors = capture.texts(2, "mjpeg");
  return ok;
}

// Decodes `frame` through the entry point (4 GiB added to the size, of which only the low 32
// bits count) into patterned planes of the given strides; result, log and every byte must match
// the reference of `reference_frame`. TurboJPEG falls back on the same standard tables itself, so
// only the stream that reaches tjDecompressToYUV() shows whether and where the segment went in:
// the frame itself, in place, without `insert_dht`; with it SOI, the whole segment and the rest
// of the frame, its own DHT segment included. Returns the result.
bool expectLikeReference(const Frame& frame, bool insert_dht, int width, int height, int y_stride,
                         int uv_stride, const Frame& reference_frame) {
  Planes expected = patterned(width, height, y_stride, uv_stride), actual = expected;
  bool reference_ok = false;
  const std::string log = referenceDecode(reference_frame, &expected, &reference_ok);
  std::vector<std::string> errors;
  g_decoded_stream.clear();
  g_decoded_stream_at = nullptr;
  const bool ok = decodeTurbo(frame.data(), (size_t{1} << 32) + frame.size(), insert_dht, &actual,
                              kEntry, &errors);
  EXPECT_EQ(ok, reference_ok);
  EXPECT_EQ(errors, log.empty() ? std::vector<std::string>{} : std::vector{log});
  EXPECT_EQ(firstDifference(actual, expected), "");
  if (ok) {
    Frame sent = frame;
    if (insert_dht) sent.insert(sent.begin() + 2, std::begin(kMJPGDHTSeg), std::end(kMJPGDHTSeg));
    EXPECT_EQ(g_decoded_stream_at == frame.data(), !insert_dht);
    EXPECT_EQ(g_decoded_stream, sent);
  }
  return ok;
}

// All layouts TurboJPEG reports, at sizes whose rows and plane heights it pads (odd sizes, widths
// not a multiple of 4) and at plain ones, in tight planes and with stride gaps; for 4:2:0 also at
// TurboJPEG's padded row lengths (block copies, padding included). Gray, 4:4:0 and 4:1:1 come out
// with grey chroma. Stripped of their DHT segments and decoded with the default segment put in,
// the frames give exactly the planes of the original: the segment holds the tables of T.81 K.3.
// (Frames that fail, with TurboJPEG's texts: the refusal table below.)
TEST(TurboGeneratedTest, AllLayoutsSizesAndStrides) {
  const int sizes[][2] = {{64, 48}, {101, 75}, {1279, 721}, {6, 6}, {1, 1}, {1, 2}, {2, 1}};
  for (int sub : {TJSAMP_444, TJSAMP_422, TJSAMP_420, TJSAMP_GRAY, TJSAMP_440, TJSAMP_411}) {
    for (const auto& size : sizes) {
      const int w = size[0], h = size[1];
      const Frame frame = test::encodeTestFrame(w, h, sub);
      for (int strides : {0, 1, 2}) {  // tight, gaps, TurboJPEG's rows or wider gaps
        SCOPED_TRACE(testing::Message()
                     << "layout " << sub << " " << w << "x" << h << " strides " << strides);
        const bool turbo_rows = strides == 2 && sub == TJSAMP_420;
        const int y_stride = turbo_rows ? TJPAD(tjPlaneWidth(0, w, sub)) : w + 5 * strides;
        const int uv_stride =
            turbo_rows ? TJPAD(tjPlaneWidth(1, w, sub)) : std::max(w / 2, 1) + 3 * strides;
        const Frame decoded = strides == 1 ? test::stripDHT(frame) : frame;
        ASSERT_EQ(decoded.size() < frame.size(), strides == 1);
        EXPECT_TRUE(expectLikeReference(decoded, strides == 1, w, h, y_stride, uv_stride, frame));
      }
    }
  }
}

// Bottom-up planes (pointers at the last row, negative strides) get the rows of top-down ones in
// reverse order, grey chroma (4:4:0, grey frames) included; nothing between rows is written.
TEST(TurboGeneratedTest, BottomUpPlanes) {
  const int w = 37, h = 21, y_stride = w + 5, uv_stride = w / 2 + 3;
  for (int sub : {TJSAMP_420, TJSAMP_440, TJSAMP_GRAY}) {
    SCOPED_TRACE(sub);
    const Frame frame = test::encodeTestFrame(w, h, sub);
    Planes top = patterned(w, h, y_stride, uv_stride), bottom = top, expected = top;
    std::vector<std::string> errors;
    ASSERT_TRUE(decodeTurbo(frame.data(), frame.size(), false, &top, 0, &errors));
    auto last = [](std::vector<uint8_t>& plane, int stride, int rows) {
      return plane.data() + static_cast<size_t>(stride) * (rows - 1);
    };
    JTDecoder decoder;
    ASSERT_TRUE(decoder.decompress(frame.data(), static_cast<uint32_t>(frame.size()), w, h, false,
                                   last(bottom.y, y_stride, h), -y_stride,
                                   last(bottom.u, uv_stride, h / 2), -uv_stride,
                                   last(bottom.v, uv_stride, h / 2), -uv_stride));
    for (auto plane : {&Planes::y, &Planes::u, &Planes::v}) {
      const bool luma = plane == &Planes::y;
      const int stride = luma ? y_stride : uv_stride, rows = luma ? h : h / 2;
      for (int row = 0; row < rows; ++row) {
        std::copy_n((top.*plane).begin() + row * stride, luma ? w : w / 2,
                    (expected.*plane).begin() + (rows - 1 - row) * stride);
      }
    }
    EXPECT_EQ(firstDifference(bottom, expected), "");
  }
}

// Each way a frame is refused, with its log line (the prefix and TurboJPEG's error text of that
// moment) or none. The planes, stride gaps included, stay untouched, except when only tjDestroy()
// fails: then they hold the whole frame and the result is false all the same. Streams lie in
// buffers of exactly their size, so the address sanitizer sees any read behind them.
TEST(TurboRefusalTest, EachFailureWithItsLogLine) {
  const Frame frame = test::encodeTestFrame(48, 32, TJSAMP_422, 90, /*restart_rows=*/1);
  const Frame truncated(frame.begin(), frame.begin() + frame.size() * 2 / 3), garbage(8, 0x12);
  const Frame narrower = test::encodeTestFrame(47, 32, TJSAMP_422);
  const Frame higher = test::encodeTestFrame(48, 33, TJSAMP_422);
  // `frame` with `n` junk bytes in front of the first FF `code` behind SOI.
  const auto junk = [&](uint8_t code, size_t n) {
    const uint8_t marker[] = {0xFF, code};
    Frame out = frame;
    out.insert(std::search(out.begin() + 2, out.end(), marker, marker + 2), n, 0x11);
    return out;
  };
  // A few bytes before a restart marker may vanish in the entropy decoder's read-ahead; 64 can't.
  const Frame sos_junk = junk(0xDA, 3), rst_junk = junk(0xD0, 64);
  const char* kHeader = "Error decoding (M)JPEG header: ";
  const char* kImage = "Error decoding (M)JPEG image: ";
  const size_t kAll = SIZE_MAX;
  const struct {
    const char* name;
    const Frame* frame;  // nullptr: a null stream
    size_t size;         // kAll: the whole frame
    bool insert_dht;
    int how;
    const char* prefix;    // nullptr: no log line
    const char* fragment;  // part of TurboJPEG's text, or nullptr
  } cases[] = {
      {"ignore warnings refused", &frame, kAll, false, kIgnoreWarnings, nullptr, nullptr},
      {"narrower frame", &narrower, kAll, true, 0, nullptr, nullptr},
      {"higher frame", &higher, kAll, false, 0, nullptr, nullptr},
      {"garbage", &garbage, kAll, false, 0, kHeader, "Not a JPEG file"},
      {"junk before SOS", &sos_junk, kAll, true, 0, kHeader, "extraneous bytes before marker 0xda"},
      {"truncated", &truncated, kAll, false, 0, kImage, "Premature end of JPEG file"},
      {"junk before RST0", &rst_junk, kAll, true, 0, kImage, "extraneous bytes before marker 0xd0"},
      {"tjDestroy fails", &frame, kAll, true, kFailDestroy,
       "Error releasing jpeg handle: ", nullptr},
      // No SOI to put the tables behind; without them TurboJPEG's header check refuses.
      {"one byte with tables", &frame, 1, true, 0, nullptr, nullptr},
      {"one byte", &frame, 1, false, 0, kHeader, nullptr},
      {"null stream with tables", nullptr, 100, true, 0, nullptr, nullptr},
      // The 32-bit length of the stream copy would wrap: refused before `data` is read.
      {"size near 4 GiB", &frame, UINT32_MAX - 419, true, 0, nullptr, nullptr},
      {"null y", &frame, kAll, false, kNullY, nullptr, nullptr},
      {"null u", &frame, kAll, false, kNullU, nullptr, nullptr},
      {"null v", &frame, kAll, false, kNullV, nullptr, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Planes planes = patterned(48, 32, 53, 27), expected = planes;
    bool ok = false;
    if (c.how & kFailDestroy) referenceDecode(frame, &expected, &ok);
    std::vector<std::string> errors;
    EXPECT_FALSE(decodeTurbo(c.frame ? c.frame->data() : nullptr,
                             c.size == kAll ? c.frame->size() : c.size, c.insert_dht, &planes,
                             c.how, &errors));
    const std::string text = tjGetErrorStr();
    EXPECT_EQ(firstDifference(planes, expected), "");
    EXPECT_EQ(errors,
              c.prefix ? std::vector<std::string>{c.prefix + text} : std::vector<std::string>{});
    EXPECT_NE(text.find(c.fragment ? c.fragment : ""), std::string::npos);
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
