// Reading frame headers: layout, restart interval, Huffman tables, quality estimate.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <string>
#include <vector>

#include "jpeg_headers.h"
#include "support/test_support.h"

namespace vidra {
namespace test {
namespace {

using tool::JPEGHeaderInfo;
using tool::readJPEGHeader;

JPEGHeaderInfo headerOf(const std::vector<uint8_t>& frame) {
  return readJPEGHeader(frame.data(), frame.size());
}

TEST(ToolHeadersTest, ReadsLayoutRestartIntervalAndTables) {
  struct Case {
    int width, height, subsampling, restart_rows;
    const char* sampling;
    int restart_interval;  // MCUs
  } cases[] = {
      {64, 32, TJSAMP_422, 2, "4:2:2 (2x1,1x1,1x1)", 8},  // MCUs of 16x8: 4 per row
      {64, 32, TJSAMP_420, 1, "4:2:0 (2x2,1x1,1x1)", 4},
      {40, 24, TJSAMP_444, 0, "4:4:4 (1x1,1x1,1x1)", 0},
      {33, 17, TJSAMP_440, 1, "4:4:0 (1x2,1x1,1x1)", 5},
      {64, 8, TJSAMP_411, 1, "4:1:1 (4x1,1x1,1x1)", 2},
      {24, 16, TJSAMP_GRAY, 3, "grey (1x1)", 9},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.sampling);
    const std::vector<uint8_t> frame =
        encodeTestFrame(test.width, test.height, test.subsampling, 90, test.restart_rows);
    const JPEGHeaderInfo header = headerOf(frame);
    ASSERT_TRUE(header.ok()) << header.error;
    EXPECT_EQ(header.sof_marker, 0xC0);
    EXPECT_EQ(tool::sofName(header.sof_marker), "baseline");
    EXPECT_EQ(header.width, test.width);
    EXPECT_EQ(header.height, test.height);
    EXPECT_EQ(tool::samplingName(header.components), test.sampling);
    EXPECT_EQ(header.restart_interval, test.restart_interval);
    EXPECT_TRUE(header.has_dht);
    EXPECT_TRUE(header.dqt_present[0]);
    EXPECT_EQ(header.app_tags, std::vector<std::string>{"JFIF"});
    EXPECT_FALSE(headerOf(stripDHT(frame)).has_dht);
  }
}

// libjpeg's own tables come out as exactly the quality that made them.
TEST(ToolHeadersTest, EstimatesTheQualityOfLibjpegTables) {
  for (int quality : {5, 25, 50, 75, 85, 90, 95, 100}) {
    SCOPED_TRACE(quality);
    const JPEGHeaderInfo header = headerOf(encodeTestFrame(16, 16, TJSAMP_420, quality));
    ASSERT_TRUE(header.ok());
    double distance = -1;
    EXPECT_EQ(tool::estimateQuality(header.dqt[header.components[0].tq], &distance), quality);
    EXPECT_EQ(distance, 0.0);
  }
  // A table libjpeg never writes gets the closest quality and a distance above zero.
  std::array<uint16_t, 64> table = tool::ijgLuminanceTable(80);
  table[0] += 3;
  table[63] -= 2;
  double distance = 0;
  EXPECT_EQ(tool::estimateQuality(table, &distance), 80);
  EXPECT_GT(distance, 0.0);
}

TEST(ToolHeadersTest, ReadsTheCorpusAsItsReadmeDescribesIt) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  int with_restarts = 0;
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    const JPEGHeaderInfo header = headerOf(readFile(file));
    ASSERT_TRUE(header.ok()) << header.error;
    EXPECT_EQ(header.width, 640);
    EXPECT_EQ(header.height, 480);
    EXPECT_EQ(tool::samplingName(header.components), "4:2:2 (2x1,1x1,1x1)");
    EXPECT_FALSE(header.has_dht);
    EXPECT_EQ(tool::estimateQuality(header.dqt[header.components[0].tq], nullptr), 90);
    ASSERT_FALSE(header.app_tags.empty());
    EXPECT_EQ(header.app_tags[0], "AVI1");
    if (header.restart_interval != 0) {
      EXPECT_EQ(header.restart_interval, 80);  // 2 rows of 40 MCUs
      ++with_restarts;
    }
  }
  EXPECT_EQ(with_restarts * 2, static_cast<int>(files.size()));
}

// Every prefix of a header, and a header with a broken length, is reported, never read past.
TEST(ToolHeadersTest, ReportsDamagedHeadersWithoutReadingPastThem) {
  const std::vector<uint8_t> frame = encodeTestFrame(32, 32, TJSAMP_422, 90, 1);
  const JPEGHeaderInfo full = headerOf(frame);
  ASSERT_TRUE(full.ok());
  for (size_t size = 0; size < full.header_bytes; ++size) {
    // A copy of exactly `size` bytes, so that the sanitizers see any read past it.
    const std::vector<uint8_t> prefix(frame.begin(), frame.begin() + size);
    const JPEGHeaderInfo header = headerOf(prefix);
    EXPECT_FALSE(header.ok()) << size;
    EXPECT_FALSE(header.error.empty()) << size;
  }
  std::vector<uint8_t> broken = frame;
  broken[4] = 0;  // length of the APP0 segment behind SOI
  broken[5] = 1;
  EXPECT_NE(headerOf(broken).error.find("length below 2"), std::string::npos);
  broken = frame;
  broken[2] = 0x12;  // no marker behind SOI
  EXPECT_NE(headerOf(broken).error.find("expected a marker"), std::string::npos);
  EXPECT_NE(headerOf({0x12, 0x34}).error.find("no SOI"), std::string::npos);
}

TEST(ToolHeadersTest, StrippingDHTKeepsEverythingElse) {
  const std::vector<uint8_t> frame = encodeTestFrame(48, 16, TJSAMP_422, 90, 1);
  const std::vector<uint8_t> stripped = tool::stripDHTSegments(frame);
  EXPECT_EQ(stripped, stripDHT(frame));
  EXPECT_FALSE(headerOf(stripped).has_dht);
  // The entropy data is untouched.
  const JPEGHeaderInfo before = headerOf(frame), after = headerOf(stripped);
  EXPECT_TRUE(std::equal(frame.begin() + before.header_bytes, frame.end(),
                         stripped.begin() + after.header_bytes, stripped.end()));
  // A frame without SOS comes back as it was.
  const std::vector<uint8_t> cut(frame.begin(), frame.begin() + 40);
  EXPECT_EQ(tool::stripDHTSegments(cut), cut);
}

}  // namespace
}  // namespace test
}  // namespace vidra
