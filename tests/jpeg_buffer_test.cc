// JPEGBuffer: the bounded big-endian reader under all marker-level parsing. (The length field
// is pinned by the parsers' refusals: below 2, one byte past the end, empty, exactly to the end.)

#include "jpeg_buffer.h"

#include <gtest/gtest.h>

#include <utility>

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

// Big-endian without sign extension; a wrong byte is
// consumed; a short read moves nothing; getData hands out exactly what remains and no more.
TEST(JPEGBufferTest, ReadsAndMoves) {
  const uint8_t bytes[] = {0x12, 0x34, 0xFF, 0xD8, 0x56, 0xAB, 1, 2, 3};
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

}  // namespace
}  // namespace jpeg
}  // namespace vidra
