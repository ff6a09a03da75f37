// vidra-mjpeg info: what the headers of each frame say, read from the marker segments.

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "cli/cli.h"
#include "commands/commands.h"
#include "decoding/decoding.h"
#include "input/frame_reader.h"
#include "input/jpeg_headers.h"

namespace vidra {
namespace tool {

namespace {

constexpr char kInfoHelp[] =
    "Columns: where the frame starts (byte offset, or time in a video file), its size in\n"
    "bytes, the frame type (baseline, progressive, ...), width x height, the sampling factors\n"
    "of each component (luma first), the restart interval (MCUs, and MCU rows when it is a\n"
    "whole number of them), whether the frame carries its own Huffman tables (DHT; MJPEG\n"
    "cameras usually leave them out), the JPEG quality (the libjpeg quality whose scaled\n"
    "Annex K luminance table comes closest to the frame's; '~' when none matches exactly)\n"
    "and the APPn tags, and the decoder that takes the frame: 'own' (the library's own\n"
    "decoder), 'fallback' (TurboJPEG, for a frame the own decoder refuses as unsupported;\n"
    "--no-fallback leaves those refused), 'turbo' (on a CPU without SSSE3/SSE4.1) or\n"
    "'refused'. Finding that out decodes every frame.\n"
    "\n"
    "examples:\n"
    "  vidra-mjpeg info camera.mjpeg\n"
    "  vidra-mjpeg info frame.jpg --tables\n"
    "\n"
    "exit status: 0 all headers readable, 1 some frames have unreadable headers, 2 usage or\n"
    "I/O error.\n";

// MCU columns of the frame: interleaved scans have MCUs of 8 x the largest sampling factors,
// a single component has 8 x 8 blocks.
int mcusPerRow(const JPEGHeaderInfo& header) {
  int hmax = 1;
  if (header.components.size() > 1) {
    for (const JPEGComponent& c : header.components) hmax = std::max(hmax, c.h);
  }
  const int mcu_width = 8 * std::max(1, hmax);
  return (header.width + mcu_width - 1) / mcu_width;
}

std::string restartText(const JPEGHeaderInfo& header) {
  if (header.restart_interval == 0) return "-";
  std::string text = std::to_string(header.restart_interval) + " MCUs";
  const int per_row = mcusPerRow(header);
  if (per_row > 0 && header.restart_interval % per_row == 0) {
    const int rows = header.restart_interval / per_row;
    text += " (" + std::to_string(rows) + (rows == 1 ? " row)" : " rows)");
  }
  return text;
}

std::string qualityText(const JPEGHeaderInfo& header) {
  const int luma_table = header.components.empty() ? 0 : header.components[0].tq & 3;
  if (!header.dqt_present[luma_table]) return "?";
  double distance = 0;
  const int quality = estimateQuality(header.dqt[luma_table], &distance);
  return (distance == 0 ? "" : "~") + std::to_string(quality);
}

std::string joined(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ",") + item;
  return text.empty() ? "-" : text;
}

void printTables(const JPEGHeaderInfo& header) {
  for (int id = 0; id < 4; ++id) {
    if (!header.dqt_present[id]) continue;
    double distance = 0;
    const int quality = estimateQuality(header.dqt[id], &distance);
    std::printf(
        "      quantisation table %d (%d-bit)%s\n", id, header.dqt_precision[id] ? 16 : 8,
        id == (header.components.empty() ? 0 : header.components[0].tq)
            ? (", luma: quality " + std::string(distance == 0 ? "" : "~") + std::to_string(quality))
                  .c_str()
            : "");
    for (int row = 0; row < 8; ++row) {
      std::printf("       ");
      for (int col = 0; col < 8; ++col) std::printf(" %4d", header.dqt[id][row * 8 + col]);
      std::printf("\n");
    }
  }
}

void countInto(std::map<std::string, int64_t>* counts, const std::string& key) { ++(*counts)[key]; }

std::string countsText(const std::map<std::string, int64_t>& counts) {
  std::string text;
  for (const auto& [key, count] : counts) {
    if (!text.empty()) text += ", ";
    text += key + " (" + std::to_string(count) + ")";
  }
  return text;
}

// What the frames of an input have in common, counted frame by frame.
struct InfoSummary {
  std::map<std::string, int64_t> layouts, restarts, dht, qualities, decoders;
  int64_t frames = 0, unreadable = 0, cut_short = 0;
  uint64_t junk = 0;
};

// Counts one frame into `summary` and, unless `brief`, prints its line (and its tables).
void describeFrame(const Frame& frame, const DecoderChoice& choice, bool brief, bool tables,
                   I420Image* image, InfoSummary* summary) {
  ++summary->frames;
  summary->junk += frame.junk_before;
  summary->cut_short += frame.cut_short;
  const JPEGHeaderInfo header = readJPEGHeader(frame.data, frame.size);
  std::string notes;
  if (frame.cut_short) notes += "  [cut short]";
  if (frame.junk_before) notes += "  [" + std::to_string(frame.junk_before) + " junk bytes before]";
  if (!header.ok()) {
    ++summary->unreadable;
    if (!brief) {
      std::printf("%6lld  %-14s %8zu  header unreadable: %s%s\n",
                  static_cast<long long>(frame.index), FrameReader::where(frame).c_str(),
                  frame.size, header.error.c_str(), notes.c_str());
    }
    return;
  }
  const std::string size = std::to_string(header.width) + "x" + std::to_string(header.height);
  jpeg::FrameHeader layout;
  jpeg::readFrameHeader(frame.data, frame.size, &layout);
  const std::string sampling = layoutName(layout);
  countInto(&summary->layouts, size + " " + sofName(header.sof_marker) + " " + sampling);
  countInto(&summary->restarts, restartText(header) == "-" ? "none" : restartText(header));
  countInto(&summary->dht, header.has_dht ? "present" : "absent");
  countInto(&summary->qualities, qualityText(header));
  const std::string decoder = decoderName(decodeFrame(frame.data, frame.size, choice, image));
  countInto(&summary->decoders, decoder);
  if (brief) return;
  std::printf("%6lld  %-14s %8zu  %-11s %-10s %-20s %-16s %-4s %-7s %-8s %s%s\n",
              static_cast<long long>(frame.index), FrameReader::where(frame).c_str(), frame.size,
              sofName(header.sof_marker).c_str(), size.c_str(), sampling.c_str(),
              restartText(header).c_str(), header.has_dht ? "yes" : "no",
              qualityText(header).c_str(), decoder.c_str(), joined(header.app_tags).c_str(),
              notes.c_str());
  if (tables) printTables(header);
}

// Prints the summary and returns the exit code.
int printInfoSummary(const FrameReader& reader, const InfoSummary& s,
                     const std::string& read_error) {
  std::printf("%s: %s, %lld frames\n", reader.path().c_str(), reader.kind().c_str(),
              static_cast<long long>(s.frames));
  if (!s.layouts.empty()) {
    std::printf("  layout    %s\n", countsText(s.layouts).c_str());
    std::printf("  restart   %s\n", countsText(s.restarts).c_str());
    std::printf("  DHT       %s\n", countsText(s.dht).c_str());
    std::printf("  quality   %s\n", countsText(s.qualities).c_str());
    std::printf("  decoder   %s\n", countsText(s.decoders).c_str());
  }
  if (s.unreadable)
    std::printf("  unreadable headers: %lld\n", static_cast<long long>(s.unreadable));
  if (s.cut_short) std::printf("  cut short: %lld\n", static_cast<long long>(s.cut_short));
  if (s.junk) {
    std::printf("  junk bytes outside frames: %llu\n", static_cast<unsigned long long>(s.junk));
  }
  std::fflush(stdout);
  if (!read_error.empty()) std::fprintf(stderr, "vidra-mjpeg: %s\n", read_error.c_str());
  if (s.unreadable) {
    std::fprintf(stderr, "vidra-mjpeg: %s: %lld of %lld frames have unreadable headers\n",
                 reader.path().c_str(), static_cast<long long>(s.unreadable),
                 static_cast<long long>(s.frames));
  }
  if (s.frames == 0) {
    std::fprintf(stderr, "vidra-mjpeg: %s: no MJPEG frames in it\n", reader.path().c_str());
    return kExitUsage;
  }
  return s.unreadable || !read_error.empty() ? kExitFrames : kExitOk;
}

}  // namespace

int runInfo(int argc, char** argv, int first) {
  ArgParser args("info", "info INPUT [options]",
                 "Prints the header of every frame of INPUT (a JPEG, a raw MJPEG stream, or an\n"
                 "MJPEG track in AVI/MKV/MOV): size, sampling, restart interval, Huffman tables,\n"
                 "an estimate of the JPEG quality, and the decoder that takes it.");
  args.flag("tables", 't', "also print the quantisation tables of each frame");
  args.flag("brief", 'b', "only the summary, no line per frame");
  args.flag("no-fallback", 0, "show what the own decoder takes without its TurboJPEG fallback");
  args.epilog(kInfoHelp);
  if (!args.parse(argc, argv, first)) return kExitOk;
  if (args.positional().size() != 1) {
    throw UsageError(args.positional().empty()
                         ? "info needs an INPUT file"
                         : "info takes one INPUT, got " + std::to_string(args.positional().size()));
  }
  setFFmpegLogging(false);
  std::unique_ptr<FrameReader> reader = FrameReader::open(args.positional()[0]);
  const bool brief = args.has("brief"), tables = args.has("tables");
  DecoderChoice choice;
  choice.fallback = !args.has("no-fallback");
  quietLibraryLog();
  if (!brief) {
    std::printf("%6s  %-14s %8s  %-11s %-10s %-20s %-16s %-4s %-7s %-8s %s\n", "frame", "where",
                "bytes", "type", "size", "sampling", "restart", "DHT", "quality", "decoder",
                "APPn");
  }
  I420Image image;
  InfoSummary summary;
  std::string read_error;
  for (Frame frame; reader->nextOrStop(&frame, &read_error);) {
    describeFrame(frame, choice, brief, tables, &image, &summary);
  }
  summary.junk += reader->trailingJunk();
  return printInfoSummary(*reader, summary, read_error);
}

}  // namespace tool
}  // namespace vidra
