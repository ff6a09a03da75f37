// The decoders the benchmark compares, behind one interface: the library's own decoder (with
// its TurboJPEG fallback unless that is off), its TurboJPEG path, libjpeg-turbo called directly,
// and FFmpeg's mjpeg decoder. Every one of them delivers I420 at the frame's size, so they do
// the same work.
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
bool isVidra(DecoderKind kind);

enum class BenchResult {
  kRefused,   // no picture
  kDecoded,   // a picture (clean, concealed or failed: the work was done)
  kFallback,  // a picture from the library's TurboJPEG fallback
};

// One decoder instance: not thread-safe, one per thread.
class BenchDecoder {
 public:
  virtual ~BenchDecoder() = default;
  // Decodes `frame` into `out` (resized to the frame).
  virtual BenchResult decode(const BenchFrame& frame, I420Image* out) = 0;
};

// `fallback`: the own decoder hands the frames it refuses as unsupported to TurboJPEG.
std::unique_ptr<BenchDecoder> makeBenchDecoder(DecoderKind kind, bool fallback);

}  // namespace tool
}  // namespace vidra
