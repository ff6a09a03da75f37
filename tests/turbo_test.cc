// The TurboJPEG path: JTDecoder called directly and through decompressMJPEG() with the force
// flag, against libjpeg-turbo's own planes brought to 4:2:0 by a plain box filter.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "jpeg_turbo.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

// Stand-ins for three TurboJPEG entries: the test binary's definitions take the place of the
// shared library's for every caller in this process, the decoder included, and forward to the
// real ones. They show that each handle is destroyed once, let tjDestroy() fail, and keep the
// stream that the decoder hands over.
namespace {
int g_init_calls = 0;
int g_destroy_calls = 0;
bool g_fail_destroy = false;
}  // namespace

extern "C" tjhandle tjInitDecompress(void) {
  using Fn = tjhandle (*)();
  static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "tjInitDecompress"));
  ++g_init_calls;
  return real();
}

extern "C" int tjDestroy(tjhandle handle) {
  using Fn = int (*)(tjhandle);
  static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "tjDestroy"));
  ++g_destroy_calls;
  const int result = real(handle);
  return g_fail_destroy ? -1 : result;
}

// The stream of the last tjDecompressToYUV() call, and where it lay.
namespace {
std::vector<uint8_t> g_decoded_stream;
const uint8_t* g_decoded_stream_at = nullptr;
}  // namespace

extern "C" int tjDecompressToYUV(tjhandle handle, unsigned char* jpeg, unsigned long size,
                                 unsigned char* yuv, int flags) {
  using Fn = int (*)(tjhandle, unsigned char*, unsigned long, unsigned char*, int);
  static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "tjDecompressToYUV"));
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

// ---- Reference ----------------------------------------------------------------------------

// Fills every byte of the planes, stride gaps included, with a position-dependent pattern.
void fillPattern(Planes* planes) {
  uint8_t seed = 1;
  for (std::vector<uint8_t>* plane : {&planes->y, &planes->u, &planes->v}) {
    for (size_t i = 0; i < plane->size(); ++i) (*plane)[i] = static_cast<uint8_t>(i * 29 + seed);
    seed += 100;
  }
}

Planes patterned(int width, int height, int y_stride, int uv_stride) {
  Planes planes(width, height, y_stride, uv_stride);
  fillPattern(&planes);
  return planes;
}

// "" when equal, else the first differing byte.
std::string firstDifference(const Planes& actual, const Planes& expected) {
  const char* names[] = {"y", "u", "v"};
  const std::vector<uint8_t>* a[] = {&actual.y, &actual.u, &actual.v};
  const std::vector<uint8_t>* e[] = {&expected.y, &expected.u, &expected.v};
  for (int p = 0; p < 3; ++p) {
    if (a[p]->size() != e[p]->size()) return std::string(names[p]) + ": size differs";
    const auto diff = std::mismatch(a[p]->begin(), a[p]->end(), e[p]->begin());
    if (diff.first != a[p]->end()) {
      return std::string(names[p]) + "[" + std::to_string(diff.first - a[p]->begin()) +
             "]: " + std::to_string(*diff.first) + " vs. expected " + std::to_string(*diff.second);
    }
  }
  return "";
}

struct Expected {
  bool ok = false;
  std::string log;  // the level-2 line that goes with a failure, "" for none
};

// Decodes `data` with tjDecompressToYUVPlanes() into tightly packed planes of its own and
// writes into `out` what the TurboJPEG path is expected to write there: luma cropped, chroma to
// half size by box averages, grey chroma for layouts without a 4:2:0 form.
Expected referenceDecode(const uint8_t* data, size_t size, Planes* out) {
  Expected expected;
  tjhandle handle = tjInitDecompress();
  int w = 0, h = 0, sub = -1;
  unsigned char* jpeg = const_cast<unsigned char*>(data);
  if (tjDecompressHeader2(handle, jpeg, size, &w, &h, &sub) != 0) {
    expected.log = std::string("Error decoding (M)JPEG header: ") + tjGetErrorStr();
    tjDestroy(handle);
    return expected;
  }
  if (w != out->width || h != out->height || w <= 0 || h <= 0) {
    tjDestroy(handle);
    return expected;
  }
  std::vector<uint8_t> planes[3];
  unsigned char* pointers[3] = {};
  int pw[3] = {}, ph[3] = {};
  const int components = sub == TJSAMP_GRAY ? 1 : 3;
  for (int i = 0; i < components; ++i) {
    pw[i] = tjPlaneWidth(i, w, sub);
    ph[i] = tjPlaneHeight(i, h, sub);
    planes[i].resize(static_cast<size_t>(pw[i]) * ph[i]);
    pointers[i] = planes[i].data();
  }
  if (tjDecompressToYUVPlanes(handle, jpeg, size, pointers, 0, pw, 0, TJFLAG_FASTDCT) != 0) {
    expected.log = std::string("Error decoding (M)JPEG image: ") + tjGetErrorStr();
    tjDestroy(handle);
    return expected;
  }
  tjDestroy(handle);
  expected.ok = true;

  for (int row = 0; row < h; ++row) {
    std::copy_n(&planes[0][static_cast<size_t>(row) * pw[0]], w, &out->y[row * out->y_stride]);
  }
  const int cw = w / 2, ch = h / 2, stride = out->uv_stride;
  for (int c = 1; c < 3; ++c) {
    uint8_t* dst = c == 1 ? out->u.data() : out->v.data();
    auto at = [&](int x, int y) -> int { return planes[c][static_cast<size_t>(y) * pw[c] + x]; };
    for (int y = 0; y < ch; ++y) {
      uint8_t* row = dst + y * stride;
      switch (sub) {
        case TJSAMP_444:
          for (int x = 0; x < cw; ++x) {
            row[x] = static_cast<uint8_t>((at(2 * x, 2 * y) + at(2 * x + 1, 2 * y) +
                                           at(2 * x, 2 * y + 1) + at(2 * x + 1, 2 * y + 1) + 1) >>
                                          2);
          }
          break;
        case TJSAMP_422:
          for (int x = 0; x < cw; ++x) {
            row[x] = static_cast<uint8_t>((at(x, 2 * y) + at(x, 2 * y + 1) + 1) >> 1);
          }
          break;
        case TJSAMP_420:
          // A stride equal to TurboJPEG's padded row length is copied whole: the decoded
          // samples behind cw, then grey for the padding.
          if (stride == TJPAD(pw[c])) {
            for (int x = 0; x < stride; ++x) row[x] = x < pw[c] ? at(x, y) : 0x80;
          } else {
            for (int x = 0; x < cw; ++x) row[x] = static_cast<uint8_t>(at(x, y));
          }
          break;
        default:
          std::fill_n(row, stride, 0x80);
          break;
      }
    }
  }
  return expected;
}

// ---- Decoding through the path under test -------------------------------------------------

enum class Route { kDirect, kEntry };

struct Outcome {
  bool ok;
  std::vector<std::string> errors;  // level-2 lines on "mjpeg"
  int handles_made;
  int handles_destroyed;
};

Outcome decodeTurbo(Route route, const uint8_t* data, size_t size, bool insert_dht, Planes* planes,
                    bool ignore_warnings = false) {
  LogCapture capture(/*mjpeg_level=*/6);
  const int init_before = g_init_calls, destroy_before = g_destroy_calls;
  bool ok;
  if (route == Route::kDirect) {
    JTDecoder decoder;
    decoder.ignore_warnings_ = ignore_warnings;
    ok = decoder.decompress(data, static_cast<uint32_t>(size), planes->width, planes->height,
                            insert_dht, planes->y.data(), planes->y_stride, planes->u.data(),
                            planes->uv_stride, planes->v.data(), planes->uv_stride);
  } else {
    setForceJPEGTurboDecoder(true);
    ok = decompressMJPEG(data, size, planes->width, planes->height, insert_dht, planes->y.data(),
                         planes->y_stride, planes->u.data(), planes->uv_stride, planes->v.data(),
                         planes->uv_stride);
    setForceJPEGTurboDecoder(false);
  }
  EXPECT_EQ(capture.texts(6, "mjpeg"), std::vector<std::string>{"Using jpeg-turbo"});
  return {ok, capture.texts(2, "mjpeg"), g_init_calls - init_before,
          g_destroy_calls - destroy_before};
}

Outcome decodeTurbo(Route route, const Frame& frame, bool insert_dht, Planes* planes) {
  return decodeTurbo(route, frame.data(), frame.size(), insert_dht, planes);
}

// Decodes `frame` into planes of the given strides and compares result, log and every byte of
// the planes with the reference of `reference_frame`. Returns the result.
bool expectLikeReference(Route route, const Frame& frame, bool insert_dht, int width, int height,
                         int y_stride, int uv_stride, const Frame& reference_frame) {
  Planes expected = patterned(width, height, y_stride, uv_stride);
  Planes actual = expected;
  const Expected reference =
      referenceDecode(reference_frame.data(), reference_frame.size(), &expected);
  const Outcome outcome = decodeTurbo(route, frame, insert_dht, &actual);
  EXPECT_EQ(outcome.ok, reference.ok);
  EXPECT_EQ(outcome.errors, reference.log.empty() ? std::vector<std::string>{}
                                                  : std::vector<std::string>{reference.log});
  EXPECT_EQ(firstDifference(actual, expected), "");
  EXPECT_EQ(outcome.handles_made, 1);
  EXPECT_EQ(outcome.handles_destroyed, 1);
  return outcome.ok;
}

bool headerOf(const Frame& frame, int* width, int* height, int* subsampling) {
  tjhandle handle = tjInitDecompress();
  const int result = tjDecompressHeader2(handle, const_cast<uint8_t*>(frame.data()), frame.size(),
                                         width, height, subsampling);
  tjDestroy(handle);
  return result == 0;
}

// A progressive frame, whose Huffman tables TurboJPEG optimises: decoding it with the default
// tables instead of its own gives other samples.
Frame encodeProgressive(int width, int height, int subsampling) {
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>((i * 7 + i / 97) & 255);
  tjhandle handle = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  tjCompress2(handle, rgb.data(), width, 0, height, TJPF_RGB, &jpeg, &size, subsampling, 85,
              TJFLAG_PROGRESSIVE);
  Frame frame(jpeg, jpeg + size);
  tjFree(jpeg);
  tjDestroy(handle);
  return frame;
}

// Index of the first `marker` (FF xx) in front of which bytes can be put.
size_t findMarker(const Frame& frame, uint8_t marker) {
  for (size_t i = 2; i + 1 < frame.size(); ++i) {
    if (frame[i] == 0xFF && frame[i + 1] == marker) return i;
  }
  ADD_FAILURE() << "marker not found";
  return frame.size();
}

// ---- Frames from the corpus ---------------------------------------------------------------

// Every corpus frame, with and without the default tables put in, in tight and gapped planes:
// the same result, log line and bytes as TurboJPEG's own planes of the original frame. The
// reftest frames carry their own optimised tables, so an inserted segment that stood behind
// them would change the picture; the webcam frames have none, so wrong default tables would.
// Frames that TurboJPEG flags (extraneous bytes, truncation) fail with its warning text.
TEST(TurboCorpusTest, FramesMatchTurboJPEGPlanes) {
  const struct {
    const char* folder;
    bool all_decode;
  } folders[] = {{"webcam-480p", true}, {"reftest", false}, {"damaged", false}};
  bool any = false;
  for (const auto& folder : folders) {
    const std::vector<std::string> files = test::corpusFiles(folder.folder);
    if (files.empty()) continue;
    any = true;
    int decoded = 0;
    for (const std::string& path : files) {
      const Frame frame = test::readFile(path);
      int w = 0, h = 0, sub = 0;
      ASSERT_TRUE(headerOf(frame, &w, &h, &sub)) << path;
      for (int gap : {0, 5}) {
        for (bool insert_dht : {false, true}) {
          SCOPED_TRACE(path + " gap " + std::to_string(gap) + " insert_dht " +
                       std::to_string(insert_dht));
          const bool ok = expectLikeReference(Route::kDirect, frame, insert_dht, w, h, w + gap,
                                              std::max(w / 2, 1) + gap, frame);
          decoded += ok;
          if (folder.all_decode) {
            EXPECT_TRUE(ok);
          }
        }
      }
      SCOPED_TRACE(path + " through decompressMJPEG");
      expectLikeReference(Route::kEntry, frame, true, w, h, w, std::max(w / 2, 1), frame);
    }
    EXPECT_GT(decoded, 0) << folder.folder;
  }
  if (!any) GTEST_SKIP() << "corpus not found";
}

// ---- Generated frames ---------------------------------------------------------------------

struct StrideCase {
  const char* name;
  int y_gap;   // -1: TurboJPEG's own padded row length
  int uv_gap;  // -1: likewise
};

// All layouts TurboJPEG reports, at sizes whose rows and plane heights TurboJPEG pads (odd
// sizes, widths not a multiple of 4 or 8) and at plain ones, in tight planes, in planes with
// stride gaps, and in planes whose strides equal TurboJPEG's row lengths (block copies for
// 4:2:0, padding included). 4:4:0 and 4:1:1 come out with grey chroma.
TEST(TurboGeneratedTest, AllLayoutsAndSizes) {
  const int layouts[] = {TJSAMP_444, TJSAMP_422, TJSAMP_420, TJSAMP_GRAY, TJSAMP_440, TJSAMP_411};
  const struct {
    int w, h;
  } sizes[] = {{64, 48}, {101, 75}, {1279, 721}, {17, 17}, {33, 33},
               {1, 1},   {2, 1},    {1, 2},      {3, 3},   {6, 6}};
  const StrideCase strides[] = {{"tight", 0, 0}, {"gaps", 5, 3}, {"turbo rows", -1, -1}};
  for (int sub : layouts) {
    for (const auto& size : sizes) {
      const Frame frame = test::encodeTestFrame(size.w, size.h, sub);
      for (const StrideCase& stride : strides) {
        const int chroma = sub == TJSAMP_GRAY ? 0 : 1;
        const int y_stride =
            stride.y_gap < 0 ? TJPAD(tjPlaneWidth(0, size.w, sub)) : size.w + stride.y_gap;
        const int uv_stride = stride.uv_gap < 0 && chroma
                                  ? TJPAD(tjPlaneWidth(1, size.w, sub))
                                  : std::max(size.w / 2, 1) + std::max(stride.uv_gap, 0);
        for (Route route : {Route::kDirect, Route::kEntry}) {
          SCOPED_TRACE("layout " + std::to_string(sub) + " " + std::to_string(size.w) + "x" +
                       std::to_string(size.h) + " " + stride.name +
                       (route == Route::kEntry ? " entry" : " direct"));
          EXPECT_TRUE(
              expectLikeReference(route, frame, false, size.w, size.h, y_stride, uv_stride, frame));
        }
      }
    }
  }
}

// The same without the reference: a grey frame's chroma is 0x80 across whole strides, while
// the caller's gaps behind the luma rows keep their bytes.
TEST(TurboGeneratedTest, GreyFrameFillsWholeChromaStrides) {
  const Frame frame = test::encodeTestFrame(37, 23, TJSAMP_GRAY);
  Planes planes = patterned(37, 23, 41, 25);
  const Planes before = planes;
  ASSERT_TRUE(decodeTurbo(Route::kDirect, frame, false, &planes).ok);
  for (const std::vector<uint8_t>* plane : {&planes.u, &planes.v}) {
    ASSERT_EQ(plane->size(), 25u * 11u);
    EXPECT_TRUE(std::all_of(plane->begin(), plane->end(), [](uint8_t b) { return b == 0x80; }));
  }
  // Luma keeps the stride gaps of the caller.
  for (int row = 0; row < 23; ++row) {
    for (int x = 37; x < 41; ++x) EXPECT_EQ(planes.y[row * 41 + x], before.y[row * 41 + x]);
  }
}

// ---- Refusals -----------------------------------------------------------------------------

// A frame of another size than asked for: false, nothing logged, no byte of the planes
// written (the pattern covers the stride gaps too), the handle destroyed once.
TEST(TurboRefusalTest, WrongSizeLeavesPlanesUntouched) {
  const struct {
    int sub;
    int w, h;
  } frames[] = {{TJSAMP_420, 64, 48}, {TJSAMP_GRAY, 33, 17}, {TJSAMP_444, 1, 1}};
  for (const auto& f : frames) {
    const Frame frame = test::encodeTestFrame(f.w, f.h, f.sub);
    const struct {
      int w, h;
    } asked[] = {{f.w - 1, f.h}, {f.w + 1, f.h}, {f.w, f.h - 1}, {f.w, f.h + 1},
                 {f.h, f.w},     {0, 0},         {-f.w, f.h}};
    for (const auto& a : asked) {
      if (a.w == f.w && a.h == f.h) continue;
      for (Route route : {Route::kDirect, Route::kEntry}) {
        SCOPED_TRACE(std::to_string(f.w) + "x" + std::to_string(f.h) + " asked as " +
                     std::to_string(a.w) + "x" + std::to_string(a.h));
        Planes planes = patterned(std::max(a.w, 1), std::max(a.h, 1), f.w + 7, f.w + 3);
        planes.width = a.w;
        planes.height = a.h;
        const Planes before = planes;
        const Outcome outcome = decodeTurbo(route, frame, true, &planes);
        EXPECT_FALSE(outcome.ok);
        EXPECT_TRUE(outcome.errors.empty());
        EXPECT_EQ(firstDifference(planes, before), "");
        EXPECT_EQ(outcome.handles_made, 1);
        EXPECT_EQ(outcome.handles_destroyed, 1);
      }
    }
  }
}

// Each way a frame fails, with its log line: the text behind the prefix is TurboJPEG's error
// text of that moment. The planes stay untouched except when only tjDestroy() fails: then they
// hold the whole frame and the result is false all the same.
TEST(TurboRefusalTest, FailureRowsAndTheirLogLines) {
  const Frame frame = test::encodeTestFrame(48, 32, TJSAMP_422, 90, /*restart_rows=*/1);
  Frame truncated = frame;
  truncated.resize(frame.size() * 2 / 3);
  Frame junk_before_sos = frame;
  const size_t sos = findMarker(frame, 0xDA);
  junk_before_sos.insert(junk_before_sos.begin() + sos, {0x12, 0x34, 0x56});
  // A few bytes in front of a restart marker may vanish in the bits that the entropy decoder
  // reads ahead; 64 of them can't.
  Frame junk_before_rst = frame;
  junk_before_rst.insert(junk_before_rst.begin() + findMarker(frame, 0xD0), 64, 0x11);
  const Frame garbage = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};

  const struct {
    const char* name;
    const Frame* frame;
    bool ignore_warnings;
    bool fail_destroy;
    const char* prefix;    // nullptr: no log line
    const char* fragment;  // part of TurboJPEG's text, nullptr: not checked
  } cases[] = {
      {"ignore warnings refused", &frame, true, false, nullptr, nullptr},
      {"garbage", &garbage, false, false, "Error decoding (M)JPEG header: ", "Not a JPEG file"},
      {"junk before SOS", &junk_before_sos, false, false,
       "Error decoding (M)JPEG header: ", "extraneous bytes before marker 0xda"},
      {"truncated", &truncated, false, false,
       "Error decoding (M)JPEG image: ", "Premature end of JPEG file"},
      {"junk before RST0", &junk_before_rst, false, false,
       "Error decoding (M)JPEG image: ", "extraneous bytes before marker 0xd0"},
      {"tjDestroy fails", &frame, false, true, "Error releasing jpeg handle: ", nullptr},
  };
  for (const auto& c : cases) {
    for (bool insert_dht : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (insert_dht ? " with" : " without") + " tables");
      Planes planes = patterned(48, 32, 53, 29);
      Planes expected = planes;
      if (c.fail_destroy) {
        ASSERT_TRUE(referenceDecode(frame.data(), frame.size(), &expected).ok);
      }
      g_fail_destroy = c.fail_destroy;
      LogCapture capture;
      const int init_before = g_init_calls, destroy_before = g_destroy_calls;
      JTDecoder decoder;
      decoder.ignore_warnings_ = c.ignore_warnings;
      const bool ok =
          decoder.decompress(c.frame->data(), static_cast<uint32_t>(c.frame->size()), 48, 32,
                             insert_dht, planes.y.data(), planes.y_stride, planes.u.data(),
                             planes.uv_stride, planes.v.data(), planes.uv_stride);
      const std::string error_text = tjGetErrorStr();
      g_fail_destroy = false;
      EXPECT_FALSE(ok);
      EXPECT_EQ(g_init_calls - init_before, 1);
      EXPECT_EQ(g_destroy_calls - destroy_before, 1);
      EXPECT_EQ(firstDifference(planes, expected), "");
      const std::vector<std::string> lines = capture.texts(2, "mjpeg");
      if (c.prefix == nullptr) {
        EXPECT_TRUE(lines.empty());
        continue;
      }
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0], c.prefix + error_text);
      if (c.fragment != nullptr) {
        EXPECT_NE(lines[0].find(c.fragment), std::string::npos);
      }
    }
  }
}

// Empty, tiny, truncated and damaged input: false (or whatever TurboJPEG makes of a damaged
// frame), and no access outside the input, which lies in a buffer of exactly its size so that
// the address sanitizer sees every byte read behind it.
TEST(TurboRefusalTest, BadInputsStayInBounds) {
  const Frame frame = test::encodeTestFrame(24, 16, TJSAMP_420);
  // Every cut of the frame.
  for (size_t length = 0; length < frame.size(); ++length) {
    const Frame cut(frame.begin(), frame.begin() + length);
    for (bool insert_dht : {false, true}) {
      Planes planes = patterned(24, 16, 24, 12);
      const Planes before = planes;
      const Outcome outcome = decodeTurbo(Route::kDirect, cut.empty() ? nullptr : cut.data(),
                                          length, insert_dht, &planes);
      EXPECT_FALSE(outcome.ok) << length;
      EXPECT_EQ(firstDifference(planes, before), "") << length;
      EXPECT_EQ(outcome.handles_destroyed, 1) << length;
    }
  }
  // Sizes 0 and 1 and a null stream: refused before the default tables would be put in front
  // (nothing logged), or by TurboJPEG's header check without them.
  const struct {
    const uint8_t* data;
    size_t size;
  } tiny[] = {{frame.data(), 0}, {frame.data(), 1}, {nullptr, 0}, {nullptr, 100}};
  for (const auto& t : tiny) {
    for (bool insert_dht : {false, true}) {
      Planes planes = patterned(24, 16, 24, 12);
      const Outcome outcome = decodeTurbo(Route::kDirect, t.data, t.size, insert_dht, &planes);
      EXPECT_FALSE(outcome.ok);
      ASSERT_EQ(outcome.errors.size(), insert_dht ? 0u : 1u) << t.size;
      if (!insert_dht) {
        EXPECT_EQ(outcome.errors[0].rfind("Error decoding (M)JPEG header: ", 0), 0u);
      }
      EXPECT_EQ(outcome.handles_destroyed, 1);
    }
  }
  // Damaged frames: bytes overwritten at pseudo-random places, the SOI kept.
  unsigned state = 7;
  for (int round = 0; round < 300; ++round) {
    Frame damaged = frame;
    for (int k = 0; k < 1 + round % 4; ++k) {
      state = state * 1103515245u + 12345u;
      const size_t at = 2 + (state >> 8) % (damaged.size() - 2);
      damaged[at] = static_cast<uint8_t>(state >> 24);
    }
    Planes planes(24, 16);
    decodeTurbo(Route::kDirect, damaged, round % 2 == 0, &planes);
  }
}

// Sizes that would make the 32-bit length of the stream copy wrap are refused before `data` is
// read: the buffer behind it holds only a small frame. Through the entry point, only the low
// 32 bits of the size count.
TEST(TurboRefusalTest, SizeNearFourGiB) {
  const Frame frame = test::encodeTestFrame(16, 16, TJSAMP_420);
  for (uint32_t size : {UINT32_MAX, UINT32_MAX - 419u}) {
    Planes planes = patterned(16, 16, 16, 8);
    const Planes before = planes;
    const Outcome outcome = decodeTurbo(Route::kDirect, frame.data(), size, true, &planes);
    EXPECT_FALSE(outcome.ok);
    EXPECT_TRUE(outcome.errors.empty());
    EXPECT_EQ(firstDifference(planes, before), "");
    EXPECT_EQ(outcome.handles_destroyed, 1);
  }
  Planes planes(16, 16);
  const size_t wide_size = (size_t{1} << 32) + frame.size();
  EXPECT_TRUE(decodeTurbo(Route::kEntry, frame.data(), wide_size, true, &planes).ok);
}

// Missing planes: refused before anything is decoded, unless the plane receives nothing (a
// frame one line high has no chroma rows).
TEST(TurboRefusalTest, NullPlanes) {
  const Frame frame = test::encodeTestFrame(16, 8, TJSAMP_420);
  const Frame one_line = test::encodeTestFrame(16, 1, TJSAMP_444);
  const struct {
    const Frame* frame;
    int h;
    bool null_y, null_u, null_v;
    bool ok;
  } cases[] = {{&frame, 8, true, false, false, false},
               {&frame, 8, false, true, false, false},
               {&frame, 8, false, false, true, false},
               {&one_line, 1, false, true, true, true}};
  for (const auto& c : cases) {
    Planes planes = patterned(16, c.h, 16, 8);
    const Planes before = planes;
    LogCapture capture;
    JTDecoder decoder;
    const bool ok = decoder.decompress(c.frame->data(), static_cast<uint32_t>(c.frame->size()), 16,
                                       c.h, false, c.null_y ? nullptr : planes.y.data(), 16,
                                       c.null_u ? nullptr : planes.u.data(), 8,
                                       c.null_v ? nullptr : planes.v.data(), 8);
    EXPECT_EQ(ok, c.ok);
    EXPECT_TRUE(capture.texts(2, "mjpeg").empty());
    if (!c.ok) {
      EXPECT_EQ(firstDifference(planes, before), "");
    }
  }
}

// ---- Default Huffman tables ---------------------------------------------------------------

// A frame encoded with the standard tables and stripped of its DHT segments decodes with the
// default segment put in exactly like the original: the segment holds the tables of T.81
// K.3. A progressive frame with optimised tables of its own decodes like without the default
// segment: its own tables stand behind the inserted ones and replace them.
TEST(TurboDHTTest, DefaultTablesStandInForMissingOnes) {
  for (int sub : {TJSAMP_444, TJSAMP_422, TJSAMP_420, TJSAMP_GRAY}) {
    const Frame original = test::encodeTestFrame(96, 64, sub, 75, sub == TJSAMP_422 ? 2 : 0);
    const Frame stripped = test::stripDHT(original);
    ASSERT_LT(stripped.size(), original.size());
    ASSERT_EQ(test::stripDHT(stripped), stripped);
    for (Route route : {Route::kDirect, Route::kEntry}) {
      SCOPED_TRACE("layout " + std::to_string(sub));
      EXPECT_TRUE(expectLikeReference(route, stripped, true, 96, 64, 101, 53, original));
    }
  }
  for (int sub : {TJSAMP_420, TJSAMP_444}) {
    const Frame progressive = encodeProgressive(80, 56, sub);
    for (bool insert_dht : {false, true}) {
      SCOPED_TRACE("progressive, layout " + std::to_string(sub));
      EXPECT_TRUE(expectLikeReference(Route::kDirect, progressive, insert_dht, 80, 56, 80, 40,
                                      progressive));
    }
  }
}

// TurboJPEG falls back on the same standard tables by itself for a frame without any, so the
// pictures alone can't tell whether the segment went in: the stream that reaches
// tjDecompressToYUV() shows it. It is the frame itself without `insert_dht`, and else SOI, the
// whole default segment and the rest of the frame, whether the frame has tables of its own or
// not.
TEST(TurboDHTTest, StreamCopyLayout) {
  const Frame with_dht = test::encodeTestFrame(32, 16, TJSAMP_420);
  const Frame without_dht = test::stripDHT(with_dht);
  for (const Frame* frame : {&with_dht, &without_dht}) {
    for (bool insert_dht : {false, true}) {
      Planes planes(32, 16);
      g_decoded_stream.clear();
      g_decoded_stream_at = nullptr;
      ASSERT_TRUE(decodeTurbo(Route::kDirect, *frame, insert_dht, &planes).ok);
      Frame expected = *frame;
      if (insert_dht) {
        expected.insert(expected.begin() + 2, kMJPGDHTSeg, kMJPGDHTSeg + sizeof(kMJPGDHTSeg));
        EXPECT_NE(g_decoded_stream_at, frame->data());
      } else {
        EXPECT_EQ(g_decoded_stream_at, frame->data());
      }
      EXPECT_EQ(g_decoded_stream, expected);
    }
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
