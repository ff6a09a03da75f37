// Helpers for the vidra-mjpeg tool tests: running the tool, scratch folders, streams and
// video files made from frames, and reading back what the tool wrote.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
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

// The vidra-mjpeg binary running with pipes on its standard input and output, for tests that
// feed it a stream bit by bit. Its stderr goes to a file; it is killed if still running at the
// end of the test. The pipes' ends here don't block: send() and receive() read the tool's
// output while they wait, so a full pipe in one direction can't stall the other.
class ToolProcess {
 public:
  explicit ToolProcess(const std::vector<std::string>& args);
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  // Writes `data` to the tool's standard input. False when it took more than `timeout_ms`
  // or the tool stopped reading.
  bool send(const std::vector<uint8_t>& data, int timeout_ms);
  // Collects the tool's output until it holds `bytes` bytes; false after `timeout_ms`, or when
  // the output ended before.
  bool receive(size_t bytes, int timeout_ms);
  // Closes the tool's standard input, collects the rest of its output and waits for it to exit
  // (two minutes at most, as runTool).
  ToolRun finish();
  const std::string& out() const { return out_; }

 private:
  // Moves data both ways until `data` is written and the output holds `want` bytes.
  bool pump(const uint8_t* data, size_t size, size_t want, int timeout_ms);

  int pid_ = -1, in_ = -1, out_fd_ = -1;
  std::string out_;
  TempDir scratch_;
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
