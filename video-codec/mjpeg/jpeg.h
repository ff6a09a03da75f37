// SimpleJPEGDecoder: the library's own decoder for one baseline JPEG frame.
//
// One object decodes one frame: the marker loop reads the header segments, the scan header
// builds the block list of one MCU, the entropy driver feeds restart spans to the MCU kernel,
// damaged spans are concealed from their vertical neighbours, and the planes are brought into
// the caller's 4:2:0 planes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "jpeg_buffer.h"
#include "mcu_kernel.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {

constexpr int kMaxComponents = 16;

// The scale factors of the AAN inverse DCT in 14-bit fixed point, natural (row-major) order:
// round(2^14 * s(r) * s(c)) with s(0) = 1 and s(k) = sqrt(2) * cos(k * pi / 16).
extern const int32_t kAANScales[64];

// One component slot of the frame header, indexed by the component id itself.
struct Component {
  int32_t component_id_ = -1;  // negative: no frame header named this slot
  int32_t h1_ = 0;             // horizontal sampling factor
  int32_t v1_ = 0;             // vertical sampling factor
  int32_t tq_ = 0;             // quantisation table selector, checked by the scan header
};

struct Header {
  int32_t width_ = -1;
  int32_t height_ = -1;
  int32_t precision_ = -1;
  Component components_[kMaxComponents];
};

// The decoder's plane of one component: whole MCUs wide and high.
struct Channel {
  uint8_t* image_ = nullptr;  // into the decoder's plane_block_ (see there)
  int32_t stride_ = 0;        // bytes per row, also the plane's width
  int32_t height_ = 0;        // rows
  int32_t mcu_width_ = 0;     // samples across one MCU
  int32_t mcu_row_size_ = 0;  // bytes of one row of MCUs
};

struct QuantizationTable {
  bool valid_ = false;
  // Entries 0..63: the AAN-scaled steps by zigzag position. 64..127: zero, so that a
  // coefficient that runs past the end of a block is multiplied by 0.
  alignas(16) int16_t values_[128] = {};
};

// One code of a Huffman table.
struct HuffmanCode {
  uint32_t symbol;
  int32_t bits;  // 1..16; -1 in the end record
  uint32_t code;
};

class VIDRA_MJPEG_EXPORT SimpleJPEGDecoder {
 public:
  // A frame is good when more than this share of its MCUs decoded cleanly.
  static const float kMinValidMCUs;

  using MCUBlock = ::MCUBlock;

  // A two-level Huffman lookup table of 32-bit entries (AC or DC).
  class ACHuffmanTable {
   public:
    void buildTable(bool is_ac, const std::vector<HuffmanCode>& codes, unsigned long first,
                    unsigned long last, int table_offset, int prefix_bits, int index_bits);
    bool isInitialized() const { return !entries_.empty(); }

    std::vector<uint32_t> entries_;
  };

  // Stands for the default DHT segment, kMJPGDHTSeg, in parseDHT().
  struct DefaultDHT {};

  SimpleJPEGDecoder();
  ~SimpleJPEGDecoder();
  SimpleJPEGDecoder(const SimpleJPEGDecoder&) = delete;
  SimpleJPEGDecoder& operator=(const SimpleJPEGDecoder&) = delete;

  bool decompress(const uint8_t* data, size_t size, int width, int height, bool insert_dht,
                  uint8_t* y, int y_stride, uint8_t* u, int u_stride, uint8_t* v, int v_stride);

  bool parseAndIgnoreMarker(JPEGBuffer* input);
  bool parseSOF0(JPEGBuffer* input);
  void allocateImages();
  bool parseDQT(JPEGBuffer* input);
  bool parseDRI(JPEGBuffer* input);
  bool parseSOS(JPEGBuffer* input);
  bool parseDHT(JPEGBuffer* input);
  // Installs the tables of the default DHT segment, with the results and log lines of
  // parseDHT() on it. For the decoder's own use, not exported.
  __attribute__((visibility("hidden"))) bool parseDHT(const DefaultDHT* segment);
  bool decodeEntropyData(const uint8_t* data, size_t length, size_t* consumed_length);
  void fixBadMCUs();
  void fixMCURange(int mcu_x, int first_row, int last_row);
  bool outputResults(int width, int height, uint8_t* y, int y_stride, uint8_t* u, int u_stride,
                     uint8_t* v, int v_stride);

  // Decoding straight into the caller's planes (jpeg_output.cc). Where the caller's stride of a
  // plane equals the decoder's, outputResults() would move that plane with one block copy; the
  // kernel can then write the MCU rows that lie wholly inside the frame straight to the caller
  // and spare the copy. setUpDirectOutput(), called by parseSOS() before the entropy data,
  // does so only when outputResults() will accept the frame (a refused frame leaves the
  // caller's planes as they were) and the caller's planes and input don't overlap; the rows
  // below stay in the decoder's planes and are copied as before. takeBackDirectRows() brings
  // the rows back into the decoder's planes before concealment, which then sees its usual
  // samples. Both do nothing unless decompress() has set caller_, and outputResults() forgets
  // the caller's planes once it has completed them.
  struct CallerPlanes {
    uint8_t* plane_[3] = {};  // Y, U, V
    int stride_[3] = {};
    int width_ = 0;
    int height_ = 0;
    const uint8_t* data_ = nullptr;  // the input frame
    size_t size_ = 0;
  };
  // Internal steps: not exported from the shared library.
  __attribute__((visibility("hidden"))) bool outputAccepts(int width, int height) const;
  __attribute__((visibility("hidden"))) void setUpDirectOutput();
  __attribute__((visibility("hidden"))) void takeBackDirectRows();

  // The decoder's state is public so that tests can look at every stage.
  Header header_;
  QuantizationTable quantization_tables_[4];
  ACHuffmanTable* dc_huffman_tables_[4] = {};
  ACHuffmanTable* ac_huffman_tables_[4] = {};
  int32_t restart_interval_ = -1;
  int32_t mcus_x_ = 0;
  int32_t mcus_y_ = 0;
  int32_t total_mcus_ = 0;
  Channel channels_[kMaxComponents];
  std::vector<MCUBlock> mcu_blocks_;
  bool dht_seen_ = false;
  std::vector<uint8_t> bad_mcus_;
  int32_t valid_mcus_ = 0;
  // One new[] block that holds the planes of all channels, made by allocateImages and released
  // by the destructor. One block instead of one per plane keeps the heap from handing the
  // memory back to the system after every frame and faulting it in again for the next one.
  // When it is null, every non-null image_ is a new[] array of its own that the destructor
  // releases (planes set up channel by channel, as tests do).
  uint8_t* plane_block_ = nullptr;
  CallerPlanes caller_;
  bool allow_direct_output_ = true;  // tests turn it off to compare
  // By slot (1 to 3): the rows of the plane that the kernel writes to caller_ instead (0: none).
  int32_t direct_rows_[4] = {};
  // The block list that sends those rows to caller_, and the MCU row from which mcu_blocks_
  // takes over; empty when nothing goes straight to the caller.
  std::vector<MCUBlock> direct_blocks_;
  int32_t direct_mcu_rows_ = 0;
};

// The wide level (wide_level.h) kept with the default tables for `entries`, when they are one of
// those tables of that kind, as the default DHT segment builds it into a new decoder; else null.
const uint32_t* defaultWideLevel(const std::vector<uint32_t>& entries, bool is_ac);

}  // namespace jpeg
}  // namespace vidra
