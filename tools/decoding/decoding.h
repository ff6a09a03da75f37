// One frame through the library's public entry points, with what the tool can tell about the
// result from outside.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "output/image.h"

namespace vidra {
namespace tool {

// What became of a frame. The library returns true for frames whose damaged MCUs it concealed
// (when more than 80% of the MCUs decoded cleanly): where its own decoder runs, the tool sees
// those through the decoder object and counts them as kConcealed, so kDecoded means clean.
// On the turbo path the tool can't tell, and every accepted frame is kDecoded. A false result
// comes in two kinds: written with concealment but too damaged (kFailed), or not written at
// all (kRefused).
enum class Outcome { kDecoded, kConcealed, kFailed, kRefused };

const char* outcomeName(Outcome outcome);

// Frames larger than this many pixels (8192 x 8192) are refused by the tool before decoding:
// a damaged header may claim up to 65535 x 65535, and the planes for that would take 6 GB.
constexpr int64_t kMaxFramePixels = int64_t{1} << 26;
inline bool frameSizeUsable(int width, int height) {
  return width > 0 && height > 0 && static_cast<int64_t>(width) * height <= kMaxFramePixels;
}

// Decodes `size` bytes at `data` into `image`, which the caller has sized from the frame's
// header (getJPEGImageSize). `insert_dht` is passed on to the library (the turbo path needs it
// for frames without Huffman tables). Completes the chroma of odd sizes. `seconds` receives
// the time spent inside the library's decoder.
Outcome decodeFrame(const uint8_t* data, size_t size, bool insert_dht, I420Image* image,
                    double* seconds);

// Which decoder the library will use with the force flag `turbo`, in words, following the
// library's own rule (force flag, else SSSE3 + SSE4.1 on this CPU).
std::string decoderPathName(bool turbo);
// True when the library's own decoder runs on this CPU (SSSE3 and SSE4.1 present, not masked).
bool ownDecoderAvailable();

}  // namespace tool
}  // namespace vidra
