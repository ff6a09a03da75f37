#include "demo/webcam_encoder.h"

#include <csetjmp>
#include <cstdlib>
#include <string>

// jpeglib.h needs FILE and size_t declared before it.
// clang-format off
#include <cstdio>
#include <jpeglib.h>
// clang-format on

#include "cli/cli.h"
#include "input/jpeg_headers.h"

namespace vidra {
namespace tool {

namespace {

// libjpeg's default error handler exits the process; this one jumps back instead.
struct ErrorManager {
  jpeg_error_mgr base;
  jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

void onError(j_common_ptr cinfo) {
  auto* errors = reinterpret_cast<ErrorManager*>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, errors->message);
  longjmp(errors->jump, 1);
}

// The libjpeg calls, in a function of their own so that nothing but plain data lives across
// setjmp.
bool compress(const RGBImage& picture, const WebcamEncoding& encoding, unsigned char** buffer,
              unsigned long* size, ErrorManager* errors) {
  jpeg_compress_struct cinfo;
  cinfo.err = jpeg_std_error(&errors->base);
  errors->base.error_exit = onError;
  if (setjmp(errors->jump)) {
    jpeg_destroy_compress(&cinfo);
    return false;
  }
  jpeg_create_compress(&cinfo);
  jpeg_mem_dest(&cinfo, buffer, size);
  cinfo.image_width = static_cast<JDIMENSION>(picture.width);
  cinfo.image_height = static_cast<JDIMENSION>(picture.height);
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, encoding.quality, TRUE);
  cinfo.optimize_coding = FALSE;  // keep the Annex K Huffman tables
  cinfo.write_JFIF_header = FALSE;
  cinfo.comp_info[0].h_samp_factor = 2;
  cinfo.comp_info[0].v_samp_factor = 1;
  for (int c = 1; c < 3; ++c) {
    cinfo.comp_info[c].h_samp_factor = 1;
    cinfo.comp_info[c].v_samp_factor = 1;
  }
  cinfo.restart_in_rows = encoding.restart_rows;
  jpeg_start_compress(&cinfo, TRUE);
  // The APP0 segment that MJPEG cameras put in front of the tables.
  static const JOCTET kAVI1[] = {'A', 'V', 'I', '1', 0, 0, 0, 0, 0, 0, 0, 0};
  jpeg_write_marker(&cinfo, JPEG_APP0, kAVI1, sizeof(kAVI1));
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(
        &picture.pixels[static_cast<size_t>(cinfo.next_scanline) * picture.width * 3]);
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  return true;
}

}  // namespace

std::vector<uint8_t> encodeWebcamFrame(const RGBImage& picture, const WebcamEncoding& encoding) {
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  ErrorManager errors{};
  const bool ok = compress(picture, encoding, &buffer, &size, &errors);
  std::vector<uint8_t> frame;
  if (ok) frame.assign(buffer, buffer + size);
  std::free(buffer);
  if (!ok) throw ToolError(kExitUsage, std::string("JPEG encoding failed: ") + errors.message);
  return encoding.strip_dht ? stripDHTSegments(frame) : frame;
}

}  // namespace tool
}  // namespace vidra
