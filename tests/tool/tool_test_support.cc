#include "tool/tool_test_support.h"

#include <png.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
}

#include "support/test_support.h"

namespace vidra {
namespace test {

TempDir::TempDir() {
  std::string pattern = std::filesystem::temp_directory_path().string() + "/vidra-tool-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

namespace {

std::string slurp(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// `word` as one word for the shell.
std::string quote(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The shell command that runs the tool with `args` under runTool's limits.
std::string toolCommand(const std::vector<std::string>& args) {
  std::string command =
      "ASAN_OPTIONS=\"$ASAN_OPTIONS:exitcode=99\" UBSAN_OPTIONS=\"$UBSAN_OPTIONS:exitcode=99\" "
      "timeout -k 5 120 " +
      quote(VIDRA_TOOL_PATH);
  for (const std::string& arg : args) command += " " + quote(arg);
  return command;
}

}  // namespace

std::string ToolRun::describe() const {
  return "exit code " + std::to_string(code) + "\n--- stdout ---\n" + out.substr(0, 4000) +
         "\n--- stderr ---\n" + err.substr(0, 4000);
}

ToolRun runTool(const std::vector<std::string>& args, const std::string& stdin_path) {
  TempDir scratch;
  const std::string command = toolCommand(args) + " <" +
                              quote(stdin_path.empty() ? "/dev/null" : stdin_path) + " >" +
                              quote(scratch.file("out")) + " 2>" + quote(scratch.file("err"));
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
          slurp(scratch.file("out")), slurp(scratch.file("err"))};
}

ToolProcess::ToolProcess(const std::vector<std::string>& args) {
  signal(SIGPIPE, SIG_IGN);  // a tool that exits early must not take the test down
  // `cat` writes the output to its file as it comes; the tool's exit code goes to a file too.
  const std::string command = "{ " + toolCommand(args) + " 2>" + quote(scratch_.file("err")) +
                              "; echo $? >" + quote(scratch_.file("code")) + "; } | cat >" +
                              quote(scratch_.file("out"));
  in_ = popen(command.c_str(), "w");
  if (in_ == nullptr) throw std::runtime_error("cannot start the tool");
}

bool ToolProcess::send(const std::vector<uint8_t>& data) {
  return in_ != nullptr &&
         (data.empty() || std::fwrite(data.data(), 1, data.size(), in_) == data.size()) &&
         std::fflush(in_) == 0;
}

std::string ToolProcess::output(size_t bytes, int timeout_ms) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  std::string out = slurp(scratch_.file("out"));
  for (; out.size() < bytes && std::chrono::steady_clock::now() < deadline;
       out = slurp(scratch_.file("out"))) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return out;
}

ToolRun ToolProcess::finish() {
  if (in_ != nullptr) pclose(in_);
  in_ = nullptr;
  const std::string code = slurp(scratch_.file("code"));
  return {code.empty() ? -1 : std::stoi(code), slurp(scratch_.file("out")),
          slurp(scratch_.file("err"))};
}

testing::AssertionResult has(const std::string& text, const std::string& fragment) {
  if (text.find(fragment) != std::string::npos) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "no \"" << fragment << "\" in:\n" << text.substr(0, 4000);
}

std::vector<uint8_t> claimingSize(std::vector<uint8_t> frame, int width, int height) {
  const size_t sof = markerAt(frame, 0xC0);
  if (sof + 9 > frame.size()) throw std::runtime_error("no SOF0 segment in the frame");
  const uint8_t size[] = {static_cast<uint8_t>(height >> 8), static_cast<uint8_t>(height),
                          static_cast<uint8_t>(width >> 8), static_cast<uint8_t>(width)};
  std::copy(size, size + 4, frame.begin() + sof + 5);
  return frame;
}

std::string muxMJPEG(const std::string& path, const char* format,
                     const std::vector<std::vector<uint8_t>>& frames, int width, int height) {
  AVFormatContext* context = nullptr;
  if (avformat_alloc_output_context2(&context, nullptr, format, path.c_str()) < 0) {
    return std::string("no muxer for ") + format;
  }
  AVStream* stream = avformat_new_stream(context, nullptr);
  const AVRational rate{1, 25};
  stream->time_base = rate;
  AVCodecParameters* video = stream->codecpar;
  video->codec_type = AVMEDIA_TYPE_VIDEO;
  video->codec_id = AV_CODEC_ID_MJPEG;
  video->width = width;
  video->height = height;
  video->format = AV_PIX_FMT_YUVJ422P;
  bool ok = avio_open(&context->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0 &&
            avformat_write_header(context, nullptr) >= 0;
  const bool started = ok;
  AVPacket* packet = av_packet_alloc();
  for (size_t i = 0; i < frames.size() && ok; ++i) {
    // Not reference-counted: the muxer copies the data; the header may have changed the time base.
    packet->data = const_cast<uint8_t*>(frames[i].data());
    packet->size = static_cast<int>(frames[i].size());
    packet->pts = packet->dts = av_rescale_q(static_cast<int64_t>(i), rate, stream->time_base);
    packet->duration = av_rescale_q(1, rate, stream->time_base);
    packet->flags = AV_PKT_FLAG_KEY;
    ok = av_interleaved_write_frame(context, packet) >= 0;
  }
  av_packet_free(&packet);
  ok = started && av_write_trailer(context) >= 0 && ok;
  avio_closep(&context->pb);
  avformat_free_context(context);
  return ok ? "" : "cannot write " + path;
}

std::string pngInfo(const std::string& path, std::vector<uint8_t>* pixels) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return "unreadable";
  const std::string size = std::to_string(image.width) + "x" + std::to_string(image.height);
  const std::string info =
      size + (image.format == PNG_FORMAT_RGB ? " RGB" : " format " + std::to_string(image.format));
  image.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) return "unreadable";
  if (pixels) *pixels = std::move(rgb);
  return info;
}

}  // namespace test
}  // namespace vidra
