// The MCU kernel as a template over the form of block reconstruction.
//
// mcu_kernel.cc instantiates it with the plain integer reconstruction, mcu_kernel_sse41.cc with
// the vector one (that file is compiled for SSSE3 + SSE4.1 and only runs where the CPU probe
// allows it). Everything in this header lives in an anonymous namespace: the two files are
// built for different instruction sets, and an inline definition shared between them could
// let the linker keep the copy with SSE4.1 instructions for the scalar file as well.
//
// A reconstruction form is a struct with
//   struct Constants;             // vector constants, loaded once per kernel call
//   static Constants load();
//   static void reconstruct(const Constants&, const int16_t* block, unsigned position_mask,
//                           unsigned last_position, uint8_t* dest, int stride);
// The scalar form implements reconstruct() with reconstructWith() below, from three paths (the
// vector form chooses the same way and splits the full path once more):
//   static void dc(const Constants&, int16_t c0, uint8_t* dest, int stride);
//   static void lowFrequency(const Constants&, const int16_t* block, uint8_t* dest, int stride);
//   static void full(const Constants&, const int16_t* block, uint8_t* dest, int stride);
#pragma once

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "mcu_kernel.h"

#define VIDRA_ALWAYS_INLINE inline __attribute__((always_inline))

namespace vidra {
namespace jpeg {
namespace {

// ---- Lookup table entries ------------------------------------------------------------------
// Told apart by unsigned comparison of the whole 32-bit entry.
constexpr uint32_t kWholeEntry = 0xC0000000u;       // and above: code + value bits, finished
constexpr uint32_t kEndOfBlockEntry = 0xA0000000u;  // .. 0xBFFFFFFF, AC tables only
constexpr uint32_t kFetchEntry = 0x80000000u;       // .. 0x9FFFFFFF: value bits follow
constexpr uint32_t kLinkEntry = 0x40000000u;        // .. 0x7FFFFFFF: code goes on in a sub-table
                                                    // below: empty, no code matches

constexpr unsigned kDCIndexBits = 8;
constexpr unsigned kACIndexBits = 9;

inline unsigned entryLength(uint32_t entry) { return (entry >> 8) & 0xFF; }
inline unsigned entryRun(uint32_t entry) { return entry & 0xFF; }
// Bits 23..16: the value bits of a fetch entry, 1..15.
inline unsigned entrySize(uint32_t entry) { return (entry >> 16) & 15; }
// Bits 28..16 of a whole entry: the value as 13-bit two's complement.
inline int32_t entryValue(uint32_t entry) { return static_cast<int32_t>(entry << 3) >> 19; }
inline unsigned linkOffset(uint32_t entry) { return entry & 0xFFFF; }
inline unsigned linkBits(uint32_t entry) { return (entry >> 16) & 15; }

// EXTEND of ITU T.81 F.2.2.1: `raw` holds `size` value bits; values below half the range are
// negative. Size 0 gives 0.
inline int32_t extendValue(uint32_t raw, unsigned size) {
  const uint32_t half = (1u << size) >> 1;
  return raw < half ? static_cast<int32_t>(raw) + 1 - static_cast<int32_t>(1u << size)
                    : static_cast<int32_t>(raw);
}

inline uint64_t loadBigEndian64(const uint8_t* p) {
  uint64_t value;
  std::memcpy(&value, p, sizeof(value));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  value = __builtin_bswap64(value);
#endif
  return value;
}

// Clears the 64 values of the coefficient block (16-byte aligned). Written out store by store:
// as a loop the compiler turns it into a memset call or a `rep stos`, both slow for 128 bytes.
inline void clearBlock(int16_t* block) {
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  __m128i* rows = reinterpret_cast<__m128i*>(block);
  _mm_store_si128(rows + 0, zero);
  _mm_store_si128(rows + 1, zero);
  _mm_store_si128(rows + 2, zero);
  _mm_store_si128(rows + 3, zero);
  _mm_store_si128(rows + 4, zero);
  _mm_store_si128(rows + 5, zero);
  _mm_store_si128(rows + 6, zero);
  _mm_store_si128(rows + 7, zero);
#else
  for (int i = 0; i < 64; ++i) block[i] = 0;
#endif
}

inline int16_t wrapProduct(int32_t value, int16_t step) {
  return static_cast<int16_t>(static_cast<uint32_t>(value) * static_cast<uint32_t>(step));
}

// ---- Path selection ------------------------------------------------------------------------

template <typename Reconstruction>
VIDRA_ALWAYS_INLINE void reconstructWith(const typename Reconstruction::Constants& constants,
                                         const int16_t* block, unsigned position_mask,
                                         unsigned last_position, uint8_t* dest, int stride) {
  // 0xF6 keeps every bit but those of 1 and 8: the test passes exactly when some stored AC value
  // lies outside natural indices 1, 8 and 9.
  if (position_mask & 0xF6) {
    Reconstruction::full(constants, block, dest, stride);
  } else if (last_position == 0) {
    Reconstruction::dc(constants, block[0], dest, stride);
  } else {
    Reconstruction::lowFrequency(constants, block, dest, stride);
  }
}

// ---- The span loop ------------------------------------------------------------------------
//
// Bit reservoir. In the terms of the stream: eight consecutive bytes of the span, the first in
// the most significant byte, of which the low `bits_left` bits are still unread; a refill, made
// only when 32 or fewer bits are left, reloads eight bytes at `cursor` (four bytes further on
// than the last load), so the next bit stays where it was. The kernel keeps the unread bits
// left-aligned in `reservoir` (the next bit in bit 63, zeros below the last unread bit), so that a
// peek is one shift by a constant and a consumption one shift by the length: that keeps the
// dependency chain from one symbol to the next short. `bits_left` is only counted for the
// refill test.
//
// Refill tests stand before the DC lookup and before each first-level AC lookup; every
// first-level lookup thus sees at least 33 bits, and the longest symbol (16 code bits and 15
// value bits) leaves at least 2.
//
// Input bound. The caller's buffer holds the segment, eight 0xFF sentinel bytes and maybe more;
// on entry `dest_` tells where it ends. A refill whose load would pass that end ends the span
// with 0. With the end at the sentinel's end, such a refill means that the next unread bit lies
// behind the sentinel's first byte, so all bits that a lookup can see there are ones; a table
// of ITU T.81 form has no entry for the all-ones code, so the plain, unbounded loop would fail
// at that very lookup, and results are the same. Only a table that assigns the all-ones code
// (which would let a span run through the sentinel without end) is cut short by the bound.
//
// A link entry can only stand at the first level of a table. A link found in a sub-table (only
// a table grown past the 16-bit link offsets could hold one there) is taken as a failure, which
// keeps the bit count from running below zero.
template <typename Reconstruction>
inline int decodeSpan(int16_t* coefficients, MCUSpanContext* context) {
  const uintptr_t data_address = reinterpret_cast<uintptr_t>(context->data_);
  const uintptr_t end_address = reinterpret_cast<uintptr_t>(context->dest_);
  if (end_address < data_address || end_address - data_address < 8) return 0;
  // The caller promises at least one block and one MCU; a call without blocks can't decode
  // anything, and a call without MCUs has nothing to do.
  if (context->blocks_per_mcu_ == 0) return 0;
  if (context->mcu_count_ == 0) return 1;
  const uint8_t* const data = context->data_;
  // Last cursor position from which an 8-byte load stays inside the buffer.
  const uint8_t* const refill_limit = data + (end_address - data_address - 8);

  uint64_t reservoir = loadBigEndian64(data);
  unsigned bits_left = 64;
  const uint8_t* cursor = data + 4;

  int16_t dc_pred[8] = {};
  uint32_t mcu_x = context->mcu_x_;
  uint32_t mcu_y = context->mcu_y_;
  const uint32_t mcus_per_row = context->mcus_per_row_;
  const uint32_t blocks_per_mcu = context->blocks_per_mcu_;
  const MCUBlock* const first_block = context->blocks_;
  uint32_t mcus_left = context->mcu_count_;
  uint32_t blocks_left = 0;
  uint8_t* dest = nullptr;
  int result = 0;

  const typename Reconstruction::Constants constants = Reconstruction::load();

  // The coefficient block is all zero at the start of every block: cleared here, and again
  // behind each block (eight vector stores cost less than a branch on which values it used).
  clearBlock(coefficients);

// The next `n` bits (1..32, a constant) without consuming them.
#define VIDRA_KERNEL_PEEK(n) static_cast<uint32_t>(reservoir >> (64 - (n)))
// The next `n` bits, 0..15 of them, without consuming them (0 bits read as 0).
#define VIDRA_KERNEL_PEEK_VARIABLE(n) static_cast<uint32_t>((reservoir >> 1) >> (63 - (n)))
#define VIDRA_KERNEL_CONSUME(n) \
  do {                          \
    const unsigned count = (n); \
    reservoir <<= count;        \
    bits_left -= count;         \
  } while (0)
#define VIDRA_KERNEL_REFILL()                                    \
  do {                                                           \
    if (bits_left <= 32) {                                       \
      if (__builtin_expect(cursor > refill_limit, 0)) goto done; \
      reservoir = loadBigEndian64(cursor) << (32 - bits_left);   \
      cursor += 4;                                               \
      bits_left += 32;                                           \
    }                                                            \
  } while (0)

  do {
    const MCUBlock* block = first_block;
    blocks_left = blocks_per_mcu;
    do {
      dest = block->image_ + (mcu_x * static_cast<uint32_t>(block->mcu_width_)) +
             (mcu_y * static_cast<uint32_t>(block->mcu_row_size_));
      const int16_t* const quant = block->quant_table_;

      // DC difference.
      {
        VIDRA_KERNEL_REFILL();
        const uint32_t* const table = block->dc_table_;
        uint32_t entry = table[VIDRA_KERNEL_PEEK(kDCIndexBits)];
        if (__builtin_expect(entry < kFetchEntry, 0)) {
          if (entry < kLinkEntry) goto done;
          VIDRA_KERNEL_CONSUME(kDCIndexBits);
          entry = table[linkOffset(entry) + VIDRA_KERNEL_PEEK_VARIABLE(linkBits(entry))];
          if (entry < kFetchEntry) goto done;
        }
        // Whole and fetch entries without a branch, as for AC coefficients below.
        VIDRA_KERNEL_CONSUME(entryLength(entry));
        const bool whole = entry >= kWholeEntry;
        const unsigned size = whole ? 0 : entrySize(entry);
        const uint32_t raw = VIDRA_KERNEL_PEEK_VARIABLE(size);
        VIDRA_KERNEL_CONSUME(size);
        const int32_t difference = whole ? entryValue(entry) : extendValue(raw, size);
        // component_ is below 8 by the block list's construction; the mask only keeps a broken
        // list inside the eight predictors.
        int16_t& pred = dc_pred[block->component_ & 7];
        pred =
            static_cast<int16_t>(static_cast<uint32_t>(pred) + static_cast<uint32_t>(difference));
        coefficients[0] = wrapProduct(pred, quant[0]);
      }

      // AC coefficients. k is the zigzag position; the head of the loop adds 1.
      unsigned k = 0;
      unsigned position_mask = 0;
      {
        const uint32_t* const table = block->ac_table_;
        for (;;) {
          ++k;
          VIDRA_KERNEL_REFILL();
          uint32_t entry = table[VIDRA_KERNEL_PEEK(kACIndexBits)];
          if (__builtin_expect(entry < kFetchEntry, 0)) {
            if (entry < kLinkEntry) goto done;
            VIDRA_KERNEL_CONSUME(kACIndexBits);
            entry = table[linkOffset(entry) + VIDRA_KERNEL_PEEK_VARIABLE(linkBits(entry))];
            if (entry < kFetchEntry) goto done;
          }
          if ((entry >> 29) == (kEndOfBlockEntry >> 29)) {
            VIDRA_KERNEL_CONSUME(entry & 0xFF);  // eob_length
            --k;
            break;
          }
          // Whole and fetch entries without a branch between them (which of the two comes is
          // hard to predict): a whole entry reads 0 value bits.
          VIDRA_KERNEL_CONSUME(entryLength(entry));
          k += entryRun(entry);
          const bool whole = entry >= kWholeEntry;
          const unsigned size = whole ? 0 : entrySize(entry);
          const uint32_t raw = VIDRA_KERNEL_PEEK_VARIABLE(size);
          VIDRA_KERNEL_CONSUME(size);
          const int32_t value = whole ? entryValue(entry) : extendValue(raw, size);
          const unsigned n = kZigzagNatural[k];
          coefficients[n] = wrapProduct(value, quant[k]);
          position_mask |= n;
          if (k >= 63) break;
        }
      }
      const unsigned last_position = k;  // 0 exactly when the first AC symbol ended the block
      Reconstruction::reconstruct(constants, coefficients, position_mask, last_position, dest,
                                  block->stride_);
      clearBlock(coefficients);
      ++block;
    } while (--blocks_left != 0);
    if (++mcu_x >= mcus_per_row) {
      mcu_x = 0;
      ++mcu_y;
    }
  } while (--mcus_left != 0);
  result = 1;

#undef VIDRA_KERNEL_PEEK
#undef VIDRA_KERNEL_PEEK_VARIABLE
#undef VIDRA_KERNEL_CONSUME
#undef VIDRA_KERNEL_REFILL

done:
  std::memcpy(context->dc_pred_, dc_pred, sizeof(dc_pred));
  context->mcu_x_ = mcu_x;
  context->mcu_y_ = mcu_y;
  context->dest_ = dest;
  context->blocks_left_ = blocks_left;
  context->mcus_left_ = mcus_left;
  return result;
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
