#include "mjpeg.h"

#include <turbojpeg.h>

#include <climits>

#include "jpeg.h"
#include "jpeg_turbo.h"
#include "vidra/log.h"

namespace vidra {
namespace jpeg {

// Constructed while the library loads, before any entry point can run.
const CPUInfo g_cpu_info_;

// A plain byte written and read without a lock; relaxed atomic accesses keep concurrent
// toggling well-defined without costing anything.
bool g_force_use_jt_decoder = false;

void setForceJPEGTurboDecoder(bool force) {
  __atomic_store_n(&g_force_use_jt_decoder, force, __ATOMIC_RELAXED);
}

bool decompressMJPEG(const uint8_t* data, size_t size, int width, int height, bool insert_dht,
                     uint8_t* y, int y_stride, uint8_t* u, int u_stride, uint8_t* v, int v_stride) {
  // Only the low 32 bits of `size` reach either decoder.
  const uint32_t size32 = static_cast<uint32_t>(size);
  // The force flag, read once, then the processor (see automaticDecoder()).
  if (automaticDecoder() == Decoder::kOwn) {
    SimpleJPEGDecoder decoder;
    return decoder.decompress(data, size32, width, height, insert_dht, y, y_stride, u, u_stride, v,
                              v_stride);
  }
  JTDecoder decoder;
  return decoder.decompress(data, size32, width, height, insert_dht, y, y_stride, u, u_stride, v,
                            v_stride);
}

bool getJPEGImageSize(const uint8_t* data, size_t size, int* width, int* height) {
  tjhandle handle = tjInitDecompress();
  // `size` goes through a signed 32-bit int. Where that turns negative (a size with bit 31 of
  // its low word set), the caller has at least 2^31 bytes, so INT_MAX of them is a safe bound.
  int length = static_cast<int>(static_cast<uint32_t>(size));
  if (length < 0) length = INT_MAX;
  // TurboJPEG answers 0 for a stream that ends inside its header tables ("Premature end of
  // JPEG file", a mere warning) without writing the dimensions. Start them at 0 so that the
  // caller never reads an unset value; a 0x0 size is refused by every decode.
  if (width != nullptr) *width = 0;
  if (height != nullptr) *height = 0;
  int subsampling = 0;
  const int result =
      tjDecompressHeader2(handle, const_cast<uint8_t*>(data), static_cast<unsigned long>(length),
                          width, height, &subsampling);
  if (result != 0) {
    VIDRA_LOG(2, "mjpeg") << "Error decoding (M)JPEG header: " << tjGetErrorStr();
  }
  tjDestroy(handle);
  return result == 0;
}

}  // namespace jpeg
}  // namespace vidra
