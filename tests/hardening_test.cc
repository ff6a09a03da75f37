// Hostile and broken input on both decoder paths: every truncation and random bit flips must
// neither touch bytes outside the planes nor give different results from one run to the next;
// a few bytes claiming a huge frame must not make a decode allocate much; concurrent decodes
// (with the path switched under them) must give what one path gives alone.

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "jpeg.h"
#include "mjpeg.h"
#include "support/test_support.h"

// ---- Heap accounting -------------------------------------------------------------------------
// Every operator new of this binary goes through here and counts its bytes, so that a test can
// see the peak heap of one decode. Each block carries its size in a header in front of it.

namespace {

std::atomic<int64_t> g_heap_current{0};
std::atomic<int64_t> g_heap_peak{0};

void noteAllocation(size_t size) {
  const int64_t now = g_heap_current.fetch_add(static_cast<int64_t>(size)) + size;
  int64_t peak = g_heap_peak.load();
  while (now > peak && !g_heap_peak.compare_exchange_weak(peak, now)) {
  }
}

// The header in front of a block: big enough for the size and a multiple of the alignment.
size_t headerBytes(size_t alignment) { return std::max(alignment, alignof(std::max_align_t)); }

void* countedAlloc(size_t size, size_t alignment, bool nothrow) {
  const size_t header = headerBytes(alignment);
  void* base = nullptr;
  if (alignment <= alignof(std::max_align_t)) {
    base = std::malloc(header + size);
  } else {
    const size_t total = (header + size + alignment - 1) / alignment * alignment;
    base = std::aligned_alloc(alignment, total);
  }
  if (base == nullptr) {
    if (nothrow) return nullptr;
    throw std::bad_alloc();
  }
  uint8_t* block = static_cast<uint8_t*>(base) + header;
  std::memcpy(block - sizeof(size_t), &size, sizeof(size_t));
  noteAllocation(size);
  return block;
}

void countedFree(void* ptr, size_t alignment) {
  if (ptr == nullptr) return;
  uint8_t* block = static_cast<uint8_t*>(ptr);
  size_t size = 0;
  std::memcpy(&size, block - sizeof(size_t), sizeof(size_t));
  g_heap_current.fetch_sub(static_cast<int64_t>(size));
  std::free(block - headerBytes(alignment));
}

}  // namespace

void* operator new(size_t size) { return countedAlloc(size, 0, false); }
void* operator new[](size_t size) { return countedAlloc(size, 0, false); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return countedAlloc(size, 0, true);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return countedAlloc(size, 0, true);
}
void* operator new(size_t size, std::align_val_t a) {
  return countedAlloc(size, static_cast<size_t>(a), false);
}
void* operator new[](size_t size, std::align_val_t a) {
  return countedAlloc(size, static_cast<size_t>(a), false);
}
void operator delete(void* p) noexcept { countedFree(p, 0); }
void operator delete[](void* p) noexcept { countedFree(p, 0); }
void operator delete(void* p, size_t) noexcept { countedFree(p, 0); }
void operator delete[](void* p, size_t) noexcept { countedFree(p, 0); }
void operator delete(void* p, const std::nothrow_t&) noexcept { countedFree(p, 0); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { countedFree(p, 0); }
void operator delete(void* p, std::align_val_t a) noexcept {
  countedFree(p, static_cast<size_t>(a));
}
void operator delete[](void* p, std::align_val_t a) noexcept {
  countedFree(p, static_cast<size_t>(a));
}
void operator delete(void* p, size_t, std::align_val_t a) noexcept {
  countedFree(p, static_cast<size_t>(a));
}
void operator delete[](void* p, size_t, std::align_val_t a) noexcept {
  countedFree(p, static_cast<size_t>(a));
}

namespace vidra {
namespace jpeg {
namespace {

constexpr uint8_t kFill = 0xA5;
constexpr uint8_t kGuard = 0xCD;
constexpr size_t kGuardBytes = 64;

// I420 planes with odd strides, each with guard bytes in front and behind.
class GuardedPlanes {
 public:
  GuardedPlanes(int width, int height)
      : y_stride_(width + 3),
        uv_stride_(width / 2 + 5),
        y_(Make(static_cast<size_t>(y_stride_) * height)),
        u_(Make(static_cast<size_t>(uv_stride_) * (height / 2))),
        v_(Make(static_cast<size_t>(uv_stride_) * (height / 2))) {}

  uint8_t* y() { return y_.data() + kGuardBytes; }
  uint8_t* u() { return u_.data() + kGuardBytes; }
  uint8_t* v() { return v_.data() + kGuardBytes; }
  int yStride() const { return y_stride_; }
  int uvStride() const { return uv_stride_; }

  bool guardsIntact() const {
    for (const std::vector<uint8_t>* plane : {&y_, &u_, &v_}) {
      const auto untouched = [](uint8_t b) { return b == kGuard; };
      if (!std::all_of(plane->begin(), plane->begin() + kGuardBytes, untouched) ||
          !std::all_of(plane->end() - kGuardBytes, plane->end(), untouched))
        return false;
    }
    return true;
  }
  bool operator==(const GuardedPlanes& o) const { return y_ == o.y_ && u_ == o.u_ && v_ == o.v_; }

 private:
  static std::vector<uint8_t> Make(size_t bytes) {
    std::vector<uint8_t> plane(bytes + 2 * kGuardBytes, kFill);
    std::fill(plane.begin(), plane.begin() + kGuardBytes, kGuard);
    std::fill(plane.end() - kGuardBytes, plane.end(), kGuard);
    return plane;
  }
  int y_stride_, uv_stride_;
  std::vector<uint8_t> y_, u_, v_;
};

enum class Path { kOwn, kTurbo };

bool hasDHT(const std::vector<uint8_t>& frame) {
  for (size_t i = 0; i + 1 < frame.size(); ++i)
    if (frame[i] == 0xFF && frame[i + 1] == 0xC4) return true;
  return false;
}

// Decodes `size` bytes of `frame`, copied into a heap buffer of exactly that size, so that a
// read behind its end is caught by AddressSanitizer.
bool decode(Path path, const uint8_t* frame, size_t size, int width, int height, bool insert_dht,
            GuardedPlanes* out) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[std::max<size_t>(size, 1)]);
  if (size > 0) std::memcpy(copy.get(), frame, size);
  if (path == Path::kOwn) {
    SimpleJPEGDecoder decoder;
    return decoder.decompress(copy.get(), size, width, height, insert_dht, out->y(), out->yStride(),
                              out->u(), out->uvStride(), out->v(), out->uvStride());
  }
  setForceJPEGTurboDecoder(true);
  const bool ok =
      decompressMJPEG(copy.get(), size, width, height, insert_dht, out->y(), out->yStride(),
                      out->u(), out->uvStride(), out->v(), out->uvStride());
  setForceJPEGTurboDecoder(false);
  return ok;
}

// Decodes the input twice on both paths: guards untouched, the same result both times.
void expectSafeAndDeterministic(const uint8_t* frame, size_t size, int width, int height,
                                bool insert_dht, const std::string& what) {
  for (Path path : {Path::kOwn, Path::kTurbo}) {
    SCOPED_TRACE(what + (path == Path::kOwn ? " (own decoder)" : " (TurboJPEG)"));
    GuardedPlanes first(width, height), second(width, height);
    const bool ok1 = decode(path, frame, size, width, height, insert_dht, &first);
    const bool ok2 = decode(path, frame, size, width, height, insert_dht, &second);
    ASSERT_TRUE(first.guardsIntact());
    ASSERT_TRUE(second.guardsIntact());
    ASSERT_EQ(ok1, ok2);
    ASSERT_TRUE(first == second);
  }
}

// The reasons why thousands of broken frames failed are of no interest: the "mjpeg" channel is
// silenced. Broken invariants (level 1 on the check channel) are still captured and fail the test.
class HardeningTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const test::LogLine& line : quiet_.lines())
      EXPECT_GT(line.level, 1) << line.channel << ": " << line.text;
  }
  test::LogCapture quiet_{0};
};

struct SweepCase {
  const char* name;
  int width, height, subsampling, restart_rows;
};

TEST_F(HardeningTest, EveryTruncationIsSafeAndDeterministic) {
  const SweepCase cases[] = {
      {"48x32 4:2:0, restarts", 48, 32, TJSAMP_420, 1},
      {"33x17 4:2:2", 33, 17, TJSAMP_422, 0},
      {"16x16 grey", 16, 16, TJSAMP_GRAY, 0},
  };
  for (const SweepCase& c : cases) {
    const std::vector<uint8_t> frame =
        test::encodeTestFrame(c.width, c.height, c.subsampling, 90, c.restart_rows);
    for (size_t cut = 0; cut <= frame.size(); ++cut) {
      expectSafeAndDeterministic(frame.data(), cut, c.width, c.height, false,
                                 std::string(c.name) + " cut at " + std::to_string(cut));
      if (HasFatalFailure()) return;
    }
  }
}

TEST_F(HardeningTest, RandomBitFlipsAreSafeAndDeterministic) {
  const std::vector<std::string> files = test::corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  const std::vector<uint8_t> original = test::readFile(files.front());
  int width = 0, height = 0;
  ASSERT_TRUE(getJPEGImageSize(original.data(), original.size(), &width, &height));
  const bool insert_dht = !hasDHT(original);

  std::mt19937 rng(20261122);
  std::uniform_int_distribution<size_t> position(2, original.size() - 1);
  std::uniform_int_distribution<int> bit(0, 7), flips(1, 4);
  for (int round = 0; round < 40; ++round) {
    std::vector<uint8_t> frame = original;
    std::string what = "flipped";
    for (int n = flips(rng); n > 0; --n) {
      const size_t at = position(rng);
      const int b = bit(rng);
      frame[at] ^= static_cast<uint8_t>(1 << b);
      what += " " + std::to_string(at) + ":" + std::to_string(b);
    }
    expectSafeAndDeterministic(frame.data(), frame.size(), width, height, insert_dht, what);
    if (HasFatalFailure()) return;
  }
}

// ---- Memory ---------------------------------------------------------------------------------

// A baseline frame of the claimed size in 4:4:4 with one DQT, the default Huffman tables (none
// of its own) and seven bytes of entropy data: four MCUs of flat blocks (DC difference 0, end of
// block at once), all that a 16x16 frame has.
std::vector<uint8_t> hostileFrame(int width, int height) {
  std::vector<uint8_t> f = {0xFF, 0xD8, 0xFF, 0xDB, 0x00, 0x43, 0x00};
  f.insert(f.end(), 64, 1);
  const uint8_t sof[] = {0xFF,
                         0xC0,
                         0x00,
                         0x11,
                         0x08,
                         static_cast<uint8_t>(height >> 8),
                         static_cast<uint8_t>(height),
                         static_cast<uint8_t>(width >> 8),
                         static_cast<uint8_t>(width),
                         0x03,
                         0x01,
                         0x11,
                         0x00,
                         0x02,
                         0x11,
                         0x00,
                         0x03,
                         0x11,
                         0x00};
  f.insert(f.end(), std::begin(sof), std::end(sof));
  const uint8_t sos[] = {0xFF, 0xDA, 0x00, 0x0C, 0x03, 0x01, 0x00,
                         0x02, 0x11, 0x03, 0x11, 0x00, 0x3F, 0x00};
  f.insert(f.end(), std::begin(sos), std::end(sos));
  const uint8_t data[] = {0x28, 0x00, 0xA0, 0x02, 0x80, 0x0A, 0x00, 0xFF, 0xD9};
  f.insert(f.end(), std::begin(data), std::end(data));
  return f;
}

// The peak heap above the current level while `run` goes.
template <typename Run>
int64_t peakHeapOf(Run run) {
  const int64_t before = g_heap_current.load();
  g_heap_peak.store(before);
  run();
  return g_heap_peak.load() - before;
}

constexpr int64_t kMiB = int64_t{1} << 20;

TEST_F(HardeningTest, HostileHeadersAreRefusedWithoutLargeAllocations) {
  {
    // The frame is well formed: claiming no more than its data covers, it decodes cleanly.
    const std::vector<uint8_t> frame = hostileFrame(16, 16);
    GuardedPlanes planes(16, 16);
    for (const Path path : {Path::kOwn, Path::kTurbo})
      EXPECT_TRUE(decode(path, frame.data(), frame.size(), 16, 16, true, &planes));
  }
  for (const int side : {65535, 30000}) {
    SCOPED_TRACE("claims " + std::to_string(side) + "x" + std::to_string(side));
    const std::vector<uint8_t> frame = hostileFrame(side, side);

    // The library's own decoder parses the whole header before it learns that the caller
    // expects another size: the claimed size alone must not make it allocate.
    GuardedPlanes planes(640, 480);
    for (const std::pair<int, int>& expect : {std::pair{640, 480}, std::pair{side, side}}) {
      bool ok = true;
      const int64_t peak = peakHeapOf([&] {
        SimpleJPEGDecoder decoder;
        ok = decoder.decompress(frame.data(), frame.size(), expect.first, expect.second, false,
                                planes.y(), planes.yStride(), planes.u(), planes.uvStride(),
                                planes.v(), planes.uvStride());
      });
      EXPECT_FALSE(ok);
      EXPECT_LT(peak, 64 * kMiB) << "caller size " << expect.first << "x" << expect.second;
    }
    // A caller that expects 640x480 gets a refusal from either path, again without a large
    // allocation. (TurboJPEG's own allocations go through malloc and aren't counted here.)
    for (const bool turbo : {false, true}) {
      bool ok = true;
      const int64_t peak = peakHeapOf([&] {
        setForceJPEGTurboDecoder(turbo);
        ok = decompressMJPEG(frame.data(), frame.size(), 640, 480, true, planes.y(),
                             planes.yStride(), planes.u(), planes.uvStride(), planes.v(),
                             planes.uvStride());
        setForceJPEGTurboDecoder(false);
      });
      EXPECT_FALSE(ok);
      EXPECT_LT(peak, 64 * kMiB) << (turbo ? "TurboJPEG" : "default path");
    }
    EXPECT_TRUE(planes.guardsIntact());
  }
}

TEST_F(HardeningTest, RealFramePeakHeapIsAFewMiB) {
  const std::vector<std::string> files = test::corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  const std::vector<uint8_t> frame = test::readFile(files.front());
  int width = 0, height = 0;
  ASSERT_TRUE(getJPEGImageSize(frame.data(), frame.size(), &width, &height));
  ASSERT_EQ(width, 640);
  ASSERT_EQ(height, 480);
  GuardedPlanes planes(width, height);
  for (const Path path : {Path::kOwn, Path::kTurbo}) {
    bool ok = false;
    const int64_t peak = peakHeapOf([&] {
      ok = decode(path, frame.data(), frame.size(), width, height, !hasDHT(frame), &planes);
    });
    EXPECT_TRUE(ok);
    // The planes of 640x480 take 450 KiB in 4:2:0 and 900 KiB in 4:4:4, both in the own
    // decoder and in the TurboJPEG path's buffer; the lower bound shows that they are counted.
    const char* what = path == Path::kOwn ? "own decoder" : "TurboJPEG";
    EXPECT_GT(peak, 400 * 1024) << what;
    EXPECT_LT(peak, 4 * kMiB) << what;
  }
}

// ---- Threads --------------------------------------------------------------------------------

struct ThreadFrame {
  std::vector<uint8_t> data;
  int width = 0, height = 0;
  bool insert_dht = false;
  std::unique_ptr<GuardedPlanes> own, turbo;  // each path's output, computed alone
  bool own_ok = false, turbo_ok = false;
};

TEST_F(HardeningTest, ConcurrentDecodesMatchOnePathAlone) {
  constexpr int kThreads = 8;
  std::vector<ThreadFrame> frames(kThreads);
  const std::vector<std::string> files = test::corpusFiles("webcam-480p");
  const int subsamplings[] = {TJSAMP_420, TJSAMP_422, TJSAMP_444, TJSAMP_GRAY};
  for (int i = 0; i < kThreads; ++i) {
    ThreadFrame& f = frames[i];
    // The threads that repeat their decode (the even ones) get small generated frames; the
    // others a corpus frame when there is one.
    if (i % 2 == 1 && static_cast<size_t>(i / 2) < files.size()) {
      f.data = test::readFile(files[i / 2]);
      ASSERT_TRUE(getJPEGImageSize(f.data.data(), f.data.size(), &f.width, &f.height));
    } else {
      f.width = 96 + 8 * i;
      f.height = 64 + 2 * i;
      f.data = test::encodeTestFrame(f.width, f.height, subsamplings[i % 4], 85, i % 3,
                                     static_cast<unsigned>(i + 1));
    }
    f.insert_dht = !hasDHT(f.data);
    f.own = std::make_unique<GuardedPlanes>(f.width, f.height);
    f.turbo = std::make_unique<GuardedPlanes>(f.width, f.height);
    f.own_ok = decode(Path::kOwn, f.data.data(), f.data.size(), f.width, f.height, f.insert_dht,
                      f.own.get());
    f.turbo_ok = decode(Path::kTurbo, f.data.data(), f.data.size(), f.width, f.height, f.insert_dht,
                        f.turbo.get());
  }

  std::atomic<bool> done{false};
  std::thread toggler([&] {
    bool force = false;
    while (!done.load()) {
      force = !force;
      setForceJPEGTurboDecoder(force);
      std::this_thread::yield();
    }
  });
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.emplace_back([&, i] {
      const ThreadFrame& f = frames[i];
      const int rounds = i % 2 == 0 ? 40 : 2;
      for (int r = 0; r < rounds; ++r) {
        GuardedPlanes planes(f.width, f.height);
        const bool ok = decompressMJPEG(f.data.data(), f.data.size(), f.width, f.height,
                                        f.insert_dht, planes.y(), planes.yStride(), planes.u(),
                                        planes.uvStride(), planes.v(), planes.uvStride());
        const bool as_own = ok == f.own_ok && planes == *f.own;
        const bool as_turbo = ok == f.turbo_ok && planes == *f.turbo;
        if (!as_own && !as_turbo) ++mismatches[i];
      }
    });
  }
  for (std::thread& t : workers) t.join();
  done.store(true);
  toggler.join();
  setForceJPEGTurboDecoder(false);

  for (int i = 0; i < kThreads; ++i) {
    EXPECT_TRUE(frames[i].own_ok && frames[i].turbo_ok) << "frame " << i;
    EXPECT_EQ(mismatches[i], 0) << "frame " << i << " (" << frames[i].width << "x"
                                << frames[i].height << ")";
  }
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
