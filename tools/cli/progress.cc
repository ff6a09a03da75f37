#include "cli/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace vidra {
namespace tool {

ProgressBar::ProgressBar(bool enabled)
    : enabled_(enabled && isatty(STDERR_FILENO)), start_(Clock::now()), last_(start_) {}

void ProgressBar::update(double fraction, int64_t frames) {
  if (!enabled_) return;
  const Clock::time_point now = Clock::now();
  if (now - start_ < std::chrono::milliseconds(500)) return;
  if (drawn_ && now - last_ < std::chrono::milliseconds(100)) return;
  last_ = now;
  drawn_ = true;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  if (fraction < 0) {  // a stream of unknown size: frames only
    std::fprintf(stderr, "\r%lld frames  %.0f frames/s ", static_cast<long long>(frames),
                 frames / std::max(seconds, 1e-6));
    std::fflush(stderr);
    return;
  }
  fraction = std::min(1.0, fraction);
  constexpr int kWidth = 30;
  const int filled = static_cast<int>(fraction * kWidth + 0.5);
  std::string bar(static_cast<size_t>(filled), '#');
  bar.resize(kWidth, '.');
  std::fprintf(stderr, "\r[%s] %3d%%  %lld frames  %.0f frames/s ", bar.c_str(),
               static_cast<int>(fraction * 100), static_cast<long long>(frames),
               frames / std::max(seconds, 1e-6));
  std::fflush(stderr);
}

void ProgressBar::finish() {
  if (!drawn_) return;
  drawn_ = false;
  std::fprintf(stderr, "\r%*s\r", 72, "");
  std::fflush(stderr);
}

}  // namespace tool
}  // namespace vidra
