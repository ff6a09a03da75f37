#include "vidra/cpu_info.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#define VIDRA_PROBE_X86 1
#endif

namespace vidra {
namespace {

// Applies VIDRA_CPU_MASK; blanks around a word don't count, unknown words are ignored.
void applyMask(bool* ssse3, bool* sse41, bool* avx2, bool* neon) {
  const char* mask = std::getenv("VIDRA_CPU_MASK");
  if (mask == nullptr) return;
  std::stringstream words(mask);
  std::string word;
  while (std::getline(words, word, ',')) {
    const size_t first = word.find_first_not_of(" \t");
    word = first == std::string::npos
               ? ""
               : word.substr(first, word.find_last_not_of(" \t") - first + 1);
    if (word == "nossse3") {
      *ssse3 = false;
    } else if (word == "nosse41" || word == "nosse4.1") {
      *sse41 = false;
    } else if (word == "noavx2") {
      *avx2 = false;
    } else if (word == "noneon") {
      *neon = false;
    } else if (word == "nosimd") {
      *ssse3 = false;
      *sse41 = false;
      *avx2 = false;
      *neon = false;
    }
  }
}

#if defined(VIDRA_PROBE_X86)
uint64_t readXCR0() {
  uint32_t low = 0, high = 0;
  __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return (static_cast<uint64_t>(high) << 32) | low;
}
#endif

}  // namespace

CPUInfo::CPUInfo() {
#if defined(VIDRA_PROBE_X86)
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx)) {
    ssse3_ = (ecx & bit_SSSE3) != 0;
    sse41_ = (ecx & bit_SSE4_1) != 0;
    // AVX2 needs the operating system to save the 256-bit registers (XCR0 bits 1 and 2).
    const bool os_saves_ymm =
        (ecx & bit_OSXSAVE) != 0 && (ecx & bit_AVX) != 0 && (readXCR0() & 6) == 6;
    unsigned eax7 = 0, ebx7 = 0, ecx7 = 0, edx7 = 0;
    if (os_saves_ymm && __get_cpuid_count(7, 0, &eax7, &ebx7, &ecx7, &edx7)) {
      avx2_ = (ebx7 & bit_AVX2) != 0 && (ebx7 & bit_BMI) != 0 && (ebx7 & bit_BMI2) != 0;
    }
  }
  unsigned max_extended = __get_cpuid_max(0x80000000u, nullptr);
  if (max_extended >= 0x80000004u) {
    char text[49] = {};
    for (unsigned leaf = 0; leaf < 3; ++leaf) {
      unsigned regs[4] = {};
      __get_cpuid(0x80000002u + leaf, &regs[0], &regs[1], &regs[2], &regs[3]);
      std::memcpy(text + leaf * 16, regs, sizeof(regs));
    }
    brand_ = text;
    const size_t first = brand_.find_first_not_of(' ');
    brand_ = first == std::string::npos ? std::string() : brand_.substr(first);
  }
#endif
#if defined(__aarch64__)
  // Advanced SIMD is a mandatory part of the architecture.
  neon_ = true;
#endif
  applyMask(&ssse3_, &sse41_, &avx2_, &neon_);
}

CPUInfo::~CPUInfo() = default;

}  // namespace vidra
