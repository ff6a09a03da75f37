// The demo's moving test scene: a perspective ground of tiles under a sky with drifting
// clouds, a zone plate, a turning wheel, bouncing balls and a large frame counter. Plenty of
// texture and fine detail, so that damage and its concealment show.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "output/image.h"

namespace vidra {
namespace tool {

class DemoScene {
 public:
  DemoScene(int width, int height);
  // Frame `index` of the scene, as interleaved RGB of the scene's size.
  void render(int index, RGBImage* out) const;

 private:
  int width_, height_;
  std::vector<uint8_t> noise_;  // 256 x 256 tileable fractal noise
  uint8_t noiseAt(int x, int y) const { return noise_[((y & 255) << 8) | (x & 255)]; }
};

// Draws `text` (digits, space and '-') with a 3 x 5 pixel font, each font pixel `scale` x
// `scale` pixels, top-left corner at (x, y). Parts outside the image are clipped.
void drawDigits(RGBImage* image, int x, int y, const std::string& text, int scale,
                const uint8_t color[3]);

}  // namespace tool
}  // namespace vidra
