// Routes the decoder library's log lines to the tool. The reasons the library gives for a
// frame it refuses (levels 2 and 3 on channel "mjpeg") are collected so that the tool can put
// them next to the frame; a broken internal check (level 1) goes to stderr at once.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace vidra {
namespace tool {

class LibraryLog {
 public:
  LibraryLog();
  ~LibraryLog();
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;

  // The collected lines since the last call, oldest first.
  std::vector<std::string> take();

  // Quiets the per-frame reasons altogether (for the benchmark, which decodes the same frames
  // over and over on several threads). Level-1 checks stay on.
  static void silenceFrameReasons();

 private:
  static void sink(void* user, int level, const char* channel, const char* file, int line,
                   const char* text);
  int mjpeg_level_;  // restored at the end
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace tool
}  // namespace vidra
