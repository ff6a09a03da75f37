/* The C interface, compiled as C11: reads a frame's header, decodes it with a report, and
 * checks the refusals, the names and the log sink.
 *
 *   c_api_test FRAME.jpg   a 4:2:2 corpus frame; without an argument only the framed checks run
 *
 * Prints "N passed, N failed" and exits 1 on a failure, 77 when the frame is missing. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "vidra/mjpeg_c.h"

static void count_lines(void* user, int32_t level, const char* channel, const char* file,
                        int32_t line, const char* text) {
  (void)level, (void)channel, (void)file, (void)line, (void)text;
  ++*(int*)user;
}

static uint8_t* read_file(const char* path, size_t* size) {
  FILE* f = fopen(path, "rb");
  if (f == NULL) return NULL;
  fseek(f, 0, SEEK_END);
  *size = (size_t)ftell(f);
  rewind(f);
  uint8_t* data = malloc(*size + 1);
  if (data != NULL) *size = fread(data, 1, *size, f);
  fclose(f);
  return data;
}

static void check_frame(const uint8_t* frame, size_t size) {
  vidra_mjpeg_header header;
  CHECK(vidra_mjpeg_read_header(frame, size, &header) == 1);
  CHECK(header.components == 3 && header.colour_space == VIDRA_MJPEG_COLOUR_YCBCR);

  const int32_t w = header.width, h = header.height;
  const size_t bytes = vidra_mjpeg_i420_size(w, h);
  uint8_t* picture = malloc(bytes);
  uint8_t* y = picture;
  uint8_t* u = y + (size_t)w * h;
  uint8_t* v = u + (size_t)(w / 2) * (h / 2);

  vidra_mjpeg_options options;
  vidra_mjpeg_options_init(&options);
  CHECK(options.decoder == VIDRA_MJPEG_DECODER_AUTO && options.insert_dht == 1 &&
        options.fallback == 0);
  /* The report's fields come across (the C++ suite checks what they say), also with NULL
   * options. */
  vidra_mjpeg_report report;
  CHECK(vidra_mjpeg_decode(frame, size, w, h, y, w, u, w / 2, v, w / 2, &options, &report) == 1);
  CHECK(report.status == VIDRA_MJPEG_STATUS_CLEAN && report.header.width == w);
  CHECK(report.path != VIDRA_MJPEG_PATH_OWN || report.valid_mcus == report.total_mcus);
  CHECK(vidra_mjpeg_decode(frame, size, w, h, y, w, u, w / 2, v, w / 2, NULL, &report) == 1);

  /* A wrong size is refused with the planes untouched; its log lines go to the sink, and none
   * once the channel is silenced. */
  int lines = 0;
  vidra_mjpeg_set_log_sink(count_lines, &lines);
  memset(picture, 0x5A, bytes);
  options.decoder = VIDRA_MJPEG_DECODER_OWN;
  CHECK(!vidra_mjpeg_decode(frame, size, w, h - 2, y, w, u, w / 2, v, w / 2, &options, &report));
  CHECK(report.reason == VIDRA_MJPEG_REASON_SIZE_MISMATCH);
  CHECK(picture[0] == 0x5A && picture[bytes - 1] == 0x5A);
  CHECK(lines > 0);
  const int lines_before = lines;
  vidra_mjpeg_set_log_level("mjpeg", 0);
  CHECK(!vidra_mjpeg_decode(frame, size, w, h - 2, y, w, u, w / 2, v, w / 2, &options, &report));
  CHECK(lines == lines_before);
  vidra_mjpeg_set_log_level("mjpeg", 2);
  vidra_mjpeg_set_log_sink(NULL, NULL);
  free(picture);
}

int main(int argc, char** argv) {
  CHECK(strcmp(vidra_mjpeg_reason_text(99), "unknown reason") == 0);

  /* Bad arguments: refused with a reason, never a crash. */
  vidra_mjpeg_report report;
  uint8_t plane[64];
  const uint8_t junk[] = {0x12, 0x34};
  CHECK(!vidra_mjpeg_decode(NULL, 0, 8, 8, plane, 8, plane, 4, plane, 4, NULL, &report));
  CHECK(report.reason == VIDRA_MJPEG_REASON_INVALID_ARGUMENT);
  CHECK(!vidra_mjpeg_decode(junk, sizeof junk, 8, 8, plane, 8, plane, 4, plane, 4, NULL, NULL));
  vidra_mjpeg_options options;
  vidra_mjpeg_options_init(&options);
  options.decoder = 7;
  CHECK(!vidra_mjpeg_decode(junk, sizeof junk, 8, 8, plane, 8, plane, 4, plane, 4, &options,
                            &report));
  CHECK(report.reason == VIDRA_MJPEG_REASON_INVALID_ARGUMENT);
  CHECK(!vidra_mjpeg_decode(junk, sizeof junk, 8, 8, plane, 8, plane, 4, plane, 4, NULL, &report));
  CHECK(report.reason == VIDRA_MJPEG_REASON_NOT_JPEG);
  vidra_mjpeg_header header;
  CHECK(vidra_mjpeg_read_header(junk, sizeof junk, &header) == 0 && header.width == 0);

  int skipped = 0;
  if (argc > 1) {
    size_t size = 0;
    uint8_t* frame = read_file(argv[1], &size);
    if (frame == NULL) {
      printf("%s: not found, frame checks skipped\n", argv[1]);
      skipped = 1;
    } else {
      check_frame(frame, size);
      free(frame);
    }
  }
  printf("%d passed, %d failed\n", passed, failed);
  /* 77: skipped, for CTest's SKIP_RETURN_CODE. */
  return failed != 0 ? 1 : skipped ? 77 : 0;
}
