#pragma once
// Second-order high-pass section (transposed direct form II) with 16-bit rounding and clipping.
#include <stdexcept>

#include "audiodata.h"

namespace kt {

class HighpassFilter {
 public:
  // Only 8000, 11025 and 16000 Hz have coefficients; anything else throws "Sampling rate".
  explicit HighpassFilter(double samplingRate) : _z1(0.0), _z2(0.0) {
    if (samplingRate == 8000.0) {
      SetCoefficients(0.8399, -1.6796, 0.8399, -1.8787, 0.8905);
    } else if (samplingRate == 11025.0) {
      SetCoefficients(0.8539, -1.7077, 0.8539, -1.9129, 0.9193);
    } else if (samplingRate == 16000.0) {
      SetCoefficients(0.8655, -1.7309, 0.8655, -1.9406, 0.9436);
    } else {
      throw std::invalid_argument("Sampling rate");
    }
  }

  void Reset() {
    _z1 = 0.0;
    _z2 = 0.0;
  }

  // In place. The state follows the unclipped output; only the stored sample is clipped.
  void Filter(AudioData::iterator begin, AudioData::iterator end) { Run<true>(begin, end); }

  // Advances the state as Filter does and returns the sum of the squares of the samples
  // it would store, leaving them as they are: owners that only measure the filtered audio
  // need no copy to filter. Exact: each square is at most 2^30.
  int64_t Measure(AudioData::const_iterator begin, AudioData::const_iterator end) {
    return Run<false>(begin, end);
  }

  // floor(x + 0.5) for |x| <= 32768.5, without a call into the C library: truncation
  // toward zero is floor except for negative non-integers, which are one too high.
  // The correction is arithmetic, not a branch: its sign follows the audio and would
  // mispredict on every other sample.
  static int RoundHalfUp(double x) {
    const double y = x + 0.5;
    const int v = static_cast<int>(y);
    return v - static_cast<int>(static_cast<double>(v) > y);
  }

 private:
  template <bool kStore, typename Iterator>
  int64_t Run(Iterator begin, Iterator end) {
    double z1 = _z1;
    double z2 = _z2;
    int64_t sumOfSquares = 0;
    for (Iterator it = begin; it != end; ++it) {
      const double sampleIn = *it;
      const double sampleOut = _b1 * sampleIn + z1;
      z1 = _b2 * sampleIn + z2 - _a2 * sampleOut;
      z2 = _b3 * sampleIn - _a3 * sampleOut;
      double clipped = sampleOut;
      if (clipped > 32767.0) {
        clipped = 32767.0;
      } else if (clipped < -32768.0) {
        clipped = -32768.0;
      }
      const int v = RoundHalfUp(clipped);
      if constexpr (kStore) *it = static_cast<int16_t>(v);
      sumOfSquares += v * v;  // dropped by the compiler where nobody asks for it
    }
    _z1 = z1;
    _z2 = z2;
    return sumOfSquares;
  }

  void SetCoefficients(double b1, double b2, double b3, double a2, double a3) {
    _b1 = b1;
    _b2 = b2;
    _b3 = b3;
    _a2 = a2;
    _a3 = a3;
  }

  double _z1;
  double _z2;
  double _b1 = 0.0;
  double _b2 = 0.0;
  double _b3 = 0.0;
  double _a2 = 0.0;
  double _a3 = 0.0;
};

}  // namespace kt
