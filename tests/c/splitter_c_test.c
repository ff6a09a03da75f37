/* The splitter's C interface, compiled as C11: a stream of two frames, junk and a frame cut
 * short, cut by vidra_mjpeg_splitter_find() and by a splitter fed one byte at a time, as the
 * C++ splitter that it wraps cuts it.
 * Prints "N passed, N failed" and exits 1 on a failure. */
#include "vidra/splitter_c.h"

#include <stdio.h>
#include <string.h>

#include "check.h"

/* SOI, a one-component SOS header, two bytes of entropy data, EOI: 16 bytes. */
#define FRAME 0xFF, 0xD8, 0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00, 0x12, 0x34
static const uint8_t kStream[] = {0xAB, 0xCD, FRAME, 0xFF, 0xD9, 0x00, FRAME, 0xFF, 0xD9, FRAME};
/* offset, size, junk before, cut short of each frame */
static const uint64_t kFrames[3][4] = {{2, 16, 2, 0}, {19, 16, 1, 0}, {35, 14, 0, 1}};

int main(void) {
  vidra_mjpeg_split_frame f;
  /* Two bytes may begin an SOI until the input ends; a null frame finds nothing. */
  CHECK(vidra_mjpeg_splitter_find(kStream, 2, 0, &f) == VIDRA_MJPEG_SPLIT_NO_FRAME &&
        f.junk_before == 0);
  CHECK(vidra_mjpeg_splitter_find(kStream, 2, 1, &f) == VIDRA_MJPEG_SPLIT_NO_FRAME &&
        f.junk_before == 2);
  CHECK(vidra_mjpeg_splitter_find(NULL, 0, 1, NULL) == VIDRA_MJPEG_SPLIT_NO_FRAME);
  CHECK(vidra_mjpeg_splitter_find(kStream, 10, 0, &f) == VIDRA_MJPEG_SPLIT_NEED_MORE);
  CHECK(f.offset == 2);
  /* Frame by frame, each call on what is left behind the last frame. */
  size_t at = 0;
  for (int i = 0; i < 3; ++i) {
    CHECK(vidra_mjpeg_splitter_find(kStream + at, sizeof(kStream) - at, 1, &f) ==
          VIDRA_MJPEG_SPLIT_FRAME);
    CHECK(at + f.offset == kFrames[i][0] && f.size == kFrames[i][1]);
    CHECK(f.junk_before == kFrames[i][2] && (uint64_t)f.cut_short == kFrames[i][3]);
    at += f.offset + f.size;
  }
  CHECK(at == sizeof(kStream));

  vidra_mjpeg_splitter* splitter = vidra_mjpeg_splitter_new(0);
  CHECK(splitter != NULL);
  int count = 0;
  const uint8_t* data = NULL;
  for (size_t i = 0; splitter != NULL && i <= sizeof(kStream); ++i) {
    if (i < sizeof(kStream)) CHECK(vidra_mjpeg_splitter_feed(splitter, kStream + i, 1) == 1);
    if (i == sizeof(kStream)) vidra_mjpeg_splitter_finish(splitter);
    while (vidra_mjpeg_splitter_next(splitter, &data, &f) && count < 3) {
      CHECK(f.offset == kFrames[count][0] && f.size == kFrames[count][1]);
      CHECK(memcmp(data, kStream + f.offset, (size_t)f.size) == 0);
      ++count;
    }
  }
  CHECK(count == 3);
  CHECK(vidra_mjpeg_splitter_total_junk(splitter) == 3);
  CHECK(vidra_mjpeg_splitter_pending_junk(splitter) == 0);
  vidra_mjpeg_splitter_free(splitter);
  /* Junk alone: no frame, and all of it pending once the input ends. */
  splitter = vidra_mjpeg_splitter_new(0);
  CHECK(vidra_mjpeg_splitter_feed(splitter, kStream, 2) == 1);
  vidra_mjpeg_splitter_finish(splitter);
  CHECK(!vidra_mjpeg_splitter_next(splitter, &data, &f));
  CHECK(vidra_mjpeg_splitter_pending_junk(splitter) == 2);
  vidra_mjpeg_splitter_free(splitter);
  printf("%d passed, %d failed\n", passed, failed);
  return failed ? 1 : 0;
}
