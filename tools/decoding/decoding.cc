#include "decoding/decoding.h"

#include <chrono>
#include <cstdio>

#include "vidra/log.h"

namespace vidra {
namespace tool {

const char* outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kDecoded:
      return "decoded";
    case Outcome::kConcealed:
      return "concealed";
    case Outcome::kFailed:
      return "failed";
    case Outcome::kRefused:
      return "refused";
  }
  return "?";
}

std::string layoutName(const jpeg::FrameHeader& header) {
  const int count = std::min<int>(header.components, 4);
  if (count <= 0) return "";
  std::string factors;
  for (int i = 0; i < count; ++i) {
    factors += (i ? "," : "") + std::to_string(header.h_factors[i]) + "x" +
               std::to_string(header.v_factors[i]);
  }
  const char* name = "";
  switch (header.subsampling) {
    case jpeg::Subsampling::k444:
      name = "4:4:4 ";
      break;
    case jpeg::Subsampling::k422:
      name = "4:2:2 ";
      break;
    case jpeg::Subsampling::k420:
      name = "4:2:0 ";
      break;
    case jpeg::Subsampling::k440:
      name = "4:4:0 ";
      break;
    case jpeg::Subsampling::k411:
      name = "4:1:1 ";
      break;
    case jpeg::Subsampling::kGrey:
      name = "grey ";
      break;
    case jpeg::Subsampling::kUnknown:
      return factors;
  }
  return name + ("(" + factors + ")");
}

FrameResult decodeFrame(const uint8_t* data, size_t size, const DecoderChoice& choice,
                        I420Image* image) {
  FrameResult result;
  jpeg::readFrameHeader(data, size, &result.header);
  const int width = result.header.width, height = result.header.height;
  result.sized = width > 0 && height > 0;
  if (!result.sized) {
    result.reason = "(the tool's own: the header gives no frame size)";
    return result;
  }
  if (!frameSizeUsable(width, height)) {
    result.reason = "(the tool's own: sizes above 8192x8192 pixels are refused)";
    return result;
  }
  image->resize(width, height);
  jpeg::DecodeOptions options;
  options.decoder = choice.turbo ? jpeg::Decoder::kTurbo : jpeg::Decoder::kAuto;
  options.insert_dht = !result.header.has_dht;
  options.fallback = choice.fallback;
  jpeg::FrameReport report;
  const int cs = image->chromaStride();
  const auto start = std::chrono::steady_clock::now();
  jpeg::decodeFrame(data, size, width, height, image->y.data(), image->yStride(), image->u.data(),
                    cs, image->v.data(), cs, options, &report);
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.path = report.path;
  result.fallback = report.path == jpeg::DecodePath::kTurboFallback;
  result.valid_mcus = report.valid_mcus;
  result.total_mcus = report.total_mcus;
  switch (report.status) {
    case jpeg::FrameStatus::kClean:
      result.outcome = Outcome::kDecoded;
      break;
    case jpeg::FrameStatus::kConcealed:
      result.outcome = Outcome::kConcealed;
      break;
    case jpeg::FrameStatus::kFailed:
      result.outcome = Outcome::kFailed;
      result.reason = report.total_mcus > 0
                          ? "too few MCUs decoded cleanly (" + std::to_string(report.valid_mcus) +
                                " of " + std::to_string(report.total_mcus) + ")"
                          : "too damaged";
      break;
    case jpeg::FrameStatus::kRefused:
      result.outcome = Outcome::kRefused;
      result.reason = jpeg::refusalReasonText(report.reason);
      return result;
  }
  image->completeChroma();
  return result;
}

void OutcomeTally::add(const FrameResult& result) {
  switch (result.outcome) {
    case Outcome::kDecoded:
      ++decoded;
      break;
    case Outcome::kConcealed:
      ++concealed;
      break;
    case Outcome::kFailed:
      ++failed;
      break;
    case Outcome::kRefused:
      ++refused;
      return;
  }
  fallback += result.fallback;
  turbo += result.path == jpeg::DecodePath::kTurbo;
  ++timed;
  seconds += result.seconds;
  pixels += static_cast<double>(result.header.width) * result.header.height;
}

bool OutcomeTally::speed(double* fps, double* mps) const {
  if (timed == 0 || seconds <= 0) return false;
  *fps = timed / seconds;
  *mps = pixels / seconds / 1e6;
  return true;
}

bool ownDecoderFast() {
  // setForceJPEGTurboDecoder() is never called by the tool, so this is the processor's answer.
  return jpeg::automaticDecoder() == jpeg::Decoder::kOwn;
}

std::string OutcomeTally::decodersText() const {
  const int64_t own = timed - turbo - fallback;
  if (own == timed) return "the library's own decoder";
  if (turbo == timed) return "the library's TurboJPEG path";
  if (fallback == timed) return "the library's TurboJPEG fallback";
  std::string text = "the library (";
  if (own) text += std::to_string(own) + " own decoder";
  if (turbo) text += std::string(own ? ", " : "") + std::to_string(turbo) + " TurboJPEG path";
  if (fallback) {
    text +=
        std::string(own || turbo ? ", " : "") + std::to_string(fallback) + " TurboJPEG fallback";
  }
  return text + ")";
}

const char* decoderName(const FrameResult& result) {
  if (result.outcome == Outcome::kRefused) return "refused";
  switch (result.path) {
    case jpeg::DecodePath::kOwn:
      return "own";
    case jpeg::DecodePath::kTurbo:
      return "turbo";
    case jpeg::DecodePath::kTurboFallback:
      return "fallback";
    case jpeg::DecodePath::kNone:
      break;
  }
  return "?";
}

namespace {

void checkSink(void*, int level, const char* channel, const char*, int, const char* text) {
  if (level <= 1)
    std::fprintf(stderr, "vidra-mjpeg: library check failed (%s): %s\n", channel, text);
}

}  // namespace

void quietLibraryLog() {
  setLoggerLevel("mjpeg", 1);
  setLogSink(&checkSink, nullptr);
}

}  // namespace tool
}  // namespace vidra
