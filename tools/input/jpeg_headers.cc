#include "input/jpeg_headers.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace vidra {
namespace tool {

const uint8_t kZigzagToNatural[64] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
    41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
    30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

namespace {

// ITU T.81 Annex K.1, table K.1, natural order.
constexpr uint16_t kAnnexKLuminance[64] = {
    16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
    14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
    18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
    49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};

uint16_t be16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

std::string hex(int marker) {
  char text[8];
  std::snprintf(text, sizeof(text), "FF%02X", marker & 0xFF);
  return text;
}

std::string at(size_t offset) { return " at byte " + std::to_string(offset); }

bool parseSOF(const uint8_t* p, size_t length, int marker, JPEGHeaderInfo* info) {
  if (length < 6) return false;
  info->sof_marker = marker;
  info->precision = p[0];
  info->height = be16(p + 1);
  info->width = be16(p + 3);
  const int count = p[5];
  if (length < 6 + 3 * static_cast<size_t>(count)) return false;
  info->components.clear();
  for (int i = 0; i < count; ++i) {
    const uint8_t* c = p + 6 + 3 * i;
    info->components.push_back({c[0], c[1] >> 4, c[1] & 15, c[2]});
  }
  return true;
}

bool parseDQT(const uint8_t* p, size_t length, JPEGHeaderInfo* info) {
  size_t pos = 0;
  while (pos < length) {
    const int precision = p[pos] >> 4, id = p[pos] & 15;
    const size_t bytes = precision ? 128 : 64;
    if (precision > 1 || id > 3 || pos + 1 + bytes > length) return false;
    for (int k = 0; k < 64; ++k) {
      const uint8_t* entry = p + pos + 1 + (precision ? 2 * k : k);
      info->dqt[id][kZigzagToNatural[k]] = precision ? be16(entry) : entry[0];
    }
    info->dqt_present[id] = true;
    info->dqt_precision[id] = precision;
    pos += 1 + bytes;
  }
  return true;
}

std::string appTag(int marker, const uint8_t* p, size_t length) {
  std::string tag;
  for (size_t i = 0; i < length && i < 8 && p[i] >= 0x20 && p[i] < 0x7F; ++i) {
    tag.push_back(static_cast<char>(p[i]));
  }
  if (tag.empty()) tag = "APP" + std::to_string(marker - 0xE0);
  return tag;
}

}  // namespace

JPEGHeaderInfo readJPEGHeader(const uint8_t* data, size_t size) {
  JPEGHeaderInfo info;
  if (size < 2 || data[0] != 0xFF || data[1] != 0xD8) {
    info.error = "no SOI marker at the start";
    return info;
  }
  size_t pos = 2;
  while (true) {
    // Fill bytes (0xFF) may stand in front of any marker.
    while (pos + 1 < size && data[pos] == 0xFF && data[pos + 1] == 0xFF) ++pos;
    if (pos + 2 > size) {
      info.error = "the frame ends inside its header" + at(size);
      return info;
    }
    if (data[pos] != 0xFF) {
      info.error = "expected a marker" + at(pos);
      return info;
    }
    const int marker = data[pos + 1];
    if (marker == 0xD8 || marker == 0xD9 || (marker >= 0xD0 && marker <= 0xD7) || marker == 0x01) {
      if (marker == 0xD9) {
        info.error = "EOI before any scan" + at(pos);
        return info;
      }
      if (marker == 0xD8) {
        info.error = "a second SOI inside the header" + at(pos);
        return info;
      }
      pos += 2;  // RSTn and TEM stand alone; harmless here
      continue;
    }
    if (pos + 4 > size) {
      info.error = "the frame ends inside marker " + hex(marker) + at(pos);
      return info;
    }
    const size_t length = be16(data + pos + 2);
    if (length < 2) {
      info.error = "marker " + hex(marker) + " has a length below 2" + at(pos);
      return info;
    }
    if (pos + 2 + length > size) {
      info.error = "the frame ends inside marker " + hex(marker) + at(pos);
      return info;
    }
    const uint8_t* payload = data + pos + 4;
    const size_t payload_size = length - 2;
    bool good = true;
    if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
      good = parseSOF(payload, payload_size, marker, &info);
    } else if (marker == 0xDB) {
      good = parseDQT(payload, payload_size, &info);
    } else if (marker == 0xDD) {
      good = payload_size >= 2;
      if (good) info.restart_interval = be16(payload);
    } else if (marker == 0xC4) {
      info.has_dht = true;
    } else if (marker >= 0xE0 && marker <= 0xEF) {
      info.app_tags.push_back(appTag(marker, payload, payload_size));
    } else if (marker == 0xDA) {
      info.has_sos = true;
      info.header_bytes = pos + 2 + length;
      if (info.sof_marker < 0) info.error = "SOS before any frame header (SOFn)";
      return info;
    }
    if (!good) {
      info.error = "malformed " + hex(marker) + " segment" + at(pos);
      return info;
    }
    pos += 2 + length;
  }
}

std::string sofName(int sof_marker) {
  switch (sof_marker) {
    case 0xC0:
      return "baseline";
    case 0xC1:
      return "extended";
    case 0xC2:
      return "progressive";
    case 0xC3:
      return "lossless";
    case 0xC9:
      return "arithmetic";
    case 0xCA:
      return "arith-progressive";
    case 0xCB:
      return "arith-lossless";
    case -1:
      return "none";
    default:
      return "SOF" + std::to_string(sof_marker - 0xC0);
  }
}

std::array<uint16_t, 64> ijgLuminanceTable(int quality) {
  // libjpeg's jpeg_quality_scaling() and jpeg_add_quant_table() with force_baseline.
  quality = std::min(100, std::max(1, quality));
  const long scale = quality < 50 ? 5000 / quality : 200 - quality * 2;
  std::array<uint16_t, 64> table{};
  for (int i = 0; i < 64; ++i) {
    long value = (kAnnexKLuminance[i] * scale + 50) / 100;
    table[i] = static_cast<uint16_t>(std::min(255L, std::max(1L, value)));
  }
  return table;
}

int estimateQuality(const std::array<uint16_t, 64>& table, double* distance) {
  int best_quality = 1;
  long best = -1;
  for (int quality = 1; quality <= 100; ++quality) {
    const std::array<uint16_t, 64> reference = ijgLuminanceTable(quality);
    long sum = 0;
    for (int i = 0; i < 64; ++i) sum += std::labs(static_cast<long>(table[i]) - reference[i]);
    // On a tie the higher quality wins: at the top end several qualities share entries.
    if (best < 0 || sum <= best) {
      best = sum;
      best_quality = quality;
    }
  }
  if (distance != nullptr) *distance = best / 64.0;
  return best_quality;
}

std::vector<uint8_t> stripDHTSegments(const std::vector<uint8_t>& frame) {
  const JPEGHeaderInfo info = readJPEGHeader(frame.data(), frame.size());
  if (!info.has_sos) return frame;
  std::vector<uint8_t> out(frame.begin(), frame.begin() + 2);
  size_t pos = 2;
  while (pos < info.header_bytes) {
    size_t end = pos + 2;  // standalone markers and fill bytes
    if (frame[pos] == 0xFF && frame[pos + 1] == 0xFF) {
      end = pos + 1;
    } else if (!(frame[pos + 1] >= 0xD0 && frame[pos + 1] <= 0xD7) && frame[pos + 1] != 0x01) {
      end = pos + 2 + be16(&frame[pos + 2]);
    }
    if (frame[pos + 1] != 0xC4 || end == pos + 1) {
      out.insert(out.end(), frame.begin() + pos, frame.begin() + end);
    }
    pos = end;
  }
  out.insert(out.end(), frame.begin() + pos, frame.end());
  return out;
}

}  // namespace tool
}  // namespace vidra
