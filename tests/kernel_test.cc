// The MCU kernel (bit reservoir, table walk, coefficient stores, path choice, failure) and the
// three reconstruction paths, on hand-made bit strings and blocks.

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "jpeg.h"
#include "jpeg_dsp.h"
#include "mcu_kernel.h"
#include "mcu_kernel_impl.h"
#include "mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

// ---- Writing entropy data --------------------------------------------------------------------

class BitWriter {
 public:
  void put(uint32_t bits, int count) {
    for (int i = count - 1; i >= 0; --i) {
      current_ = static_cast<uint8_t>((current_ << 1) | ((bits >> i) & 1));
      if (++filled_ == 8) {
        bytes_.push_back(current_);
        current_ = 0;
        filled_ = 0;
      }
    }
  }
  int bitCount() const { return static_cast<int>(bytes_.size()) * 8 + filled_; }
  // The bytes written, the last one filled up with ones.
  std::vector<uint8_t> bytes() const {
    std::vector<uint8_t> result = bytes_;
    if (filled_ > 0) {
      result.push_back(static_cast<uint8_t>((current_ << (8 - filled_)) | (0xFF >> filled_)));
    }
    return result;
  }

 private:
  std::vector<uint8_t> bytes_;
  uint8_t current_ = 0;
  int filled_ = 0;
};

struct Code {
  uint32_t bits;
  int length;
};

// symbol -> code of each table of a DHT segment payload, by canonical assignment.
struct CodeBook {
  std::map<uint8_t, Code> dc[4], ac[4];

  explicit CodeBook(const uint8_t* payload, size_t length) {
    size_t at = 0;
    while (at < length) {
      const int tc = payload[at] >> 4, th = payload[at] & 15;
      const uint8_t* counts = payload + at + 1;
      at += 17;
      uint32_t code = 0;
      for (int bits = 1; bits <= 16; ++bits) {
        for (int j = 0; j < counts[bits - 1]; ++j) {
          const uint8_t symbol = payload[at++];
          std::map<uint8_t, Code>& table = tc != 0 ? ac[th] : dc[th];
          if (table.count(symbol) == 0) table[symbol] = {code, bits};
          ++code;
        }
        code <<= 1;
      }
    }
  }
};

const CodeBook& defaultCodes() {
  static const CodeBook book(kMJPGDHTSeg + 4, sizeof(kMJPGDHTSeg) - 4);
  return book;
}

int magnitudeSize(int value) {
  int size = 0;
  for (int magnitude = value < 0 ? -value : value; magnitude != 0; magnitude >>= 1) ++size;
  return size;
}

// Writes blocks with the codes of one DC and one AC table.
class BlockWriter {
 public:
  BlockWriter(const CodeBook& book, int table) : dc_(book.dc[table]), ac_(book.ac[table]) {}

  BlockWriter& dc(int difference) {
    const int size = magnitudeSize(difference);
    symbol(dc_, static_cast<uint8_t>(size));
    value(difference, size);
    return *this;
  }
  BlockWriter& ac(int run, int coefficient) {
    const int size = magnitudeSize(coefficient);
    symbol(ac_, static_cast<uint8_t>(run << 4 | size));
    value(coefficient, size);
    return *this;
  }
  // A symbol with size 0 and the given run: ZRL for 15, end of block for 0.
  BlockWriter& zeroRun(int run) {
    symbol(ac_, static_cast<uint8_t>(run << 4));
    return *this;
  }
  BlockWriter& eob() { return zeroRun(0); }
  BlockWriter& raw(uint32_t bits, int count) {
    writer_.put(bits, count);
    return *this;
  }
  int bitCount() const { return writer_.bitCount(); }
  std::vector<uint8_t> bytes() const { return writer_.bytes(); }

 private:
  void symbol(const std::map<uint8_t, Code>& table, uint8_t s) {
    const auto found = table.find(s);
    ASSERT_NE(found, table.end()) << "no code for symbol " << int{s};
    writer_.put(found->second.bits, found->second.length);
  }
  void value(int v, int size) {
    if (size == 0) return;
    writer_.put(static_cast<uint32_t>(v < 0 ? v + (1 << size) - 1 : v), size);
  }
  const std::map<uint8_t, Code>& dc_;
  const std::map<uint8_t, Code>& ac_;
  BitWriter writer_;
};

// ---- Running the kernel ----------------------------------------------------------------------

// What the kernel handed to reconstruction for one block.
struct Handed {
  std::array<int16_t, 64> block;
  unsigned position_mask;
  unsigned last_position;
  uint8_t* dest;
  int stride;
};

std::vector<Handed>* g_handed = nullptr;

// A reconstruction form that only records; the kernel template is instantiated with it here,
// so that the tests see position_mask and last_position directly.
struct RecordingReconstruction {
  struct Constants {};
  static Constants load() { return {}; }
  static void reconstruct(const Constants&, const int16_t* block, unsigned position_mask,
                          unsigned last_position, uint8_t* dest, int stride) {
    Handed handed;
    std::memcpy(handed.block.data(), block, sizeof(handed.block));
    handed.position_mask = position_mask;
    handed.last_position = last_position;
    handed.dest = dest;
    handed.stride = stride;
    g_handed->push_back(handed);
  }
};

// A DHT payload (behind the length field) with one DC and one AC table, both number 0.
std::vector<uint8_t> dhtPayload(const std::vector<std::vector<uint8_t>>& dc_codes_by_length,
                                const std::vector<std::vector<uint8_t>>& ac_codes_by_length) {
  std::vector<uint8_t> payload;
  for (int tc = 0; tc < 2; ++tc) {
    const auto& by_length = tc == 0 ? dc_codes_by_length : ac_codes_by_length;
    payload.push_back(static_cast<uint8_t>(tc << 4));
    for (int i = 0; i < 16; ++i) {
      payload.push_back(
          static_cast<uint8_t>(i < static_cast<int>(by_length.size()) ? by_length[i].size() : 0));
    }
    for (const auto& symbols : by_length)
      payload.insert(payload.end(), symbols.begin(), symbols.end());
  }
  return payload;
}

class KernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_handed = &handed_;
    loadTables(std::vector<uint8_t>(kMJPGDHTSeg + 4, kMJPGDHTSeg + sizeof(kMJPGDHTSeg)));
    for (int k = 0; k < 64; ++k) quant_[k] = 1;
  }
  void TearDown() override { g_handed = nullptr; }

  void loadTables(const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> segment = {static_cast<uint8_t>((payload.size() + 2) >> 8),
                                    static_cast<uint8_t>(payload.size() + 2)};
    segment.insert(segment.end(), payload.begin(), payload.end());
    JPEGBuffer buffer(segment.data(), segment.size());
    ASSERT_TRUE(decoder_.parseDHT(&buffer));
  }

  MCUBlock block(int component, int table = 0) {
    MCUBlock b = {};
    b.quant_table_ = quant_;
    b.ac_table_ = decoder_.ac_huffman_tables_[table]->entries_.data();
    b.dc_table_ = decoder_.dc_huffman_tables_[table]->entries_.data();
    b.image_ = plane_.data();
    b.component_ = component;
    b.stride_ = kPlaneStride;
    b.mcu_width_ = 8;
    b.mcu_row_size_ = 8 * kPlaneStride;
    return b;
  }

  // Runs the recording kernel over `segment` followed by exactly eight 0xFF bytes (the
  // buffer ends there, so AddressSanitizer sees any read behind it).
  int run(const std::vector<uint8_t>& segment, const std::vector<MCUBlock>& blocks,
          uint32_t mcu_count = 1, uint32_t mcus_per_row = 16, uint32_t mcu_x = 0,
          uint32_t mcu_y = 0) {
    prepare(segment, blocks, mcu_count, mcus_per_row, mcu_x, mcu_y);
    return decodeSpan<RecordingReconstruction>(coefficients_, &context_);
  }

  void prepare(const std::vector<uint8_t>& segment, const std::vector<MCUBlock>& blocks,
               uint32_t mcu_count = 1, uint32_t mcus_per_row = 16, uint32_t mcu_x = 0,
               uint32_t mcu_y = 0) {
    handed_.clear();
    buffer_ = segment;
    buffer_.insert(buffer_.end(), 8, 0xFF);
    context_ = {};
    context_.data_ = buffer_.data();
    context_.dest_ = buffer_.data() + buffer_.size();
    blocks_ = blocks;  // the context keeps pointing at them after the call
    context_.blocks_ = blocks_.data();
    context_.blocks_per_mcu_ = static_cast<uint32_t>(blocks_.size());
    context_.mcu_count_ = mcu_count;
    context_.mcus_per_row_ = mcus_per_row;
    context_.mcu_x_ = mcu_x;
    context_.mcu_y_ = mcu_y;
  }

  static constexpr int kPlaneStride = 128;
  SimpleJPEGDecoder decoder_;
  alignas(16) int16_t quant_[128] = {};
  alignas(16) int16_t coefficients_[64];
  std::vector<uint8_t> plane_ = std::vector<uint8_t>(kPlaneStride * 64, 0);
  std::vector<uint8_t> buffer_;
  std::vector<MCUBlock> blocks_;
  MCUSpanContext context_;
  std::vector<Handed> handed_;
};

// A second block written behind the first tells how many bits the first one consumed: it
// decodes as DC +1 and nothing else only when it starts at the right bit.
void appendMarkerBlock(BlockWriter* writer) { writer->dc(1).eob(); }

// The first `count` bits of `bytes`, followed by that block.
std::vector<uint8_t> firstBitsThenMarker(const std::vector<uint8_t>& bytes, int count) {
  BlockWriter writer(defaultCodes(), 0);
  for (int i = 0; i < count; ++i) writer.raw((bytes[i / 8] >> (7 - i % 8)) & 1, 1);
  appendMarkerBlock(&writer);
  return writer.bytes();
}

TEST_F(KernelTest, ByteExamples) {
  struct Example {
    std::vector<uint8_t> bytes;
    int bits;
    std::map<int, int16_t> values;  // natural index -> value; all others 0
    unsigned position_mask;
    unsigned last_position;
  };
  const Example examples[] = {
      {{0x28}, 6, {}, 0, 0},                                // DC 00, EOB: DC path
      {{0x52, 0x2B}, 14, {{0, 1}, {1, 1}, {8, -1}}, 9, 2},  // low-frequency path
      {{0x3F, 0xCD, 0x7F}, 17, {}, 12, 16},                 // DC 00, ZRL, EOB: full path
  };
  for (const Example& example : examples) {
    SCOPED_TRACE(testing::Message() << "first byte 0x" << std::hex << int{example.bytes[0]});
    // On their own.
    ASSERT_EQ(run(example.bytes, {block(0)}), 1);
    ASSERT_EQ(handed_.size(), 1u);
    for (int i = 0; i < 64; ++i) {
      const auto found = example.values.find(i);
      EXPECT_EQ(handed_[0].block[i], found == example.values.end() ? 0 : found->second) << i;
    }
    EXPECT_EQ(handed_[0].position_mask, example.position_mask);
    EXPECT_EQ(handed_[0].last_position, example.last_position);
    // Followed by a block that decodes as DC +1 only when it starts at bit `bits`.
    ASSERT_EQ(run(firstBitsThenMarker(example.bytes, example.bits), {block(0), block(1)}), 1);
    ASSERT_EQ(handed_.size(), 2u);
    EXPECT_EQ(handed_[1].block[0], 1);
    EXPECT_EQ(handed_[1].last_position, 0u);
  }
}

TEST_F(KernelTest, TwoBlocksOverOneByteFailInTheSecond) {
  EXPECT_EQ(run({0x28}, {block(0), block(0)}), 0);
  EXPECT_EQ(handed_.size(), 1u);
  // Likewise as two MCUs of one block.
  EXPECT_EQ(run({0x28}, {block(0)}, 2), 0);
  EXPECT_EQ(handed_.size(), 1u);
}

TEST_F(KernelTest, EmptySegmentFailsBeforeAnyStore) {
  std::memset(plane_.data(), 0x33, plane_.size());
  EXPECT_EQ(run({}, {block(0)}), 0);
  EXPECT_TRUE(handed_.empty());
  alignas(16) int16_t coefficients[64];
  // The real kernel, over the same context: nothing written.
  context_.dest_ = buffer_.data() + buffer_.size();
  EXPECT_EQ(decode_mcu_span_sse2_64(coefficients, &context_), 0);
  for (uint8_t sample : plane_) ASSERT_EQ(sample, 0x33);
}

// Where single AC symbols land and which path they choose.
TEST_F(KernelTest, PositionsAndPaths) {
  struct Case {
    const char* name;
    std::vector<std::pair<int, int>> symbols;  // (run, value); value 0 with a run: size 0
    unsigned position_mask;
    unsigned last_position;
    int natural_index;  // of the last store, -1 for none
  };
  const Case cases[] = {
      {"EOB first", {}, 0, 0, -1},
      {"zigzag 4", {{3, 5}}, 9, 4, 9},
      {"zigzag 3", {{2, 5}}, 16, 3, 16},
      {"ZRL first", {{15, 0}}, 12, 16, 12},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BlockWriter writer(defaultCodes(), 0);
    writer.dc(0);
    for (const auto& [r, v] : c.symbols) {
      if (v == 0) {
        writer.zeroRun(r);
      } else {
        writer.ac(r, v);
      }
    }
    writer.eob();
    appendMarkerBlock(&writer);
    ASSERT_EQ(run(writer.bytes(), {block(0), block(1)}), 1);
    ASSERT_EQ(handed_.size(), 2u);
    EXPECT_EQ(handed_[0].position_mask, c.position_mask);
    EXPECT_EQ(handed_[0].last_position, c.last_position);
    if (c.natural_index >= 0 && !c.symbols.empty() && c.symbols.back().second != 0) {
      EXPECT_EQ(handed_[0].block[c.natural_index], c.symbols.back().second);
    }
    EXPECT_EQ(handed_[1].block[0], 1);
  }
}

// A symbol of size 0 with a run below 15, which only a custom table can hold, acts like ZRL
// with its own run: a stored zero two places on, here natural index 8 (low-frequency path).
TEST_F(KernelTest, RunOneSizeZeroStoresAZero) {
  std::vector<std::vector<uint8_t>> dc(1), ac(2);
  dc[0] = {0x00};  // "0": difference 0
  ac[0] = {0x00};  // "0": end of block
  ac[1] = {0x10};  // "10": run 1, size 0
  loadTables(dhtPayload(dc, ac));
  BitWriter bits;
  bits.put(0b0100, 4);  // DC, run 1 size 0, EOB
  bits.put(0b00, 2);    // next block: DC, EOB
  ASSERT_EQ(run(bits.bytes(), {block(0), block(0)}), 1);
  ASSERT_EQ(handed_.size(), 2u);
  EXPECT_EQ(handed_[0].position_mask, 8u);
  EXPECT_EQ(handed_[0].last_position, 2u);
  EXPECT_EQ(handed_[1].last_position, 0u);
}

// Dequantisation by zigzag position, into natural order, with 16-bit wrap.
TEST_F(KernelTest, DequantisesByZigzagPositionWithWrap) {
  for (int k = 0; k < 64; ++k) quant_[k] = static_cast<int16_t>(100 + k);
  quant_[5] = 1000;
  BlockWriter writer(defaultCodes(), 0);
  writer.dc(-3).ac(0, 7).ac(2, -2).ac(1, 100).eob();  // zigzag 1, 4 and 6
  ASSERT_EQ(run(writer.bytes(), {block(0)}), 1);
  const Handed& h = handed_.at(0);
  EXPECT_EQ(h.block[0], -300);
  EXPECT_EQ(h.block[1], 7 * 101);    // zigzag 1
  EXPECT_EQ(h.block[9], -2 * 104);   // zigzag 4
  EXPECT_EQ(h.block[3], 100 * 106);  // zigzag 6 -> natural 3
  EXPECT_EQ(h.position_mask, 1u | 9u | 3u);
  EXPECT_EQ(h.last_position, 6u);
  // 1000 x 1000 wraps: the low 16 bits of 1000000 are 16960.
  BlockWriter wrap(defaultCodes(), 0);
  wrap.dc(0).ac(4, 1000).eob();  // zigzag 5 -> natural 2
  ASSERT_EQ(run(wrap.bytes(), {block(0)}), 1);
  EXPECT_EQ(handed_.at(0).block[2], static_cast<int16_t>(16960));
}

// Runs that end a block without an end-of-block code.
TEST_F(KernelTest, BlockEndsAtPosition63) {
  quant_[63] = 3;
  {
    SCOPED_TRACE("coefficient at 63, then EOB bits read as the next DC code");
    BlockWriter writer(defaultCodes(), 0);
    writer.dc(0).ac(14, 1).ac(15, 1).ac(15, 1).ac(15, 2);  // zigzag 15, 31, 47, 63
    writer.eob();                                          // 1010: DC category 4 ...
    writer.raw(6, 3);  // ... with the value bits 0 + 110: raw 0110 = 6 -> -9
    writer.eob();
    ASSERT_EQ(run(writer.bytes(), {block(0), block(1)}), 1);
    ASSERT_EQ(handed_.size(), 2u);
    EXPECT_EQ(handed_[0].block[63], 6);
    EXPECT_EQ(handed_[0].last_position, 63u);
    EXPECT_EQ(handed_[1].block[0], -9);
  }
  {
    SCOPED_TRACE("ZRL at the head with k = 48 stores 0 at 63 through the true step");
    BlockWriter writer(defaultCodes(), 0);
    writer.dc(0).ac(14, 1).ac(15, 1).ac(15, 1);  // last store at zigzag 47
    writer.zeroRun(15);                          // k 48 + 15 = 63
    appendMarkerBlock(&writer);
    ASSERT_EQ(run(writer.bytes(), {block(0), block(1)}), 1);
    ASSERT_EQ(handed_.size(), 2u);
    EXPECT_EQ(handed_[0].block[63], 0);
    EXPECT_EQ(handed_[0].position_mask & 63, 63u);
    EXPECT_EQ(handed_[0].last_position, 63u);
    EXPECT_EQ(handed_[1].block[0], 1);
  }
  {
    SCOPED_TRACE("k = 62 at the head and run 15: k 77, the value is dropped");
    BlockWriter writer(defaultCodes(), 0);
    writer.dc(0).ac(14, 1).ac(15, 1).ac(15, 1).ac(13, 1);  // zigzag 15, 31, 47, 61
    writer.ac(15, 1);                                      // 62 + 15 = 77
    appendMarkerBlock(&writer);
    ASSERT_EQ(run(writer.bytes(), {block(0), block(1)}), 1);
    ASSERT_EQ(handed_.size(), 2u);
    EXPECT_EQ(handed_[0].block[63], 0);
    EXPECT_EQ(handed_[0].last_position, 77u);
    EXPECT_EQ(handed_[0].position_mask, 63u);
    EXPECT_EQ(handed_[1].block[0], 1);
  }
}

TEST_F(KernelTest, PredictorsPerComponentWrapAndResetPerCall) {
  BlockWriter writer(defaultCodes(), 0);
  // Component 0: 16 x 2047 + 15 = 32767, then +1 wraps to -32768. Component 5: -7.
  for (int i = 0; i < 16; ++i) writer.dc(2047).eob();
  writer.dc(15).eob().dc(1).eob().dc(-7).eob().dc(2).eob();
  std::vector<MCUBlock> blocks(18, block(0));
  blocks.push_back(block(5));
  blocks.push_back(block(0));
  ASSERT_EQ(run(writer.bytes(), blocks), 1);
  ASSERT_EQ(handed_.size(), 20u);
  EXPECT_EQ(handed_[16].block[0], 32767);
  EXPECT_EQ(handed_[17].block[0], -32768);
  EXPECT_EQ(handed_[18].block[0], -7);
  EXPECT_EQ(handed_[19].block[0], -32766);
  EXPECT_EQ(context_.dc_pred_[0], -32766);
  EXPECT_EQ(context_.dc_pred_[5], -7);
  // A new call starts from 0 again.
  BlockWriter again(defaultCodes(), 0);
  again.dc(4).eob();
  ASSERT_EQ(run(again.bytes(), {block(0)}), 1);
  EXPECT_EQ(handed_.at(0).block[0], 4);
}

// The block's place: image_ + mcu_x * mcu_width_ + mcu_y * mcu_row_size_, the grid walked
// across row ends.
TEST_F(KernelTest, DestinationsFollowTheGrid) {
  BlockWriter writer(defaultCodes(), 0);
  for (int i = 0; i < 6; ++i) writer.dc(0).eob();
  MCUBlock a = block(0), b = block(1);
  b.image_ = plane_.data() + 8;
  b.mcu_width_ = 16;
  a.mcu_width_ = 16;
  ASSERT_EQ(run(writer.bytes(), {a, b}, 3, /*mcus_per_row=*/3, /*mcu_x=*/2, /*mcu_y=*/1), 1);
  ASSERT_EQ(handed_.size(), 6u);
  const int row = 8 * kPlaneStride;
  const int expected[6] = {32 + row, 40 + row, 2 * row, 8 + 2 * row, 16 + 2 * row, 24 + 2 * row};
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(handed_[i].dest - plane_.data(), expected[i]) << i;
    EXPECT_EQ(handed_[i].stride, kPlaneStride);
  }
  EXPECT_EQ(context_.mcu_x_, 2u);
  EXPECT_EQ(context_.mcu_y_, 2u);
}

TEST_F(KernelTest, FailureInTheLastBlockKeepsTheEarlierOnes) {
  BlockWriter writer(defaultCodes(), 0);
  writer.dc(3).eob().dc(1).eob();
  std::vector<uint8_t> bytes = writer.bytes();
  // Third block: the all-ones DC code, which no code of the table matches.
  bytes.insert(bytes.end(), {0xFF, 0xFF});
  EXPECT_EQ(run(bytes, {block(0), block(1), block(2)}), 0);
  EXPECT_EQ(handed_.size(), 2u);
  // An AC code that matches nothing fails as well: 16 ones.
  BlockWriter ac(defaultCodes(), 0);
  ac.dc(0).raw(0xFFFF, 16).raw(0, 16);
  EXPECT_EQ(run(ac.bytes(), {block(0)}), 0);
  EXPECT_TRUE(handed_.empty());
}

// A DHT whose DC table has a 16-bit code for size 15: the 31-bit symbol at every bit offset,
// the lowest fill (33 bits at the test, 2 left behind it) among them.
TEST_F(KernelTest, LongestSymbolAtEveryOffset) {
  // DC: "0" and "10" for size 0, "1100000000000000" for size 15. AC: "0" end of block.
  std::vector<std::vector<uint8_t>> dc(16), ac(1);
  dc[0] = {0x00};
  dc[1] = {0x00};
  dc[15] = {0x0F};
  ac[0] = {0x00};
  loadTables(dhtPayload(dc, ac));
  for (int twos = 0; twos < 40; ++twos) {
    for (int threes = 0; threes < 2; ++threes) {
      BitWriter bits;
      for (int i = 0; i < twos; ++i) bits.put(0b00, 2);     // DC "0", EOB "0"
      for (int i = 0; i < threes; ++i) bits.put(0b100, 3);  // DC "10", EOB "0"
      bits.put(0xC000, 16);
      bits.put(0x5A5A, 15);  // raw 0x5A5A >= 0x4000: positive
      bits.put(0, 1);        // EOB
      bits.put(0xC000, 16);
      bits.put(0x0123, 15);  // negative: 0x0123 + 1 - 0x8000
      bits.put(0, 1);
      std::vector<MCUBlock> blocks(twos + threes + 2, block(0));
      ASSERT_EQ(run(bits.bytes(), blocks), 1) << twos << " " << threes;
      ASSERT_EQ(handed_.size(), blocks.size());
      EXPECT_EQ(handed_[twos + threes].block[0], 0x5A5A);
      EXPECT_EQ(handed_.back().block[0], static_cast<int16_t>(0x5A5A + 0x0123 + 1 - 0x8000));
    }
  }
}

// A table that assigns the all-ones code lets a span run on through the sentinel; the kernel
// stops at the end of its buffer and fails the span (AddressSanitizer checks the reads).
TEST_F(KernelTest, AllOnesCodeStopsAtTheBufferEnd) {
  std::vector<std::vector<uint8_t>> dc(1), ac(1);
  dc[0] = {0x00, 0x00};  // "0" and "1": every bit string is a DC code
  ac[0] = {0x00, 0x00};  // "0" and "1": end of block
  loadTables(dhtPayload(dc, ac));
  MCUBlock in_place = block(0);
  in_place.mcu_width_ = 0;
  in_place.mcu_row_size_ = 0;
  for (size_t length : {0, 1, 3, 4, 5, 17}) {
    EXPECT_EQ(run(std::vector<uint8_t>(length, 0x00), {in_place}, 1000000, 1000), 0) << length;
    // Every block took two bits; at most the segment, the sentinel and no more were used.
    EXPECT_LE(handed_.size(), (length + 8) * 4) << length;
    EXPECT_GE(handed_.size(), length * 4) << length;
  }
  // A context whose end lies before the first eight bytes fails at once.
  run({0x28}, {block(0)});
  context_.dest_ = buffer_.data() + 7;
  EXPECT_EQ(decodeSpan<RecordingReconstruction>(coefficients_, &context_), 0);
}

// The table produced by parseDHT on the default segment has these entries; the kernel relies
// on their format.
TEST_F(KernelTest, DefaultTableEntriesTheKernelReads) {
  const std::vector<uint32_t>& dc = decoder_.dc_huffman_tables_[0]->entries_;
  const std::vector<uint32_t>& ac = decoder_.ac_huffman_tables_[0]->entries_;
  EXPECT_EQ(dc[0x00], 0xC0000200u);
  EXPECT_EQ(dc[0x40], 0xDFFF0400u);
  EXPECT_EQ(dc[0xFF], 0x40850200u);
  EXPECT_EQ(ac[0x140], 0xA0000004u);
  EXPECT_EQ(ac[0x1FF], 0x40970280u);
}

// ---- The real kernel -------------------------------------------------------------------------

// Both forms of the kernel against the recording one plus reconstructBlock_c: same result and
// samples on a multi-block stream with all three paths.
TEST_F(KernelTest, RealKernelMatchesRecordedBlocks) {
  for (int k = 0; k < 64; ++k) quant_[k] = static_cast<int16_t>(8 + k);
  BlockWriter writer(defaultCodes(), 0);
  writer.dc(40).eob();                                 // DC path
  writer.dc(-3).ac(0, 5).ac(0, -4).ac(1, 2).eob();     // low-frequency
  writer.dc(7).ac(0, 9).ac(3, -30).ac(10, 3).eob();    // full
  writer.dc(0).zeroRun(15).ac(15, 1).ac(2, -1).eob();  // full, with ZRL
  const std::vector<uint8_t> bytes = writer.bytes();
  std::vector<MCUBlock> blocks;
  for (int i = 0; i < 4; ++i) {
    MCUBlock b = block(0);
    b.image_ = plane_.data() + 8 * i;
    b.mcu_width_ = 32;
    blocks.push_back(b);
  }
  ASSERT_EQ(run(bytes, blocks, 1), 1);
  std::vector<uint8_t> expected(plane_.size(), 0);
  for (const Handed& h : handed_) {
    reconstructBlock_c(h.block.data(), static_cast<uint8_t>(h.position_mask),
                       static_cast<uint8_t>(h.last_position),
                       expected.data() + (h.dest - plane_.data()), h.stride);
  }
  EXPECT_EQ(handed_[0].last_position, 0u);
  EXPECT_EQ(handed_[1].position_mask & 0xF6, 0u);
  EXPECT_NE(handed_[2].position_mask & 0xF6, 0u);

  DSPFunctions forms[2];
  initDSPScalar(&forms[0]);
  forms[1] = forms[0];
  initDSPx86(&forms[1], g_cpu_info_);
  for (const DSPFunctions& form : forms) {
    std::fill(plane_.begin(), plane_.end(), 0);
    prepare(bytes, blocks, 1);
    alignas(16) int16_t coefficients[64];
    ASSERT_EQ(form.decodeMCUSpan(coefficients, &context_), 1);
    EXPECT_EQ(plane_, expected);
  }
}

// ---- Reconstruction --------------------------------------------------------------------------

struct Form {
  const char* name;
  ReconstructFn reconstruct;
};

std::vector<Form> reconstructionForms() {
  std::vector<Form> forms = {{"scalar", reconstructBlock_c}};
#if defined(__x86_64__)
  if (g_cpu_info_.supports_fast_decoder()) forms.push_back({"vector", reconstructBlock_sse41});
#endif
  return forms;
}

struct Path {
  const char* name;
  uint8_t position_mask;
  uint8_t last_position;
};
constexpr Path kDCPath = {"dc", 0, 0};
constexpr Path kLowPath = {"low-frequency", 9, 2};
constexpr Path kFullPath = {"full", 0x10, 5};

std::array<uint8_t, 64> reconstruct(const Form& form, const Path& path,
                                    const std::map<int, int16_t>& values) {
  alignas(16) int16_t block[64] = {};
  for (const auto& [index, value] : values) block[index] = value;
  std::array<uint8_t, 64> samples;
  form.reconstruct(block, path.position_mask, path.last_position, samples.data(), 8);
  return samples;
}

TEST(ReconstructTest, DCValueAloneGivesTheSameFlatBlockOnEveryPath) {
  const std::pair<int, int> cases[] = {{0, 128},   {31, 128},  {32, 129},    {-1, 127},
                                       {-32, 127}, {-33, 126}, {4064, 255},  {4063, 254},
                                       {-4096, 0}, {-4064, 1}, {32767, 255}, {-32768, 0}};
  for (const Form& form : reconstructionForms()) {
    for (const Path& path : {kDCPath, kLowPath, kFullPath}) {
      for (const auto& [c0, sample] : cases) {
        const auto samples = reconstruct(form, path, {{0, static_cast<int16_t>(c0)}});
        for (uint8_t s : samples) {
          ASSERT_EQ(s, sample) << form.name << " " << path.name << " c0 " << c0;
        }
      }
    }
  }
}

TEST(ReconstructTest, DCPathSaturatesBeyondTheRange) {
  for (const Form& form : reconstructionForms()) {
    for (int c0 = 4064; c0 <= 32767; c0 += 97) {
      EXPECT_EQ(reconstruct(form, kDCPath, {{0, static_cast<int16_t>(c0)}})[0], 255) << c0;
    }
    for (int c0 = -4096; c0 >= -32768; c0 -= 97) {
      EXPECT_EQ(reconstruct(form, kDCPath, {{0, static_cast<int16_t>(c0)}})[0], 0) << c0;
    }
  }
}

TEST(ReconstructTest, StoredZerosInTheCornerEqualTheDCPath) {
  for (const Form& form : reconstructionForms()) {
    for (uint8_t mask : {1, 8, 9}) {
      const Path low = {"low", mask, 4};
      EXPECT_EQ(reconstruct(form, low, {{0, 1234}}), reconstruct(form, kDCPath, {{0, 1234}}));
    }
  }
}

TEST(ReconstructTest, LowFrequencyExampleAndItsFullPathNeighbour) {
  const std::map<int, int16_t> values = {{0, 256}, {1, -333}, {8, 77}, {9, 59}};
  const uint8_t low_row0[8] = {129, 131, 133, 136, 140, 143, 145, 147};
  for (const Form& form : reconstructionForms()) {
    const auto low = reconstruct(form, kLowPath, values);
    const auto full = reconstruct(form, kFullPath, values);
    for (int x = 0; x < 8; ++x) EXPECT_EQ(low[x], low_row0[x]) << form.name << " x " << x;
    EXPECT_EQ(full[7], 146) << form.name;
  }
}

TEST(ReconstructTest, MultiplierInputWrapsInTheFirstPass) {
  const uint8_t column_8192[8] = {255, 0, 255, 0, 0, 255, 0, 255};
  const uint8_t column_8191[8] = {255, 233, 22, 0, 0, 22, 233, 255};
  for (const Form& form : reconstructionForms()) {
    const auto a = reconstruct(form, kFullPath, {{16, 8192}});
    const auto b = reconstruct(form, kFullPath, {{16, 8191}});
    for (int y = 0; y < 8; ++y) {
      EXPECT_EQ(a[8 * y], column_8192[y]) << form.name << " y " << y;
      EXPECT_EQ(b[8 * y], column_8191[y]) << form.name << " y " << y;
    }
  }
}

TEST(ReconstructTest, WritesExactlyEightRowsOfEight) {
  for (const Form& form : reconstructionForms()) {
    for (const Path& path : {kDCPath, kLowPath, kFullPath}) {
      std::vector<uint8_t> plane(24 * 12, 0x5A);
      alignas(16) int16_t block[64] = {};
      block[0] = 100;
      block[1] = -20;
      form.reconstruct(block, path.position_mask, path.last_position, plane.data() + 24 + 3, 24);
      for (int y = 0; y < 12; ++y) {
        for (int x = 0; x < 24; ++x) {
          const bool inside = y >= 1 && y < 9 && x >= 3 && x < 11;
          if (!inside) {
            EXPECT_EQ(plane[24 * y + x], 0x5A) << form.name << " " << x << "," << y;
          }
        }
      }
    }
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
