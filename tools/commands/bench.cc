// vidra-mjpeg bench: decoding speed of the library's two paths against libjpeg-turbo and
// FFmpeg, on the frames of each input (file or folder), on one or more threads.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
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
#include "vidra/mjpeg.h"

namespace vidra {
namespace tool {

namespace {

// The processor's name from /proc/cpuinfo ("model name", or aarch64's absent one), else
// "unknown".
std::string cpuModelName() {
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    if (line.rfind("model name", 0) != 0) continue;
    const size_t colon = line.find(':');
    if (colon != std::string::npos && colon + 2 <= line.size()) return line.substr(colon + 2);
  }
  return "unknown";
}

constexpr char kBenchHelp[] =
    "Every frame of an input is held in memory and decoded over and over. The decoders take\n"
    "turns pass by pass, so that a change of clock speed affects them all alike:\n"
    "  vidra own decoder   decodeFrame on the library's own decoder; the frames it refuses as\n"
    "                      unsupported go to its TurboJPEG fallback (column 'fallback') unless\n"
    "                      --no-fallback is given\n"
    "  vidra turbo path    decodeFrame on the library's TurboJPEG path\n"
    "  libjpeg-turbo       tjDecompressToYUVPlanes with TJFLAG_FASTDCT, 4:2:0 straight into\n"
    "                      the I420 planes, 4:2:2 / 4:4:4 through the library's box filter\n"
    "  FFmpeg mjpeg        libavcodec's mjpeg decoder on one thread, then the same filter\n"
    "All of them deliver I420. Speed counts the frames a decoder decoded: the ones it refused\n"
    "in the first pass are left out of its timed passes, and a decoder that decoded none gets\n"
    "no figure. With --threads N, N threads decode at once, each all frames of a pass, and the\n"
    "table shows the speed on 1 and on N threads and the scaling.\n"
    "\n"
    "Each INPUT is a file (JPEG, raw MJPEG, AVI/MKV/MOV) or a folder whose files are taken\n"
    "together; files in a folder that hold no JPEG are skipped.\n"
    "\n"
    "examples:\n"
    "  vidra-mjpeg bench ../shared/corpus/webcam-480p ../shared/corpus/webcam-720p\n"
    "  vidra-mjpeg bench camera.mjpeg --threads 4 --time 3\n"
    "\n"
    "exit status: 0 the library decoded every frame, 1 it refused some, 2 usage or I/O error.\n";

struct Group {
  std::string name;
  std::vector<BenchFrame> frames;
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
  std::string read_error;
  for (Frame frame; reader->nextOrStop(&frame, &read_error);) {
    jpeg::FrameHeader header;
    jpeg::readFrameHeader(frame.data, frame.size, &header);
    if (!header.has_scan || !frameSizeUsable(header.width, header.height)) {
      ++group->unreadable;
      continue;
    }
    group->frames.push_back(
        makeBenchFrame(frame.data, frame.size, header.width, header.height, header.has_dht));
    ++group->layouts[std::to_string(header.width) + "x" + std::to_string(header.height) + " " +
                     layoutName(header)];
  }
  if (!read_error.empty()) std::fprintf(stderr, "vidra-mjpeg: %s\n", read_error.c_str());
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

// One decoder on one thread count.
struct Measurement {
  std::vector<size_t> decoded;  // the frames it decoded in the first pass: the ones timed
  int refused = 0, fallback = 0;
  double seconds = 0;
  double frames = 0, megapixels = 0;  // decoded in `seconds`, over all threads
  bool speed(double* fps, double* mps) const {
    if (frames <= 0 || seconds <= 0) return false;
    *fps = frames / seconds;
    *mps = megapixels / seconds;
    return true;
  }
};

// Runs `work(thread)` on `threads` threads at once; returns the wall time.
template <typename Work>
double timed(size_t threads, const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  if (threads == 1) {
    work(0);
  } else {
    std::vector<std::thread> running;
    for (size_t t = 0; t < threads; ++t) running.emplace_back(work, t);
    for (std::thread& thread : running) thread.join();
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Measures every decoder on `threads` threads for about `budget` seconds in all.
std::vector<Measurement> measure(const Group& group, const std::vector<DecoderKind>& kinds,
                                 bool fallback, int threads, double budget) {
  std::vector<std::vector<std::unique_ptr<BenchDecoder>>> decoders(kinds.size());
  std::vector<I420Image> images(threads);
  for (size_t d = 0; d < kinds.size(); ++d) {
    for (int t = 0; t < threads; ++t) decoders[d].push_back(makeBenchDecoder(kinds[d], fallback));
  }
  std::vector<Measurement> results(kinds.size());
  // First pass, on one thread: fills caches, sorts out what each decoder decodes, and tells
  // how many passes fit the budget.
  double first = 0;
  for (size_t d = 0; d < kinds.size(); ++d) {
    Measurement& m = results[d];
    first += timed(1, [&](size_t) {
      for (size_t i = 0; i < group.frames.size(); ++i) {
        const BenchResult result = decoders[d][0]->decode(group.frames[i], &images[0]);
        if (result == BenchResult::kRefused) {
          ++m.refused;
        } else {
          m.fallback += result == BenchResult::kFallback;
          m.decoded.push_back(i);
        }
      }
    });
  }
  const int rounds =
      static_cast<int>(std::min(100000.0, std::max(1.0, budget / std::max(first, 1e-9))));
  for (int round = 0; round < rounds; ++round) {
    for (size_t d = 0; d < kinds.size(); ++d) {
      Measurement& m = results[d];
      if (m.decoded.empty()) continue;
      m.seconds += timed(threads, [&](size_t t) {
        for (size_t i : m.decoded) decoders[d][t]->decode(group.frames[i], &images[t]);
      });
      for (size_t i : m.decoded) {
        m.frames += threads;
        m.megapixels += threads * (group.frames[i].width * double(group.frames[i].height) / 1e6);
      }
    }
  }
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

// Prints one group's table; returns true when a vidra decoder refused some of its frames.
bool printGroup(const Group& group, const std::vector<DecoderKind>& kinds, bool fallback,
                const std::vector<int>& thread_counts, double budget) {
  double megapixels = 0;
  for (const BenchFrame& frame : group.frames) megapixels += frame.width * double(frame.height);
  std::printf("\n%s: %zu frames, %s, %.1f MP per pass", group.name.c_str(), group.frames.size(),
              layoutText(group).c_str(), megapixels / 1e6);
  if (group.unreadable)
    std::printf(", %d frames with unreadable or oversized headers left out", group.unreadable);
  if (group.skipped_files) std::printf(", %d files without JPEG skipped", group.skipped_files);
  std::printf("\n  %-18s %7s %10s %9s %16s %8s %8s %8s\n", "decoder", "threads", "frames/s", "MP/s",
              "vs libjpeg-turbo", "scaling", "refused", "fallback");
  std::vector<std::vector<Measurement>> results;
  for (int count : thread_counts) results.push_back(measure(group, kinds, fallback, count, budget));
  const size_t reference =
      std::find(kinds.begin(), kinds.end(), DecoderKind::kLibjpegTurbo) - kinds.begin();
  bool vidra_refused = false;
  for (size_t d = 0; d < kinds.size(); ++d) {
    for (size_t c = 0; c < thread_counts.size(); ++c) {
      const Measurement& m = results[c][d];
      double fps = 0, mps = 0, ref_fps = 0, ref_mps = 0, one_fps = 0, one_mps = 0;
      const bool has_speed = m.speed(&fps, &mps);
      char speed[32] = "-", rate[32] = "-", ratio[32] = "", scaling[32] = "", refused[32] = "",
           fallbacks[32] = "";
      if (has_speed) {
        std::snprintf(speed, sizeof(speed), "%.1f", fps);
        std::snprintf(rate, sizeof(rate), "%.1f", mps);
      }
      // MP/s, as two decoders may have decoded different frames.
      if (has_speed && reference < kinds.size() && results[c][reference].speed(&ref_fps, &ref_mps))
        std::snprintf(ratio, sizeof(ratio), "%.2fx", mps / ref_mps);
      if (has_speed && c > 0 && results[0][d].speed(&one_fps, &one_mps))
        std::snprintf(scaling, sizeof(scaling), "%.2fx", fps / one_fps);
      if (c == 0 && m.refused) {
        std::snprintf(refused, sizeof(refused), "%d/%zu", m.refused, group.frames.size());
        vidra_refused = vidra_refused || isVidra(kinds[d]);
      }
      if (c == 0 && m.fallback)
        std::snprintf(fallbacks, sizeof(fallbacks), "%d/%zu", m.fallback, group.frames.size());
      char row[512];
      std::snprintf(row, sizeof(row), "  %-18s %7d %10s %9s %16s %8s %8s %8s",
                    c == 0 ? decoderName(kinds[d]) : "", thread_counts[c], speed, rate, ratio,
                    scaling, refused, fallbacks);
      std::string line = row;
      line.erase(line.find_last_not_of(' ') + 1);
      std::printf("%s\n", line.c_str());
    }
  }
  std::fflush(stdout);
  return vidra_refused;
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
  args.flag("no-fallback", 0, "the own decoder without its TurboJPEG fallback");
  args.epilog(kBenchHelp);
  if (!args.parse(argc, argv, first)) return kExitOk;
  if (args.positional().empty()) throw UsageError("bench needs at least one INPUT file or folder");
  const int threads = static_cast<int>(args.integer("threads", 1, 1, 256));
  const double budget = args.number("time", 1.0, 0.0, 3600.0);
  const bool fallback = !args.has("no-fallback");
  const std::vector<DecoderKind> kinds =
      args.has("decoders")
          ? parseDecoders(args.value("decoders"))
          : std::vector<DecoderKind>{DecoderKind::kVidraOwn, DecoderKind::kVidraTurbo,
                                     DecoderKind::kLibjpegTurbo, DecoderKind::kFFmpeg};
  setFFmpegLogging(false);
  quietLibraryLog();

  std::vector<Group> groups;
  for (const std::string& input : args.positional()) {
    groups.push_back(loadGroup(input));
    if (groups.back().frames.empty()) {
      throw ToolError(kExitUsage, input + ": no JPEG frame with a readable header in it");
    }
  }

  const bool vector = std::strcmp(jpeg::vectorLevel(), "none") != 0;
  std::printf("CPU: %s, vector forms: %s%s\n", cpuModelName().c_str(), jpeg::vectorLevel(),
              vector ? ""
                     : "\nnote: no vector forms here (SSSE3/SSE4.1 or NEON missing or masked), so "
                       "'vidra own decoder' runs its scalar forms");
  std::vector<int> thread_counts{1};
  if (threads > 1) thread_counts.push_back(threads);
  bool vidra_refused = false;
  for (const Group& group : groups) {
    vidra_refused = printGroup(group, kinds, fallback, thread_counts, budget) || vidra_refused;
  }
  if (vidra_refused) {
    std::fprintf(stderr,
                 "vidra-mjpeg: the library refused some frames (column 'refused'); its speed "
                 "counts only the frames it decoded\n");
  }
  return vidra_refused ? kExitFrames : kExitOk;
}

}  // namespace tool
}  // namespace vidra
