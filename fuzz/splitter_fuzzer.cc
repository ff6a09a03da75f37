// libFuzzer target for the stream splitter: the frames of any input, cut from the whole buffer,
// from a buffer that grows (findFrame() until a cut is final) and from pieces fed to the stream
// splitter, are the same, and frames and junk cover every byte once. The first input byte picks
// the size of the pieces.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "vidra/splitter.h"

namespace {

struct Cut {
  size_t offset, size, junk;
  bool cut_short;
  bool operator!=(const Cut& other) const {
    return offset != other.offset || size != other.size || junk != other.junk ||
           cut_short != other.cut_short;
  }
};

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t input_size) {
  if (input_size == 0) return 0;
  const size_t piece = 1 + input[0] % 64;
  const uint8_t* data = input + 1;
  const size_t size = input_size - 1;

  std::vector<Cut> whole;
  vidra::jpeg::MJPEGSplitter splitter(data, size);
  size_t covered = 0;
  for (vidra::jpeg::SplitFrame f; splitter.next(&f);) {
    require(f.offset == covered + f.junk_before && f.offset + f.size <= size);
    covered = f.offset + f.size;
    whole.push_back({f.offset, f.size, f.junk_before, f.cut_short});
  }
  require(covered + splitter.trailingJunk() == size);

  // Growing buffer: each frame comes out of the shortest prefix whose cut is final.
  std::vector<Cut> growing;
  size_t start = 0;
  for (size_t end = start; end <= size;) {
    vidra::jpeg::SplitFrame f;
    const bool all = end == size;
    const vidra::jpeg::SplitStatus status =
        vidra::jpeg::findFrame(data + start, end - start, all, &f);
    if (status == vidra::jpeg::SplitStatus::kFrame) {
      growing.push_back({start + f.offset, f.size, f.junk_before, f.cut_short});
      start += f.offset + f.size;
      continue;
    }
    if (all) break;
    end = std::min(size, end + piece);
  }
  require(growing.size() == whole.size());
  for (size_t i = 0; i < whole.size(); ++i) require(!(growing[i] != whole[i]));

  vidra::jpeg::MJPEGStreamSplitter stream;
  std::vector<Cut> fed;
  for (size_t at = 0;; at += piece) {
    if (at < size) {
      stream.feed(data + at, std::min(piece, size - at));
    } else {
      stream.finish();
    }
    for (vidra::jpeg::StreamFrame f; stream.next(&f);) {
      fed.push_back(
          {static_cast<size_t>(f.offset), f.size, static_cast<size_t>(f.junk_before), f.cut_short});
    }
    if (at >= size) break;
  }
  require(fed.size() == whole.size());
  for (size_t i = 0; i < whole.size(); ++i) require(!(fed[i] != whole[i]));
  require(stream.pendingJunk() == splitter.trailingJunk());
  return 0;
}
