#include "jpeg_dsp.h"

#include "mjpeg.h"

namespace vidra {
namespace jpeg {

void initDSPScalar(DSPFunctions* dsp) {
  dsp->resample444To420 = resample444To420_c;
  dsp->resample422To420 = resample422To420_c;
  dsp->interpolateRange16 = interpolateRange16_c;
  dsp->reconstructBlock = reconstructBlock_c;
}

void initDSPx86(DSPFunctions* dsp, const CPUInfo& cpu) {
#if defined(__x86_64__)
  if (!cpu.supports_fast_decoder()) return;
  dsp->resample444To420 = resample444To420_sse41;
  dsp->resample422To420 = resample422To420_sse41;
  dsp->interpolateRange16 = interpolateRange16_sse41;
  dsp->reconstructBlock = reconstructBlock_sse41;
#else
  (void)dsp;
  (void)cpu;
#endif
}

const DSPFunctions& dsp() {
  static const DSPFunctions table = [] {
    DSPFunctions functions;
    initDSPScalar(&functions);
    initDSPx86(&functions, g_cpu_info_);
    return functions;
  }();
  return table;
}

}  // namespace jpeg
}  // namespace vidra
