// vidra-mjpeg decode: every frame of a JPEG, raw MJPEG stream or MJPEG video file through the
// library, into Y4M or raw I420, with a summary of what became of the frames.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cli/cli.h"
#include "commands/commands.h"
#include "decoding/decoding.h"
#include "input/frame_reader.h"
#include "input/jpeg_headers.h"
#include "decoding/library_log.h"
#include "output/png_writer.h"
#include "cli/progress.h"
#include "vidra/mjpeg.h"
#include "output/video_writer.h"

namespace vidra {
namespace tool {

namespace {

constexpr char kDecodeHelp[] =
    "Frames are cut from raw streams at their SOI/EOI markers; junk between frames is skipped\n"
    "and a last frame cut short is still decoded. Video files (AVI, MKV, MOV, ...) are read\n"
    "through FFmpeg's libavformat. Each frame is decoded at the size in its own header; OUT\n"
    "holds one size, the most common one in the frame headers, so frames of another size are\n"
    "replaced by the previous picture.\n"
    "A pipe on standard input, a FIFO or a device is read as a live stream: each frame is\n"
    "decoded as soon as it has come, and OUT takes the size of the first picture.\n"
    "Frames the library refuses are replaced by the previous picture as well (grey at the\n"
    "start), so that the output keeps the input's timing.\n"
    "\n"
    "The summary counts frames as the library reports them: 'decoded' frames were accepted\n"
    "clean; 'concealed' frames were accepted with damaged MCUs concealed (more than 80% of\n"
    "the MCUs decoded; the library's own decoder only, the turbo path doesn't say);\n"
    "'failed' frames were written with concealment but too few of their MCUs decoded;\n"
    "'refused' frames were not decoded at all.\n"
    "\n"
    "examples:\n"
    "  vidra-mjpeg decode camera.mjpeg -o camera.y4m && ffplay camera.y4m\n"
    "  vidra-mjpeg decode capture.avi -o - | mpv -\n"
    "  ffmpeg -i /dev/video0 -c copy -f mjpeg - | vidra-mjpeg decode - -o - | mpv -\n"
    "  vidra-mjpeg decode frame.jpg --png 0 --png-file frame.png\n"
    "  vidra-mjpeg decode damaged.mjpeg --verbose\n"
    "\n"
    "exit status: 0 all frames decoded or concealed, 1 some frames failed, were refused or had\n"
    "another size than OUT (or the input broke off), 2 usage or I/O error.\n";

struct DecodeStats {
  int64_t frames = 0, decoded = 0, concealed = 0, failed = 0, refused = 0;
  int64_t cut_short = 0, not_written = 0;
  uint64_t junk_bytes = 0;
  // Time and pixels of the frames the library decoded, concealed or failed. Refused frames
  // don't count: a damaged header may claim 8192x8192 and be refused in microseconds.
  double decode_seconds = 0;
  double pixels = 0;
  int64_t decode_calls = 0;
  std::map<std::pair<int, int>, int64_t> sizes;
  std::map<std::string, int64_t> reasons;
};

std::string frameLabel(const Frame& frame) {
  std::string label = "frame " + std::to_string(frame.index);
  const std::string where = FrameReader::where(frame);
  if (!where.empty()) label += " (" + where + ")";
  return label;
}

std::string pngPathFor(const ArgParser& args, const std::string& input, int64_t index) {
  if (args.has("png-file")) return args.value("png-file");
  const std::string suffix = "-frame" + std::to_string(index) + ".png";
  if (args.has("output") && args.value("output") != "-") {
    std::filesystem::path out = args.value("output");
    return (out.parent_path() / out.stem()).string() + suffix;
  }
  // Beside the current directory, named after the input.
  const std::filesystem::path in = input == "-" ? "stdin" : input;
  return in.stem().string() + suffix;
}

std::string sizesText(const DecodeStats& stats) {
  if (stats.sizes.empty()) return "no readable frame size";
  if (stats.sizes.size() == 1) {
    return std::to_string(stats.sizes.begin()->first.first) + "x" +
           std::to_string(stats.sizes.begin()->first.second);
  }
  std::string text = "sizes vary:";
  for (const auto& [size, count] : stats.sizes) {
    text += " " + std::to_string(size.first) + "x" + std::to_string(size.second) + " (" +
            std::to_string(count) + ")";
  }
  return text;
}

// True when `a` and `b` both exist and are one file (through links too).
bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

// Removes OUT when the command ends with an error (exit 2) before any frame went into it, so
// that no empty file is left behind; an output with frames stays, whatever the exit code.
struct DiscardUnwrittenOutput {
  VideoWriter* writer;
  bool failed = true;  // cleared when the command ends without an error
  ~DiscardUnwrittenOutput() {
    if (writer != nullptr && failed && writer->frames() == 0) writer->discard();
  }
};

void printSummary(const DecodeStats& stats, const FrameReader& reader, bool turbo,
                  const VideoWriter* writer, const std::string& read_error) {
  std::fprintf(stderr, "%s: %s, %lld frames, %s\n", reader.path().c_str(), reader.kind().c_str(),
               static_cast<long long>(stats.frames), sizesText(stats).c_str());
  // Only the library's own decoder tells concealed frames apart (see decodeFrame).
  std::fprintf(stderr, "  decoded    %8lld  accepted by the library, %s\n",
               static_cast<long long>(stats.decoded),
               !turbo && ownDecoderAvailable()
                   ? "clean"
                   : "damaged ones included (the turbo path can't tell)");
  if (stats.concealed) {
    std::fprintf(stderr, "  concealed  %8lld  accepted, with damaged MCUs concealed\n",
                 static_cast<long long>(stats.concealed));
  }
  if (stats.failed) {
    std::fprintf(stderr, "  failed     %8lld  written with concealment, but too few MCUs decoded\n",
                 static_cast<long long>(stats.failed));
  }
  if (stats.refused) {
    std::fprintf(stderr, "  refused    %8lld  not decoded%s\n",
                 static_cast<long long>(stats.refused),
                 writer ? " (the output repeats the previous picture)" : "");
  }
  if (stats.cut_short) {
    std::fprintf(stderr, "  cut short  %8lld  frames without EOI marker\n",
                 static_cast<long long>(stats.cut_short));
  }
  if (stats.junk_bytes) {
    std::fprintf(stderr, "  junk       %8llu  bytes skipped outside frames\n",
                 static_cast<unsigned long long>(stats.junk_bytes));
  }
  if (stats.not_written) {
    std::fprintf(stderr, "  not written%8lld  frames of another size than the output\n",
                 static_cast<long long>(stats.not_written));
  }
  if (stats.decode_calls > 0 && stats.decode_seconds > 0) {
    std::fprintf(stderr,
                 "  speed      %.1f frames/s, %.1f MP/s in the %s (%lld frames; refused ones not "
                 "counted)\n",
                 stats.decode_calls / stats.decode_seconds,
                 stats.pixels / stats.decode_seconds / 1e6, decoderPathName(turbo).c_str(),
                 static_cast<long long>(stats.decode_calls));
  }
  if (writer != nullptr && writer->frames() > 0) {
    std::fprintf(
        stderr, "  output     %s: %lld frames of %dx%d, %s\n", writer->path().c_str(),
        static_cast<long long>(writer->frames()), writer->width(), writer->height(),
        writer->format() == VideoWriter::Format::kY4M ? "Y4M 4:2:0 full range" : "raw I420");
  } else if (writer != nullptr) {
    std::fprintf(stderr, "  output     %s: empty, no frame could be decoded\n",
                 writer->path().c_str());
  }
  if (!read_error.empty()) std::fprintf(stderr, "  input      %s\n", read_error.c_str());
  if (!stats.reasons.empty()) {
    std::vector<std::pair<int64_t, std::string>> ranked;
    for (const auto& [reason, count] : stats.reasons) ranked.push_back({-count, reason});
    std::sort(ranked.begin(), ranked.end());
    std::fprintf(stderr, "  reasons given by the library (first line per frame):\n");
    for (size_t i = 0; i < ranked.size() && i < 5; ++i) {
      std::fprintf(stderr, "    %6lldx  %s\n", static_cast<long long>(-ranked[i].first),
                   ranked[i].second.c_str());
    }
  }
}

}  // namespace

int runDecode(int argc, char** argv, int first) {
  ArgParser args("decode", "decode INPUT [-o OUT] [options]",
                 "Decodes every frame of INPUT (a JPEG, a raw MJPEG stream, or an MJPEG track\n"
                 "in AVI/MKV/MOV; - for standard input) with the vidra-mjpeg library.");
  args.option("output", 'o', "OUT",
              "write the frames to OUT: *.y4m (YUV4MPEG2, plays in ffplay and mpv), *.yuv "
              "(raw I420), or - for Y4M on standard output");
  args.flag("turbo", 0, "decode with the library's TurboJPEG path (setForceJPEGTurboDecoder)");
  args.option("png", 0, "N", "also write frame N (counted from 0) as a PNG picture");
  args.option("png-file", 0, "FILE", "where --png writes (default: OUT or INPUT, -frameN.png)");
  args.option("fps", 0, "RATE", "frame rate for the Y4M header, e.g. 30 or 30000:1001",
              "the container's, else 30");
  args.flag("verbose", 'v', "one line per frame, with the library's reasons for failures");
  args.flag("quiet", 'q', "no progress bar, no summary; errors only");
  args.epilog(kDecodeHelp);
  if (!args.parse(argc, argv, first)) return kExitOk;
  if (args.positional().size() != 1) {
    throw UsageError(args.positional().empty() ? "decode needs an INPUT file"
                                               : "decode takes one INPUT, got " +
                                                     std::to_string(args.positional().size()));
  }
  const std::string input = args.positional()[0];
  const bool verbose = args.has("verbose"), quiet = args.has("quiet"), turbo = args.has("turbo");
  const int64_t png_index = args.integer("png", -1, 0, INT64_MAX);
  if (args.has("png-file") && png_index < 0) throw UsageError("--png-file needs --png N");
  int fps_num = 0, fps_den = 0;
  if (args.has("fps") && !parseFrameRate(args.value("fps"), &fps_num, &fps_den)) {
    throw UsageError("--fps expects a rate such as 30 or 30000:1001, got '" + args.value("fps") +
                     "'");
  }
  const std::string output = args.has("output") ? args.value("output") : "";
  if (!output.empty()) VideoWriter::formatFor(output);  // fail early
  const std::string png_path = png_index >= 0 ? pngPathFor(args, input, png_index) : "";
  // Writing over the input would truncate the file that is being read (and mapped).
  for (const std::string& written : {output, png_path}) {
    if (input != "-" && !written.empty() && written != "-" && sameFile(input, written)) {
      throw ToolError(kExitUsage, written + ": is the input file; write to another file");
    }
  }
  if (!png_path.empty()) {
    const std::string folder = std::filesystem::path(png_path).parent_path().string();
    if (access(folder.empty() ? "." : folder.c_str(), W_OK) != 0)
      throw ioError(png_path, "cannot create", errno);
  }

  setFFmpegLogging(verbose);
  std::unique_ptr<FrameReader> reader = FrameReader::open(input);
  if (fps_num == 0 && !reader->frameRate(&fps_num, &fps_den)) {
    fps_num = 30;
    fps_den = 1;
  }
  std::unique_ptr<VideoWriter> writer;
  if (!output.empty()) writer = std::make_unique<VideoWriter>(output, fps_num, fps_den);
  DiscardUnwrittenOutput discard{writer.get()};
  int usual_width = 0, usual_height = 0;
  if (writer != nullptr && reader->usualFrameSize(&usual_width, &usual_height))
    writer->setSize(usual_width, usual_height);

  jpeg::setForceJPEGTurboDecoder(turbo);
  LibraryLog log;
  ProgressBar progress(!verbose && !quiet);
  DecodeStats stats;
  I420Image image, previous;
  bool have_previous = false;  // `previous` holds a picture of the output's size
  int64_t pending_blank = 0;   // frames without a picture before the output size is known
  std::string read_error, png_problem;
  bool png_written = false;

  // A warning about one frame. Clears the progress bar first; past ten of a kind (unless
  // --verbose) the summary counts the rest.
  int size_warnings = 0, cut_warnings = 0;
  auto warn = [&](int* count, const std::string& text) {
    if (quiet) return;
    progress.finish();
    if (!verbose && *count >= 10) {
      if (*count == 10) std::fprintf(stderr, "vidra-mjpeg: (more of these: see the summary)\n");
      ++*count;
      return;
    }
    ++*count;
    std::fprintf(stderr, "vidra-mjpeg: %s: %s\n", reader->path().c_str(), text.c_str());
  };

  // Puts one picture into the output; `picture` is null for a frame without one. Frames without
  // a picture of the output's size repeat the previous one; at the start that is grey.
  auto emit = [&](I420Image* picture, const Frame& frame) {
    if (writer == nullptr) return;
    // Without a usual size the first picture fixes it.
    if (writer->width() == 0 && picture != nullptr)
      writer->setSize(picture->width, picture->height);
    if (!have_previous && writer->width() > 0) {
      previous.resize(writer->width(), writer->height());
      previous.fill(0x80);
      have_previous = true;
      for (; pending_blank > 0; --pending_blank) writer->write(previous);
    }
    if (picture != nullptr && writer->write(*picture)) {
      std::swap(previous, *picture);
      have_previous = true;
      return;
    }
    if (picture != nullptr) {
      ++stats.not_written;
      warn(&size_warnings, frameLabel(frame) + " is " + std::to_string(picture->width) + "x" +
                               std::to_string(picture->height) + " but " + writer->path() +
                               " holds " + std::to_string(writer->width()) + "x" +
                               std::to_string(writer->height()) +
                               " (one size per file); the previous picture stands in for it");
    }
    if (have_previous) {
      writer->write(previous);
    } else {
      ++pending_blank;
    }
  };

  while (true) {
    Frame frame;
    if (!reader->nextOrStop(&frame, &read_error)) break;
    ++stats.frames;
    stats.junk_bytes += frame.junk_before;
    if (frame.cut_short) {
      ++stats.cut_short;
      warn(&cut_warnings, frameLabel(frame) +
                              " is cut short: no EOI marker before the next frame or the end "
                              "of the input (" +
                              std::to_string(frame.size) + " bytes)");
    }
    if (verbose && frame.junk_before > 0) {
      std::fprintf(stderr, "%s: %zu junk bytes skipped in front of it\n", frameLabel(frame).c_str(),
                   frame.junk_before);
    }

    int width = 0, height = 0;
    Outcome outcome = Outcome::kRefused;
    double seconds = 0;
    const bool sized =
        jpeg::getJPEGImageSize(frame.data, frame.size, &width, &height) && width > 0 && height > 0;
    std::string sampling, tool_reason;
    if (sized && !frameSizeUsable(width, height)) {
      tool_reason = "(the tool's own: sizes above 8192x8192 pixels are refused)";
      warn(&size_warnings, frameLabel(frame) + " claims " + std::to_string(width) + "x" +
                               std::to_string(height) +
                               ", more than this tool decodes (8192x8192 pixels): refused");
    } else if (sized) {
      ++stats.sizes[{width, height}];
      const JPEGHeaderInfo header = readJPEGHeader(frame.data, frame.size);
      sampling = samplingName(header.components);
      image.resize(width, height);
      outcome = decodeFrame(frame.data, frame.size, !header.has_dht, &image, &seconds);
      if (outcome != Outcome::kRefused) {
        ++stats.decode_calls;
        stats.decode_seconds += seconds;
        stats.pixels += static_cast<double>(width) * height;
      }
    }
    const std::vector<std::string> reasons = log.take();
    switch (outcome) {
      case Outcome::kDecoded:
        ++stats.decoded;
        break;
      case Outcome::kConcealed:
        ++stats.concealed;
        break;
      case Outcome::kFailed:
        ++stats.failed;
        break;
      case Outcome::kRefused:
        ++stats.refused;
        break;
    }
    if (outcome == Outcome::kFailed || outcome == Outcome::kRefused) {
      // The library logs no line when a frame falls short of 80% clean MCUs.
      const char* unlogged = outcome == Outcome::kFailed
                                 ? "(none logged: fewer than 80% of the MCUs decoded cleanly)"
                                 : "(none logged)";
      ++stats.reasons[!tool_reason.empty() ? tool_reason
                      : reasons.empty()    ? std::string(unlogged)
                                           : reasons.front()];
    }
    if (verbose) {
      std::string line = frameLabel(frame) + ": ";
      line += sized ? std::to_string(width) + "x" + std::to_string(height) + " " + sampling
                    : std::string("size unreadable");
      std::fprintf(stderr, "%s, %zu bytes: %s in %.2f ms%s\n", line.c_str(), frame.size,
                   outcomeName(outcome), seconds * 1e3, frame.cut_short ? " (cut short)" : "");
      for (const std::string& reason : reasons)
        std::fprintf(stderr, "    library: %s\n", reason.c_str());
    }

    if (frame.index == png_index) {
      if (outcome == Outcome::kRefused) {
        png_problem = frameLabel(frame) + " was refused by the decoder: no PNG written";
      } else {
        writePNG(png_path, toRGB(image));
        png_written = true;
        if (verbose) std::fprintf(stderr, "wrote %s\n", png_path.c_str());
      }
    }
    emit(outcome == Outcome::kRefused ? nullptr : &image, frame);
    progress.update(reader->progress(), stats.frames);
  }
  progress.finish();
  stats.junk_bytes += reader->trailingJunk();
  if (writer != nullptr) writer->close();
  jpeg::setForceJPEGTurboDecoder(false);

  if (!quiet) printSummary(stats, *reader, turbo, writer.get(), read_error);
  if (!quiet && png_written) std::fprintf(stderr, "  picture    %s\n", png_path.c_str());

  int code = kExitOk;
  if (stats.failed || stats.refused || stats.not_written || !read_error.empty()) code = kExitFrames;
  if (stats.frames == 0) {
    std::fprintf(stderr, "vidra-mjpeg: %s: no MJPEG frames in it\n", reader->path().c_str());
    code = kExitUsage;
  }
  if (!png_problem.empty()) {
    std::fprintf(stderr, "vidra-mjpeg: %s: --png %lld: %s\n", reader->path().c_str(),
                 static_cast<long long>(png_index), png_problem.c_str());
    code = std::max(code, static_cast<int>(kExitFrames));
  } else if (png_index >= 0 && !png_written) {
    std::fprintf(stderr, "vidra-mjpeg: %s: --png %lld: the input has only %lld frames\n",
                 reader->path().c_str(), static_cast<long long>(png_index),
                 static_cast<long long>(stats.frames));
    code = kExitUsage;
  }
  discard.failed = code == kExitUsage;
  return code;
}

}  // namespace tool
}  // namespace vidra
