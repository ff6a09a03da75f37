// Direct output: the MCU rows that reach the caller's planes unchanged are decoded straight
// into them when the strides agree, which spares outputResults() a second pass over them.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "jpeg.h"

namespace vidra {
namespace jpeg {
namespace {

// Whether the byte ranges [a, a + a_size) and [b, b + b_size) share a byte.
bool rangesOverlap(const uint8_t* a, size_t a_size, const uint8_t* b, size_t b_size) {
  const uintptr_t a0 = reinterpret_cast<uintptr_t>(a), b0 = reinterpret_cast<uintptr_t>(b);
  return a_size != 0 && b_size != 0 && a0 < b0 + b_size && b0 < a0 + a_size;
}

}  // namespace

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
