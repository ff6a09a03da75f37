// Processor capability probe.
//
// A CPUInfo reads the processor's features once, when it is constructed. The environment
// variable VIDRA_CPU_MASK hides features from it, so that software can be exercised as on an
// older processor: a comma-separated list of
//   nossse3   hide SSSE3
//   nosse41   hide SSE4.1 (also accepted: nosse4.1)
//   noavx2    hide AVX2 (reported together with BMI1 and BMI2)
//   noneon    hide NEON
//   nosimd    hide every vector extension this probe reports
// The x86 features read as absent on other processors, NEON everywhere but on aarch64, where
// every processor has it.
#pragma once

#include <string>

#if defined(VIDRA_PROBE_BUILDING)
#define VIDRA_PROBE_EXPORT __attribute__((visibility("default")))
#else
#define VIDRA_PROBE_EXPORT
#endif

namespace vidra {

class VIDRA_PROBE_EXPORT CPUInfo {
 public:
  CPUInfo();
  ~CPUInfo();

  // The processor executes SSSE3 and SSE4.1 (and the mask hides neither).
  bool supports_fast_decoder() const { return ssse3_ && sse41_; }
  bool has_ssse3() const { return ssse3_; }
  bool has_sse41() const { return sse41_; }
  // AVX2, BMI1 and BMI2 together, with the operating system saving the 256-bit registers.
  bool has_avx2() const { return avx2_; }
  // Advanced SIMD of aarch64 (and the mask doesn't hide it).
  bool has_neon() const { return neon_; }

  // The processor's brand string, e.g. "Intel(R) Core(TM) i7-...", empty where unknown.
  const std::string& brand() const { return brand_; }

 private:
  std::string brand_;
  bool ssse3_ = false;
  bool sse41_ = false;
  bool avx2_ = false;
  bool neon_ = false;
};

}  // namespace vidra
