#include "tool/tool_test_support.h"

#include <fcntl.h>
#include <png.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <sstream>
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

// The shell command that runs the tool with `args`: a sanitizer report exits with 99, and a
// tool that hangs is stopped after two minutes.
std::string toolCommand(const std::vector<std::string>& args) {
  std::string command =
      "ASAN_OPTIONS=\"$ASAN_OPTIONS:exitcode=99\" UBSAN_OPTIONS=\"$UBSAN_OPTIONS:exitcode=99\" "
      "exec timeout -k 5 120 " +
      quote(VIDRA_TOOL_PATH);
  for (const std::string& arg : args) command += " " + quote(arg);
  return command;
}

int exitCode(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::string ToolRun::describe() const {
  return "exit code " + std::to_string(code) + "\n--- stdout ---\n" + out.substr(0, 4000) +
         "\n--- stderr ---\n" + err.substr(0, 4000);
}

ToolRun runTool(const std::vector<std::string>& args, const std::string& stdin_path) {
  TempDir scratch;
  std::string command = toolCommand(args);
  command += " <" + quote(stdin_path.empty() ? "/dev/null" : stdin_path) + " >" +
             quote(scratch.file("out")) + " 2>" + quote(scratch.file("err"));
  const int status = std::system(command.c_str());
  ToolRun run;
  run.code = exitCode(status);
  run.out = slurp(scratch.file("out"));
  run.err = slurp(scratch.file("err"));
  return run;
}

ToolProcess::ToolProcess(const std::vector<std::string>& args) {
  // A tool that exits early must not take the test down with SIGPIPE.
  signal(SIGPIPE, SIG_IGN);
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  const std::string command = toolCommand(args) + " 2>" + quote(scratch_.file("err"));
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  const int failed =
      posix_spawn(&pid_, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  in_ = in[1];
  out_fd_ = out[0];
  fcntl(in_, F_SETFL, O_NONBLOCK);
  fcntl(out_fd_, F_SETFL, O_NONBLOCK);
  if (failed != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start the tool");
  }
}

ToolProcess::~ToolProcess() {
  if (in_ >= 0) close(in_);
  if (out_fd_ >= 0) close(out_fd_);
  if (pid_ > 0) {
    kill(pid_, SIGTERM);  // `timeout` passes it on to the tool
    int status;
    waitpid(pid_, &status, 0);
  }
}

bool ToolProcess::pump(const uint8_t* data, size_t size, size_t want, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (size > 0 || out_.size() < want) {
    pollfd fds[2];
    int n = 0;
    if (size > 0 && in_ >= 0) fds[n++] = {in_, POLLOUT, 0};
    if (out_fd_ >= 0) fds[n++] = {out_fd_, POLLIN, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (n == 0 || left <= 0) return false;
    if (poll(fds, n, static_cast<int>(left)) < 0 && errno != EINTR) return false;
    for (int i = 0; i < n; ++i) {
      if (fds[i].revents == 0) continue;
      if (fds[i].fd == in_) {
        const ssize_t wrote = write(in_, data, size);
        if (wrote < 0 && errno != EAGAIN && errno != EINTR) return false;  // the tool is gone
        if (wrote > 0) {
          data += wrote;
          size -= static_cast<size_t>(wrote);
        }
      } else {
        char chunk[1 << 16];
        const ssize_t got = read(out_fd_, chunk, sizeof(chunk));
        if (got > 0) out_.append(chunk, static_cast<size_t>(got));
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
          close(out_fd_);
          out_fd_ = -1;
        }
      }
    }
  }
  return true;
}

bool ToolProcess::send(const std::vector<uint8_t>& data, int timeout_ms) {
  return pump(data.data(), data.size(), 0, timeout_ms);
}

bool ToolProcess::receive(size_t bytes, int timeout_ms) {
  return pump(nullptr, 0, bytes, timeout_ms);
}

ToolRun ToolProcess::finish() {
  if (in_ >= 0) close(in_);
  in_ = -1;
  pump(nullptr, 0, std::string::npos, 130000);  // to the end of the output
  ToolRun run;
  int status = 0;
  if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_) run.code = exitCode(status);
  pid_ = -1;
  run.out = out_;
  run.err = slurp(scratch_.file("err"));
  return run;
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
    // Not reference-counted: the muxer copies the data. The muxer may have changed the time
    // base when it wrote the header.
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
