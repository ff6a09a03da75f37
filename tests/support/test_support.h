// Helpers shared by the tests: corpus access, captured log lines, frame encoding.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "vidra/log.h"

namespace vidra {
namespace test {

// The folder of real test frames, or "" when it is absent.
std::string corpusDir();
// Sorted paths of the *.jpg files in corpusDir()/`folder`; empty when the folder is absent.
std::vector<std::string> corpusFiles(const std::string& folder);
// Skips the current test with a message when `folder` of the corpus has no frames.
#define VIDRA_REQUIRE_CORPUS(files, folder)                                            \
  do {                                                                                 \
    if ((files).empty()) GTEST_SKIP() << "corpus folder " << (folder) << " not found"; \
  } while (0)

std::vector<uint8_t> readFile(const std::string& path);

struct LogLine {
  int level;
  std::string channel;
  std::string text;
  bool operator==(const LogLine& o) const {
    return level == o.level && channel == o.channel && text == o.text;
  }
};
inline void PrintTo(const LogLine& line, std::ostream* os) {
  *os << line.level << " " << line.channel << " " << line.text;
}

// Captures every emitted log line while it lives, with the given channel levels enabled, and
// restores the stderr sink and the default levels afterwards.
class LogCapture {
 public:
  explicit LogCapture(int mjpeg_level = 2, int check_level = 1);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const { return lines_; }
  // Texts of the lines at `level` on `channel`.
  std::vector<std::string> texts(int level, const std::string& channel) const;
  // True if some line on `channel` contains `fragment`.
  bool contains(const std::string& channel, const std::string& fragment) const;
  // The check texts of "<line>: JPEG assertion failed <text>" lines, in order.
  std::vector<std::string> jpegChecks() const;
  void clear() { lines_.clear(); }

 private:
  static void sink(void* user, int level, const char* channel, const char* file, int line,
                   const char* text);
  std::vector<LogLine> lines_;
};

// Three I420 planes with their own strides, filled with a pattern that shows the bytes written.
struct Planes {
  Planes(int width, int height, int y_stride = 0, int uv_stride = 0, uint8_t fill = 0xA5);
  int width, height, y_stride, uv_stride;
  std::vector<uint8_t> y, u, v;
  // The same bytes in all three planes, stride gaps included.
  bool operator==(const Planes& o) const { return y == o.y && u == o.u && v == o.v; }
};

// A frame encoded from a deterministic textured picture: `subsampling` is a TJSAMP_* value,
// `restart_rows` > 0 adds a restart interval of that many MCU rows.
std::vector<uint8_t> encodeTestFrame(int width, int height, int subsampling, int quality = 90,
                                     int restart_rows = 0, unsigned seed = 1);

// Removes every DHT segment in front of the first SOS marker.
std::vector<uint8_t> stripDHT(const std::vector<uint8_t>& frame);

// The offset of the first 0xFF `code` behind SOI (an encoder's headers hold no such byte pair
// but as a marker), or frame.size() when there is none.
size_t markerAt(const std::vector<uint8_t>& frame, uint8_t code);

// Concatenates frames (or any byte strings) into one stream, with `junk` between each two.
std::vector<uint8_t> concatFrames(const std::vector<std::vector<uint8_t>>& frames,
                                  const std::vector<uint8_t>& junk = {});

// The first `size` bytes as an exact-size copy, so that the sanitizers see any read past its end.
inline std::vector<uint8_t> head(const std::vector<uint8_t>& data, size_t size) {
  return std::vector<uint8_t>(data.begin(), data.begin() + size);
}

}  // namespace test
}  // namespace vidra
