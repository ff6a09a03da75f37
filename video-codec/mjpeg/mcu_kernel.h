// The MCU kernel: decodes one restart span of de-stuffed entropy data into the planes.
//
// It sees nothing of the decoder but the two records below, MCUBlock and MCUSpanContext, whose
// field order and widths are part of the kernel's contract and are pinned by static_asserts, and
// in the library's own calls a row split and the tables' wide levels.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vidra/mjpeg.h"

// One 8x8 block of an MCU, in stream order.
struct MCUBlock {
  const int16_t* quant_table_;  // scaled quantisation steps, indexed by zigzag position
  const uint32_t* ac_table_;    // AC lookup table, first entry
  const uint32_t* dc_table_;    // DC lookup table, first entry
  uint8_t* image_;              // top-left sample of this block in MCU (0, 0)
  int32_t component_;           // DC predictor slot, 0..7
  int32_t stride_;              // bytes between rows of the plane
  int32_t mcu_width_;           // address step per MCU column
  int32_t mcu_row_size_;        // address step per MCU row
  int32_t x_;                   // block column inside the MCU
  int32_t y_;                   // block row inside the MCU
};
static_assert(offsetof(MCUBlock, quant_table_) == 0);
static_assert(offsetof(MCUBlock, ac_table_) == 8);
static_assert(offsetof(MCUBlock, dc_table_) == 16);
static_assert(offsetof(MCUBlock, image_) == 24);
static_assert(offsetof(MCUBlock, component_) == 32);
static_assert(offsetof(MCUBlock, stride_) == 36);
static_assert(offsetof(MCUBlock, mcu_width_) == 40);
static_assert(offsetof(MCUBlock, mcu_row_size_) == 44);
static_assert(offsetof(MCUBlock, x_) == 48);
static_assert(offsetof(MCUBlock, y_) == 52);
static_assert(sizeof(MCUBlock) == 56);

// Control block of one kernel call.
struct MCUSpanContext {
  int16_t dc_pred_[8];       // DC predictors by component_; cleared by the kernel
  const uint8_t* data_;      // first de-stuffed byte of the span (0xFF sentinel behind it)
  const MCUBlock* blocks_;   // the block list of one MCU
  uint8_t* dest_;            // on entry: end of the readable bytes behind data_ (see
                             // below); then kernel scratch: destination of the current block
  uint32_t mcu_x_;           // MCU column of the next MCU
  uint32_t mcu_y_;           // MCU row of the next MCU
  uint32_t blocks_per_mcu_;  // records in blocks_
  uint32_t mcu_count_;       // MCUs to decode in this call
  uint32_t mcus_per_row_;    // MCU columns of the frame
  uint32_t blocks_left_;     // kernel scratch
  uint32_t mcus_left_;       // kernel scratch
};
static_assert(offsetof(MCUSpanContext, dc_pred_) == 0);
static_assert(offsetof(MCUSpanContext, data_) == 16);
static_assert(offsetof(MCUSpanContext, blocks_) == 24);
static_assert(offsetof(MCUSpanContext, dest_) == 32);
static_assert(offsetof(MCUSpanContext, mcu_x_) == 40);
static_assert(offsetof(MCUSpanContext, mcu_y_) == 44);
static_assert(offsetof(MCUSpanContext, blocks_per_mcu_) == 48);
static_assert(offsetof(MCUSpanContext, mcu_count_) == 52);
static_assert(offsetof(MCUSpanContext, mcus_per_row_) == 56);
static_assert(offsetof(MCUSpanContext, blocks_left_) == 60);
static_assert(offsetof(MCUSpanContext, mcus_left_) == 64);
static_assert(sizeof(MCUSpanContext) == 72);

// For the library's own use: from MCU row `first_row` on, the kernel takes its blocks from
// `blocks` (as many as in the context's list) instead of the context's list. The decoder uses it
// to send the rows that reach its caller straight to the caller's planes and the rows below to
// its own.
struct MCURowSplit {
  const MCUBlock* blocks_;
  uint32_t first_row_;
};

// For the library's own use: the wide first levels (wide_level.h) of each block's DC and AC
// tables, one pointer per block of the context's list, in its order (the same for a row split's
// list, whose blocks use the same tables). The kernel reads a symbol in the wide level first and
// in the block's table only where the wide level holds 0.
struct MCUWideLevels {
  const uint32_t* const* dc_;
  const uint32_t* const* ac_;
};

// A wide level of zeros, long enough for either kind: with it the kernel reads each symbol in the
// block's table.
extern const uint32_t kNoWideLevel[1024];

// Zigzag position to natural index; entries 64..127 are all 63 so that a run past the end of a
// block lands harmlessly on index 63 (multiplied by a zero quantisation entry).
extern const uint32_t kZigzagNatural[128];

// Decodes `context->mcu_count_` MCUs. `coefficients` is a 16-byte aligned workspace of 64
// values. Returns 1 when every MCU decoded, 0 when a code matched no table entry.
//
// The caller sets `dest_` to one past the last byte that may be read behind `data_`: the end of
// the eight 0xFF sentinel bytes that close the segment (or of any slack behind them). The kernel
// never reads past it: a refill that would cross it ends the span with 0. Streams decoded with
// tables of ITU T.81 form fail at that point anyway, as the bits there are all ones; a table
// that assigns the all-ones code would otherwise let a span run through the sentinel.
extern "C" VIDRA_MJPEG_EXPORT int decode_mcu_span_sse2_64(int16_t* coefficients,
                                                          MCUSpanContext* context);
