// vidramjpegdec through GstHarness: its pictures against the library's own, downstream buffer
// layouts, what becomes of damaged and refused frames, byte streams, renegotiation. Frames come
// from the corpus and from make_streams.sh ("streams/..."); tests whose frames are missing skip.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "vidra/mjpeg.h"

#if defined(__SANITIZE_ADDRESS__)  // GCC
#define VIDRA_TEST_ASAN 1
#elif defined(__has_feature)  // clang
#if __has_feature(address_sanitizer)
#define VIDRA_TEST_ASAN 1
#endif
#endif
#ifdef VIDRA_TEST_ASAN
// GLib has no frame pointers: unwinding through it the slow way tells the buffer that GLib's
// own library constructor keeps for the life of the process from the element's leaks.
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

std::string pathOf(const std::string& name) {
  if (name.rfind("streams/", 0) == 0) return VIDRA_GST_STREAMS_DIR + name.substr(7);
  return VIDRA_CORPUS_DIR "/" + name;
}

bool readFile(const std::string& name, std::vector<uint8_t>* data) {
  gchar* contents = nullptr;
  gsize size = 0;
  if (!g_file_get_contents(pathOf(name).c_str(), &contents, &size, nullptr)) return false;
  data->assign(contents, contents + size);
  g_free(contents);
  return true;
}

#define READ_OR_SKIP(name, data) \
  if (!readFile((name), (data))) GTEST_SKIP() << pathOf(name) << " is absent (corpus or tools)"

// The library's own decode of a frame, planes packed, with the fallback as the element has it.
struct Reference {
  int width = 0, height = 0;
  std::vector<uint8_t> planes[3];
  vj::FrameReport report;
};

Reference decodeReference(const std::vector<uint8_t>& frame,
                          vj::Decoder decoder = vj::Decoder::kAuto) {
  Reference ref;
  vj::FrameHeader header;
  EXPECT_TRUE(vj::readFrameHeader(frame.data(), frame.size(), &header));
  ref.width = header.width;
  ref.height = header.height;
  const int cw = ref.width / 2, ch = ref.height / 2;
  ref.planes[0].resize(size_t(ref.width) * ref.height);
  for (int p : {1, 2}) ref.planes[p].resize(size_t(cw) * ch + 1);
  const vj::DecodeOptions options{decoder, /*insert_dht=*/true, /*fallback=*/true};
  vj::decodeFrame(frame.data(), frame.size(), ref.width, ref.height, ref.planes[0].data(),
                  ref.width, ref.planes[1].data(), cw, ref.planes[2].data(), cw, options,
                  &ref.report);
  return ref;
}

// Whether the library's automatic choice is its own decoder (SSSE3 and SSE4.1, not masked); else
// TurboJPEG, which conceals nothing, refuses a frame without EOI and leaves the fallback idle.
bool ownDecoderRuns() {
  std::vector<uint8_t> frame;
  return readFile("reftest/jpg-size-17x17.jpg", &frame) &&
         decodeReference(frame).report.path == vj::DecodePath::kOwn;
}

bool shown(const Reference& ref) {
  return ref.report.status == vj::FrameStatus::kClean ||
         ref.report.status == vj::FrameStatus::kConcealed;
}

GstBuffer* bufferOf(const std::vector<uint8_t>& data, GstClockTime pts = 0) {
  GstBuffer* buffer = gst_buffer_new_memdup(data.data(), data.size());
  GST_BUFFER_PTS(buffer) = pts;
  return buffer;
}

// `buffer` (laid out by its GstVideoMeta, or by default) holds the library's picture, the chroma
// column and row that odd sizes add repeating their neighbours, neutral where it has no chroma.
void expectPicture(GstBuffer* buffer, const Reference& ref) {
  GstVideoInfo info;
  gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420, ref.width, ref.height);
  GstVideoFrame frame;
  ASSERT_TRUE(gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ));
  for (int plane = 0; plane < 3; ++plane) {
    const auto* data = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
    const int w = plane ? ref.width / 2 : ref.width, h = plane ? ref.height / 2 : ref.height;
    int mismatches = 0;
    for (int row = 0; row < GST_VIDEO_FRAME_COMP_HEIGHT(&frame, plane); ++row) {
      for (int col = 0; col < GST_VIDEO_FRAME_COMP_WIDTH(&frame, plane); ++col) {
        const size_t at = std::min(row, h - 1) * w + std::min(col, w - 1);
        mismatches += data[row * stride + col] != (w && h ? ref.planes[plane][at] : 0x80);
      }
    }
    EXPECT_EQ(mismatches, 0) << "plane " << plane;
  }
  gst_video_frame_unmap(&frame);
}

struct Harness {
  GstHarness* h;
  GstBus* bus = gst_bus_new();
  std::vector<GstMessageType> messages;

  explicit Harness(const char* properties = "",
                   const char* caps = "image/jpeg,parsed=(boolean)true") {
    h = gst_harness_new_parse((std::string("vidramjpegdec ") + properties).c_str());
    gst_element_set_bus(h->element, bus);
    gst_harness_set_src_caps_str(h, caps);
  }
  ~Harness() {
    gst_bus_set_flushing(bus, TRUE);  // its messages hold the element, which holds the bus
    gst_harness_teardown(h);
    gst_object_unref(bus);
  }
  // Takes the messages off the bus and counts those of `type` so far.
  int count(GstMessageType type) {
    while (GstMessage* message = gst_bus_pop(bus)) {
      messages.push_back(GST_MESSAGE_TYPE(message));
      gst_message_unref(message);
    }
    return static_cast<int>(std::count(messages.begin(), messages.end(), type));
  }
};

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
  GstVideoAlignment align = {/*top=*/2, /*bottom=*/6, /*left=*/0, /*right=*/40, {}};
  gst_buffer_pool_config_set_video_alignment(config, &align);
  gst_buffer_pool_set_config(pool, config);
  gst_query_add_allocation_pool(query, pool, vinfo.size, 0, 0);
  gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
  gst_object_unref(pool);
  return GST_PAD_PROBE_HANDLED;
}

enum Downstream { kNoVideoMeta, kVideoMeta, kPaddedPool };
const char* const kDownstreamNames[] = {"NoVideoMeta", "VideoMeta", "PaddedPool"};
void PrintTo(Downstream d, std::ostream* os) { *os << kDownstreamNames[d]; }

class Layouts : public testing::TestWithParam<Downstream> {};

TEST_P(Layouts, FollowTheBuffersStrides) {
  std::vector<uint8_t> data;
  READ_OR_SKIP("streams/odd-641x481.jpg", &data);  // default strides are padded too: 644, 324
  Harness harness;
  if (GetParam() == kVideoMeta) {
    gst_harness_add_propose_allocation_meta(harness.h, GST_VIDEO_META_API_TYPE, nullptr);
  } else if (GetParam() == kPaddedPool) {
    GstPad* src = gst_element_get_static_pad(harness.h->element, "src");
    gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, offerPaddedPool, nullptr, nullptr);
    gst_object_unref(src);
  }
  ASSERT_EQ(gst_harness_push(harness.h, bufferOf(data)), GST_FLOW_OK);
  GstBuffer* out = gst_harness_try_pull(harness.h);
  ASSERT_NE(out, nullptr);
  GstCaps* caps = gst_pad_get_current_caps(harness.h->sinkpad);
  GstStructure* s = gst_caps_get_structure(caps, 0);
  EXPECT_STREQ(gst_structure_get_string(s, "format"), "I420");
  EXPECT_STREQ(gst_structure_get_string(s, "colorimetry"), "1:4:0:0");
  EXPECT_STREQ(gst_structure_get_string(s, "chroma-site"), "jpeg");
  gst_caps_unref(caps);
  const GstVideoMeta* meta = gst_buffer_get_video_meta(out);
  ASSERT_EQ(meta != nullptr, GetParam() != kNoVideoMeta);
  if (meta) {
    // Our own pool aligns rows to 32 bytes; the padded pool adds 40 samples and a top margin.
    EXPECT_GE(meta->stride[0], GetParam() == kPaddedPool ? 681 : 672);
    EXPECT_EQ(meta->stride[0] % 32, 0);
    EXPECT_EQ(meta->offset[0] > 0, GetParam() == kPaddedPool);
  }
  expectPicture(out, decodeReference(data));
  gst_buffer_unref(out);
}

INSTANTIATE_TEST_SUITE_P(Downstreams, Layouts,
                         testing::Values(kNoVideoMeta, kVideoMeta, kPaddedPool),
                         [](const testing::TestParamInfo<Downstream>& info) {
                           return std::string(kDownstreamNames[info.param]);
                         });

// ---- Damaged and refused frames ------------------------------------------------------------

constexpr const char* kConcealed = "damaged/flip-again-00.jpg";  // a damaged restart span
constexpr const char* kFailed = "damaged/trunc-again-00.jpg";    // a third of its data missing
constexpr const char* kRefused = "reftest/rgb.jpg";

struct OutcomeCase {
  const char* name;
  const char* frame;
  const char* properties;
  bool needs_own;  // the library's automatic choice must be its own decoder
  bool input_corrupted;
  const char* meta;  // the meta's status on a picture that goes out; "" none; nullptr no picture
  int qos, errors;   // messages; an error message comes with GST_FLOW_ERROR from the push
};
void PrintTo(const OutcomeCase& c, std::ostream* os) { *os << c.name; }

class Outcomes : public testing::TestWithParam<OutcomeCase> {};

TEST_P(Outcomes, FollowTheLibrarysReport) {
  const OutcomeCase& c = GetParam();
  std::vector<uint8_t> data;
  READ_OR_SKIP(c.frame, &data);
  if (c.needs_own && !ownDecoderRuns()) GTEST_SKIP() << "TurboJPEG decodes here";
  Harness harness(c.properties);
  GstBuffer* in = bufferOf(data);
  if (c.input_corrupted) GST_BUFFER_FLAG_SET(in, GST_BUFFER_FLAG_CORRUPTED);
  EXPECT_EQ(gst_harness_push(harness.h, in), c.errors ? GST_FLOW_ERROR : GST_FLOW_OK);
  GstBuffer* out = gst_harness_try_pull(harness.h);
  ASSERT_EQ(out != nullptr, c.meta != nullptr);
  if (out) {
    const bool own = std::string(c.properties) == "decoder=own";
    const Reference ref = decodeReference(data, own ? vj::Decoder::kOwn : vj::Decoder::kAuto);
    EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(out, GST_BUFFER_FLAG_CORRUPTED),
              c.input_corrupted || c.meta[0] != '\0');
    GstCustomMeta* meta = gst_buffer_get_custom_meta(out, kMetaName);
    ASSERT_EQ(meta != nullptr, c.meta[0] != '\0');
    if (meta) {
      const GstStructure* s = gst_custom_meta_get_structure(meta);
      int total = 0, valid = 0;
      EXPECT_TRUE(gst_structure_get_int(s, "total-mcus", &total));
      EXPECT_TRUE(gst_structure_get_int(s, "valid-mcus", &valid));
      EXPECT_EQ(total, ref.report.total_mcus);
      EXPECT_EQ(valid, ref.report.valid_mcus);
      EXPECT_STREQ(gst_structure_get_string(s, "status"), c.meta);
      EXPECT_STREQ(gst_structure_get_string(s, "path"), "own");
    }
    expectPicture(out, ref);  // concealed as the library conceals
    gst_buffer_unref(out);
  }
  EXPECT_EQ(harness.count(GST_MESSAGE_QOS), c.qos);
  EXPECT_EQ(harness.count(GST_MESSAGE_ERROR), c.errors);
}

const OutcomeCase kOutcomes[] = {
    {"Clean", "webcam-480p/again-01.jpg", "", false, false, "", 0, 0},
    {"InputFlagged", "webcam-480p/again-01.jpg", "", false, true, "", 0, 0},
    // No chroma from the library: neutral chroma.
    {"Tiny1x1", "reftest/jpg-size-1x1.jpg", "", false, false, "", 0, 0},
    // The own decoder refuses this one (chroma 1x2): the fallback decodes it.
    {"Fallback", "streams/ffmpeg-422.jpg", "", false, false, "", 0, 0},
    {"NoFallback", "streams/ffmpeg-422.jpg", "fallback=false", true, false, nullptr, 1, 0},
    {"Concealed", kConcealed, "", true, false, "concealed", 0, 0},
    // decoder=own conceals also where the automatic choice is TurboJPEG (aarch64, no SSE4.1,
    // VIDRA_CPU_MASK=nosimd); decoder=turbo conceals nothing: TurboJPEG refuses the frame.
    {"ConcealedDecoderOwn", kConcealed, "decoder=own", false, false, "concealed", 0, 0},
    {"DecoderTurbo", kConcealed, "decoder=turbo", false, false, nullptr, 1, 0},
    {"ConcealedDiscarded", kConcealed, "discard-corrupted-frames=true", true, false, nullptr, 0, 0},
    {"Failed", kFailed, "", true, false, nullptr, 1, 0},
    {"FailedNoErrorsAllowed", kFailed, "max-errors=0", true, false, nullptr, 1, 1},
    {"FailedSentOn", kFailed, "output-failed=true", true, false, "failed", 0, 0},
    {"Refused", kRefused, "output-failed=true", false, false, nullptr, 1, 0},
    // Refused before anything of that size is negotiated or allocated.
    {"HeaderClaims65535x65535", "streams/huge-header.jpg", "", false, false, nullptr, 1, 0},
};
INSTANTIATE_TEST_SUITE_P(Frames, Outcomes, testing::ValuesIn(kOutcomes),
                         [](const testing::TestParamInfo<OutcomeCase>& info) {
                           return std::string(info.param.name);
                         });

// ---- Streams -------------------------------------------------------------------------------

// Frames with junk around them, in pieces (of one byte, then of up to 9000), without timestamps:
// each frame comes out as soon as its EOI is in (no latency), the last one (without EOI) at the
// end of the stream. Sizes change from frame to frame, so each picture renegotiates buffers.
TEST(Stream, BytesAreCutIntoTheirFramesWhateverThePieces) {
  const char* const names[] = {"reftest/jpg-size-17x17.jpg", "reftest/jpg-size-1x1.jpg",
                               "reftest/restarts.jpg", "reftest/jpg-size-33x33.jpg"};
  const std::string junk("junk\xFF\xD8\x00\xFF", 8);  // an SOI without a marker behind it
  std::vector<uint8_t> stream(junk.begin(), junk.end()), frame;
  std::vector<Reference> refs;
  std::vector<size_t> pictures;
  std::vector<size_t> frame_ends;  // and how many pictures have come out by then
  for (const char* name : names) {
    READ_OR_SKIP(name, &frame);
    if (name == names[3]) frame.resize(frame.size() - 2);  // no EOI
    refs.push_back(decodeReference(frame));
    stream.insert(stream.end(), frame.begin(), frame.end());
    frame_ends.push_back(stream.size());
    pictures.push_back((pictures.empty() ? 0 : pictures.back()) + shown(refs.back()));
    if (refs.size() % 2 == 0) stream.insert(stream.end(), junk.begin(), junk.end());
  }
  for (int max_piece : {1, 9000}) {
    SCOPED_TRACE("pieces of up to " + std::to_string(max_piece) + " bytes");
    Harness harness("", "image/jpeg");
    GRand* rand = g_rand_new_with_seed(17);
    for (size_t pos = 0, done = 0; pos < stream.size();) {  // `done` frames are in whole
      const size_t size =
          std::min<size_t>(stream.size() - pos, g_rand_int_range(rand, 1, max_piece + 1));
      ASSERT_EQ(gst_harness_push(harness.h, gst_buffer_new_memdup(&stream[pos], size)),
                GST_FLOW_OK);
      pos += size;
      while (done + 1 < frame_ends.size() && frame_ends[done] <= pos) ++done;
      ASSERT_EQ(gst_harness_buffers_received(harness.h), done ? pictures[done - 1] : 0)
          << "at byte " << pos;
    }
    g_rand_free(rand);
    gst_harness_push_event(harness.h, gst_event_new_eos());
    ASSERT_EQ(gst_harness_buffers_received(harness.h), pictures.back());
    EXPECT_EQ(harness.count(GST_MESSAGE_QOS), int(refs.size() - pictures.back()));  // drops
    for (const Reference& ref : refs) {
      if (!shown(ref)) continue;
      GstBuffer* out = gst_harness_pull(harness.h);
      expectPicture(out, ref);
      gst_buffer_unref(out);
    }
  }
}

// Timestamped frames without parsed=true, as a demuxer sends them, are decoded one per buffer:
// a frame without EOI comes out at once, with its timestamp. The element adds no latency.
TEST(Stream, TimestampedFramesArePacketized) {
  std::vector<uint8_t> frame;
  READ_OR_SKIP("webcam-480p/again-02.jpg", &frame);
  if (!ownDecoderRuns()) GTEST_SKIP() << "TurboJPEG decodes here, and refuses a frame without EOI";
  const std::vector<uint8_t> no_eoi(frame.begin(), frame.end() - 2);
  Harness harness("", "image/jpeg");
  EXPECT_EQ(gst_harness_query_latency(harness.h), 0u);
  ASSERT_EQ(gst_harness_push(harness.h, bufferOf(frame, 0)), GST_FLOW_OK);
  ASSERT_EQ(gst_harness_push(harness.h, bufferOf(no_eoi, 40 * GST_MSECOND)), GST_FLOW_OK);
  ASSERT_EQ(gst_harness_buffers_received(harness.h), 2u);
  for (GstClockTime pts : {GstClockTime{0}, GstClockTime{40 * GST_MSECOND}}) {
    GstBuffer* out = gst_harness_pull(harness.h);
    EXPECT_EQ(GST_BUFFER_PTS(out), pts);
    gst_buffer_unref(out);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Only this plugin, from the build tree, its registry there too and scanned in this process
  // (GStreamer's scanner can't load a sanitizer build): test discovery and runs by hand find it
  // as CTest's runs do.
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
