// vidra-mjpeg: command-line front end of the decoder library.
// For now it has one subcommand, `demo`, which needs no input files.

#include <turbojpeg.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vidra/mjpeg.h"

namespace {

// Renders a textured test picture and encodes it as a webcam would: 4:2:2, quality 90.
std::vector<uint8_t> makeFrame(int width, int height, int index) {
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
      const double t = index * 0.2;
      p[0] = static_cast<uint8_t>(128 + 100 * std::sin(x * 0.05 + t) * std::cos(y * 0.03));
      p[1] = static_cast<uint8_t>(128 + 90 * std::sin((x + y) * 0.02 - t));
      p[2] = static_cast<uint8_t>(((x / 16 + y / 16 + index) & 1) ? 200 : 60);
    }
  }
  tjhandle handle = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  tjCompress2(handle, rgb.data(), width, 0, height, TJPF_RGB, &jpeg, &size, TJSAMP_422, 90, 0);
  std::vector<uint8_t> frame(jpeg, jpeg + size);
  tjFree(jpeg);
  tjDestroy(handle);
  return frame;
}

int runDemo() {
  const int width = 1280, height = 720, frames = 30;
  std::vector<std::vector<uint8_t>> stream;
  for (int i = 0; i < frames; ++i) stream.push_back(makeFrame(width, height, i));
  std::vector<uint8_t> y(width * height), u(width / 2 * (height / 2)), v(u.size());
  const struct {
    const char* name;
    bool force_turbo;
  } paths[] = {{"library decoder", false}, {"turbo path", true}};
  for (const auto& path : paths) {
    vidra::jpeg::setForceJPEGTurboDecoder(path.force_turbo);
    int decoded = 0;
    const auto start = std::chrono::steady_clock::now();
    for (const auto& frame : stream) {
      decoded += vidra::jpeg::decompressMJPEG(frame.data(), frame.size(), width, height, true,
                                              y.data(), width, u.data(), width / 2, v.data(),
                                              width / 2);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%-16s %d/%d frames decoded, %.1f frames/s\n", path.name, decoded, frames,
                frames / seconds);
  }
  vidra::jpeg::setForceJPEGTurboDecoder(false);
  return 0;
}

void usage(FILE* out) {
  std::fprintf(out,
               "usage: vidra-mjpeg <command>\n"
               "commands:\n"
               "  demo    decode a generated 1280x720 MJPEG clip with both decoder paths\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  const std::string command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    usage(stdout);
    return 0;
  }
  if (command == "demo") return runDemo();
  std::fprintf(stderr, "vidra-mjpeg: unknown command '%s'\n", command.c_str());
  usage(stderr);
  return 2;
}
