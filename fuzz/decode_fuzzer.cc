// Feeds arbitrary bytes to both decoder paths, the size query, the reporting entry point and
// the header reader.
//
// The input is copied into a heap buffer of exactly its size, so that a read one byte past the
// end is caught, and the planes are as large as the frame claims (capped, so that a hostile
// header can't make the fuzzer itself allocate gigabytes).
//
//   cmake --preset fuzz && cmake --build --preset fuzz
//   ./build/fuzz/fuzz/decode_fuzzer -max_total_time=1800 corpus-dir/

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "vidra/log.h"
#include "vidra/mjpeg.h"

namespace {

constexpr int kMaxPixels = 4096 * 4096;

void quietLogs(void*, int, const char*, const char*, int, const char*) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool init = [] {
    vidra::setLogSink(quietLogs, nullptr);
    return true;
  }();
  (void)init;

  std::unique_ptr<uint8_t[]> frame(new uint8_t[size]);
  if (size > 0) std::memcpy(frame.get(), data, size);

  int width = 0, height = 0;
  if (!vidra::jpeg::getJPEGImageSize(frame.get(), size, &width, &height)) {
    // Still run the library's own decoder on a plausible size: it parses by itself.
    width = 64;
    height = 48;
  }
  if (width <= 0 || height <= 0 || static_cast<int64_t>(width) * height > kMaxPixels) return 0;

  const size_t luma = static_cast<size_t>(width) * height;
  const size_t chroma = static_cast<size_t>(width / 2) * (height / 2);
  std::vector<uint8_t> y(luma), u(chroma + 1), v(chroma + 1);
  for (bool force_turbo : {false, true}) {
    for (bool insert_dht : {false, true}) {
      vidra::jpeg::setForceJPEGTurboDecoder(force_turbo);
      vidra::jpeg::decompressMJPEG(frame.get(), size, width, height, insert_dht, y.data(), width,
                                   u.data(), width / 2, v.data(), width / 2);
    }
  }
  vidra::jpeg::setForceJPEGTurboDecoder(false);

  // The reporting entry point on each decoder, with and without the fallback, and the header
  // reader.
  vidra::jpeg::FrameHeader header;
  vidra::jpeg::readFrameHeader(frame.get(), size, &header);
  for (auto decoder : {vidra::jpeg::Decoder::kOwn, vidra::jpeg::Decoder::kTurbo}) {
    for (bool fallback : {false, true}) {
      if (decoder == vidra::jpeg::Decoder::kTurbo && fallback) continue;
      vidra::jpeg::DecodeOptions options;
      options.decoder = decoder;
      options.fallback = fallback;
      vidra::jpeg::FrameReport report;
      vidra::jpeg::decodeFrame(frame.get(), size, width, height, y.data(), width, u.data(),
                               width / 2, v.data(), width / 2, options, &report);
    }
  }
  // Planes that the arguments check must refuse: missing chroma, a stride shorter than a row.
  vidra::jpeg::FrameReport report;
  vidra::jpeg::decodeFrame(frame.get(), size, width, height, y.data(), width, nullptr, 8, nullptr,
                           8, vidra::jpeg::DecodeOptions(), &report);
  vidra::jpeg::decodeFrame(frame.get(), size, width, height, y.data(), width - 1, u.data(),
                           width / 2, v.data(), width / 2, vidra::jpeg::DecodeOptions(), &report);
  return 0;
}
