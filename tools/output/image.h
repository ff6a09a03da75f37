// A decoded picture in I420 and what the tool does with one: complete the chroma of odd sizes,
// convert to RGB, shrink to a thumbnail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vidra {
namespace tool {

// Planar Y/U/V 4:2:0. The chroma planes are laid out as files and players expect them:
// (width + 1) / 2 by (height + 1) / 2 samples, rounding up. The decoder writes width / 2 by
// height / 2 of them (rounding down); completeChroma() fills the rest for odd sizes.
struct I420Image {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> y, u, v;

  // Sizes the planes for `w` x `h`; contents are unspecified afterwards.
  void resize(int w, int h);
  int chromaWidth() const { return (width + 1) / 2; }
  int chromaHeight() const { return (height + 1) / 2; }
  int yStride() const { return width; }
  int chromaStride() const { return chromaWidth(); }
  // Fills every sample with `luma` and the chroma with 0x80.
  void fill(uint8_t luma);
  // Odd width or height: repeats the last decoded chroma column / row into the one the decoder
  // leaves out (0x80 when the decoder wrote no chroma at all, as for a 1-pixel-wide frame).
  void completeChroma();
};

// Interleaved 8-bit RGB.
struct RGBImage {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> pixels;  // width * height * 3

  void resize(int w, int h) {
    width = w;
    height = h;
    pixels.assign(static_cast<size_t>(w) * h * 3, 0);
  }
  uint8_t* at(int x, int y) { return &pixels[(static_cast<size_t>(y) * width + x) * 3]; }
};

// BT.601 full-range YCbCr (the JPEG/JFIF colour space) to RGB:
//   R = Y + 1.402 (Cr - 128)
//   G = Y - 0.344136 (Cb - 128) - 0.714136 (Cr - 128)
//   B = Y + 1.772 (Cb - 128)
// in 16-bit fixed point, rounded and clamped to 0..255.
void yuvToRGB(int y, int cb, int cr, uint8_t rgb[3]);

// The whole picture in RGB; each chroma sample covers 2 x 2 pixels.
RGBImage toRGB(const I420Image& image);

// Shrinks `image` to `width` x `height` by averaging the box of source pixels behind each
// result pixel, then converts it to RGB.
RGBImage thumbnail(const I420Image& image, int width, int height);

}  // namespace tool
}  // namespace vidra
