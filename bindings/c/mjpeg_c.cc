// The C interface: a thin layer over the public C++ interface, converting the plain structs
// and integer constants of vidra/mjpeg_c.h field by field.

#include "vidra/mjpeg_c.h"

#include <cstring>
#include <new>
#include <type_traits>

#include "vidra/log.h"
#include "vidra/mjpeg.h"

namespace {

using vidra::jpeg::DecodeOptions;
using vidra::jpeg::FrameHeader;
using vidra::jpeg::FrameReport;

void toC(const FrameHeader& from, vidra_mjpeg_header* to) {
  std::memset(to, 0, sizeof(*to));
  to->width = from.width;
  to->height = from.height;
  to->precision = from.precision;
  to->components = from.components;
  std::memcpy(to->component_ids, from.component_ids, sizeof(to->component_ids));
  std::memcpy(to->h_factors, from.h_factors, sizeof(to->h_factors));
  std::memcpy(to->v_factors, from.v_factors, sizeof(to->v_factors));
  to->sof_marker = from.sof_marker;
  to->progressive = from.progressive;
  to->arithmetic = from.arithmetic;
  to->lossless = from.lossless;
  to->colour_space = static_cast<int32_t>(from.colour_space);
  to->subsampling = static_cast<int32_t>(from.subsampling);
  to->restart_interval = from.restart_interval;
  to->has_dht = from.has_dht;
  to->has_scan = from.has_scan;
}

// The C constants are the C++ enumerators' values; a mismatch would be an ABI break.
#define VIDRA_SAME_VALUE(c_name, cpp_value) \
  static_assert((VIDRA_MJPEG_##c_name) == static_cast<int>(vidra::jpeg::cpp_value), #c_name)
VIDRA_SAME_VALUE(DECODER_AUTO, Decoder::kAuto);
VIDRA_SAME_VALUE(DECODER_OWN, Decoder::kOwn);
VIDRA_SAME_VALUE(DECODER_TURBO, Decoder::kTurbo);
VIDRA_SAME_VALUE(STATUS_CLEAN, FrameStatus::kClean);
VIDRA_SAME_VALUE(STATUS_CONCEALED, FrameStatus::kConcealed);
VIDRA_SAME_VALUE(STATUS_FAILED, FrameStatus::kFailed);
VIDRA_SAME_VALUE(STATUS_REFUSED, FrameStatus::kRefused);
VIDRA_SAME_VALUE(PATH_NONE, DecodePath::kNone);
VIDRA_SAME_VALUE(PATH_OWN, DecodePath::kOwn);
VIDRA_SAME_VALUE(PATH_TURBO, DecodePath::kTurbo);
VIDRA_SAME_VALUE(PATH_TURBO_FALLBACK, DecodePath::kTurboFallback);
VIDRA_SAME_VALUE(REASON_NONE, RefusalReason::kNone);
VIDRA_SAME_VALUE(REASON_INVALID_ARGUMENT, RefusalReason::kInvalidArgument);
VIDRA_SAME_VALUE(REASON_SIZE_MISMATCH, RefusalReason::kSizeMismatch);
VIDRA_SAME_VALUE(REASON_NOT_JPEG, RefusalReason::kNotJPEG);
VIDRA_SAME_VALUE(REASON_UNSUPPORTED_PROCESS, RefusalReason::kUnsupportedProcess);
VIDRA_SAME_VALUE(REASON_UNSUPPORTED_LAYOUT, RefusalReason::kUnsupportedLayout);
VIDRA_SAME_VALUE(REASON_UNSUPPORTED_COLOUR_SPACE, RefusalReason::kUnsupportedColourSpace);
VIDRA_SAME_VALUE(REASON_BAD_HEADER, RefusalReason::kBadHeader);
VIDRA_SAME_VALUE(REASON_TRUNCATED, RefusalReason::kTruncated);
VIDRA_SAME_VALUE(REASON_TOO_LARGE, RefusalReason::kTooLarge);
VIDRA_SAME_VALUE(REASON_TURBO_ERROR, RefusalReason::kTurboError);
VIDRA_SAME_VALUE(REASON_OUT_OF_MEMORY, RefusalReason::kOutOfMemory);
VIDRA_SAME_VALUE(COLOUR_UNKNOWN, ColourSpace::kUnknown);
VIDRA_SAME_VALUE(COLOUR_GREY, ColourSpace::kGrey);
VIDRA_SAME_VALUE(COLOUR_YCBCR, ColourSpace::kYCbCr);
VIDRA_SAME_VALUE(COLOUR_RGB, ColourSpace::kRGB);
VIDRA_SAME_VALUE(COLOUR_CMYK, ColourSpace::kCMYK);
VIDRA_SAME_VALUE(COLOUR_YCCK, ColourSpace::kYCCK);
VIDRA_SAME_VALUE(SUBSAMPLING_UNKNOWN, Subsampling::kUnknown);
VIDRA_SAME_VALUE(SUBSAMPLING_444, Subsampling::k444);
VIDRA_SAME_VALUE(SUBSAMPLING_422, Subsampling::k422);
VIDRA_SAME_VALUE(SUBSAMPLING_420, Subsampling::k420);
VIDRA_SAME_VALUE(SUBSAMPLING_440, Subsampling::k440);
VIDRA_SAME_VALUE(SUBSAMPLING_411, Subsampling::k411);
VIDRA_SAME_VALUE(SUBSAMPLING_GREY, Subsampling::kGrey);
#undef VIDRA_SAME_VALUE

// The C sink is the C++ one spelled with fixed-width integers; where int is 32 bits (every
// platform this library builds for) the two are one type and the sink is handed on as it is.
static_assert(std::is_same<vidra_mjpeg_log_sink, vidra::LogSink>::value,
              "the C and C++ log sinks must be one type");

}  // namespace

extern "C" {

const char* vidra_mjpeg_version(void) { return VIDRA_MJPEG_VERSION_STRING; }

size_t vidra_mjpeg_i420_size(int32_t width, int32_t height) {
  if (width < 1 || height < 1 || width > 65535 || height > 65535) return 0;
  const size_t w = static_cast<size_t>(width), h = static_cast<size_t>(height);
  return w * h + 2 * (w / 2) * (h / 2);
}

void vidra_mjpeg_options_init(vidra_mjpeg_options* options) {
  if (options == nullptr) return;
  const DecodeOptions defaults;
  options->decoder = static_cast<int32_t>(defaults.decoder);
  options->insert_dht = defaults.insert_dht;
  options->fallback = defaults.fallback;
}

int vidra_mjpeg_read_header(const uint8_t* data, size_t size, vidra_mjpeg_header* header) {
  if (header == nullptr) return 0;
  FrameHeader parsed;
  const bool found = vidra::jpeg::readFrameHeader(data, size, &parsed);
  toC(parsed, header);
  return found ? 1 : 0;
}

int vidra_mjpeg_frame_size_plausible(const vidra_mjpeg_header* header, size_t size) {
  if (header == nullptr) return 0;
  FrameHeader claim;
  claim.width = header->width;
  claim.height = header->height;
  return vidra::jpeg::frameSizePlausible(claim, size) ? 1 : 0;
}

int vidra_mjpeg_decode(const uint8_t* data, size_t size, int32_t width, int32_t height, uint8_t* y,
                       int32_t y_stride, uint8_t* u, int32_t u_stride, uint8_t* v, int32_t v_stride,
                       const vidra_mjpeg_options* options, vidra_mjpeg_report* report) {
  if (report == nullptr) return 0;
  DecodeOptions cpp_options;
  FrameReport cpp_report;
  bool ok = false;
  if (options != nullptr && (options->decoder < VIDRA_MJPEG_DECODER_AUTO ||
                             options->decoder > VIDRA_MJPEG_DECODER_TURBO)) {
    cpp_report.status = vidra::jpeg::FrameStatus::kRefused;
    cpp_report.reason = vidra::jpeg::RefusalReason::kInvalidArgument;
  } else {
    if (options != nullptr) {
      cpp_options.decoder = static_cast<vidra::jpeg::Decoder>(options->decoder);
      cpp_options.insert_dht = options->insert_dht != 0;
      cpp_options.fallback = options->fallback != 0;
    }
    // No exception may unwind into C: an exhausted heap is a refusal. The planes are only
    // written once every buffer of the frame is allocated, so they are untouched then.
    try {
      ok = vidra::jpeg::decodeFrame(data, size, width, height, y, y_stride, u, u_stride, v,
                                    v_stride, cpp_options, &cpp_report);
    } catch (const std::bad_alloc&) {
      ok = false;
      cpp_report = FrameReport();
      cpp_report.reason = vidra::jpeg::RefusalReason::kOutOfMemory;
    }
  }
  std::memset(report, 0, sizeof(*report));
  report->status = static_cast<int32_t>(cpp_report.status);
  report->path = static_cast<int32_t>(cpp_report.path);
  report->reason = static_cast<int32_t>(cpp_report.reason);
  report->total_mcus = cpp_report.total_mcus;
  report->valid_mcus = cpp_report.valid_mcus;
  toC(cpp_report.header, &report->header);
  return ok ? 1 : 0;
}

int32_t vidra_mjpeg_automatic_decoder(void) {
  return static_cast<int32_t>(vidra::jpeg::automaticDecoder());
}

const char* vidra_mjpeg_vector_level(void) { return vidra::jpeg::vectorLevel(); }

const char* vidra_mjpeg_reason_text(int32_t reason) {
  if (reason < VIDRA_MJPEG_REASON_NONE || reason > VIDRA_MJPEG_REASON_OUT_OF_MEMORY) {
    return "unknown reason";
  }
  return vidra::jpeg::refusalReasonText(static_cast<vidra::jpeg::RefusalReason>(reason));
}

const char* vidra_mjpeg_status_name(int32_t status) {
  switch (status) {
    case VIDRA_MJPEG_STATUS_CLEAN:
      return "clean";
    case VIDRA_MJPEG_STATUS_CONCEALED:
      return "concealed";
    case VIDRA_MJPEG_STATUS_FAILED:
      return "failed";
    case VIDRA_MJPEG_STATUS_REFUSED:
      return "refused";
    default:
      return "unknown status";
  }
}

void vidra_mjpeg_set_log_level(const char* channel, int32_t level) {
  vidra::setLoggerLevel(channel, level);
}

void vidra_mjpeg_set_log_sink(vidra_mjpeg_log_sink sink, void* user) {
  vidra::setLogSink(sink, user);
}

void vidra_mjpeg_set_force_turbo(int32_t force) {
  vidra::jpeg::setForceJPEGTurboDecoder(force != 0);
}

}  // extern "C"
