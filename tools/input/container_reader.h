// The MJPEG track of a container that FFmpeg's libavformat reads (AVI, MKV, MOV, ...).
#pragma once

#include <memory>
#include <string>

#include "input/frame_reader.h"

namespace vidra {
namespace tool {

// What FFmpeg makes of a file.
enum class ContainerProbe {
  kMJPEGTrack,     // a container with an MJPEG video track: `reader` reads it
  kRawJPEG,        // FFmpeg sees JPEG data without a container: split it ourselves
  kOtherVideo,     // a container whose video isn't MJPEG (`message` says what it is)
  kNoVideo,        // a container whose tracks hold no video (audio only, ...)
  kNotRecognised,  // FFmpeg can't open it, or finds no track in it
};

// Opens `path` through libavformat. Returns the reader for kMJPEGTrack, else null with the
// outcome in `result` (and a message for kOtherVideo and kNoVideo).
std::unique_ptr<FrameReader> probeContainer(const std::string& path, ContainerProbe* result,
                                            std::string* message);

}  // namespace tool
}  // namespace vidra
