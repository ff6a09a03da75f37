// Helpers for the vidra-mjpeg tool tests: running the tool, scratch folders, streams and
// video files made from frames, and reading back what the tool wrote.
#pragma once

#include <cstdint>
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

void writeFile(const std::string& path, const std::vector<uint8_t>& data);
void writeFile(const std::string& path, const std::string& text);

struct ToolRun {
  int code = -1;  // exit code; 128 + signal when the tool died of a signal
  std::string out, err;
  // For failure messages: the command's exit code and both outputs.
  std::string describe() const;
};

// Runs the vidra-mjpeg binary with `args` (stdin from /dev/null unless `stdin_path` is
// given) and waits for it, at most two minutes.
ToolRun runTool(const std::vector<std::string>& args, const std::string& stdin_path = "");

// Concatenates frames into one raw MJPEG stream, with `junk` between each two.
std::vector<uint8_t> concatFrames(const std::vector<std::vector<uint8_t>>& frames,
                                  const std::vector<uint8_t>& junk = {});

// Writes `frames` as the MJPEG video track of a container through libavformat's muxer;
// `format` is its short name ("avi", "matroska", "mov"). Returns "" or the error.
std::string muxMJPEG(const std::string& path, const char* format,
                     const std::vector<std::vector<uint8_t>>& frames, int width, int height);

// What libavformat makes of a video file.
struct VideoProbe {
  std::string error;  // empty on success
  std::string format;
  int width = 0, height = 0;
  int pix_fmt = -1;      // AVPixelFormat
  int color_range = -1;  // AVColorRange
  int frames = 0;        // packets of the video stream
};
VideoProbe probeVideo(const std::string& path);

// Width and height from a PNG's IHDR; false when the file isn't a PNG.
bool pngSize(const std::string& path, int* width, int* height);

// Number of times `needle` occurs in `text`.
int countOf(const std::string& text, const std::string& needle);

}  // namespace test
}  // namespace vidra
