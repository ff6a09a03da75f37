#include "decoding/decoding.h"

#include <chrono>

#include "jpeg.h"
#include "vidra/cpu_info.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace tool {

const char* outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kDecoded:
      return "decoded";
    case Outcome::kConcealed:
      return "concealed";
    case Outcome::kFailed:
      return "failed";
    case Outcome::kRefused:
      return "refused";
  }
  return "?";
}

namespace {

// Marks a few samples of the area the library writes, each with its own value, so that a
// false result can be told apart: written (any mark changed) or untouched. A written picture
// matches all marks only by a coincidence of six different values at six places.
struct Marks {
  static constexpr int kCount = 6;
  uint8_t* where[kCount] = {};
  uint8_t value[kCount] = {};
  int count = 0;

  void add(uint8_t* p, uint8_t v) {
    for (int i = 0; i < count; ++i) {
      if (where[i] == p) return;  // tiny frames: the places coincide
    }
    where[count] = p;
    value[count] = v;
    *p = v;
    ++count;
  }
  bool untouched() const {
    for (int i = 0; i < count; ++i) {
      if (*where[i] != value[i]) return false;
    }
    return true;
  }
};

}  // namespace

Outcome decodeFrame(const uint8_t* data, size_t size, bool insert_dht, I420Image* image,
                    double* seconds) {
  const int w = image->width, h = image->height;
  const int cw = w / 2, ch = h / 2;  // what the library writes of the chroma planes
  const int cs = image->chromaStride();
  Marks marks;
  if (w > 0 && h > 0) {
    marks.add(&image->y[0], 0x13);
    marks.add(&image->y[static_cast<size_t>(h / 2) * w + w / 2], 0xEC);
    marks.add(&image->y[static_cast<size_t>(h - 1) * w + w - 1], 0x61);
  }
  if (cw > 0 && ch > 0) {
    marks.add(&image->u[0], 0x2B);
    marks.add(&image->v[static_cast<size_t>(ch - 1) * cs + cw - 1], 0xD4);
    marks.add(&image->u[static_cast<size_t>(ch / 2) * cs + cw / 2], 0x9E);
  }
  // decompressMJPEG returns only true or false, which doesn't tell a clean frame from one whose
  // damaged MCUs were concealed. The library exports its decoder class, so where it would pick
  // its own decoder the tool runs that class itself, with the same arguments, and afterwards
  // reads which MCUs failed. The choice follows decompressMJPEG's rule: the force flag, read
  // as the library reads it, else SSSE3 + SSE4.1 on this CPU (the same probe, the same
  // VIDRA_CPU_MASK). The library also passes only the low 32 bits of the size on.
  const uint32_t size32 = static_cast<uint32_t>(size);
  const bool own =
      !__atomic_load_n(&jpeg::g_force_use_jt_decoder, __ATOMIC_RELAXED) && ownDecoderAvailable();
  bool ok = false, concealed = false;
  const auto start = std::chrono::steady_clock::now();
  if (own) {
    jpeg::SimpleJPEGDecoder decoder;
    ok = decoder.decompress(data, size32, w, h, insert_dht, image->y.data(), image->yStride(),
                            image->u.data(), cs, image->v.data(), cs);
    concealed = !decoder.bad_mcus_.empty();
  } else {
    ok = jpeg::decompressMJPEG(data, size, w, h, insert_dht, image->y.data(), image->yStride(),
                               image->u.data(), cs, image->v.data(), cs);
  }
  *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (ok) {
    image->completeChroma();
    return concealed ? Outcome::kConcealed : Outcome::kDecoded;
  }
  // The own decoder writes the planes only once the whole frame is parsed, and then returns
  // false only for too few clean MCUs: a changed mark means exactly that case. On the turbo
  // path the marks tell in the same way whether the planes were written before the false.
  if (marks.untouched()) return Outcome::kRefused;
  image->completeChroma();
  return Outcome::kFailed;
}

bool ownDecoderAvailable() {
  static const CPUInfo cpu;
  return cpu.supports_fast_decoder();
}

std::string decoderPathName(bool turbo) {
  if (turbo) return "turbo path (forced)";
  if (ownDecoderAvailable()) return "library's own decoder";
  return "turbo path (this CPU lacks SSSE3/SSE4.1, or VIDRA_CPU_MASK hides them)";
}

}  // namespace tool
}  // namespace vidra
