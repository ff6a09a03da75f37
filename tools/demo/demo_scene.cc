#include "demo/demo_scene.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vidra {
namespace tool {

namespace {

uint32_t hash(uint32_t x) {
  x ^= x >> 16;
  x *= 0x7feb352d;
  x ^= x >> 15;
  x *= 0x846ca68b;
  x ^= x >> 16;
  return x;
}

uint8_t clamp255(int value) { return static_cast<uint8_t>(std::min(255, std::max(0, value))); }

void blend(uint8_t* p, const uint8_t color[3], int alpha /* 0..256 */) {
  for (int c = 0; c < 3; ++c)
    p[c] = static_cast<uint8_t>(p[c] + (((color[c] - p[c]) * alpha) >> 8));
}

// Rows of the 3 x 5 digit font, three bits per row, most significant bit left.
constexpr uint8_t kDigitFont[10][5] = {
    {7, 5, 5, 5, 7}, {2, 6, 2, 2, 7}, {7, 1, 7, 4, 7}, {7, 1, 7, 1, 7}, {5, 5, 7, 1, 1},
    {7, 4, 7, 1, 7}, {7, 4, 7, 5, 7}, {7, 1, 2, 2, 2}, {7, 5, 7, 5, 7}, {7, 5, 7, 1, 7}};

}  // namespace

void drawDigits(RGBImage* image, int x, int y, const std::string& text, int scale,
                const uint8_t color[3]) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    static constexpr uint8_t kDash[5] = {0, 0, 7, 0, 0};
    static constexpr uint8_t kSpace[5] = {0, 0, 0, 0, 0};
    const uint8_t* rows = c >= '0' && c <= '9' ? kDigitFont[c - '0'] : c == '-' ? kDash : kSpace;
    const int left = x + static_cast<int>(i) * 4 * scale;
    for (int row = 0; row < 5 * scale; ++row) {
      const int py = y + row;
      if (py < 0 || py >= image->height) continue;
      for (int col = 0; col < 3 * scale; ++col) {
        const int px = left + col;
        if (px < 0 || px >= image->width) continue;
        if (rows[row / scale] & (4 >> (col / scale))) {
          uint8_t* p = image->at(px, py);
          p[0] = color[0];
          p[1] = color[1];
          p[2] = color[2];
        }
      }
    }
  }
}

DemoScene::DemoScene(int width, int height) : width_(width), height_(height), noise_(256 * 256) {
  // Sum of octaves of smoothed lattice noise, each tileable over 256.
  std::vector<int> sum(256 * 256, 0);
  for (int octave = 0, cell = 64, amplitude = 128; octave < 5;
       ++octave, cell /= 2, amplitude /= 2) {
    const int cells = 256 / cell;
    for (int y = 0; y < 256; ++y) {
      for (int x = 0; x < 256; ++x) {
        const int cx = x / cell, cy = y / cell;
        const int fx = (x % cell) * 256 / cell, fy = (y % cell) * 256 / cell;
        auto lattice = [&](int ix, int iy) {
          return static_cast<int>(
              hash((ix % cells) * 7919u + (iy % cells) * 104729u + octave * 31u) & 255);
        };
        const int a = lattice(cx, cy), b = lattice(cx + 1, cy);
        const int c = lattice(cx, cy + 1), d = lattice(cx + 1, cy + 1);
        const int top = a * 256 + (b - a) * fx, bottom = c * 256 + (d - c) * fx;
        const int value = (top * 256 + (bottom - top) * fy) >> 16;
        sum[y * 256 + x] += (value - 128) * amplitude / 128;
      }
    }
  }
  for (int i = 0; i < 256 * 256; ++i) noise_[i] = clamp255(128 + sum[i]);
}

void DemoScene::render(int index, RGBImage* out) const {
  out->resize(width_, height_);
  const int w = width_, h = height_;
  const int horizon = h * 2 / 5;
  const double t = index;
  const int cloud_shift = static_cast<int>(t * 3);
  // Sky with clouds.
  for (int y = 0; y < horizon && y < h; ++y) {
    const int sky_r = 70 + 90 * y / std::max(1, horizon),
              sky_g = 120 + 80 * y / std::max(1, horizon);
    for (int x = 0; x < w; ++x) {
      uint8_t* p = out->at(x, y);
      const int n = noiseAt(x * 256 / std::max(1, w) * 2 + cloud_shift, y * 2);
      const int cloud = std::max(0, n - 140) * 3;
      p[0] = clamp255(sky_r + cloud);
      p[1] = clamp255(sky_g + cloud);
      p[2] = clamp255(235 + cloud / 4);
    }
  }
  // Ground: tiles in perspective, moving towards the viewer, with grain from the noise.
  const int camera = static_cast<int>(t * 3);
  for (int y = std::max(0, horizon); y < h; ++y) {
    const int depth = std::max(1, y - horizon + 4);
    const int scale = (1 << 16) * 48 / depth;  // world units per pixel, 16.16
    const int v = (scale >> 4) + camera * 4;
    const int units_per_pixel = scale >> 12;
    const int contrast = std::max(0, std::min(256, 256 - (units_per_pixel - 16) * 8));
    const int shade = 255 * std::min(depth, 200) / 200;
    for (int x = 0; x < w; ++x) {
      const int u = static_cast<int>((static_cast<int64_t>(x - w / 2) * scale) >> 12);
      // Tiles of 128 x 128 units with grain; where a tile shrinks below a few pixels, towards
      // the horizon, its contrast fades (as a camera's optics would blur it).
      const int sign = ((u >> 7) ^ (v >> 7)) & 1 ? -1 : 1;
      const int grain = (noiseAt(u >> 1, v >> 1) - 128) * contrast / 256;
      uint8_t* p = out->at(x, y);
      p[0] = clamp255((145 + sign * 55 * contrast / 256) * shade / 255 + grain / 2);
      p[1] = clamp255((120 + sign * 50 * contrast / 256) * shade / 255 + grain / 2);
      p[2] = clamp255((85 + sign * 35 * contrast / 256) * shade / 255 + grain / 3);
    }
  }
  // Zone plate: rings whose frequency rises with the radius, drifting slowly.
  {
    const int r = h / 5, cx = w / 5 + static_cast<int>(std::sin(t * 0.05) * w / 20), cy = h / 2;
    for (int y = std::max(0, cy - r); y < std::min(h, cy + r); ++y) {
      for (int x = std::max(0, cx - r); x < std::min(w, cx + r); ++x) {
        const int dx = x - cx, dy = y - cy, d2 = dx * dx + dy * dy;
        if (d2 >= r * r) continue;
        const double phase = d2 * (3.14159 / (8.0 * r)) + t * 0.3;
        const uint8_t level = clamp255(128 + static_cast<int>(110 * std::cos(phase)));
        uint8_t* p = out->at(x, y);
        p[0] = p[1] = p[2] = level;
      }
    }
  }
  // A turning wheel with coloured spokes.
  {
    const int r = h / 6, cx = w * 3 / 4, cy = h / 2 - h / 12;
    const double turn = t * 0.12;
    static const uint8_t kColors[4][3] = {
        {230, 40, 40}, {250, 210, 30}, {40, 160, 230}, {60, 200, 90}};
    for (int y = std::max(0, cy - r); y < std::min(h, cy + r); ++y) {
      for (int x = std::max(0, cx - r); x < std::min(w, cx + r); ++x) {
        const int dx = x - cx, dy = y - cy, d2 = dx * dx + dy * dy;
        if (d2 >= r * r) continue;
        uint8_t* p = out->at(x, y);
        if (d2 > (r - r / 10) * (r - r / 10) || d2 < (r / 8) * (r / 8)) {
          p[0] = p[1] = p[2] = 30;
          continue;
        }
        const double angle = std::atan2(dy, dx) + turn;
        const int sector = static_cast<int>(std::floor(angle * 12 / 6.283185)) & 15;
        if (sector & 1) blend(p, kColors[(sector >> 1) & 3], 230);
      }
    }
  }
  // Bouncing balls with a highlight.
  for (int ball = 0; ball < 3; ++ball) {
    const int r = h / 14 + ball * h / 60;
    const double phase = t * (0.09 + ball * 0.03) + ball * 2.1;
    const int cx = static_cast<int>(w * (0.3 + 0.45 * (0.5 + 0.5 * std::sin(phase * 0.7 + ball))));
    const int cy = static_cast<int>(h - r - (h * 0.45) * std::fabs(std::sin(phase)));
    const uint8_t base[3] = {static_cast<uint8_t>(ball == 0 ? 220 : 60),
                             static_cast<uint8_t>(ball == 1 ? 200 : 60),
                             static_cast<uint8_t>(ball == 2 ? 220 : 60)};
    for (int y = std::max(0, cy - r); y < std::min(h, cy + r); ++y) {
      for (int x = std::max(0, cx - r); x < std::min(w, cx + r); ++x) {
        const int dx = x - cx, dy = y - cy, d2 = dx * dx + dy * dy;
        if (d2 >= r * r) continue;
        const int hx = dx + r / 3, hy = dy + r / 3;
        const int light = std::max(0, 255 - (hx * hx + hy * hy) * 255 / (r * r));
        uint8_t* p = out->at(x, y);
        for (int c = 0; c < 3; ++c) p[c] = clamp255(base[c] * (96 + light / 2) / 255 + light / 3);
      }
    }
  }
  // Frame counter, top left, white on a dark plate.
  const int digit_scale = std::max(1, h / 90);
  for (int y = 0; y < std::min(h, 7 * digit_scale); ++y) {
    for (int x = 0; x < std::min(w, 18 * digit_scale); ++x) {
      uint8_t* p = out->at(x, y);
      p[0] = p[0] / 4;
      p[1] = p[1] / 4;
      p[2] = p[2] / 4;
    }
  }
  char counter[8];
  std::snprintf(counter, sizeof(counter), "%04d", index % 10000);
  static const uint8_t kWhite[3] = {255, 255, 255};
  drawDigits(out, digit_scale, digit_scale, counter, digit_scale, kWhite);
}

}  // namespace tool
}  // namespace vidra
