// The entries of the two-level Huffman lookup tables: the format that the table builder
// (jpeg_huffman.cc) writes and the MCU kernel reads.
//
// A table is one array of 32-bit entries: a first level indexed by the next 9 (AC) or 8 (DC)
// bits of the stream, and sub-tables of 5 to 8 bits behind it for the longer codes. The kernel
// knows nothing of the codes themselves, only these entry kinds (all other bits 0), told apart
// by unsigned comparison of the whole entry:
//
//   whole    11 0 value:13 length:8 run:8     code and value bits both fit the index;
//                                              value is the finished, sign-extended number
//   EOB      101 ............... eob_length:8  AC symbol 0
//   fetch    100 . size:8 length:8 run:8       the code fits, its value bits don't
//   link     01 .. level_bits:4 sub_bits:4 sub_offset:16
//   empty    0                                 no code leads here: the kernel fails
//
// `length` and `eob_length` count the bits to consume at the entry's own level.
//
// Wide levels (wide_level.h). The kernel's common path reads a first level one bit wider than
// the table's own, made from it: 10 index bits for AC tables, 9 for DC. It holds only what the
// kernel finishes at once, in entries of their own layout:
//
//   wide whole  11 0 value:13 run:8 length:8   as a whole entry, but with the length in the low
//                                              byte: the kernel shifts by the entry itself
//   EOB         as above                       AC levels only
//   0                                          the kernel looks the table itself up
//
// Everything here has internal linkage: the kernel is built once per instruction set, and an
// inline definition shared between those files could let the linker keep a copy with newer
// instructions for all of them.
#pragma once

#include <cstdint>

namespace vidra {
namespace jpeg {
namespace {

constexpr uint32_t kWholeEntry = 0xC0000000u;       // and above
constexpr uint32_t kEndOfBlockEntry = 0xA0000000u;  // .. 0xBFFFFFFF, AC tables only
constexpr uint32_t kFetchEntry = 0x80000000u;       // .. 0x9FFFFFFF
constexpr uint32_t kLinkEntry = 0x40000000u;        // .. 0x7FFFFFFF; below: empty

constexpr unsigned kDCIndexBits = 8;
constexpr unsigned kACIndexBits = 9;
constexpr unsigned kWideDCIndexBits = kDCIndexBits + 1;
constexpr unsigned kWideACIndexBits = kACIndexBits + 1;

// EXTEND of ITU T.81 F.2.2.1: `raw` holds `size` value bits (0..15); values below half the
// range are negative. Size 0 gives 0.
inline int32_t extendValue(uint32_t raw, unsigned size) {
  const uint32_t half = (1u << size) >> 1;
  return raw < half ? static_cast<int32_t>(raw) + 1 - static_cast<int32_t>(1u << size)
                    : static_cast<int32_t>(raw);
}

// Writing entries.
inline uint32_t wholeEntry(unsigned length, unsigned run, int32_t value) {
  return kWholeEntry | length << 8 | run | (static_cast<uint32_t>(value) & 0x1FFF) << 16;
}
inline uint32_t endOfBlockEntry(unsigned length) { return kEndOfBlockEntry | length; }
inline uint32_t fetchEntry(unsigned size, unsigned length, unsigned run) {
  return kFetchEntry | size << 16 | length << 8 | run;
}
inline uint32_t linkEntry(unsigned level_bits, unsigned sub_bits, uint32_t sub_offset) {
  return kLinkEntry | level_bits << 20 | sub_bits << 16 | (sub_offset & 0xFFFF);
}

inline uint32_t wideWholeEntry(unsigned length, unsigned run, int32_t value) {
  return kWholeEntry | run << 8 | length | (static_cast<uint32_t>(value) & 0x1FFF) << 16;
}

// Reading entries.
inline unsigned entryLength(uint32_t entry) { return (entry >> 8) & 0xFF; }
inline unsigned entryRun(uint32_t entry) { return entry & 0xFF; }
// Bits 23..16: the value bits of a fetch entry, 1..15.
inline unsigned entrySize(uint32_t entry) { return (entry >> 16) & 15; }
// Bits 28..16 of a whole entry: the value as 13-bit two's complement.
inline int32_t entryValue(uint32_t entry) { return static_cast<int32_t>(entry << 3) >> 19; }
inline bool isEndOfBlock(uint32_t entry) { return (entry >> 29) == (kEndOfBlockEntry >> 29); }
inline unsigned endOfBlockLength(uint32_t entry) { return entry & 0xFF; }
inline unsigned linkOffset(uint32_t entry) { return entry & 0xFFFF; }
inline unsigned linkBits(uint32_t entry) { return (entry >> 16) & 15; }
// A wide whole entry's fields; its value is read with entryValue().
inline unsigned wideLength(uint32_t entry) { return entry & 0xFF; }
inline unsigned wideRun(uint32_t entry) { return (entry >> 8) & 0xFF; }

}  // namespace
}  // namespace jpeg
}  // namespace vidra
