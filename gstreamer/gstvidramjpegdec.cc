// vidramjpegdec: a GstVideoDecoder over the vidra-mjpeg library's public interface.
//
// Each frame is decoded straight into a downstream buffer: the output frame is mapped and its
// planes and strides (GstVideoMeta's where the buffer has one) are handed to decodeFrame(). The
// library may write stride x rows bytes of each plane, which every buffer laid out by a
// GstVideoInfo or a GstVideoMeta provides.
//
// Input is packetized when the caps say parsed=true, or when the first buffer after the caps
// is one timestamped frame, as demuxers and cameras send them; anything else is a byte stream,
// cut into frames by parse().

#include "gstvidramjpegdec.h"

#include <cstring>
#include <new>

#include "vidra/mjpeg.h"
#include "vidra/mjpeg_c.h"
#include "vidra/splitter.h"

GST_DEBUG_CATEGORY(gst_vidra_mjpeg_dec_debug);
#define GST_CAT_DEFAULT gst_vidra_mjpeg_dec_debug

namespace {

namespace vj = vidra::jpeg;

constexpr gboolean kDefaultFallback = TRUE;
constexpr gboolean kDefaultOutputFailed = FALSE;

enum { PROP_0, PROP_DECODER, PROP_FALLBACK, PROP_OUTPUT_FAILED };

GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg"));

GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE("I420")));

// The "decoder" property's values: the library's per-call decoder choice.
GType decoderChoiceType() {
  static gsize type = 0;
  if (g_once_init_enter(&type)) {
    static const GEnumValue values[] = {
        {static_cast<gint>(vj::Decoder::kAuto),
         "As the library picks: its own decoder with SSSE3/SSE4.1, else TurboJPEG", "auto"},
        {static_cast<gint>(vj::Decoder::kOwn),
         "The library's own decoder on any processor (conceals damage; NEON on aarch64)", "own"},
        {static_cast<gint>(vj::Decoder::kTurbo), "TurboJPEG", "turbo"},
        {0, nullptr, nullptr}};
    g_once_init_leave(&type, g_enum_register_static("GstVidraMjpegDecDecoder", values));
  }
  return static_cast<GType>(type);
}

const char* pathName(vj::DecodePath path) {
  switch (path) {
    case vj::DecodePath::kOwn:
      return "own";
    case vj::DecodePath::kTurbo:
      return "turbo";
    case vj::DecodePath::kTurboFallback:
      return "turbo-fallback";
    case vj::DecodePath::kNone:
      break;
  }
  return "none";
}

}  // namespace

struct _GstVidraMjpegDec {
  GstVideoDecoder parent;

  // Properties, under the object lock.
  gint decoder;  // a vj::Decoder
  gboolean fallback;
  gboolean output_failed;

  // Streaming state, under the stream lock.
  GstVideoCodecState* input_state;
  gint out_width;  // size of the negotiated output; 0 before the first frame
  gint out_height;
  gboolean guess_packetized;  // the next buffer decides (caps without parsed=true)
  // parse(): the splitter has been fed the adapter's bytes; the adapter's first byte is byte
  // `adapter_start` of the splitter's input, and the last frame handed out ended at
  // `last_frame_end`.
  vidra::jpeg::MJPEGStreamSplitter* splitter;
  guint64 adapter_start;
  guint64 last_frame_end;
};

G_DEFINE_TYPE(GstVidraMjpegDec, gst_vidra_mjpeg_dec, GST_TYPE_VIDEO_DECODER)
GST_ELEMENT_REGISTER_DEFINE(vidramjpegdec, "vidramjpegdec", GST_RANK_MARGINAL,
                            GST_TYPE_VIDRA_MJPEG_DEC)

namespace {

// The library leaves odd sizes' last chroma column and row out (its chroma planes are
// width / 2 x height / 2, rounding down) where I420 has them: they repeat their neighbours,
// and a frame one sample wide or high gets neutral chroma.
void completeChroma(GstVideoFrame* frame, int width, int height) {
  const int cw = width / 2, ch = height / 2;
  for (int plane = 1; plane <= 2; ++plane) {
    auto* data = static_cast<guint8*>(GST_VIDEO_FRAME_PLANE_DATA(frame, plane));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(frame, plane);
    const int full_w = GST_VIDEO_FRAME_COMP_WIDTH(frame, plane);
    const int full_h = GST_VIDEO_FRAME_COMP_HEIGHT(frame, plane);
    if (cw == 0 || ch == 0) {
      for (int row = 0; row < full_h; ++row) memset(data + row * stride, 0x80, full_w);
      continue;
    }
    if (full_w > cw) {
      for (int row = 0; row < ch; ++row) data[row * stride + cw] = data[row * stride + cw - 1];
    }
    if (full_h > ch) memcpy(data + ch * stride, data + (ch - 1) * stride, full_w);
  }
}

// Counts an error against max-errors and drops the frame; the flow return says whether the
// stream goes on.
GstFlowReturn dropWithError(GstVidraMjpegDec* dec, GstVideoCodecFrame* frame, const char* text,
                            const char* detail) {
  GstFlowReturn ret = GST_FLOW_OK;
  GST_VIDEO_DECODER_ERROR(dec, 1, STREAM, DECODE, ("%s", text), ("%s", detail), ret);
  const GstFlowReturn dropped = gst_video_decoder_drop_frame(GST_VIDEO_DECODER(dec), frame);
  return ret != GST_FLOW_OK ? ret : dropped;
}

// Sets and negotiates the output for a frame of `width` x `height` when it differs from the
// current one.
GstFlowReturn ensureOutput(GstVidraMjpegDec* dec, int width, int height) {
  auto* bdec = GST_VIDEO_DECODER(dec);
  if (width == dec->out_width && height == dec->out_height &&
      !gst_pad_check_reconfigure(GST_VIDEO_DECODER_SRC_PAD(bdec))) {
    return GST_FLOW_OK;
  }
  GST_DEBUG_OBJECT(dec, "output %dx%d", width, height);
  GstVideoCodecState* state = gst_video_decoder_set_output_state(bdec, GST_VIDEO_FORMAT_I420, width,
                                                                 height, dec->input_state);
  // JPEG's YCbCr: full range BT.601, chroma centred between its luma samples.
  state->info.colorimetry.range = GST_VIDEO_COLOR_RANGE_0_255;
  state->info.colorimetry.matrix = GST_VIDEO_COLOR_MATRIX_BT601;
  state->info.colorimetry.transfer = GST_VIDEO_TRANSFER_UNKNOWN;
  state->info.colorimetry.primaries = GST_VIDEO_COLOR_PRIMARIES_UNKNOWN;
  state->info.chroma_site = GST_VIDEO_CHROMA_SITE_JPEG;
  gst_video_codec_state_unref(state);
  if (!gst_video_decoder_negotiate(bdec)) {
    dec->out_width = dec->out_height = 0;
    gst_pad_mark_reconfigure(GST_VIDEO_DECODER_SRC_PAD(bdec));
    return GST_PAD_IS_FLUSHING(GST_VIDEO_DECODER_SRC_PAD(bdec)) ? GST_FLOW_FLUSHING
                                                                : GST_FLOW_NOT_NEGOTIATED;
  }
  dec->out_width = width;
  dec->out_height = height;
  return GST_FLOW_OK;
}

void attachDamageMeta(GstBuffer* buffer, const char* status, const vj::FrameReport& report) {
  GstCustomMeta* meta = gst_buffer_add_custom_meta(buffer, GST_VIDRA_MJPEG_DEC_META_NAME);
  if (meta == nullptr) return;  // the plugin registers it; only a foreign registration fails
  gst_structure_set(gst_custom_meta_get_structure(meta), "status", G_TYPE_STRING, status,
                    "total-mcus", G_TYPE_INT, report.total_mcus, "valid-mcus", G_TYPE_INT,
                    report.valid_mcus, "path", G_TYPE_STRING, pathName(report.path), nullptr);
}

// Decodes one mapped frame into a newly allocated output buffer.
GstFlowReturn decodeInto(GstVidraMjpegDec* dec, GstVideoCodecFrame* frame, const GstMapInfo& in) {
  auto* bdec = GST_VIDEO_DECODER(dec);
  vj::FrameHeader header;
  if (!vj::readFrameHeader(in.data, in.size, &header) || header.width < 1 || header.height < 1) {
    return dropWithError(dec, frame, "No JPEG frame header", "no frame size before the scan");
  }
  const int width = header.width, height = header.height;
  // Before anything is negotiated or allocated: a damaged header may claim 65535 x 65535.
  if (!vj::frameSizePlausible(header, in.size)) {
    return dropWithError(dec, frame, "Frame too large for its data",
                         vj::refusalReasonText(vj::RefusalReason::kTooLarge));
  }

  GstFlowReturn ret = ensureOutput(dec, width, height);
  if (ret != GST_FLOW_OK) {
    gst_video_decoder_release_frame(bdec, frame);
    return ret;
  }
  ret = gst_video_decoder_allocate_output_frame(bdec, frame);
  if (ret != GST_FLOW_OK) {
    gst_video_decoder_release_frame(bdec, frame);
    return ret;
  }
  GstVideoCodecState* state = gst_video_decoder_get_output_state(bdec);
  GstVideoFrame out;
  const gboolean mapped =
      gst_video_frame_map(&out, &state->info, frame->output_buffer, GST_MAP_WRITE);
  gst_video_codec_state_unref(state);
  if (!mapped) {
    return dropWithError(dec, frame, "Could not map the output buffer", "mapping failed");
  }

  vj::DecodeOptions options;
  vj::FrameReport report;
  GST_OBJECT_LOCK(dec);
  options.decoder = static_cast<vj::Decoder>(dec->decoder);
  options.fallback = dec->fallback;
  const gboolean output_failed = dec->output_failed;
  GST_OBJECT_UNLOCK(dec);
  vj::decodeFrame(in.data, in.size, width, height,
                  static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&out, 0)),
                  GST_VIDEO_FRAME_PLANE_STRIDE(&out, 0),
                  static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&out, 1)),
                  GST_VIDEO_FRAME_PLANE_STRIDE(&out, 1),
                  static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&out, 2)),
                  GST_VIDEO_FRAME_PLANE_STRIDE(&out, 2), options, &report);
  if (report.status != vj::FrameStatus::kRefused) completeChroma(&out, width, height);
  gst_video_frame_unmap(&out);

  GST_LOG_OBJECT(dec, "%dx%d frame %s, path %s, %d of %d MCUs", width, height,
                 vidra_mjpeg_status_name(static_cast<int32_t>(report.status)),
                 pathName(report.path), report.valid_mcus, report.total_mcus);
  switch (report.status) {
    case vj::FrameStatus::kClean:
      break;
    case vj::FrameStatus::kConcealed:
      GST_VIDEO_CODEC_FRAME_FLAG_SET(frame, GST_VIDEO_CODEC_FRAME_FLAG_CORRUPTED);
      attachDamageMeta(frame->output_buffer, "concealed", report);
      break;
    case vj::FrameStatus::kFailed: {
      if (!output_failed) {
        gchar* detail =
            g_strdup_printf("%d of %d MCUs decoded", report.valid_mcus, report.total_mcus);
        ret = dropWithError(dec, frame, "Frame too damaged to show", detail);
        g_free(detail);
        return ret;
      }
      GST_VIDEO_CODEC_FRAME_FLAG_SET(frame, GST_VIDEO_CODEC_FRAME_FLAG_CORRUPTED);
      attachDamageMeta(frame->output_buffer, "failed", report);
      break;
    }
    case vj::FrameStatus::kRefused:
      return dropWithError(dec, frame, "Frame refused", vj::refusalReasonText(report.reason));
  }
  if (GST_BUFFER_FLAG_IS_SET(frame->input_buffer, GST_BUFFER_FLAG_CORRUPTED)) {
    GST_VIDEO_CODEC_FRAME_FLAG_SET(frame, GST_VIDEO_CODEC_FRAME_FLAG_CORRUPTED);
  }
  return gst_video_decoder_finish_frame(bdec, frame);
}

void resetSplitter(GstVidraMjpegDec* dec) {
  delete dec->splitter;
  dec->splitter = nullptr;
  dec->adapter_start = dec->last_frame_end = 0;
}

// Cuts a byte stream into frames with the library's stream splitter, which sees each byte
// once: the adapter's new bytes are copied into it, junk is flushed from the adapter as soon
// as it is known, and each frame's bytes go to the base class when its cut is final (at its
// EOI, so a frame comes out as soon as it is complete). At the end of the stream (or a drain)
// the frame being gathered comes out as it is, and the splitter starts afresh.
GstFlowReturn parse(GstVideoDecoder* bdec, GstVideoCodecFrame*, GstAdapter* adapter,
                    gboolean at_eos) {
  auto* dec = GST_VIDRA_MJPEG_DEC(bdec);
  try {
    if (dec->splitter == nullptr) dec->splitter = new vj::MJPEGStreamSplitter();
    vj::MJPEGStreamSplitter* splitter = dec->splitter;
    const gsize available = gst_adapter_available(adapter);
    const gsize fed = splitter->bytesFed() - dec->adapter_start;
    if (available > fed) {
      const gsize count = available - fed;
      gst_adapter_copy(adapter, splitter->reserve(count), fed, count);
      splitter->commit(count);
    }
    if (at_eos) splitter->finish();
    vj::StreamFrame frame;
    if (splitter->next(&frame)) {
      if (frame.offset > dec->adapter_start) {
        GST_DEBUG_OBJECT(dec, "skipping %" G_GUINT64_FORMAT " bytes of junk",
                         frame.offset - dec->adapter_start);
        gst_adapter_flush(adapter, frame.offset - dec->adapter_start);
      }
      if (frame.cut_short) {
        GST_DEBUG_OBJECT(dec, "frame of %" G_GSIZE_FORMAT " bytes without EOI", frame.size);
      }
      dec->adapter_start = dec->last_frame_end = frame.offset + frame.size;
      gst_video_decoder_add_to_frame(bdec, frame.size);
      return gst_video_decoder_have_frame(bdec);
    }
    // No frame yet: what is certainly junk leaves the adapter now.
    const guint64 junk_end = dec->last_frame_end + splitter->pendingJunk();
    if (junk_end > dec->adapter_start) {
      gst_adapter_flush(adapter, junk_end - dec->adapter_start);
      dec->adapter_start = junk_end;
    }
    if (at_eos) {
      gst_adapter_clear(adapter);  // nothing is left but junk
      resetSplitter(dec);
    }
    return GST_VIDEO_DECODER_FLOW_NEED_DATA;
  } catch (const std::bad_alloc&) {
    GST_ELEMENT_ERROR(dec, RESOURCE, NO_SPACE_LEFT, ("Out of memory while cutting frames"),
                      ("%" G_GSIZE_FORMAT " bytes waiting", gst_adapter_available(adapter)));
    return GST_FLOW_ERROR;
  }
}

GstFlowReturn handleFrame(GstVideoDecoder* bdec, GstVideoCodecFrame* frame) {
  auto* dec = GST_VIDRA_MJPEG_DEC(bdec);
  // Finishing or dropping the frame releases its input buffer.
  GstBuffer* input = gst_buffer_ref(frame->input_buffer);
  GstMapInfo in;
  GstFlowReturn ret;
  if (gst_buffer_map(input, &in, GST_MAP_READ)) {
    ret = decodeInto(dec, frame, in);
    gst_buffer_unmap(input, &in);
  } else {
    ret = dropWithError(dec, frame, "Could not map the input buffer", "mapping failed");
  }
  gst_buffer_unref(input);
  return ret;
}

gboolean setFormat(GstVideoDecoder* bdec, GstVideoCodecState* state) {
  auto* dec = GST_VIDRA_MJPEG_DEC(bdec);
  if (dec->input_state) gst_video_codec_state_unref(dec->input_state);
  dec->input_state = gst_video_codec_state_ref(state);
  dec->out_width = dec->out_height = 0;  // renegotiate with the new input's framerate, PAR, ...
  return TRUE;
}

// Caps come before the buffers that they describe (set_format only runs at the next buffer):
// parsed=true makes the input packetized, else the first buffer decides.
gboolean sinkEvent(GstVideoDecoder* bdec, GstEvent* event) {
  if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
    auto* dec = GST_VIDRA_MJPEG_DEC(bdec);
    GstCaps* caps = nullptr;
    gst_event_parse_caps(event, &caps);
    GstCaps* current = gst_pad_get_current_caps(GST_VIDEO_DECODER_SINK_PAD(bdec));
    if (current == nullptr || !gst_caps_is_equal(current, caps)) {
      gboolean parsed = FALSE;
      gst_structure_get_boolean(gst_caps_get_structure(caps, 0), "parsed", &parsed);
      GST_VIDEO_DECODER_STREAM_LOCK(dec);
      gst_video_decoder_set_packetized(bdec, parsed);
      dec->guess_packetized = !parsed;
      GST_VIDEO_DECODER_STREAM_UNLOCK(dec);
    }
    if (current) gst_caps_unref(current);
  }
  return GST_VIDEO_DECODER_CLASS(gst_vidra_mjpeg_dec_parent_class)->sink_event(bdec, event);
}

// The first buffer after caps without parsed=true: one timestamped frame means a demuxer or a
// camera, and the stream is taken as packetized; anything else goes through parse().
GstPadProbeReturn guessPacketized(GstPad*, GstPadProbeInfo* info, gpointer user) {
  auto* dec = GST_VIDRA_MJPEG_DEC(user);
  auto* bdec = GST_VIDEO_DECODER(dec);
  GST_VIDEO_DECODER_STREAM_LOCK(dec);
  if (dec->guess_packetized) {
    dec->guess_packetized = FALSE;
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    gboolean packetized = FALSE;
    GstMapInfo map;
    if (GST_BUFFER_PTS_IS_VALID(buffer) && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
      // A frame from its SOI to its EOI, and no further SOI behind it (cameras may pad).
      vj::SplitFrame frame, rest;
      packetized = vj::findFrame(map.data, map.size, true, &frame) == vj::SplitStatus::kFrame &&
                   frame.offset == 0 && !frame.cut_short &&
                   vj::findFrame(map.data + frame.size, map.size - frame.size, true, &rest) ==
                       vj::SplitStatus::kNoFrame;
      gst_buffer_unmap(buffer, &map);
    }
    GST_DEBUG_OBJECT(dec, "input %s", packetized ? "packetized" : "a byte stream");
    gst_video_decoder_set_packetized(bdec, packetized);
  }
  GST_VIDEO_DECODER_STREAM_UNLOCK(dec);
  return GST_PAD_PROBE_OK;
}

gboolean start(GstVideoDecoder* bdec) {
  auto* dec = GST_VIDRA_MJPEG_DEC(bdec);
  dec->out_width = dec->out_height = 0;
  // Without caps (filesrc ! vidramjpegdec) the first buffer decides too.
  gst_video_decoder_set_packetized(bdec, FALSE);
  dec->guess_packetized = TRUE;
  resetSplitter(dec);
  return TRUE;
}

gboolean stop(GstVideoDecoder* bdec) {
  auto* dec = GST_VIDRA_MJPEG_DEC(bdec);
  g_clear_pointer(&dec->input_state, gst_video_codec_state_unref);
  resetSplitter(dec);
  return TRUE;
}

// Frames are decoded as they come: nothing waits in the element at a drain.
GstFlowReturn drain(GstVideoDecoder*) { return GST_FLOW_OK; }

// A flush (a seek) empties the adapter.
gboolean flush(GstVideoDecoder* bdec) {
  resetSplitter(GST_VIDRA_MJPEG_DEC(bdec));
  return TRUE;
}

// Adds GstVideoMeta, and 32-byte strides where the pool can align, when downstream takes video
// meta; the base class has already made a pool when none was offered.
gboolean decideAllocation(GstVideoDecoder* bdec, GstQuery* query) {
  if (!GST_VIDEO_DECODER_CLASS(gst_vidra_mjpeg_dec_parent_class)->decide_allocation(bdec, query)) {
    return FALSE;
  }
  if (!gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr)) return TRUE;
  GstBufferPool* pool = nullptr;
  gst_query_parse_nth_allocation_pool(query, 0, &pool, nullptr, nullptr, nullptr);
  if (pool == nullptr) return FALSE;
  GstStructure* config = gst_buffer_pool_get_config(pool);
  gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
  if (gst_buffer_pool_has_option(pool, GST_BUFFER_POOL_OPTION_VIDEO_ALIGNMENT)) {
    GstVideoAlignment align;
    if (!gst_buffer_pool_config_get_video_alignment(config, &align)) {
      gst_video_alignment_reset(&align);
    }
    for (guint& stride_align : align.stride_align) stride_align |= 31;
    gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_ALIGNMENT);
    gst_buffer_pool_config_set_video_alignment(config, &align);
  }
  gboolean ok = gst_buffer_pool_set_config(pool, config);
  if (!ok) {  // the pool adjusted the configuration: take its version
    ok = gst_buffer_pool_set_config(pool, gst_buffer_pool_get_config(pool));
  }
  gst_object_unref(pool);
  return ok;
}

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
  auto* dec = GST_VIDRA_MJPEG_DEC(object);
  GST_OBJECT_LOCK(dec);
  switch (id) {
    case PROP_DECODER:
      dec->decoder = g_value_get_enum(value);
      break;
    case PROP_FALLBACK:
      dec->fallback = g_value_get_boolean(value);
      break;
    case PROP_OUTPUT_FAILED:
      dec->output_failed = g_value_get_boolean(value);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
      break;
  }
  GST_OBJECT_UNLOCK(dec);
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
  auto* dec = GST_VIDRA_MJPEG_DEC(object);
  GST_OBJECT_LOCK(dec);
  switch (id) {
    case PROP_DECODER:
      g_value_set_enum(value, dec->decoder);
      break;
    case PROP_FALLBACK:
      g_value_set_boolean(value, dec->fallback);
      break;
    case PROP_OUTPUT_FAILED:
      g_value_set_boolean(value, dec->output_failed);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
      break;
  }
  GST_OBJECT_UNLOCK(dec);
}

void finalize(GObject* object) {
  auto* dec = GST_VIDRA_MJPEG_DEC(object);
  g_clear_pointer(&dec->input_state, gst_video_codec_state_unref);
  resetSplitter(dec);
  G_OBJECT_CLASS(gst_vidra_mjpeg_dec_parent_class)->finalize(object);
}

}  // namespace

static void gst_vidra_mjpeg_dec_class_init(GstVidraMjpegDecClass* klass) {
  auto* object_class = G_OBJECT_CLASS(klass);
  auto* element_class = GST_ELEMENT_CLASS(klass);
  auto* decoder_class = GST_VIDEO_DECODER_CLASS(klass);

  object_class->set_property = setProperty;
  object_class->get_property = getProperty;
  object_class->finalize = finalize;

  const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                              GST_PARAM_MUTABLE_PLAYING);
  g_object_class_install_property(
      object_class, PROP_DECODER,
      g_param_spec_enum("decoder", "Decoder",
                        "Which of the library's decoders decodes the frames; 'own' conceals "
                        "damage on processors where 'auto' picks TurboJPEG (aarch64, no SSE4.1)",
                        decoderChoiceType(), static_cast<gint>(vj::Decoder::kAuto), flags));
  g_object_class_install_property(
      object_class, PROP_FALLBACK,
      g_param_spec_boolean("fallback", "Fallback",
                           "Decode frames that the library's own decoder doesn't take "
                           "(progressive, grey, FFmpeg's 4:2:2, ...) with TurboJPEG",
                           kDefaultFallback, flags));
  g_object_class_install_property(
      object_class, PROP_OUTPUT_FAILED,
      g_param_spec_boolean("output-failed", "Output failed frames",
                           "Send frames with 80% or fewer good MCUs on, concealed and flagged "
                           "CORRUPTED, instead of dropping them as errors",
                           kDefaultOutputFailed, flags));

  gst_element_class_add_static_pad_template(element_class, &sink_template);
  gst_element_class_add_static_pad_template(element_class, &src_template);
  gst_element_class_set_static_metadata(
      element_class, "vidra-mjpeg decoder", "Codec/Decoder/Video",
      "Decodes (M)JPEG frames to I420 with the vidra-mjpeg library, concealing damaged "
      "restart spans",
      "vidra-mjpeg developers");

  decoder_class->start = start;
  decoder_class->stop = stop;
  decoder_class->set_format = setFormat;
  decoder_class->sink_event = sinkEvent;
  decoder_class->drain = drain;
  decoder_class->flush = flush;
  decoder_class->parse = parse;
  decoder_class->handle_frame = handleFrame;
  decoder_class->decide_allocation = decideAllocation;
}

static void gst_vidra_mjpeg_dec_init(GstVidraMjpegDec* dec) {
  auto* bdec = GST_VIDEO_DECODER(dec);
  dec->decoder = static_cast<gint>(vj::Decoder::kAuto);
  dec->fallback = kDefaultFallback;
  dec->output_failed = kDefaultOutputFailed;
  gst_video_decoder_set_use_default_pad_acceptcaps(bdec, TRUE);
  GST_PAD_SET_ACCEPT_TEMPLATE(GST_VIDEO_DECODER_SINK_PAD(bdec));
  gst_pad_add_probe(GST_VIDEO_DECODER_SINK_PAD(bdec), GST_PAD_PROBE_TYPE_BUFFER, guessPacketized,
                    dec, nullptr);
}
