// Vector forms of block reconstruction and of the MCU kernel against their scalar twins.

#include <cstring>

#include "checkasm/checkasm.h"
#include "jpeg.h"
#include "mcu_kernel.h"
#include "wide_level.h"

namespace vidra {
namespace checkasm {
namespace {

struct alignas(16) Block {
  int16_t values[64];
};

enum Fill { kSmall, kFull16, kExtreme, kOnePower, kFills };

// Random values at the natural indices whose bits lie inside `position_mask` (as the kernel
// stores them) and at 0: small ones as real streams give them, any 16-bit ones, values at the
// edges where the transforms' intermediates wrap, or one value of +-2^b (+-32767 for b = 15).
Block randomBlock(Fill fill, unsigned position_mask) {
  static const int16_t kEdges[] = {-32768, -32767, -16385, -16384, -8193, -8192, -4097,
                                   -4096,  -1,     0,      1,      4095,  4096,  8191,
                                   8192,   16383,  16384,  32766,  32767};
  std::uniform_int_distribution<int> any(-32768, 32767), small(-600, 600), edge(0, 18), bit(0, 15);
  Block block = {};
  std::vector<int> used;
  for (int n = 0; n < 64; ++n) {
    if ((n & ~position_mask) != 0) continue;
    used.push_back(n);
    int value = any(rng());
    if (fill == kSmall) value = n == 0 ? 8 * small(rng()) : small(rng()) >> (n / 8);
    if (fill == kExtreme && rng()() % 4 != 0) value = kEdges[edge(rng())];
    block.values[n] = static_cast<int16_t>(value);
  }
  if (fill == kOnePower) {
    std::memset(block.values, 0, sizeof(block.values));
    const int b = bit(rng());
    const int index = used[rng()() % used.size()];
    block.values[index] = static_cast<int16_t>((rng()() % 2 ? 1 : -1) * ((1 << b) - (b == 15)));
  }
  return block;
}

// Every position_mask with fitting last positions, so all three paths (and the vector form's
// split of the full path) run on every kind of block: the same samples, the coefficients left
// alone, and nothing written outside the 8x8 area.
TEST(Checkasm_reconstruct, Paths) {
  CHECKASM_REQUIRE_VECTOR();
  const int strides[] = {8, 13, 64};
  const uint8_t lasts[] = {1, 2, 4, 5, 63, 77};
  for (int i = 0; i < 24000; ++i) {
    const unsigned mask = i % 64;
    const uint8_t last = mask == 0 ? 0 : lasts[i / 64 % 6];
    const int stride = strides[i % 3];
    Block block = randomBlock(static_cast<Fill>(i / 64 % kFills), mask);
    if (i % 128 >= 64) {  // every other round: about half the values dropped, as in real blocks
      for (int16_t& value : block.values) value &= -static_cast<int16_t>(rng()() % 2);
    }
    const Block copy = block;
    GuardedPlane scalar(8, 8, stride), vector(8, 8, stride);
    tables().scalar.reconstructBlock(block.values, mask, last, scalar.data(), stride);
    tables().vector.reconstructBlock(block.values, mask, last, vector.data(), stride);
    ASSERT_EQ(std::memcmp(block.values, copy.values, sizeof(block.values)), 0);
    ASSERT_EQ(firstDifference(scalar.bytes, vector.bytes), -1)
        << "mask " << mask << " last " << int{last} << " c0 " << block.values[0];
    ASSERT_EQ(vector.firstChangeOutside(), -1);
    ASSERT_EQ(scalar.firstChangeOutside(), -1);
  }
  const Block block = randomBlock(kSmall, 63);
  uint8_t plane[8 * 64];
  benchPair(
      "reconstructBlock full",
      [&] { tables().scalar.reconstructBlock(block.values, 0x3F, 63, plane, 64); },
      [&] { tables().vector.reconstructBlock(block.values, 0x3F, 63, plane, 64); });
}

// Random entropy data decoded by both kernel forms over the same guarded planes (a 2x1 luma and
// two chroma blocks per MCU, 5 x 4 MCUs, the default tables): the same result and samples, with and
// without wide levels. Every third case names the first chroma component twice: two blocks share a
// place, the later wins.
TEST(Checkasm_reconstruct, KernelForms) {
  CHECKASM_REQUIRE_VECTOR();
  jpeg::SimpleJPEGDecoder decoder;
  jpeg::JPEGBuffer dht(jpeg::kMJPGDHTSeg + 2, sizeof(jpeg::kMJPGDHTSeg) - 2);
  ASSERT_TRUE(decoder.parseDHT(&dht));
  alignas(16) int16_t quant[128] = {};
  std::uniform_int_distribution<int> step(1, 245);
  for (int k = 0; k < 64; ++k) quant[k] = static_cast<int16_t>(k == 0 ? 32 : step(rng()));
  int decoded = 0;
  for (int i = 0; i < 3000; ++i) {
    std::vector<uint8_t> data = randomBytes(rng()() % 601);
    // Mostly-zero data decodes far (short codes), random data fails soon.
    if (i % 2 == 0) {
      for (uint8_t& byte : data) byte &= static_cast<uint8_t>(rng()());
    }
    data.insert(data.end(), 8, 0xFF);
    GuardedPlane planes[2][3] = {{{80, 32, 80}, {40, 32, 40}, {40, 32, 40}},
                                 {{80, 32, 80}, {40, 32, 40}, {40, 32, 40}}};
    std::vector<MCUBlock> blocks[2];
    int results[2];
    for (int f = 0; f < 2; ++f) {
      for (int b = 0; b < 4; ++b) {
        const int plane = b < 2 ? 0 : (i % 3 == 0 ? 1 : b - 1), table = plane == 0 ? 0 : 1;
        GuardedPlane& target = planes[f][plane];
        // Steps, AC and DC table, place in MCU (0, 0), component, stride, steps per MCU.
        blocks[f].push_back({quant, decoder.ac_huffman_tables_[table]->entries_.data(),
                             decoder.dc_huffman_tables_[table]->entries_.data(),
                             target.data() + 8 * (b == 1), plane + 1, target.stride,
                             plane == 0 ? 16 : 8, 8 * target.stride, b == 1, 0});
      }
      MCUSpanContext context = {};
      context.data_ = data.data();
      context.dest_ = data.data() + data.size();
      context.blocks_ = blocks[f].data();
      context.blocks_per_mcu_ = 4;
      context.mcus_per_row_ = 5;
      context.mcu_count_ = 1 + static_cast<uint32_t>(i % 15);
      context.mcu_x_ = static_cast<uint32_t>(i % 5);
      alignas(16) int16_t coefficients[64];
      const jpeg::DSPFunctions& form = f == 0 ? tables().scalar : tables().vector;
      jpeg::WideLevels wide;
      wide.build(blocks[f].data(), blocks[f].size());
      // The vector form reads every other case without wide levels (each symbol in the table),
      // and every fourth through the exported entry, which has none either.
      if (f == 1 && i % 4 == 3) {
        results[f] = decode_mcu_span_sse2_64(coefficients, &context);
      } else {
        const uint32_t* const zero[4] = {kNoWideLevel, kNoWideLevel, kNoWideLevel, kNoWideLevel};
        const MCUWideLevels none = {zero, zero};
        results[f] = form.decodeMCUSpan(coefficients, &context, nullptr,
                                        f == 1 && i % 2 == 1 ? &none : wide.levels());
      }
    }
    ASSERT_EQ(results[0], results[1]) << "case " << i;
    decoded += results[0];
    for (int p = 0; p < 3; ++p) {
      ASSERT_EQ(firstDifference(planes[0][p].bytes, planes[1][p].bytes), -1) << i;
      ASSERT_EQ(planes[1][p].firstChangeOutside(), -1);
    }
  }
  // Both outcomes must have been exercised.
  EXPECT_GT(decoded, 100);
  EXPECT_LT(decoded, 2900);
}

}  // namespace
}  // namespace checkasm
}  // namespace vidra
