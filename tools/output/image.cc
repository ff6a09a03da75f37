#include "output/image.h"

#include <algorithm>
#include <cstring>

namespace vidra {
namespace tool {

void I420Image::resize(int w, int h) {
  width = w;
  height = h;
  y.resize(static_cast<size_t>(w) * h);
  const size_t chroma = static_cast<size_t>(chromaWidth()) * chromaHeight();
  u.resize(chroma);
  v.resize(chroma);
}

void I420Image::fill(uint8_t luma) {
  std::fill(y.begin(), y.end(), luma);
  std::fill(u.begin(), u.end(), 0x80);
  std::fill(v.begin(), v.end(), 0x80);
}

void I420Image::completeChroma() {
  const int decoded_w = width / 2, decoded_h = height / 2;
  const int cw = chromaWidth(), ch = chromaHeight();
  for (std::vector<uint8_t>* plane : {&u, &v}) {
    uint8_t* p = plane->data();
    if (decoded_w == 0 || decoded_h == 0) {
      std::fill(plane->begin(), plane->end(), 0x80);
      continue;
    }
    if (cw > decoded_w) {
      for (int row = 0; row < decoded_h; ++row) p[row * cw + cw - 1] = p[row * cw + cw - 2];
    }
    if (ch > decoded_h) std::memcpy(p + (ch - 1) * cw, p + (ch - 2) * cw, cw);
  }
}

namespace {

// 1.402, 0.344136, 0.714136 and 1.772 in 16-bit fixed point.
constexpr int kCrToR = 91881;
constexpr int kCbToG = 22554;
constexpr int kCrToG = 46802;
constexpr int kCbToB = 116130;
constexpr int kHalf = 1 << 15;

uint8_t clamp255(int value) { return static_cast<uint8_t>(std::min(255, std::max(0, value))); }

}  // namespace

void yuvToRGB(int y, int cb, int cr, uint8_t rgb[3]) {
  cb -= 128;
  cr -= 128;
  // >> is an arithmetic shift on every compiler this builds with: it rounds toward minus
  // infinity, so adding half first rounds to nearest.
  rgb[0] = clamp255(y + ((kCrToR * cr + kHalf) >> 16));
  rgb[1] = clamp255(y + ((-kCbToG * cb - kCrToG * cr + kHalf) >> 16));
  rgb[2] = clamp255(y + ((kCbToB * cb + kHalf) >> 16));
}

RGBImage toRGB(const I420Image& image) {
  RGBImage rgb;
  rgb.resize(image.width, image.height);
  const int cw = image.chromaWidth();
  for (int row = 0; row < image.height; ++row) {
    const uint8_t* y = &image.y[static_cast<size_t>(row) * image.width];
    const uint8_t* u = &image.u[static_cast<size_t>(row / 2) * cw];
    const uint8_t* v = &image.v[static_cast<size_t>(row / 2) * cw];
    for (int col = 0; col < image.width; ++col) {
      yuvToRGB(y[col], u[col / 2], v[col / 2], rgb.at(col, row));
    }
  }
  return rgb;
}

RGBImage thumbnail(const I420Image& image, int width, int height) {
  RGBImage rgb;
  rgb.resize(width, height);
  if (image.width <= 0 || image.height <= 0) return rgb;
  const int cw = image.chromaWidth(), ch = image.chromaHeight();
  for (int ty = 0; ty < height; ++ty) {
    const int y0 = static_cast<int>(static_cast<int64_t>(ty) * image.height / height);
    const int y1 =
        std::max(y0 + 1, static_cast<int>(static_cast<int64_t>(ty + 1) * image.height / height));
    for (int tx = 0; tx < width; ++tx) {
      const int x0 = static_cast<int>(static_cast<int64_t>(tx) * image.width / width);
      const int x1 =
          std::max(x0 + 1, static_cast<int>(static_cast<int64_t>(tx + 1) * image.width / width));
      int64_t sum_y = 0, sum_u = 0, sum_v = 0, count = 0, chroma_count = 0;
      for (int row = y0; row < y1; ++row) {
        for (int col = x0; col < x1; ++col) {
          sum_y += image.y[static_cast<size_t>(row) * image.width + col];
          ++count;
        }
      }
      const int cy1 = std::min(ch, std::max(y0 / 2 + 1, (y1 + 1) / 2));
      const int cx1 = std::min(cw, std::max(x0 / 2 + 1, (x1 + 1) / 2));
      for (int row = y0 / 2; row < cy1; ++row) {
        for (int col = x0 / 2; col < cx1; ++col) {
          sum_u += image.u[static_cast<size_t>(row) * cw + col];
          sum_v += image.v[static_cast<size_t>(row) * cw + col];
          ++chroma_count;
        }
      }
      yuvToRGB(static_cast<int>((sum_y + count / 2) / count),
               static_cast<int>((sum_u + chroma_count / 2) / chroma_count),
               static_cast<int>((sum_v + chroma_count / 2) / chroma_count), rgb.at(tx, ty));
    }
  }
  return rgb;
}

}  // namespace tool
}  // namespace vidra
