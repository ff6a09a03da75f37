// One frame through the library's reporting entry point (vidra::jpeg::decodeFrame), and the
// tally of what became of the frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "output/image.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace tool {

// What became of a frame, as the library reports it: kDecoded clean, kConcealed with damaged
// MCUs concealed (more than 80% decoded cleanly), kFailed written with concealment but too
// damaged, kRefused not written at all. Only the library's own decoder tells concealed frames
// from clean ones; the TurboJPEG path reports every frame it accepts as clean.
enum class Outcome { kDecoded, kConcealed, kFailed, kRefused };

const char* outcomeName(Outcome outcome);

// Frames larger than this many pixels (8192 x 8192) are refused by the tool before decoding:
// a damaged header may claim up to 65535 x 65535, and the planes for that would take 6 GB.
constexpr int64_t kMaxFramePixels = int64_t{1} << 26;
inline bool frameSizeUsable(int width, int height) {
  return width > 0 && height > 0 && static_cast<int64_t>(width) * height <= kMaxFramePixels;
}

// Which decoder the tool asks for.
struct DecoderChoice {
  bool turbo = false;    // the TurboJPEG path for every frame (--turbo)
  bool fallback = true;  // TurboJPEG for frames the own decoder refuses as unsupported
};

struct FrameResult {
  Outcome outcome = Outcome::kRefused;
  jpeg::DecodePath path = jpeg::DecodePath::kNone;  // which decoder wrote the planes
  bool fallback = false;     // path kTurboFallback: TurboJPEG after the own decoder refused
  jpeg::FrameHeader header;  // as read from the frame
  bool sized = false;        // the header gives a size
  std::string reason;        // why it was refused or failed; empty otherwise
  double seconds = 0;        // time inside the library (0 when refused before it)
  int32_t valid_mcus = 0, total_mcus = 0;  // own decoder only
};

// Reads the frame's header, sizes `image` to it and decodes the frame into it, chroma of odd
// sizes completed. Sizes the header doesn't give, or above kMaxFramePixels, are refused by the
// tool without calling the decoder.
FrameResult decodeFrame(const uint8_t* data, size_t size, const DecoderChoice& choice,
                        I420Image* image);

// "4:2:2 (2x1,1x1,1x1)", "grey (1x1)", ... for the frame header's layout; "" without components.
std::string layoutName(const jpeg::FrameHeader& header);

// Counts outcomes, and the time and pixels of the frames a decoder decoded: refused frames don't
// count towards speed (a damaged header may claim 8192x8192 and be refused in microseconds).
struct OutcomeTally {
  int64_t decoded = 0, concealed = 0, failed = 0, refused = 0;
  // Of decoded, concealed and failed: by the TurboJPEG path (asked for, or the library's choice
  // on a CPU without SIMD), and by the TurboJPEG fallback.
  int64_t turbo = 0, fallback = 0;
  int64_t timed = 0;  // frames behind `seconds`
  double seconds = 0, pixels = 0;

  void add(const FrameResult& result);
  int64_t frames() const { return decoded + concealed + failed + refused; }
  // Frames per second and megapixels per second of the timed frames; false without any.
  bool speed(double* fps, double* mps) const;
  // The decoders behind the timed frames: "the library's own decoder", "... TurboJPEG path",
  // "... TurboJPEG fallback", or "the library (N own decoder, M TurboJPEG fallback)".
  std::string decodersText() const;
};

// "own", "turbo", "fallback" for a frame that was decoded, "refused" for one that wasn't.
const char* decoderName(const FrameResult& result);

// True when the library's own decoder runs on this CPU with SIMD (SSSE3 and SSE4.1, not masked).
bool ownDecoderFast();

// The library's per-frame log lines go quiet (the reports carry the reasons); a broken internal
// check (level 1) still goes to stderr, prefixed with the tool's name.
void quietLibraryLog();

}  // namespace tool
}  // namespace vidra
