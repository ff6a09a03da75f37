// A one-line progress bar on stderr, shown only when stderr is a terminal and the work has
// already taken a moment (short runs print nothing).
#pragma once

#include <chrono>
#include <cstdint>

namespace vidra {
namespace tool {

class ProgressBar {
 public:
  // `enabled` false (--verbose, --quiet) keeps it silent whatever stderr is.
  explicit ProgressBar(bool enabled);
  ~ProgressBar() { finish(); }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // `fraction` of the input is done (negative when the input's size is unknown: then no bar),
  // `frames` frames so far. Cheap: redraws at most ten times
  // a second, and not before half a second has passed.
  void update(double fraction, int64_t frames);
  // Clears the line.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;
  bool enabled_;
  bool drawn_ = false;
  Clock::time_point start_;
  Clock::time_point last_;
};

}  // namespace tool
}  // namespace vidra
