// decodeFrame(): decompressMJPEG()'s decoders behind per-call options, with a report of what
// became of the frame.
//
// The decoders themselves are unchanged. The report is pieced together from three sources:
// the header walk (scanFrameHeader), which gives the frame's facts and explains refusals; the
// own decoder's MCU counts; and the refusal note that a failing check leaves for the calling
// thread, which tells a refused frame (planes untouched) from one that fell short of the 80%
// rule (planes written) and names the check that refused it.

#include <cstring>

#include "frame_header.h"
#include "jpeg.h"
#include "jpeg_check.h"
#include "jpeg_dsp.h"
#include "jpeg_turbo.h"
#include "mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

constexpr int kMaxDimension = 65535;  // what a frame header can express

bool equals(const char* a, const char* b) { return a != nullptr && std::strcmp(a, b) == 0; }

bool isUnsupported(RefusalReason reason) {
  return reason == RefusalReason::kUnsupportedProcess ||
         reason == RefusalReason::kUnsupportedLayout;
}

// Whether a plane of `rows` rows of `width` samples can be addressed at `plane` with `stride`.
// A stride may be negative (a bottom-up plane), but not shorter than its row. A plane with rows
// must be there even when its rows are empty (chroma of a frame 1 pixel wide): the decoders
// may write whole strides.
bool planeUsable(const uint8_t* plane, int stride, int width, int rows) {
  if (rows <= 0) return true;  // nothing is written
  if (plane == nullptr) return false;
  const long long magnitude = stride < 0 ? -static_cast<long long>(stride) : stride;
  return magnitude >= width;
}

bool argumentsValid(const uint8_t* data, size_t size, int width, int height, const uint8_t* y,
                    int y_stride, const uint8_t* u, int u_stride, const uint8_t* v, int v_stride) {
  if (data == nullptr || size == 0) return false;
  if (width < 1 || height < 1 || width > kMaxDimension || height > kMaxDimension) return false;
  const int cw = width / 2, ch = height / 2;
  return planeUsable(y, y_stride, width, height) && planeUsable(u, u_stride, cw, ch) &&
         planeUsable(v, v_stride, cw, ch);
}

// Why the own decoder's marker loop stopped at `marker`, a marker that it doesn't handle.
RefusalReason explainMarker(int marker) {
  switch (marker) {
    case 0xC1:
    case 0xC2:
    case 0xC3:  // extended, progressive, lossless
    case 0xC5:
    case 0xC6:
    case 0xC7:  // the same, hierarchical
    case 0xC9:
    case 0xCA:
    case 0xCB:  // arithmetic coding
    case 0xCD:
    case 0xCE:
    case 0xCF:
    case 0xCC:  // arithmetic conditioning tables
    case 0xFF:  // a fill byte, which T.81 allows in front of any marker
      return RefusalReason::kUnsupportedProcess;
    case 0xD9:  // EOI: the frame ends before its scan
      return RefusalReason::kTruncated;
    default:  // RSTn, a second SOI, DNL, a stuffed zero, ...: a broken header
      return RefusalReason::kBadHeader;
  }
}

// Why the own decoder refused the frame: from the check that failed (`note`), and where none
// did, from where its marker loop stopped.
RefusalReason explainOwnRefusal(const RefusalNote& note, const uint8_t* data, size_t size,
                                const HeaderScan& scan) {
  if (!scan.soi) return RefusalReason::kNotJPEG;
  const char* function = note.function;
  const char* condition = note.condition;
  if (function == nullptr || equals(condition, "input.consumeUint8(0xff)") ||
      equals(condition, "input.getUint8(&marker)")) {
    const MarkerLoopStop stop = ownMarkerLoopStop(data, size);
    if (stop.marker >= 0) return explainMarker(stop.marker);
    if (stop.ended) return RefusalReason::kTruncated;
    return RefusalReason::kBadHeader;
  }
  if (equals(function, "outputResults")) return RefusalReason::kUnsupportedLayout;
  // The one way out of the output stage without a check of its own: the size comparison.
  if (equals(function, "decompress") &&
      equals(condition, "outputResults(width, height, y, y_stride, u, u_stride, v, v_stride)")) {
    return RefusalReason::kSizeMismatch;
  }
  if (equals(function, "parseSOF0")) {
    if (equals(condition, "nb <= 10") || equals(condition, "component_id < kMaxComponents") ||
        (equals(condition, "len == 6 + 3 * num_components && num_components <= 4") &&
         scan.header.components > 4)) {
      return RefusalReason::kUnsupportedLayout;
    }
  }
  if (equals(function, "parseSOS")) {
    if (equals(condition, "plane_bytes <= kMaxPlaneBytes") ||
        equals(condition,
               "frame_bytes <= kLargeFrameBytes || input->getRemainingBytes() >= "
               "min_entropy_bytes")) {
      return RefusalReason::kTooLarge;
    }
    // Spectral selection or successive approximation of a progressive scan.
    if (scan.approximation >= 0 &&
        (scan.spectral_start != 0 || scan.spectral_end != 63 || scan.approximation != 0)) {
      return RefusalReason::kUnsupportedProcess;
    }
    // A component whose id has no DC predictor.
    if (equals(condition, "cs < 8")) return RefusalReason::kUnsupportedLayout;
  }
  if (scan.truncated) return RefusalReason::kTruncated;
  return RefusalReason::kBadHeader;
}

// Why the TurboJPEG path refused the frame. It reports no more than true or false, so the
// header walk tells the causes it can see apart, and anything else is TurboJPEG's.
RefusalReason explainTurboRefusal(const HeaderScan& scan, int width, int height) {
  if (!scan.soi) return RefusalReason::kNotJPEG;
  if (scan.frame_header && (scan.header.width != width || scan.header.height != height)) {
    return RefusalReason::kSizeMismatch;
  }
  if (scan.truncated) return RefusalReason::kTruncated;
  if (!scan.frame_header) return RefusalReason::kBadHeader;
  return RefusalReason::kTurboError;
}

bool refuse(FrameReport* report, RefusalReason reason) {
  report->status = FrameStatus::kRefused;
  report->path = DecodePath::kNone;
  report->reason = reason;
  report->total_mcus = 0;
  report->valid_mcus = 0;
  return false;
}

bool decodeTurbo(const uint8_t* data, size_t size, int width, int height, uint8_t* y, int y_stride,
                 uint8_t* u, int u_stride, uint8_t* v, int v_stride, const DecodeOptions& options,
                 const HeaderScan& scan, DecodePath path, FrameReport* report) {
  JTDecoder decoder;
  // As in decompressMJPEG(), only the low 32 bits of the size reach the decoder.
  if (decoder.decompress(data, static_cast<uint32_t>(size), width, height, options.insert_dht, y,
                         y_stride, u, u_stride, v, v_stride)) {
    report->status = FrameStatus::kClean;
    report->path = path;
    return true;
  }
  // The TurboJPEG path writes the planes only for a frame that it decoded; a false after that
  // (tjDestroy() failing) can't be told from a refusal here and is reported as one.
  return refuse(report, explainTurboRefusal(scan, width, height));
}

}  // namespace

Decoder automaticDecoder() {
  // The rule of decompressMJPEG(), which asks this: the force flag, read once, then the
  // processor.
  const bool force_turbo = __atomic_load_n(&g_force_use_jt_decoder, __ATOMIC_RELAXED);
  return !force_turbo && g_cpu_info_.supports_fast_decoder() ? Decoder::kOwn : Decoder::kTurbo;
}

const char* vectorLevel() { return dsp().level; }

const char* refusalReasonText(RefusalReason reason) {
  switch (reason) {
    case RefusalReason::kNone:
      return "no refusal";
    case RefusalReason::kInvalidArgument:
      return "invalid argument";
    case RefusalReason::kSizeMismatch:
      return "frame size differs from the requested size";
    case RefusalReason::kNotJPEG:
      return "not a JPEG frame";
    case RefusalReason::kUnsupportedProcess:
      return "unsupported JPEG process or marker";
    case RefusalReason::kUnsupportedLayout:
      return "unsupported sampling layout or component count";
    case RefusalReason::kUnsupportedColourSpace:
      return "unsupported colour space";
    case RefusalReason::kBadHeader:
      return "bad header or table";
    case RefusalReason::kTruncated:
      return "truncated before the scan";
    case RefusalReason::kTooLarge:
      return "frame too large for its data";
    case RefusalReason::kTurboError:
      return "TurboJPEG error";
    case RefusalReason::kOutOfMemory:
      return "out of memory";
  }
  return "unknown reason";
}

bool decodeFrame(const uint8_t* data, size_t size, int width, int height, uint8_t* y, int y_stride,
                 uint8_t* u, int u_stride, uint8_t* v, int v_stride, const DecodeOptions& options,
                 FrameReport* report) {
  if (report == nullptr) return false;
  *report = FrameReport();
  if (!argumentsValid(data, size, width, height, y, y_stride, u, u_stride, v, v_stride)) {
    return refuse(report, RefusalReason::kInvalidArgument);
  }
  HeaderScan scan;
  scanFrameHeader(data, size, &scan);
  report->header = scan.header;

  // Neither decoder gives such frames their colours: the own decoder would take CMYK for
  // YCbCr, and the TurboJPEG path hands RGB samples on as if they were YCbCr.
  const ColourSpace colour = scan.header.colour_space;
  if (colour == ColourSpace::kRGB || colour == ColourSpace::kCMYK || colour == ColourSpace::kYCCK) {
    return refuse(report, RefusalReason::kUnsupportedColourSpace);
  }

  const Decoder choice = options.decoder == Decoder::kAuto ? automaticDecoder() : options.decoder;
  const bool own = choice == Decoder::kOwn;
  if (!own) {
    return decodeTurbo(data, size, width, height, y, y_stride, u, u_stride, v, v_stride, options,
                       scan, DecodePath::kTurbo, report);
  }
  // A frame whose header alone shows that the own decoder can't take it goes to the fallback
  // at once, without the own decoder's refusal in the log.
  if (options.fallback && ownDecoderRefusesLayout(scan)) {
    return decodeTurbo(data, size, width, height, y, y_stride, u, u_stride, v, v_stride, options,
                       scan, DecodePath::kTurboFallback, report);
  }

  clearRefusalNote();
  SimpleJPEGDecoder decoder;
  const bool ok = decoder.decompress(data, static_cast<uint32_t>(size), width, height,
                                     options.insert_dht, y, y_stride, u, u_stride, v, v_stride);
  const RefusalNote note = refusalNote();
  clearRefusalNote();
  // The decoder returns false in three ways: a failed check (noted), the marker loop stopping at
  // a marker it doesn't handle (before the scan header, so no block list), and too few good
  // MCUs (after the whole scan and the output). Only the last writes the planes.
  const bool refused = !ok && (note.function != nullptr || decoder.mcu_blocks_.empty());
  if (refused) {
    const RefusalReason reason = explainOwnRefusal(note, data, size, scan);
    if (options.fallback && isUnsupported(reason)) {
      return decodeTurbo(data, size, width, height, y, y_stride, u, u_stride, v, v_stride, options,
                         scan, DecodePath::kTurboFallback, report);
    }
    return refuse(report, reason);
  }
  report->path = DecodePath::kOwn;
  report->total_mcus = decoder.total_mcus_;
  report->valid_mcus = decoder.valid_mcus_;
  // Every restart span either decoded (valid) or was concealed.
  if (!ok) {
    report->status = FrameStatus::kFailed;
  } else if (decoder.valid_mcus_ < decoder.total_mcus_) {
    report->status = FrameStatus::kConcealed;
  } else {
    report->status = FrameStatus::kClean;
  }
  return ok;
}

}  // namespace jpeg
}  // namespace vidra
