// vidra-mjpeg: decodes one (M)JPEG video frame per call into caller-owned I420 planes.
//
//   std::vector<uint8_t> y(w * h), u((w / 2) * (h / 2)), v((w / 2) * (h / 2));
//   bool ok = vidra::jpeg::decompressMJPEG(frame, frame_size, w, h, /*insert_dht=*/true,
//                                         y.data(), w, u.data(), w / 2, v.data(), w / 2);
//
// The library keeps no state between frames, starts no threads and may be called from any
// number of threads at once, each with its own planes.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(VIDRA_MJPEG_BUILDING)
#define VIDRA_MJPEG_EXPORT __attribute__((visibility("default")))
#else
#define VIDRA_MJPEG_EXPORT
#endif

namespace vidra {
namespace jpeg {

// Decodes the frame `data` (`size` bytes, starting at its SOI marker) into `y` (`width` x
// `height` samples) and `u`, `v` (`width` / 2 x `height` / 2 samples, rounding down), each
// plane with its own stride in bytes.
//
// Planes: each plane is `stride` x `rows` bytes (`height` rows of luma, `height` / 2 of chroma),
// and the library may write all of those bytes: with a stride equal to its own plane's row the
// whole block is copied, and neutral chroma fills whole strides. So don't decode into a
// sub-rectangle of a larger picture; decode into planes of their own and copy. A negative
// stride (a bottom-up plane, `y` pointing at the top row) is written row by row.
//
// Which decoder runs: the library's own decoder on processors with SSSE3 and SSE4.1, unless
// setForceJPEGTurboDecoder(true); else the TurboJPEG path. A refusal on one path never falls
// over to the other (decodeFrame() below has an opt-in fallback).
// - The own decoder takes baseline Huffman frames (SOF0) with components 1, 2 and 3, component
//   2 sampled 1x1 and 3 one sample wide, at most ten blocks per MCU. Luma 1x1 (4:4:4), 2x1
//   (4:2:2 as cameras send it) and 2x2 (4:2:0) arrive as 4:2:0; other luma factors (4:4:0,
//   4:1:1) as luma with neutral (0x80) chroma. It refuses grey frames, FFmpeg's 4:2:2 and 4:4:4
//   (chroma sampled 1x2), progressive, extended, arithmetic and lossless frames.
// - The TurboJPEG path takes what libjpeg-turbo decodes: 4:2:0, 4:2:2 and 4:4:4 arrive as
//   4:2:0; grey, 4:4:0 and 4:1:1 as luma with neutral chroma.
//
// `insert_dht`: the frame may lack Huffman tables, as many MJPEG cameras send them; the
// TurboJPEG path then needs the default tables put in front. The library's own decoder finds
// this out by itself.
//
// Returns false when the frame was refused (its header doesn't match `width` x `height`, it
// isn't baseline JPEG, ...) or when too few of its MCUs survived damage: a damaged frame is
// concealed and still written to the planes, and it counts as good only when strictly more
// than 80% of its MCUs decoded cleanly. Reasons are logged on channel "mjpeg" at level 2, but
// for the own decoder's "Unhandled JPEG marker" (a progressive frame, for one), logged at
// level 3 and so silent by default.
VIDRA_MJPEG_EXPORT bool decompressMJPEG(const uint8_t* data, size_t size, int width, int height,
                                        bool insert_dht, uint8_t* y, int y_stride, uint8_t* u,
                                        int u_stride, uint8_t* v, int v_stride);

// Reads the frame's dimensions from its header through TurboJPEG (whichever decoder would run),
// so it answers for any frame that libjpeg-turbo can read. Returns false and logs the reason
// when the header can't be read; a frame cut inside its tables may give true with 0 x 0.
VIDRA_MJPEG_EXPORT bool getJPEGImageSize(const uint8_t* data, size_t size, int* width, int* height);

// true: decode every following frame with TurboJPEG instead of the library's own decoder.
VIDRA_MJPEG_EXPORT void setForceJPEGTurboDecoder(bool force);

// The flag behind setForceJPEGTurboDecoder(), read once per decompressMJPEG() call.
VIDRA_MJPEG_EXPORT extern bool g_force_use_jt_decoder;

// The default Huffman tables of ITU-T T.81 Annex K.3 as one DHT segment, FF C4 marker included.
VIDRA_MJPEG_EXPORT extern const uint8_t kMJPGDHTSeg[420];

// ---- Frame headers and reports --------------------------------------------------------------
// An addition beside decompressMJPEG(): one call that decodes a frame with per-call options and
// says what happened to it, and a header reader. Both are as thread-safe as decompressMJPEG()
// and keep no state between calls.

// Colour space of a frame, as a JPEG decoder would infer it: from a JFIF or Adobe segment, and
// else from the component ids.
enum class ColourSpace : uint8_t { kUnknown = 0, kGrey, kYCbCr, kRGB, kCMYK, kYCCK };

// Chroma subsampling of a frame, from the ratios of luma's sampling factors to those of the
// chroma components. FFmpeg's 4:2:2 (luma 2x2, chroma 1x2) is k422 like a camera's 2x1, 1x1.
enum class Subsampling : uint8_t { kUnknown = 0, k444, k422, k420, k440, k411, kGrey };

// What the marker segments of a frame say, up to its first scan.
struct FrameHeader {
  int32_t width = 0;
  int32_t height = 0;
  int32_t precision = 0;   // bits per sample: 8, or 12/16 for frames no decoder here takes
  int32_t components = 0;  // as declared by the frame header (the arrays hold the first four)
  uint8_t component_ids[4] = {};
  uint8_t h_factors[4] = {};  // horizontal sampling factors
  uint8_t v_factors[4] = {};  // vertical sampling factors
  uint8_t sof_marker = 0;     // 0xC0 baseline, 0xC1 extended, 0xC2 progressive, ...
  bool progressive = false;
  bool arithmetic = false;  // arithmetic entropy coding (SOF9 and up)
  bool lossless = false;
  ColourSpace colour_space = ColourSpace::kUnknown;
  Subsampling subsampling = Subsampling::kUnknown;
  int32_t restart_interval = 0;  // MCUs per restart span, 0 without restart markers
  bool has_dht = false;          // a DHT segment comes before the first scan
  bool has_scan = false;         // the header reaches a scan (SOS) before the data ends
  int32_t reserved[4] = {};      // room for later fields without an ABI break
};

// Reads the marker segments of `data` up to the first scan, tolerating fill bytes and junk
// between segments as decoders do. Returns true when a frame header (SOFn) was read; fields
// that the data doesn't reach stay at their defaults. Reads no entropy data, logs nothing.
VIDRA_MJPEG_EXPORT bool readFrameHeader(const uint8_t* data, size_t size, FrameHeader* header);

// Whether `size` bytes of frame can carry a picture of the header's size. Every frame takes at
// least a DC and an end-of-block code per 8x8 block of luma, so a large frame with less than a
// byte per 512 pixels has a damaged or hostile header, which may claim up to 65535 x 65535
// pixels (6 GiB of planes). A host that sizes its planes from the header asks this before it
// allocates them. Frames of up to 16M pixels always pass, so that cut-off frames still reach
// the decoder and are concealed.
VIDRA_MJPEG_EXPORT bool frameSizePlausible(const FrameHeader& header, size_t size);

// Which decoder a call uses.
enum class Decoder : uint8_t {
  kAuto = 0,  // as decompressMJPEG(): TurboJPEG when forced or without SSSE3/SSE4.1, else own
  kOwn,       // the library's own decoder on any processor (scalar forms where SIMD is missing)
  kTurbo,     // the TurboJPEG path
};

struct DecodeOptions {
  Decoder decoder = Decoder::kAuto;
  // Put the default Huffman tables in front of the frame on the TurboJPEG path, as many MJPEG
  // cameras need; the own decoder finds out by itself. (decompressMJPEG's `insert_dht`.)
  bool insert_dht = true;
  // When the own decoder refuses a frame as unsupported (its process, sampling layout or
  // component count: progressive, 12-bit, grey, FFmpeg's 4:2:2, ...), decode it on the
  // TurboJPEG path instead. Damage never triggers this: a damaged frame is concealed, and one
  // with too few good MCUs stays failed.
  bool fallback = false;
  uint32_t reserved[4] = {};  // room for later options; leave zero
};

enum class FrameStatus : uint8_t {
  kClean = 0,  // decoded without damage
  kConcealed,  // decoded; damaged MCUs were concealed and more than 80% of all decoded
  kFailed,     // the planes were written, concealment included, but 80% or fewer MCUs decoded
  kRefused,    // nothing was written; `reason` says why
};

// Which decoder produced the planes.
enum class DecodePath : uint8_t { kNone = 0, kOwn, kTurbo, kTurboFallback };

enum class RefusalReason : uint8_t {
  kNone = 0,
  kInvalidArgument,         // a null pointer, an empty frame, a bad size or stride
  kSizeMismatch,            // the frame's size isn't the requested width x height
  kNotJPEG,                 // no SOI marker at the start
  kUnsupportedProcess,      // progressive, arithmetic, 12-bit, lossless, or another marker
  kUnsupportedLayout,       // sampling layout or component count (grey on the own decoder)
  kUnsupportedColourSpace,  // neither YCbCr nor grey: RGB, CMYK, YCCK
  kBadHeader,               // a malformed marker segment, Huffman or quantisation table
  kTruncated,               // the data ends before the scan
  kTooLarge,                // the frame is too large for its data or for the decoder
  kTurboError,              // TurboJPEG failed to decode the frame
  kOutOfMemory,             // C interface only; C++ callers get std::bad_alloc instead
};

// The decoder that Decoder::kAuto (and decompressMJPEG()) picks now: kTurbo when
// setForceJPEGTurboDecoder(true) is in force or the processor lacks SSSE3/SSE4.1 (or
// VIDRA_CPU_MASK hides them), else kOwn.
VIDRA_MJPEG_EXPORT Decoder automaticDecoder();

// The vector forms that the own decoder runs on this processor: "AVX2", "SSE4.1", "NEON", or
// "none" (scalar forms), as the CPU probe and VIDRA_CPU_MASK allow.
VIDRA_MJPEG_EXPORT const char* vectorLevel();

// One short English text for `reason`, e.g. "truncated before the scan".
VIDRA_MJPEG_EXPORT const char* refusalReasonText(RefusalReason reason);

struct FrameReport {
  FrameStatus status = FrameStatus::kRefused;
  DecodePath path = DecodePath::kNone;
  RefusalReason reason = RefusalReason::kNone;  // kNone unless the frame was refused
  FrameHeader header;                           // as read from the frame
  int32_t total_mcus = 0;                       // own decoder only; 0 on the TurboJPEG path
  int32_t valid_mcus = 0;                       // MCUs that decoded cleanly (own decoder)
  int32_t reserved[4] = {};                     // room for later fields
};

// Decodes `data` into the planes as decompressMJPEG() does and fills `report`. Returns true for
// a clean or concealed frame. With the default options (kAuto, no fallback) the result and the
// planes equal decompressMJPEG()'s for every frame, except that frames that are neither YCbCr
// nor grey are refused (kUnsupportedColourSpace) on both paths instead of being decoded with
// wrong colours. Bad arguments are refused with kInvalidArgument, planes untouched: a null or
// empty frame, a size outside 1..65535, a null plane where rows are due (chroma of a frame one
// pixel wide included), a stride shorter than its row. As with decompressMJPEG(), an exhausted
// heap throws std::bad_alloc. A null `report` makes the call return false at once. The decoders log
// as they do under decompressMJPEG(); a frame that the header already shows to be unsupported goes
// to the fallback without the own decoder's refusal being logged.
VIDRA_MJPEG_EXPORT bool decodeFrame(const uint8_t* data, size_t size, int width, int height,
                                    uint8_t* y, int y_stride, uint8_t* u, int u_stride, uint8_t* v,
                                    int v_stride, const DecodeOptions& options,
                                    FrameReport* report);

// ---- Plane utilities ------------------------------------------------------------------------
// `width` and `height` are the size of the result. Source and destination must not overlap.

// Copies `width` x `height` samples. With equal strides the whole `src_stride` x `height`
// block is copied, the bytes between `width` and the stride included.
VIDRA_MJPEG_EXPORT void adaptStrides(const uint8_t* src, int src_stride, uint8_t* dst,
                                     int dst_stride, int width, int height);

// Halves a plane in both directions: each result is (a + b + c + d + 1) >> 2 of a 2x2 box.
VIDRA_MJPEG_EXPORT void resample444To420(const uint8_t* src, int src_stride, uint8_t* dst,
                                         int dst_stride, int width, int height);

// Halves a plane vertically: each result is (a + b + 1) >> 1 of two rows.
VIDRA_MJPEG_EXPORT void resample422To420(const uint8_t* src, int src_stride, uint8_t* dst,
                                         int dst_stride, int width, int height);

// Fills `w` (at most 16) x `h` samples at `dest` by blending, row by row, from the row `top`
// towards the row `bottom` in steps of 256 / (h - 1) 256ths.
VIDRA_MJPEG_EXPORT void interpolateRange(uint8_t* dest, int w, int h, int stride,
                                         const uint8_t* top, const uint8_t* bottom);

}  // namespace jpeg
}  // namespace vidra
