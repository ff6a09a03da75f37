// Writes RGB pictures as PNG files through libpng.
#pragma once

#include <string>

#include "output/image.h"

namespace vidra {
namespace tool {

// Writes `image` to `path` as 8-bit RGB PNG. `compression` is zlib's level (0..9): the
// contact sheet uses a low one, it is large and written once per run. Throws ToolError
// (kExitUsage) naming the path when the file can't be written.
void writePNG(const std::string& path, const RGBImage& image, int compression = 6);

}  // namespace tool
}  // namespace vidra
