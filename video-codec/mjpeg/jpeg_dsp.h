// Per-processor function table of the decoder's sample loops.
//
// Every loop exists as a plain scalar form (suffix _c) and as vector forms by level that give
// the same bytes: on x86-64 SSSE3 + SSE4.1 (suffix _sse41), then AVX2 with BMI1 and BMI2
// (suffix _avx2); on aarch64 NEON (suffix _neon). The table that the library uses is filled
// once from g_cpu_info_: the scalar forms first, then initDSPx86() upgrades it level by level
// as far as the processor allows, returning at the first level it doesn't, and initDSPArm()
// does the same for NEON. The test harness builds the scalar and the fullest table and
// compares each vector form with its scalar twin.
#pragma once

#include <cstdint>

#include "vidra/cpu_info.h"

struct MCUSpanContext;
struct MCURowSplit;
struct MCUWideLevels;

namespace vidra {
namespace jpeg {

// adaptStrides-style plane operation: (src, src_stride, dst, dst_stride, width, height).
using PlaneFn = void (*)(const uint8_t*, int, uint8_t*, int, int, int);

// interpolateRange for w == 16: (dest, h, stride, top, bottom); h >= 2.
using Interpolate16Fn = void (*)(uint8_t*, int, int, const uint8_t*, const uint8_t*);

// Reconstruction of one block: (coefficients in natural order, position_mask, last_position,
// dest, stride). Writes 8 rows of 8 samples. Values at natural indices where the kernel stored
// nothing must be 0, as the kernel leaves them: the vector form skips columns and rows that
// position_mask shows can only hold zeros.
using ReconstructFn = void (*)(const int16_t*, uint8_t, uint8_t, uint8_t*, int);

// The MCU kernel with one form of reconstruction built in: (coefficients, context, split, wide),
// as decode_mcu_span_sse2_64 with a row split (null: none) and the wide levels of the context's
// tables (not null).
using DecodeSpanFn = int (*)(int16_t*, MCUSpanContext*, const MCURowSplit*, const MCUWideLevels*);

struct DSPFunctions {
  PlaneFn resample444To420;
  PlaneFn resample422To420;
  Interpolate16Fn interpolateRange16;
  ReconstructFn reconstructBlock;
  DecodeSpanFn decodeMCUSpan;
  const char* level;  // the level of the table's forms: "none", "SSE4.1", "AVX2" or "NEON"
};

// Fills `dsp` with the scalar forms.
void initDSPScalar(DSPFunctions* dsp);
// Replace entries by vector forms where `cpu` allows them; each does nothing on the other
// processor family.
void initDSPx86(DSPFunctions* dsp, const CPUInfo& cpu);
void initDSPArm(DSPFunctions* dsp, const CPUInfo& cpu);
// The table for this process, from g_cpu_info_.
const DSPFunctions& dsp();
// Tests only: makes dsp() return `functions` (null: the probed table again), so that a test
// can run the whole decoder once with the scalar and once with the vector forms.
void setDSPForTesting(const DSPFunctions* functions);

// Scalar forms.
// Grey (0x80) chroma for layouts without a 4:2:0 form, in both decoders (jpeg_planes.cc): sets
// `stride` x `rows` bytes at `plane`, the bytes between `width` and the stride included, and
// nothing for a stride of 0. A negative stride (a bottom-up plane, rows at falling addresses)
// gives no such block: then the `width` samples of each row are set, as adaptStrides()
// addresses them.
void fillGreyPlane(uint8_t* plane, int stride, int width, int rows);

void resample444To420_c(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, int width,
                        int height);
void resample422To420_c(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, int width,
                        int height);
void interpolateRange16_c(uint8_t* dest, int h, int stride, const uint8_t* top,
                          const uint8_t* bottom);
void reconstructBlock_c(const int16_t* coefficients, uint8_t position_mask, uint8_t last_position,
                        uint8_t* dest, int stride);
int decodeMCUSpan_c(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split,
                    const MCUWideLevels* wide);

#if defined(__x86_64__)
// Vector forms, compiled with -mssse3 -msse4.1; call only where initDSPx86() allows them.
void resample444To420_sse41(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                            int width, int height);
void resample422To420_sse41(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                            int width, int height);
void interpolateRange16_sse41(uint8_t* dest, int h, int stride, const uint8_t* top,
                              const uint8_t* bottom);
void reconstructBlock_sse41(const int16_t* coefficients, uint8_t position_mask,
                            uint8_t last_position, uint8_t* dest, int stride);
int decodeMCUSpan_sse41(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split,
                        const MCUWideLevels* wide);

// Compiled with -mavx2 -mbmi -mbmi2.
void resample444To420_avx2(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                           int width, int height);
void resample422To420_avx2(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                           int width, int height);
int decodeMCUSpan_avx2(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split,
                       const MCUWideLevels* wide);
#endif

#if defined(__aarch64__)
// NEON forms; call only where initDSPArm() allows them.
void resample444To420_neon(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                           int width, int height);
void resample422To420_neon(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                           int width, int height);
void interpolateRange16_neon(uint8_t* dest, int h, int stride, const uint8_t* top,
                             const uint8_t* bottom);
void reconstructBlock_neon(const int16_t* coefficients, uint8_t position_mask,
                           uint8_t last_position, uint8_t* dest, int stride);
int decodeMCUSpan_neon(int16_t* coefficients, MCUSpanContext* context, const MCURowSplit* split,
                       const MCUWideLevels* wide);
#endif

}  // namespace jpeg
}  // namespace vidra
