// Helpers for the tool tests: running the tool, scratch folders, video files, reading back output.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace vidra {
namespace test {

// A scratch folder, removed with everything in it at the end of the test.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Writes `data` (bytes or text) to `path`.
template <typename Data>
void writeFile(const std::string& path, const Data& data) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

struct ToolRun {
  int code = -1;  // exit code; 128 + signal when the tool died of a signal
  std::string out, err;
  // For failure messages: the command's exit code and both outputs.
  std::string describe() const;
};

// Runs the vidra-mjpeg binary with `args`, stdin from `stdin_path` (or /dev/null), and waits
// for it. A sanitizer report exits with 99, so it can't pass for exit code 1; a tool that hangs
// is stopped after two minutes (exit code 124 or 137).
ToolRun runTool(const std::vector<std::string>& args, const std::string& stdin_path = "");

// The vidra-mjpeg binary reading a pipe, as from a live source. Its standard output, a pipe as
// well (so that the tool flushes every frame), and its messages are collected in files while it
// runs; a tool that hangs is stopped after two minutes, as by runTool.
class ToolProcess {
 public:
  explicit ToolProcess(const std::vector<std::string>& args);
  ~ToolProcess() {
    if (in_ != nullptr) pclose(in_);
  }
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  // Writes `data` to the tool's standard input; false when the tool stopped reading.
  bool send(const std::vector<uint8_t>& data);
  // The tool's output so far, once it holds `bytes` bytes or `timeout_ms` have passed.
  std::string output(size_t bytes, int timeout_ms) const;
  // Closes the tool's standard input and waits for it to exit.
  ToolRun finish();

 private:
  TempDir scratch_;
  FILE* in_ = nullptr;
};

// Passes when `text` contains `fragment`; a failure shows the whole text.
testing::AssertionResult has(const std::string& text, const std::string& fragment);

// `frame` with the size in its SOF0 header replaced, as a damaged header may claim another.
std::vector<uint8_t> claimingSize(std::vector<uint8_t> frame, int width, int height);

// Writes `frames` as the MJPEG video track (25 frames/s) of a container through libavformat's
// muxer; `format` is its short name ("avi", "matroska", "mov"). Returns "" or the error.
std::string muxMJPEG(const std::string& path, const char* format,
                     const std::vector<std::vector<uint8_t>>& frames, int width, int height);

// A PNG file as libpng reads it: "<W>x<H> RGB" for 8-bit RGB, "<W>x<H> format <n>" otherwise,
// "unreadable" when libpng refuses it; its pixels, as RGB, into `pixels` when given.
std::string pngInfo(const std::string& path, std::vector<uint8_t>* pixels = nullptr);

}  // namespace test
}  // namespace vidra
