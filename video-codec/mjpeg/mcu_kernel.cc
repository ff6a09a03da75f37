// The MCU kernel's exported entry and its plain integer form.
//
// decode_mcu_span_sse2_64 runs the kernel form that the function table chose from the CPU
// probe: the one below, whose reconstruction is plain integer code, or one of
// mcu_kernel_sse41.cc and mcu_kernel_avx2.cc. All give the same samples. The decoder itself calls
// the form with the wide levels of its tables made once per scan.

#include "mcu_kernel.h"

#include <cstring>
#include <new>
#include <vector>

#include "jpeg_dsp.h"
#include "mcu_kernel_impl.h"
#include "reconstruct_c.h"

const uint32_t kZigzagNatural[128] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,   //
    12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28,  //
    35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51,  //
    58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63,  //
    63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63,  //
    63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63,  //
    63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63,  //
    63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63, 63,  //
};

const uint32_t kNoWideLevel[1024] = {};

extern "C" int decode_mcu_span_sse2_64(int16_t* coefficients, MCUSpanContext* context) {
  // A caller of this entry has no wide levels: each block gets the zero level, with which the
  // kernel reads every symbol in the block's table. An MCU has at most 10 blocks in JPEG; a
  // context with more takes their pointers from the heap, and without that memory the span
  // fails, as no exception may leave this function.
  static const uint32_t* const kNoLevels[10] = {
      kNoWideLevel, kNoWideLevel, kNoWideLevel, kNoWideLevel, kNoWideLevel,
      kNoWideLevel, kNoWideLevel, kNoWideLevel, kNoWideLevel, kNoWideLevel};
  std::vector<const uint32_t*> more;
  if (context->blocks_per_mcu_ > 10) {
    try {
      more.assign(context->blocks_per_mcu_, kNoWideLevel);
    } catch (const std::bad_alloc&) {
      return 0;
    }
  }
  const uint32_t* const* levels = more.empty() ? kNoLevels : more.data();
  const MCUWideLevels none = {levels, levels};
  return vidra::jpeg::dsp().decodeMCUSpan(coefficients, context, nullptr, &none);
}

namespace vidra {
namespace jpeg {

void reconstructBlock_c(const int16_t* coefficients, uint8_t position_mask, uint8_t last_position,
                        uint8_t* dest, int stride) {
  ScalarReconstruction().reconstruct(coefficients, position_mask, last_position, dest, stride);
}

int decodeMCUSpan_c(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split,
                    const MCUWideLevels* wide) {
  return decodeSpan<ScalarReconstruction>(coefficients, context, split, wide);
}

}  // namespace jpeg
}  // namespace vidra
