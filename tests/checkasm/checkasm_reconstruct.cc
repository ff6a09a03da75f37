// Vector forms of block reconstruction and of the MCU kernel against their scalar twins.

#include <cstring>
#include <limits>

#include "checkasm/checkasm.h"
#include "jpeg.h"
#include "mcu_kernel.h"

namespace vidra {
namespace checkasm {
namespace {

constexpr int kStrides[] = {8, 13, 64};

struct alignas(16) Block {
  int16_t values[64];
};

// Values that make every intermediate of the transforms wrap somewhere, mixed with ordinary
// ones.
int16_t extremeValue() {
  static const int16_t kEdges[] = {std::numeric_limits<int16_t>::min(),
                                   std::numeric_limits<int16_t>::min() + 1,
                                   -16385,
                                   -16384,
                                   -8193,
                                   -8192,
                                   -4097,
                                   -4096,
                                   -1,
                                   0,
                                   1,
                                   4095,
                                   4096,
                                   8191,
                                   8192,
                                   16383,
                                   16384,
                                   std::numeric_limits<int16_t>::max() - 1,
                                   std::numeric_limits<int16_t>::max()};
  std::uniform_int_distribution<int> pick(0, sizeof(kEdges) / sizeof(kEdges[0]) - 1);
  return kEdges[pick(rng())];
}

enum class Fill { kSmall, kFull16, kExtreme };

Block randomBlock(Fill fill, uint64_t used_mask) {
  Block block = {};
  std::uniform_int_distribution<int> small(-600, 600);
  std::uniform_int_distribution<int> full(-32768, 32767);
  std::uniform_int_distribution<int> coin(0, 3);
  for (int i = 0; i < 64; ++i) {
    if (((used_mask >> i) & 1) == 0) continue;
    switch (fill) {
      case Fill::kSmall:
        block.values[i] = static_cast<int16_t>(i == 0 ? 8 * small(rng()) : small(rng()) >> (i / 8));
        break;
      case Fill::kFull16:
        block.values[i] = static_cast<int16_t>(full(rng()));
        break;
      case Fill::kExtreme:
        block.values[i] = coin(rng()) == 0 ? static_cast<int16_t>(full(rng())) : extremeValue();
        break;
    }
  }
  return block;
}

// Runs both forms on the same block into guarded planes and expects the same 64 samples and
// nothing written outside them.
void expectSameSamples(const Block& block, uint8_t position_mask, uint8_t last_position,
                       int stride) {
  GuardedPlane scalar(8, 8, stride), vector(8, 8, stride);
  Block copy = block;
  tables().scalar.reconstructBlock(block.values, position_mask, last_position, scalar.data(),
                                   stride);
  tables().vector.reconstructBlock(copy.values, position_mask, last_position, vector.data(),
                                   stride);
  ASSERT_EQ(std::memcmp(block.values, copy.values, sizeof(block.values)), 0)
      << "the vector form changed the coefficients";
  ASSERT_EQ(firstDifference(scalar.bytes, vector.bytes), -1)
      << "mask " << int{position_mask} << " last " << int{last_position} << " stride " << stride
      << " c0 " << block.values[0] << " c1 " << block.values[1];
  ASSERT_TRUE(vector.untouchedOutside());
  ASSERT_TRUE(scalar.untouchedOutside());
}

TEST(Checkasm_reconstruct, DCPathEveryValue) {
  CHECKASM_REQUIRE_VECTOR();
  for (int c0 = -32768; c0 <= 32767; c0 += 7) {
    Block block = {};
    block.values[0] = static_cast<int16_t>(c0);
    expectSameSamples(block, 0, 0, 8);
    if (HasFatalFailure()) return;
  }
}

TEST(Checkasm_reconstruct, LowFrequencyPath) {
  CHECKASM_REQUIRE_VECTOR();
  const uint64_t corner = (1ull << 0) | (1ull << 1) | (1ull << 8) | (1ull << 9);
  // Masks that keep the block on the low-frequency path: any OR of 1, 8 and 9.
  const uint8_t masks[] = {0, 1, 8, 9};
  for (Fill fill : {Fill::kSmall, Fill::kFull16, Fill::kExtreme}) {
    for (int i = 0; i < 4000; ++i) {
      const Block block = randomBlock(fill, corner);
      const uint8_t last = static_cast<uint8_t>(1 + i % 4);
      expectSameSamples(block, masks[i % 4], last, kStrides[i % 3]);
      if (HasFatalFailure()) return;
    }
  }
}

TEST(Checkasm_reconstruct, FullPath) {
  CHECKASM_REQUIRE_VECTOR();
  std::uniform_int_distribution<uint64_t> any_mask;
  for (Fill fill : {Fill::kSmall, Fill::kFull16, Fill::kExtreme}) {
    for (int i = 0; i < 4000; ++i) {
      // Dense blocks, and sparse ones as real streams give them.
      const uint64_t used = i % 2 == 0 ? ~0ull : any_mask(rng()) & any_mask(rng());
      const Block block = randomBlock(fill, used | 1);
      expectSameSamples(block, 0x3F, 63, kStrides[i % 3]);
      if (HasFatalFailure()) return;
    }
  }
}

// A block as the kernel hands it over: values (zero or not) only at natural indices whose bits
// lie inside `position_mask`, the OR of all indices stored to, and the DC value.
Block blockForMask(Fill fill, unsigned position_mask) {
  uint64_t used = 1;
  for (unsigned n = 1; n < 64; ++n) {
    if ((n & ~position_mask) == 0) used |= 1ull << n;
  }
  return randomBlock(fill, used);
}

// Every mask with every kind of last position: the forms must pick the same path (a different
// pick shows as different samples).
TEST(Checkasm_reconstruct, PathSelection) {
  CHECKASM_REQUIRE_VECTOR();
  for (unsigned mask = 0; mask < 64; ++mask) {
    for (unsigned last : {0u, 1u, 2u, 4u, 5u, 63u, 77u}) {
      // Without any store there is no AC position, and with one there is.
      if ((mask == 0) != (last == 0)) continue;
      for (Fill fill : {Fill::kSmall, Fill::kExtreme}) {
        for (int i = 0; i < 8; ++i) {
          const Block block = blockForMask(fill, mask);
          expectSameSamples(block, static_cast<uint8_t>(mask), static_cast<uint8_t>(last),
                            kStrides[i % 3]);
          if (HasFatalFailure()) return;
        }
      }
    }
  }
}

// Blocks whose stores all lie in rows 0..3 and columns 0..3 (no index with bit 2 or 5), which the
// vector form transforms without the zero rows and columns.
TEST(Checkasm_reconstruct, FullPathUpperLeftQuarter) {
  CHECKASM_REQUIRE_VECTOR();
  const unsigned quarter_masks[] = {0x02, 0x10, 0x12, 0x19, 0x1B, 0x0B, 0x13};
  for (Fill fill : {Fill::kSmall, Fill::kFull16, Fill::kExtreme}) {
    for (int i = 0; i < 3000; ++i) {
      const unsigned mask = quarter_masks[i % 7];
      expectSameSamples(blockForMask(fill, mask), static_cast<uint8_t>(mask), 9, kStrides[i % 3]);
      if (HasFatalFailure()) return;
    }
  }
}

// A block of a single value at any natural index and with any magnitude, through the full
// path: one 2^k step at a time makes the wrap of every multiplier input visible.
TEST(Checkasm_reconstruct, FullPathSingleValues) {
  CHECKASM_REQUIRE_VECTOR();
  for (unsigned index = 0; index < 64; ++index) {
    const uint8_t mask = static_cast<uint8_t>(index | 0x10);  // full path, a store at `index`
    for (int bit = 0; bit < 16; ++bit) {
      for (int sign : {1, -1}) {
        Block block = {};
        block.values[index] = static_cast<int16_t>(sign * ((1 << bit) - (bit == 15 ? 1 : 0)));
        expectSameSamples(block, mask, 63, 8);
        if (HasFatalFailure()) return;
      }
    }
  }
}

TEST(Checkasm_reconstruct, Timing) {
  CHECKASM_REQUIRE_VECTOR();
  const Block block = randomBlock(Fill::kSmall, ~0ull);
  uint8_t plane[8 * 64];
  benchPair(
      "reconstructBlock full",
      [&] { tables().scalar.reconstructBlock(block.values, 0x3F, 63, plane, 64); },
      [&] { tables().vector.reconstructBlock(block.values, 0x3F, 63, plane, 64); });
  benchPair(
      "reconstructBlock low-frequency",
      [&] { tables().scalar.reconstructBlock(block.values, 9, 4, plane, 64); },
      [&] { tables().vector.reconstructBlock(block.values, 9, 4, plane, 64); });
  SUCCEED();
}

// ---- The kernel ------------------------------------------------------------------------------

// The default tables, built by the decoder from kMJPGDHTSeg, and a quantisation table.
struct DefaultTables {
  DefaultTables() {
    jpeg::JPEGBuffer segment(jpeg::kMJPGDHTSeg + 2, sizeof(jpeg::kMJPGDHTSeg) - 2);
    ok = decoder.parseDHT(&segment);
    std::uniform_int_distribution<int> step(1, 1962);
    for (int k = 0; k < 64; ++k) quant[k] = static_cast<int16_t>(k == 0 ? 32 : step(rng()) / 8);
  }
  jpeg::SimpleJPEGDecoder decoder;
  bool ok = false;
  alignas(16) int16_t quant[128] = {};
};

// A 2x1 luma + two chroma MCU layout over planes of `mcus_x` x `mcus_y` MCUs.
struct SpanSetup {
  SpanSetup(const DefaultTables& tables, int mcus_x, int mcus_y)
      : mcus_x(mcus_x),
        luma(16 * mcus_x, 8 * mcus_y, 16 * mcus_x),
        cb(8 * mcus_x, 8 * mcus_y, 8 * mcus_x),
        cr(8 * mcus_x, 8 * mcus_y, 8 * mcus_x) {
    const jpeg::SimpleJPEGDecoder& d = tables.decoder;
    auto add = [&](GuardedPlane* plane, int component, int x, int table) {
      MCUBlock block = {};
      block.quant_table_ = tables.quant;
      block.ac_table_ = d.ac_huffman_tables_[table]->entries_.data();
      block.dc_table_ = d.dc_huffman_tables_[table]->entries_.data();
      block.image_ = plane->data() + 8 * x;
      block.component_ = component;
      block.stride_ = plane->stride;
      block.mcu_width_ = 8 * (component == 1 ? 2 : 1);
      block.mcu_row_size_ = 8 * plane->stride;
      block.x_ = x;
      blocks.push_back(block);
    };
    add(&luma, 1, 0, 0);
    add(&luma, 1, 1, 0);
    add(&cb, 2, 0, 1);
    add(&cr, 3, 0, 1);
  }
  int mcus_x;
  GuardedPlane luma, cb, cr;
  std::vector<MCUBlock> blocks;
};

// Random entropy data decoded by both kernel forms over the same planes: the same result,
// the same samples, the same context.
TEST(Checkasm_reconstruct, KernelForms) {
  CHECKASM_REQUIRE_VECTOR();
  DefaultTables default_tables;
  ASSERT_TRUE(default_tables.ok);
  std::uniform_int_distribution<int> length(0, 600);
  int decoded = 0;
  for (int i = 0; i < 3000; ++i) {
    std::vector<uint8_t> data = randomBytes(static_cast<size_t>(length(rng())));
    // Mostly-zero data decodes far (short codes), random data fails soon.
    if (i % 2 == 0) {
      for (uint8_t& byte : data) byte &= static_cast<uint8_t>(rng()());
    }
    data.insert(data.end(), 8, 0xFF);
    SpanSetup scalar_setup(default_tables, 5, 4), vector_setup(default_tables, 5, 4);
    MCUSpanContext scalar_context = {}, vector_context = {};
    for (auto [setup, context] :
         {std::pair{&scalar_setup, &scalar_context}, std::pair{&vector_setup, &vector_context}}) {
      context->data_ = data.data();
      context->dest_ = data.data() + data.size();
      context->blocks_ = setup->blocks.data();
      context->blocks_per_mcu_ = static_cast<uint32_t>(setup->blocks.size());
      context->mcus_per_row_ = 5;
      context->mcu_count_ = 1 + static_cast<uint32_t>(i % 15);
      context->mcu_x_ = static_cast<uint32_t>(i % 5);
      context->mcu_y_ = 0;
    }
    alignas(16) int16_t scalar_coefficients[64], vector_coefficients[64];
    const int scalar_result = tables().scalar.decodeMCUSpan(scalar_coefficients, &scalar_context);
    const int vector_result = tables().vector.decodeMCUSpan(vector_coefficients, &vector_context);
    ASSERT_EQ(scalar_result, vector_result) << "case " << i;
    decoded += scalar_result;
    ASSERT_EQ(firstDifference(scalar_setup.luma.bytes, vector_setup.luma.bytes), -1) << i;
    ASSERT_EQ(firstDifference(scalar_setup.cb.bytes, vector_setup.cb.bytes), -1) << i;
    ASSERT_EQ(firstDifference(scalar_setup.cr.bytes, vector_setup.cr.bytes), -1) << i;
    ASSERT_TRUE(vector_setup.luma.untouchedOutside());
    ASSERT_EQ(std::memcmp(scalar_context.dc_pred_, vector_context.dc_pred_,
                          sizeof(scalar_context.dc_pred_)),
              0);
    ASSERT_EQ(scalar_context.mcu_x_, vector_context.mcu_x_);
    ASSERT_EQ(scalar_context.mcu_y_, vector_context.mcu_y_);
  }
  // Both outcomes must have been exercised.
  EXPECT_GT(decoded, 100);
  EXPECT_LT(decoded, 2900);
}

}  // namespace
}  // namespace checkasm
}  // namespace vidra
