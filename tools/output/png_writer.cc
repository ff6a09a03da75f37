#include "output/png_writer.h"

#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <vector>

#include "cli/cli.h"

namespace vidra {
namespace tool {

namespace {

// libpng reports errors by longjmp; this keeps its message for ours.
struct PNGErrorState {
  std::string message;
};

void onPNGError(png_structp png, png_const_charp message) {
  auto* state = static_cast<PNGErrorState*>(png_get_error_ptr(png));
  if (state != nullptr) state->message = message;
  png_longjmp(png, 1);
}

void onPNGWarning(png_structp, png_const_charp) {}

// Everything libpng touches between setjmp and a longjmp lives here, outside the function
// that calls setjmp, so that no local of that function is left in an unspecified state.
bool writeRows(FILE* file, const RGBImage& image, int compression, PNGErrorState* state) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, state, onPNGError, onPNGWarning);
  if (png == nullptr) return false;
  png_infop info = png_create_info_struct(png);
  if (info == nullptr) {
    png_destroy_write_struct(&png, nullptr);
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_init_io(png, file);
  png_set_compression_level(png, compression);
  png_set_IHDR(png, info, image.width, image.height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int row = 0; row < image.height; ++row) {
    png_write_row(png, image.pixels.data() + static_cast<size_t>(row) * image.width * 3);
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

void writePNG(const std::string& path, const RGBImage& image, int compression) {
  if (image.width <= 0 || image.height <= 0) {
    throw ToolError(kExitUsage, path + ": nothing to write (empty picture)");
  }
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw ioError(path, "cannot create", errno);
  PNGErrorState state;
  const bool written = writeRows(file, image, compression, &state);
  const bool flushed = std::fflush(file) == 0 && !std::ferror(file);
  const int error = errno;
  const bool closed = std::fclose(file) == 0;
  if (!written) {
    std::remove(path.c_str());
    throw ToolError(kExitUsage, path + ": PNG encoding failed: " +
                                    (state.message.empty() ? "out of memory" : state.message));
  }
  if (!flushed || !closed) {
    std::remove(path.c_str());
    throw ioError(path, "write failed", error);
  }
}

}  // namespace tool
}  // namespace vidra
