// Raw MJPEG streams and single JPEGs, read from a file descriptor as they come: a file, a pipe,
// a FIFO or a device.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "input/frame_reader.h"
#include "vidra/splitter.h"

namespace vidra {
namespace tool {

// A frame still open after this many bytes is cut there (vidra::jpeg::MJPEGStreamSplitter), so
// that a stream without frame ends can't fill the memory. Files get more room than pipes, whose
// frames come from a live source.
constexpr size_t kStreamFrameLimit = jpeg::MJPEGStreamSplitter::kDefaultFrameLimit;
constexpr size_t kFileFrameLimit = size_t{256} << 20;

// What a read(2) asks for.
constexpr size_t kStreamReadSize = 65536;

// Reads `fd` from its current offset on. Reads until the first SOI has come, so that an input
// without one fails (ToolError, kExitUsage) before anything is written: with "<name>: no data",
// or with `no_soi_message` (default "<name>: no JPEG frame found (no SOI marker)"). A source that
// never sends an SOI (/dev/zero) is read for as long as it sends; memory stays bounded. A regular
// file (`fd` open on one) gives progress and the usual frame size, and a file that shrinks while
// it is read ends with a read error (kExitFrames) after the frames before the cut.
std::unique_ptr<FrameReader> startStreamReader(const std::string& name, int fd, bool owns_fd,
                                               size_t read_size, size_t frame_limit,
                                               const std::string& no_soi_message = "");

}  // namespace tool
}  // namespace vidra
