#include "tool/tool_test_support.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern "C" {
#include <libavformat/avformat.h>
}

extern char** environ;

namespace vidra {
namespace test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/vidra-tool-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

void writeFile(const std::string& path, const std::vector<uint8_t>& data) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

void writeFile(const std::string& path, const std::string& text) {
  writeFile(path, std::vector<uint8_t>(text.begin(), text.end()));
}

namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

std::string ToolRun::describe() const {
  return "exit code " + std::to_string(code) + "\n--- stdout ---\n" + out.substr(0, 4000) +
         "\n--- stderr ---\n" + err.substr(0, 4000);
}

ToolRun runTool(const std::vector<std::string>& args, const std::string& stdin_path) {
  TempDir scratch;
  const std::string out_path = scratch.file("stdout"), err_path = scratch.file("stderr");
  std::vector<std::string> argv_storage{VIDRA_TOOL_PATH};
  argv_storage.insert(argv_storage.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : argv_storage) argv.push_back(arg.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(
      &actions, 0, stdin_path.empty() ? "/dev/null" : stdin_path.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t pid = 0;
  ToolRun run;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    run.err = std::string("cannot start ") + argv[0] + ": " + std::strerror(spawned);
    return run;
  }
  // The tool must never hang: give it two minutes (sanitizer builds are slow), then kill it.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  int status = 0;
  while (true) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      run.err = "timed out\n";
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (WIFEXITED(status)) run.code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.code = 128 + WTERMSIG(status);
  run.out = slurp(out_path);
  run.err += slurp(err_path);
  return run;
}

std::vector<uint8_t> concatFrames(const std::vector<std::vector<uint8_t>>& frames,
                                  const std::vector<uint8_t>& junk) {
  std::vector<uint8_t> stream;
  for (size_t i = 0; i < frames.size(); ++i) {
    if (i > 0) stream.insert(stream.end(), junk.begin(), junk.end());
    stream.insert(stream.end(), frames[i].begin(), frames[i].end());
  }
  return stream;
}

std::string muxMJPEG(const std::string& path, const char* format,
                     const std::vector<std::vector<uint8_t>>& frames, int width, int height) {
  AVFormatContext* context = nullptr;
  if (avformat_alloc_output_context2(&context, nullptr, format, path.c_str()) < 0 || !context) {
    return std::string("no muxer for ") + format;
  }
  std::string error;
  AVStream* stream = avformat_new_stream(context, nullptr);
  AVPacket* packet = av_packet_alloc();
  const AVRational rate{1, 25};
  if (stream == nullptr || packet == nullptr) {
    error = "out of memory";
  } else {
    stream->time_base = rate;
    stream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    stream->codecpar->codec_id = AV_CODEC_ID_MJPEG;
    stream->codecpar->codec_tag = 0;
    stream->codecpar->width = width;
    stream->codecpar->height = height;
    stream->codecpar->format = AV_PIX_FMT_YUVJ422P;
    if (avio_open(&context->pb, path.c_str(), AVIO_FLAG_WRITE) < 0) {
      error = "cannot create " + path;
    } else if (avformat_write_header(context, nullptr) < 0) {
      error = "cannot write the header";
    } else {
      for (size_t i = 0; i < frames.size() && error.empty(); ++i) {
        if (av_new_packet(packet, static_cast<int>(frames[i].size())) < 0) {
          error = "out of memory";
          break;
        }
        std::memcpy(packet->data, frames[i].data(), frames[i].size());
        packet->pts = packet->dts = static_cast<int64_t>(i);
        packet->duration = 1;
        packet->stream_index = stream->index;
        packet->flags |= AV_PKT_FLAG_KEY;
        av_packet_rescale_ts(packet, rate, stream->time_base);
        if (av_interleaved_write_frame(context, packet) < 0) error = "cannot write a packet";
        av_packet_unref(packet);
      }
      if (av_write_trailer(context) < 0 && error.empty()) error = "cannot write the trailer";
    }
    avio_closep(&context->pb);
  }
  av_packet_free(&packet);
  avformat_free_context(context);
  return error;
}

VideoProbe probeVideo(const std::string& path) {
  VideoProbe probe;
  AVFormatContext* context = nullptr;
  if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) {
    probe.error = "libavformat can't open " + path;
    return probe;
  }
  if (avformat_find_stream_info(context, nullptr) < 0) {
    probe.error = "no stream info";
  } else {
    const int index = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0) {
      probe.error = "no video stream";
    } else {
      const AVCodecParameters* parameters = context->streams[index]->codecpar;
      probe.format = context->iformat->name;
      probe.width = parameters->width;
      probe.height = parameters->height;
      probe.pix_fmt = parameters->format;
      probe.color_range = parameters->color_range;
      AVPacket* packet = av_packet_alloc();
      while (av_read_frame(context, packet) >= 0) {
        if (packet->stream_index == index) ++probe.frames;
        av_packet_unref(packet);
      }
      av_packet_free(&packet);
    }
  }
  avformat_close_input(&context);
  return probe;
}

bool pngSize(const std::string& path, int* width, int* height) {
  const std::string data = slurp(path);
  static const char kSignature[] = "\x89PNG\r\n\x1a\n";
  if (data.size() < 24 || data.compare(0, 8, kSignature, 8) != 0 ||
      data.compare(12, 4, "IHDR") != 0) {
    return false;
  }
  auto be32 = [&](size_t at) {
    return (static_cast<uint8_t>(data[at]) << 24) | (static_cast<uint8_t>(data[at + 1]) << 16) |
           (static_cast<uint8_t>(data[at + 2]) << 8) | static_cast<uint8_t>(data[at + 3]);
  };
  *width = static_cast<int>(be32(16));
  *height = static_cast<int>(be32(20));
  return true;
}

int countOf(const std::string& text, const std::string& needle) {
  int count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace test
}  // namespace vidra
