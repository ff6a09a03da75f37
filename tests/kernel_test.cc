// The MCU kernel (bit reservoir, table walk, coefficient stores, path choice, failure) on
// hand-made bit strings, and the three reconstruction paths on known blocks.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "jpeg.h"
#include "jpeg_dsp.h"
#include "mcu_kernel.h"
#include "mcu_kernel_impl.h"
#include "mjpeg.h"
#include "wide_level.h"

namespace vidra {
namespace jpeg {
namespace {

// A bit string, written symbol by symbol with the codes of tables 0 of kMJPGDHTSeg.
class Bits {
 public:
  Bits& put(uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) bits_.push_back((value >> i) & 1);
    return *this;
  }
  Bits& dc(int difference) { return code(0, sizeOf(difference)).value(difference); }
  Bits& ac(int run, int value) { return code(1, run << 4 | sizeOf(value)).value(value); }
  Bits& zeroRun(int run) { return code(1, run << 4); }  // 15: ZRL; 0: end of block
  Bits& eob() { return zeroRun(0); }
  // The bits as bytes, the last byte filled up with ones.
  std::vector<uint8_t> bytes() const {
    std::vector<uint8_t> result((bits_.size() + 7) / 8, 0);
    for (size_t i = 0; i < 8 * result.size(); ++i) {
      result[i / 8] |= static_cast<uint8_t>((i < bits_.size() ? bits_[i] : 1) << (7 - i % 8));
    }
    return result;
  }

 private:
  static int sizeOf(int value) {
    int size = 0;
    for (int magnitude = std::abs(value); magnitude != 0; magnitude >>= 1) ++size;
    return size;
  }
  Bits& value(int v) {
    const int size = sizeOf(v);
    return put(static_cast<uint32_t>(v < 0 ? v + (1 << size) - 1 : v), size);
  }
  // The canonical code of `symbol` in table 0 of class `table_class` of the default segment.
  Bits& code(int table_class, int symbol) {
    for (size_t at = 4; at < sizeof(kMJPGDHTSeg);) {
      const uint8_t* table = kMJPGDHTSeg + at;  // class << 4 | number, 16 counts, the symbols
      at += 17;
      uint32_t next = 0;
      for (int length = 1; length <= 16; ++length, next <<= 1) {
        for (int j = 0; j < table[length]; ++j, ++next, ++at) {
          if (table[0] == table_class << 4 && kMJPGDHTSeg[at] == symbol) return put(next, length);
        }
      }
    }
    throw std::out_of_range("no code for symbol " + std::to_string(symbol));
  }
  std::vector<uint8_t> bits_;
};

// What the kernel handed to reconstruction for one block.
struct Handed {
  std::array<int16_t, 64> block;
  unsigned position_mask, last_position;
  uint8_t* dest;
};

// A reconstruction form that only records; the kernel template instantiated with it shows
// position_mask and last_position directly.
struct RecordingReconstruction {
  void reconstruct(const int16_t* block, unsigned position_mask, unsigned last_position,
                   uint8_t* dest, int) {
    blocks.push_back({{}, position_mask, last_position, dest});
    std::memcpy(blocks.back().block.data(), block, sizeof(Handed::block));
  }
  static inline std::vector<Handed> blocks;
};

class KernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JPEGBuffer dht(kMJPGDHTSeg + 2, sizeof(kMJPGDHTSeg) - 2);
    ASSERT_TRUE(decoder_.parseDHT(&dht));
    // Steps of 1 at zigzag positions 0..2 (as the byte examples want), k + 100 behind them.
    for (int k = 0; k < 64; ++k) quant_[k] = static_cast<int16_t>(k < 3 ? 1 : k + 100);
  }

  // Replaces tables 0 by those of a DHT payload: per table its class and number, the number
  // of codes of each length 1..16, and their symbols.
  void loadTables(std::vector<uint8_t> payload) {
    payload.insert(payload.begin(), {0, static_cast<uint8_t>(payload.size() + 2)});
    JPEGBuffer buffer(payload.data(), payload.size());
    ASSERT_TRUE(decoder_.parseDHT(&buffer));
  }

  // A block of `component`, placed 8 columns per component apart in the plane.
  MCUBlock block(int component) {
    MCUBlock b = {};
    b.quant_table_ = quant_;
    b.ac_table_ = decoder_.ac_huffman_tables_[0]->entries_.data();
    b.dc_table_ = decoder_.dc_huffman_tables_[0]->entries_.data();
    b.image_ = plane_.data() + 8 * component;
    b.component_ = component;
    b.stride_ = kStride;
    b.mcu_width_ = 8;
    b.mcu_row_size_ = 8 * kStride;
    return b;
  }

  // Runs the kernel over `segment` followed by exactly eight 0xFF bytes, where the buffer ends
  // (AddressSanitizer sees any read behind it). The predictors start as garbage, which the kernel
  // must clear. The kernel reads the wide levels of the blocks' tables, or `levels` where given.
  int run(const std::vector<uint8_t>& segment, const std::vector<MCUBlock>& blocks,
          uint32_t mcu_count = 1, uint32_t mcus_per_row = 16, uint32_t mcu_x = 0,
          uint32_t mcu_y = 0, const MCUWideLevels* levels = nullptr) {
    handed_.clear();
    buffer_ = segment;
    buffer_.insert(buffer_.end(), 8, 0xFF);
    blocks_ = blocks;
    context_ = {};
    context_.data_ = buffer_.data();
    context_.dest_ = buffer_.data() + buffer_.size();
    context_.blocks_ = blocks_.data();
    context_.blocks_per_mcu_ = static_cast<uint32_t>(blocks_.size());
    context_.mcu_count_ = mcu_count;
    context_.mcus_per_row_ = mcus_per_row;
    context_.mcu_x_ = mcu_x;
    context_.mcu_y_ = mcu_y;
    std::memset(context_.dc_pred_, 0x55, sizeof(context_.dc_pred_));
    wide_.build(blocks_.data(), blocks_.size());
    return decodeSpan<RecordingReconstruction>(coefficients_, &context_, nullptr,
                                               levels != nullptr ? levels : wide_.levels());
  }

  static constexpr int kStride = 128;
  SimpleJPEGDecoder decoder_;
  alignas(16) int16_t quant_[128] = {};
  alignas(16) int16_t coefficients_[64];
  std::vector<uint8_t> plane_ = std::vector<uint8_t>(kStride * 64, 0);
  std::vector<uint8_t> buffer_;
  WideLevels wide_;
  std::vector<MCUBlock> blocks_;
  MCUSpanContext context_;
  std::vector<Handed>& handed_ = RecordingReconstruction::blocks;
};

// One block per row, then a block of another component whose DC value shows that the first
// consumed exactly its own bits. The first block reads AC table `ac_table`; table 1 holds only
// "0" for end of block and "10" for run 1 with size 0.
TEST_F(KernelTest, BlockCases) {
  loadTables({0x11, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x10});
  using Values = std::map<int, int>;  // natural index -> block value; all others 0
  // 1 at zigzag positions 15, 31 and 47, and `more`.
  auto to47 = [](Values more) {
    more.insert({{5, 115}, {28, 131}, {51, 147}});
    return more;
  };
  // clang-format off
  const struct { const char* name; Bits bits; Values values; unsigned position_mask, last_position;
                 int next_dc; int ac_table = 0; } cases[] = {
      {"0x52 0x2B", Bits().put(0x522B >> 2, 14).dc(1).eob(), {{0, 1}, {1, 1}, {8, -1}}, 9, 2, 1},
      {"0x3F 0xCD 0x7F: DC 00, ZRL, EOB", Bits().put(0x3FCD7F >> 7, 17).dc(1).eob(), {}, 12, 16, 1},
      {"zigzag 4", Bits().dc(-3).ac(3, 5).eob().dc(1).eob(), {{0, -3}, {9, 520}}, 9, 4, 1},
      {"zigzag 3", Bits().dc(0).ac(2, 5).eob().dc(1).eob(), {{16, 515}}, 16, 3, 1},
      {"1000 x 106 wraps", Bits().dc(0).ac(0, 7).ac(4, 1000).eob().dc(1).eob(),
       {{1, 7}, {3, -25072}}, 3, 6, 1},
      {"coefficient at 63; the EOB code behind it is the next DC code (4, value bits 0110)",
       Bits().dc(0).ac(14, 1).ac(15, 1).ac(15, 1).ac(15, 2).eob().put(6, 3).eob(),
       to47({{63, 326}}), 63, 63, -9},
      {"ZRL at k = 48 stores 0 at 63 and ends the block",
       Bits().dc(0).ac(14, 1).ac(15, 1).ac(15, 1).zeroRun(15).dc(1).eob(), to47({}), 63, 63, 1},
      {"k = 62 and run 15: k 77, the value dropped",
       Bits().dc(0).ac(14, 1).ac(15, 1).ac(15, 1).ac(13, 1).ac(15, 1).dc(1).eob(),
       to47({{55, 161}}), 63, 77, 1},
      {"run 1, size 0 first: 0 at zigzag 2, low-frequency path",
       Bits().dc(0).put(0b10, 2).put(0b0, 1).dc(1).eob(), {}, 8, 2, 1, /*ac_table=*/1},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MCUBlock first = block(0);
    first.ac_table_ = decoder_.ac_huffman_tables_[c.ac_table]->entries_.data();
    ASSERT_EQ(run(c.bits.bytes(), {first, block(1)}), 1);
    ASSERT_EQ(handed_.size(), 2u);
    std::array<int16_t, 64> want = {};
    for (const auto& [index, value] : c.values) want[index] = static_cast<int16_t>(value);
    EXPECT_EQ(handed_[0].block, want);
    EXPECT_EQ(handed_[0].position_mask, c.position_mask);
    EXPECT_EQ(handed_[0].last_position, c.last_position);
    EXPECT_EQ(handed_[1].block[0], c.next_dc);
  }
}

// An empty table entry fails the span at once, the block under way not handed over: here the AC
// code of 16 ones, the one empty entry of the default AC table. (A DC one fails every span that
// runs into the sentinel: the verdict and damaged-frame tests.)
TEST_F(KernelTest, FailsAtAnEmptyACEntry) {
  EXPECT_EQ(run(Bits().dc(0).put(0xFFFF, 16).put(0, 16).bytes(), {block(0)}), 0);
  EXPECT_TRUE(handed_.empty());
}

// image_ + mcu_x * mcu_width_ + mcu_y * mcu_row_size_, the grid walked across a row's end.
TEST_F(KernelTest, DestinationsFollowTheGrid) {
  Bits bits;
  for (int i = 0; i < 6; ++i) bits.dc(0).eob();
  MCUBlock a = block(0), b = block(1);
  a.mcu_width_ = b.mcu_width_ = 16;
  ASSERT_EQ(run(bits.bytes(), {a, b}, 3, /*mcus_per_row=*/3, /*mcu_x=*/2, /*mcu_y=*/1), 1);
  ASSERT_EQ(handed_.size(), 6u);
  const int row = 8 * kStride;
  const int expected[6] = {32 + row, 40 + row, 2 * row, 8 + 2 * row, 16 + 2 * row, 24 + 2 * row};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(handed_[i].dest - plane_.data(), expected[i]) << i;
}

// A 16-bit DC code for size 15: the 31-bit symbol at every bit offset within the bytes of a
// load, so that the reservoir is at its lowest fill behind it; behind the first, an AC fetch of a
// 2-bit code and 15 value bits. One predictor for all blocks of a component, wrapping at 16 bits.
TEST_F(KernelTest, LongestSymbolAtEveryOffset) {
  // DC: "0" and "10" for size 0, "1100000000000000" for size 15. AC: "0", end of block, and
  // "10" for run 0 with size 15.
  loadTables({0x00, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0x00, 0x00, 0x0F,
              0x10, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x0F});
  for (int offset = 0; offset < 80; ++offset) {
    const int twos = offset / 2, threes = offset % 2;
    Bits bits;
    for (int i = 0; i < twos; ++i) bits.put(0b00, 2);     // DC "0", EOB "0"
    for (int i = 0; i < threes; ++i) bits.put(0b100, 3);  // DC "10", EOB "0"
    bits.put(0xC000, 16).put(0x5A5A, 15);                 // raw 0x5A5A >= 0x4000: positive
    bits.put(0b10, 2).put(0x2345, 15).put(0, 1);          // AC at natural index 1, negative; EOB
    for (int i = 0; i < 2; ++i) bits.put(0xC000, 16).put(0x0123, 15).put(0, 1);  // negative
    const std::vector<MCUBlock> blocks(twos + threes + 3, block(0));
    ASSERT_EQ(run(bits.bytes(), blocks), 1) << offset;
    ASSERT_EQ(handed_.size(), blocks.size());
    EXPECT_EQ(handed_[twos + threes].block[0], 0x5A5A);
    EXPECT_EQ(handed_[twos + threes].block[1], 0x2345 + 1 - 0x8000);
    EXPECT_EQ(handed_.back().block[0], static_cast<int16_t>(0x5A5A + 2 * (0x0123 + 1 - 0x8000)));
  }
}

// A table that assigns the all-ones code lets a span run on through the sentinel; the kernel
// stops at the end of its buffer and fails the span (AddressSanitizer checks the reads).
TEST_F(KernelTest, AllOnesCodeStopsAtTheBufferEnd) {
  // "0" and "1" for DC size 0 and for end of block: every bit string decodes.
  loadTables({0x00, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x00,
              0x10, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x00});
  MCUBlock in_place = block(0);
  in_place.mcu_width_ = in_place.mcu_row_size_ = 0;
  for (size_t length : {0, 1, 3, 4, 5, 17}) {
    EXPECT_EQ(run(std::vector<uint8_t>(length, 0x00), {in_place}, 1000000, 1000), 0) << length;
    // Two bits a block: the segment was used, the sentinel at most.
    EXPECT_LE(handed_.size(), (length + 8) * 4) << length;
    EXPECT_GE(handed_.size(), length * 4) << length;
  }
  // A buffer that ends before the first eight bytes fails at once.
  run({0x28}, {block(0)});
  context_.dest_ = buffer_.data() + 7;
  EXPECT_EQ(decodeSpan<RecordingReconstruction>(coefficients_, &context_, nullptr, wide_.levels()),
            0);
}

// A wide level may only hold what the table decodes in its index bits: for every index, a wide
// whole entry gives the value, run and length that the table's entry gives on those bits, an end
// of block stands where the table has one (AC only), and a table's whole entry is never left to
// the slow path. Default tables, then random code lists, overfull ones (codes that collide) and
// ones of long codes included.
TEST_F(KernelTest, WideLevelsDecodeAsTheirTables) {
  std::mt19937 rng(11);
  for (int round = 0; round < 60; ++round) {
    if (round > 0) {
      std::vector<uint8_t> payload;
      for (const uint8_t table : {0x00, 0x10}) {
        std::vector<uint8_t> counts(16);
        for (size_t length = 0; length < 16; ++length) {
          counts[length] = static_cast<uint8_t>(rng() % (round % 3 == 0 ? 9 : 4));
        }
        if (round % 5 == 0) std::fill(counts.begin(), counts.begin() + 8, 0);  // long codes
        payload.push_back(table);
        payload.insert(payload.end(), counts.begin(), counts.end());
        for (uint8_t count : counts)
          for (int j = 0; j < count; ++j) payload.push_back(static_cast<uint8_t>(rng()));
      }
      loadTables(payload);
    }
    for (const bool is_ac : {false, true}) {
      SCOPED_TRACE(std::to_string(round) + (is_ac ? " AC" : " DC"));
      const uint32_t* table =
          (is_ac ? decoder_.ac_huffman_tables_ : decoder_.dc_huffman_tables_)[0]->entries_.data();
      const unsigned bits = is_ac ? kWideACIndexBits : kWideDCIndexBits;
      std::vector<uint32_t> wide(size_t{1} << bits);
      buildWideLevel(table, is_ac, wide.data());
      for (uint32_t index = 0; index < wide.size(); ++index) {
        const uint32_t entry = table[index >> 1], level = wide[index];
        if (level >= kWholeEntry) {
          ASSERT_TRUE(entry >= kFetchEntry && !(is_ac && isEndOfBlock(entry))) << index;
          unsigned consumed = 0;
          const int32_t value = takeEntry(entry, uint64_t{index} << (64 - bits), &consumed);
          ASSERT_EQ(std::make_tuple(entryValue(level), wideRun(level), wideLength(level)),
                    std::make_tuple(value, entryRun(entry), consumed))
              << index;
        } else if (level != 0) {
          ASSERT_TRUE(is_ac && isEndOfBlock(level) && level == entry) << index;
        } else {
          ASSERT_FALSE(entry >= kWholeEntry || (is_ac && isEndOfBlock(entry))) << index;
        }
      }
    }
  }
}

// ---- Reconstruction --------------------------------------------------------------------------

// The samples of a block of `values` (natural index -> value, all others 0), from the scalar
// form (checkasm holds the vector forms to it).
std::array<uint8_t, 64> reconstruct(uint8_t position_mask, uint8_t last_position,
                                    const std::map<int, int16_t>& values) {
  alignas(16) int16_t block[64] = {};
  for (const auto& [index, value] : values) block[index] = value;
  std::array<uint8_t, 64> samples;
  reconstructBlock_c(block, position_mask, last_position, samples.data(), 8);
  return samples;
}

// c0 alone: the same flat block on the DC, the low-frequency and the full path.
TEST(ReconstructTest, DCValueAlone) {
  const std::pair<int, int> cases[] = {
      {0, 128},    {31, 128},    {32, 129},    {-1, 127},  {-32, 127}, {-33, 126},  {4063, 254},
      {4064, 255}, {20000, 255}, {32767, 255}, {-4064, 1}, {-4096, 0}, {-20000, 0}, {-32768, 0}};
  for (const auto& [mask, last] : {std::pair{0, 0}, std::pair{9, 2}, std::pair{0x10, 5}}) {
    for (const auto& [c0, sample] : cases) {
      const auto samples = reconstruct(mask, last, {{0, static_cast<int16_t>(c0)}});
      for (uint8_t s : samples) ASSERT_EQ(s, sample) << "mask " << mask << " c0 " << c0;
    }
  }
}

// c0 256, c1 -333, c8 77, c9 59: the DC, the low-frequency and the full path give different
// rows 0, so the samples show the path that (position_mask, last_position) chose.
TEST(ReconstructTest, PathChoiceOnALowFrequencyBlock) {
  const std::vector<uint8_t> dc(8, 136), low = {129, 131, 133, 136, 140, 143, 145, 147},
                                         full = {129, 131, 133, 136, 140, 143, 145, 146};
  // (position_mask, last_position, path): 'd' DC, 'l' low-frequency, 'f' full
  const std::tuple<uint8_t, uint8_t, char> choices[] = {{0, 0, 'd'},  {1, 1, 'l'},   {8, 2, 'l'},
                                                        {9, 4, 'l'},  {2, 5, 'f'},   {4, 6, 'f'},
                                                        {16, 3, 'f'}, {32, 20, 'f'}, {63, 77, 'f'}};
  for (const auto& [mask, last, path] : choices) {
    const auto s = reconstruct(mask, last, {{0, 256}, {1, -333}, {8, 77}, {9, 59}});
    EXPECT_EQ(std::vector<uint8_t>(s.begin(), s.begin() + 8), path == 'd'   ? dc
                                                              : path == 'l' ? low
                                                                            : full)
        << "mask " << int{mask};
  }
}

// Values at natural indices 3, 5, 24 and 40 drive the odd part of both passes: z10 and z13, and
// the -1.613 multiplier whose input is subtracted once more. The full path transforms columns
// first: rows first would change [1][6], [4][3] and [4][4].
TEST(ReconstructTest, OddPartOfTheFullPath) {
  // clang-format off
  const std::array<uint8_t, 64> expected = {
      141, 129, 142, 146, 127, 133, 149, 139,
      142, 133, 144, 146, 131, 135, 147, 140,
      134, 127, 136, 138, 124, 127, 137, 132,
      134, 126, 136, 138, 123, 126, 136, 129,
      146, 135, 149, 153, 133, 137, 150, 139,
      144, 133, 148, 153, 133, 137, 150, 138,
      134, 125, 139, 144, 127, 130, 141, 131,
      133, 128, 140, 144, 130, 132, 141, 134};
  // clang-format on
  const std::map<int, int16_t> values = {{0, 300},  {3, -90},  {5, 140}, {10, 50},
                                         {17, -40}, {24, 120}, {29, 30}, {40, -70}};
  EXPECT_EQ(reconstruct(63, 40, values), expected);
}

// 8192 at natural index 16: 4 x 8192 wraps to -32768 at a multiplier in the first pass.
TEST(ReconstructTest, MultiplierInputWrapsInTheFirstPass) {
  const std::pair<int16_t, std::array<uint8_t, 8>> cases[] = {
      {8192, {255, 0, 255, 0, 0, 255, 0, 255}}, {8191, {255, 233, 22, 0, 0, 22, 233, 255}}};
  for (const auto& [c16, column] : cases) {
    const auto samples = reconstruct(0x10, 3, {{16, c16}});
    for (int y = 0; y < 8; ++y) EXPECT_EQ(samples[8 * y], column[y]) << c16 << " row " << y;
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
