// Cutting raw MJPEG streams into frames, and telling inputs apart.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "cli.h"
#include "input.h"
#include "jpeg_headers.h"
#include "support/test_support.h"
#include "tool/tool_test_support.h"

namespace vidra {
namespace test {
namespace {

using Bytes = std::vector<uint8_t>;
using tool::MJPEGSplitter;
using tool::SplitFrame;

std::vector<SplitFrame> split(const Bytes& data, size_t* trailing = nullptr) {
  MJPEGSplitter splitter(data.data(), data.size());
  std::vector<SplitFrame> frames;
  SplitFrame frame;
  while (splitter.next(&frame)) frames.push_back(frame);
  if (trailing != nullptr) *trailing = splitter.trailingJunk();
  EXPECT_EQ(splitter.position(), data.size());
  return frames;
}

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  // Byte by byte: g++ 12 warns falsely (-Warray-bounds) on range inserts of tiny vectors.
  for (const Bytes& part : parts) {
    for (uint8_t byte : part) all.push_back(byte);
  }
  return all;
}

Bytes head(const Bytes& frame, size_t size) { return Bytes(frame.begin(), frame.begin() + size); }

// Where the entropy data of `frame` starts (behind the SOS header).
size_t scanStart(const Bytes& frame) {
  for (size_t p = 2; p + 3 < frame.size(); ++p) {
    if (frame[p] == 0xFF && frame[p + 1] == 0xDA)
      return p + 2 + ((frame[p + 2] << 8) | frame[p + 3]);
  }
  return 0;
}

// A frame with an APP1 segment that holds a whole JPEG thumbnail, SOI to EOI, as EXIF does.
Bytes withThumbnail(const Bytes& frame, const Bytes& thumbnail) {
  Bytes app1 = {0xFF, 0xE1, 0, 0, 'E', 'x', 'i', 'f', 0, 0};
  app1.insert(app1.end(), thumbnail.begin(), thumbnail.end());
  const size_t length = app1.size() - 2;
  app1[2] = static_cast<uint8_t>(length >> 8);
  app1[3] = static_cast<uint8_t>(length);
  Bytes out = frame;
  out.insert(out.begin() + 2, app1.begin(), app1.end());
  return out;
}

struct Expected {
  size_t offset, size, junk_before;
  bool cut_short;
};

TEST(ToolSplitterTest, CutsStreamsAtFrameBoundaries) {
  const Bytes a = encodeTestFrame(48, 32, TJSAMP_422, 90, 1, 1);
  const Bytes b = stripDHT(encodeTestFrame(32, 16, TJSAMP_420, 75, 0, 2));
  const Bytes c = encodeTestFrame(24, 24, TJSAMP_444, 50, 0, 3);
  // Junk with bytes that look like markers, but no FF D8 FF.
  const Bytes junk = {0x00, 0xFF, 0xD8, 0x00, 0xFF, 0xFF, 0xD9, 0x12};
  const Bytes fill = {0xFF, 0xFF, 0xFF};
  const size_t a_cut = scanStart(a) + (a.size() - scanStart(a)) / 2;
  const size_t header_cut = scanStart(b) / 2;  // inside b's tables
  const Bytes thumbnail_frame = withThumbnail(a, c);

  struct Case {
    const char* name;
    Bytes stream;
    std::vector<Expected> frames;
    size_t trailing;
  } cases[] = {
      {"one frame", a, {{0, a.size(), 0, false}}, 0},
      {"three frames back to back",
       join({a, b, c}),
       {{0, a.size(), 0, false},
        {a.size(), b.size(), 0, false},
        {a.size() + b.size(), c.size(), 0, false}},
       0},
      {"junk before, between and after",
       join({junk, a, junk, b, junk}),
       {{junk.size(), a.size(), junk.size(), false},
        {2 * junk.size() + a.size(), b.size(), junk.size(), false}},
       junk.size()},
      {"fill bytes between frames",
       join({a, fill, b}),
       {{0, a.size(), 0, false}, {a.size() + fill.size(), b.size(), fill.size(), false}},
       0},
      {"last frame cut in its entropy data",
       join({b, head(a, a_cut)}),
       {{0, b.size(), 0, false}, {b.size(), a_cut, 0, true}},
       0},
      {"EOI missing, the next frame follows",
       join({head(a, a_cut), b}),
       {{0, a_cut, 0, true}, {a_cut, b.size(), 0, false}},
       0},
      {"frame cut inside its header, the next frame follows",
       join({head(b, header_cut), c}),
       {{0, header_cut, 0, true}, {header_cut, c.size(), 0, false}},
       0},
      {"frame cut inside its header at the end",
       head(b, header_cut),
       {{0, header_cut, 0, true}},
       0},
      {"APP1 holding a JPEG thumbnail stays one frame",
       join({thumbnail_frame, b}),
       {{0, thumbnail_frame.size(), 0, false}, {thumbnail_frame.size(), b.size(), 0, false}},
       0},
      {"nothing but junk", junk, {}, junk.size()},
      {"a lone SOI at the very end", join({a, {0xFF, 0xD8}}), {{0, a.size(), 0, false}}, 2},
      {"empty", {}, {}, 0},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    size_t trailing = 0;
    const std::vector<SplitFrame> frames = split(test.stream, &trailing);
    ASSERT_EQ(frames.size(), test.frames.size());
    for (size_t i = 0; i < frames.size(); ++i) {
      SCOPED_TRACE("frame " + std::to_string(i));
      EXPECT_EQ(frames[i].offset, test.frames[i].offset);
      EXPECT_EQ(frames[i].size, test.frames[i].size);
      EXPECT_EQ(frames[i].junk_before, test.frames[i].junk_before);
      EXPECT_EQ(frames[i].cut_short, test.frames[i].cut_short);
    }
    EXPECT_EQ(trailing, test.trailing);
  }
}

// Every prefix of a two-frame stream splits without reading outside it, and the frames found
// cover the prefix exactly together with the junk counts.
TEST(ToolSplitterTest, EveryPrefixOfAStreamAccountsForAllBytes) {
  const Bytes stream = join({encodeTestFrame(16, 16, TJSAMP_420, 90, 1, 4),
                             {0x00, 0x01},
                             encodeTestFrame(16, 8, TJSAMP_422, 80, 0, 5)});
  for (size_t size = 0; size <= stream.size(); ++size) {
    const Bytes prefix(stream.begin(), stream.begin() + size);
    size_t trailing = 0;
    size_t covered = 0;
    for (const SplitFrame& frame : split(prefix, &trailing)) {
      EXPECT_EQ(frame.offset, covered + frame.junk_before) << "prefix " << size;
      covered = frame.offset + frame.size;
    }
    EXPECT_EQ(covered + trailing, size) << "prefix " << size;
  }
}

// Streams damaged at random (flipped bytes, marker-like bytes dropped in, cuts) never make the
// splitter or the header reader step outside the data, and the frames stay in order.
TEST(ToolSplitterTest, SurvivesRandomDamage) {
  const Bytes clean = join({encodeTestFrame(32, 16, TJSAMP_422, 90, 1, 11),
                            stripDHT(encodeTestFrame(16, 16, TJSAMP_420, 70, 0, 12)),
                            encodeTestFrame(24, 8, TJSAMP_444, 95, 1, 13)});
  std::mt19937 rng(5);
  const uint8_t kMarkers[] = {0xD8, 0xD9, 0xDA, 0xC4, 0xDB, 0xE1, 0xD0, 0x00, 0xFF};
  for (int round = 0; round < 300; ++round) {
    Bytes stream = clean;
    for (int edit = 0; edit < 6; ++edit) {
      const size_t at = rng() % stream.size();
      switch (rng() % 3) {
        case 0:
          stream[at] = static_cast<uint8_t>(rng());
          break;
        case 1:
          stream[at] = 0xFF;
          if (at + 1 < stream.size()) stream[at + 1] = kMarkers[rng() % sizeof(kMarkers)];
          break;
        default:
          stream.resize(std::max<size_t>(at, 1));
          break;
      }
    }
    // An exact-size copy, so that the sanitizers see any read past the end.
    const Bytes data(stream.begin(), stream.end());
    size_t covered = 0, trailing = 0;
    for (const SplitFrame& frame : split(data, &trailing)) {
      ASSERT_GE(frame.offset, covered);
      ASSERT_LE(frame.offset + frame.size, data.size());
      const Bytes bytes(data.begin() + frame.offset, data.begin() + frame.offset + frame.size);
      tool::readJPEGHeader(bytes.data(), bytes.size());
      covered = frame.offset + frame.size;
    }
    ASSERT_EQ(covered + trailing, data.size());
  }
}

// Frames with further scans after the first (progressive JPEG) and data after EOI: the
// reference images of the corpus each split into one frame.
TEST(ToolSplitterTest, CorpusFilesAreOneFrameEach) {
  const std::vector<std::string> files = corpusFiles("reftest");
  VIDRA_REQUIRE_CORPUS(files, "reftest");
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    const Bytes data = readFile(file);
    const std::vector<SplitFrame> frames = split(data);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].offset, 0u);
    EXPECT_FALSE(frames[0].cut_short);
    // A frame ends at its EOI: only bytes behind it are left out.
    EXPECT_EQ(data[frames[0].size - 2], 0xFF);
    EXPECT_EQ(data[frames[0].size - 1], 0xD9);
  }
}

TEST(ToolFrameReaderTest, RefusesWhatIsNoInputWithAClearMessage) {
  TempDir dir;
  writeFile(dir.file("empty.mjpeg"), Bytes{});
  writeFile(dir.file("text.mjpeg"), std::string("just some text, no pictures here\n"));
  struct Case {
    std::string path;
    const char* message;
  } cases[] = {
      {dir.file("missing.mjpeg"), "No such file"},
      {dir.file("empty.mjpeg"), "empty"},
      {dir.file("text.mjpeg"), "not a JPEG"},
      {dir.path(), "directory"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.path);
    try {
      tool::FrameReader::open(test.path);
      ADD_FAILURE() << "opened";
    } catch (const tool::ToolError& error) {
      EXPECT_EQ(error.code(), tool::kExitUsage);
      EXPECT_NE(std::string(error.what()).find(test.path), std::string::npos) << error.what();
      EXPECT_NE(std::string(error.what()).find(test.message), std::string::npos) << error.what();
    }
  }
}

// The same frames reach the caller whether they come raw, behind junk, or in a container.
TEST(ToolFrameReaderTest, ReadsRawStreamsAndContainersAlike) {
  const std::vector<Bytes> frames = {stripDHT(encodeTestFrame(64, 32, TJSAMP_422, 90, 1, 7)),
                                     stripDHT(encodeTestFrame(64, 32, TJSAMP_422, 90, 0, 8)),
                                     stripDHT(encodeTestFrame(64, 32, TJSAMP_422, 90, 2, 9))};
  TempDir dir;
  writeFile(dir.file("raw.mjpeg"), concatFrames(frames));
  writeFile(dir.file("junk.mjpeg"), join({{'-', '-', 'b', 'o', 'u', 'n', 'd', 0x0D, 0x0A},
                                          concatFrames(frames, {0x0D, 0x0A, '-', '-'})}));
  struct Case {
    std::string file;
    const char* format;  // container to make, or null
    const char* kind;
  } cases[] = {
      {"raw.mjpeg", nullptr, "raw MJPEG stream"},
      {"junk.mjpeg", nullptr, "raw MJPEG stream"},
      {"clip.avi", "avi", "avi file"},
      {"clip.mkv", "matroska", "matroska file"},
      {"clip.mov", "mov", "mov file"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.file);
    const std::string path = dir.file(test.file);
    if (test.format != nullptr) {
      const std::string error = muxMJPEG(path, test.format, frames, 64, 32);
      if (!error.empty()) {
        ADD_FAILURE() << "muxing " << test.format << ": " << error;
        continue;
      }
    }
    std::unique_ptr<tool::FrameReader> reader = tool::FrameReader::open(path);
    tool::Frame frame;
    size_t count = 0;
    while (reader->next(&frame)) {
      ASSERT_LT(count, frames.size());
      // Containers may pad packets; the frame itself must come first and whole.
      ASSERT_GE(frame.size, frames[count].size());
      EXPECT_EQ(Bytes(frame.data, frame.data + frames[count].size()), frames[count]);
      EXPECT_EQ(frame.index, static_cast<int64_t>(count));
      ++count;
    }
    EXPECT_EQ(count, frames.size());
    EXPECT_NE(reader->kind().find(test.kind), std::string::npos) << reader->kind();
  }
}

}  // namespace
}  // namespace test
}  // namespace vidra
