// The C interface of the splitter (vidra/splitter_c.h).

#include "vidra/splitter_c.h"

#include <new>

#include "vidra/splitter.h"

struct vidra_mjpeg_splitter {
  explicit vidra_mjpeg_splitter(size_t limit) : splitter(limit) {}
  vidra::jpeg::MJPEGStreamSplitter splitter;
};

namespace {

void toC(const vidra::jpeg::SplitFrame& in, vidra_mjpeg_split_frame* out) {
  *out = vidra_mjpeg_split_frame{};
  out->offset = in.offset;
  out->size = in.size;
  out->junk_before = in.junk_before;
  out->cut_short = in.cut_short;
  out->needs_more = in.needs_more;
}

}  // namespace

extern "C" {

int vidra_mjpeg_splitter_find(const uint8_t* data, size_t size, int end_of_input,
                              vidra_mjpeg_split_frame* frame) {
  if (frame == nullptr) return VIDRA_MJPEG_SPLIT_NO_FRAME;
  vidra::jpeg::SplitFrame found;
  const vidra::jpeg::SplitStatus status =
      vidra::jpeg::findFrame(data, size, end_of_input != 0, &found);
  toC(found, frame);
  return static_cast<int>(status);
}

vidra_mjpeg_splitter* vidra_mjpeg_splitter_new(uint64_t frame_limit) {
  const size_t limit = frame_limit == 0 || frame_limit > SIZE_MAX
                           ? vidra::jpeg::MJPEGStreamSplitter::kDefaultFrameLimit
                           : static_cast<size_t>(frame_limit);
  try {
    return new vidra_mjpeg_splitter(limit);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void vidra_mjpeg_splitter_free(vidra_mjpeg_splitter* splitter) { delete splitter; }

int vidra_mjpeg_splitter_feed(vidra_mjpeg_splitter* splitter, const uint8_t* data, size_t size) {
  if (splitter == nullptr) return 0;
  try {
    splitter->splitter.feed(data, size);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return 1;
}

void vidra_mjpeg_splitter_finish(vidra_mjpeg_splitter* splitter) {
  if (splitter != nullptr) splitter->splitter.finish();
}

int vidra_mjpeg_splitter_next(vidra_mjpeg_splitter* splitter, const uint8_t** data,
                              vidra_mjpeg_split_frame* frame) {
  if (splitter == nullptr) return 0;
  vidra::jpeg::StreamFrame found;
  if (!splitter->splitter.next(&found)) return 0;
  if (data != nullptr) *data = found.data;
  if (frame != nullptr) {
    *frame = vidra_mjpeg_split_frame{};
    frame->offset = found.offset;
    frame->size = found.size;
    frame->junk_before = found.junk_before;
    frame->cut_short = found.cut_short;
  }
  return 1;
}

uint64_t vidra_mjpeg_splitter_pending_junk(const vidra_mjpeg_splitter* splitter) {
  return splitter != nullptr ? splitter->splitter.pendingJunk() : 0;
}

uint64_t vidra_mjpeg_splitter_total_junk(const vidra_mjpeg_splitter* splitter) {
  return splitter != nullptr ? splitter->splitter.totalJunk() : 0;
}

}  // extern "C"
