// The two limit kernels as benchmarks, and the check that they compute what the
// library's filter computes.
#include <cmath>
#include <cstdio>
#include <vector>

#include "harness.h"
#include "highpassfilter.h"
#include "kernels.h"

namespace bench {

namespace {

const int kRates[] = {8000, 11025, 16000};

int16_t RoundClip(double y) {
  const double c = y > 32767.0 ? 32767.0 : (y < -32768.0 ? -32768.0 : y);
  return static_cast<int16_t>(std::floor(c + 0.5));
}

double Energy(const int16_t* frame, size_t n) {
  double sum = 0.0;
  for (size_t i = 0; i < n; ++i) sum += static_cast<double>(frame[i]) * frame[i];
  const double meanSquare = sum / static_cast<double>(n);
  return meanSquare > 1.0 ? 10.0 * std::log10(meanSquare) : 0.0;
}

class RecursionEngine {
 public:
  RecursionEngine(int rate, size_t block) : _s(SectionFor(rate)), _out(block) {}
  void Process(const int16_t* in, size_t n) {
    Recursion(_s, in, _out.data(), n);
    _checksum += _out[n - 1];
  }
  double Checksum() const { return _checksum; }

 private:
  Section _s;
  std::vector<double> _out;
  double _checksum = 0.0;
};

class FilterEnergyEngine {
 public:
  FilterEnergyEngine(int rate, size_t block) : _s(SectionFor(rate)), _out(block) {}
  void Process(const int16_t* in, size_t n) { _checksum += FilterEnergy(_s, in, _out.data(), n); }
  double Checksum() const { return _checksum; }

 private:
  Section _s;
  std::vector<int16_t> _out;
  double _checksum = 0.0;
};

}  // namespace

bool KernelsMatchFilter() {
  bool ok = true;
  for (int rate : kRates) {
    const Samples& signal = TestSignal(rate);
    kt::AudioData expected(signal.begin(), signal.end());
    kt::HighpassFilter(rate).Filter(expected.begin(), expected.end());

    const size_t frame = BlockSamples(rate, 20);
    Section recursion = SectionFor(rate);
    Section full = SectionFor(rate);
    std::vector<double> y(frame);
    std::vector<int16_t> v(frame);
    for (size_t pos = 0; pos + frame <= signal.size() && ok; pos += frame) {
      Recursion(recursion, signal.data() + pos, y.data(), frame);
      const double energy = FilterEnergy(full, signal.data() + pos, v.data(), frame);
      for (size_t i = 0; i < frame; ++i) {
        if (RoundClip(y[i]) != expected[pos + i] || v[i] != expected[pos + i]) {
          std::fprintf(stderr, "kernel output differs from the filter at %d Hz, sample %zu\n",
                       rate, pos + i);
          ok = false;
          break;
        }
      }
      if (ok && energy != Energy(expected.data() + pos, frame)) {
        std::fprintf(stderr, "kernel energy differs at %d Hz, frame %zu\n", rate, pos / frame);
        ok = false;
      }
    }
  }
  return ok;
}

void RegisterKernels() {
  for (int rate : kRates) {
    Register<RecursionEngine>("limit: recursion/" + std::to_string(rate), rate, 20);
    Register<FilterEnergyEngine>("limit: recursion+round+clip+energy/" + std::to_string(rate),
                                 rate, 20);
  }
}

}  // namespace bench
