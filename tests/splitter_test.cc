// The stream splitter (vidra/splitter.h): where it cuts, that frames and junk cover every byte,
// that a cut it calls final stays so, and that its three forms (a whole buffer, a growing buffer,
// bytes fed in pieces) cut alike. The C interface: tests/c/splitter_c_test.c.

#include "vidra/splitter.h"

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace vidra {
namespace test {
namespace {

using Bytes = std::vector<uint8_t>;
using Row = std::array<size_t, 4>;  // offset, size, junk_before, cut_short of a frame

// The frames of `data` as rows, and the junk behind the last one.
std::vector<Row> split(const Bytes& data, size_t* trailing) {
  jpeg::MJPEGSplitter splitter(data.data(), data.size());
  std::vector<Row> rows;
  for (jpeg::SplitFrame f; splitter.next(&f);)
    rows.push_back({f.offset, f.size, f.junk_before, f.cut_short});
  *trailing = splitter.trailingJunk();
  EXPECT_EQ(splitter.position(), data.size());
  return rows;
}

// The frames of `data` fed `piece` bytes at a time to a stream splitter with `limit`.
std::vector<Row> splitFed(const Bytes& data, size_t piece, size_t limit, size_t* trailing) {
  jpeg::MJPEGStreamSplitter splitter(limit);
  std::vector<Row> rows;
  auto take = [&] {
    for (jpeg::StreamFrame f; splitter.next(&f);) {
      rows.push_back({size_t(f.offset), f.size, size_t(f.junk_before), f.cut_short});
      EXPECT_TRUE(std::equal(f.data, f.data + f.size, data.begin() + f.offset));
    }
  };
  for (size_t at = 0; at < data.size(); at += piece) {
    const size_t n = std::min(piece, data.size() - at);
    std::copy(data.begin() + at, data.begin() + at + n, splitter.reserve(n));
    splitter.commit(n);
    take();
  }
  splitter.finish();
  take();
  *trailing = splitter.pendingJunk();
  EXPECT_EQ(splitter.bytesFed(), data.size());
  return rows;
}

TEST(SplitterTest, CutsStreamsAtFrameBoundaries) {
  const Bytes a = encodeTestFrame(48, 32, TJSAMP_422, 90, 1, 1);
  const Bytes b = stripDHT(encodeTestFrame(32, 16, TJSAMP_420, 75, 0, 2));
  const Bytes c = encodeTestFrame(24, 24, TJSAMP_444, 50, 0, 3);
  // Marker-like bytes but no FF D8 FF; the fill bytes at the end run into the next SOI.
  const Bytes junk = {0x00, 0xFF, 0xD8, 0x00, 0xFF, 0xD9, 0x12, 0xFF, 0xFF};
  const size_t a_cut = a.size() - 40;  // inside the entropy data
  const size_t b_cut = 30;             // inside the tables
  // `a` with an APP1 segment behind SOI that holds a whole JPEG, as EXIF thumbnails do.
  const size_t app1 = 8 + c.size();
  const Bytes exif = concatFrames({{0xFF, 0xD8, 0xFF, 0xE1, static_cast<uint8_t>(app1 >> 8),
                                    static_cast<uint8_t>(app1), 'E', 'x', 'i', 'f', 0, 0},
                                   c,
                                   Bytes(a.begin() + 2, a.end())});
  struct Case {
    Bytes stream;
    std::vector<Row> frames;
    size_t trailing;
  } cases[] = {
      {concatFrames({junk, a, junk, b, junk}),
       {{9, a.size(), 9, 0}, {18 + a.size(), b.size(), 9, 0}},
       9},
      // EOI missing, or the frame cut inside its header: the next frame still counts.
      {concatFrames({head(a, a_cut), b}), {{0, a_cut, 0, 1}, {a_cut, b.size(), 0, 0}}, 0},
      {concatFrames({head(b, b_cut), c}), {{0, b_cut, 0, 1}, {b_cut, c.size(), 0, 0}}, 0},
      {concatFrames({exif, b}), {{0, exif.size(), 0, 0}, {exif.size(), b.size(), 0, 0}}, 0},
  };
  for (const Case& test : cases) {
    size_t trailing = 0;
    EXPECT_EQ(split(test.stream, &trailing), test.frames);
    EXPECT_EQ(trailing, test.trailing);
  }
}

// Every prefix of a stream, and streams damaged at random (flipped bytes, marker-like bytes, cuts):
// the splitter stays inside the data, and frames and junk cover every byte once, in order.
TEST(SplitterTest, AccountsForEveryByteOfCutAndDamagedStreams) {
  const Bytes clean = concatFrames({encodeTestFrame(32, 16, TJSAMP_422, 90, 1, 11),
                                    {0x00, 0x01},
                                    stripDHT(encodeTestFrame(16, 16, TJSAMP_420, 70, 0, 12))});
  std::vector<Bytes> streams;
  for (size_t size = 0; size <= clean.size(); ++size) streams.push_back(head(clean, size));
  std::mt19937 rng(5);
  const uint8_t kMarkers[] = {0xD8, 0xD9, 0xDA, 0xC4, 0xDB, 0xE1, 0xD0, 0x00, 0xFF};
  for (int round = 0; round < 300; ++round) {
    Bytes stream = clean;
    for (int edit = 0; edit < 6; ++edit) {
      const size_t at = rng() % stream.size(), kind = rng() % 3;
      if (kind == 2) stream.resize(std::max<size_t>(at, 1));
      if (kind == 0) stream[at] = static_cast<uint8_t>(rng());
      if (kind == 1) stream[at] = 0xFF;
      if (kind == 1 && at + 1 < stream.size()) stream[at + 1] = kMarkers[rng() % 9];
    }
    streams.push_back(head(stream, stream.size()));
  }
  for (const Bytes& data : streams) {
    SCOPED_TRACE("stream of " + std::to_string(data.size()) + " bytes");
    size_t covered = 0, trailing = 0;
    for (const Row& row : split(data, &trailing)) {
      ASSERT_EQ(row[0], covered + row[2]);
      ASSERT_LE(row[0] + row[1], data.size());
      covered = row[0] + row[1];
    }
    ASSERT_EQ(covered + trailing, data.size());
  }
}

// Streams whose cuts depend on how far they have come: a prefix that ends inside a frame or
// just behind it must not cut the frame as final where the whole stream cuts it elsewhere.
std::vector<Bytes> streamsCutByLaterBytes() {
  const Bytes a = encodeTestFrame(48, 32, TJSAMP_422, 90, 1, 1);
  const Bytes b = stripDHT(encodeTestFrame(32, 16, TJSAMP_420, 75, 0, 2));
  const size_t entropy = markerAt(a, 0xDA) + 14;
  // `a` to its entropy data, a DHT marker claiming `length` bytes with an early EOI inside, an EOI.
  auto claiming = [&](size_t length) {
    Bytes frame(a.begin(), a.begin() + entropy);
    frame.insert(frame.end(),
                 {0xFF, 0xC4, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)});
    frame.resize(frame.size() + length - 2, 0x00);
    frame[entropy + 104] = 0xFF, frame[entropy + 105] = 0xD9;  // 100 bytes into the body
    frame.insert(frame.end(), {0xFF, 0xD9});
    return frame;
  };
  // `a` with an SOS header of one component at the start of its entropy data, an EOI inside.
  Bytes sos(a.begin(), a.begin() + entropy);
  sos.insert(sos.end(), {0xFF, 0xDA, 0x00, 0x08, 0x01, 0xFF, 0xD9, 0x00, 0x00, 0x00});
  sos.insert(sos.end(), a.begin() + entropy, a.end());
  const Bytes junk = {0x00, 0xFF, 0xD8, 0x00, 0xFF, 0xD9, 0x12, 0xFF, 0xFF};
  return {
      // EOI missing: the next SOI ends the frame; FF D8 00 (no SOI), then EOI; a cut in the tables.
      concatFrames({junk, a, junk, head(b, b.size() - 20), a, b, junk}),
      concatFrames({head(b, b.size() - 20), junk, head(b, 30), a}),
      // Stepped over: the DHT, whose length bytes FF D9 read as an EOI until the segment is
      // whole and the marker behind it has come, and the SOS.
      concatFrames({claiming(0xFFD9), b}),
      concatFrames({sos, b}),
      // Not stepped over: the segment runs past the end, or over the next SOI.
      concatFrames({a, head(claiming(6000), entropy + 5000)}),
      concatFrames({head(claiming(4000), entropy + 2000), b, Bytes(3000, 0x00), a}),
      // Stepped over although the next frame's SOI begins 2 bytes before the segment's end.
      concatFrames({head(claiming(3000), entropy + 3000), b, a}),
  };
}

// Cut from each frame's start on, every prefix that findFrame() calls final cuts the frame as the
// whole stream does; some prefix does for each frame but the last, whose cut may depend on the end.
TEST(SplitterTest, CallsACutFinalOnlyWhereMoreBytesCantChangeIt) {
  for (const Bytes& stream : streamsCutByLaterBytes()) {
    size_t trailing;
    const std::vector<Row> frames = split(stream, &trailing);
    for (const Row& whole : frames) {
      SCOPED_TRACE("frame at byte " + std::to_string(whole[0]) + " of " +
                   std::to_string(stream.size()));
      bool final = false;
      for (size_t size = 0; whole[0] + size <= stream.size(); ++size) {
        jpeg::SplitFrame f;
        if (jpeg::findFrame(stream.data() + whole[0], size, false, &f) != jpeg::SplitStatus::kFrame)
          continue;
        final = true;
        ASSERT_FALSE(f.needs_more);
        ASSERT_EQ((Row{whole[0] + f.offset, f.size, whole[2] + f.junk_before, f.cut_short}), whole)
            << "final with " << size << " bytes";
      }
      EXPECT_TRUE(final || &whole == &frames.back());
    }
  }
}

// Fed `data` in pieces of each of these sizes, the stream splitter cuts as the whole buffer.
void expectCutAsTheWholeBuffer(const Bytes& data, std::initializer_list<size_t> pieces) {
  size_t expected_trailing, trailing;
  const std::vector<Row> expected = split(data, &expected_trailing);
  for (const size_t piece : pieces) {
    SCOPED_TRACE(std::to_string(data.size()) + " bytes, pieces of " + std::to_string(piece));
    EXPECT_EQ(splitFed(data, piece, jpeg::MJPEGStreamSplitter::kDefaultFrameLimit, &trailing),
              expected);
    EXPECT_EQ(trailing, expected_trailing);
  }
}

// Fed in pieces of any size, the stream splitter cuts as the whole buffer: the streams above,
// marker soup (SOIs, EOIs, SOS and table headers, segments whose lengths run over other markers,
// fill bytes, zeros), and plausible segments ending behind the next SOI (which once made the cut
// quadratic). A frame without end is cut after the frame limit, also when the input ends soon
// behind it; the rest is junk up to the next frame. (That the cut comes out while the input is
// still open: the tool's reader test on a pipe, which goes through this splitter.)
TEST(SplitterTest, CutsBytesFedInPiecesAsTheWholeBuffer) {
  for (const Bytes& data : streamsCutByLaterBytes())
    expectCutAsTheWholeBuffer(data, {1, 2, 5, 4096, 1 << 20});
  const Bytes pieces[] = {{0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10},
                          {0xFF, 0xD9},
                          {0xFF, 0xC0, 0x00, 0x11},
                          {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x00},
                          {0xFF, 0xC4, 0xFF, 0xD9},
                          {0xFF, 0xFF},
                          {0xFF, 0xC1, 0x00, 0x06}};
  std::mt19937 rng(3);
  for (int round = 0; round < 300; ++round) {
    Bytes data;
    const size_t size = rng() % 3000;
    while (data.size() < size) {
      const size_t pick = rng() % 9;
      if (pick < 7) data.insert(data.end(), pieces[pick].begin(), pieces[pick].end());
      if (pick == 7) data.resize(data.size() + rng() % 20, 0x00);
      if (pick == 8) data.push_back(static_cast<uint8_t>(rng()));
    }
    expectCutAsTheWholeBuffer(data, {size_t(1) + rng() % 7, size_t(1) + rng() % 5000});
  }
  Bytes plausible;
  while (plausible.size() < (200u << 10)) {
    plausible.insert(plausible.end(),
                     {0xFF, 0xD8, 0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00});
    for (int i = 0; i < 24000; ++i) plausible.insert(plausible.end(), {0xFF, 0xC1, 0xFF, 0xFE});
  }
  expectCutAsTheWholeBuffer(plausible, {size_t(1) + rng() % 7, size_t(1) + rng() % 5000});

  const size_t limit = 256 << 10;
  const Bytes b = stripDHT(encodeTestFrame(32, 16, TJSAMP_420, 75, 0, 2));
  Bytes data = {0xFF, 0xD8, 0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00};
  data.resize(limit + 100);
  size_t trailing;
  EXPECT_EQ(splitFed(data, 65536, limit, &trailing), (std::vector<Row>{{0, limit, 0, 1}}));
  EXPECT_EQ(trailing, 100u);
  const size_t endless = limit + 200000;
  data.resize(endless);
  data.insert(data.end(), b.begin(), b.end());
  EXPECT_EQ(splitFed(data, 65536, limit, &trailing),
            (std::vector<Row>{{0, limit, 0, 1}, {endless, b.size(), endless - limit, 0}}));
}

}  // namespace
}  // namespace test
}  // namespace vidra
