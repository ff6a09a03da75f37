// A host application's use of the library, as shown in the README. The install test builds it
// against the installed headers and libraries, once through pkg-config and once through
// find_package(vidra-mjpeg).

#include <vidra/mjpeg.h>

#include <cstdio>
#include <vector>

int main() {
  // Smallest possible baseline frame: 8x8 grey, 4:2:0 tables omitted -> decoding must refuse
  // the truncated stream without crashing; a real application passes each camera frame here.
  const uint8_t frame[] = {0xFF, 0xD8, 0xFF, 0xD9};
  int width = 0, height = 0;
  if (vidra::jpeg::getJPEGImageSize(frame, sizeof(frame), &width, &height)) {
    std::printf("size %dx%d\n", width, height);
  }
  const int w = 640, h = 480;
  std::vector<uint8_t> y(w * h), u((w / 2) * (h / 2)), v((w / 2) * (h / 2));
  const bool ok = vidra::jpeg::decompressMJPEG(frame, sizeof(frame), w, h, /*insert_dht=*/true,
                                               y.data(), w, u.data(), w / 2, v.data(), w / 2);
  std::printf("decoded: %s\n", ok ? "yes" : "no");
  return ok ? 1 : 0;  // this stream is not a frame: refusing it is the expected outcome
}
