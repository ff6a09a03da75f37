// Damage as a flaky USB link does it to MJPEG frames: flipped bits in the entropy data, frames
// cut off, junk bytes before restart markers. Used by the demo; deterministic for a given
// random generator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace vidra {
namespace tool {

// The entropy-coded data of `frame`: from behind its first SOS header to its EOI marker (or its
// end when EOI is missing). False when the header can't be walked.
bool entropyRange(const std::vector<uint8_t>& frame, size_t* begin, size_t* end);

// Flips one bit in each of `count` bytes picked at random in the entropy data. Marker bytes
// (0xFF and the byte behind one) are left alone, and no flip makes a byte 0xFF, so the frame's
// marker structure stays as it was. Returns the number of bits flipped.
int flipBits(std::vector<uint8_t>* frame, int count, std::mt19937* rng);

// Cuts the frame off after `fraction` (0..1) of its entropy data; EOI is lost with the rest.
void cutOff(std::vector<uint8_t>* frame, double fraction);

// Puts 1..10 junk bytes (any value but 0xFF) in front of `count` restart markers picked at
// random. Returns the number of markers that got junk (fewer when the frame has fewer).
int junkBeforeRestarts(std::vector<uint8_t>* frame, int count, std::mt19937* rng);

}  // namespace tool
}  // namespace vidra
