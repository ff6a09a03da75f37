// JPEGBuffer: the bounded big-endian reader under all marker-level parsing.

#include "jpeg_buffer.h"

#include <gtest/gtest.h>

#include <vector>

namespace vidra {
namespace jpeg {
namespace {

TEST(JPEGBufferTest, EmptyRangeRefusesEveryRead) {
  const uint8_t byte = 0x42;
  JPEGBuffer buffer(&byte, 0);
  uint8_t u8 = 7;
  uint16_t u16 = 7;
  EXPECT_FALSE(buffer.getUint8(&u8));
  EXPECT_FALSE(buffer.getUint16(&u16));
  EXPECT_FALSE(buffer.consumeUint8(0x42));
  EXPECT_FALSE(buffer.getLength16(&u16));
  EXPECT_EQ(u8, 7);
  EXPECT_EQ(u16, 7);
  EXPECT_EQ(buffer.getData(1), nullptr);
  EXPECT_EQ(buffer.getData(0), &byte);
  EXPECT_EQ(buffer.getRemainingBytes(), 0u);
}

// Big-endian without sign extension; a wrong byte is consumed; a short read moves nothing.
TEST(JPEGBufferTest, ReadsAndMoves) {
  const uint8_t bytes[] = {0x12, 0x34, 0xFF, 0xD8, 0x56, 0xAB};
  JPEGBuffer buffer(bytes, sizeof(bytes));
  uint16_t u16 = 0;
  uint8_t u8 = 0;
  ASSERT_TRUE(buffer.getUint16(&u16));
  EXPECT_EQ(u16, 0x1234);
  ASSERT_TRUE(buffer.getUint16(&u16));
  EXPECT_EQ(u16, 0xFFD8);
  EXPECT_FALSE(buffer.consumeUint8(0x00));  // 0x56: wrong, but read
  EXPECT_FALSE(buffer.getUint16(&u16));     // one byte left
  EXPECT_EQ(u16, 0xFFD8);
  ASSERT_TRUE(buffer.getUint8(&u8));
  EXPECT_EQ(u8, 0xAB);
  EXPECT_FALSE(buffer.consumeUint8(0xAB));  // nothing left: no move
  EXPECT_EQ(buffer.position(), 6u);
}

// The length field counts itself; the payload must lie inside the range. A payload of 0 bytes
// still has an address, at the very end of the range.
TEST(JPEGBufferTest, Length16) {
  const struct {
    std::vector<uint8_t> bytes;
    int len;          // -1: refused
    size_t position;  // afterwards
  } cases[] = {
      {{0x00}, -1, 0},                   // no room for the field
      {{0x00, 0x00}, -1, 2},             // below 2
      {{0x00, 0x01, 0xAA}, -1, 2},       // below 2
      {{0x00, 0x02}, 0, 2},              // empty payload
      {{0x00, 0x05, 1, 2, 3}, 3, 2},     // reaches exactly to the end
      {{0x00, 0x06, 1, 2, 3}, -1, 2},    // one byte past the end
      {{0x00, 0x03, 0xAA, 0xBB}, 1, 2},  // bytes behind the payload are fine
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.bytes));
    JPEGBuffer buffer(c.bytes.data(), c.bytes.size());
    uint16_t len = 0xBEEF;
    EXPECT_EQ(buffer.getLength16(&len), c.len >= 0);
    EXPECT_TRUE(c.len < 0 || len == c.len) << len;
    EXPECT_EQ(buffer.getData(0), c.bytes.data() + c.position);
  }
}

TEST(JPEGBufferTest, GetDataUpToTheEnd) {
  const uint8_t bytes[] = {1, 2, 3, 4, 5, 6};
  JPEGBuffer buffer(bytes, sizeof(bytes));
  EXPECT_EQ(buffer.getData(1), bytes);
  EXPECT_EQ(buffer.getData(6), nullptr);  // one more than remains: no move
  EXPECT_EQ(buffer.getData(2), bytes + 1);
  EXPECT_EQ(buffer.getData(3), bytes + 3);  // exactly what remains
  EXPECT_EQ(buffer.getRemainingBytes(), 0u);
  EXPECT_EQ(buffer.getData(1), nullptr);
  EXPECT_EQ(buffer.getData(static_cast<size_t>(-1)), nullptr);
  EXPECT_EQ(buffer.getData(0), bytes + 6);
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
