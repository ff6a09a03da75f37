// readFrameHeader() and the header walk behind the frame report.

#include "frame_header.h"

#include <cstring>

namespace vidra {
namespace jpeg {
namespace {

bool isFrameMarker(int marker) {
  // SOF0..SOF15 less DHT (C4), JPG (C8) and DAC (CC).
  return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

// The colour space that libjpeg would assume for the frame.
ColourSpace colourSpaceOf(const HeaderScan& scan) {
  const FrameHeader& h = scan.header;
  switch (h.components) {
    case 1:
      return ColourSpace::kGrey;
    case 3: {
      if (scan.jfif) return ColourSpace::kYCbCr;
      if (scan.adobe_transform == 0) return ColourSpace::kRGB;
      if (scan.adobe_transform > 0) return ColourSpace::kYCbCr;
      const uint8_t* id = h.component_ids;
      if (id[0] == 'R' && id[1] == 'G' && id[2] == 'B') return ColourSpace::kRGB;
      return ColourSpace::kYCbCr;
    }
    case 4:  // libjpeg takes any transform but 0 for YCCK
      return scan.adobe_transform > 0 ? ColourSpace::kYCCK : ColourSpace::kCMYK;
    default:
      return ColourSpace::kUnknown;
  }
}

// The chroma layout from the ratios of luma's factors to those of the two chroma components,
// which must agree with each other.
Subsampling subsamplingOf(const FrameHeader& h) {
  if (h.components == 1) return Subsampling::kGrey;
  if (h.components != 3) return Subsampling::kUnknown;
  const int ch = h.h_factors[1], cv = h.v_factors[1];
  if (ch == 0 || cv == 0 || ch != h.h_factors[2] || cv != h.v_factors[2]) {
    return Subsampling::kUnknown;
  }
  if (h.h_factors[0] % ch != 0 || h.v_factors[0] % cv != 0) return Subsampling::kUnknown;
  const int hr = h.h_factors[0] / ch, vr = h.v_factors[0] / cv;
  if (hr == 1 && vr == 1) return Subsampling::k444;
  if (hr == 2 && vr == 1) return Subsampling::k422;
  if (hr == 2 && vr == 2) return Subsampling::k420;
  if (hr == 1 && vr == 2) return Subsampling::k440;
  if (hr == 4 && vr == 1) return Subsampling::k411;
  return Subsampling::kUnknown;
}

void readFrameSegment(int marker, const uint8_t* p, size_t length, HeaderScan* scan) {
  FrameHeader& h = scan->header;
  if (length < 6) return;
  const int components = p[5];
  if (length < 6 + 3 * static_cast<size_t>(components)) return;
  h.sof_marker = static_cast<uint8_t>(marker);
  h.precision = p[0];
  h.height = (p[1] << 8) | p[2];
  h.width = (p[3] << 8) | p[4];
  h.components = components;
  for (int i = 0; i < components && i < 4; ++i) {
    h.component_ids[i] = p[6 + 3 * i];
    h.h_factors[i] = p[7 + 3 * i] >> 4;
    h.v_factors[i] = p[7 + 3 * i] & 15;
  }
  h.progressive = marker == 0xC2 || marker == 0xC6 || marker == 0xCA || marker == 0xCE;
  h.lossless = marker == 0xC3 || marker == 0xC7 || marker == 0xCB || marker == 0xCF;
  h.arithmetic = marker >= 0xC9;
  scan->frame_header = true;
}

}  // namespace

bool scanFrameHeader(const uint8_t* data, size_t size, HeaderScan* scan) {
  *scan = HeaderScan();
  if (data == nullptr || size < 2 || data[0] != 0xFF || data[1] != 0xD8) return false;
  scan->soi = true;
  size_t pos = 2;
  for (;;) {
    // Junk up to the next FF, then fill bytes.
    while (pos < size && data[pos] != 0xFF) ++pos;
    while (pos < size && data[pos] == 0xFF) ++pos;
    if (pos >= size) {
      scan->truncated = true;
      break;
    }
    const int marker = data[pos++];
    // Stuffed zeros, TEM, a repeated SOI and restart markers stand alone.
    if (marker == 0x00 || marker == 0x01 || marker == 0xD8 || (marker >= 0xD0 && marker <= 0xD7)) {
      continue;
    }
    if (marker == 0xD9) break;  // EOI: a header without a scan
    if (size - pos < 2) {
      scan->truncated = true;
      break;
    }
    const size_t length = (static_cast<size_t>(data[pos]) << 8) | data[pos + 1];
    if (length < 2) break;  // no segment is shorter than its length field
    if (length > size - pos) {
      scan->truncated = true;
      break;
    }
    const uint8_t* payload = data + pos + 2;
    const size_t payload_length = length - 2;
    pos += length;
    if (isFrameMarker(marker)) {
      if (!scan->frame_header) readFrameSegment(marker, payload, payload_length, scan);
    } else if (marker == 0xC4) {
      scan->header.has_dht = true;
    } else if (marker == 0xDD) {
      if (payload_length >= 2) scan->header.restart_interval = (payload[0] << 8) | payload[1];
    } else if (marker == 0xE0) {
      // libjpeg counts a JFIF segment only with its whole 14-byte header.
      if (payload_length >= 14 && std::memcmp(payload, "JFIF", 5) == 0) scan->jfif = true;
    } else if (marker == 0xEE) {
      if (payload_length >= 12 && std::memcmp(payload, "Adobe", 5) == 0) {
        scan->adobe_transform = payload[11];
      }
    } else if (marker == 0xDA) {
      const size_t ns = payload_length >= 1 ? payload[0] : 0;
      if (payload_length >= 1 + 2 * ns + 3) {
        const uint8_t* tail = payload + 1 + 2 * ns;
        scan->spectral_start = tail[0];
        scan->spectral_end = tail[1];
        scan->approximation = tail[2];
      }
      scan->header.has_scan = true;
      break;
    }
  }
  scan->header.colour_space = scan->frame_header ? colourSpaceOf(*scan) : ColourSpace::kUnknown;
  scan->header.subsampling =
      scan->frame_header ? subsamplingOf(scan->header) : Subsampling::kUnknown;
  return scan->frame_header;
}

MarkerLoopStop ownMarkerLoopStop(const uint8_t* data, size_t size) {
  MarkerLoopStop stop;
  if (data == nullptr || size < 2) {
    stop.ended = true;
    return stop;
  }
  size_t pos = 2;  // behind SOI
  for (;;) {
    if (size - pos < 2) {
      stop.ended = true;
      return stop;
    }
    if (data[pos] != 0xFF) {
      stop.junk = true;
      return stop;
    }
    const int marker = data[pos + 1];
    pos += 2;
    if (marker == 0xDA) return stop;
    const bool handled = marker == 0xC0 || marker == 0xC4 || marker == 0xDB || marker == 0xDD ||
                         (marker >= 0xE0 && marker <= 0xEF) || marker == 0xFE;
    if (!handled) {
      stop.marker = marker;
      return stop;
    }
    // Each parser takes exactly its segment, or fails a check of its own.
    if (size - pos < 2) {
      stop.ended = true;
      return stop;
    }
    const size_t length = (static_cast<size_t>(data[pos]) << 8) | data[pos + 1];
    if (length < 2 || length > size - pos) {
      stop.ended = true;
      return stop;
    }
    pos += length;
  }
}

bool ownDecoderRefusesLayout(const HeaderScan& scan) {
  const FrameHeader& h = scan.header;
  if (!scan.frame_header) return false;
  if (h.sof_marker != 0xC0) return true;
  // No components at all is a broken header, which the decoder refuses as such.
  if (h.components == 0) return false;
  if (h.components < 3 || h.components > 4) return true;
  int blocks = 0;
  int slot[4] = {-1, -1, -1, -1};  // frame position of the components with ids 1, 2 and 3
  for (int i = 0; i < h.components; ++i) {
    blocks += h.h_factors[i] * h.v_factors[i];
    const int id = h.component_ids[i];
    if (id >= 16) return true;
    if (id >= 1 && id <= 3) slot[id] = i;
  }
  if (blocks > 10) return true;
  if (slot[1] < 0 || slot[2] < 0 || slot[3] < 0) return true;
  if (h.h_factors[slot[1]] == 0 || h.v_factors[slot[1]] == 0) return true;
  if (h.h_factors[slot[2]] != 1 || h.v_factors[slot[2]] != 1) return true;
  return h.h_factors[slot[3]] != 1;
}

bool frameSizePlausible(const FrameHeader& header, size_t size) {
  constexpr uint64_t kAlwaysPlausiblePixels = uint64_t{1} << 24;
  constexpr uint64_t kPixelsPerByte = 512;
  if (header.width < 0 || header.height < 0) return false;
  const uint64_t pixels =
      static_cast<uint64_t>(header.width) * static_cast<uint64_t>(header.height);
  return pixels <= kAlwaysPlausiblePixels || pixels <= kPixelsPerByte * static_cast<uint64_t>(size);
}

bool readFrameHeader(const uint8_t* data, size_t size, FrameHeader* header) {
  if (header == nullptr) return false;
  HeaderScan scan;
  const bool found = scanFrameHeader(data, size, &scan);
  *header = scan.header;
  return found;
}

}  // namespace jpeg
}  // namespace vidra
