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
#include "decoding/decoding.h"
#include "demo/contact_sheet.h"
#include "demo/damage.h"
#include "demo/demo_scene.h"
#include "demo/webcam_encoder.h"
#include "output/png_writer.h"
#include "output/stand_in.h"
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

// One of the two decoder paths the demo compares.
struct DemoPath {
  const char* name;
  DecoderChoice choice;
  OutcomeTally first_round;  // outcomes of the first round
  OutcomeTally all_rounds;   // speed over all rounds
  std::vector<FrameResult> results;
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

struct DemoSettings {
  int count = 60, rounds = 3, width = 1280, height = 720;
  bool write_files = true, save_stream = false, verbose = false;
  std::filesystem::path out_dir = ".";
};

// Parses the command line; false when --help was given.
bool parseDemoArgs(int argc, char** argv, int first, DemoSettings* s) {
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
  args.flag("verbose", 'v', "also print the reasons for frames that failed or were refused");
  args.epilog(kDemoHelp);
  if (!args.parse(argc, argv, first)) return false;
  if (!args.positional().empty()) {
    throw UsageError("demo takes no input, got '" + args.positional()[0] + "'");
  }
  s->count = static_cast<int>(args.integer("frames", 60, 1, 10000));
  s->rounds = static_cast<int>(args.integer("rounds", 3, 1, 100));
  if (args.has("size") && !parseSize(args.value("size"), &s->width, &s->height)) {
    throw UsageError("--size expects WxH from 16x16 to 8192x8192, got '" + args.value("size") +
                     "'");
  }
  s->write_files = !args.has("no-files");
  s->save_stream = args.has("save-stream");
  s->verbose = args.has("verbose");
  s->out_dir = args.value("out-dir");
  std::error_code error;
  if (s->write_files && !std::filesystem::is_directory(s->out_dir, error)) {
    throw ToolError(kExitUsage, s->out_dir.string() + ": no such folder");
  }
  return true;
}

// 1. Renders and encodes the clip as a webcam would.
std::vector<std::vector<uint8_t>> encodeClip(const DemoSettings& s) {
  const auto start = std::chrono::steady_clock::now();
  DemoScene scene(s.width, s.height);
  std::vector<std::vector<uint8_t>> frames(s.count);
  RGBImage picture;
  for (int i = 0; i < s.count; ++i) {
    scene.render(i, &picture);
    frames[i] = encodeWebcamFrame(picture);
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  size_t bytes = 0;
  for (const auto& frame : frames) bytes += frame.size();
  std::printf(
      "vidra-mjpeg demo: %d frames of %dx%d rendered and encoded in %.1f s, as a webcam\n"
      "sends them: 4:2:2, quality 90, no DHT segment, a restart marker after every MCU "
      "row (%.0f KiB per frame)\n",
      s.count, s.width, s.height, seconds, bytes / 1024.0 / s.count);
  return frames;
}

// 2. Damages a few frames; returns what was done to each (empty: undamaged).
std::vector<std::string> damageClip(std::vector<std::vector<uint8_t>>* frames) {
  const int count = static_cast<int>(frames->size());
  std::vector<std::string> damage(count);
  std::mt19937 rng(20240611u);
  std::set<int> used;
  std::printf("\ndamaged on the way, as over a flaky USB link:\n");
  for (const DamagePlan& plan : kPlan) {
    const int index = static_cast<int>(static_cast<int64_t>(plan.frame) * count / 60);
    if (index >= count || !used.insert(index).second) continue;
    std::vector<uint8_t>& frame = (*frames)[index];
    int amount = plan.amount;
    switch (plan.kind) {
      case DamageKind::kBitFlips:
        amount = flipBits(&frame, plan.amount, &rng);
        break;
      case DamageKind::kCutOff:
        cutOff(&frame, plan.fraction);
        break;
      case DamageKind::kJunk:
        amount = junkBeforeRestarts(&frame, plan.amount, &rng);
        break;
    }
    damage[index] = describe(plan.kind, amount, plan.fraction);
    std::printf("  frame %3d  %s\n", index, damage[index].c_str());
  }
  return damage;
}

void saveStream(const std::string& path, const std::vector<std::vector<uint8_t>>& frames) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw ioError(path, "cannot create", errno);
  bool written = true;
  for (const auto& frame : frames) {
    written = written && std::fwrite(frame.data(), 1, frame.size(), file) == frame.size();
  }
  const int error = errno;
  if (std::fclose(file) != 0 || !written) throw ioError(path, "write failed", error);
  std::printf("wrote %s (the damaged clip as a raw MJPEG stream)\n", path.c_str());
}

// 3. Decodes every frame with both paths, frame by frame, the paths taking turns; the own
// decoder's pictures (the TurboJPEG path's where the CPU lacks it) go into the clip and the
// contact sheet in the first round.
void decodeClip(const DemoSettings& s, const std::vector<std::vector<uint8_t>>& frames,
                const std::vector<std::string>& damage, DemoPath paths[2], VideoWriter* writer,
                ContactSheet* sheet) {
  I420Image images[2];
  StandIn stand_in;
  for (DemoPath* path = paths; path != paths + 2; ++path) path->results.resize(s.count);
  for (int round = 0; round < s.rounds; ++round) {
    for (int i = 0; i < s.count; ++i) {
      for (int p = 0; p < 2; ++p) {
        const FrameResult result =
            decodeFrame(frames[i].data(), frames[i].size(), paths[p].choice, &images[p]);
        paths[p].all_rounds.add(result);
        if (round > 0) continue;
        paths[p].first_round.add(result);
        paths[p].results[i] = result;
      }
      if (round > 0) continue;
      // The own decoder reports concealment; the TurboJPEG path doesn't, and where it stands in
      // for the own decoder a damaged frame it accepted is marked as concealed.
      const Outcome own = paths[0].results[i].outcome;
      const bool concealed =
          own == Outcome::kConcealed || (paths[0].results[i].path == jpeg::DecodePath::kTurbo &&
                                         own != Outcome::kRefused && !damage[i].empty());
      const ContactSheet::Mark mark = own == Outcome::kRefused  ? ContactSheet::Mark::kRefused
                                      : own == Outcome::kFailed ? ContactSheet::Mark::kFailed
                                      : concealed               ? ContactSheet::Mark::kConcealed
                                                                : ContactSheet::Mark::kClean;
      sheet->place(i, own == Outcome::kRefused ? nullptr : &images[0], mark);
      if (writer == nullptr) continue;
      if (own == Outcome::kRefused) {
        writer->write(stand_in.get(s.width, s.height));
      } else {
        writer->write(images[0]);
        stand_in.take(&images[0]);
      }
    }
  }
}

// 4. Prints the outcomes, the speed and the damaged frames; returns the undamaged frames that
// didn't decode clean.
int reportClip(const DemoSettings& s, const std::vector<std::string>& damage,
               const DemoPath paths[2]) {
  std::printf(
      "\ndecoded with both paths of the library (%d rounds for the speed, refused frames not "
      "timed):\n",
      s.rounds);
  std::printf("  %-24s %8s %9s %7s %8s %10s %8s\n", "", "decoded", "concealed", "failed", "refused",
              "frames/s", "MP/s");
  double speeds[2] = {0, 0};
  for (int p = 0; p < 2; ++p) {
    const OutcomeTally& t = paths[p].first_round;
    double mps = 0;
    paths[p].all_rounds.speed(&speeds[p], &mps);
    std::printf("  %-24s %8lld %9lld %7lld %8lld %10.1f %8.1f\n", paths[p].name,
                static_cast<long long>(t.decoded), static_cast<long long>(t.concealed),
                static_cast<long long>(t.failed), static_cast<long long>(t.refused), speeds[p],
                mps);
  }
  if (!ownDecoderFast()) {
    std::printf("  (SSSE3/SSE4.1 are missing or masked: both rows are the turbo path)\n");
  } else if (speeds[0] > 0 && speeds[1] > 0) {
    std::printf("  the library's own decoder is %.2fx as fast as its turbo path\n",
                speeds[0] / speeds[1]);
  }
  std::printf(
      "  'decoded' frames are clean, 'concealed' ones were accepted with their bad MCUs\n"
      "  concealed (only the own decoder tells them apart: the turbo path counts them as\n"
      "  decoded); 'failed' frames were written with concealment but no more than 80%% of\n"
      "  their MCUs decoded\n");
  std::printf("\ndamaged frames:\n");
  for (int i = 0; i < s.count; ++i) {
    if (damage[i].empty()) continue;
    std::printf("  frame %3d  %-46s own: %-9s turbo: %s\n", i, damage[i].c_str(),
                outcomeName(paths[0].results[i].outcome), outcomeName(paths[1].results[i].outcome));
    for (int p = 0; p < 2 && s.verbose; ++p) {
      const std::string& reason = paths[p].results[i].reason;
      if (!reason.empty())
        std::printf("             %s: %s\n", p ? "turbo" : "own", reason.c_str());
    }
  }
  int clean_failures = 0;
  for (int i = 0; i < s.count; ++i) {
    for (int p = 0; p < 2 && damage[i].empty(); ++p) {
      // A frame without damage is expected to decode clean on both paths.
      const FrameResult& result = paths[p].results[i];
      if (result.outcome == Outcome::kDecoded) continue;
      ++clean_failures;
      std::fprintf(stderr, "vidra-mjpeg demo: undamaged frame %d: %s on the %s%s%s\n", i,
                   outcomeName(result.outcome), paths[p].name, result.reason.empty() ? "" : ": ",
                   result.reason.c_str());
    }
  }
  return clean_failures;
}

}  // namespace

int runDemo(int argc, char** argv, int first) {
  DemoSettings s;
  if (!parseDemoArgs(argc, argv, first, &s)) return kExitOk;
  const std::string y4m_path = (s.out_dir / "demo.y4m").string();
  const std::string sheet_path = (s.out_dir / "demo-contact.png").string();
  std::vector<std::vector<uint8_t>> frames = encodeClip(s);
  const std::vector<std::string> damage = damageClip(&frames);
  if (s.write_files && s.save_stream) saveStream((s.out_dir / "demo.mjpeg").string(), frames);

  // The own decoder where it runs fast, else the TurboJPEG path, as decompressMJPEG picks.
  DemoPath paths[2] = {{"library's own decoder", {false, true}, {}, {}, {}},
                       {"turbo path", {true, false}, {}, {}, {}}};
  if (!ownDecoderFast()) paths[0].name = "turbo path (no SIMD)";
  std::unique_ptr<VideoWriter> writer;
  if (s.write_files) writer = std::make_unique<VideoWriter>(y4m_path, 30, 1);
  ContactSheet sheet(s.count, 8, std::max(4, s.width / 4), std::max(4, s.height / 4));
  quietLibraryLog();
  decodeClip(s, frames, damage, paths, writer.get(), &sheet);
  const int clean_failures = reportClip(s, damage, paths);

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
