// vidra-mjpeg demo: needs no files. Renders a moving scene, encodes it as a webcam would,
// damages some frames as a flaky USB link does, decodes everything with the library's own
// decoder and its turbo path, and writes the result as demo.y4m and demo-contact.png.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "cli/cli.h"
#include "commands/commands.h"
#include "demo/contact_sheet.h"
#include "demo/damage.h"
#include "decoding/decoding.h"
#include "demo/demo_scene.h"
#include "decoding/library_log.h"
#include "output/png_writer.h"
#include "vidra/mjpeg.h"
#include "demo/webcam_encoder.h"
#include "output/video_writer.h"

namespace vidra {
namespace tool {

namespace {

constexpr char kDemoHelp[] =
    "The clip is encoded as USB webcams send MJPEG: 4:2:2, quality 90, an AVI1 APP0 segment,\n"
    "a restart marker after every MCU row and no DHT segment. A few frames are then damaged:\n"
    "bits flipped in the entropy data, frames cut off, junk bytes before restart markers.\n"
    "Every frame goes through both decoder paths of the library; demo.y4m holds the output\n"
    "of its own decoder (play it with ffplay or mpv), demo-contact.png shows every frame as a\n"
    "thumbnail: grey border = clean frame, orange = frame the decoder accepted with damaged\n"
    "MCUs concealed (look for smeared bands), red = the decoder returned false (a cross: no\n"
    "picture at all). Where the CPU lacks the own decoder, orange marks the damaged frames\n"
    "the turbo path accepted.\n"
    "\n"
    "examples:\n"
    "  vidra-mjpeg demo\n"
    "  vidra-mjpeg demo --frames 120 --size 1920x1080 --out-dir /tmp\n"
    "\n"
    "exit status: 0 the demo ran and every undamaged frame decoded, 1 an undamaged frame failed,\n"
    "2 usage or I/O error.\n";

enum class DamageKind { kBitFlips, kCutOff, kJunk };

struct DamagePlan {
  int frame;  // of a 60-frame clip; scaled to the clip's length
  DamageKind kind;
  int amount;       // bits, or restart markers
  double fraction;  // kCutOff: share of the entropy data kept
};

constexpr DamagePlan kPlan[] = {
    {7, DamageKind::kBitFlips, 2, 0},   {13, DamageKind::kJunk, 6, 0},
    {19, DamageKind::kBitFlips, 6, 0},  {26, DamageKind::kCutOff, 0, 0.55},
    {33, DamageKind::kBitFlips, 40, 0}, {40, DamageKind::kJunk, 20, 0},
    {47, DamageKind::kCutOff, 0, 0.92}, {53, DamageKind::kBitFlips, 1, 0},
};

std::string describe(DamageKind kind, int amount, double fraction) {
  switch (kind) {
    case DamageKind::kBitFlips:
      return std::to_string(amount) + (amount == 1 ? " bit" : " bits") +
             " flipped in the entropy data";
    case DamageKind::kCutOff:
      return "cut off after " + std::to_string(static_cast<int>(fraction * 100 + 0.5)) +
             "% of its entropy data";
    case DamageKind::kJunk:
      return "1-10 junk bytes before " + std::to_string(amount) + " restart markers";
  }
  return "";
}

struct PathResult {
  const char* name;
  bool turbo;
  int decoded = 0, concealed = 0, failed = 0, refused = 0;
  // Time, calls and pixels of the frames the path decoded, concealed or failed: a refused call
  // returns early and would make the speed look better than it is.
  double seconds = 0, pixels = 0;
  int64_t calls = 0;
};

bool parseSize(const std::string& text, int* width, int* height) {
  const size_t x = text.find('x');
  if (x == std::string::npos) return false;
  char* end = nullptr;
  const long w = std::strtol(text.c_str(), &end, 10);
  if (end != text.c_str() + x) return false;
  const long h = std::strtol(text.c_str() + x + 1, &end, 10);
  if (*end != '\0' || w < 16 || h < 16 || w > 8192 || h > 8192) return false;
  *width = static_cast<int>(w);
  *height = static_cast<int>(h);
  return true;
}

}  // namespace

int runDemo(int argc, char** argv, int first) {
  ArgParser args("demo", "demo [options]",
                 "Renders a moving 1280x720 scene, encodes it as a webcam does, damages some\n"
                 "frames as a flaky USB link does, and decodes it all with the library's own\n"
                 "decoder and its turbo path. Needs no input files.");
  args.option("frames", 'n', "N", "frames in the clip", "60");
  args.option("size", 's', "WxH", "frame size, 16x16 to 8192x8192", "1280x720");
  args.option("out-dir", 'o', "DIR", "where demo.y4m and demo-contact.png go", ".");
  args.option("rounds", 'r', "N", "decoding rounds behind the speed figures", "3");
  args.flag("no-files", 0, "write no files, only print the results");
  args.flag("save-stream", 0,
            "also write the damaged clip as a raw MJPEG stream, demo.mjpeg, for 'decode' and "
            "'info' to try");
  args.flag("verbose", 'v', "also print the library's reasons for frames it returned false for");
  args.epilog(kDemoHelp);
  if (!args.parse(argc, argv, first)) return kExitOk;
  if (!args.positional().empty()) {
    throw UsageError("demo takes no input, got '" + args.positional()[0] + "'");
  }
  const int count = static_cast<int>(args.integer("frames", 60, 1, 10000));
  const int rounds = static_cast<int>(args.integer("rounds", 3, 1, 100));
  int width = 1280, height = 720;
  if (args.has("size") && !parseSize(args.value("size"), &width, &height)) {
    throw UsageError("--size expects WxH from 16x16 to 8192x8192, got '" + args.value("size") +
                     "'");
  }
  const bool write_files = !args.has("no-files"), verbose = args.has("verbose");
  const std::filesystem::path out_dir = args.value("out-dir");
  if (write_files) {
    std::error_code error;
    if (!std::filesystem::is_directory(out_dir, error)) {
      throw ToolError(kExitUsage, out_dir.string() + ": no such folder");
    }
  }
  const std::string y4m_path = (out_dir / "demo.y4m").string();
  const std::string sheet_path = (out_dir / "demo-contact.png").string();
  const std::string stream_path = (out_dir / "demo.mjpeg").string();

  // 1. Render and encode.
  const auto start = std::chrono::steady_clock::now();
  DemoScene scene(width, height);
  std::vector<std::vector<uint8_t>> frames(count);
  RGBImage picture;
  for (int i = 0; i < count; ++i) {
    scene.render(i, &picture);
    frames[i] = encodeWebcamFrame(picture);
  }
  const double encode_seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  size_t bytes = 0;
  for (const auto& frame : frames) bytes += frame.size();
  std::printf(
      "vidra-mjpeg demo: %d frames of %dx%d rendered and encoded in %.1f s, as a webcam\n"
      "sends them: 4:2:2, quality 90, no DHT segment, a restart marker after every MCU "
      "row (%.0f KiB per frame)\n",
      count, width, height, encode_seconds, bytes / 1024.0 / count);

  // 2. Damage.
  std::vector<std::string> damage(count);
  std::mt19937 rng(20240611u);
  std::set<int> used;
  std::printf("\ndamaged on the way, as over a flaky USB link:\n");
  for (const DamagePlan& plan : kPlan) {
    const int index = static_cast<int>(static_cast<int64_t>(plan.frame) * count / 60);
    if (index >= count || !used.insert(index).second) continue;
    int amount = plan.amount;
    switch (plan.kind) {
      case DamageKind::kBitFlips:
        amount = flipBits(&frames[index], plan.amount, &rng);
        break;
      case DamageKind::kCutOff:
        cutOff(&frames[index], plan.fraction);
        break;
      case DamageKind::kJunk:
        amount = junkBeforeRestarts(&frames[index], plan.amount, &rng);
        break;
    }
    damage[index] = describe(plan.kind, amount, plan.fraction);
    std::printf("  frame %3d  %s\n", index, damage[index].c_str());
  }

  if (write_files && args.has("save-stream")) {
    FILE* file = std::fopen(stream_path.c_str(), "wb");
    if (file == nullptr) throw ioError(stream_path, "cannot create", errno);
    bool written = true;
    for (const auto& frame : frames) {
      written = written && std::fwrite(frame.data(), 1, frame.size(), file) == frame.size();
    }
    const int error = errno;
    if (std::fclose(file) != 0 || !written) throw ioError(stream_path, "write failed", error);
    std::printf("wrote %s (the damaged clip as a raw MJPEG stream)\n", stream_path.c_str());
  }

  // 3. Decode with both paths, frame by frame, the paths taking turns.
  PathResult paths[2] = {{"library's own decoder", false}, {"turbo path", true}};
  std::vector<Outcome> outcomes[2] = {std::vector<Outcome>(count), std::vector<Outcome>(count)};
  std::vector<std::string> reasons[2] = {std::vector<std::string>(count),
                                         std::vector<std::string>(count)};
  std::unique_ptr<VideoWriter> writer;
  if (write_files) writer = std::make_unique<VideoWriter>(y4m_path, 30, 1);
  const int thumb_w = std::max(4, width / 4), thumb_h = std::max(4, height / 4);
  ContactSheet sheet(count, 8, thumb_w, thumb_h);
  LibraryLog log;
  I420Image images[2], previous;
  bool have_previous = false;
  for (int round = 0; round < rounds; ++round) {
    for (int i = 0; i < count; ++i) {
      int w = 0, h = 0;
      const bool sized = jpeg::getJPEGImageSize(frames[i].data(), frames[i].size(), &w, &h);
      for (int p = 0; p < 2; ++p) {
        Outcome outcome = Outcome::kRefused;
        double seconds = 0;
        if (sized && frameSizeUsable(w, h)) {
          jpeg::setForceJPEGTurboDecoder(paths[p].turbo);
          images[p].resize(w, h);
          // The frames have no DHT segment: the turbo path needs the default tables put in.
          outcome = decodeFrame(frames[i].data(), frames[i].size(), true, &images[p], &seconds);
        }
        const std::vector<std::string> lines = log.take();
        if (outcome != Outcome::kRefused) {
          paths[p].seconds += seconds;
          paths[p].pixels += static_cast<double>(w) * h;
          ++paths[p].calls;
        }
        if (round > 0) continue;
        outcomes[p][i] = outcome;
        if (!lines.empty()) reasons[p][i] = lines.front();
        switch (outcome) {
          case Outcome::kDecoded:
            ++paths[p].decoded;
            break;
          case Outcome::kConcealed:
            ++paths[p].concealed;
            break;
          case Outcome::kFailed:
            ++paths[p].failed;
            break;
          case Outcome::kRefused:
            ++paths[p].refused;
            break;
        }
      }
      if (round > 0) continue;
      // The output is the library's own decoder's (the turbo path's where the CPU lacks it).
      // The own decoder reports concealment; the turbo path doesn't, and there a damaged frame
      // it accepted is marked as concealed.
      const Outcome own = outcomes[0][i];
      const bool concealed =
          own == Outcome::kConcealed || (!ownDecoderAvailable() && !damage[i].empty());
      const ContactSheet::Mark mark = own == Outcome::kRefused  ? ContactSheet::Mark::kRefused
                                      : own == Outcome::kFailed ? ContactSheet::Mark::kFailed
                                      : concealed               ? ContactSheet::Mark::kConcealed
                                                                : ContactSheet::Mark::kClean;
      sheet.place(i, own == Outcome::kRefused ? nullptr : &images[0], mark);
      if (writer == nullptr) continue;
      if (own != Outcome::kRefused) {
        writer->write(images[0]);
        previous = images[0];
        have_previous = true;
      } else if (have_previous) {
        writer->write(previous);
      } else {
        previous.resize(width, height);
        previous.fill(0x80);
        have_previous = true;
        writer->write(previous);
      }
    }
  }
  jpeg::setForceJPEGTurboDecoder(false);

  // 4. Report.
  std::printf(
      "\ndecoded with both paths of the library (%d rounds for the speed, refused frames not "
      "timed):\n",
      rounds);
  std::printf("  %-24s %8s %9s %7s %8s %10s %8s\n", "", "decoded", "concealed", "failed", "refused",
              "frames/s", "MP/s");
  for (const PathResult& path : paths) {
    const double fps = path.seconds > 0 ? path.calls / path.seconds : 0;
    const double mps = path.seconds > 0 ? path.pixels / path.seconds / 1e6 : 0;
    std::printf("  %-24s %8d %9d %7d %8d %10.1f %8.1f\n",
                path.turbo ? path.name : decoderPathName(false).substr(0, 24).c_str(), path.decoded,
                path.concealed, path.failed, path.refused, fps, mps);
  }
  if (!ownDecoderAvailable()) {
    std::printf("  (SSSE3/SSE4.1 are missing or masked: both rows are the turbo path)\n");
  } else if (paths[0].seconds > 0 && paths[1].seconds > 0) {
    std::printf("  the library's own decoder is %.2fx as fast as its turbo path\n",
                (paths[0].calls / paths[0].seconds) / (paths[1].calls / paths[1].seconds));
  }
  std::printf(
      "  'decoded' frames are clean, 'concealed' ones were accepted with their bad MCUs\n"
      "  concealed (only the own decoder tells them apart: the turbo path counts them as\n"
      "  decoded); 'failed' frames were written with concealment but no more than 80%% of\n"
      "  their MCUs decoded\n");
  std::printf("\ndamaged frames:\n");
  for (int i = 0; i < count; ++i) {
    if (damage[i].empty()) continue;
    std::printf("  frame %3d  %-46s own: %-9s turbo: %s\n", i, damage[i].c_str(),
                outcomeName(outcomes[0][i]), outcomeName(outcomes[1][i]));
    for (int p = 0; p < 2 && verbose; ++p) {
      if (!reasons[p][i].empty())
        std::printf("             %s: %s\n", p ? "turbo" : "own", reasons[p][i].c_str());
    }
  }
  int clean_failures = 0;
  for (int i = 0; i < count; ++i) {
    if (!damage[i].empty()) continue;
    for (int p = 0; p < 2; ++p) {
      // A frame without damage is expected to decode clean on both paths.
      if (outcomes[p][i] == Outcome::kDecoded) continue;
      ++clean_failures;
      std::fprintf(stderr, "vidra-mjpeg demo: undamaged frame %d: %s on the %s%s%s\n", i,
                   outcomeName(outcomes[p][i]), paths[p].name, reasons[p][i].empty() ? "" : ": ",
                   reasons[p][i].c_str());
    }
  }
  if (writer != nullptr) {
    writer->close();
    writePNG(sheet_path, sheet.image(), 3);
    std::printf("\nwrote %s (%d frames; play it: ffplay %s, or mpv %s)\n", y4m_path.c_str(),
                static_cast<int>(writer->frames()), y4m_path.c_str(), y4m_path.c_str());
    std::printf(
        "wrote %s (grey border: clean, orange: damaged and concealed, red: decoder "
        "returned false)\n",
        sheet_path.c_str());
  }
  std::fflush(stdout);
  return clean_failures ? kExitFrames : kExitOk;
}

}  // namespace tool
}  // namespace vidra
