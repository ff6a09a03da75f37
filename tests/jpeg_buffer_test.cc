// JPEGBuffer: the bounded big-endian reader under all marker-level parsing.

#include "jpeg_buffer.h"

#include <gtest/gtest.h>

#include <vector>

namespace vidra {
namespace jpeg {
namespace {

TEST(JPEGBufferTest, EmptyRangeRefusesEveryRead) {
  const uint8_t byte = 0x42;
  for (const uint8_t* data : {static_cast<const uint8_t*>(nullptr), &byte}) {
    JPEGBuffer buffer(data, 0);
    uint8_t u8 = 7;
    uint16_t u16 = 7;
    EXPECT_FALSE(buffer.getUint8(&u8));
    EXPECT_FALSE(buffer.getUint16(&u16));
    EXPECT_FALSE(buffer.consumeUint8(0x42));
    EXPECT_FALSE(buffer.getLength16(&u16));
    EXPECT_EQ(u8, 7);
    EXPECT_EQ(u16, 7);
    EXPECT_EQ(buffer.getData(0), data);
    EXPECT_EQ(buffer.getData(1), nullptr);
    EXPECT_EQ(buffer.getRemainingBytes(), 0u);
    EXPECT_EQ(buffer.position(), 0u);
  }
}

TEST(JPEGBufferTest, ReadsBigEndianAndMoves) {
  const uint8_t bytes[] = {0x12, 0x34, 0x56, 0xFF, 0xD8};
  JPEGBuffer buffer(bytes, sizeof(bytes));
  uint16_t u16 = 0;
  uint8_t u8 = 0;
  ASSERT_TRUE(buffer.getUint16(&u16));
  EXPECT_EQ(u16, 0x1234);
  ASSERT_TRUE(buffer.getUint8(&u8));
  EXPECT_EQ(u8, 0x56);
  ASSERT_TRUE(buffer.getUint16(&u16));
  EXPECT_EQ(u16, 0xFFD8);  // no sign extension of the high byte
  EXPECT_EQ(buffer.getRemainingBytes(), 0u);
  EXPECT_EQ(buffer.position(), 5u);
}

TEST(JPEGBufferTest, OneByteLeftIsNotAUint16) {
  const uint8_t bytes[] = {0xAB};
  JPEGBuffer buffer(bytes, sizeof(bytes));
  uint16_t u16 = 0x5555;
  EXPECT_FALSE(buffer.getUint16(&u16));
  EXPECT_EQ(u16, 0x5555);
  EXPECT_EQ(buffer.getRemainingBytes(), 1u);
  uint8_t u8 = 0;
  ASSERT_TRUE(buffer.getUint8(&u8));
  EXPECT_EQ(u8, 0xAB);
}

TEST(JPEGBufferTest, ConsumeMovesPastAWrongByte) {
  const uint8_t bytes[] = {0xFF, 0x12, 0x34};
  JPEGBuffer buffer(bytes, sizeof(bytes));
  EXPECT_TRUE(buffer.consumeUint8(0xFF));
  EXPECT_FALSE(buffer.consumeUint8(0xD8));  // 0x12: wrong, but read
  uint8_t u8 = 0;
  ASSERT_TRUE(buffer.getUint8(&u8));
  EXPECT_EQ(u8, 0x34);
  EXPECT_FALSE(buffer.consumeUint8(0x34));  // short: no move
  EXPECT_EQ(buffer.position(), 3u);
}

// The length field counts itself; the payload must lie inside the range.
TEST(JPEGBufferTest, Length16) {
  struct Case {
    std::vector<uint8_t> bytes;
    bool ok;
    uint16_t len;     // when ok
    size_t position;  // afterwards
  } cases[] = {
      {{0x00}, false, 0, 0},                   // no room for the field
      {{0x00, 0x00}, false, 0, 2},             // below 2
      {{0x00, 0x01, 0xAA}, false, 0, 2},       // below 2
      {{0x00, 0x02}, true, 0, 2},              // empty payload
      {{0x00, 0x05, 1, 2, 3}, true, 3, 2},     // reaches exactly to the end
      {{0x00, 0x06, 1, 2, 3}, false, 0, 2},    // one byte past the end
      {{0x01, 0x02, 0xEE}, false, 0, 2},       // 256 claimed, 1 there
      {{0x00, 0x03, 0xAA, 0xBB}, true, 1, 2},  // bytes behind the payload are fine
      {{0xFF, 0xFF}, false, 0, 2},             // the largest claim
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.bytes));
    JPEGBuffer buffer(c.bytes.data(), c.bytes.size());
    uint16_t len = 0xBEEF;
    EXPECT_EQ(buffer.getLength16(&len), c.ok);
    if (c.ok) {
      EXPECT_EQ(len, c.len);
    }
    EXPECT_EQ(buffer.position(), c.position);
  }
}

TEST(JPEGBufferTest, EmptyPayloadStillHasAnAddress) {
  const uint8_t bytes[] = {0x00, 0x02};
  JPEGBuffer buffer(bytes, sizeof(bytes));
  uint16_t len = 1;
  ASSERT_TRUE(buffer.getLength16(&len));
  EXPECT_EQ(len, 0);
  EXPECT_EQ(buffer.getData(0), bytes + 2);  // at the very end of the range
  EXPECT_EQ(buffer.getRemainingBytes(), 0u);
}

TEST(JPEGBufferTest, GetDataUpToTheEnd) {
  const uint8_t bytes[] = {1, 2, 3, 4, 5, 6};
  JPEGBuffer buffer(bytes, sizeof(bytes));
  uint8_t u8 = 0;
  ASSERT_TRUE(buffer.getUint8(&u8));
  EXPECT_EQ(buffer.getData(6), nullptr);  // one more than remains: no move
  EXPECT_EQ(buffer.getRemainingBytes(), 5u);
  EXPECT_EQ(buffer.getData(0), bytes + 1);
  EXPECT_EQ(buffer.getData(2), bytes + 1);
  EXPECT_EQ(buffer.getData(3), bytes + 3);  // exactly what remains
  EXPECT_EQ(buffer.getRemainingBytes(), 0u);
  EXPECT_EQ(buffer.getData(1), nullptr);
  EXPECT_EQ(buffer.getData(0), bytes + 6);
  EXPECT_EQ(buffer.getData(static_cast<size_t>(-1)), nullptr);
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
