/* vidra-mjpeg's stream splitter for C (C11) and other languages' foreign-function interfaces:
 * cuts a raw MJPEG stream (JPEG frames back to back) into frames, as vidra/splitter.h describes
 * (SOI..EOI, header segments stepped over by their lengths, junk skipped and counted, a frame
 * without EOI still a frame, "cut short").
 *
 * A parser over a growing buffer (GStreamer's parse()) asks for the first frame:
 *
 *   vidra_mjpeg_split_frame f;
 *   switch (vidra_mjpeg_splitter_find(data, size, at_eos, &f)) {
 *     case VIDRA_MJPEG_SPLIT_FRAME:     skip f.offset bytes, then the frame is f.size bytes
 *     case VIDRA_MJPEG_SPLIT_NEED_MORE: skip f.offset bytes (junk), wait for more data
 *     case VIDRA_MJPEG_SPLIT_NO_FRAME:  skip f.junk_before bytes, wait for more data
 *   }
 *
 * All frames of one buffer: call vidra_mjpeg_splitter_find() on what is left behind the last
 * frame with end_of_input 1, adding the offsets up. Bytes that arrive in pieces:
 *
 *   vidra_mjpeg_splitter* s = vidra_mjpeg_splitter_new(0);
 *   vidra_mjpeg_splitter_feed(s, chunk, n);          (as often as chunks come; then, at the end,
 *   vidra_mjpeg_splitter_finish(s);                   once)
 *   const uint8_t* frame; vidra_mjpeg_split_frame f;
 *   while (vidra_mjpeg_splitter_next(s, &frame, &f)) use(frame, f.size, f.offset);
 *   vidra_mjpeg_splitter_free(s);
 *
 * Stateless functions may be called from any thread; a splitter handle from one at a time.
 */
#ifndef VIDRA_SPLITTER_C_H_
#define VIDRA_SPLITTER_C_H_

#include <stddef.h>
#include <stdint.h>

#if defined(VIDRA_MJPEG_BUILDING)
#define VIDRA_SPLITTER_C_EXPORT __attribute__((visibility("default")))
#else
#define VIDRA_SPLITTER_C_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* vidra_mjpeg_splitter_find() results. */
enum {
  VIDRA_MJPEG_SPLIT_FRAME = 0,     /* a frame whose cut is final */
  VIDRA_MJPEG_SPLIT_NEED_MORE = 1, /* an SOI at `offset`, but more data may cut it elsewhere */
  VIDRA_MJPEG_SPLIT_NO_FRAME = 2   /* no SOI; `junk_before` bytes are junk for certain */
};

typedef struct vidra_mjpeg_split_frame {
  uint64_t offset;      /* of its SOI: from the start of the data (find), of the input (next) */
  uint64_t size;        /* bytes, EOI included when there is one */
  uint64_t junk_before; /* bytes skipped since the previous frame (or the start) */
  int32_t cut_short;    /* 1: no EOI (the data ended, the next frame began, or the frame limit) */
  int32_t needs_more;   /* find: 1 when more data behind could cut this frame elsewhere */
  int32_t reserved[4];  /* zeroed; later versions may fill them */
} vidra_mjpeg_split_frame;

/* The first frame of `data` (`size` bytes; `end_of_input` 1 when no more will come, and then a
 * frame that runs to the end is a frame, cut short). Returns VIDRA_MJPEG_SPLIT_*. `frame` is
 * zeroed first; NULL returns VIDRA_MJPEG_SPLIT_NO_FRAME. To bound a frame that never ends, call
 * it with `size` = the limit and `end_of_input` 1. */
VIDRA_SPLITTER_C_EXPORT int vidra_mjpeg_splitter_find(const uint8_t* data, size_t size,
                                                      int end_of_input,
                                                      vidra_mjpeg_split_frame* frame);

/* An incremental splitter: keeps the frame being gathered; work is linear in the bytes fed. */
typedef struct vidra_mjpeg_splitter vidra_mjpeg_splitter;

/* `frame_limit`: a frame still open after this many bytes (and 64 KiB more behind them) is cut
 * there, cut short; 0 takes the default, 64 MiB. NULL when out of memory. */
VIDRA_SPLITTER_C_EXPORT vidra_mjpeg_splitter* vidra_mjpeg_splitter_new(uint64_t frame_limit);
VIDRA_SPLITTER_C_EXPORT void vidra_mjpeg_splitter_free(vidra_mjpeg_splitter* splitter);

/* Appends `size` bytes of input. 1 on success, 0 when out of memory (nothing appended). */
VIDRA_SPLITTER_C_EXPORT int vidra_mjpeg_splitter_feed(vidra_mjpeg_splitter* splitter,
                                                      const uint8_t* data, size_t size);

/* The input has ended: the last frame comes out of _next(), cut short if it has no end. */
VIDRA_SPLITTER_C_EXPORT void vidra_mjpeg_splitter_finish(vidra_mjpeg_splitter* splitter);

/* 1 with the next frame whose cut is final: `*data` points at its `frame->size` bytes, valid
 * until the next _feed() or _next(); `frame->offset` counts from the first byte fed. 0 when more
 * input is needed or, after _finish(), when no frame is left. */
VIDRA_SPLITTER_C_EXPORT int vidra_mjpeg_splitter_next(vidra_mjpeg_splitter* splitter,
                                                      const uint8_t** data,
                                                      vidra_mjpeg_split_frame* frame);

/* Junk bytes skipped since the last frame _next() handed out (after _finish() and a 0 from
 * _next(): the junk behind the last frame), and in all. */
VIDRA_SPLITTER_C_EXPORT uint64_t
vidra_mjpeg_splitter_pending_junk(const vidra_mjpeg_splitter* splitter);
VIDRA_SPLITTER_C_EXPORT uint64_t
vidra_mjpeg_splitter_total_junk(const vidra_mjpeg_splitter* splitter);

#ifdef __cplusplus
}
#endif

#endif /* VIDRA_SPLITTER_C_H_ */
