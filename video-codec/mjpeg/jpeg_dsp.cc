#include "jpeg_dsp.h"

#include <atomic>

#include "mjpeg.h"

namespace vidra {
namespace jpeg {

void initDSPScalar(DSPFunctions* dsp) {
  dsp->resample444To420 = resample444To420_c;
  dsp->resample422To420 = resample422To420_c;
  dsp->interpolateRange16 = interpolateRange16_c;
  dsp->reconstructBlock = reconstructBlock_c;
  dsp->decodeMCUSpan = decodeMCUSpan_c;
  dsp->level = "none";
}

void initDSPx86(DSPFunctions* dsp, const CPUInfo& cpu) {
#if defined(__x86_64__)
  if (!cpu.supports_fast_decoder()) return;
  dsp->resample444To420 = resample444To420_sse41;
  dsp->resample422To420 = resample422To420_sse41;
  dsp->interpolateRange16 = interpolateRange16_sse41;
  dsp->reconstructBlock = reconstructBlock_sse41;
  dsp->decodeMCUSpan = decodeMCUSpan_sse41;
  dsp->level = "SSE4.1";

  if (!cpu.has_avx2()) return;
  dsp->resample444To420 = resample444To420_avx2;
  dsp->resample422To420 = resample422To420_avx2;
  dsp->decodeMCUSpan = decodeMCUSpan_avx2;
  dsp->level = "AVX2";
#else
  (void)dsp;
  (void)cpu;
#endif
}

void initDSPArm(DSPFunctions* dsp, const CPUInfo& cpu) {
#if defined(__aarch64__)
  if (!cpu.has_neon()) return;
  dsp->resample444To420 = resample444To420_neon;
  dsp->resample422To420 = resample422To420_neon;
  dsp->interpolateRange16 = interpolateRange16_neon;
  dsp->reconstructBlock = reconstructBlock_neon;
  dsp->decodeMCUSpan = decodeMCUSpan_neon;
  dsp->level = "NEON";
#else
  (void)dsp;
  (void)cpu;
#endif
}

namespace {
std::atomic<const DSPFunctions*> g_dsp_for_testing{nullptr};
}  // namespace

void setDSPForTesting(const DSPFunctions* functions) {
  g_dsp_for_testing.store(functions, std::memory_order_relaxed);
}

const DSPFunctions& dsp() {
  const DSPFunctions* override_table = g_dsp_for_testing.load(std::memory_order_relaxed);
  if (override_table != nullptr) return *override_table;
  static const DSPFunctions table = [] {
    DSPFunctions functions;
    initDSPScalar(&functions);
    initDSPx86(&functions, g_cpu_info_);
    initDSPArm(&functions, g_cpu_info_);
    return functions;
  }();
  return table;
}

}  // namespace jpeg
}  // namespace vidra
