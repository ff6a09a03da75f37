// SimpleJPEGDecoder: object lifetime, the marker loop and the frame-level parsers (frame header,
// quantisation tables, restart interval, scan header and the block list of one MCU).

#include "jpeg.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "jpeg_check.h"
#include "vidra/log.h"

namespace vidra {
namespace jpeg {

#if defined(__SANITIZE_ADDRESS__)
#define VIDRA_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VIDRA_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef VIDRA_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

namespace {

// In AddressSanitizer builds every plane is followed by a poisoned gap in the block that holds
// them all, so that an access running off one plane into the next is reported, as one behind the
// last plane is. Plane sizes are multiples of 8, so each gap starts on a shadow granule.
#ifdef VIDRA_ADDRESS_SANITIZER
constexpr size_t kPlaneGap = 64;
#else
constexpr size_t kPlaneGap = 0;
#endif

// A plane is addressed with 32-bit signed sizes and offsets throughout (allocation, the
// kernel's destination arithmetic, concealment, output), so no plane may exceed this.
constexpr int64_t kMaxPlaneBytes = INT32_MAX;

// Frames whose planes take more than this together are only decoded when the input can
// plausibly carry their blocks; see parseSOS.
constexpr int64_t kLargeFrameBytes = int64_t{32} << 20;

}  // namespace

const float SimpleJPEGDecoder::kMinValidMCUs = 0.8f;

const int32_t kAANScales[64] = {
    16384, 22725, 21407, 19266, 16384, 12873, 8867,  4520,  //
    22725, 31521, 29692, 26722, 22725, 17855, 12299, 6270,  //
    21407, 29692, 27969, 25172, 21407, 16819, 11585, 5906,  //
    19266, 26722, 25172, 22654, 19266, 15137, 10426, 5315,  //
    16384, 22725, 21407, 19266, 16384, 12873, 8867,  4520,  //
    12873, 17855, 16819, 15137, 12873, 10114, 6967,  3552,  //
    8867,  12299, 11585, 10426, 8867,  6967,  4799,  2446,  //
    4520,  6270,  5906,  5315,  4520,  3552,  2446,  1247,  //
};

SimpleJPEGDecoder::SimpleJPEGDecoder() {
  // The lookup tables exist, all empty, from the start: a table that no DHT segment defines
  // makes the kernel stop at its first lookup instead of reading through a null pointer. An
  // allocation that fails part way releases the tables made so far before it goes on to the
  // caller (the destructor doesn't run for an object whose constructor threw).
  try {
    for (int i = 0; i < 4; ++i) {
      dc_huffman_tables_[i] = new ACHuffmanTable;
      dc_huffman_tables_[i]->entries_.reserve(1024);
      dc_huffman_tables_[i]->entries_.resize(512, 0);
      ac_huffman_tables_[i] = new ACHuffmanTable;
      ac_huffman_tables_[i]->entries_.reserve(1024);
      ac_huffman_tables_[i]->entries_.resize(512, 0);
    }
  } catch (...) {
    for (int i = 0; i < 4; ++i) {
      delete dc_huffman_tables_[i];
      delete ac_huffman_tables_[i];
    }
    throw;
  }
}

SimpleJPEGDecoder::~SimpleJPEGDecoder() {
  for (int i = 0; i < 4; ++i) {
    delete dc_huffman_tables_[i];
    delete ac_huffman_tables_[i];
  }
  // The planes of allocateImages all lie in plane_block_; only planes installed one by one,
  // without it, are arrays of their own.
  if (plane_block_ != nullptr) {
    delete[] plane_block_;
  } else {
    for (Channel& channel : channels_) delete[] channel.image_;
  }
  // bad_mcus_ and then mcu_blocks_ go with the members, in reverse order of declaration.
}

bool SimpleJPEGDecoder::decompress(const uint8_t* data, size_t size, int width, int height,
                                   bool /*insert_dht*/, uint8_t* y, int y_stride, uint8_t* u,
                                   int u_stride, uint8_t* v, int v_stride) {
  valid_mcus_ = 0;
  VIDRA_LOG(6, "mjpeg") << "Using simple jpeg decoder.";
  caller_ = CallerPlanes{{y, u, v}, {y_stride, u_stride, v_stride}, width, height, data, size};
  JPEGBuffer input(data, size);
  JPEG_CHECK(input.consumeUint8(0xff) && input.consumeUint8(0xd8));

  // Segments follow each other directly, in any order, up to the first scan. Neither fill
  // bytes nor garbage are skipped between them.
  for (;;) {
    JPEG_CHECK(input.consumeUint8(0xff));
    uint8_t marker = 0;
    JPEG_CHECK(input.getUint8(&marker));
    if (marker == 0xDA) break;  // SOS
    if (marker == 0xC0) {
      JPEG_CHECK(parseSOF0(&input));
    } else if (marker == 0xC4) {
      dht_seen_ = true;
      JPEG_CHECK(parseDHT(&input));
    } else if (marker == 0xDB) {
      JPEG_CHECK(parseDQT(&input));
    } else if (marker == 0xDD) {
      JPEG_CHECK(parseDRI(&input));
    } else if ((marker >= 0xE0 && marker <= 0xEF) || marker == 0xFE) {  // APPn, COM
      JPEG_CHECK(parseAndIgnoreMarker(&input));
    } else {
      // Other SOFn (progressive, arithmetic, ...), EOI, RSTn, DAC, DNL, 0x00 and 0xFF.
      VIDRA_LOGF(3, "mjpeg", "Unhandled JPEG marker %02x", static_cast<unsigned>(marker));
      return false;
    }
  }

  // Cameras often leave the Huffman tables out of MJPEG frames. Any DHT segment at all, even
  // one that defines nothing, means the frame brings its own.
  if (!dht_seen_) {
    VIDRA_LOG(7, "mjpeg") << "Parsing default DHT";
    const DefaultDHT dht;
    JPEG_CHECK(parseDHT(&dht));
  }

  // Only the first scan is decoded; nothing behind its entropy data is looked at.
  JPEG_CHECK(parseSOS(&input));
  fixBadMCUs();
  JPEG_CHECK(outputResults(width, height, y, y_stride, u, u_stride, v, v_stride));

  // Single precision on purpose: exactly 80% is not enough (9 of 10, 961 of 1200).
  const float needed = static_cast<float>(total_mcus_) * kMinValidMCUs;
  return static_cast<float>(valid_mcus_) > needed;
}

bool SimpleJPEGDecoder::parseAndIgnoreMarker(JPEGBuffer* input) {
  VIDRA_LOG(7, "mjpeg") << "Marker ignored.";
  uint16_t len = 0;
  JPEG_CHECK(input->getLength16(&len));
  input->getData(len);  // cannot fail: getLength16 has seen the whole payload
  return true;
}

bool SimpleJPEGDecoder::parseSOF0(JPEGBuffer* input) {
  VIDRA_LOG(7, "mjpeg") << "SOF0 Marker.";
  uint16_t len = 0;
  JPEG_CHECK(input->getLength16(&len));
  JPEG_CHECK(len >= 6);

  uint8_t u8 = 0;
  uint16_t u16 = 0;
  JPEG_CHECK(input->getUint8(&u8));
  header_.precision_ = u8;
  JPEG_CHECK(input->getUint16(&u16));
  header_.height_ = u16;
  JPEG_CHECK(input->getUint16(&u16));
  header_.width_ = u16;
  JPEG_CHECK(input->getUint8(&u8));
  const int num_components = u8;
  JPEG_CHECK(len == 6 + 3 * num_components && num_components <= 4);
  // Inside the payload that getLength16 has seen, so this cannot come back null.
  const uint8_t* component_data = static_cast<const uint8_t*>(input->getData(3 * num_components));

  VIDRA_LOG(7, "mjpeg") << "  Header " << header_.width_ << "x" << header_.height_ << "@"
                        << header_.precision_ << " num components:" << num_components;
  JPEG_CHECK(num_components > 0);

  int hmax = 1;
  int vmax = 1;
  int nb = 0;
  for (int i = 0; i < num_components; ++i) {
    const int component_id = component_data[3 * i];
    // The id is the slot index and there are kMaxComponents slots. An id of 16 or more has
    // nowhere to go, and a scan could never select it either, so the frame is refused here.
    JPEG_CHECK(component_id < kMaxComponents);
    Component& component = header_.components_[component_id];
    component.component_id_ = component_id;
    component.h1_ = component_data[3 * i + 1] >> 4;
    component.v1_ = component_data[3 * i + 1] & 15;
    component.tq_ = component_data[3 * i + 2];
    hmax = std::max(hmax, component.h1_);
    vmax = std::max(vmax, component.v1_);
    nb += component.h1_ * component.v1_;
    VIDRA_LOG(8, "mjpeg") << "  Component " << i << " id=" << component.component_id_
                          << " h1=" << component.h1_ << " v1=" << component.v1_
                          << " tq=" << component.tq_;
  }
  JPEG_CHECK(nb <= 10);

  // Whole 8x8 blocks first, then whole MCUs. Width and height are at most 65535, so nothing
  // here comes near the int32 range.
  mcus_x_ = ((header_.width_ + 7) / 8 + hmax - 1) / hmax;
  mcus_y_ = ((header_.height_ + 7) / 8 + vmax - 1) / vmax;
  total_mcus_ = mcus_x_ * mcus_y_;
  VIDRA_LOG(7, "mjpeg") << "  MCUs: " << mcus_x_ << "x" << mcus_y_ << " total:" << total_mcus_;
  return true;
}

void SimpleJPEGDecoder::allocateImages() {
  // First the geometry of every named slot, then one block for all planes, laid out one after
  // the other in slot order. parseSOS has made sure that each stride_ x height_ fits an int32;
  // products and the sum are formed in size_t all the same. The planes are not cleared: the
  // kernel writes every sample of the blocks that the scan names, and parseSOS clears the
  // planes that it doesn't name.
  bool any_named = false;
  size_t total_bytes = 0;
  for (int i = 0; i < kMaxComponents; ++i) {
    const Component& component = header_.components_[i];
    if (component.component_id_ < 0) continue;
    Channel& channel = channels_[i];
    channel.mcu_width_ = component.h1_ * 8;
    channel.stride_ = channel.mcu_width_ * mcus_x_;
    channel.mcu_row_size_ = channel.stride_ * 8 * component.v1_;
    channel.height_ = mcus_y_ * 8 * component.v1_;
    total_bytes += static_cast<size_t>(channel.stride_) * channel.height_ + kPlaneGap;
    any_named = true;
  }
  // Without a frame header no slot is named and there is nothing to allocate. A failing
  // allocation throws std::bad_alloc out to the caller: there is no path for an exhausted heap,
  // and the destructor releases whatever was allocated before.
  if (!any_named) return;
  // A decoder allocates its planes once; should this run again, all earlier planes go first,
  // whether they lie in a block or were set up one by one.
  if (plane_block_ == nullptr) {
    for (Channel& channel : channels_) delete[] channel.image_;
  }
  delete[] plane_block_;
  plane_block_ = nullptr;
  for (Channel& channel : channels_) channel.image_ = nullptr;
  plane_block_ = new uint8_t[total_bytes];
  size_t offset = 0;
  for (int i = 0; i < kMaxComponents; ++i) {
    if (header_.components_[i].component_id_ < 0) continue;
    Channel& channel = channels_[i];
    channel.image_ = plane_block_ + offset;
    offset += static_cast<size_t>(channel.stride_) * channel.height_;
#ifdef VIDRA_ADDRESS_SANITIZER
    ASAN_POISON_MEMORY_REGION(plane_block_ + offset, kPlaneGap);
#endif
    offset += kPlaneGap;
  }
}

bool SimpleJPEGDecoder::parseDQT(JPEGBuffer* input) {
  VIDRA_LOG(7, "mjpeg") << "DQT Marker.";
  // The length field goes into a 16-bit value; the loop counts down in a signed copy of the
  // same name. A segment without any table (Lq = 2) still has its header byte read, from
  // behind the segment, and then stands at -1 and is refused instead of wrapping around.
  int32_t segment_bytes = 0;
  {
    uint16_t len = 0;
    JPEG_CHECK(input->getLength16(&len));
    segment_bytes = len;
  }
  int32_t len = segment_bytes;

  do {
    uint8_t header = 0;
    JPEG_CHECK(input->getUint8(&header));  // read even when the segment has no byte left
    // From here on `len` counts the segment bytes behind the header byte.
    len -= 1;
    JPEG_CHECK(len >= 0x40);
    const int pq = header >> 4;
    const int tq = header & 15;
    JPEG_CHECK(pq == 0 && tq < 4);

    QuantizationTable& table = quantization_tables_[tq];
    table.valid_ = true;
    // Inside the segment (checked above), so this cannot come back null.
    const uint8_t* steps = static_cast<const uint8_t*>(input->getData(64));
    // Each step times its AAN factor, cut from 14 to 2 fractional bits with rounding; the
    // entries stay in zigzag order, the order in which the coefficients arrive.
    for (int k = 0; k < 64; ++k) {
      const int32_t scaled = (steps[k] * kAANScales[kZigzagNatural[k]] + 2048) >> 12;
      table.values_[k] = static_cast<int16_t>(scaled);
    }
    len -= 64;
  } while (len != 0);
  return true;
}

bool SimpleJPEGDecoder::parseDRI(JPEGBuffer* input) {
  VIDRA_LOG(7, "mjpeg") << "DRI Marker.";
  uint16_t len = 0;
  JPEG_CHECK(input->getLength16(&len));
  JPEG_CHECK(len == 2);
  uint16_t temp = 0;
  JPEG_CHECK(input->getUint16(&temp));
  restart_interval_ = temp;  // 0 means no restart interval, like no DRI at all
  VIDRA_LOG(7, "mjpeg") << "  Restart interval:" << restart_interval_;
  return true;
}

bool SimpleJPEGDecoder::parseSOS(JPEGBuffer* input) {
  VIDRA_LOGF(7, "mjpeg", "SOS Marker at %x.", static_cast<uint32_t>(input->position()));
  uint16_t len = 0;
  JPEG_CHECK(input->getLength16(&len));
  JPEG_CHECK(len >= 4);
  uint8_t ns = 0;
  JPEG_CHECK(input->getUint8(&ns));
  JPEG_CHECK(len == 1 + ns * 2 + 3 && ns <= 4);
  // Inside the payload that getLength16 has seen, so this cannot come back null.
  const uint8_t* pairs = static_cast<const uint8_t*>(input->getData(ns * 2));

  mcu_blocks_.clear();

  // Plane sizes, before anything is allocated. Every plane is addressed with int32 sizes and
  // offsets, and a header of 65535x65535 would ask for 4 GiB per plane: a plane whose byte
  // count doesn't fit an int32 is refused.
  //
  // A few bytes of hostile input must not make the decoder allocate and fill hundreds of MiB
  // either, so a large frame (over 32 MiB of planes) is refused when its input is too short to
  // pass `kMinValidMCUs`. With tables of ITU T.81 form no code is all ones, so no code can
  // start inside the sentinel: each code of a decoded block starts at a bit of a segment, and a
  // block takes at least two codes (DC and one AC symbol). So n bytes of segment data hold the
  // codes of at most 4n blocks (de-stuffing and restart markers only make the segments shorter
  // than the input), and decoding more than 80% of the blocks needs more than frame_blocks / 5
  // bytes. The bound asks for frame_blocks / 6, which leaves room for the single-precision
  // arithmetic of the verdict. It counts the blocks of every component, so it never refuses a
  // frame that could pass when the scan names each component once (what cameras send); a scan
  // that leaves some out is held to it all the same, since their planes are allocated and
  // cleared too. Tables that assign an all-ones code (which ITU T.81 excludes and libjpeg
  // refuses) can decode a few blocks per span out of the sentinel with no input at all, and
  // could pass with less; the bound refuses them as well, since nothing else would bound their
  // memory. Smaller frames always go through, so that truncated ones are concealed, not
  // refused.
  int64_t frame_bytes = 0;
  int64_t frame_blocks = 0;
  for (const Component& component : header_.components_) {
    if (component.component_id_ < 0) continue;
    const int64_t blocks = int64_t{component.h1_} * component.v1_ * total_mcus_;
    const int64_t plane_bytes = blocks * 64;
    JPEG_CHECK(plane_bytes <= kMaxPlaneBytes);
    frame_bytes += plane_bytes;
    frame_blocks += blocks;
  }
  const uint64_t min_entropy_bytes = static_cast<uint64_t>(frame_blocks) / 6;
  JPEG_CHECK(frame_bytes <= kLargeFrameBytes || input->getRemainingBytes() >= min_entropy_bytes);

  // All components of the frame get their planes, named by the scan or not.
  allocateImages();

  bool named[kMaxComponents] = {};
  for (int i = 0; i < ns; ++i) {
    const int cs = pairs[2 * i];
    const int td = pairs[2 * i + 1] >> 4;
    const int ta = pairs[2 * i + 1] & 15;
    JPEG_CHECK(td < 4);
    JPEG_CHECK(ta < 4);
    JPEG_CHECK(cs < kMaxComponents);
    JPEG_CHECK(header_.components_[cs].component_id_ >= 0);
    JPEG_CHECK(channels_[cs].image_);
    const Component& comp = header_.components_[cs];
    const Channel& channel = channels_[cs];
    // Blocks of one component: row by row, each row from left to right, as in the stream.
    for (int y = 0; y < comp.v1_; ++y) {
      for (int x = 0; x < comp.h1_; ++x) {
        JPEG_CHECK(cs < 8);  // there are eight DC predictors, indexed by the component id
        JPEG_CHECK(comp.tq_ < 4);
        JPEG_CHECK(quantization_tables_[comp.tq_].valid_);
        JPEG_CHECK(ac_huffman_tables_[ta]->isInitialized());
        JPEG_CHECK(dc_huffman_tables_[td]->isInitialized());
        MCUBlock block;
        block.quant_table_ = quantization_tables_[comp.tq_].values_;
        block.ac_table_ = ac_huffman_tables_[ta]->entries_.data();
        block.dc_table_ = dc_huffman_tables_[td]->entries_.data();
        block.image_ = channel.image_ + y * 8 * channel.stride_ + x * 8;
        block.component_ = cs;
        block.stride_ = channel.stride_;
        block.mcu_width_ = channel.mcu_width_;
        block.mcu_row_size_ = channel.mcu_row_size_;
        block.x_ = x;
        block.y_ = y;
        mcu_blocks_.push_back(block);
      }
    }
    named[cs] = true;
  }

  // Baseline only: full spectral selection, no successive approximation.
  JPEG_CHECK(input->consumeUint8(0));
  JPEG_CHECK(input->consumeUint8(63));
  JPEG_CHECK(input->consumeUint8(0));

  // A scan without components (ns = 0), or whose components all have a sampling factor of 0,
  // has no block per MCU. The kernel needs at least one, and such a scan decodes nothing
  // anyway, so it is refused. This also covers an empty scan without any frame header, whose
  // grid has never been worked out.
  JPEG_CHECK(!mcu_blocks_.empty());

  // A plane that the scan doesn't name would otherwise hold whatever new[] left there, and the
  // output stage reads the planes of slots 1 to 3. Such planes are cleared to grey, the value
  // of every other fill of the decoder: the frame keeps the verdict that its decoded MCUs give
  // it, and its output is the same on every run. A plane of size 0 has nothing to clear.
  for (int i = 0; i < kMaxComponents; ++i) {
    const Channel& channel = channels_[i];
    if (named[i] || channel.image_ == nullptr) continue;
    std::memset(channel.image_, 0x80, static_cast<size_t>(channel.stride_) * channel.height_);
  }
  setUpDirectOutput();
  size_t consumed_length = 0;
  // The check stands on one line, so that every compiler reports the same line number.
  // clang-format off
  JPEG_CHECK(decodeEntropyData((const uint8_t*)input->getData(0), input->getRemainingBytes(), &consumed_length));
  // clang-format on
  VIDRA_LOG(7, "mjpeg") << "Read " << consumed_length << " bytes of entropy data.";
  VIDRA_CHECK(input->getData(consumed_length));
  return true;
}

}  // namespace jpeg
}  // namespace vidra
