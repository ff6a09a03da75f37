#include "support/test_support.h"

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace vidra {
namespace test {

std::string corpusDir() {
  const std::string dir = VIDRA_CORPUS_DIR;
  return std::filesystem::is_directory(dir) ? dir : std::string();
}

std::vector<std::string> corpusFiles(const std::string& folder) {
  std::vector<std::string> files;
  const std::string base = corpusDir();
  if (base.empty()) return files;
  const std::filesystem::path dir = std::filesystem::path(base) / folder;
  if (!std::filesystem::is_directory(dir)) return files;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() == ".jpg") files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

LogCapture::LogCapture(int mjpeg_level, int check_level) {
  setLoggerLevel("mjpeg", mjpeg_level);
  setLoggerLevel("check", check_level);
  setLogSink(&LogCapture::sink, this);
}

LogCapture::~LogCapture() {
  setLogSink(nullptr, nullptr);
  resetLoggerLevels();
}

void LogCapture::sink(void* user, int level, const char* channel, const char*, int,
                      const char* text) {
  static_cast<LogCapture*>(user)->lines_.push_back({level, channel, text});
}

std::vector<std::string> LogCapture::texts(int level, const std::string& channel) const {
  std::vector<std::string> result;
  for (const LogLine& line : lines_) {
    if (line.level == level && line.channel == channel) result.push_back(line.text);
  }
  return result;
}

bool LogCapture::contains(const std::string& channel, const std::string& fragment) const {
  for (const LogLine& line : lines_) {
    if (line.channel == channel && line.text.find(fragment) != std::string::npos) return true;
  }
  return false;
}

std::vector<std::string> LogCapture::jpegChecks() const {
  static const std::string kMarker = ": JPEG assertion failed ";
  std::vector<std::string> result;
  for (const LogLine& line : lines_) {
    const size_t at = line.text.find(kMarker);
    if (line.channel != "mjpeg" || line.level != 2 || at == std::string::npos || at == 0 ||
        line.text.find_first_not_of("0123456789") != at) {
      continue;
    }
    result.push_back(line.text.substr(at + kMarker.size()));
  }
  return result;
}

Planes::Planes(int w, int h, int ys, int uvs, uint8_t fill)
    : width(w),
      height(h),
      y_stride(ys > 0 ? ys : std::max(w, 1)),
      uv_stride(uvs > 0 ? uvs : std::max(w / 2, 1)),
      y(static_cast<size_t>(y_stride) * std::max(h, 1), fill),
      u(static_cast<size_t>(uv_stride) * std::max(h / 2, 1), fill),
      v(static_cast<size_t>(uv_stride) * std::max(h / 2, 1), fill) {}

std::vector<uint8_t> encodeTestFrame(int width, int height, int subsampling, int quality,
                                     int restart_rows, unsigned seed) {
  const bool gray = subsampling == TJSAMP_GRAY;
  const int components = gray ? 1 : 3;
  // A picture with gradients, edges and fine texture, so that every kind of block occurs.
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * components);
  unsigned state = seed * 2654435761u + 12345u;
  for (int row = 0; row < height; ++row) {
    for (int col = 0; col < width; ++col) {
      state = state * 1103515245u + 12345u;
      const int noise = static_cast<int>((state >> 16) & 15) - 8;
      const double wave = 40.0 * std::sin(col * 0.21 + seed) * std::cos(row * 0.13);
      const int checker = ((col / 13 + row / 11) & 1) ? 30 : -30;
      for (int c = 0; c < components; ++c) {
        int value = 128 + static_cast<int>(wave) + checker + noise + (c * 37 + col - row) % 50;
        value = std::min(255, std::max(0, value));
        pixels[(static_cast<size_t>(row) * width + col) * components + c] =
            static_cast<uint8_t>(value);
      }
    }
  }

  jpeg_compress_struct cinfo;
  jpeg_error_mgr jerr;
  cinfo.err = jpeg_std_error(&jerr);
  jpeg_create_compress(&cinfo);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&cinfo, &buffer, &size);
  cinfo.image_width = width;
  cinfo.image_height = height;
  cinfo.input_components = components;
  cinfo.in_color_space = gray ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, quality, TRUE);
  if (!gray) {
    // Luma's factors for TJSAMP_444, _422, _420, (_GRAY), _440 and _411; chroma's are 1x1.
    static const int kLuma[][2] = {{1, 1}, {2, 1}, {2, 2}, {1, 1}, {1, 2}, {4, 1}};
    for (int c = 0; c < 3; ++c) {
      cinfo.comp_info[c].h_samp_factor = c == 0 ? kLuma[subsampling][0] : 1;
      cinfo.comp_info[c].v_samp_factor = c == 0 ? kLuma[subsampling][1] : 1;
    }
  }
  cinfo.restart_in_rows = restart_rows;
  jpeg_start_compress(&cinfo, TRUE);
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = &pixels[static_cast<size_t>(cinfo.next_scanline) * width * components];
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  std::vector<uint8_t> frame(buffer, buffer + size);
  jpeg_destroy_compress(&cinfo);
  std::free(buffer);
  return frame;
}

std::vector<uint8_t> stripDHT(const std::vector<uint8_t>& frame) {
  std::vector<uint8_t> out(frame.begin(), frame.begin() + 2);
  size_t pos = 2;
  while (pos + 4 <= frame.size() && frame[pos] == 0xFF) {
    const uint8_t marker = frame[pos + 1];
    const size_t length = (frame[pos + 2] << 8) | frame[pos + 3];
    if (marker == 0xDA) break;
    if (marker != 0xC4)
      out.insert(out.end(), frame.begin() + pos, frame.begin() + pos + 2 + length);
    pos += 2 + length;
  }
  out.insert(out.end(), frame.begin() + pos, frame.end());
  return out;
}

std::vector<uint8_t> concatFrames(const std::vector<std::vector<uint8_t>>& frames,
                                  const std::vector<uint8_t>& junk) {
  std::vector<uint8_t> stream;
  for (size_t i = 0; i < frames.size(); ++i) {
    if (i > 0) stream.insert(stream.end(), junk.begin(), junk.end());
    stream.insert(stream.end(), frames[i].begin(), frames[i].end());
  }
  return stream;
}

size_t markerAt(const std::vector<uint8_t>& frame, uint8_t code) {
  for (size_t at = 2; at + 1 < frame.size(); ++at) {
    if (frame[at] == 0xFF && frame[at + 1] == code) return at;
  }
  return frame.size();
}

}  // namespace test
}  // namespace vidra
