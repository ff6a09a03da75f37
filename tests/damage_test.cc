// Damaged frames end to end: the bad-MCU map, the 80% rule, the repaired planes, and the
// stream quirks of real cameras that must not count as damage at all.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "jpeg.h"
#include "support/test_support.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {
namespace {

using test::corpusFiles;
using test::Planes;
using test::readFile;

// One frame through the own decoder, kept alive to look at its planes and MCU bookkeeping.
struct Decoded {
  std::unique_ptr<SimpleJPEGDecoder> decoder;
  Planes planes;
  bool result;
};

Decoded decode(const std::vector<uint8_t>& frame) {
  int width = 0, height = 0;
  EXPECT_TRUE(getJPEGImageSize(frame.data(), frame.size(), &width, &height));
  Decoded d{std::make_unique<SimpleJPEGDecoder>(), Planes(width, height), false};
  Planes& p = d.planes;
  // The tests repeat the decoder's steps on its own planes: no rows straight into the caller's.
  d.decoder->allow_direct_output_ = false;
  d.result = d.decoder->decompress(frame.data(), frame.size(), width, height, true, p.y.data(),
                                   p.y_stride, p.u.data(), p.uv_stride, p.v.data(), p.uv_stride);
  return d;
}

// Where the entropy data of `frame` is cut: its start behind the scan header, every restart
// marker, and the marker that ends the scan (or the end of the frame).
std::vector<size_t> scanCuts(const std::vector<uint8_t>& frame) {
  size_t pos = 2;
  while (pos + 4 <= frame.size() && frame[pos] == 0xFF) {
    const bool sos = frame[pos + 1] == 0xDA;
    pos += 2 + ((frame[pos + 2] << 8) | frame[pos + 3]);
    if (sos) break;
  }
  std::vector<size_t> cuts = {std::min(pos, frame.size())};
  for (; pos + 1 < frame.size(); ++pos) {
    if (frame[pos] != 0xFF || frame[pos + 1] == 0x00) continue;
    cuts.push_back(pos);
    if (frame[pos + 1] < 0xD0 || frame[pos + 1] > 0xD7) return cuts;
    ++pos;
  }
  cuts.push_back(frame.size());
  return cuts;
}

// The entropy-coded segments as they stand in the stream, without their restart markers.
std::vector<std::vector<uint8_t>> segmentsOf(const std::vector<uint8_t>& frame) {
  const std::vector<size_t> cuts = scanCuts(frame);
  std::vector<std::vector<uint8_t>> segments;
  for (size_t k = 0; k + 1 < cuts.size(); ++k)
    segments.emplace_back(frame.begin() + cuts[k] + (k > 0 ? 2 : 0), frame.begin() + cuts[k + 1]);
  return segments;
}

// Each damaged frame is decoded next to the clean frame it was made from (damaged/flip-x.jpg
// from webcam-480p/x.jpg). Span k is decoded from segment k alone (the predictors restart behind
// every restart marker), so spans whose segments the damage left alone come out as in the clean
// frame. A changed segment needn't fail (a flipped bit often gives other valid codes).
TEST(DamagedCorpus, EightyPercentRuleAndChangesOnlyInsideDamagedSpans) {
  const std::vector<std::string> files = corpusFiles("damaged");
  VIDRA_REQUIRE_CORPUS(files, "damaged");
  int accepted = 0, refused = 0, bad_next_to_good = 0;
  for (const std::string& path : files) {
    const std::string name = std::filesystem::path(path).filename().string();
    const std::vector<uint8_t> frame = readFile(path);
    const std::vector<uint8_t> clean_frame =
        readFile(test::corpusDir() + "/webcam-480p/" + name.substr(name.find('-') + 1));
    const Decoded damaged = decode(frame), clean = decode(clean_frame);
    SimpleJPEGDecoder& d = *damaged.decoder;
    ASSERT_TRUE(clean.result && d.total_mcus_ > 0) << path;
    const int bad = static_cast<int>(std::count(d.bad_mcus_.begin(), d.bad_mcus_.end(), 1));
    EXPECT_EQ(d.valid_mcus_ + bad, d.total_mcus_) << path;
    // Strictly more than 80% of the MCUs, in integers: valid / total > 4 / 5.
    EXPECT_EQ(damaged.result, d.valid_mcus_ * 5 > d.total_mcus_ * 4)
        << path << ": " << d.valid_mcus_ << " of " << d.total_mcus_ << " valid";
    (damaged.result ? accepted : refused) += 1;
    // A cut-off frame leaves the spans behind the cut without data: always noticed.
    EXPECT_TRUE(name.rfind("trunc-", 0) != 0 || bad > 0) << path << " has no bad MCU";

    const auto a = segmentsOf(frame), b = segmentsOf(clean_frame);
    const int interval = d.restart_interval_ > 0 ? d.restart_interval_ : d.total_mcus_;
    auto changed = [&](int mcu) {
      const size_t k = static_cast<size_t>(mcu / interval);
      return k >= a.size() || k >= b.size() || a[k] != b[k];
    };
    int unchanged = 0;
    for (int mcu = 0; mcu < d.total_mcus_; ++mcu) unchanged += changed(mcu) ? 0 : 1;
    bad_next_to_good += bad > 0 && unchanged > 0;

    // Output samples that differ from the clean frame's lie in changed spans only, so no
    // unchanged span was marked bad either. Chroma has half the samples of luma each way.
    const Component& luma = d.header_.components_[1];
    const Planes &pa = damaged.planes, &pb = clean.planes;
    int outside = 0, inside = 0;
    for (const auto& [plane, stride, scale] : {std::tuple{&Planes::y, pa.y_stride, 1},
                                               {&Planes::u, pa.uv_stride, 2},
                                               {&Planes::v, pa.uv_stride, 2}}) {
      for (int i = 0; i < stride * (pa.height / scale); ++i) {
        const int row = i / stride, col = i % stride;
        if (col >= pa.width / scale || (pa.*plane)[i] == (pb.*plane)[i]) continue;
        const int mcu = row * scale / (luma.v1_ * 8) * d.mcus_x_ + col * scale / (luma.h1_ * 8);
        (changed(mcu) ? inside : outside) += 1;
      }
    }
    EXPECT_EQ(outside, 0) << path;
    EXPECT_TRUE(bad == 0 || inside > 0) << path << ": concealment doesn't show";

    // The bad MCUs were concealed before the output: a second repair changes nothing (its
    // references lie outside the runs), and the planes give the same output again.
    d.fixBadMCUs();
    Planes again(pa.width, pa.height);
    ASSERT_TRUE(d.outputResults(pa.width, pa.height, again.y.data(), again.y_stride, again.u.data(),
                                again.uv_stride, again.v.data(), again.uv_stride));
    EXPECT_TRUE(again == pa) << path;
  }
  EXPECT_GT(accepted, 0) << "no frame above the line";
  EXPECT_GT(refused, 0) << "no frame below the line";
  EXPECT_GT(bad_next_to_good, 0) << "no damaged frame with restart intervals";
}

// ---- Camera quirks that are not damage --------------------------------------------------------

// `frame` with junk of 1 to 10 bytes (never 0xFF) in front of every restart marker.
std::vector<uint8_t> withJunk(const std::vector<uint8_t>& frame) {
  std::vector<uint8_t> out;
  const std::vector<size_t> cuts = scanCuts(frame);
  size_t copied = 0;
  for (size_t k = 1; k + 1 < cuts.size(); ++k) {
    out.insert(out.end(), frame.begin() + copied, frame.begin() + cuts[k]);
    for (size_t i = 0; i <= k % 10; ++i) out.push_back(static_cast<uint8_t>((k * 37 + i) % 255));
    copied = cuts[k];
  }
  out.insert(out.end(), frame.begin() + copied, frame.end());
  return out;
}

TEST(CameraQuirks, DecodeLikeTheCleanFrame) {
  const std::vector<std::string> files = corpusFiles("webcam-480p");
  VIDRA_REQUIRE_CORPUS(files, "webcam-480p");
  int with_junk = 0;
  for (const std::string& path : files) {
    const std::vector<uint8_t> frame = readFile(path);
    ASSERT_TRUE(frame.size() > 2 && frame[frame.size() - 2] == 0xFF && frame.back() == 0xD9);
    const Decoded clean = decode(frame);
    ASSERT_TRUE(clean.result) << path;
    // Junk before restart markers (where there are any), 6 KiB of zeros behind EOI, no EOI.
    std::vector<uint8_t> quirks[] = {withJunk(frame), frame, {frame.begin(), frame.end() - 2}};
    quirks[1].resize(frame.size() + 6 * 1024, 0);
    with_junk += quirks[0] != frame;
    for (int quirk = 0; quirk < 3; ++quirk) {
      const Decoded d = decode(quirks[quirk]);
      EXPECT_TRUE(d.result && d.decoder->bad_mcus_.empty() && d.planes == clean.planes)
          << path << ", quirk " << quirk;
    }
  }
  EXPECT_GT(with_junk, 0) << "no frame with restart markers in the corpus";
}

}  // namespace
}  // namespace jpeg
}  // namespace vidra
