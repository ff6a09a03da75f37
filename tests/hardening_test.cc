// Hostile and broken input on both decoder paths: every truncation and random bit flips touch no
// byte outside the planes and decode alike every time; a few bytes claiming a huge frame make no
// large allocation; concurrent decodes (the path switched under them) match one path alone.

#include <gtest/gtest.h>
#include <malloc.h>
#include <turbojpeg.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "jpeg.h"
#include "mjpeg.h"
#include "support/test_support.h"

// ---- Heap accounting -------------------------------------------------------------------------
// The plain, array and nothrow forms of operator new of this binary count the usable size of
// their blocks, so that a test can see the peak heap of one decode. Every matching delete must
// be replaced too: a sanitizer runtime would otherwise pair its own delete with a block from
// here. (The library allocates no over-aligned types; those forms stay the runtime's own.)

namespace {

std::atomic<int64_t> g_heap_current{0};
std::atomic<int64_t> g_heap_peak{0};

// The counters are relaxed: sequentially consistent ones would order every allocation of one
// thread before the next of another, and so hide data races from ThreadSanitizer.
void* countedAlloc(size_t size, bool nothrow) {
  void* p = std::malloc(std::max<size_t>(size, 1));
  if (p == nullptr && !nothrow) throw std::bad_alloc();
  const int64_t bytes = static_cast<int64_t>(malloc_usable_size(p));
  const int64_t now = g_heap_current.fetch_add(bytes, std::memory_order_relaxed) + bytes;
  int64_t peak = g_heap_peak.load(std::memory_order_relaxed);
  while (now > peak && !g_heap_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
  }
  return p;
}

}  // namespace

void* operator new(size_t n) { return countedAlloc(n, false); }
void* operator new[](size_t n) { return countedAlloc(n, false); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return countedAlloc(n, true); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return countedAlloc(n, true); }
// Every form of delete goes through one function, not through each other: g++ flags a
// delete[] that calls the scalar delete as mismatched once it inlines them.
static void countedFree(void* p) {
  g_heap_current.fetch_sub(static_cast<int64_t>(malloc_usable_size(p)),  // 0 for nullptr
                           std::memory_order_relaxed);
  std::free(p);
}
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, size_t) noexcept { countedFree(p); }
void operator delete[](void* p, size_t) noexcept { countedFree(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { countedFree(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { countedFree(p); }

namespace vidra {
namespace jpeg {
namespace {

constexpr uint8_t kGuard = 0xCD;
constexpr size_t kGuardBytes = 64;
constexpr int64_t kMiB = int64_t{1} << 20;

bool hasDHT(const std::vector<uint8_t>& frame) {
  return test::markerAt(frame, 0xC4) < frame.size();
}

// I420 planes with odd strides, each with kGuardBytes guard bytes in front and behind.
struct GuardedPlanes {
  GuardedPlanes(int width, int height) : stride{width + 3, width / 2 + 5, width / 2 + 5} {
    for (int i = 0; i < 3; ++i) {
      plane[i].assign(size_t(stride[i]) * (i == 0 ? height : height / 2) + 2 * kGuardBytes, kGuard);
      std::fill(plane[i].begin() + kGuardBytes, plane[i].end() - kGuardBytes, 0xA5);
    }
  }
  uint8_t* p(int i) { return plane[i].data() + kGuardBytes; }
  bool guardsIntact() const {
    for (const std::vector<uint8_t>& v : plane)
      for (size_t i = 0; i < kGuardBytes; ++i)
        if (v[i] != kGuard || v.rbegin()[i] != kGuard) return false;
    return true;
  }
  // Decodes through the library's entry point, which picks the path (DHT inserted where missing).
  bool decodeMJPEG(const uint8_t* data, size_t size, int width, int height, bool insert_dht) {
    return decompressMJPEG(data, size, width, height, insert_dht, p(0), stride[0], p(1), stride[1],
                           p(2), stride[2]);
  }
  bool operator==(const GuardedPlanes& o) const { return plane == o.plane; }
  int stride[3];
  std::array<std::vector<uint8_t>, 3> plane;
};

// Decodes the first `size` bytes of `frame` from an exact-size heap copy (AddressSanitizer sees
// reads behind it); turbo = false calls the library's decoder directly (decompressMJPEG would pick
// TurboJPEG without SSE4.1). The call's peak heap above the level before it goes to g_last_peak.
int64_t g_last_peak = 0;
bool decode(bool turbo, const std::vector<uint8_t>& frame, size_t size, int width, int height,
            GuardedPlanes* out) {
  const int64_t before = g_heap_current.load();
  g_heap_peak.store(before);
  std::unique_ptr<uint8_t[]> copy(new uint8_t[std::max<size_t>(size, 1)]);
  std::copy_n(frame.begin(), size, copy.get());
  const bool dht = !hasDHT(frame);
  setForceJPEGTurboDecoder(turbo);
  const bool ok = turbo ? out->decodeMJPEG(copy.get(), size, width, height, dht)
                        : SimpleJPEGDecoder().decompress(copy.get(), size, width, height, dht,
                                                         out->p(0), out->stride[0], out->p(1),
                                                         out->stride[1], out->p(2), out->stride[2]);
  setForceJPEGTurboDecoder(false);
  g_last_peak = g_heap_peak.load() - before;
  return ok;
}

// Decodes the input twice on both paths: guards untouched, the same result both times.
void expectSafeAndDeterministic(const std::vector<uint8_t>& frame, size_t size, int width,
                                int height, const std::string& what) {
  for (bool turbo : {false, true}) {
    SCOPED_TRACE(what + (turbo ? " (TurboJPEG)" : " (own decoder)"));
    GuardedPlanes first(width, height), second(width, height);
    const bool ok1 = decode(turbo, frame, size, width, height, &first);
    ASSERT_EQ(ok1, decode(turbo, frame, size, width, height, &second));
    ASSERT_TRUE(first.guardsIntact() && second.guardsIntact() && first == second);
  }
}

// The first corpus frame (640x480), or nothing without the corpus.
std::vector<uint8_t> webcamFrame() {
  const std::vector<std::string> files = test::corpusFiles("webcam-480p");
  return files.empty() ? std::vector<uint8_t>() : test::readFile(files.front());
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

TEST_F(HardeningTest, EveryTruncationAndRandomBitFlipsAreSafeAndDeterministic) {
  // {width, height, subsampling, restart rows}
  const std::array<int, 4> cases[] = {
      {48, 32, TJSAMP_420, 1}, {33, 17, TJSAMP_422, 0}, {16, 16, TJSAMP_GRAY, 0}};
  for (const auto& [width, height, subsampling, restart_rows] : cases) {
    const std::vector<uint8_t> frame =
        test::encodeTestFrame(width, height, subsampling, 90, restart_rows);
    for (size_t cut = 0; cut <= frame.size() && !HasFatalFailure(); ++cut)
      expectSafeAndDeterministic(frame, cut, width, height,
                                 std::to_string(width) + " cut " + std::to_string(cut));
  }

  const std::vector<uint8_t> original = webcamFrame();
  VIDRA_REQUIRE_CORPUS(original, "webcam-480p");
  std::mt19937 rng(20261122);
  std::uniform_int_distribution<size_t> position(2, original.size() - 1);
  std::uniform_int_distribution<int> bit(0, 7), flips(1, 4);
  for (int round = 0; round < 40 && !HasFatalFailure(); ++round) {
    std::vector<uint8_t> frame = original;
    for (int n = flips(rng); n > 0; --n) frame[position(rng)] ^= uint8_t(1 << bit(rng));
    expectSafeAndDeterministic(frame, frame.size(), 640, 480, "flips " + std::to_string(round));
  }
}

TEST_F(HardeningTest, PeakHeapIsBoundedForHostileHeadersAndRealFrames) {
  // A baseline 4:4:4 frame with one DQT, no Huffman tables of its own, and seven bytes of
  // entropy data: four MCUs of flat blocks (DC difference 0, end of block at once), all that a
  // 16x16 frame has. Its claimed size sits at bytes 76-79 (height, width; big endian).
  std::vector<uint8_t> frame = {0xFF, 0xD8, 0xFF, 0xDB, 0x00, 0x43, 0x00};
  frame.insert(frame.end(), 64, 1);
  frame.insert(frame.end(), {0xFF, 0xC0, 0x00, 0x11, 0x08, 0x00, 0x10, 0x00, 0x10, 0x03, 0x01,
                             0x11, 0x00, 0x02, 0x11, 0x00, 0x03, 0x11, 0x00, 0xFF, 0xDA, 0x00,
                             0x0C, 0x03, 0x01, 0x00, 0x02, 0x11, 0x03, 0x11, 0x00, 0x3F, 0x00,
                             0x28, 0x00, 0xA0, 0x02, 0x80, 0x0A, 0x00, 0xFF, 0xD9});
  GuardedPlanes planes(640, 480);
  // Claiming no more than its data covers, the frame decodes cleanly on both paths.
  for (bool turbo : {false, true}) EXPECT_TRUE(decode(turbo, frame, frame.size(), 16, 16, &planes));
  for (const int side : {65535, 30000}) {
    frame[76] = frame[78] = static_cast<uint8_t>(side >> 8);
    frame[77] = frame[79] = static_cast<uint8_t>(side);
    // The own decoder parses the whole header before it compares sizes: the claimed size must not
    // make it allocate, whatever the caller's size. (TurboJPEG's mallocs aren't counted.)
    for (const auto& [turbo, width, height] :
         {std::tuple{false, 640, 480}, {false, side, side}, {true, 640, 480}}) {
      EXPECT_FALSE(decode(turbo, frame, frame.size(), width, height, &planes));
      EXPECT_LT(g_last_peak, 64 * kMiB) << side << ", caller size " << width << "x" << height;
    }
    EXPECT_TRUE(planes.guardsIntact());
  }

  frame = webcamFrame();
  VIDRA_REQUIRE_CORPUS(frame, "webcam-480p");
  for (bool turbo : {false, true}) {
    EXPECT_TRUE(decode(turbo, frame, frame.size(), 640, 480, &planes));
    // The planes of 640x480 take 450 KiB in 4:2:0 and 900 KiB in 4:4:4, both in the own
    // decoder and in the TurboJPEG path's buffer; the lower bound shows that they are counted.
    EXPECT_TRUE(g_last_peak > 400 * 1024 && g_last_peak < 4 * kMiB) << turbo << ": " << g_last_peak;
  }
}

TEST_F(HardeningTest, ConcurrentDecodesMatchOnePathAlone) {
  constexpr int kThreads = 8;
  struct Frame {
    std::vector<uint8_t> data;
    int width = 0, height = 0;
    std::vector<GuardedPlanes> alone;  // each path's output, computed alone
  } frames[kThreads];
  const int subsamplings[] = {TJSAMP_420, TJSAMP_422, TJSAMP_444};
  for (int i = 0; i < kThreads; ++i) {
    Frame& f = frames[i];
    // Half the frames without tables of their own: the default tables are shared by the threads.
    f.data =
        test::encodeTestFrame(96 + 8 * i, 64 + 2 * i, subsamplings[i % 3], 85, i / 2 % 3, i + 1);
    if (i % 2 == 1) f.data = test::stripDHT(f.data);
    ASSERT_TRUE(getJPEGImageSize(f.data.data(), f.data.size(), &f.width, &f.height));
    for (bool turbo : {false, true}) {
      f.alone.emplace_back(f.width, f.height);
      ASSERT_TRUE(decode(turbo, f.data, f.data.size(), f.width, f.height, &f.alone.back()));
    }
  }

  std::atomic<bool> done{false};
  std::thread toggler([&] {
    for (bool force = true; !done.load(); force = !force) {
      setForceJPEGTurboDecoder(force);
      std::this_thread::yield();
    }
  });
  int mismatches[kThreads] = {};
  std::vector<std::thread> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.emplace_back([&, i] {
      const Frame& f = frames[i];
      for (int r = 0; r < 20; ++r) {
        GuardedPlanes out(f.width, f.height);
        if (!out.decodeMJPEG(f.data.data(), f.data.size(), f.width, f.height, !hasDHT(f.data)) ||
            !(out == f.alone[0] || out == f.alone[1]))
          ++mismatches[i];
      }
    });
  }
  for (std::thread& t : workers) t.join();
  done.store(true);
  toggler.join();
  setForceJPEGTurboDecoder(false);

  for (int i = 0; i < kThreads; ++i) EXPECT_EQ(mismatches[i], 0) << "frame " << i;
}

// Threads that hit the same refusal, concealment and fallback at once, through both entry
// points, with every log line of level 2 emitted: each gets what one call alone gets, and the
// log sites that they share are no data race (the ThreadSanitizer run of the test command).
TEST_F(HardeningTest, ConcurrentRefusalsConcealmentAndFallback) {
  const std::vector<uint8_t> good = test::encodeTestFrame(96, 64, TJSAMP_422, 85, 1);
  // All-ones bits (no code of the tables) just behind the fourth restart marker: 1 span of 8 fails.
  std::vector<uint8_t> damaged = good;
  const auto span = damaged.begin() + test::markerAt(damaged, 0xD3) + 2;
  ASSERT_LT(span + 4, damaged.end());
  std::fill_n(span, 4, 0xFF);
  span[1] = span[3] = 0x00;
  const std::vector<uint8_t> cut = test::head(good, test::markerAt(good, 0xC0) + 9);  // in SOF0
  const std::vector<uint8_t> grey = test::encodeTestFrame(96, 64, TJSAMP_GRAY);
  const std::vector<uint8_t>* frames[] = {&cut, &damaged, &grey, &good};
  constexpr int kFrames = 4;

  const DecodeOptions options{Decoder::kOwn, /*insert_dht=*/true, /*fallback=*/true};
  struct Result {
    int frame, report;  // what was decoded, and how
    bool ok;
    FrameStatus status;
    GuardedPlanes planes{96, 64};
  };
  auto run = [&](int frame, bool report, Result* out) {
    const std::vector<uint8_t>& f = *frames[frame];
    GuardedPlanes& p = out->planes;
    FrameReport r;  // its status stays as it is without the report
    out->frame = frame, out->report = report;
    out->ok = report ? decodeFrame(f.data(), f.size(), 96, 64, p.p(0), p.stride[0], p.p(1),
                                   p.stride[1], p.p(2), p.stride[2], options, &r)
                     : p.decodeMJPEG(f.data(), f.size(), 96, 64, true);
    out->status = r.status;
  };
  // The threads run first (the first to reach each log site), all starting with the refused frame.
  test::LogCapture capture(/*mjpeg_level=*/2);
  constexpr int kThreads = 8;
  constexpr int kRounds = 10;
  std::vector<Result> results(kThreads * kRounds * kFrames);
  std::vector<std::thread> workers;
  std::atomic<bool> start{false};
  for (int t = 0; t < kThreads; ++t) {
    workers.emplace_back([&, t] {
      while (!start.load()) std::this_thread::yield();
      for (int i = 0; i < kRounds * kFrames; ++i) {  // i = round * kFrames + frame
        run(i % kFrames, (t + i / kFrames) % 2, &results[t * kRounds * kFrames + i]);
      }
    });
  }
  start.store(true);
  for (std::thread& t : workers) t.join();

  Result alone[kFrames][2];
  for (int i = 0; i < 2 * kFrames; ++i) run(i / 2, i % 2, &alone[i / 2][i % 2]);
  ASSERT_EQ(alone[0][1].status, FrameStatus::kRefused);
  ASSERT_EQ(alone[1][1].status, FrameStatus::kConcealed);
  ASSERT_TRUE(alone[2][1].ok);
  int mismatches = 0;
  for (const Result& r : results) {
    const Result& expected = alone[r.frame][r.report];
    mismatches +=
        r.ok != expected.ok || r.status != expected.status || !(r.planes == expected.planes);
  }
  EXPECT_EQ(mismatches, 0);
  EXPECT_TRUE(capture.contains("mjpeg", "JPEG assertion failed"));
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
