// vidramjpegdec through GstHarness: its pictures against the library's own, downstream buffer
// layouts, damage flags and meta, errors and drops, renegotiation.
//
// Frames come from the corpus and from streams that make_streams.sh generates from it at test
// time; tests whose frames are missing skip.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "vidra/mjpeg.h"

#if defined(__SANITIZE_ADDRESS__)
#define VIDRA_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VIDRA_TEST_ASAN 1
#endif
#endif
#ifdef VIDRA_TEST_ASAN
// GLib is built without frame pointers: unwinding through it the slow way reaches the callers,
// so that GLib's own library constructor, which keeps a buffer for the life of the process,
// can be told apart from leaks of the element's.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:_dl_init\n";
}
#endif

namespace {

namespace vj = vidra::jpeg;

constexpr const char* kMetaName = "VidraMjpegDecodeMeta";
constexpr const char* kParsedCaps = "image/jpeg, parsed=(boolean)true";

// A corpus frame ("webcam-480p/again-00.jpg") or a generated one ("streams/odd-641x481.jpg").
std::string pathOf(const std::string& name) {
  const std::string streams = "streams/";
  if (name.compare(0, streams.size(), streams) == 0) {
    return std::string(VIDRA_GST_STREAMS_DIR) + "/" + name.substr(streams.size());
  }
  return std::string(VIDRA_CORPUS_DIR) + "/" + name;
}

bool readFile(const std::string& name, std::vector<uint8_t>* data) {
  gchar* contents = nullptr;
  gsize size = 0;
  if (!g_file_get_contents(pathOf(name).c_str(), &contents, &size, nullptr)) return false;
  data->assign(contents, contents + size);
  g_free(contents);
  return true;
}

#define READ_OR_SKIP(name, data)                                                               \
  if (!readFile((name), (data))) {                                                             \
    GTEST_SKIP() << pathOf(name) << " is absent (no corpus, or make_streams.sh had no tools)"; \
  }

// A test name from a frame's path: "streams/odd-641x481.jpg" gives "odd_641x481".
std::string nameOf(const std::string& frame) {
  std::string name = frame.substr(frame.rfind('/') + 1);
  name = name.substr(0, name.rfind('.'));
  for (char& c : name) {
    if (!g_ascii_isalnum(c)) c = '_';
  }
  return name;
}

// The library's own decode of a frame, planes packed.
struct Reference {
  int width = 0, height = 0;
  std::vector<uint8_t> y, u, v;
  vj::FrameReport report;
};

Reference decodeReference(const std::vector<uint8_t>& frame, bool fallback = true) {
  Reference ref;
  vj::FrameHeader header;
  EXPECT_TRUE(vj::readFrameHeader(frame.data(), frame.size(), &header));
  ref.width = header.width;
  ref.height = header.height;
  const int cw = ref.width / 2, ch = ref.height / 2;
  ref.y.assign(size_t(ref.width) * ref.height, 0);
  ref.u.assign(size_t(cw) * ch + 1, 0);
  ref.v.assign(size_t(cw) * ch + 1, 0);
  vj::DecodeOptions options;
  options.fallback = fallback;
  vj::decodeFrame(frame.data(), frame.size(), ref.width, ref.height, ref.y.data(), ref.width,
                  ref.u.data(), cw, ref.v.data(), cw, options, &ref.report);
  return ref;
}

GstBuffer* bufferOf(const std::vector<uint8_t>& data, GstClockTime pts = 0) {
  GstBuffer* buffer = gst_buffer_new_memdup(data.data(), data.size());
  GST_BUFFER_PTS(buffer) = pts;
  return buffer;
}

GstVideoInfo outputInfo(GstHarness* h) {
  GstVideoInfo info;
  GstCaps* caps = gst_pad_get_current_caps(h->sinkpad);
  EXPECT_NE(caps, nullptr);
  EXPECT_TRUE(gst_video_info_from_caps(&info, caps));
  gst_caps_unref(caps);
  return info;
}

// The picture in `buffer` equals the library's, with the chroma column and row that odd sizes
// add repeating their neighbours (neutral when the library has no chroma at all).
void expectPicture(GstBuffer* buffer, const GstVideoInfo& info, const Reference& ref) {
  ASSERT_EQ(GST_VIDEO_INFO_WIDTH(&info), ref.width);
  ASSERT_EQ(GST_VIDEO_INFO_HEIGHT(&info), ref.height);
  GstVideoFrame frame;
  ASSERT_TRUE(gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ));
  const int cw = ref.width / 2, ch = ref.height / 2;
  for (int plane = 0; plane < 3; ++plane) {
    const auto* data = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
    const int w = GST_VIDEO_FRAME_COMP_WIDTH(&frame, plane);
    const int h = GST_VIDEO_FRAME_COMP_HEIGHT(&frame, plane);
    const std::vector<uint8_t>& want = plane == 0 ? ref.y : plane == 1 ? ref.u : ref.v;
    const int want_w = plane == 0 ? ref.width : cw, want_h = plane == 0 ? ref.height : ch;
    int mismatches = 0;
    for (int row = 0; row < h; ++row) {
      for (int col = 0; col < w; ++col) {
        const int expected =
            want_w == 0 || want_h == 0
                ? 0x80
                : want[std::min(row, want_h - 1) * want_w + std::min(col, want_w - 1)];
        mismatches += data[row * stride + col] != expected;
      }
    }
    EXPECT_EQ(mismatches, 0) << "plane " << plane;
  }
  gst_video_frame_unmap(&frame);
}

struct Harness {
  GstHarness* h;
  GstBus* bus;
  explicit Harness(const char* caps = kParsedCaps) {
    h = gst_harness_new("vidramjpegdec");
    bus = gst_bus_new();
    gst_element_set_bus(h->element, bus);
    gst_harness_set_src_caps_str(h, caps);
  }
  ~Harness() {
    // Messages hold the element, which holds the bus: drop them to break the cycle.
    gst_bus_set_flushing(bus, TRUE);
    gst_harness_teardown(h);
    gst_object_unref(bus);
  }
  // Takes every message off the bus and counts those of `type`.
  int countMessages(GstMessageType type) {
    int count = 0;
    while (GstMessage* message = gst_bus_pop(bus)) {
      messages.push_back(GST_MESSAGE_TYPE(message));
      gst_message_unref(message);
    }
    for (GstMessageType seen : messages) count += seen == type;
    return count;
  }
  std::vector<GstMessageType> messages;
};

// ---- Pictures ------------------------------------------------------------------------------

struct PictureCase {
  const char* frame;
  bool needs_fallback;  // the library's own decoder refuses it
};

void PrintTo(const PictureCase& c, std::ostream* os) { *os << c.frame; }

class Pictures : public testing::TestWithParam<PictureCase> {};

TEST_P(Pictures, EqualTheLibrarysAndNeedTheFallbackWhereTheOwnDecoderRefuses) {
  std::vector<uint8_t> data;
  READ_OR_SKIP(GetParam().frame, &data);
  const Reference ref = decodeReference(data);
  ASSERT_EQ(ref.report.status, vj::FrameStatus::kClean);
  {
    Harness harness;
    ASSERT_EQ(gst_harness_push(harness.h, bufferOf(data)), GST_FLOW_OK);
    GstBuffer* out = gst_harness_try_pull(harness.h);
    ASSERT_NE(out, nullptr);
    const GstVideoInfo info = outputInfo(harness.h);
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), GST_VIDEO_FORMAT_I420);
    gchar* colorimetry = gst_video_colorimetry_to_string(&info.colorimetry);
    EXPECT_STREQ(colorimetry, "1:4:0:0");
    g_free(colorimetry);
    EXPECT_EQ(info.chroma_site, GST_VIDEO_CHROMA_SITE_JPEG);
    EXPECT_FALSE(GST_BUFFER_FLAG_IS_SET(out, GST_BUFFER_FLAG_CORRUPTED));
    expectPicture(out, info, ref);
    gst_buffer_unref(out);
  }
  Harness no_fallback;
  g_object_set(no_fallback.h->element, "fallback", FALSE, nullptr);
  gst_harness_push(no_fallback.h, bufferOf(data));
  GstBuffer* out = gst_harness_try_pull(no_fallback.h);
  EXPECT_EQ(out == nullptr, GetParam().needs_fallback);
  if (out) gst_buffer_unref(out);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, Pictures,
    testing::Values(PictureCase{"webcam-480p/again-00.jpg", false},  // 4:2:2, no DHT, restarts
                    PictureCase{"webcam-720p/book-03.jpg", false},   // 4:2:2, no restarts
                    PictureCase{"reftest/mjpeg.jpg", false},         // a real camera's frame
                    PictureCase{"streams/cjpeg-420.jpg", false},     // 4:2:0
                    PictureCase{"streams/odd-641x481.jpg", false},   // 4:2:0, odd size
                    PictureCase{"reftest/jpg-size-17x17.jpg", false},
                    PictureCase{"reftest/jpg-size-1x1.jpg", false},
                    PictureCase{"streams/ffmpeg-422.jpg", true},  // chroma 1x2
                    PictureCase{"reftest/jpg-progressive.jpg", true},
                    PictureCase{"reftest/jpg-gray.jpg", true}),
    [](const testing::TestParamInfo<PictureCase>& info) { return nameOf(info.param.frame); });

// ---- Downstream buffer layouts -------------------------------------------------------------

// Answers the allocation query with a pool whose buffers have padded rows and a top margin.
GstPadProbeReturn offerPaddedPool(GstPad*, GstPadProbeInfo* info, gpointer) {
  GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) return GST_PAD_PROBE_OK;
  GstCaps* caps = nullptr;
  gst_query_parse_allocation(query, &caps, nullptr);
  GstVideoInfo vinfo;
  gst_video_info_from_caps(&vinfo, caps);
  GstBufferPool* pool = gst_video_buffer_pool_new();
  GstStructure* config = gst_buffer_pool_get_config(pool);
  gst_buffer_pool_config_set_params(config, caps, vinfo.size, 0, 0);
  gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
  gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_ALIGNMENT);
  GstVideoAlignment align;
  gst_video_alignment_reset(&align);
  align.padding_top = 2;
  align.padding_right = 40;
  align.padding_bottom = 6;
  gst_buffer_pool_config_set_video_alignment(config, &align);
  gst_buffer_pool_set_config(pool, config);
  gst_query_add_allocation_pool(query, pool, vinfo.size, 0, 0);
  gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
  gst_object_unref(pool);
  return GST_PAD_PROBE_HANDLED;
}

enum class Downstream { kNoVideoMeta, kVideoMeta, kPaddedPool };

void PrintTo(Downstream d, std::ostream* os) { *os << static_cast<int>(d); }

class Layouts : public testing::TestWithParam<Downstream> {};

TEST_P(Layouts, FollowTheBuffersStrides) {
  std::vector<uint8_t> data;
  READ_OR_SKIP("streams/odd-641x481.jpg", &data);  // default strides are padded too: 644, 324
  const Reference ref = decodeReference(data);
  Harness harness;
  if (GetParam() == Downstream::kVideoMeta) {
    gst_harness_add_propose_allocation_meta(harness.h, GST_VIDEO_META_API_TYPE, nullptr);
  } else if (GetParam() == Downstream::kPaddedPool) {
    GstPad* src = gst_element_get_static_pad(harness.h->element, "src");
    gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, offerPaddedPool, nullptr, nullptr);
    gst_object_unref(src);
  }
  ASSERT_EQ(gst_harness_push(harness.h, bufferOf(data)), GST_FLOW_OK);
  GstBuffer* out = gst_harness_try_pull(harness.h);
  ASSERT_NE(out, nullptr);
  GstVideoMeta* meta = gst_buffer_get_video_meta(out);
  if (GetParam() == Downstream::kNoVideoMeta) {
    EXPECT_EQ(meta, nullptr);
  } else {
    ASSERT_NE(meta, nullptr);
    // Our own pool aligns rows to 32 bytes; the padded pool adds 40 samples and a top margin.
    EXPECT_GE(meta->stride[0], GetParam() == Downstream::kPaddedPool ? 681 : 672);
    EXPECT_EQ(meta->stride[0] % 32, 0);
    if (GetParam() == Downstream::kPaddedPool) {
      EXPECT_GT(meta->offset[0], 0u);
    }
  }
  expectPicture(out, outputInfo(harness.h), ref);
  gst_buffer_unref(out);
}

std::string layoutName(const testing::TestParamInfo<Downstream>& info) {
  switch (info.param) {
    case Downstream::kNoVideoMeta:
      return "NoVideoMeta";
    case Downstream::kVideoMeta:
      return "VideoMeta";
    case Downstream::kPaddedPool:
      break;
  }
  return "PaddedPool";
}

INSTANTIATE_TEST_SUITE_P(Downstreams, Layouts,
                         testing::Values(Downstream::kNoVideoMeta, Downstream::kVideoMeta,
                                         Downstream::kPaddedPool),
                         layoutName);

// ---- Damage --------------------------------------------------------------------------------

TEST(Damage, ConcealedFrameIsFlaggedWithTheLibrarysCountsAndDiscardableByTheBaseClass) {
  std::vector<uint8_t> data;
  READ_OR_SKIP("damaged/flip-again-00.jpg", &data);  // a damaged restart span
  const Reference ref = decodeReference(data);
  ASSERT_EQ(ref.report.status, vj::FrameStatus::kConcealed);
  {
    Harness harness;
    ASSERT_EQ(gst_harness_push(harness.h, bufferOf(data)), GST_FLOW_OK);
    GstBuffer* out = gst_harness_try_pull(harness.h);
    ASSERT_NE(out, nullptr);
    EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(out, GST_BUFFER_FLAG_CORRUPTED));
    GstCustomMeta* meta = gst_buffer_get_custom_meta(out, kMetaName);
    ASSERT_NE(meta, nullptr);
    const GstStructure* s = gst_custom_meta_get_structure(meta);
    int total = 0, valid = 0;
    EXPECT_TRUE(gst_structure_get_int(s, "total-mcus", &total));
    EXPECT_TRUE(gst_structure_get_int(s, "valid-mcus", &valid));
    EXPECT_EQ(total, ref.report.total_mcus);
    EXPECT_EQ(valid, ref.report.valid_mcus);
    EXPECT_STREQ(gst_structure_get_string(s, "status"), "concealed");
    EXPECT_STREQ(gst_structure_get_string(s, "path"), "own");
    expectPicture(out, outputInfo(harness.h), ref);
    gst_buffer_unref(out);
  }
  Harness discarding;
  g_object_set(discarding.h->element, "discard-corrupted-frames", TRUE, nullptr);
  gst_harness_push(discarding.h, bufferOf(data));
  EXPECT_EQ(gst_harness_buffers_received(discarding.h), 0u);
}

TEST(Damage, InputCorruptedFlagIsCopiedWithoutMeta) {
  std::vector<uint8_t> data;
  READ_OR_SKIP("webcam-480p/again-00.jpg", &data);
  Harness harness;
  GstBuffer* in = bufferOf(data);
  GST_BUFFER_FLAG_SET(in, GST_BUFFER_FLAG_CORRUPTED);
  ASSERT_EQ(gst_harness_push(harness.h, in), GST_FLOW_OK);
  GstBuffer* out = gst_harness_try_pull(harness.h);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(out, GST_BUFFER_FLAG_CORRUPTED));
  EXPECT_EQ(gst_buffer_get_custom_meta(out, kMetaName), nullptr);
  gst_buffer_unref(out);
}

// Failed (80% or fewer good MCUs) and refused frames.
struct BadFrameCase {
  const char* frame;
  int max_errors;
  bool output_failed;
  GstFlowReturn flow;
  bool output;  // a flagged frame with the meta goes out
  bool error_message;
};

void PrintTo(const BadFrameCase& c, std::ostream* os) { *os << c.frame; }

class BadFrames : public testing::TestWithParam<BadFrameCase> {};

TEST_P(BadFrames, AreDroppedWithQosOrErrorsOrSentOnFlagged) {
  const BadFrameCase& c = GetParam();
  std::vector<uint8_t> data;
  READ_OR_SKIP(c.frame, &data);
  Harness harness;
  g_object_set(harness.h->element, "max-errors", c.max_errors, "output-failed", c.output_failed,
               nullptr);
  EXPECT_EQ(gst_harness_push(harness.h, bufferOf(data)), c.flow);
  GstBuffer* out = gst_harness_try_pull(harness.h);
  ASSERT_EQ(out != nullptr, c.output);
  if (out) {
    EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(out, GST_BUFFER_FLAG_CORRUPTED));
    GstCustomMeta* meta = gst_buffer_get_custom_meta(out, kMetaName);
    ASSERT_NE(meta, nullptr);
    EXPECT_STREQ(gst_structure_get_string(gst_custom_meta_get_structure(meta), "status"), "failed");
    gst_buffer_unref(out);
  }
  EXPECT_EQ(harness.countMessages(GST_MESSAGE_QOS), c.output ? 0 : 1);
  EXPECT_EQ(harness.countMessages(GST_MESSAGE_ERROR), c.error_message ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, BadFrames,
    testing::Values(
        // A third of the entropy data missing: failed.
        BadFrameCase{"damaged/trunc-again-00.jpg", -1, false, GST_FLOW_OK, false, false},
        BadFrameCase{"damaged/trunc-again-00.jpg", 0, false, GST_FLOW_ERROR, false, true},
        BadFrameCase{"damaged/trunc-again-00.jpg", -1, true, GST_FLOW_OK, true, false},
        // Refused (RGB), whatever output-failed says.
        BadFrameCase{"reftest/rgb.jpg", -1, true, GST_FLOW_OK, false, false},
        BadFrameCase{"reftest/rgb.jpg", 0, true, GST_FLOW_ERROR, false, true}),
    [](const testing::TestParamInfo<BadFrameCase>& info) {
      return nameOf(info.param.frame) + "_max_errors_" +
             (info.param.max_errors < 0 ? "default" : "0") +
             (info.param.output_failed ? "_output_failed" : "");
    });

// ---- Stream properties ---------------------------------------------------------------------

TEST(Stream, SizeChangeRenegotiates) {
  std::vector<uint8_t> small, large;
  READ_OR_SKIP("webcam-480p/book-00.jpg", &small);
  READ_OR_SKIP("webcam-720p/book-00.jpg", &large);
  Harness harness;
  const std::vector<uint8_t>* frames[] = {&small, &large, &small};
  for (const std::vector<uint8_t>* frame : frames) {
    ASSERT_EQ(gst_harness_push(harness.h, bufferOf(*frame)), GST_FLOW_OK);
    GstBuffer* out = gst_harness_try_pull(harness.h);
    ASSERT_NE(out, nullptr);
    expectPicture(out, outputInfo(harness.h), decodeReference(*frame));
    gst_buffer_unref(out);
  }
}

// ---- Byte streams ---------------------------------------------------------------------------

struct ByteStreamCase {
  const char* name;
  std::vector<const char*> frames;  // the last one goes in without its EOI
  size_t max_piece;                 // pieces of 1..max_piece bytes
};

void PrintTo(const ByteStreamCase& c, std::ostream* os) { *os << c.name; }

class ByteStreams : public testing::TestWithParam<ByteStreamCase> {};

// Frames with junk around them, cut from pieces: each frame comes out as soon as its EOI is in,
// the last (without EOI) at the end of the stream.
TEST_P(ByteStreams, AreCutIntoTheirFramesWhateverThePieces) {
  const ByteStreamCase& c = GetParam();
  const std::string junk("junk\xFF\xD8\x00\xFF", 8);  // an SOI without a marker behind it
  std::vector<uint8_t> stream(junk.begin(), junk.end());
  std::vector<Reference> refs;
  std::vector<size_t> frame_ends;
  for (size_t i = 0; i < c.frames.size(); ++i) {
    std::vector<uint8_t> frame;
    READ_OR_SKIP(c.frames[i], &frame);
    if (i + 1 == c.frames.size()) frame.resize(frame.size() - 2);
    refs.push_back(decodeReference(frame));
    stream.insert(stream.end(), frame.begin(), frame.end());
    frame_ends.push_back(stream.size());
    if (i % 2 == 1) stream.insert(stream.end(), junk.begin(), junk.end());
  }
  Harness harness("image/jpeg");
  GRand* rand = g_rand_new_with_seed(17);
  size_t frames_done = 0;
  for (size_t pos = 0; pos < stream.size();) {
    const size_t size =
        std::min<size_t>(stream.size() - pos, g_rand_int_range(rand, 1, c.max_piece + 1));
    GstBuffer* piece = gst_buffer_new_memdup(stream.data() + pos, size);
    ASSERT_EQ(gst_harness_push(harness.h, piece), GST_FLOW_OK);
    pos += size;
    while (frames_done + 1 < frame_ends.size() && frame_ends[frames_done] <= pos) ++frames_done;
    ASSERT_EQ(gst_harness_buffers_received(harness.h), frames_done) << "at byte " << pos;
  }
  g_rand_free(rand);
  gst_harness_push_event(harness.h, gst_event_new_eos());
  ASSERT_EQ(gst_harness_buffers_received(harness.h), refs.size());
  EXPECT_EQ(harness.countMessages(GST_MESSAGE_QOS), 0);  // no frame was dropped
  for (const Reference& ref : refs) {
    // Sizes change, and no video meta was offered: the buffers have the default layout.
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420, ref.width, ref.height);
    GstBuffer* out = gst_harness_pull(harness.h);
    expectPicture(out, info, ref);
    gst_buffer_unref(out);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Pieces, ByteStreams,
    testing::Values(ByteStreamCase{"OneByte",
                                   {"reftest/jpg-size-17x17.jpg", "reftest/jpg-size-1x1.jpg",
                                    "reftest/restarts.jpg", "reftest/jpg-size-33x33.jpg"},
                                   1},
                    ByteStreamCase{"RandomSizes",
                                   {"webcam-480p/again-00.jpg", "webcam-480p/again-01.jpg",
                                    "webcam-720p/book-02.jpg", "streams/odd-641x481.jpg",
                                    "webcam-480p/book-05.jpg"},
                                   9000}),
    [](const testing::TestParamInfo<ByteStreamCase>& info) {
      return std::string(info.param.name);
    });

// Timestamped frames without parsed=true, as a demuxer sends them, are decoded one per
// buffer: a frame without EOI comes out at once, with its timestamp.
TEST(Stream, TimestampedFramesArePacketized) {
  std::vector<uint8_t> frame;
  READ_OR_SKIP("webcam-480p/again-02.jpg", &frame);
  std::vector<uint8_t> no_eoi(frame.begin(), frame.end() - 2);
  Harness harness("image/jpeg");
  ASSERT_EQ(gst_harness_push(harness.h, bufferOf(frame, 0)), GST_FLOW_OK);
  ASSERT_EQ(gst_harness_push(harness.h, bufferOf(no_eoi, 40 * GST_MSECOND)), GST_FLOW_OK);
  ASSERT_EQ(gst_harness_buffers_received(harness.h), 2u);
  for (GstClockTime pts : {GstClockTime{0}, GstClockTime{40 * GST_MSECOND}}) {
    GstBuffer* out = gst_harness_pull(harness.h);
    EXPECT_EQ(GST_BUFFER_PTS(out), pts);
    gst_buffer_unref(out);
  }
}

// A damaged header may claim up to 65535 x 65535: refused before any caps or buffer of that
// size exist.
TEST(Stream, FrameLargerThanItsDataIsRefusedBeforeNegotiating) {
  std::vector<uint8_t> frame;
  READ_OR_SKIP("reftest/jpg-size-1x1.jpg", &frame);
  const uint8_t sof0[] = {0xFF, 0xC0};
  auto sof = std::search(frame.begin(), frame.end(), sof0, sof0 + 2);
  ASSERT_LT(sof + 9, frame.end());
  std::fill(sof + 5, sof + 9, 0xFF);  // height and width
  Harness harness;
  EXPECT_EQ(gst_harness_push(harness.h, bufferOf(frame)), GST_FLOW_OK);
  EXPECT_EQ(gst_harness_buffers_received(harness.h), 0u);
  EXPECT_EQ(gst_pad_get_current_caps(harness.h->sinkpad), nullptr);
}

TEST(Stream, AddsNoLatency) {
  Harness harness;
  EXPECT_EQ(gst_harness_query_latency(harness.h), 0u);
}

}  // namespace

int main(int argc, char** argv) {
  // Only this plugin, from the build tree: the harness needs no other element, and a sanitizer
  // build then loads nothing but its own code. The registry stays in the build tree, and is
  // scanned in this process, since GStreamer's scanner helper can't load a sanitizer build.
  g_setenv("GST_PLUGIN_PATH_1_0", VIDRA_GST_PLUGIN_DIR, TRUE);
  g_setenv("GST_PLUGIN_SYSTEM_PATH_1_0", "", TRUE);
  g_setenv("GST_REGISTRY_1_0", VIDRA_GST_REGISTRY, TRUE);
  g_setenv("GST_REGISTRY_FORK", "no", TRUE);
  gst_init(&argc, &argv);
  testing::InitGoogleTest(&argc, argv);
  const int result = RUN_ALL_TESTS();
  gst_deinit();
  return result;
}
