// vidra-mjpeg bench: decoding speed of the library's two paths against libjpeg-turbo and
// FFmpeg, on the frames of each input (file or folder), on one or more threads.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_decoders.h"
#include "cli/cli.h"
#include "commands/commands.h"
#include "decoding/decoding.h"
#include "input/frame_reader.h"
#include "input/jpeg_headers.h"
#include "decoding/library_log.h"
#include "vidra/cpu_info.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace tool {

namespace {

constexpr char kBenchHelp[] =
    "Every frame of an input is held in memory and decoded over and over. The decoders take\n"
    "turns pass by pass, so that a change of clock speed affects them all alike:\n"
    "  vidra own decoder   decompressMJPEG, the library's own decoder (SSSE3/SSE4.1)\n"
    "  vidra turbo path    decompressMJPEG after setForceJPEGTurboDecoder(true)\n"
    "  libjpeg-turbo       tjDecompressToYUV with TJFLAG_FASTDCT, then the library's box\n"
    "                      filter (resample422To420 / resample444To420 / adaptStrides)\n"
    "  FFmpeg mjpeg        libavcodec's mjpeg decoder on one thread, then the same filter\n"
    "All of them deliver I420. With --threads N, N threads decode at once, each all frames of\n"
    "a pass, and the table shows the speed on 1 and on N threads and the scaling.\n"
    "\n"
    "Each INPUT is a file (JPEG, raw MJPEG, AVI/MKV/MOV) or a folder whose files are taken\n"
    "together; files in a folder that hold no JPEG are skipped.\n"
    "\n"
    "examples:\n"
    "  vidra-mjpeg bench ../shared/corpus/webcam-480p ../shared/corpus/webcam-720p\n"
    "  vidra-mjpeg bench camera.mjpeg --threads 4 --time 3\n"
    "\n"
    "exit status: 0 the library decoded every frame, 1 it returned false for some, 2 usage\n"
    "or I/O error.\n";

struct Group {
  std::string name;
  std::vector<BenchFrame> frames;
  double megapixels = 0;  // per pass
  std::map<std::string, int> layouts;
  int unreadable = 0;
  int skipped_files = 0;
};

// Adds the frames of `path` to `group`. In a folder (`quiet_skip`), files that hold no JPEG
// are counted and skipped; a file named on the command line must open.
void loadFile(const std::string& path, bool quiet_skip, Group* group) {
  std::unique_ptr<FrameReader> reader;
  try {
    reader = FrameReader::open(path);
  } catch (const ToolError&) {
    if (!quiet_skip) throw;
    ++group->skipped_files;
    return;
  }
  Frame frame;
  while (true) {
    try {
      if (!reader->next(&frame)) break;
    } catch (const ToolError& error) {
      std::fprintf(stderr, "vidra-mjpeg: %s\n", error.what());
      break;
    }
    int width = 0, height = 0;
    if (!jpeg::getJPEGImageSize(frame.data, frame.size, &width, &height) ||
        !frameSizeUsable(width, height)) {
      ++group->unreadable;
      continue;
    }
    const JPEGHeaderInfo header = readJPEGHeader(frame.data, frame.size);
    group->frames.push_back(makeBenchFrame(frame.data, frame.size, width, height, header.has_dht));
    group->megapixels += width * static_cast<double>(height) / 1e6;
    ++group->layouts[std::to_string(width) + "x" + std::to_string(height) + " " +
                     samplingName(header.components).substr(0, 5)];
  }
}

Group loadGroup(const std::string& input) {
  Group group;
  std::filesystem::path path(input);
  group.name =
      path.filename().empty() ? path.parent_path().filename().string() : path.filename().string();
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
      if (entry.is_regular_file()) files.push_back(entry.path().string());
    }
    if (error) throw ioError(input, "cannot list the folder", error.value());
    std::sort(files.begin(), files.end());
    for (const std::string& file : files) loadFile(file, true, &group);
  } else {
    loadFile(input, false, &group);
  }
  return group;
}

struct Measurement {
  double seconds = 0;
  int64_t frames = 0;  // decoded in `seconds`, over all threads
  int refused = 0;     // in the warm-up pass
};

// Runs one pass of `kind` on `decoders.size()` threads: each decodes every frame of the group
// once. Returns the wall time.
double runPass(DecoderKind kind, const Group& group,
               std::vector<std::unique_ptr<BenchDecoder>>& decoders, std::vector<I420Image>& images,
               int* refused) {
  if (isVidra(kind)) jpeg::setForceJPEGTurboDecoder(forcesTurbo(kind));
  std::vector<int> failures(decoders.size(), 0);
  auto work = [&](size_t thread) {
    for (const BenchFrame& frame : group.frames) {
      if (!decoders[thread]->decode(frame, &images[thread])) ++failures[thread];
    }
  };
  const auto start = std::chrono::steady_clock::now();
  if (decoders.size() == 1) {
    work(0);
  } else {
    std::vector<std::thread> threads;
    for (size_t t = 0; t < decoders.size(); ++t) threads.emplace_back(work, t);
    for (std::thread& thread : threads) thread.join();
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (refused != nullptr) *refused = failures[0];
  return seconds;
}

// Measures every decoder on `threads` threads for about `budget` seconds in all.
std::vector<Measurement> measure(const Group& group, const std::vector<DecoderKind>& kinds,
                                 int threads, double budget) {
  std::vector<std::vector<std::unique_ptr<BenchDecoder>>> decoders(kinds.size());
  std::vector<I420Image> images(threads);
  for (size_t d = 0; d < kinds.size(); ++d) {
    for (int t = 0; t < threads; ++t) decoders[d].push_back(makeBenchDecoder(kinds[d]));
  }
  std::vector<Measurement> results(kinds.size());
  // Warm-up pass: fills caches, counts refusals, and tells how many passes fit the budget.
  double warmup = 0;
  for (size_t d = 0; d < kinds.size(); ++d) {
    warmup += runPass(kinds[d], group, decoders[d], images, &results[d].refused);
  }
  const int rounds =
      static_cast<int>(std::min(100000.0, std::max(1.0, budget / std::max(warmup, 1e-9))));
  for (int round = 0; round < rounds; ++round) {
    for (size_t d = 0; d < kinds.size(); ++d) {
      results[d].seconds += runPass(kinds[d], group, decoders[d], images, nullptr);
      results[d].frames += static_cast<int64_t>(group.frames.size()) * threads;
    }
  }
  jpeg::setForceJPEGTurboDecoder(false);
  return results;
}

std::vector<DecoderKind> parseDecoders(const std::string& list) {
  std::vector<DecoderKind> kinds;
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find(',', start);
    if (end == std::string::npos) end = list.size();
    const std::string name = list.substr(start, end - start);
    if (name == "own")
      kinds.push_back(DecoderKind::kVidraOwn);
    else if (name == "turbo")
      kinds.push_back(DecoderKind::kVidraTurbo);
    else if (name == "libjpeg-turbo" || name == "tj")
      kinds.push_back(DecoderKind::kLibjpegTurbo);
    else if (name == "ffmpeg")
      kinds.push_back(DecoderKind::kFFmpeg);
    else
      throw UsageError("--decoders: unknown decoder '" + name +
                       "' (own, turbo, libjpeg-turbo, ffmpeg)");
    start = end + 1;
  }
  return kinds;
}

std::string layoutText(const Group& group) {
  if (group.layouts.size() == 1) return group.layouts.begin()->first;
  return std::to_string(group.layouts.size()) + " layouts";
}

}  // namespace

int runBench(int argc, char** argv, int first) {
  ArgParser args("bench", "bench INPUT|DIR... [options]",
                 "Measures decoding speed: the library's own decoder and its turbo path against\n"
                 "libjpeg-turbo and FFmpeg, per input.");
  args.option("threads", 'j', "N", "also decode on N threads at once and show the scaling");
  args.option("time", 't', "SECONDS", "measuring time per input and thread count", "1");
  args.option("decoders", 'd', "LIST",
              "comma-separated subset of own, turbo, libjpeg-turbo, ffmpeg", "all four");
  args.epilog(kBenchHelp);
  if (!args.parse(argc, argv, first)) return kExitOk;
  if (args.positional().empty()) throw UsageError("bench needs at least one INPUT file or folder");
  const int threads = static_cast<int>(args.integer("threads", 1, 1, 256));
  const double budget = args.number("time", 1.0, 0.0, 3600.0);
  const std::vector<DecoderKind> kinds =
      args.has("decoders")
          ? parseDecoders(args.value("decoders"))
          : std::vector<DecoderKind>{DecoderKind::kVidraOwn, DecoderKind::kVidraTurbo,
                                     DecoderKind::kLibjpegTurbo, DecoderKind::kFFmpeg};
  setFFmpegLogging(false);
  LibraryLog::silenceFrameReasons();

  std::vector<Group> groups;
  for (const std::string& input : args.positional()) {
    groups.push_back(loadGroup(input));
    const Group& group = groups.back();
    if (group.frames.empty()) {
      throw ToolError(kExitUsage, input + ": no JPEG frame with a readable header in it");
    }
  }

  const CPUInfo cpu;
  std::printf("CPU: %s%s\n", cpu.brand().empty() ? "unknown" : cpu.brand().c_str(),
              ownDecoderAvailable()
                  ? ""
                  : "\nnote: SSSE3/SSE4.1 are missing or masked, so 'vidra own decoder' runs "
                    "the library's turbo path too");
  std::vector<int> thread_counts{1};
  if (threads > 1) thread_counts.push_back(threads);
  const auto reference =
      std::find(kinds.begin(), kinds.end(), DecoderKind::kLibjpegTurbo) - kinds.begin();
  bool vidra_refused = false;
  for (const Group& group : groups) {
    std::printf("\n%s: %zu frames, %s, %.1f MP per pass", group.name.c_str(), group.frames.size(),
                layoutText(group).c_str(), group.megapixels);
    if (group.unreadable)
      std::printf(", %d frames with unreadable or oversized headers left out", group.unreadable);
    if (group.skipped_files) std::printf(", %d files without JPEG skipped", group.skipped_files);
    std::printf("\n  %-18s %7s %10s %9s %16s %8s %8s\n", "decoder", "threads", "frames/s", "MP/s",
                "vs libjpeg-turbo", "scaling", "refused");
    std::vector<std::vector<Measurement>> results;
    for (int count : thread_counts) results.push_back(measure(group, kinds, count, budget));
    for (size_t d = 0; d < kinds.size(); ++d) {
      for (size_t c = 0; c < thread_counts.size(); ++c) {
        const Measurement& m = results[c][d];
        const double fps = m.seconds > 0 ? m.frames / m.seconds : 0;
        const double mps =
            m.seconds > 0 ? m.frames * group.megapixels / group.frames.size() / m.seconds : 0;
        char ratio[32] = "", scaling[32] = "", refused[32] = "";
        if (reference < static_cast<long>(kinds.size())) {
          const Measurement& r = results[c][reference];
          if (r.seconds > 0 && r.frames > 0 && m.seconds > 0) {
            std::snprintf(ratio, sizeof(ratio), "%.2fx", fps / (r.frames / r.seconds));
          }
        }
        if (c > 0 && results[0][d].seconds > 0 && results[0][d].frames > 0) {
          std::snprintf(scaling, sizeof(scaling), "%.2fx",
                        fps / (results[0][d].frames / results[0][d].seconds));
        }
        if (c == 0 && m.refused) {
          std::snprintf(refused, sizeof(refused), "%d/%zu", m.refused, group.frames.size());
          if (isVidra(kinds[d])) vidra_refused = true;
        }
        char row[160];
        std::snprintf(row, sizeof(row), "  %-18s %7d %10.1f %9.1f %16s %8s %8s",
                      c == 0 ? decoderName(kinds[d]) : "", thread_counts[c], fps, mps, ratio,
                      scaling, refused);
        std::string line = row;
        line.erase(line.find_last_not_of(' ') + 1);
        std::printf("%s\n", line.c_str());
      }
    }
    std::fflush(stdout);
  }
  if (vidra_refused) {
    std::fprintf(stderr,
                 "vidra-mjpeg: the library returned false for some frames (column 'refused'); "
                 "its speed includes those calls\n");
  }
  return vidra_refused ? kExitFrames : kExitOk;
}

}  // namespace tool
}  // namespace vidra
