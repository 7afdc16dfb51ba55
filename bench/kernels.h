#pragma once
// The floor of what the specified arithmetic allows: the high-pass recursion alone, and
// the recursion with rounding, clipping and the frame energy, as bare loops.
#include <cstddef>
#include <cstdint>

namespace bench {

struct Section {
  double b1, b2, b3, a2, a3;
  double z1 = 0.0, z2 = 0.0;
};

// The coefficients of the filter at 8000, 11025 or 16000 Hz, zero state.
Section SectionFor(int rate);

// Unrounded, unclipped outputs of the recursion.
void Recursion(Section& s, const int16_t* in, double* out, size_t n);

// Rounded, clipped 16-bit outputs; returns the frame energy in dB (0 when the mean
// square is at most 1), as the analyzer measures it.
double FilterEnergy(Section& s, const int16_t* in, int16_t* out, size_t n);

}  // namespace bench
