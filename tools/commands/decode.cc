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
#include "cli/progress.h"
#include "commands/commands.h"
#include "decoding/decoding.h"
#include "input/frame_reader.h"
#include "output/png_writer.h"
#include "output/stand_in.h"
#include "output/video_writer.h"

namespace vidra {
namespace tool {

namespace {

constexpr char kDecodeHelp[] =
    "Frames are cut from raw streams at their SOI/EOI markers; junk between frames is skipped\n"
    "and a last frame cut short is still decoded. Pieces that start like a frame but whose\n"
    "header never reaches a scan are fragments: skipped as junk, not frames. Video files (AVI,\n"
    "MKV, MOV, ...) are read through FFmpeg's libavformat. Each frame is decoded at the size in\n"
    "its own header; OUT holds one size, the most common one among the frames, so frames of\n"
    "another size are replaced by the previous picture.\n"
    "A pipe on standard input, a FIFO or a device is read as a live stream: each frame is\n"
    "decoded as soon as it has come, and OUT takes the size of the first picture.\n"
    "Frames the library refuses are replaced by the previous picture as well (grey at the\n"
    "start), so that the output keeps the input's timing. When those stand-ins and the\n"
    "pictures of failed frames (mostly concealment) grow past 256 MiB and 16 times the input\n"
    "read so far, decoding stops: a few damaged or crafted bytes that claim a large frame\n"
    "could otherwise fill the disk. --unlimited-output lifts that limit.\n"
    "\n"
    "By default the library's own decoder decodes, and libjpeg-turbo takes the frames it\n"
    "refuses as unsupported (FFmpeg's 4:2:2 and 4:4:4, grey, progressive, ...): the summary\n"
    "counts those as 'fallback'. --no-fallback shows what the own decoder takes alone.\n"
    "The summary counts frames as the library reports them: 'decoded' clean, 'concealed'\n"
    "accepted with damaged MCUs concealed (more than 80% decoded; the own decoder only),\n"
    "'failed' written with concealment but too few MCUs decoded, 'refused' not decoded.\n"
    "\n"
    "examples:\n"
    "  vidra-mjpeg decode camera.mjpeg -o camera.y4m && ffplay camera.y4m\n"
    "  vidra-mjpeg decode capture.avi -o - | mpv -\n"
    "  ffmpeg -i /dev/video0 -c copy -f mjpeg - | vidra-mjpeg decode - -o - | mpv -\n"
    "  vidra-mjpeg decode frame.jpg --png 0 --png-file frame.png\n"
    "  vidra-mjpeg decode damaged.mjpeg --verbose -o /dev/null\n"
    "\n"
    "exit status: 0 all frames decoded or concealed, 1 some frames failed, were refused or had\n"
    "another size than OUT, fragments were skipped, or the input broke off, 2 usage or I/O\n"
    "error.\n";

// Pictures the input doesn't hold (stand-ins, failed frames) may grow to this much, and to this
// many times the input read so far.
constexpr uint64_t kMadeUpFloor = uint64_t{256} << 20;
constexpr uint64_t kMadeUpRatio = 16;

struct DecodeSettings {
  std::string input, output, format, png_path;
  int64_t png_index = -1;
  int fps_num = 0, fps_den = 0;
  bool verbose = false, quiet = false, unlimited_output = false;
  DecoderChoice choice;
};

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

// True when `a` and `b` both exist and are one regular file (through links too).
bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && S_ISREG(sa.st_mode) &&
         sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// Parses the command line; false when --help was given.
bool parseDecodeArgs(int argc, char** argv, int first, DecodeSettings* settings) {
  ArgParser args("decode", "decode INPUT [-o OUT] [options]",
                 "Decodes every frame of INPUT (a JPEG, a raw MJPEG stream, or an MJPEG track\n"
                 "in AVI/MKV/MOV; - for standard input) with the vidra-mjpeg library.");
  args.option("output", 'o', "OUT",
              "write the frames to OUT: *.y4m (YUV4MPEG2, plays in ffplay and mpv), *.yuv "
              "(raw I420), - for Y4M on standard output, or a device such as /dev/null");
  args.option("format", 0, "FMT", "y4m or yuv, whatever OUT is called");
  args.flag("turbo", 0, "decode every frame on the library's TurboJPEG path");
  args.flag("no-fallback", 0, "no TurboJPEG for frames the own decoder refuses as unsupported");
  args.option("png", 0, "N", "also write frame N (counted from 0) as a PNG picture");
  args.option("png-file", 0, "FILE", "where --png writes (default: OUT or INPUT, -frameN.png)");
  args.option("fps", 0, "RATE", "frame rate for the Y4M header, e.g. 30 or 30000:1001",
              "the container's, else 30");
  args.flag("unlimited-output", 0,
            "don't stop when stand-in and failed pictures outgrow the input");
  args.flag("verbose", 'v', "one line per frame, with the reasons for failures");
  args.flag("quiet", 'q', "no progress bar, no summary; errors only");
  args.epilog(kDecodeHelp);
  if (!args.parse(argc, argv, first)) return false;
  if (args.positional().size() != 1) {
    throw UsageError(args.positional().empty() ? "decode needs an INPUT file"
                                               : "decode takes one INPUT, got " +
                                                     std::to_string(args.positional().size()));
  }
  DecodeSettings& s = *settings;
  s.input = args.positional()[0];
  s.verbose = args.has("verbose");
  s.quiet = args.has("quiet");
  s.unlimited_output = args.has("unlimited-output");
  s.choice.turbo = args.has("turbo");
  s.choice.fallback = !args.has("no-fallback");
  s.png_index = args.integer("png", -1, 0, INT64_MAX);
  if (args.has("png-file") && s.png_index < 0) throw UsageError("--png-file needs --png N");
  if (args.has("fps") && !parseFrameRate(args.value("fps"), &s.fps_num, &s.fps_den)) {
    throw UsageError("--fps expects a rate such as 30 or 30000:1001, got '" + args.value("fps") +
                     "'");
  }
  s.output = args.has("output") ? args.value("output") : "";
  s.format = args.has("format") ? args.value("format") : "";
  if (!s.format.empty() && s.output.empty()) throw UsageError("--format needs -o OUT");
  if (!s.output.empty()) VideoWriter::formatFor(s.output, s.format);  // fail early
  s.png_path = s.png_index >= 0 ? pngPathFor(args, s.input, s.png_index) : "";
  // Writing over the input would truncate the file that is being read.
  for (const std::string& written : {s.output, s.png_path}) {
    if (s.input != "-" && !written.empty() && written != "-" && sameFile(s.input, written)) {
      throw ToolError(kExitUsage, written + ": is the input file; write to another file");
    }
  }
  if (!s.png_path.empty()) {
    const std::string folder = std::filesystem::path(s.png_path).parent_path().string();
    if (access(folder.empty() ? "." : folder.c_str(), W_OK) != 0)
      throw ioError(s.png_path, "cannot create", errno);
  }
  return true;
}

std::string frameLabel(const Frame& frame) {
  std::string label = "frame " + std::to_string(frame.index);
  const std::string where = FrameReader::where(frame);
  if (!where.empty()) label += " (" + where + ")";
  return label;
}

std::string sizeText(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

// Decoding stopped: pictures the input doesn't hold outgrew it (see countMadeUp).
struct OutputLimitReached {
  std::string message;
};

// One run of the command: open, decode frame by frame, summarise.
class DecodeRun {
 public:
  explicit DecodeRun(DecodeSettings settings)
      : s_(std::move(settings)), progress_(!s_.verbose && !s_.quiet) {}

  void open();
  void decodeAll();
  int finish();
  void discardEmptyOutput() {
    if (writer_ != nullptr && writer_->frames() == 0) writer_->discard();
  }

 private:
  void handleFrame(const Frame& frame);
  void reportFrame(const Frame& frame, const FrameResult& result);
  void writePNG(const Frame& frame, const FrameResult& result);
  void emit(const Frame& frame, Outcome outcome);
  void writeStandIns(int64_t count);
  void countMadeUp(uint64_t bytes);
  void warn(int* count, const std::string& text);
  void printSummary() const;

  DecodeSettings s_;
  std::unique_ptr<FrameReader> reader_;
  std::unique_ptr<VideoWriter> writer_;
  ProgressBar progress_;
  OutcomeTally tally_;
  I420Image image_;
  StandIn stand_in_;
  std::map<std::pair<int, int>, int64_t> sizes_;
  std::map<std::string, int64_t> reasons_;
  int64_t frames_ = 0, cut_short_ = 0, not_written_ = 0, fragments_ = 0;
  int64_t pending_stand_ins_ = 0;  // frames without a picture before the output size is known
  uint64_t junk_bytes_ = 0, input_bytes_ = 0, made_up_bytes_ = 0;
  int size_warnings_ = 0, cut_warnings_ = 0;
  std::string read_error_, png_problem_, stop_message_;
  bool png_written_ = false;
};

void DecodeRun::open() {
  setFFmpegLogging(s_.verbose);
  reader_ = FrameReader::open(s_.input);
  if (s_.fps_num == 0 && !reader_->frameRate(&s_.fps_num, &s_.fps_den)) {
    s_.fps_num = 30;
    s_.fps_den = 1;
  }
  if (!s_.output.empty()) {
    writer_ = std::make_unique<VideoWriter>(s_.output, s_.fps_num, s_.fps_den, s_.format);
    int width = 0, height = 0;
    if (reader_->usualFrameSize(&width, &height)) writer_->setSize(width, height);
  }
  quietLibraryLog();
}

void DecodeRun::decodeAll() {
  try {
    for (Frame frame; reader_->nextOrStop(&frame, &read_error_);) {
      handleFrame(frame);
      progress_.update(reader_->progress(), frames_);
    }
  } catch (const OutputLimitReached& stop) {
    stop_message_ = stop.message;
  }
  progress_.finish();
  junk_bytes_ += reader_->trailingJunk();
  if (writer_ != nullptr) writer_->close();
}

void DecodeRun::handleFrame(const Frame& frame) {
  input_bytes_ += frame.size + frame.junk_before;
  junk_bytes_ += frame.junk_before;
  jpeg::FrameHeader header;
  jpeg::readFrameHeader(frame.data, frame.size, &header);
  if (!header.has_scan) {
    // Marker-like junk or a frame cut inside its header: no picture could come of it.
    ++fragments_;
    junk_bytes_ += frame.size;
    if (s_.verbose) {
      std::fprintf(stderr, "%s: %zu bytes without a scan: skipped as junk\n",
                   frameLabel(frame).c_str(), frame.size);
    }
    return;
  }
  ++frames_;
  if (frame.cut_short) {
    ++cut_short_;
    warn(&cut_warnings_, frameLabel(frame) +
                             " is cut short: no EOI marker before the next frame or the end of "
                             "the input (" +
                             std::to_string(frame.size) + " bytes)");
  }
  const FrameResult result = decodeFrame(frame.data, frame.size, s_.choice, &image_);
  tally_.add(result);
  if (result.sized && frameSizeUsable(result.header.width, result.header.height)) {
    ++sizes_[{result.header.width, result.header.height}];
  } else if (result.sized) {
    warn(&size_warnings_, frameLabel(frame) + " claims " +
                              sizeText(result.header.width, result.header.height) +
                              ", more than this tool decodes (8192x8192 pixels): refused");
  }
  if (!result.reason.empty()) ++reasons_[result.reason];
  reportFrame(frame, result);
  if (frame.index == s_.png_index) writePNG(frame, result);
  emit(frame, result.outcome);
}

void DecodeRun::reportFrame(const Frame& frame, const FrameResult& result) {
  if (!s_.verbose) return;
  if (frame.junk_before > 0) {
    std::fprintf(stderr, "%s: %zu junk bytes skipped in front of it\n", frameLabel(frame).c_str(),
                 frame.junk_before);
  }
  std::string what = "size unreadable";
  if (result.sized) {
    what = sizeText(result.header.width, result.header.height);
    const std::string layout = layoutName(result.header);
    if (!layout.empty()) what += " " + layout;
  }
  std::fprintf(stderr, "%s: %s, %zu bytes: %s%s in %.2f ms%s%s%s\n", frameLabel(frame).c_str(),
               what.c_str(), frame.size, outcomeName(result.outcome),
               result.fallback ? " (TurboJPEG fallback)" : "", result.seconds * 1e3,
               frame.cut_short ? " (cut short)" : "", result.reason.empty() ? "" : ": ",
               result.reason.c_str());
}

void DecodeRun::writePNG(const Frame& frame, const FrameResult& result) {
  if (result.outcome == Outcome::kRefused) {
    png_problem_ = frameLabel(frame) + " was refused by the decoder: no PNG written";
    return;
  }
  tool::writePNG(s_.png_path, toRGB(image_));
  png_written_ = true;
  if (s_.verbose) std::fprintf(stderr, "wrote %s\n", s_.png_path.c_str());
}

// Puts the frame's picture (image_, unless it was refused) into the output, or a stand-in.
void DecodeRun::emit(const Frame& frame, Outcome outcome) {
  if (writer_ == nullptr) return;
  const bool has_picture = outcome != Outcome::kRefused;
  // Without a usual size the first picture fixes it.
  if (writer_->width() == 0 && has_picture) writer_->setSize(image_.width, image_.height);
  const uint64_t before = writer_->bytes();
  if (has_picture && writer_->write(image_)) {
    if (outcome == Outcome::kFailed) countMadeUp(writer_->bytes() - before);
    writeStandIns(std::exchange(pending_stand_ins_, 0));
    stand_in_.take(&image_);
    return;
  }
  if (has_picture) {
    ++not_written_;
    warn(&size_warnings_, frameLabel(frame) + " is " + sizeText(image_.width, image_.height) +
                              " but " + writer_->path() + " holds " +
                              sizeText(writer_->width(), writer_->height()) +
                              " (one size per file); the previous picture stands in for it");
  }
  ++pending_stand_ins_;
  if (writer_->width() > 0) writeStandIns(std::exchange(pending_stand_ins_, 0));
}

void DecodeRun::writeStandIns(int64_t count) {
  for (; count > 0; --count) {
    const uint64_t before = writer_->bytes();
    writer_->write(stand_in_.get(writer_->width(), writer_->height()));
    countMadeUp(writer_->bytes() - before);
  }
}

// Stand-ins and failed frames (mostly concealment) are pictures the input doesn't hold: a few
// bytes that claim a large frame would make any amount of them. Past the limit, decoding stops.
void DecodeRun::countMadeUp(uint64_t bytes) {
  made_up_bytes_ += bytes;
  if (s_.unlimited_output || made_up_bytes_ <= kMadeUpFloor ||
      made_up_bytes_ <= kMadeUpRatio * input_bytes_) {
    return;
  }
  throw OutputLimitReached{
      "stopped: pictures the input doesn't hold (stand-ins for refused frames, failed frames) "
      "reached " +
      std::to_string(made_up_bytes_ >> 20) + " MiB for " + std::to_string(input_bytes_ >> 10) +
      " KiB of input; --unlimited-output writes them all"};
}

// A warning about one frame. Clears the progress bar first; past ten of a kind (unless
// --verbose) the summary counts the rest.
void DecodeRun::warn(int* count, const std::string& text) {
  if (s_.quiet) return;
  progress_.finish();
  if (!s_.verbose && *count >= 10) {
    if (*count == 10) std::fprintf(stderr, "vidra-mjpeg: (more of these: see the summary)\n");
    ++*count;
    return;
  }
  ++*count;
  std::fprintf(stderr, "vidra-mjpeg: %s: %s\n", reader_->path().c_str(), text.c_str());
}

void DecodeRun::printSummary() const {
  std::string sizes = "no usable frame size";
  if (sizes_.size() == 1)
    sizes = sizeText(sizes_.begin()->first.first, sizes_.begin()->first.second);
  if (sizes_.size() > 1) {
    sizes = "sizes vary:";
    for (const auto& [size, count] : sizes_) {
      sizes += " " + sizeText(size.first, size.second) + " (" + std::to_string(count) + ")";
    }
  }
  std::fprintf(stderr, "%s: %s, %lld frames, %s\n", reader_->path().c_str(),
               reader_->kind().c_str(), static_cast<long long>(frames_), sizes.c_str());
  auto line = [](const char* label, int64_t count, const std::string& text) {
    std::fprintf(stderr, "  %-11s%8lld  %s\n", label, static_cast<long long>(count), text.c_str());
  };
  line("decoded", tally_.decoded,
       tally_.turbo == 0 && tally_.fallback == 0
           ? "clean"
           : "clean, or accepted by TurboJPEG, which doesn't tell damaged frames apart");
  if (tally_.concealed) line("concealed", tally_.concealed, "accepted, damaged MCUs concealed");
  if (tally_.failed) line("failed", tally_.failed, "written concealed, too few MCUs decoded");
  if (tally_.refused) {
    line("refused", tally_.refused,
         writer_ ? "not decoded (the output repeats the previous picture)" : "not decoded");
  }
  if (tally_.fallback) line("fallback", tally_.fallback, "of these decoded by TurboJPEG instead");
  if (cut_short_) line("cut short", cut_short_, "frames without EOI marker");
  if (fragments_) line("fragments", fragments_, "pieces without a scan, skipped as junk");
  if (junk_bytes_) line("junk", static_cast<int64_t>(junk_bytes_), "bytes skipped outside frames");
  if (not_written_) line("not written", not_written_, "frames of another size than the output");
  double fps = 0, mps = 0;
  if (tally_.speed(&fps, &mps)) {
    std::fprintf(
        stderr,
        "  speed      %.1f frames/s, %.1f MP/s in %s (%lld frames; refused ones not counted)\n",
        fps, mps, tally_.decodersText().c_str(), static_cast<long long>(tally_.timed));
  }
  if (writer_ != nullptr && writer_->frames() > 0) {
    std::fprintf(
        stderr, "  output     %s: %lld frames of %dx%d, %s\n", writer_->path().c_str(),
        static_cast<long long>(writer_->frames()), writer_->width(), writer_->height(),
        writer_->format() == VideoWriter::Format::kY4M ? "Y4M 4:2:0 full range" : "raw I420");
  } else if (writer_ != nullptr) {
    std::fprintf(stderr, "  output     %s: empty, no frame could be decoded\n",
                 writer_->path().c_str());
  }
  if (!read_error_.empty()) std::fprintf(stderr, "  input      %s\n", read_error_.c_str());
  if (!reasons_.empty()) {
    std::vector<std::pair<int64_t, std::string>> ranked;
    for (const auto& [reason, count] : reasons_) ranked.push_back({-count, reason});
    std::sort(ranked.begin(), ranked.end());
    std::fprintf(stderr, "  reasons:\n");
    for (size_t i = 0; i < ranked.size() && i < 5; ++i) {
      std::fprintf(stderr, "    %6lldx  %s\n", static_cast<long long>(-ranked[i].first),
                   ranked[i].second.c_str());
    }
  }
  if (png_written_) std::fprintf(stderr, "  picture    %s\n", s_.png_path.c_str());
}

int DecodeRun::finish() {
  if (!s_.quiet) printSummary();
  int code = kExitOk;
  if (tally_.failed || tally_.refused || not_written_ || fragments_ || !read_error_.empty() ||
      !stop_message_.empty()) {
    code = kExitFrames;
  }
  const char* path = reader_->path().c_str();
  if (!stop_message_.empty())
    std::fprintf(stderr, "vidra-mjpeg: %s: %s\n", path, stop_message_.c_str());
  if (frames_ == 0) {
    std::fprintf(stderr, "vidra-mjpeg: %s: no MJPEG frames in it%s\n", path,
                 fragments_ ? " (only fragments without a scan)" : "");
    code = kExitUsage;
  }
  if (!png_problem_.empty()) {
    std::fprintf(stderr, "vidra-mjpeg: %s: --png %lld: %s\n", path,
                 static_cast<long long>(s_.png_index), png_problem_.c_str());
    code = std::max(code, static_cast<int>(kExitFrames));
  } else if (s_.png_index >= 0 && !png_written_) {
    std::fprintf(stderr, "vidra-mjpeg: %s: --png %lld: the input has only %lld frames\n", path,
                 static_cast<long long>(s_.png_index), static_cast<long long>(frames_));
    code = kExitUsage;
  }
  // An output that got no frame goes again when the command fails (exit 2).
  if (code == kExitUsage) discardEmptyOutput();
  return code;
}

}  // namespace

int runDecode(int argc, char** argv, int first) {
  DecodeSettings settings;
  if (!parseDecodeArgs(argc, argv, first, &settings)) return kExitOk;
  DecodeRun run(std::move(settings));
  try {
    run.open();
    run.decodeAll();
  } catch (...) {
    // An error (exit 2) before any frame went into OUT removes it, as finish() does.
    run.discardEmptyOutput();
    throw;
  }
  return run.finish();
}

}  // namespace tool
}  // namespace vidra
