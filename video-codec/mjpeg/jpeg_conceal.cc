// Concealment of MCUs that failed to decode.
//
// The entropy driver marks every MCU of a failed restart span in bad_mcus_. After the scan,
// fixBadMCUs() walks the MCU grid column by column and hands each maximal vertical run of bad
// MCUs to fixMCURange(), which overwrites the run in the planes of components 1, 2 and 3:
// blended between the good rows above and below it, repeated from the one good neighbour at the
// top or bottom of the grid, or mid-grey where the column has no good MCU or the plane is too
// wide for the interpolator. Only vertical neighbours are used; columns are independent.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "jpeg.h"
#include "jpeg_dsp.h"
#include "vidra/log.h"

namespace vidra {
namespace jpeg {
namespace {

// The widest rectangle the interpolator keeps differences for, and the widest that
// copyRange() knows: two 8-sample blocks.
constexpr int kMaxRangeWidth = 16;
constexpr uint8_t kGrey = 0x80;

// The scalar steps for any width 1..16: differences once per rectangle, then one multiply,
// add and arithmetic shift per sample, with the weight growing by 256 / (h - 1) per row.
void interpolateRangeScalar(uint8_t* dest, int w, int h, int stride, const uint8_t* top,
                            const uint8_t* bottom) {
  if (w <= 0 || h <= 0 || w > kMaxRangeWidth) return;
  // h == 1 would divide by zero. The single row has weight 0 whatever the step is, so it
  // becomes a copy of `top`, just as the first row of every taller rectangle does.
  const int step = h >= 2 ? 256 / (h - 1) : 0;
  int32_t diff[kMaxRangeWidth];
  for (int x = 0; x < w; ++x) diff[x] = bottom[x] - top[x];
  int weight = 0;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      // >> on a negative int is an arithmetic shift with g++ and clang++, which rounds halves
      // upwards for negative differences too.
      dest[x] = static_cast<uint8_t>(top[x] + ((diff[x] * weight + 128) >> 8));
    }
    weight += step;
    dest += stride;
  }
}

// Repeats the row `src` over `h` rows of `dest`. Only the two MCU widths exist here: 16
// samples when `w` is 16, otherwise 8, so `w` is not a byte count and a `w` of 0 or less still
// copies 8 bytes per row (fixMCURange() never passes one).
void copyRange(uint8_t* dest, int w, int h, int stride, const uint8_t* src) {
  VIDRA_CHECK_LE(w, 16);
  const size_t bytes = w == kMaxRangeWidth ? 16 : 8;
  for (int y = 0; y < h; ++y) {
    std::memcpy(dest, src, bytes);
    dest += stride;
  }
}

void fillRange(uint8_t* dest, int w, int h, int stride, uint8_t value) {
  for (int y = 0; y < h; ++y) {
    std::memset(dest, value, static_cast<size_t>(w));
    dest += stride;
  }
}

}  // namespace

void interpolateRange16_c(uint8_t* dest, int h, int stride, const uint8_t* top,
                          const uint8_t* bottom) {
  interpolateRangeScalar(dest, kMaxRangeWidth, h, stride, top, bottom);
}

void interpolateRange(uint8_t* dest, int w, int h, int stride, const uint8_t* top,
                      const uint8_t* bottom) {
  VIDRA_CHECK_LE(w, 16);
  // There is room for 16 differences only: a wider rectangle is a fault of the caller,
  // reported by the check above, and is left as it is rather than filled in part.
  if (w > kMaxRangeWidth) return;
  if (w <= 0 || h <= 0) return;
  if (w == kMaxRangeWidth) {
    dsp().interpolateRange16(dest, h, stride, top, bottom);
  } else {
    interpolateRangeScalar(dest, w, h, stride, top, bottom);
  }
}

void SimpleJPEGDecoder::fixBadMCUs() {
  if (bad_mcus_.empty()) return;
  // The entropy driver sizes bad_mcus_ to the whole grid. A map that is shorter than the grid
  // (only possible if the state was put together by hand) is not read at all, so that the walk
  // never reads past its end.
  if (mcus_x_ <= 0 || mcus_y_ <= 0) return;
  if (bad_mcus_.size() < static_cast<size_t>(mcus_x_) * static_cast<size_t>(mcus_y_)) return;
  takeBackDirectRows();

  for (int mcu_x = 0; mcu_x < mcus_x_; ++mcu_x) {
    bool run_open = false;
    int first_row = 0;
    for (int y = 0; y < mcus_y_; ++y) {
      const bool bad = bad_mcus_[static_cast<size_t>(y) * mcus_x_ + mcu_x] != 0;
      if (bad) {
        if (!run_open) {
          first_row = y;
          run_open = true;
        }
      } else if (run_open) {
        fixMCURange(mcu_x, first_row, y - 1);
        run_open = false;
      }
    }
    if (run_open) fixMCURange(mcu_x, first_row, mcus_y_ - 1);
  }
}

void SimpleJPEGDecoder::fixMCURange(int mcu_x, int first_row, int last_row) {
  // fixBadMCUs() passes runs inside the grid only. A run outside it has no rectangle in the
  // planes and is ignored instead of being written somewhere.
  if (mcu_x < 0 || mcu_x >= mcus_x_ || first_row < 0 || first_row > last_row ||
      last_row >= mcus_y_) {
    return;
  }
  const bool touches_top = first_row == 0;
  const bool touches_bottom = last_row == mcus_y_ - 1;

  // Components 1, 2 and 3 are the ones the output stage reads; other slots stay as decoded.
  for (int slot = 1; slot <= 3; ++slot) {
    const Channel& channel = channels_[slot];
    const Component& component = header_.components_[slot];
    if (channel.image_ == nullptr) continue;
    // A factor of 0 gives an empty plane that still has a (zero-sized) array. copyRange()
    // would write 8 bytes per row whatever the width, so such a plane is skipped as a whole;
    // the output stage refuses a frame like this anyway.
    if (component.h1_ <= 0 || component.v1_ <= 0) continue;

    // allocateImages() makes every plane cover the whole grid in its own factors, so the run
    // and its reference rows lie inside it. A plane that doesn't (only possible when the state
    // was put together by hand) is left alone rather than written past its end.
    if (static_cast<int64_t>(component.h1_) * 8 * mcus_x_ > channel.stride_ ||
        static_cast<int64_t>(component.v1_) * 8 * mcus_y_ > channel.height_) {
      continue;
    }

    // The geometry of the run in this plane, in 32-bit arithmetic like the plane itself: the
    // plane holds stride_ x height_ bytes, a product that fits an int32, so every offset
    // inside it fits too.
    const int32_t stride = channel.stride_;
    const int32_t w = component.h1_ * 8;
    const int32_t rows = (last_row - first_row + 1) * component.v1_ * 8;
    uint8_t* const origin =
        channel.image_ + first_row * component.v1_ * 8 * stride + mcu_x * component.h1_ * 8;
    if (component.h1_ > 2) {
      // Wider than the 16 samples the interpolator handles: grey, whatever the neighbours.
      fillRange(origin, w, rows, stride, kGrey);
    } else if (!touches_top && !touches_bottom) {
      const uint8_t* above = origin - stride;
      const uint8_t* below = origin + rows * stride;
      interpolateRange(origin, w, rows, stride, above, below);
    } else if (!touches_top) {
      copyRange(origin, w, rows, stride, origin - stride);
    } else if (!touches_bottom) {
      copyRange(origin, w, rows, stride, origin + rows * stride);
    } else {
      // The whole MCU column is bad: nothing to derive samples from.
      fillRange(origin, w, rows, stride, kGrey);
    }
  }
}

}  // namespace jpeg
}  // namespace vidra
