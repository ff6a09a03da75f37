// The decoders the benchmark compares, behind one interface: the library's own decoder, its
// TurboJPEG path, libjpeg-turbo called directly, and FFmpeg's mjpeg decoder. Every one of them
// delivers I420 at the frame's size, so they do the same work.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "output/image.h"

namespace vidra {
namespace tool {

// A frame held in memory for repeated decoding.
struct BenchFrame {
  std::vector<uint8_t> bytes;  // the frame, then zero padding (FFmpeg's parsers read ahead)
  size_t size = 0;             // bytes of the frame itself
  int width = 0;
  int height = 0;
  bool has_dht = false;
};

// Copies `size` bytes into a BenchFrame with the padding FFmpeg asks for.
BenchFrame makeBenchFrame(const uint8_t* data, size_t size, int width, int height, bool has_dht);

enum class DecoderKind { kVidraOwn, kVidraTurbo, kLibjpegTurbo, kFFmpeg };

const char* decoderName(DecoderKind kind);
// The library's force flag that a pass of this decoder needs; the benchmark sets it before
// the pass, for all threads at once.
bool forcesTurbo(DecoderKind kind);
bool isVidra(DecoderKind kind);

// One decoder instance: not thread-safe, one per thread.
class BenchDecoder {
 public:
  virtual ~BenchDecoder() = default;
  // Decodes `frame` into `out` (resized to the frame). False when the decoder refused it.
  virtual bool decode(const BenchFrame& frame, I420Image* out) = 0;
};

std::unique_ptr<BenchDecoder> makeBenchDecoder(DecoderKind kind);

}  // namespace tool
}  // namespace vidra
