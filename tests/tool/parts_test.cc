// The tool's parts, tested directly: cutting raw MJPEG streams into frames (from files and as
// they arrive through a FIFO), reading frame headers, colour conversion, chroma completion, PNG,
// and the damage the demo does to frames.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cli/cli.h"
#include "demo/damage.h"
#include "demo/demo_scene.h"
#include "output/image.h"
#include "input/frame_reader.h"
#include "input/jpeg_headers.h"
#include "output/png_writer.h"
#include "support/test_support.h"
#include "tool/tool_test_support.h"
#include "demo/webcam_encoder.h"

namespace vidra {
namespace test {
namespace {

using Bytes = std::vector<uint8_t>;
using Row = std::array<size_t, 4>;  // offset, size, junk_before, cut_short of a frame
const uint8_t kSOS[] = {0xFF, 0xDA};

// The frames of `data` as rows, and the junk behind the last one.
std::vector<Row> split(const Bytes& data, size_t* trailing) {
  tool::MJPEGSplitter splitter(data.data(), data.size());
  std::vector<Row> rows;
  for (tool::SplitFrame f; splitter.next(&f);)
    rows.push_back({f.offset, f.size, f.junk_before, f.cut_short});
  *trailing = splitter.trailingJunk();
  EXPECT_EQ(splitter.position(), data.size());
  return rows;
}

// An exact-size copy, so that the sanitizers see any read past its end.
Bytes head(const Bytes& data, size_t size) { return Bytes(data.begin(), data.begin() + size); }

TEST(ToolSplitterTest, CutsStreamsAtFrameBoundaries) {
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

// Every prefix of a stream, and streams damaged at random (flipped bytes, marker-like bytes
// dropped in, cuts): the splitter and the header reader stay inside the data, and frames and
// junk cover every byte once, in order.
TEST(ToolSplitterTest, AccountsForEveryByteOfCutAndDamagedStreams) {
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
      const Bytes frame(data.begin() + row[0], data.begin() + row[0] + row[1]);
      tool::readJPEGHeader(frame.data(), frame.size());
      covered = row[0] + row[1];
    }
    ASSERT_EQ(covered + trailing, data.size());
  }
}

// The size an output takes: the most common one in the frame headers, ties to the size seen
// first; sizes the tool refuses and frames without a size don't count.
TEST(ToolSplitterTest, TakesTheMostCommonFrameSizeAsTheUsualOne) {
  const Bytes a = encodeTestFrame(48, 32, TJSAMP_422), b = encodeTestFrame(32, 16, TJSAMP_420);
  const Bytes huge = claimingSize(a, 9000, 9000), sizeless = {0xFF, 0xD8, 0xFF, 0xD9};
  const struct {
    std::vector<Bytes> frames;
    int width, height;  // 0 x 0: none
  } cases[] = {
      {{b, a, a}, 48, 32},       {{a, b, b, a}, 48, 32},   {{b, a, b, a}, 32, 16},
      {{huge, huge, b}, 32, 16}, {{sizeless, huge}, 0, 0},
  };
  TempDir dir;
  for (const auto& test : cases) {
    writeFile(dir.file("s.mjpeg"), concatFrames(test.frames));
    int width = 0, height = 0;
    EXPECT_EQ(tool::FrameReader::open(dir.file("s.mjpeg"))->usualFrameSize(&width, &height),
              test.width > 0);
    EXPECT_EQ(width, test.width);
    EXPECT_EQ(height, test.height);
  }
}

// Streams whose cuts depend on how far they have come: a prefix that ends inside a frame or
// just behind it must not cut the frame as final where the whole stream cuts it elsewhere.
std::vector<Bytes> streamsCutByLaterBytes() {
  const Bytes a = encodeTestFrame(48, 32, TJSAMP_422, 90, 1, 1);
  const Bytes b = stripDHT(encodeTestFrame(32, 16, TJSAMP_420, 75, 0, 2));
  const size_t entropy = std::search(a.begin(), a.end(), kSOS, kSOS + 2) - a.begin() + 14;
  // `a` up to the start of its entropy data, then a DHT marker claiming `length` bytes with an
  // EOI early inside them, and the frame's EOI behind them.
  auto claiming = [&](size_t length) {
    Bytes frame(a.begin(), a.begin() + entropy);
    frame.insert(frame.end(),
                 {0xFF, 0xC4, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)});
    Bytes body(length - 2, 0x00);
    body[100] = 0xFF;
    body[101] = 0xD9;
    frame.insert(frame.end(), body.begin(), body.end());
    frame.insert(frame.end(), {0xFF, 0xD9});
    return frame;
  };
  // `a` with an SOS header of one component at the start of its entropy data, an EOI inside.
  Bytes sos(a.begin(), a.begin() + entropy);
  sos.insert(sos.end(), {0xFF, 0xDA, 0x00, 0x08, 0x01, 0xFF, 0xD9, 0x00, 0x00, 0x00});
  sos.insert(sos.end(), a.begin() + entropy, a.end());
  // Marker-like bytes but no FF D8 FF; the fill bytes at the end run into the next SOI.
  const Bytes junk = {0x00, 0xFF, 0xD8, 0x00, 0xFF, 0xD9, 0x12, 0xFF, 0xFF};
  return {
      // EOI missing: the next SOI ends the frame; or FF D8 00, no SOI, and then an EOI; or a
      // frame cut inside its tables.
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

// Cut from each frame's start on, every prefix of the stream that the splitter calls final
// (`needs_more` false) cuts the frame as the whole stream does; and some prefix does for each
// frame but the last, whose cut may depend on where the stream ends.
TEST(ToolSplitterTest, CallsACutFinalOnlyWhereMoreBytesCantChangeIt) {
  for (const Bytes& stream : streamsCutByLaterBytes()) {
    size_t trailing;
    const std::vector<Row> frames = split(stream, &trailing);
    for (const Row& whole : frames) {
      SCOPED_TRACE("frame at byte " + std::to_string(whole[0]) + " of " +
                   std::to_string(stream.size()));
      bool final = false;
      for (size_t size = 0; whole[0] + size <= stream.size(); ++size) {
        tool::MJPEGSplitter splitter(stream.data() + whole[0], size);
        tool::SplitFrame f;
        if (!splitter.next(&f) || f.needs_more) continue;
        final = true;
        ASSERT_EQ((Row{whole[0] + f.offset, f.size, whole[2] + f.junk_before, f.cut_short}), whole)
            << "final with " << size << " bytes";
      }
      EXPECT_TRUE(final || &whole == &frames.back());
    }
  }
}

// What a reader hands out: index, byte offset, size, junk before, cut short of each frame.
using Cut = std::array<int64_t, 5>;

std::vector<Cut> readCuts(tool::FrameReader* reader, const Bytes& stream) {
  std::vector<Cut> cuts;
  for (tool::Frame f; reader->next(&f);) {
    cuts.push_back({f.index, f.byte_offset, static_cast<int64_t>(f.size),
                    static_cast<int64_t>(f.junk_before), f.cut_short});
    EXPECT_TRUE(f.byte_offset >= 0 && f.byte_offset + f.size <= stream.size() &&
                std::equal(f.data, f.data + f.size, stream.begin() + f.byte_offset))
        << "frame " << f.index << " isn't the stream's bytes at byte " << f.byte_offset;
  }
  return cuts;
}

// The stream reader with reads that split the input every few bytes (an SOI behind junk
// included) cuts it as the file reader does. A frame without end is cut after the frame limit,
// also when the input ends soon behind it; the rest is junk up to the next frame.
TEST(ToolStreamReaderTest, CutsAsTheFileReaderWhereverReadsSplitTheInput) {
  TempDir dir;
  const std::string file = dir.file("s.mjpeg");
  const size_t limit = 256 << 10;
  // The frames of `file`, which holds `data`, read `read_size` bytes at a time.
  auto streamCuts = [&](const Bytes& data, size_t read_size, size_t* trailing) {
    const std::unique_ptr<tool::FrameReader> reader = tool::FrameReader::openStream(
        "s", ::open(file.c_str(), O_RDONLY | O_CLOEXEC), true, read_size, limit);
    const std::vector<Cut> cuts = readCuts(reader.get(), data);
    *trailing = reader->trailingJunk();
    return cuts;
  };
  size_t trailing;
  for (const Bytes& data : streamsCutByLaterBytes()) {
    writeFile(file, data);
    const std::unique_ptr<tool::FrameReader> mapped = tool::FrameReader::open(file);
    const std::vector<Cut> expected = readCuts(mapped.get(), data);
    for (const size_t read_size : {1, 2, 5, 4096}) {
      SCOPED_TRACE(std::to_string(data.size()) + " bytes, reads of " + std::to_string(read_size));
      EXPECT_EQ(streamCuts(data, read_size, &trailing), expected);
      EXPECT_EQ(trailing, mapped->trailingJunk());
    }
  }

  const Bytes b = stripDHT(encodeTestFrame(32, 16, TJSAMP_420, 75, 0, 2));
  const int64_t endless = limit + 200000;
  Bytes data = {0xFF, 0xD8, 0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00};
  data.resize(limit + 100);
  writeFile(file, data);
  EXPECT_EQ(streamCuts(data, 65536, &trailing), (std::vector<Cut>{{0, 0, int64_t(limit), 0, 1}}));
  EXPECT_EQ(trailing, 100u);
  data.resize(endless);
  data.insert(data.end(), b.begin(), b.end());
  writeFile(file, data);
  EXPECT_EQ(streamCuts(data, 65536, &trailing),
            (std::vector<Cut>{{0, 0, int64_t(limit), 0, 1},
                              {1, endless, int64_t(b.size()), endless - int64_t(limit), 0}}));

  // From a source that stays open, such a frame comes out at the limit without waiting for the
  // end of the input. The writer holds the pipe open until then (20 s at most, a liveness bound).
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  data.resize(limit + 70000);
  std::promise<void> frame_seen;
  std::future<bool> writer = std::async(std::launch::async, [&] {
    for (size_t at = 0; at < data.size();) {
      const ssize_t put = ::write(fds[1], data.data() + at, data.size() - at);
      if (put <= 0) break;
      at += static_cast<size_t>(put);
    }
    const bool in_time =
        frame_seen.get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    ::close(fds[1]);
    return in_time;
  });
  const std::unique_ptr<tool::FrameReader> live =
      tool::FrameReader::openStream("p", fds[0], true, 65536, limit);
  tool::Frame frame;
  ASSERT_TRUE(live->next(&frame));
  frame_seen.set_value();
  EXPECT_TRUE(writer.get()) << "the frame came out only at the end of the input";
  EXPECT_EQ(frame.size, limit);
  EXPECT_TRUE(frame.cut_short);
}

// open() reads a FIFO as a stream while another thread is still writing it: a lone frame, and
// frames with junk, come out as from a file.
TEST(ToolStreamReaderTest, ReadsAFIFOWhileItIsWritten) {
  signal(SIGPIPE, SIG_IGN);  // a reader that gives up early must not stop the test
  TempDir dir;
  const std::string file = dir.file("s.mjpeg"), fifo = dir.file("s.fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const Bytes& data :
       {encodeTestFrame(48, 32, TJSAMP_422, 90, 1, 1), streamsCutByLaterBytes()[0]}) {
    writeFile(file, data);
    const std::unique_ptr<tool::FrameReader> mapped = tool::FrameReader::open(file);
    const std::vector<Cut> expected = readCuts(mapped.get(), data);
    // 1000 bytes every 100 us; the future waits for the writer when it goes.
    const std::future<void> writer = std::async(std::launch::async, [&] {
      const int fd = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
      for (size_t at = 0; at < data.size(); at += 1000) {
        if (::write(fd, data.data() + at, std::min<size_t>(1000, data.size() - at)) <= 0) break;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
      ::close(fd);
    });
    const std::unique_ptr<tool::FrameReader> stream = tool::FrameReader::open(fifo);
    EXPECT_EQ(readCuts(stream.get(), data), expected);
    EXPECT_EQ(stream->trailingJunk(), mapped->trailingJunk());
    EXPECT_EQ(stream->kind(), mapped->kind());
  }
}

// Layouts by name, and libjpeg's own tables come out as exactly the quality that made them.
TEST(ToolHeadersTest, NamesTheLayoutEstimatesTheQualityAndStripsDHT) {
  struct Case {
    int width, height, subsampling, quality;
    const char* sampling;
  } cases[] = {
      {64, 32, TJSAMP_422, 90, "4:2:2 (2x1,1x1,1x1)"},
      {64, 32, TJSAMP_420, 5, "4:2:0 (2x2,1x1,1x1)"},
      {40, 24, TJSAMP_444, 25, "4:4:4 (1x1,1x1,1x1)"},
      {33, 17, TJSAMP_440, 50, "4:4:0 (1x2,1x1,1x1)"},
      {64, 8, TJSAMP_411, 75, "4:1:1 (4x1,1x1,1x1)"},
      {24, 16, TJSAMP_GRAY, 100, "grey (1x1)"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.sampling);
    const Bytes frame = encodeTestFrame(test.width, test.height, test.subsampling, test.quality, 1);
    const tool::JPEGHeaderInfo header = tool::readJPEGHeader(frame.data(), frame.size());
    ASSERT_TRUE(header.ok()) << header.error;
    EXPECT_EQ(tool::samplingName(header.components), test.sampling);
    double distance = -1;
    EXPECT_EQ(tool::estimateQuality(header.dqt[header.components[0].tq], &distance), test.quality);
    EXPECT_EQ(distance, 0.0);
    // Stripping the DHT segments leaves everything else as it was.
    EXPECT_EQ(tool::stripDHTSegments(frame), stripDHT(frame));
  }
}

TEST(ToolImageTest, ConvertsBT601FullRange) {
  const std::array<int, 6> cases[] = {
      // Y, Cb, Cr -> R, G, B
      {0, 128, 128, 0, 0, 0},         {255, 128, 128, 255, 255, 255}, {76, 85, 255, 254, 0, 0},
      {150, 44, 21, 0, 255, 1},       {29, 255, 107, 0, 0, 254},      {255, 0, 255, 255, 208, 28},
      {200, 128, 100, 161, 220, 200},  // rounds to nearest below zero too
      {100, 128, 130, 103, 99, 100},
  };
  for (const auto& test : cases) {
    uint8_t rgb[3];
    tool::yuvToRGB(test[0], test[1], test[2], rgb);
    EXPECT_EQ((std::array<int, 3>{rgb[0], rgb[1], rgb[2]}),
              (std::array<int, 3>{test[3], test[4], test[5]}))
        << test[0] << "," << test[1] << "," << test[2];
  }
}

// The decoder writes width/2 x height/2 chroma samples; files hold (width+1)/2 x (height+1)/2.
TEST(ToolImageTest, CompletesTheChromaOfOddSizes) {
  const std::pair<int, int> sizes[] = {{5, 3}, {4, 3}, {5, 4}, {1, 5}, {6, 4}};
  for (const auto& [width, height] : sizes) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    tool::I420Image image;
    image.resize(width, height);
    const int w2 = width / 2, h2 = height / 2, cw = image.chromaWidth(), ch = image.chromaHeight();
    // What a decoder writes: distinct values in the decoded part, junk elsewhere.
    std::fill(image.u.begin(), image.u.end(), 0xEE);
    for (int i = 0; i < h2 * cw; ++i) {
      if (i % cw < w2) image.u[i] = 10 * (i / cw) + i % cw;
    }
    image.v = image.u;
    image.completeChroma();
    for (int i = 0; i < ch * cw; ++i) {
      const int row = i / cw, col = i % cw;
      const int expected =
          w2 == 0 || h2 == 0 ? 0x80 : 10 * std::min(row, h2 - 1) + std::min(col, w2 - 1);
      EXPECT_EQ(image.u[i], expected) << row << "," << col;
    }
    EXPECT_EQ(image.v, image.u);
  }
}

TEST(ToolPNGWriterTest, WritesWhatLibpngReadsBack) {
  TempDir dir;
  tool::RGBImage image;
  image.resize(7, 5);
  for (size_t i = 0; i < image.pixels.size(); ++i) image.pixels[i] = static_cast<uint8_t>(i * 7);
  tool::writePNG(dir.file("picture.png"), image);
  Bytes pixels;
  EXPECT_EQ(pngInfo(dir.file("picture.png"), &pixels), "7x5 RGB");
  EXPECT_EQ(pixels, image.pixels);
  EXPECT_THROW(tool::writePNG(dir.file("no/such/folder.png"), image), tool::ToolError);
}

// Marker codes (the byte behind each 0xFF that isn't stuffing or fill) in stream order.
Bytes markerCodes(const Bytes& frame) {
  Bytes codes;
  for (size_t p = 0; p + 1 < frame.size(); ++p) {
    if (frame[p] == 0xFF && frame[p + 1] != 0x00 && frame[p + 1] != 0xFF)
      codes.push_back(frame[p + 1]);
  }
  return codes;
}

TEST(ToolDamageTest, DamagesOnlyTheEntropyDataAndKeepsTheMarkers) {
  tool::RGBImage picture;
  tool::DemoScene(128, 64).render(3, &picture);
  const Bytes clean = tool::encodeWebcamFrame(picture);  // 8 MCU rows: 7 restart markers
  size_t begin = 0, end = 0;
  ASSERT_TRUE(tool::entropyRange(clean, &begin, &end));
  std::mt19937 rng(1);
  for (int count : {1, 5, 50}) {
    Bytes frame = clean;
    EXPECT_EQ(tool::flipBits(&frame, count, &rng), count);
    ASSERT_EQ(frame.size(), clean.size());
    int changed_bits = 0;
    for (size_t i = 0; i < frame.size(); ++i) {
      EXPECT_TRUE(frame[i] == clean[i] || (i >= begin && i < end)) << i;
      changed_bits += __builtin_popcount(frame[i] ^ clean[i]);
    }
    EXPECT_EQ(changed_bits, count);
    EXPECT_EQ(markerCodes(frame), markerCodes(clean));
  }

  // No junk byte is 0xFF, so the markers, and the count of 0xFF bytes, stay the same.
  Bytes frame = clean;
  EXPECT_EQ(tool::junkBeforeRestarts(&frame, 3, &rng), 3);
  EXPECT_GE(frame.size(), clean.size() + 3);
  EXPECT_EQ(markerCodes(frame), markerCodes(clean));
  EXPECT_EQ(std::count(frame.begin(), frame.end(), 0xFF),
            std::count(clean.begin(), clean.end(), 0xFF));
  frame = clean;  // asking for more restart markers than there are damages them all
  EXPECT_EQ(tool::junkBeforeRestarts(&frame, 100, &rng), 7);
  frame = clean;  // cut off in the middle of the entropy data
  tool::cutOff(&frame, 0.5);
  EXPECT_EQ(frame, head(clean, begin + (end - begin) / 2));
}

}  // namespace
}  // namespace test
}  // namespace vidra
