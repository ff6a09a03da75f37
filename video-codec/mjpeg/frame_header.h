// The header reader behind readFrameHeader() and the frame report: a tolerant walk over a
// frame's marker segments up to its first scan, with the facts that the report needs beyond
// the public FrameHeader.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {

struct HeaderScan {
  FrameHeader header;
  bool soi = false;           // the data starts with FF D8
  bool frame_header = false;  // a complete SOFn segment was read
  bool truncated = false;     // the data ends before the scan header is complete
  bool jfif = false;          // an APP0 "JFIF" segment
  int adobe_transform = -1;   // the transform byte of an APP14 "Adobe" segment, -1 without one
  // The first scan's spectral selection and successive approximation, -1 without a scan.
  int spectral_start = -1;
  int spectral_end = -1;
  int approximation = -1;
};

// Walks `data` from SOI to the first SOS (or EOI, or the end of the data): junk and fill bytes
// between segments are skipped as libjpeg skips them, the first SOFn is read, and segments
// whose length runs past the data end the walk as truncated. Returns scan->frame_header.
bool scanFrameHeader(const uint8_t* data, size_t size, HeaderScan* scan);

// Where the own decoder's marker loop stops short of the scan. That loop, unlike the walk
// above, takes segments only back to back (FF, marker, length, payload) and only SOF0, DHT,
// DQT, DRI, APPn and COM among them.
struct MarkerLoopStop {
  int marker = -1;     // the first marker it doesn't handle, or -1
  bool ended = false;  // the data ends where a marker or a segment is due
  bool junk = false;   // a byte other than FF where a marker is due
};
MarkerLoopStop ownMarkerLoopStop(const uint8_t* data, size_t size);

// Whether the library's own decoder refuses the frame for its process or its layout, whatever
// the rest of the frame holds: it decodes baseline frames with components 1, 2 and 3, chroma
// (2 and 3) one sample wide per MCU and component 2 one sample high, and at most ten blocks
// per MCU.
bool ownDecoderRefusesLayout(const HeaderScan& scan);

}  // namespace jpeg
}  // namespace vidra
