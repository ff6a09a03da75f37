// The picture that stands in for a frame without one of its own (refused, or of another size
// than the output), so that an output keeps the input's timing.
#pragma once

#include "output/image.h"

namespace vidra {
namespace tool {

class StandIn {
 public:
  // `picture` becomes the stand-in (taken over by swapping; `picture` holds junk afterwards).
  void take(I420Image* picture) { std::swap(last_, *picture); }
  // The last picture when it is `width` x `height`, else grey (luma 0x80) of that size.
  const I420Image& get(int width, int height) {
    if (last_.width != width || last_.height != height) {
      last_.resize(width, height);
      last_.fill(0x80);
    }
    return last_;
  }

 private:
  I420Image last_;
};

}  // namespace tool
}  // namespace vidra
