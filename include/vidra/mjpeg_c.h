/* vidra-mjpeg for C (C11) and other languages' foreign-function interfaces.
 *
 * The same library as the C++ interface (libvidra_mjpeg.so, `pkg-config vidra-mjpeg`), through
 * plain functions, structs of fixed-width fields and integer constants:
 *
 *   vidra_mjpeg_header header;
 *   if (vidra_mjpeg_read_header(frame, size, &header)) {
 *     int w = header.width, h = header.height;
 *     uint8_t* y = malloc(vidra_mjpeg_i420_size(w, h)); ... u = y + w * h, v = u + (w/2)*(h/2)
 *     vidra_mjpeg_options options;
 *     vidra_mjpeg_options_init(&options);
 *     options.fallback = 1;
 *     vidra_mjpeg_report report;
 *     if (!vidra_mjpeg_decode(frame, size, w, h, y, w, u, w / 2, v, w / 2, &options, &report))
 *       fprintf(stderr, "%s\n", vidra_mjpeg_reason_text(report.reason));
 *   }
 *
 * Planes: each plane is `stride` x `rows` bytes (luma `height` rows, chroma `height` / 2), and
 * the library may write all of those bytes, the gaps between rows included. Don't decode into a
 * sub-rectangle of a larger picture. Chroma planes are `width` / 2 x `height` / 2, rounding
 * down. Every function may be called from any thread; none keeps state between calls.
 */
#ifndef VIDRA_MJPEG_C_H_
#define VIDRA_MJPEG_C_H_

#include <stddef.h>
#include <stdint.h>

#if defined(VIDRA_MJPEG_BUILDING)
#define VIDRA_MJPEG_C_EXPORT __attribute__((visibility("default")))
#else
#define VIDRA_MJPEG_C_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Decoder choice (vidra_mjpeg_options.decoder). */
enum {
  VIDRA_MJPEG_DECODER_AUTO = 0, /* own decoder where SSSE3/SSE4.1 run, unless forced to TurboJPEG */
  VIDRA_MJPEG_DECODER_OWN = 1,  /* the library's own decoder, on any processor */
  VIDRA_MJPEG_DECODER_TURBO = 2 /* the TurboJPEG path */
};

/* vidra_mjpeg_report.status */
enum {
  VIDRA_MJPEG_STATUS_CLEAN = 0,
  VIDRA_MJPEG_STATUS_CONCEALED = 1, /* damaged MCUs concealed, more than 80% decoded */
  VIDRA_MJPEG_STATUS_FAILED = 2,    /* planes written, but 80% or fewer MCUs decoded */
  VIDRA_MJPEG_STATUS_REFUSED = 3    /* planes untouched; see `reason` */
};

/* vidra_mjpeg_report.path */
enum {
  VIDRA_MJPEG_PATH_NONE = 0,
  VIDRA_MJPEG_PATH_OWN = 1,
  VIDRA_MJPEG_PATH_TURBO = 2,
  VIDRA_MJPEG_PATH_TURBO_FALLBACK = 3 /* TurboJPEG after the own decoder refused the layout */
};

/* vidra_mjpeg_report.reason */
enum {
  VIDRA_MJPEG_REASON_NONE = 0,
  VIDRA_MJPEG_REASON_INVALID_ARGUMENT = 1,
  VIDRA_MJPEG_REASON_SIZE_MISMATCH = 2,
  VIDRA_MJPEG_REASON_NOT_JPEG = 3,
  VIDRA_MJPEG_REASON_UNSUPPORTED_PROCESS = 4,
  VIDRA_MJPEG_REASON_UNSUPPORTED_LAYOUT = 5,
  VIDRA_MJPEG_REASON_UNSUPPORTED_COLOUR_SPACE = 6,
  VIDRA_MJPEG_REASON_BAD_HEADER = 7,
  VIDRA_MJPEG_REASON_TRUNCATED = 8,
  VIDRA_MJPEG_REASON_TOO_LARGE = 9,
  VIDRA_MJPEG_REASON_TURBO_ERROR = 10,
  VIDRA_MJPEG_REASON_OUT_OF_MEMORY = 11
};

/* vidra_mjpeg_header.colour_space */
enum {
  VIDRA_MJPEG_COLOUR_UNKNOWN = 0,
  VIDRA_MJPEG_COLOUR_GREY = 1,
  VIDRA_MJPEG_COLOUR_YCBCR = 2,
  VIDRA_MJPEG_COLOUR_RGB = 3,
  VIDRA_MJPEG_COLOUR_CMYK = 4,
  VIDRA_MJPEG_COLOUR_YCCK = 5
};

/* vidra_mjpeg_header.subsampling */
enum {
  VIDRA_MJPEG_SUBSAMPLING_UNKNOWN = 0,
  VIDRA_MJPEG_SUBSAMPLING_444 = 1,
  VIDRA_MJPEG_SUBSAMPLING_422 = 2,
  VIDRA_MJPEG_SUBSAMPLING_420 = 3,
  VIDRA_MJPEG_SUBSAMPLING_440 = 4,
  VIDRA_MJPEG_SUBSAMPLING_411 = 5,
  VIDRA_MJPEG_SUBSAMPLING_GREY = 6
};

/* What a frame's marker segments say, up to its first scan. */
typedef struct vidra_mjpeg_header {
  int32_t width;
  int32_t height;
  int32_t precision;  /* bits per sample */
  int32_t components; /* as declared; the arrays hold the first four */
  uint8_t component_ids[4];
  uint8_t h_factors[4];
  uint8_t v_factors[4];
  int32_t sof_marker; /* 0xC0 baseline, 0xC1 extended, 0xC2 progressive, ... */
  int32_t progressive;
  int32_t arithmetic;
  int32_t lossless;
  int32_t colour_space; /* VIDRA_MJPEG_COLOUR_* */
  int32_t subsampling;  /* VIDRA_MJPEG_SUBSAMPLING_* */
  int32_t restart_interval;
  int32_t has_dht;  /* a DHT segment comes before the first scan */
  int32_t has_scan; /* the header reaches a scan before the data ends */
  int32_t reserved[4];
} vidra_mjpeg_header;

typedef struct vidra_mjpeg_options {
  int32_t decoder;    /* VIDRA_MJPEG_DECODER_*; default AUTO */
  int32_t insert_dht; /* default 1: default Huffman tables for frames without them (TurboJPEG) */
  int32_t fallback;   /* default 0: TurboJPEG decodes what the own decoder refuses as unsupported */
  int32_t reserved[5]; /* zeroed by vidra_mjpeg_options_init(); leave them zero */
} vidra_mjpeg_options;

typedef struct vidra_mjpeg_report {
  int32_t status;     /* VIDRA_MJPEG_STATUS_* */
  int32_t path;       /* VIDRA_MJPEG_PATH_* */
  int32_t reason;     /* VIDRA_MJPEG_REASON_*, NONE unless refused */
  int32_t total_mcus; /* own decoder only */
  int32_t valid_mcus;
  vidra_mjpeg_header header;
  int32_t reserved[4];
} vidra_mjpeg_report;

/* The library's version, "MAJOR.MINOR.PATCH". */
VIDRA_MJPEG_C_EXPORT const char* vidra_mjpeg_version(void);

/* Bytes of an I420 picture of `width` x `height` with packed planes (chroma rounding down);
 * 0 for sizes outside 1..65535. */
VIDRA_MJPEG_C_EXPORT size_t vidra_mjpeg_i420_size(int32_t width, int32_t height);

/* Sets the defaults: AUTO, insert_dht 1, fallback 0, reserved fields 0. Always start from it:
 * later versions may give meaning to reserved fields. */
VIDRA_MJPEG_C_EXPORT void vidra_mjpeg_options_init(vidra_mjpeg_options* options);

/* 1 when a frame header was read; `header` is zeroed first and filled as far as the data goes. */
VIDRA_MJPEG_C_EXPORT int vidra_mjpeg_read_header(const uint8_t* data, size_t size,
                                                 vidra_mjpeg_header* header);

/* 1 when `size` bytes of frame can carry a picture of the header's size (see
 * vidra::jpeg::frameSizePlausible): ask it before allocating planes for a header's size. */
VIDRA_MJPEG_C_EXPORT int vidra_mjpeg_frame_size_plausible(const vidra_mjpeg_header* header,
                                                          size_t size);

/* Decodes one frame into the planes; 1 for a clean or concealed frame, else 0. `options` may be
 * NULL (defaults). A NULL `report` refuses the call (0, nothing written). Never throws: an
 * exhausted heap is a refusal with VIDRA_MJPEG_REASON_OUT_OF_MEMORY. */
VIDRA_MJPEG_C_EXPORT int vidra_mjpeg_decode(const uint8_t* data, size_t size, int32_t width,
                                            int32_t height, uint8_t* y, int32_t y_stride,
                                            uint8_t* u, int32_t u_stride, uint8_t* v,
                                            int32_t v_stride, const vidra_mjpeg_options* options,
                                            vidra_mjpeg_report* report);

/* The decoder that VIDRA_MJPEG_DECODER_AUTO picks now: VIDRA_MJPEG_DECODER_TURBO when forced or
 * without SSSE3/SSE4.1, else VIDRA_MJPEG_DECODER_OWN. */
VIDRA_MJPEG_C_EXPORT int32_t vidra_mjpeg_automatic_decoder(void);

/* The own decoder's vector forms here: "AVX2", "SSE4.1", "NEON" or "none". */
VIDRA_MJPEG_C_EXPORT const char* vidra_mjpeg_vector_level(void);

/* A short English text for a VIDRA_MJPEG_REASON_* value; "unknown reason" for others. */
VIDRA_MJPEG_C_EXPORT const char* vidra_mjpeg_reason_text(int32_t reason);

/* A name for a VIDRA_MJPEG_STATUS_* value: "clean", "concealed", "failed", "refused". */
VIDRA_MJPEG_C_EXPORT const char* vidra_mjpeg_status_name(int32_t status);

/* Logging. Messages have a level (1 broken invariant, 2 why a frame failed, 3 unhandled marker,
 * up to 8 for detail) and a channel ("mjpeg" for the decoders). By default levels up to 2 of
 * every channel go to stderr. */
typedef void (*vidra_mjpeg_log_sink)(void* user, int32_t level, const char* channel,
                                     const char* file, int32_t line, const char* text);

/* Enables levels up to `level` on `channel` (NULL: every channel without a level of its own);
 * 0 silences it. */
VIDRA_MJPEG_C_EXPORT void vidra_mjpeg_set_log_level(const char* channel, int32_t level);

/* Sends every emitted line to `sink` (NULL restores stderr). The sink is called on the logging
 * thread with the library's log lock held, one line at a time: it must not log through the
 * library, decode or change the sink itself. */
VIDRA_MJPEG_C_EXPORT void vidra_mjpeg_set_log_sink(vidra_mjpeg_log_sink sink, void* user);

/* As vidra::jpeg::setForceJPEGTurboDecoder(): AUTO then means TurboJPEG. Process-wide. */
VIDRA_MJPEG_C_EXPORT void vidra_mjpeg_set_force_turbo(int32_t force);

#ifdef __cplusplus
}
#endif

#endif /* VIDRA_MJPEG_C_H_ */
