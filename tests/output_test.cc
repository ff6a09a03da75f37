// Output assembly: the decoder's planes into the caller's 4:2:0 planes. The decoder is set up by
// hand, with the header and planes that frame and scan headers of the given factors produce, so
// that each layout and each refusal is reached without encoding a frame.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "jpeg.h"
#include "support/test_support.h"

namespace vidra {
namespace jpeg {
namespace {

using test::LogCapture;

constexpr uint8_t kUntouched = 0xA5;

// Component factors as "id:hxv ...", the frame header's order.
const char* k420 = "1:2x2 2:1x1 3:1x1";
const char* k444 = "1:1x1 2:1x1 3:1x1";
const char* k440 = "1:1x2 2:1x1 3:1x1";  // not handled: grey

// Fills the decoder as the frame header (grid from the largest factors) and the scan header's
// plane allocation would, with samples irregular enough that a wrong row, column or plane shows.
void setUpFrame(SimpleJPEGDecoder* d, int width, int height, const char* factors) {
  d->header_.width_ = width;
  d->header_.height_ = height;
  std::vector<Component> comps;
  int hmax = 1, vmax = 1;
  for (int id, h, v, n; std::sscanf(factors, " %d:%dx%d%n", &id, &h, &v, &n) == 3; factors += n) {
    comps.push_back({id, h, v, 0});
    d->header_.components_[id] = comps.back();
    hmax = std::max(hmax, h);
    vmax = std::max(vmax, v);
  }
  d->mcus_x_ = ((width + 7) / 8 + hmax - 1) / hmax;
  d->mcus_y_ = ((height + 7) / 8 + vmax - 1) / vmax;
  for (const Component& c : comps) {
    Channel& ch = d->channels_[c.component_id_];
    ch.stride_ = c.h1_ * 8 * d->mcus_x_;
    ch.height_ = c.v1_ * 8 * d->mcus_y_;
    ch.image_ = new uint8_t[static_cast<size_t>(ch.stride_) * ch.height_];
    for (int i = 0; i < ch.stride_ * ch.height_; ++i) {
      const int x = i % ch.stride_, y = i / ch.stride_;
      ch.image_[i] =
          static_cast<uint8_t>(c.component_id_ * 71 + x * 7 + y * 29 + ((x * 3) ^ (y * 5)) % 23);
    }
  }
}

void dropPlane(SimpleJPEGDecoder* d, int slot) {
  delete[] d->channels_[slot].image_;
  d->channels_[slot].image_ = nullptr;
}

// The caller's planes, all kUntouched: luma of exactly `height` rows, chroma of height / 2 (one
// row of room when that is 0, to show it stays), so that a write behind them runs off the block.
struct Output {
  Output(int height, int y_stride, int u_stride, int v_stride)
      : stride{y_stride, u_stride, v_stride} {
    for (int p = 0; p < 3; ++p) {
      plane[p].assign(static_cast<size_t>(p == 0 ? height : std::max(height / 2, 1)) * stride[p],
                      kUntouched);
    }
  }
  // Also holds outputAccepts(), the silent form of the checks, to the same answer.
  bool run(SimpleJPEGDecoder* d, int width, int height) {
    const bool accepts = d->outputAccepts(width, height);
    const bool result = d->outputResults(width, height, plane[0].data(), stride[0], plane[1].data(),
                                         stride[1], plane[2].data(), stride[2]);
    EXPECT_EQ(accepts, result);
    return result;
  }
  int stride[3];
  std::vector<uint8_t> plane[3];
};

enum class Chroma { k444, k422, k420, kGrey };

// What byte (x, y) of the caller's plane for `slot` must hold; -1: kUntouched. Luma and 4:2:0
// chroma are copies, of whole plane rows when the strides agree (one block copy).
int expectedByte(const SimpleJPEGDecoder& d, int slot, int out_stride, Chroma kind, int x, int y) {
  const Channel& c = d.channels_[slot];
  const bool luma = slot == 1, copy = luma || kind == Chroma::k420;
  const int width = luma ? d.header_.width_ : d.header_.width_ / 2;
  if (y >= (luma ? d.header_.height_ : d.header_.height_ / 2)) return -1;
  if (!luma && kind == Chroma::kGrey) return 0x80;  // across the whole stride
  if (x >= (copy && out_stride == c.stride_ ? c.stride_ : width)) return -1;
  const uint8_t* a = c.image_ + (copy ? y : 2 * y) * c.stride_;
  const uint8_t* b = a + c.stride_;
  if (copy) return a[x];
  if (kind == Chroma::k444) return (a[2 * x] + a[2 * x + 1] + b[2 * x] + b[2 * x + 1] + 1) >> 2;
  return (a[x] + b[x] + 1) >> 1;
}

TEST(OutputResults, WritesEveryLayout) {
  const struct {
    const char* name;
    int width, height;
    const char* factors;
    int y_stride, u_stride, v_stride;
    Chroma chroma;
  } cases[] = {
      // The strides of the planes: block copies, which carry the bytes behind the width too.
      {"420 632x480 block copy", 632, 480, k420, 640, 320, 320, Chroma::k420},
      // A luma stride of 704: 640 bytes per row, the 64 behind each row stay.
      {"420 640x480 row copy", 640, 480, k420, 704, 336, 330, Chroma::k420},
      // Planes of 1088 and 544 rows; the caller's planes hold exactly 1080 and 540.
      {"420 1920x1080", 1920, 1080, k420, 1920, 960, 960, Chroma::k420},
      {"444 101x75", 101, 75, k444, 101, 50, 64, Chroma::k444},
      {"422 97x33", 97, 33, "1:2x1 2:1x1 3:1x1", 100, 48, 51, Chroma::k422},
      // Layouts that aren't handled: luma as usual, chroma grey over whole strides. 4:1:1
      // has the layout value of 4:2:0 but chroma planes a quarter of the frame wide.
      {"440 33x19 grey", 33, 19, k440, 40, 20, 17, Chroma::kGrey},
      {"411 128x16 grey", 128, 16, "1:4x1 2:1x1 3:1x1", 128, 64, 64, Chroma::kGrey},
      // One pixel: luma gets one sample at its own stride, chroma is 0x0. 2x1: chroma is 1x0,
      // so u and v stay unwritten, also with the grey fill.
      {"444 1x1", 1, 1, k444, 3, 1, 1, Chroma::k444},
      {"420 2x1", 2, 1, k420, 2, 1, 1, Chroma::k420},
      {"440 2x1 grey", 2, 1, k440, 2, 4, 4, Chroma::kGrey},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder d;
    setUpFrame(&d, c.width, c.height, c.factors);
    // The grey fill reads no chroma plane: none need be there.
    if (c.chroma == Chroma::kGrey) {
      for (int slot : {2, 3}) dropPlane(&d, slot);
    }
    Output out(c.height, c.y_stride, c.u_stride, c.v_stride);
    LogCapture log;
    ASSERT_TRUE(out.run(&d, c.width, c.height));
    EXPECT_TRUE(log.lines().empty());
    for (int slot = 1; slot <= 3; ++slot) {
      const std::vector<uint8_t>& plane = out.plane[slot - 1];
      const int stride = out.stride[slot - 1];
      for (size_t i = 0; i < plane.size(); ++i) {
        const int x = static_cast<int>(i % stride), y = static_cast<int>(i / stride);
        const int want = expectedByte(d, slot, stride, c.chroma, x, y);
        ASSERT_EQ(plane[i], want < 0 ? kUntouched : want)
            << "slot " << slot << " at " << x << "," << y;
      }
    }
  }
}

// Each refusal on a 32x32 frame: false, no byte of the caller's planes written, and its one line
// on "mjpeg" at level 2: the size message, or the text of the JPEG check.
TEST(OutputResults, RefusalsLeavePlanesUntouched) {
  void (*const none)(SimpleJPEGDecoder*) = nullptr;
  const struct {
    const char* name;
    const char* factors;
    int ask_width, ask_height;
    void (*tamper)(SimpleJPEGDecoder*);
    const char* text;
  } cases[] = {
      {"wider", k420, 33, 32, none, "Wrong output image size. Expected 32x32 got 33x32."},
      {"lower", k420, 32, 30, none, "Wrong output image size. Expected 32x32 got 32x30."},
      // The size comes first, also for a frame that would fail the factor checks.
      {"size first", "1:1x1", 16, 32, none, "Wrong output image size. Expected 32x32 got 16x32."},
      {"one component", "1:1x1", 32, 32, none, "c[2].h1_ == 1"},
      {"ids 0 to 2", "0:2x2 1:1x1 2:1x1", 32, 32, none, "c[3].h1_ == 1"},
      {"wide Cb", "1:2x2 2:2x1 3:1x1", 32, 32, none, "c[2].h1_ == 1"},
      {"high Cb", "1:2x2 2:1x2 3:1x1", 32, 32, none, "c[2].v1_ == 1"},
      {"wide Cr", "1:2x2 2:1x1 3:2x1", 32, 32, none, "c[3].h1_ == 1"},
      // Cb's vertical factor is checked before Cr's horizontal one.
      {"high Cb, wide Cr", "1:2x2 2:1x2 3:2x1", 32, 32, none, "c[2].v1_ == 1"},
      // A luma factor of 0 (also what a frame without an id 1 has) leaves nothing to copy.
      {"luma h 0", "1:0x1 2:1x1 3:1x1", 32, 32, none, "c[1].h1_ >= 1 && c[1].v1_ >= 1"},
      {"luma v 0", "1:2x0 2:1x1 3:1x1", 32, 32, none, "c[1].h1_ >= 1 && c[1].v1_ >= 1"},
      // Cr's vertical factor isn't checked; above luma's it halves the grid: luma has too few rows.
      {"high Cr", "1:1x1 2:1x1 3:1x2", 32, 32, none,
       "planeHolds(channels_[1], header_.width_, header_.height_)"},
      {"no luma plane", k420, 32, 32, [](SimpleJPEGDecoder* d) { dropPlane(d, 1); },
       "planeHolds(channels_[1], header_.width_, header_.height_)"},
      {"no Cb plane", k444, 32, 32, [](SimpleJPEGDecoder* d) { dropPlane(d, 2); },
       "planeHolds(channels_[2], source_width, source_height)"},
      // 4:4:4 reads twice the result's size; a plane one row short of it is refused.
      {"Cr too low", k444, 32, 32, [](SimpleJPEGDecoder* d) { d->channels_[3].height_ = 31; },
       "planeHolds(channels_[3], source_width, source_height)"},
      {"Cb too narrow", k420, 32, 32, [](SimpleJPEGDecoder* d) { d->channels_[2].stride_ = 15; },
       "planeHolds(channels_[2], source_width, source_height)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SimpleJPEGDecoder d;
    setUpFrame(&d, 32, 32, c.factors);
    if (c.tamper) c.tamper(&d);
    Output out(c.ask_height, c.ask_width + 8, c.ask_width + 8, c.ask_width + 8);
    const std::vector<uint8_t> before[] = {out.plane[0], out.plane[1], out.plane[2]};
    LogCapture log;
    EXPECT_FALSE(out.run(&d, c.ask_width, c.ask_height));
    EXPECT_TRUE(std::equal(before, before + 3, out.plane));
    ASSERT_EQ(log.lines().size(), 1u);
    ASSERT_EQ(log.texts(2, "mjpeg").size(), 1u);
    const std::vector<std::string> checks = log.jpegChecks();
    EXPECT_EQ(checks.empty() ? log.lines()[0].text : checks[0], c.text);
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
