// Reads the marker segments of a JPEG frame up to its first SOS: frame header, quantisation
// tables, restart interval, Huffman tables and APPn tags. Only what the tool reports is kept;
// nothing here decodes entropy data.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vidra {
namespace tool {

struct JPEGComponent {
  int id = 0;
  int h = 0;   // horizontal sampling factor
  int v = 0;   // vertical sampling factor
  int tq = 0;  // quantisation table selector
};

struct JPEGHeaderInfo {
  int sof_marker = -1;  // 0xC0 baseline, 0xC1 extended, 0xC2 progressive, ...; -1: none seen
  int precision = 0;
  int width = 0;
  int height = 0;
  std::vector<JPEGComponent> components;
  int restart_interval = 0;  // MCUs, from the last DRI in front of SOS; 0: none
  bool has_dht = false;
  bool has_sos = false;
  // Quantisation tables by selector, in natural (row-major) order.
  std::array<bool, 4> dqt_present{};
  std::array<int, 4> dqt_precision{};  // 0: 8-bit entries, 1: 16-bit entries
  std::array<std::array<uint16_t, 64>, 4> dqt{};
  std::vector<std::string> app_tags;  // "JFIF", "AVI1", "Exif", ... in stream order
  size_t header_bytes = 0;            // offset of the entropy data behind SOS (0: not reached)
  // Why the walk stopped before SOS; empty when it reached SOS.
  std::string error;

  bool ok() const { return error.empty() && has_sos && sof_marker >= 0; }
};

// Walks the segments of `data` from its SOI to the first SOS. Never reads outside the range;
// a malformed or cut-off header leaves a message in `error`.
JPEGHeaderInfo readJPEGHeader(const uint8_t* data, size_t size);

// "baseline", "extended", "progressive", "lossless", ... for a SOFn marker.
std::string sofName(int sof_marker);

// The IJG (libjpeg) quality whose scaled Annex K table is closest to `table` (natural order,
// luminance). `distance` receives the mean absolute difference per entry; 0 means the table
// is exactly what libjpeg writes for that quality.
int estimateQuality(const std::array<uint16_t, 64>& table, double* distance);

// The luminance table of ITU T.81 Annex K.1, natural order, scaled as libjpeg does for
// `quality` (1..100) with 8-bit entries.
std::array<uint16_t, 64> ijgLuminanceTable(int quality);

// Zigzag position to natural index.
extern const uint8_t kZigzagToNatural[64];

// Removes every DHT segment in front of the first SOS, as MJPEG cameras send their frames
// (the decoder then uses the default tables). A frame whose header can't be walked is returned
// unchanged.
std::vector<uint8_t> stripDHTSegments(const std::vector<uint8_t>& frame);

}  // namespace tool
}  // namespace vidra
