#include "decoding/library_log.h"

#include <cstdio>

#include "vidra/log.h"

namespace vidra {
namespace tool {

// Level 3 of "mjpeg" holds the one other reason the library gives for a refused frame,
// "Unhandled JPEG marker" (a progressive or arithmetic-coded frame); levels 6 and up are its
// trace ("Using simple jpeg decoder.", every marker) and stay off.
LibraryLog::LibraryLog() : mjpeg_level_(loggerLevel("mjpeg")) {
  setLoggerLevel("mjpeg", 3);
  setLogSink(&LibraryLog::sink, this);
}

LibraryLog::~LibraryLog() {
  setLogSink(nullptr, nullptr);
  setLoggerLevel("mjpeg", mjpeg_level_);
}

std::vector<std::string> LibraryLog::take() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> lines;
  lines.swap(lines_);
  return lines;
}

void LibraryLog::silenceFrameReasons() { setLoggerLevel("mjpeg", 0); }

void LibraryLog::sink(void* user, int level, const char* channel, const char*, int,
                      const char* text) {
  if (level <= 1) {
    std::fprintf(stderr, "vidra-mjpeg: library check failed (%s): %s\n", channel, text);
    return;
  }
  auto* log = static_cast<LibraryLog*>(user);
  std::lock_guard<std::mutex> lock(log->mutex_);
  // A pathological frame can't make the tool hoard lines: keep the first few per frame.
  if (log->lines_.size() < 16) log->lines_.push_back(text);
}

}  // namespace tool
}  // namespace vidra
