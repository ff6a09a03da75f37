#include "demo/contact_sheet.h"

#include <algorithm>
#include <cstdlib>

#include "demo/demo_scene.h"

namespace vidra {
namespace tool {

namespace {

constexpr int kGap = 8;       // between tiles and around the sheet
constexpr int kBorder = 4;    // coloured frame around each thumbnail
constexpr int kCaption = 16;  // room for the frame number under a tile
constexpr uint8_t kBackground[3] = {24, 24, 24};

const uint8_t* markColor(ContactSheet::Mark mark) {
  static constexpr uint8_t kGrey[3] = {90, 90, 90};
  static constexpr uint8_t kOrange[3] = {255, 150, 0};
  static constexpr uint8_t kRed[3] = {230, 30, 30};
  switch (mark) {
    case ContactSheet::Mark::kClean:
      return kGrey;
    case ContactSheet::Mark::kConcealed:
      return kOrange;
    case ContactSheet::Mark::kFailed:
    case ContactSheet::Mark::kRefused:
      return kRed;
  }
  return kGrey;
}

}  // namespace

ContactSheet::ContactSheet(int count, int columns, int thumb_width, int thumb_height)
    : columns_(std::max(1, columns)), thumb_width_(thumb_width), thumb_height_(thumb_height) {
  const int rows = (std::max(1, count) + columns_ - 1) / columns_;
  const int tile_w = thumb_width_ + 2 * kBorder, tile_h = thumb_height_ + 2 * kBorder + kCaption;
  sheet_.resize(kGap + columns_ * (tile_w + kGap), kGap + rows * (tile_h + kGap));
  for (size_t i = 0; i < sheet_.pixels.size(); i += 3) {
    std::copy(kBackground, kBackground + 3, &sheet_.pixels[i]);
  }
}

void ContactSheet::place(int index, const I420Image* picture, Mark mark) {
  const int tile_w = thumb_width_ + 2 * kBorder, tile_h = thumb_height_ + 2 * kBorder + kCaption;
  const int left = kGap + (index % columns_) * (tile_w + kGap);
  const int top = kGap + (index / columns_) * (tile_h + kGap);
  if (top + tile_h > sheet_.height) return;
  const uint8_t* color = markColor(mark);
  for (int y = 0; y < thumb_height_ + 2 * kBorder; ++y) {
    for (int x = 0; x < tile_w; ++x) std::copy(color, color + 3, sheet_.at(left + x, top + y));
  }
  const int inner_x = left + kBorder, inner_y = top + kBorder;
  if (picture != nullptr && mark != Mark::kRefused) {
    const RGBImage thumb = thumbnail(*picture, thumb_width_, thumb_height_);
    for (int y = 0; y < thumb_height_; ++y) {
      std::copy(&thumb.pixels[static_cast<size_t>(y) * thumb_width_ * 3],
                &thumb.pixels[static_cast<size_t>(y + 1) * thumb_width_ * 3],
                sheet_.at(inner_x, inner_y + y));
    }
  } else {
    // No picture: a dark tile with a red cross.
    for (int y = 0; y < thumb_height_; ++y) {
      for (int x = 0; x < thumb_width_; ++x) {
        uint8_t* p = sheet_.at(inner_x + x, inner_y + y);
        const int diagonal = x * thumb_height_ / std::max(1, thumb_width_);
        const bool on_cross =
            std::abs(diagonal - y) <= 2 || std::abs(thumb_height_ - 1 - diagonal - y) <= 2;
        p[0] = on_cross ? 230 : 40;
        p[1] = on_cross ? 30 : 40;
        p[2] = on_cross ? 30 : 40;
      }
    }
  }
  static const uint8_t kText[3] = {220, 220, 220};
  drawDigits(&sheet_, left, top + thumb_height_ + 2 * kBorder + 3, std::to_string(index), 2,
             mark == Mark::kClean ? kText : color);
}

}  // namespace tool
}  // namespace vidra
