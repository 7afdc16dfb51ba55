#include "kernels.h"

#include <cmath>
#include <stdexcept>

namespace bench {

Section SectionFor(int rate) {
  switch (rate) {
    case 8000: return {0.8399, -1.6796, 0.8399, -1.8787, 0.8905};
    case 11025: return {0.8539, -1.7077, 0.8539, -1.9129, 0.9193};
    case 16000: return {0.8655, -1.7309, 0.8655, -1.9406, 0.9436};
  }
  throw std::invalid_argument("Sampling rate");
}

// Out of line, so that what is measured is exactly this loop.
__attribute__((noinline)) void Recursion(Section& s, const int16_t* in, double* out, size_t n) {
  double z1 = s.z1;
  double z2 = s.z2;
  for (size_t i = 0; i < n; ++i) {
    const double x = in[i];
    const double y = s.b1 * x + z1;
    z1 = s.b2 * x + z2 - s.a2 * y;
    z2 = s.b3 * x - s.a3 * y;
    out[i] = y;
  }
  s.z1 = z1;
  s.z2 = z2;
}

__attribute__((noinline)) double FilterEnergy(Section& s, const int16_t* in, int16_t* out,
                                              size_t n) {
  double z1 = s.z1;
  double z2 = s.z2;
  // Squares of 16-bit values summed in 64 bits are exact, as the double sum is for any
  // frame shorter than 2^23 samples, so the order of summation does not matter.
  int64_t sum = 0;
  for (size_t i = 0; i < n; ++i) {
    const double x = in[i];
    const double y = s.b1 * x + z1;
    z1 = s.b2 * x + z2 - s.a2 * y;
    z2 = s.b3 * x - s.a3 * y;
    const double c = y > 32767.0 ? 32767.0 : (y < -32768.0 ? -32768.0 : y);
    // floor(c + 0.5): truncation, one less for negative non-integers.
    const double h = c + 0.5;
    int v = static_cast<int>(h);
    v -= static_cast<double>(v) > h;
    out[i] = static_cast<int16_t>(v);
    sum += v * v;
  }
  s.z1 = z1;
  s.z2 = z2;
  if (n == 0) return 0.0;
  const double meanSquare = static_cast<double>(sum) / static_cast<double>(n);
  return meanSquare > 1.0 ? 10.0 * std::log10(meanSquare) : 0.0;
}

}  // namespace bench
