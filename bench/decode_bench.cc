// Decoding speed of whole camera frames, single thread: the library's own path
// (decompressMJPEG into I420 planes) against TurboJPEG called as a skilled user calls it:
// tjDecompressToYUVPlanes with TJFLAG_FASTDCT and explicit strides, straight into the caller's
// planes for 4:2:0 frames, and for 4:2:2 and 4:4:4 luma straight into the caller's plane and
// chroma through scratch planes and the library's box filter to 4:2:0.
//
// Inputs: the corpus folders webcam-480p and webcam-720p as they are, and frames that the
// benchmark makes from the webcam-720p frames with cjpeg (quality 75 to 95) at 720p and,
// scaled up, 1080p, in 4:2:0, 4:2:2 and 4:4:4 (gen-<size>-<layout>).
//
// The Interleaved benchmarks decode every frame with both decoders in turn, in the same loop,
// and report frames/s, megapixels/s and the speed ratio from the thread's CPU time; the Library and
// Turbo benchmarks time one decoder alone. The TurboJPEG handle is made once and reused.
//
//   decode_bench --benchmark_filter=Interleaved --benchmark_min_time=2

#include <benchmark/benchmark.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "jpeg.h"
#include "vidra/mjpeg.h"

namespace {

struct Corpus {
  std::string name;
  std::vector<std::vector<uint8_t>> frames;
  int width = 0, height = 0, subsampling = -1;
};

void readHeader(Corpus* corpus) {
  if (corpus->frames.empty()) return;
  tjhandle handle = tjInitDecompress();
  std::vector<uint8_t>& first = corpus->frames.front();
  int colorspace = 0;
  tjDecompressHeader3(handle, first.data(), static_cast<unsigned long>(first.size()),
                      &corpus->width, &corpus->height, &corpus->subsampling, &colorspace);
  tjDestroy(handle);
}

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

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
  for (const std::string& path : paths) corpus.frames.push_back(readFile(path));
  readHeader(&corpus);
  return corpus;
}

// Bilinear scaling of packed RGB, enough to make camera-like frames of another size.
std::vector<uint8_t> scaleRGB(const std::vector<uint8_t>& src, int sw, int sh, int dw, int dh) {
  std::vector<uint8_t> dst(static_cast<size_t>(dw) * dh * 3);
  for (int y = 0; y < dh; ++y) {
    const double fy = std::max(0.0, (y + 0.5) * sh / dh - 0.5);
    const int y0 = std::min(static_cast<int>(fy), sh - 1), y1 = std::min(y0 + 1, sh - 1);
    const double wy = fy - y0;
    for (int x = 0; x < dw; ++x) {
      const double fx = std::max(0.0, (x + 0.5) * sw / dw - 0.5);
      const int x0 = std::min(static_cast<int>(fx), sw - 1), x1 = std::min(x0 + 1, sw - 1);
      const double wx = fx - x0;
      for (int c = 0; c < 3; ++c) {
        auto at = [&](int yy, int xx) { return src[(static_cast<size_t>(yy) * sw + xx) * 3 + c]; };
        const double top = at(y0, x0) * (1 - wx) + at(y0, x1) * wx;
        const double bottom = at(y1, x0) * (1 - wx) + at(y1, x1) * wx;
        dst[(static_cast<size_t>(y) * dw + x) * 3 + c] =
            static_cast<uint8_t>(top * (1 - wy) + bottom * wy + 0.5);
      }
    }
  }
  return dst;
}

// The webcam-720p frames re-encoded by cjpeg at `height` (720 or 1080) with sampling factors
// `sample` ("2x2", "2x1", "1x1"), quality 75 to 95 across the frames. Empty when the corpus or
// cjpeg is missing.
Corpus generateCorpus(const std::string& name, int height, const char* sample) {
  Corpus corpus;
  corpus.name = name;
  const Corpus source = loadCorpus("webcam-720p");
  if (source.frames.empty() || std::system("cjpeg -version </dev/null >/dev/null 2>&1") != 0) {
    return corpus;
  }
  const int width = height * 16 / 9;
  char dir_template[] = "/tmp/decode_bench.XXXXXX";
  if (mkdtemp(dir_template) == nullptr) return corpus;
  const std::string dir = dir_template;
  tjhandle handle = tjInitDecompress();
  const size_t count = source.frames.size();
  for (size_t i = 0; i < count; ++i) {
    const std::vector<uint8_t>& frame = source.frames[i];
    std::vector<uint8_t> rgb(static_cast<size_t>(source.width) * source.height * 3);
    if (tjDecompress2(handle, frame.data(), static_cast<unsigned long>(frame.size()), rgb.data(),
                      source.width, 0, source.height, TJPF_RGB, 0) != 0) {
      continue;
    }
    if (width != source.width || height != source.height) {
      rgb = scaleRGB(rgb, source.width, source.height, width, height);
    }
    const std::string ppm = dir + "/in.ppm", jpg = dir + "/out.jpg";
    {
      std::ofstream out(ppm, std::ios::binary);
      out << "P6\n" << width << " " << height << "\n255\n";
      out.write(reinterpret_cast<const char*>(rgb.data()),
                static_cast<std::streamsize>(rgb.size()));
    }
    const int quality = 75 + static_cast<int>(20 * i / (count > 1 ? count - 1 : 1));
    const std::string command = "cjpeg -quality " + std::to_string(quality) + " -sample " + sample +
                                " -outfile " + jpg + " " + ppm;
    if (std::system(command.c_str()) == 0) corpus.frames.push_back(readFile(jpg));
    std::remove(ppm.c_str());
    std::remove(jpg.c_str());
  }
  tjDestroy(handle);
  std::filesystem::remove_all(dir);
  readHeader(&corpus);
  return corpus;
}

const Corpus& corpus(const std::string& name) {
  static std::map<std::string, Corpus> cache;
  auto found = cache.find(name);
  if (found != cache.end()) return found->second;
  Corpus c;
  if (name.rfind("gen-", 0) == 0) {
    // gen-<height>-<layout>
    const int height = std::stoi(name.substr(4));
    const std::string layout = name.substr(name.rfind('-') + 1);
    const char* sample = layout == "420" ? "2x2" : layout == "422" ? "2x1" : "1x1";
    c = generateCorpus(name, height, sample);
  } else {
    c = loadCorpus(name);
  }
  return cache.emplace(name, std::move(c)).first->second;
}

// The library: the frame into the caller's I420 planes (chroma rounds down).
class LibraryPath {
 public:
  LibraryPath(int width, int height, int /*subsampling*/)
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

// TurboJPEG at its best for this job: planar YUV with TJFLAG_FASTDCT and explicit strides.
// 4:2:0 frames go straight into the caller's planes (sized by tjPlaneWidth/tjPlaneHeight);
// for 4:2:2 and 4:4:4 luma goes straight into the caller's plane and chroma into scratch
// planes, which the library's box filter then brings to the caller's 4:2:0 planes.
class TurboPath {
 public:
  TurboPath(int width, int height, int subsampling)
      : width_(width),
        height_(height),
        subsampling_(subsampling),
        handle_(tjInitDecompress()),
        c_width_(tjPlaneWidth(1, width, subsampling)),
        c_height_(tjPlaneHeight(1, height, subsampling)),
        y_(static_cast<size_t>(width) * height) {
    const bool direct = subsampling == TJSAMP_420;
    out_width_ = direct ? c_width_ : width / 2;
    out_height_ = direct ? c_height_ : height / 2;
    u_.resize(static_cast<size_t>(out_width_) * out_height_);
    v_.resize(u_.size());
    if (!direct) {
      scratch_u_.resize(static_cast<size_t>(c_width_) * c_height_);
      scratch_v_.resize(scratch_u_.size());
    }
  }
  ~TurboPath() { tjDestroy(handle_); }
  TurboPath(const TurboPath&) = delete;
  TurboPath& operator=(const TurboPath&) = delete;

  bool decode(const std::vector<uint8_t>& frame) {
    const bool direct = subsampling_ == TJSAMP_420;
    unsigned char* planes[3] = {y_.data(), direct ? u_.data() : scratch_u_.data(),
                                direct ? v_.data() : scratch_v_.data()};
    int strides[3] = {width_, direct ? out_width_ : c_width_, direct ? out_width_ : c_width_};
    if (tjDecompressToYUVPlanes(handle_, frame.data(), static_cast<unsigned long>(frame.size()),
                                planes, width_, strides, height_, TJFLAG_FASTDCT) != 0) {
      return false;
    }
    switch (subsampling_) {
      case TJSAMP_420:
        return true;
      case TJSAMP_422:
        vidra::jpeg::resample422To420(planes[1], c_width_, u_.data(), out_width_, out_width_,
                                      out_height_);
        vidra::jpeg::resample422To420(planes[2], c_width_, v_.data(), out_width_, out_width_,
                                      out_height_);
        return true;
      case TJSAMP_444:
        vidra::jpeg::resample444To420(planes[1], c_width_, u_.data(), out_width_, out_width_,
                                      out_height_);
        vidra::jpeg::resample444To420(planes[2], c_width_, v_.data(), out_width_, out_width_,
                                      out_height_);
        return true;
      default:
        return false;
    }
  }

 private:
  int width_, height_, subsampling_;
  tjhandle handle_;
  int c_width_, c_height_;
  int out_width_ = 0, out_height_ = 0;
  std::vector<uint8_t> y_, u_, v_, scratch_u_, scratch_v_;
};

// The CPU time of the calling thread: on a machine shared with other work, time during which
// the thread was not running doesn't count against the decoder that happened to be running.
struct ThreadClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<ThreadClock>;
  static time_point now() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return time_point(duration(static_cast<rep>(t.tv_sec) * 1000000000 + t.tv_nsec));
  }
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
  Path path(c.width, c.height, c.subsampling);
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
  LibraryPath library(c.width, c.height, c.subsampling);
  TurboPath turbo(c.width, c.height, c.subsampling);
  using Clock = ThreadClock;
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

void BM_Library(benchmark::State& state, const std::string& folder) {
  BM_Path<LibraryPath>(state, folder);
}
void BM_Turbo(benchmark::State& state, const std::string& folder) {
  BM_Path<TurboPath>(state, folder);
}

const char* const kInputs[] = {"webcam-480p", "webcam-720p",  "gen-720-420",  "gen-720-422",
                               "gen-720-444", "gen-1080-420", "gen-1080-422", "gen-1080-444"};

}  // namespace

int main(int argc, char** argv) {
  for (const char* input : kInputs) {
    const std::string name = input;
    benchmark::RegisterBenchmark(("BM_Entropy/" + name).c_str(), BM_Entropy, name);
    benchmark::RegisterBenchmark(("BM_Interleaved/" + name).c_str(), BM_Interleaved, name);
    benchmark::RegisterBenchmark(("BM_InterleavedPasses/" + name).c_str(), BM_InterleavedPasses,
                                 name);
    benchmark::RegisterBenchmark(("BM_Library/" + name).c_str(), BM_Library, name);
    benchmark::RegisterBenchmark(("BM_Turbo/" + name).c_str(), BM_Turbo, name);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
