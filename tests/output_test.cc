// Output assembly: the decoder's planes into the caller's 4:2:0 planes.
//
// The decoder is set up by hand, with the header and planes that a frame header and scan
// header of the given factors produce, so that each layout and each refusal can be reached
// without encoding a frame.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "jpeg.h"
#include "support/test_support.h"

namespace vidra {
namespace jpeg {
namespace {

using test::LogCapture;

constexpr uint8_t kUntouched = 0xA5;

struct Factors {
  int id, h, v;
};

// A sample of slot `slot` at (x, y): irregular enough that a wrong row, column or plane shows.
uint8_t sampleOf(int slot, int x, int y) {
  return static_cast<uint8_t>(slot * 71 + x * 7 + y * 29 + ((x * 3) ^ (y * 5)) % 23);
}

// Fills the decoder as the frame header (grid from the largest factors) and the plane
// allocation of the scan header would, with planes of known samples.
void setUpFrame(SimpleJPEGDecoder* d, int width, int height, const std::vector<Factors>& comps) {
  d->header_.width_ = width;
  d->header_.height_ = height;
  d->header_.precision_ = 8;
  int hmax = 1, vmax = 1;
  for (const Factors& f : comps) {
    Component& c = d->header_.components_[f.id];
    c.component_id_ = f.id;
    c.h1_ = f.h;
    c.v1_ = f.v;
    hmax = std::max(hmax, f.h);
    vmax = std::max(vmax, f.v);
  }
  d->mcus_x_ = ((width + 7) / 8 + hmax - 1) / hmax;
  d->mcus_y_ = ((height + 7) / 8 + vmax - 1) / vmax;
  d->total_mcus_ = d->mcus_x_ * d->mcus_y_;
  for (int slot = 0; slot < kMaxComponents; ++slot) {
    const Component& c = d->header_.components_[slot];
    if (c.component_id_ < 0) continue;
    Channel& ch = d->channels_[slot];
    ch.mcu_width_ = c.h1_ * 8;
    ch.stride_ = ch.mcu_width_ * d->mcus_x_;
    ch.mcu_row_size_ = ch.stride_ * 8 * c.v1_;
    ch.height_ = d->mcus_y_ * 8 * c.v1_;
    ch.image_ = new uint8_t[static_cast<size_t>(ch.stride_) * ch.height_];
    for (int y = 0; y < ch.height_; ++y) {
      for (int x = 0; x < ch.stride_; ++x) ch.image_[y * ch.stride_ + x] = sampleOf(slot, x, y);
    }
  }
}

const std::vector<Factors> k420 = {{1, 2, 2}, {2, 1, 1}, {3, 1, 1}};
const std::vector<Factors> k422 = {{1, 2, 1}, {2, 1, 1}, {3, 1, 1}};
const std::vector<Factors> k444 = {{1, 1, 1}, {2, 1, 1}, {3, 1, 1}};
const std::vector<Factors> k440 = {{1, 1, 2}, {2, 1, 1}, {3, 1, 1}};  // not handled: grey
const std::vector<Factors> k411 = {{1, 4, 1}, {2, 1, 1}, {3, 1, 1}};  // layout value 3

// The caller's planes: `rows` rows at their strides, exactly that large (so that a write
// behind them runs off the heap block), all bytes kUntouched.
struct Output {
  Output(int y_rows, int y_stride, int uv_rows, int u_stride, int v_stride)
      : y_stride(y_stride),
        u_stride(u_stride),
        v_stride(v_stride),
        y(static_cast<size_t>(y_rows) * y_stride, kUntouched),
        u(static_cast<size_t>(uv_rows) * u_stride, kUntouched),
        v(static_cast<size_t>(uv_rows) * v_stride, kUntouched) {}
  bool run(SimpleJPEGDecoder* d, int width, int height) {
    return d->outputResults(width, height, y.data(), y_stride, u.data(), u_stride, v.data(),
                            v_stride);
  }
  bool untouched() const {
    auto clean = [](const std::vector<uint8_t>& p) {
      return std::all_of(p.begin(), p.end(), [](uint8_t b) { return b == kUntouched; });
    };
    return clean(y) && clean(u) && clean(v);
  }
  int y_stride, u_stride, v_stride;
  std::vector<uint8_t> y, u, v;
};

// Compares every byte of `plane` with `expected(x, y)`, where -1 means kUntouched.
void expectPlane(const char* name, const std::vector<uint8_t>& plane, int stride,
                 const std::function<int(int, int)>& expected) {
  int errors = 0;
  for (size_t i = 0; i < plane.size() && errors < 5; ++i) {
    const int x = static_cast<int>(i % stride), y = static_cast<int>(i / stride);
    const int want = expected(x, y);
    if (plane[i] != (want < 0 ? kUntouched : want)) {
      ADD_FAILURE() << name << " at " << x << "," << y << ": " << int(plane[i]) << " instead of "
                    << (want < 0 ? int(kUntouched) : want);
      ++errors;
    }
  }
}

// Luma: the frame's samples, plus the rest of each row up to the plane's stride when the
// strides agree (one block copy).
void expectLuma(const SimpleJPEGDecoder& d, const Output& out) {
  const Channel& ch = d.channels_[1];
  const bool block = out.y_stride == ch.stride_;
  const int width = d.header_.width_, height = d.header_.height_;
  expectPlane("y", out.y, out.y_stride, [&](int x, int y) {
    if (y >= height || x >= (block ? ch.stride_ : width)) return -1;
    return int(ch.image_[y * ch.stride_ + x]);
  });
}

enum class Chroma { k444, k422, k420, kGrey };

void expectChroma(const SimpleJPEGDecoder& d, const Output& out, Chroma kind) {
  const int cw = d.header_.width_ / 2, ch = d.header_.height_ / 2;
  for (int slot : {2, 3}) {
    const Channel& c = d.channels_[slot];
    const int stride = slot == 2 ? out.u_stride : out.v_stride;
    const std::vector<uint8_t>& plane = slot == 2 ? out.u : out.v;
    const bool block = kind == Chroma::k420 && stride == c.stride_;
    expectPlane(slot == 2 ? "u" : "v", plane, stride, [&](int x, int y) -> int {
      if (y >= ch) return -1;
      if (kind == Chroma::kGrey) return 0x80;  // whole stride
      if (x >= (block ? c.stride_ : cw)) return -1;
      const uint8_t* a = c.image_ + (kind == Chroma::k420 ? y : 2 * y) * c.stride_;
      const uint8_t* b = a + c.stride_;
      switch (kind) {
        case Chroma::k444:
          return (a[2 * x] + a[2 * x + 1] + b[2 * x] + b[2 * x + 1] + 1) >> 2;
        case Chroma::k422:
          return (a[x] + b[x] + 1) >> 1;
        default:
          return a[x];
      }
    });
  }
}

// ---- Frames that are written ---------------------------------------------------------------

struct WriteCase {
  const char* name;
  int width, height;
  std::vector<Factors> factors;
  int y_stride, u_stride, v_stride;
  Chroma chroma;
};

class OutputWrites : public ::testing::TestWithParam<WriteCase> {};

TEST_P(OutputWrites, PlanesHoldTheFrame) {
  const WriteCase& c = GetParam();
  SimpleJPEGDecoder d;
  setUpFrame(&d, c.width, c.height, c.factors);
  Output out(c.height, c.y_stride, c.height / 2, c.u_stride, c.v_stride);
  LogCapture log;
  ASSERT_TRUE(out.run(&d, c.width, c.height));
  EXPECT_TRUE(log.lines().empty());
  expectLuma(d, out);
  expectChroma(d, out, c.chroma);
}

const WriteCase kWriteCases[] = {
    // 4:2:0 at the planes' own strides: three block copies.
    {"Planes420_640x480_SameStrides", 640, 480, k420, 640, 320, 320, Chroma::k420},
    // A caller stride of 704: 640 bytes per row, the 64 behind each row stay.
    {"Planes420_640x480_LumaStride704", 640, 480, k420, 704, 320, 320, Chroma::k420},
    // A width short of the plane's: the block copy also carries the bytes behind the width.
    {"Planes420_632x480_BlockCopyTakesPlaneColumns", 632, 480, k420, 640, 320, 320, Chroma::k420},
    {"Planes420_632x480_RowCopy", 632, 480, k420, 632, 316, 330, Chroma::k420},
    // Planes of 1088 and 544 rows; the caller's planes hold exactly 1080 and 540.
    {"Planes420_1920x1080", 1920, 1080, k420, 1920, 960, 960, Chroma::k420},
    {"Planes420_17x17", 17, 17, k420, 17, 8, 9, Chroma::k420},
    {"Planes444_101x75", 101, 75, k444, 101, 50, 64, Chroma::k444},
    {"Planes444_64x48_SameStrides", 64, 48, k444, 64, 64, 64, Chroma::k444},
    {"Planes422_1280x720", 1280, 720, k422, 1280, 640, 640, Chroma::k422},
    {"Planes422_97x33", 97, 33, k422, 100, 48, 51, Chroma::k422},
    // Not handled layouts: luma as usual, chroma grey over whole strides.
    {"Planes440_Grey", 64, 32, k440, 64, 40, 36, Chroma::kGrey},
    {"Planes440_OddGrey", 33, 19, k440, 40, 16, 17, Chroma::kGrey},
    // 4:1:1 has the layout value of 4:2:0 but chroma planes a quarter of the frame wide: grey
    // rather than a copy of another geometry.
    {"Planes411_Grey", 128, 16, k411, 128, 64, 64, Chroma::kGrey},
    // A single pixel: luma gets one sample at its own stride, chroma is 0x0 in every layout.
    {"Pixel1x1_420", 1, 1, k420, 7, 1, 1, Chroma::k420},
    {"Pixel1x1_444", 1, 1, k444, 3, 1, 1, Chroma::k444},
    {"Pixel1x1_Grey", 1, 1, k440, 1, 4, 4, Chroma::kGrey},
    // 2x1: chroma is 1x0, so u and v stay unwritten, also with the grey fill.
    {"Pixel2x1_420", 2, 1, k420, 2, 1, 1, Chroma::k420},
    {"Pixel2x1_Grey", 2, 1, k440, 2, 1, 1, Chroma::kGrey},
    {"Pixel2x2_444", 2, 2, k444, 2, 1, 1, Chroma::k444},
};

INSTANTIATE_TEST_SUITE_P(Layouts, OutputWrites, ::testing::ValuesIn(kWriteCases),
                         [](const ::testing::TestParamInfo<WriteCase>& info) {
                           return std::string(info.param.name);
                         });

// The planes of a 1x1 or 2x1 frame have a row, but the caller's chroma planes get none: give
// them one row of room anyway and check that it stays as it was.
TEST(OutputWrites, NoChromaRowsForFramesOfOneRow) {
  for (const auto& factors : {k420, k444, k440}) {
    for (int width : {1, 2}) {
      SimpleJPEGDecoder d;
      setUpFrame(&d, width, 1, factors);
      Output out(1, 5, 1, 3, 3);
      ASSERT_TRUE(out.run(&d, width, 1));
      EXPECT_TRUE(
          std::all_of(out.u.begin(), out.u.end(), [](uint8_t b) { return b == kUntouched; }));
      EXPECT_TRUE(
          std::all_of(out.v.begin(), out.v.end(), [](uint8_t b) { return b == kUntouched; }));
      expectLuma(d, out);
    }
  }
}

// Grey layouts read no chroma plane: none need be there.
TEST(OutputWrites, GreyFillReadsNoChromaPlane) {
  SimpleJPEGDecoder d;
  setUpFrame(&d, 32, 16, k440);
  delete[] d.channels_[2].image_;
  delete[] d.channels_[3].image_;
  d.channels_[2].image_ = nullptr;
  d.channels_[3].image_ = nullptr;
  Output out(16, 32, 8, 20, 20);
  ASSERT_TRUE(out.run(&d, 32, 16));
  expectLuma(d, out);
  expectChroma(d, out, Chroma::kGrey);
}

// ---- Refused frames ------------------------------------------------------------------------

struct RefuseCase {
  const char* name;
  int width, height;  // of the frame; the caller asks for these plus the deltas
  std::vector<Factors> factors;
  int ask_width, ask_height;
  std::function<void(SimpleJPEGDecoder*)> tamper;  // may be empty
  std::string check;                               // expected JPEG check text, or ""
  std::string message;                             // expected plain log line, or ""
};

class OutputRefuses : public ::testing::TestWithParam<RefuseCase> {};

TEST_P(OutputRefuses, FalseWithItsReasonAndPlanesUntouched) {
  const RefuseCase& c = GetParam();
  for (bool logging : {true, false}) {
    SimpleJPEGDecoder d;
    setUpFrame(&d, c.width, c.height, c.factors);
    if (c.tamper) c.tamper(&d);
    const int h = std::max(c.ask_height, 2);
    Output out(h, std::max(c.ask_width, 1) + 8, h / 2, c.ask_width + 8, c.ask_width + 8);
    LogCapture log(/*mjpeg_level=*/logging ? 2 : 1);
    EXPECT_FALSE(out.run(&d, c.ask_width, c.ask_height));
    EXPECT_TRUE(out.untouched());
    if (!logging) {
      EXPECT_TRUE(log.lines().empty());
      continue;
    }
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, 2);
    EXPECT_EQ(log.lines()[0].channel, "mjpeg");
    if (!c.check.empty()) {
      EXPECT_EQ(log.jpegChecks(), std::vector<std::string>{c.check});
    } else {
      EXPECT_EQ(log.lines()[0].text, c.message);
    }
  }
}

void dropPlane(SimpleJPEGDecoder* d, int slot) {
  delete[] d->channels_[slot].image_;
  d->channels_[slot].image_ = nullptr;
}

const RefuseCase kRefuseCases[] = {
    {"WiderThanTheFrame", 640, 480, k420, 641, 480, nullptr, "",
     "Wrong output image size. Expected 640x480 got 641x480."},
    {"LowerThanTheFrame", 640, 480, k420, 640, 478, nullptr, "",
     "Wrong output image size. Expected 640x480 got 640x478."},
    // The size comes first: a frame that would fail the factor checks reports its size.
    {"SizeBeforeFactors",
     32,
     32,
     {{1, 1, 1}},
     16,
     32,
     nullptr,
     "",
     "Wrong output image size. Expected 32x32 got 16x32."},
    {"SingleComponent", 32, 32, {{1, 1, 1}}, 32, 32, nullptr, "c[2].h1_ == 1", ""},
    {"Ids0To2", 32, 32, {{0, 2, 2}, {1, 1, 1}, {2, 1, 1}}, 32, 32, nullptr, "c[3].h1_ == 1", ""},
    {"FirstChromaWide",
     32,
     32,
     {{1, 2, 2}, {2, 2, 1}, {3, 1, 1}},
     32,
     32,
     nullptr,
     "c[2].h1_ == 1",
     ""},
    {"FirstChromaHigh",
     32,
     32,
     {{1, 2, 2}, {2, 1, 2}, {3, 1, 1}},
     32,
     32,
     nullptr,
     "c[2].v1_ == 1",
     ""},
    {"SecondChromaWide",
     32,
     32,
     {{1, 2, 2}, {2, 1, 1}, {3, 2, 1}},
     32,
     32,
     nullptr,
     "c[3].h1_ == 1",
     ""},
    // No id 1: no luma plane to copy.
    {"NoLuma",
     32,
     32,
     {{2, 1, 1}, {3, 1, 1}, {4, 1, 1}},
     32,
     32,
     nullptr,
     "c[1].h1_ >= 1 && c[1].v1_ >= 1",
     ""},
    {"LumaFactorZero",
     32,
     32,
     {{1, 0, 1}, {2, 1, 1}, {3, 1, 1}},
     32,
     32,
     nullptr,
     "c[1].h1_ >= 1 && c[1].v1_ >= 1",
     ""},
    {"LumaVerticalFactorZero",
     32,
     32,
     {{1, 2, 0}, {2, 1, 1}, {3, 1, 1}},
     32,
     32,
     nullptr,
     "c[1].h1_ >= 1 && c[1].v1_ >= 1",
     ""},
    // Slot 3's vertical factor is not checked; above slot 1's it halves the grid's rows, so
    // luma has fewer rows than the frame.
    {"SecondChromaHigherThanLuma",
     32,
     32,
     {{1, 1, 1}, {2, 1, 1}, {3, 1, 2}},
     32,
     32,
     nullptr,
     "planeHolds(channels_[1], header_.width_, header_.height_)",
     ""},
    // A fourth component with larger factors: luma narrower and lower than the frame.
    {"FourthComponentLarger",
     48,
     48,
     {{1, 1, 1}, {2, 1, 1}, {3, 1, 1}, {4, 2, 2}},
     48,
     48,
     nullptr,
     "planeHolds(channels_[1], header_.width_, header_.height_)",
     ""},
    {"LumaPlaneMissing", 32, 32, k420, 32, 32, [](SimpleJPEGDecoder* d) { dropPlane(d, 1); },
     "planeHolds(channels_[1], header_.width_, header_.height_)", ""},
    {"FirstChromaPlaneMissing", 32, 32, k444, 32, 32, [](SimpleJPEGDecoder* d) { dropPlane(d, 2); },
     "planeHolds(channels_[2], source_width, source_height)", ""},
    {"SecondChromaPlaneMissing", 32, 32, k422, 32, 32,
     [](SimpleJPEGDecoder* d) { dropPlane(d, 3); },
     "planeHolds(channels_[3], source_width, source_height)", ""},
    // 4:4:4 reads twice the result's size; a plane one row short of it is refused.
    {"ChromaPlaneTooLow", 32, 32, k444, 32, 32,
     [](SimpleJPEGDecoder* d) { d->channels_[3].height_ = 31; },
     "planeHolds(channels_[3], source_width, source_height)", ""},
    {"ChromaPlaneTooNarrow", 32, 32, k420, 32, 32,
     [](SimpleJPEGDecoder* d) { d->channels_[2].stride_ = 15; },
     "planeHolds(channels_[2], source_width, source_height)", ""},
};

INSTANTIATE_TEST_SUITE_P(Checks, OutputRefuses, ::testing::ValuesIn(kRefuseCases),
                         [](const ::testing::TestParamInfo<RefuseCase>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
}  // namespace jpeg
}  // namespace vidra
