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
// plane with its own stride in bytes. Frames in 4:2:0, 4:2:2 and 4:4:4 arrive as 4:2:0; other
// three-component layouts (4:4:0, 4:1:1) arrive as their luma with neutral (0x80) chroma.
// Grey (one-component) frames are refused by the library's own decoder; only the TurboJPEG path
// (a processor without SSSE3/SSE4.1, or setForceJPEGTurboDecoder(true)) decodes them, as luma
// with neutral chroma.
//
// `insert_dht`: the frame may lack Huffman tables, as many MJPEG cameras send them; the
// TurboJPEG path then needs the default tables put in front. The library's own decoder finds
// this out by itself.
//
// Returns false when the frame was refused (its header doesn't match `width` x `height`, it
// isn't baseline JPEG, ...) or when too few of its MCUs survived damage: a damaged frame is
// concealed and still written to the planes, and it counts as good only when strictly more
// than 80% of its MCUs decoded cleanly. Reasons are logged on channel "mjpeg" at level 2.
VIDRA_MJPEG_EXPORT bool decompressMJPEG(const uint8_t* data, size_t size, int width, int height,
                                        bool insert_dht, uint8_t* y, int y_stride, uint8_t* u,
                                        int u_stride, uint8_t* v, int v_stride);

// Reads the frame's dimensions from its header (through TurboJPEG). Returns false and logs
// the reason when the header can't be read.
VIDRA_MJPEG_EXPORT bool getJPEGImageSize(const uint8_t* data, size_t size, int* width, int* height);

// true: decode every following frame with TurboJPEG instead of the library's own decoder.
VIDRA_MJPEG_EXPORT void setForceJPEGTurboDecoder(bool force);

// The flag behind setForceJPEGTurboDecoder(), read once per decompressMJPEG() call.
VIDRA_MJPEG_EXPORT extern bool g_force_use_jt_decoder;

// The default Huffman tables of ITU-T T.81 Annex K.3 as one DHT segment, FF C4 marker included.
VIDRA_MJPEG_EXPORT extern const uint8_t kMJPGDHTSeg[420];

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
