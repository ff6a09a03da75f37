// Decoding speed of whole camera frames, single thread: the library's own path
// (decompressMJPEG into I420 planes) against libjpeg-turbo's fastest comparable path,
// tjDecompressToYUV with TJFLAG_FASTDCT followed by the box filter to 4:2:0.
//
// The Interleaved benchmarks decode every frame with both paths in turn, in the same loop; the
// InterleavedPasses benchmarks alternate whole passes over the corpus. Both report frames/s,
// megapixels/s and the speed ratio; the Library and Turbo benchmarks time one path alone. The
// TurboJPEG handle is made once and reused, which favours TurboJPEG.
//
//   decode_bench --benchmark_filter=Interleaved --benchmark_min_time=2

#include <benchmark/benchmark.h>
#include <turbojpeg.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "jpeg.h"
#include "vidra/mjpeg.h"

namespace {

struct Corpus {
  std::string name;
  std::vector<std::vector<uint8_t>> frames;
  int width = 0, height = 0, subsampling = -1;
};

// All *.jpg frames of one corpus folder; empty when the folder is missing.
Corpus loadCorpus(const std::string& folder) {
  Corpus corpus;
  corpus.name = folder;
  const std::filesystem::path dir = std::filesystem::path(VIDRA_CORPUS_DIR) / folder;
  if (!std::filesystem::is_directory(dir)) return corpus;
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() == ".jpg") paths.push_back(entry.path().string());
  }
  std::sort(paths.begin(), paths.end());
  for (const std::string& path : paths) {
    std::ifstream in(path, std::ios::binary);
    corpus.frames.emplace_back(std::istreambuf_iterator<char>(in),
                               std::istreambuf_iterator<char>());
  }
  if (!corpus.frames.empty()) {
    tjhandle handle = tjInitDecompress();
    std::vector<uint8_t>& first = corpus.frames.front();
    int colorspace = 0;
    tjDecompressHeader3(handle, first.data(), static_cast<unsigned long>(first.size()),
                        &corpus.width, &corpus.height, &corpus.subsampling, &colorspace);
    tjDestroy(handle);
  }
  return corpus;
}

const Corpus& corpus(const std::string& folder) {
  static Corpus p480 = loadCorpus("webcam-480p");
  static Corpus p720 = loadCorpus("webcam-720p");
  return folder == "webcam-480p" ? p480 : p720;
}

// The library: the frame into the caller's I420 planes.
class LibraryPath {
 public:
  LibraryPath(int width, int height)
      : width_(width),
        height_(height),
        y_(static_cast<size_t>(width) * height),
        u_(static_cast<size_t>(width / 2) * (height / 2)),
        v_(u_.size()) {}

  bool decode(const std::vector<uint8_t>& frame) {
    return vidra::jpeg::decompressMJPEG(frame.data(), frame.size(), width_, height_, true,
                                        y_.data(), width_, u_.data(), width_ / 2, v_.data(),
                                        width_ / 2);
  }

 private:
  int width_, height_;
  std::vector<uint8_t> y_, u_, v_;
};

// TurboJPEG: planar YUV in the frame's own subsampling (one buffer, rows padded to 4 bytes),
// then both chroma planes brought to 4:2:0 with the library's box filter. Luma stays where
// TurboJPEG put it.
class TurboPath {
 public:
  TurboPath(int width, int height, int subsampling)
      : width_(width),
        height_(height),
        subsampling_(subsampling),
        handle_(tjInitDecompress()),
        buffer_(TJBUFSIZEYUV(width, height, subsampling)),
        u_(static_cast<size_t>(width / 2) * (height / 2)),
        v_(u_.size()) {}
  ~TurboPath() { tjDestroy(handle_); }
  TurboPath(const TurboPath&) = delete;
  TurboPath& operator=(const TurboPath&) = delete;

  bool decode(const std::vector<uint8_t>& frame) {
    if (tjDecompressToYUV(handle_, const_cast<uint8_t*>(frame.data()),
                          static_cast<unsigned long>(frame.size()), buffer_.data(),
                          TJFLAG_FASTDCT) != 0) {
      return false;
    }
    const auto pad4 = [](int n) { return (n + 3) & ~3; };
    const int y_stride = pad4(width_);
    const int c_width = tjPlaneWidth(1, width_, subsampling_);
    const int c_height = tjPlaneHeight(1, height_, subsampling_);
    const int c_stride = pad4(c_width);
    const uint8_t* u = buffer_.data() + static_cast<size_t>(y_stride) * height_;
    const uint8_t* v = u + static_cast<size_t>(c_stride) * c_height;
    const int w = width_ / 2, h = height_ / 2;
    switch (subsampling_) {
      case TJSAMP_422:
        vidra::jpeg::resample422To420(u, c_stride, u_.data(), w, w, h);
        vidra::jpeg::resample422To420(v, c_stride, v_.data(), w, w, h);
        return true;
      case TJSAMP_444:
        vidra::jpeg::resample444To420(u, c_stride, u_.data(), w, w, h);
        vidra::jpeg::resample444To420(v, c_stride, v_.data(), w, w, h);
        return true;
      case TJSAMP_420:
        return true;  // already 4:2:0
      default:
        return false;
    }
  }

 private:
  int width_, height_, subsampling_;
  tjhandle handle_;
  std::vector<uint8_t> buffer_;
  std::vector<uint8_t> u_, v_;
};

void setRates(benchmark::State& state, const Corpus& c, double frames, double seconds,
              const char* prefix) {
  const double pixels = static_cast<double>(c.width) * c.height;
  const std::string p = prefix;
  state.counters[p + "frames/s"] = frames / seconds;
  state.counters[p + "MP/s"] = frames * pixels / seconds / 1e6;
}

template <typename Path>
void BM_Path(benchmark::State& state, const std::string& folder) {
  const Corpus& c = corpus(folder);
  if (c.frames.empty()) {
    state.SkipWithError("corpus folder not found");
    return;
  }
  Path path = [&] {
    if constexpr (std::is_same_v<Path, TurboPath>) {
      return TurboPath(c.width, c.height, c.subsampling);
    } else {
      return LibraryPath(c.width, c.height);
    }
  }();
  size_t i = 0;
  for (auto _ : state) {
    if (!path.decode(c.frames[i])) {
      state.SkipWithError("a frame failed to decode");
      return;
    }
    if (++i == c.frames.size()) i = 0;
  }
  state.counters["frames/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["MP/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * c.width * c.height / 1e6,
                         benchmark::Counter::kIsRate);
}

// Both paths in turn under the same machine conditions. Each iteration decodes `step` frames
// with the library, then the same frames with TurboJPEG: one frame (Interleaved), or a whole
// pass over the corpus (InterleavedPasses), so that each path runs with the caches and branch
// history that decoding a stream with one decoder leaves, as in an application that uses one of
// them.
void interleaved(benchmark::State& state, const std::string& folder, bool whole_passes) {
  const Corpus& c = corpus(folder);
  if (c.frames.empty()) {
    state.SkipWithError("corpus folder not found");
    return;
  }
  LibraryPath library(c.width, c.height);
  TurboPath turbo(c.width, c.height, c.subsampling);
  using Clock = std::chrono::steady_clock;
  Clock::duration library_time{}, turbo_time{};
  const size_t count = c.frames.size();
  const size_t step = whole_passes ? count : 1;
  size_t first = 0;
  double frames = 0;
  for (auto _ : state) {
    bool ok = true;
    const Clock::time_point t0 = Clock::now();
    for (size_t i = 0; i < step; ++i) ok &= library.decode(c.frames[(first + i) % count]);
    const Clock::time_point t1 = Clock::now();
    for (size_t i = 0; i < step; ++i) ok &= turbo.decode(c.frames[(first + i) % count]);
    const Clock::time_point t2 = Clock::now();
    if (!ok) {
      state.SkipWithError("a frame failed to decode");
      return;
    }
    library_time += t1 - t0;
    turbo_time += t2 - t1;
    frames += static_cast<double>(step);
    first = (first + step) % count;
  }
  const double library_seconds = std::chrono::duration<double>(library_time).count();
  const double turbo_seconds = std::chrono::duration<double>(turbo_time).count();
  setRates(state, c, frames, library_seconds, "lib_");
  setRates(state, c, frames, turbo_seconds, "tj_");
  state.counters["ratio"] = turbo_seconds / library_seconds;
}

void BM_Interleaved(benchmark::State& state, const std::string& folder) {
  interleaved(state, folder, false);
}

void BM_InterleavedPasses(benchmark::State& state, const std::string& folder) {
  interleaved(state, folder, true);
}

// The entropy stage alone (de-stuffing, kernel, reconstruction into the decoder's planes), on
// decoders that have read their frame once; the numbers to watch when tuning the kernel.
void BM_Entropy(benchmark::State& state, const std::string& folder) {
  const Corpus& c = corpus(folder);
  if (c.frames.empty()) {
    state.SkipWithError("corpus folder not found");
    return;
  }
  struct Prepared {
    std::unique_ptr<vidra::jpeg::SimpleJPEGDecoder> decoder;
    const uint8_t* entropy;
    size_t length;
  };
  std::vector<Prepared> prepared;
  std::vector<uint8_t> y(static_cast<size_t>(c.width) * c.height), u(y.size() / 4), v(u.size());
  for (const std::vector<uint8_t>& frame : c.frames) {
    Prepared p{std::make_unique<vidra::jpeg::SimpleJPEGDecoder>(), nullptr, 0};
    p.decoder->decompress(frame.data(), frame.size(), c.width, c.height, true, y.data(), c.width,
                          u.data(), c.width / 2, v.data(), c.width / 2);
    // The entropy data starts behind the SOS segment.
    for (size_t i = 2; i + 3 < frame.size(); ++i) {
      if (frame[i] == 0xFF && frame[i + 1] == 0xDA) {
        const size_t start = i + 2 + ((frame[i + 2] << 8) | frame[i + 3]);
        p.entropy = frame.data() + start;
        p.length = frame.size() - start;
        break;
      }
    }
    prepared.push_back(std::move(p));
  }
  size_t i = 0;
  for (auto _ : state) {
    size_t consumed = 0;
    Prepared& p = prepared[i];
    p.decoder->decodeEntropyData(p.entropy, p.length, &consumed);
    if (++i == prepared.size()) i = 0;
  }
  state.counters["frames/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK_CAPTURE(BM_Entropy, 480p, std::string("webcam-480p"));
BENCHMARK_CAPTURE(BM_Entropy, 720p, std::string("webcam-720p"));
BENCHMARK_CAPTURE(BM_Interleaved, 480p, std::string("webcam-480p"));
BENCHMARK_CAPTURE(BM_Interleaved, 720p, std::string("webcam-720p"));
BENCHMARK_CAPTURE(BM_InterleavedPasses, 480p, std::string("webcam-480p"));
BENCHMARK_CAPTURE(BM_InterleavedPasses, 720p, std::string("webcam-720p"));
void BM_Library(benchmark::State& state, const std::string& folder) {
  BM_Path<LibraryPath>(state, folder);
}
void BM_Turbo(benchmark::State& state, const std::string& folder) {
  BM_Path<TurboPath>(state, folder);
}
BENCHMARK_CAPTURE(BM_Library, 480p, std::string("webcam-480p"));
BENCHMARK_CAPTURE(BM_Turbo, 480p, std::string("webcam-480p"));
BENCHMARK_CAPTURE(BM_Library, 720p, std::string("webcam-720p"));
BENCHMARK_CAPTURE(BM_Turbo, 720p, std::string("webcam-720p"));

}  // namespace

BENCHMARK_MAIN();
