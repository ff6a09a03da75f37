// Output assembly: the decoder's planes into the caller's 4:2:0 planes.
//
// Luma is copied as it is, cropped to the frame's size. Chroma comes from slots 2 and 3 and is
// halved as the factors of slot 1 require: 4:4:4 in both directions, 4:2:2 vertically, 4:2:0
// not at all. Any other layout gives grey chroma. Every check comes before the first write,
// so a refused frame leaves the caller's planes as they were.

#include <algorithm>
#include <cstddef>
#include <cstdint>
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

// adaptStrides() of `channel` to `dst`, from row `first_row` on.
void copyRowsBelow(int first_row, const Channel& channel, uint8_t* dst, int dst_stride, int width,
                   int height) {
  adaptStrides(channel.image_ + static_cast<ptrdiff_t>(first_row) * channel.stride_,
               channel.stride_, dst + static_cast<ptrdiff_t>(first_row) * dst_stride, dst_stride,
               width, height - first_row);
}

// Whether the byte ranges [a, a + a_size) and [b, b + b_size) share a byte.
bool rangesOverlap(const uint8_t* a, size_t a_size, const uint8_t* b, size_t b_size) {
  const uintptr_t a0 = reinterpret_cast<uintptr_t>(a), b0 = reinterpret_cast<uintptr_t>(b);
  return a_size != 0 && b_size != 0 && a0 < b0 + b_size && b0 < a0 + a_size;
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

  // Rows that the kernel wrote straight to the caller's planes are there already; output to
  // other planes takes them back first.
  if (y != caller_.plane_[0] || u != caller_.plane_[1] || v != caller_.plane_[2]) {
    takeBackDirectRows();
  }
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

void SimpleJPEGDecoder::setUpDirectOutput() {
  direct_blocks_.clear();
  direct_mcu_rows_ = 0;
  for (int32_t& rows : direct_rows_) rows = 0;
  const CallerPlanes& out = caller_;
  if (!allow_direct_output_ || out.plane_[0] == nullptr) return;
  if (!outputAccepts(out.width_, out.height_)) return;
  const Component(&c)[kMaxComponents] = header_.components_;
  const int chroma_height = header_.height_ / 2;

  // The caller's planes must not overlap each other or the input, so that no write can change
  // what a later step reads or writes. Each plane's extent is taken as its rows at full stride.
  const int rows[3] = {header_.height_, chroma_height, chroma_height};
  const int widths[3] = {header_.width_, header_.width_ / 2, header_.width_ / 2};
  size_t extent[3];
  for (int i = 0; i < 3; ++i) {
    if (out.plane_[i] == nullptr || out.stride_[i] <= 0) return;
    extent[i] = rows[i] <= 0 ? 0
                             : static_cast<size_t>(out.stride_[i]) * (rows[i] - 1) +
                                   static_cast<size_t>(std::max(out.stride_[i], widths[i]));
  }
  for (int i = 0; i < 3; ++i) {
    if (rangesOverlap(out.plane_[i], extent[i], out.data_, out.size_)) return;
    for (int j = i + 1; j < 3; ++j) {
      if (rangesOverlap(out.plane_[i], extent[i], out.plane_[j], extent[j])) return;
    }
  }

  // The slots whose plane outputResults() copies with one block copy: luma always, chroma
  // for 4:2:0. A slot goes straight to the caller when the strides agree and the scan names
  // it; the MCU rows that do so are those that lie wholly inside the rows the caller gets, for
  // every such slot.
  const bool chroma_copied = c[1].h1_ == 2 && c[1].v1_ == 2;
  bool direct[4] = {};
  int32_t mcu_rows = mcus_y_;
  for (int slot = 1; slot <= (chroma_copied ? 3 : 1); ++slot) {
    const Channel& channel = channels_[slot];
    if (out.stride_[slot - 1] != channel.stride_ || c[slot].v1_ < 1) continue;
    bool named = false;
    for (const MCUBlock& block : mcu_blocks_) named |= block.component_ == slot;
    if (!named) continue;
    direct[slot] = true;
    mcu_rows = std::min(mcu_rows, rows[slot - 1] / (8 * c[slot].v1_));
  }
  if (mcu_rows <= 0) return;
  bool any = false;
  for (int slot = 1; slot <= 3; ++slot) {
    if (!direct[slot]) continue;
    direct_rows_[slot] = mcu_rows * 8 * c[slot].v1_;
    any = true;
  }
  if (!any) return;
  // The map of bad MCUs is made on the first failure; with rows already in the caller's planes
  // no allocation may fail from here on.
  bad_mcus_.reserve(static_cast<size_t>(total_mcus_));
  direct_blocks_ = mcu_blocks_;
  for (MCUBlock& block : direct_blocks_) {
    const int slot = block.component_;
    if (slot < 1 || slot > 3 || !direct[slot]) continue;
    block.image_ = out.plane_[slot - 1] + (block.image_ - channels_[slot].image_);
  }
  direct_mcu_rows_ = mcu_rows;
}

void SimpleJPEGDecoder::takeBackDirectRows() {
  for (int slot = 1; slot <= 3; ++slot) {
    if (direct_rows_[slot] == 0) continue;
    const Channel& channel = channels_[slot];
    std::memcpy(channel.image_, caller_.plane_[slot - 1],
                static_cast<size_t>(channel.stride_) * direct_rows_[slot]);
    direct_rows_[slot] = 0;
  }
}

}  // namespace jpeg
}  // namespace vidra
