// JPEGBuffer: the bounded big-endian reader under all marker-level parsing.

#include "jpeg_buffer.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace vidra {
namespace jpeg {
namespace {

// A buffer with nothing left refuses every read, writes no output and stays at `end`.
void expectExhausted(JPEGBuffer* buffer, const uint8_t* end) {
  uint8_t u8 = 7;
  uint16_t u16 = 7;
  EXPECT_FALSE(buffer->getUint8(&u8) || buffer->getUint16(&u16) || buffer->consumeUint8(0x42) ||
               buffer->getLength16(&u16));
  EXPECT_EQ(std::make_pair(int{u8}, int{u16}), std::make_pair(7, 7));
  EXPECT_EQ(buffer->getData(1), nullptr);
  EXPECT_EQ(buffer->getData(static_cast<size_t>(-1)), nullptr);
  EXPECT_EQ(buffer->getRemainingBytes(), 0u);
  EXPECT_EQ(buffer->getData(0), end);
}

// An empty range refuses every read. Big-endian without sign extension; a wrong byte is
// consumed; a short read moves nothing; getData hands out exactly what remains and no more.
TEST(JPEGBufferTest, ReadsAndMoves) {
  const uint8_t bytes[] = {0x12, 0x34, 0xFF, 0xD8, 0x56, 0xAB, 1, 2, 3};
  JPEGBuffer empty(bytes, 0);
  expectExhausted(&empty, bytes);
  JPEGBuffer buffer(bytes, sizeof(bytes));
  uint16_t u16 = 0;
  uint8_t u8 = 0;
  EXPECT_TRUE(buffer.getUint16(&u16) && u16 == 0x1234) << u16;
  EXPECT_TRUE(buffer.getUint16(&u16) && u16 == 0xFFD8) << u16;
  EXPECT_FALSE(buffer.consumeUint8(0x00));  // 0x56: wrong, but read
  EXPECT_TRUE(buffer.getUint8(&u8) && u8 == 0xAB) << int{u8};
  EXPECT_EQ(buffer.getData(4), nullptr);  // one more than remains: no move
  EXPECT_EQ(buffer.getData(2), bytes + 6);
  EXPECT_FALSE(buffer.getUint16(&u16));  // one byte short: nothing written
  EXPECT_EQ(u16, 0xFFD8);
  EXPECT_EQ(buffer.getData(1), bytes + 8);  // exactly what remains
  expectExhausted(&buffer, bytes + 9);
}

// The length field counts itself; the payload must lie inside the range. A payload of 0 bytes
// still has an address, at the very end of the range. Only a missing field leaves the position.
TEST(JPEGBufferTest, Length16) {
  const std::pair<std::vector<uint8_t>, int> cases[] = {
      // bytes, length (-1: refused)
      {{0x00}, -1},                   // no room for the field
      {{0x00, 0x01, 0xAA}, -1},       // below 2
      {{0x00, 0x02}, 0},              // empty payload
      {{0x00, 0x05, 1, 2, 3}, 3},     // reaches exactly to the end
      {{0x00, 0x06, 1, 2, 3}, -1},    // one byte past the end
      {{0x00, 0x03, 0xAA, 0xBB}, 1},  // bytes behind the payload are fine
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.first));
    JPEGBuffer buffer(c.first.data(), c.first.size());
    uint16_t len = 0xBEEF;
    EXPECT_EQ(buffer.getLength16(&len), c.second >= 0);
    EXPECT_TRUE(c.second < 0 || len == c.second) << len;
    EXPECT_EQ(buffer.getData(0), c.first.data() + (c.first.size() < 2 ? 0 : 2));
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
