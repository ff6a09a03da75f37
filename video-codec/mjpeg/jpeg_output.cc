// Output assembly: the decoder's planes into the caller's 4:2:0 planes.
//
// Luma is copied as it is, cropped to the frame's size. Chroma comes from slots 2 and 3 and is
// halved as the factors of slot 1 require: 4:4:4 in both directions, 4:2:2 vertically, 4:2:0
// not at all. Any other layout gives grey chroma. Every check comes before the first write,
// so a refused frame leaves the caller's planes as they were.

#include <cstddef>
#include <cstring>

#include "jpeg.h"
#include "jpeg_check.h"
#include "jpeg_dsp.h"
#include "vidra/log.h"

namespace vidra {
namespace jpeg {
namespace {

// Whether `channel` has a plane of at least `width` x `height` samples.
bool planeHolds(const Channel& channel, int width, int height) {
  return channel.image_ != nullptr && channel.stride_ >= width && channel.height_ >= height;
}

}  // namespace

bool SimpleJPEGDecoder::outputResults(int width, int height, uint8_t* y, int y_stride, uint8_t* u,
                                      int u_stride, uint8_t* v, int v_stride) {
  if (width != header_.width_ || height != header_.height_) {
    VIDRA_LOGF(2, "mjpeg", "Wrong output image size. Expected %dx%d got %dx%d.", header_.width_,
               header_.height_, width, height);
    return false;
  }
  const int chroma_width = header_.width_ / 2;
  const int chroma_height = header_.height_ / 2;

  // Slots 2 and 3 are the chroma planes. With a horizontal factor of 1 for both (and a
  // vertical one of 1 for slot 2) the factors of slot 1 alone tell the layout.
  const Component(&c)[kMaxComponents] = header_.components_;
  JPEG_CHECK(c[2].h1_ == 1);
  JPEG_CHECK(c[2].v1_ == 1);
  JPEG_CHECK(c[3].h1_ == 1);

  // Luma must be there: a frame without an id 1 (factors 0, no plane) or with a factor of 0
  // for it has nothing to copy, and is refused.
  JPEG_CHECK(c[1].h1_ >= 1 && c[1].v1_ >= 1);

  // 0: 1x1 (4:4:4), 1: 2x1 (4:2:2), 3: 2x2 (4:2:0). The sum tells these apart only among
  // factors 1 and 2: 4x1 (4:1:1) also gives 3, although its chroma planes are a quarter of
  // the frame wide, not half. Such factors go to the grey fill of the layouts that aren't
  // handled instead of having their planes copied as if they were 4:2:0.
  int layout = c[1].h1_ + 2 * c[1].v1_ - 3;
  if (c[1].h1_ > 2 || c[1].v1_ > 2) layout = -1;

  // The checks above look at factors only. The grid follows the largest factors of all
  // components, so a factor of slot 3 (v1_ is not checked) or of a further component above
  // that of slot 1 leaves the planes with fewer rows or columns than the frame. Refuse such
  // a frame rather than read outside a plane: luma must hold the frame, and each chroma plane
  // the whole source area that its operation reads.
  JPEG_CHECK(planeHolds(channels_[1], header_.width_, header_.height_));
  int source_width = 0;   // chroma samples read per row
  int source_height = 0;  // chroma rows read
  switch (layout) {
    case 0:
      source_width = 2 * chroma_width;
      source_height = 2 * chroma_height;
      break;
    case 1:
      source_width = chroma_width;
      source_height = 2 * chroma_height;
      break;
    case 3:
      source_width = chroma_width;
      source_height = chroma_height;
      break;
    default:  // grey: no chroma plane is read
      break;
  }
  if (layout == 0 || layout == 1 || layout == 3) {
    JPEG_CHECK(planeHolds(channels_[2], source_width, source_height));
    JPEG_CHECK(planeHolds(channels_[3], source_width, source_height));
  }

  // Rows that the kernel wrote straight to the caller's planes (direct_rows_) are there
  // already; only the rows below them are copied.
  // adaptStrides() of `channel` to `dst`, from row `first_row` on.
  auto copyRowsBelow = [](int first_row, const Channel& channel, uint8_t* dst, int dst_stride,
                          int width, int height) {
    adaptStrides(channel.image_ + static_cast<ptrdiff_t>(first_row) * channel.stride_,
                 channel.stride_, dst + static_cast<ptrdiff_t>(first_row) * dst_stride, dst_stride,
                 width, height - first_row);
  };
  const Channel& luma = channels_[1];
  copyRowsBelow(direct_rows_[1], luma, y, y_stride, header_.width_, header_.height_);

  const Channel& cb = channels_[2];
  const Channel& cr = channels_[3];
  switch (layout) {
    case 0:
      resample444To420(cb.image_, cb.stride_, u, u_stride, chroma_width, chroma_height);
      resample444To420(cr.image_, cr.stride_, v, v_stride, chroma_width, chroma_height);
      break;
    case 1:
      resample422To420(cb.image_, cb.stride_, u, u_stride, chroma_width, chroma_height);
      resample422To420(cr.image_, cr.stride_, v, v_stride, chroma_width, chroma_height);
      break;
    case 3:
      copyRowsBelow(direct_rows_[2], cb, u, u_stride, chroma_width, chroma_height);
      copyRowsBelow(direct_rows_[3], cr, v, v_stride, chroma_width, chroma_height);
      break;
    default:
      fillGreyPlane(u, u_stride, chroma_width, chroma_height);
      fillGreyPlane(v, v_stride, chroma_width, chroma_height);
      break;
  }
  // The caller's planes are complete; the decoder keeps no pointer to them.
  caller_ = CallerPlanes();
  for (int32_t& rows : direct_rows_) rows = 0;
  direct_blocks_.clear();
  direct_mcu_rows_ = 0;
  return true;
}

// The checks of outputResults() without a word: true exactly when it would accept the frame.
// Kept beside it; the tests hold the two to the same answers.
bool SimpleJPEGDecoder::outputAccepts(int width, int height) const {
  if (width != header_.width_ || height != header_.height_) return false;
  const Component(&c)[kMaxComponents] = header_.components_;
  if (c[2].h1_ != 1 || c[2].v1_ != 1 || c[3].h1_ != 1) return false;
  if (c[1].h1_ < 1 || c[1].v1_ < 1) return false;
  if (!planeHolds(channels_[1], header_.width_, header_.height_)) return false;
  int layout = c[1].h1_ + 2 * c[1].v1_ - 3;
  if (c[1].h1_ > 2 || c[1].v1_ > 2) layout = -1;
  const int chroma_width = header_.width_ / 2;
  const int chroma_height = header_.height_ / 2;
  int source_width = chroma_width;
  int source_height = chroma_height;
  if (layout == 0) source_width = 2 * chroma_width;
  if (layout == 0 || layout == 1) source_height = 2 * chroma_height;
  if (layout == 0 || layout == 1 || layout == 3) {
    return planeHolds(channels_[2], source_width, source_height) &&
           planeHolds(channels_[3], source_width, source_height);
  }
  return true;
}

}  // namespace jpeg
}  // namespace vidra
