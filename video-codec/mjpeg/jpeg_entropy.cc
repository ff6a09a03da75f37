// The entropy data driver: de-stuffing, restart segments and spans. The data behind the scan
// header is cut at restart markers into segments. Each segment is copied without its 0xFF 0x00
// stuffing into one scratch buffer, closed with eight 0xFF bytes, and decoded as one span of at
// most restart_interval_ MCUs by the kernel. A span that fails is marked bad as a whole in
// bad_mcus_; the next segment starts clean.

#include <cstring>
#include <memory>

#include "jpeg.h"
#include "jpeg_dsp.h"
#include "mcu_kernel.h"
#include "vidra/log.h"
#include "wide_level.h"

namespace vidra {
namespace jpeg {
namespace {

// 0xFF bytes behind every segment: the kernel reads them as a string of one-bits, which no
// code of a table of ITU T.81 form matches, so a span that runs out of data fails there.
constexpr size_t kSentinelBytes = 8;

bool isRestartMarker(uint8_t marker) { return marker >= 0xD0 && marker <= 0xD7; }

}  // namespace

bool SimpleJPEGDecoder::decodeEntropyData(const uint8_t* data, size_t length,
                                          size_t* consumed_length) {
  VIDRA_CHECK(consumed_length);
  // The only caller passes the address of a local. Should that ever change, the frame is
  // refused before anything is decoded rather than decoded with no way to report how far.
  if (consumed_length == nullptr) return false;

  // Every segment is at most `length` bytes, so one buffer serves all of them.
  std::unique_ptr<uint8_t[]> scratch(new uint8_t[length + kSentinelBytes]);

  if (restart_interval_ < 1) restart_interval_ = total_mcus_;

  MCUSpanContext context = {};
  context.mcus_per_row_ = static_cast<uint32_t>(mcus_x_);
  context.blocks_ = mcu_blocks_.data();
  // Rows that go straight to the caller's planes: their block list first, then the decoder's.
  MCURowSplit split = {mcu_blocks_.data(), static_cast<uint32_t>(direct_mcu_rows_)};
  const MCURowSplit* row_split = nullptr;
  if (!direct_blocks_.empty() && direct_blocks_.size() == mcu_blocks_.size()) {
    context.blocks_ = direct_blocks_.data();
    row_split = &split;
  }
  context.blocks_per_mcu_ = static_cast<uint32_t>(mcu_blocks_.size());
  context.data_ = scratch.get();

  if (total_mcus_ <= 0) {
    *consumed_length = 0;
    return true;
  }

  // Tables that equal the default ones (in a frame without DHT segments, or one that sends
  // them) take the wide levels kept with those.
  std::vector<WideLevels::Ready> ready;
  for (int i = 0; i < 2; ++i) {
    for (const bool is_ac : {false, true}) {
      const ACHuffmanTable* table = (is_ac ? ac_huffman_tables_ : dc_huffman_tables_)[i];
      if (const uint32_t* level = defaultWideLevel(table->entries_, is_ac)) {
        ready.push_back({table->entries_.data(), is_ac, level});
      }
    }
  }
  WideLevels wide;
  wide.build(mcu_blocks_.data(), mcu_blocks_.size(), ready);
  alignas(16) int16_t coefficients[64];

  // Positions are offsets into `data`: `src` is the next input byte and the last input byte is
  // at `length` - 1. Offsets keep the bound tests free of pointers past (or before) the input.
  size_t src = 0;
  int32_t index = 0;
  int32_t remaining = total_mcus_;
  while (remaining > 0) {
    // Copy one segment, undoing the stuffing, up to a marker. The loop looks at pairs of
    // bytes, so it stops one short of the last input byte.
    uint8_t* out = scratch.get();
    while (src + 1 < length) {
      const uint8_t* from = data + src;
      const void* found = std::memchr(from, 0xFF, length - 1 - src);
      if (found == nullptr) {
        const size_t run = length - 1 - src;
        std::memcpy(out, from, run);
        out += run;
        src += run;
        break;
      }
      const size_t run = static_cast<size_t>(static_cast<const uint8_t*>(found) - from);
      std::memcpy(out, from, run);
      out += run;
      src += run;
      // data[src] is 0xFF and lies before the last byte, so data[src + 1] exists.
      const uint8_t marker = data[src + 1];
      if (marker == 0x00) {
        *out++ = 0xFF;
        src += 2;
        continue;
      }
      // A restart marker is skipped, whatever its number; any other marker ends the entropy
      // data and stays where it is (every later segment is then empty).
      if (isRestartMarker(marker)) src += 2;
      break;
    }
    // Exactly one byte left, whichever way the copy ended: it belongs to this segment, even
    // when it is 0xFF or when a restart marker has just been skipped.
    if (src + 1 == length) {
      *out++ = data[src];
      src = length;
    }
    std::memset(out, 0xFF, kSentinelBytes);

    const int32_t n = restart_interval_ < remaining ? restart_interval_ : remaining;
    context.mcu_count_ = static_cast<uint32_t>(n);
    // The frame header makes total_mcus_ = mcus_x_ x mcus_y_, so mcus_x_ is positive here;
    // the test only keeps a broken state from dividing by zero.
    const int32_t columns = mcus_x_ > 0 ? mcus_x_ : 1;
    context.mcu_x_ = static_cast<uint32_t>(index % columns);
    context.mcu_y_ = static_cast<uint32_t>(index / columns);
    // The kernel reads up to the sentinel's end and no further.
    context.dest_ = out + kSentinelBytes;

    // A scan without blocks can't be decoded: its spans count as bad without a kernel call.
    const int decoded = context.blocks_per_mcu_ == 0
                            ? 0
                            : dsp().decodeMCUSpan(coefficients, &context, row_split, wide.levels());
    if (decoded != 0) {
      valid_mcus_ += n;
    } else {
      if (bad_mcus_.empty()) bad_mcus_.assign(static_cast<size_t>(total_mcus_), 0);
      std::memset(bad_mcus_.data() + index, 1, static_cast<size_t>(n));
    }
    remaining -= n;
    index += n;
  }

  *consumed_length = src;
  return true;
}

}  // namespace jpeg
}  // namespace vidra
