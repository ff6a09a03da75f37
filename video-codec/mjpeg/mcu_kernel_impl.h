// The MCU kernel as a template over the form of block reconstruction.
//
// The kernel is about symbols: it reads the entropy data, keeps the DC predictors, places each
// block's coefficients and hands the block to a reconstruction form, one per instruction set
// level in reconstruct_<level>.h (plain integer code, SSE4.1). mcu_kernel<_level>.cc
// instantiate it (the AVX2 file with the SSE4.1 form), each compiled for its level and called
// only where the CPU probe allows it.
// Everything in this header lives in an anonymous namespace: an inline definition shared
// between files built for different instruction sets could let the linker keep the copy with
// newer instructions for all of them.
//
// A reconstruction form is a class whose object lives for one kernel call:
//   Form();                 // loads its constants
//   void reconstruct(const int16_t* block, unsigned position_mask, unsigned last_position,
//                    uint8_t* dest, int stride);
#pragma once

#include <cstdint>
#include <cstring>

#if defined(__AVX2__)
#include <immintrin.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "huffman_entry.h"
#include "mcu_kernel.h"
#include "reconstruct_common.h"  // VIDRA_ALWAYS_INLINE

namespace vidra {
namespace jpeg {
namespace {

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
#if defined(__AVX2__)
  const __m256i zero = _mm256_setzero_si256();
  __m256i* rows = reinterpret_cast<__m256i*>(block);
  _mm256_storeu_si256(rows + 0, zero);
  _mm256_storeu_si256(rows + 1, zero);
  _mm256_storeu_si256(rows + 2, zero);
  _mm256_storeu_si256(rows + 3, zero);
#elif defined(__SSE2__)
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

// ---- Symbols --------------------------------------------------------------------------------

// The value of a whole or fetch entry whose code begins at the top of `bits`, and in `consumed`
// the bits that code and value take. Whole and fetch entries are told apart without a branch:
// which of the two comes is hard to predict, and a whole entry simply reads 0 value bits.
VIDRA_ALWAYS_INLINE int32_t takeEntry(uint32_t entry, uint64_t bits, unsigned* consumed) {
  const unsigned length = entryLength(entry);
  const bool whole = entry >= kWholeEntry;
  const unsigned size = whole ? 0 : entrySize(entry);
  // Shifted in two steps so that size 0 reads nothing.
  const uint32_t raw = static_cast<uint32_t>(((bits << length) >> 1) >> (63 - size));
  *consumed = length + size;
  return whole ? entryValue(entry) : extendValue(raw, size);
}

// Resolves a first-level entry that isn't a whole entry. A link is followed into its sub-table:
// the first-level index counts as `skipped` bits, and the symbol's bits, in `bits`, come from
// `refill` behind them. Any other entry is returned as it is. A result below kFetchEntry is an
// empty entry at either level (or a link inside a sub-table): the span fails.
VIDRA_ALWAYS_INLINE uint32_t resolveEntry(const uint32_t* table, uint32_t entry,
                                          unsigned index_bits, uint64_t refill, uint64_t* bits,
                                          unsigned* skipped) {
  *skipped = 0;
  if (entry >= kFetchEntry || entry < kLinkEntry) return entry;
  *skipped = index_bits;
  *bits = refill << index_bits;
  return table[linkOffset(entry) + static_cast<uint32_t>((*bits >> 1) >> (63 - linkBits(entry)))];
}

// ---- The span loop ------------------------------------------------------------------------
//
// Bit reservoir. `bit_position` counts the bits of the span read so far. Instead of a refill
// when the bits run low (a branch that follows the data and so is often mispredicted), every
// symbol begins with a refill: the eight bytes from the one that holds the next unread bit,
// shifted so that this bit is on top, which leaves 57 or more valid bits. Its address depends
// only on `bit_position`, so the load runs while the symbol's table entry is fetched.
//
// Two words hold the unread bits from `bit_position` on, the next one in bit 63: `ahead`, made
// from the previous symbol's refill, and `reservoir`, made from the refill before that. A symbol
// is first looked up in the wide level of its table (wide_level.h) with the top bits of
// `reservoir`. A wide whole entry, the common symbol, then makes the next `reservoir` as `ahead`
// << length and the next `ahead` as `refill` << length. So the chain from one lookup to the next
// is one shift by the entry itself (its low six bits are its length) and no load, while each
// refill has two symbols' time to arrive. Any other symbol makes both words from `refill` (one
// symbol then waits for its load): an end of block found in the wide level, and every symbol
// that the wide level leaves to the table, which is looked up with the top bits of `refill`.
//
// A symbol takes at most 31 bits (a 16-bit code and 15 value bits; links never stand in a
// sub-table, as the DHT parser refuses tables whose link offsets would be cut), and a wide whole
// entry at most 10. So `ahead` always holds 57 - 31 = 26 or more valid bits, and `reservoir`
// 26 - 10 = 16 or more: enough for the wide lookup (9 or 10 bits) and a wide whole entry, whose
// code and value bits are all inside the index. Every other symbol reads its code and value bits
// from `refill`, whose 57 or more valid bits cover its 31.
//
// Input bound. The caller's buffer holds the segment, eight 0xFF sentinel bytes and maybe more;
// on entry `dest_` tells where it ends. A refill whose load would pass that end ends the span
// with 0. With the end at the sentinel's end, that means that the next unread bit lies behind
// the sentinel's first byte, so all bits that the symbol's lookup can see are ones; a table of
// ITU T.81 form has no entry for the all-ones code, so the plain, unbounded loop would fail at
// that very lookup, and results are the same. Only a table that assigns the all-ones code (which
// would let a span run through the sentinel without end) is cut short by the bound.
//
// A link entry can only stand at the first level of a table. A link found in a sub-table (only
// a table grown past the 16-bit link offsets could hold one there) is taken as a failure.
template <typename Reconstruction>
inline int decodeSpan(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split,
                      const MCUWideLevels* wide) {
  const uintptr_t data_address = reinterpret_cast<uintptr_t>(context->data_);
  const uintptr_t end_address = reinterpret_cast<uintptr_t>(context->dest_);
  if (end_address < data_address || end_address - data_address < 8) return 0;
  // The caller promises at least one block and one MCU; a call without blocks can't decode
  // anything, and a call without MCUs has nothing to do.
  if (context->blocks_per_mcu_ == 0) return 0;
  if (context->mcu_count_ == 0) return 1;
  const uint8_t* const data = context->data_;
  // Last byte offset from which an 8-byte load stays inside the buffer.
  const uint64_t last_load = end_address - data_address - 8;

  uint64_t bit_position = 0;
  uint64_t reservoir = loadBigEndian64(data);
  uint64_t ahead = reservoir;

  int16_t dc_pred[8] = {};
  uint32_t mcu_x = context->mcu_x_;
  uint32_t mcu_y = context->mcu_y_;
  const uint32_t mcus_per_row = context->mcus_per_row_;
  const uint32_t blocks_per_mcu = context->blocks_per_mcu_;
  const MCUBlock* const first_block = context->blocks_;
  const MCUBlock* const split_block = split != nullptr ? split->blocks_ : first_block;
  const uint32_t split_row = split != nullptr ? split->first_row_ : UINT32_MAX;
  uint32_t mcus_left = context->mcu_count_;
  uint32_t blocks_left = 0;
  uint8_t* dest = nullptr;
  int result = 0;

  Reconstruction reconstruction;

  // The coefficient block is all zero at the start of every block: cleared here, and again
  // behind each block (eight vector stores cost less than a branch on which values it used).
  clearBlock(coefficients);

#define VIDRA_KERNEL_REFILL()                                          \
  if (__builtin_expect((bit_position >> 3) > last_load, 0)) goto done; \
  const uint64_t refill = loadBigEndian64(data + (bit_position >> 3)) << (bit_position & 7)
// A whole entry of a wide level: shifts by the entry itself, whose low six bits are its length.
#define VIDRA_KERNEL_TAKE_WIDE(entry) \
  reservoir = ahead << ((entry)&63);  \
  ahead = refill << ((entry)&63);     \
  bit_position += wideLength(entry)
// Any other symbol: both words from the fresh load.
#define VIDRA_KERNEL_TAKE(consumed)      \
  {                                      \
    const unsigned taken = (consumed);   \
    bit_position += taken;               \
    reservoir = ahead = refill << taken; \
  }

  do {
    const MCUBlock* block = mcu_y < split_row ? first_block : split_block;
    const uint32_t* const* wide_ac = wide->ac_;
    const uint32_t* const* wide_dc = wide->dc_;
    blocks_left = blocks_per_mcu;
    do {
      dest = block->image_ + (mcu_x * static_cast<uint32_t>(block->mcu_width_)) +
             (mcu_y * static_cast<uint32_t>(block->mcu_row_size_));
      const int16_t* const quant = block->quant_table_;

      // DC difference.
      {
        VIDRA_KERNEL_REFILL();
        uint32_t entry = (*wide_dc++)[reservoir >> (64 - kWideDCIndexBits)];
        int32_t difference;
        if (__builtin_expect(entry >= kWholeEntry, 1)) {
          difference = entryValue(entry);
          VIDRA_KERNEL_TAKE_WIDE(entry);
        } else {
          const uint32_t* const table = block->dc_table_;
          uint64_t bits = refill;
          unsigned skipped;
          unsigned consumed;
          entry = resolveEntry(table, table[refill >> (64 - kDCIndexBits)], kDCIndexBits, refill,
                               &bits, &skipped);
          if (entry < kFetchEntry) goto done;
          difference = takeEntry(entry, bits, &consumed);
          VIDRA_KERNEL_TAKE(consumed + skipped);
        }
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
        const uint32_t* const ac_level = *wide_ac++;
        for (;;) {
          ++k;
          VIDRA_KERNEL_REFILL();
          uint32_t entry = ac_level[reservoir >> (64 - kWideACIndexBits)];
          int32_t value;
          unsigned run;
          // A whole entry of the wide level, the common case, on the shortest path.
          if (__builtin_expect(entry >= kWholeEntry, 1)) {
            value = entryValue(entry);
            run = wideRun(entry);
            VIDRA_KERNEL_TAKE_WIDE(entry);
          } else {
            if (isEndOfBlock(entry)) {
              VIDRA_KERNEL_TAKE(endOfBlockLength(entry));
              --k;
              break;
            }
            // Anything else is looked up in the table itself.
            const uint32_t* const table = block->ac_table_;
            uint64_t bits = refill;
            unsigned skipped;
            unsigned consumed;
            entry = resolveEntry(table, table[refill >> (64 - kACIndexBits)], kACIndexBits, refill,
                                 &bits, &skipped);
            if (entry < kFetchEntry) goto done;
            if (isEndOfBlock(entry)) {
              VIDRA_KERNEL_TAKE(skipped + endOfBlockLength(entry));
              --k;
              break;
            }
            value = takeEntry(entry, bits, &consumed);
            run = entryRun(entry);
            VIDRA_KERNEL_TAKE(consumed + skipped);
          }
          k += run;
          const unsigned n = kZigzagNatural[k];
          coefficients[n] = wrapProduct(value, quant[k]);
          position_mask |= n;
          if (k >= 63) break;
        }
      }
      const unsigned last_position = k;  // 0 exactly when the first AC symbol ended the block
      reconstruction.reconstruct(coefficients, position_mask, last_position, dest, block->stride_);
      clearBlock(coefficients);
      ++block;
    } while (--blocks_left != 0);
    if (++mcu_x >= mcus_per_row) {
      mcu_x = 0;
      ++mcu_y;
    }
  } while (--mcus_left != 0);
  result = 1;

#undef VIDRA_KERNEL_REFILL
#undef VIDRA_KERNEL_TAKE_WIDE
#undef VIDRA_KERNEL_TAKE

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
