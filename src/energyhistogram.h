#pragma once
// Adaptive histogram of recent frame energies (1 dB bins): learns the noise and the
// speech level and derives the speech detector's thresholds from them.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "check.h"
#include "parameters.h"

namespace kt {

class EnergyHistogram {
 public:
  // Refusals, std::invalid_argument("Value out of range"): a "WindowSize" of 0 (a ring
  // of no slot), a "CutoffFraction" whose quantile count, up to "WindowSize" times it, would not fit
  // an int. Other values are taken as given.
  explicit EnergyHistogram(const Parameters& params) {
    SetParameters(params);
    Reset();
  }

  void Reset() {
    _index = 0;
    _window.assign(_windowSize, 0.0);
    _histogram.assign(kNumBins, 0);
    _noiseLevel = _thresholdLowerLimit;
    _speechLevel = 70.0;
  }

  // New parameters; the newest energies of the old ring are replayed into the new one.
  // A key that fails to convert leaves the old ring and bins as they were.
  void UpdateParameters(const Parameters& params) {
    const size_t index = _index;
    const std::vector<double> w = _window;
    const size_t m = w.size();
    SetParameters(params);
    Reset();
    for (size_t i = index > m ? index - m : 0; i < index; ++i) Update(w[i % m]);
  }

  void Update(double energy) {
    KT_ASSERT(_window.size());
    KT_ASSERT(energy >= 0 && energy < 100);
    if (energy < 15.0) return;
    const size_t windowSize = _window.size();
    if (_index >= windowSize) {
      const double oldest = _window[_index % windowSize];
      --_histogram[static_cast<size_t>(oldest)];
      if (_index >= 2 * windowSize) _index -= windowSize;
    }
    ++_histogram[static_cast<size_t>(energy)];  // truncation: bin k holds k <= e < k + 1
    _window[_index % windowSize] = energy;
    ++_index;
    if (_index >= _minWindowSize && (_index % 5 == 0 || _index == _minWindowSize)) {
      UpdateThreshold();
    }
  }

  // Every key SetParameters reads, in its order.
  static std::vector<std::string> GetParameterKeys() {
    std::vector<std::string> keys;
    ForEachKey([&keys](const auto& key) { keys.push_back(key.name); });
    return keys;
  }

  // Each key's default as a parameter string writes it.
  static Parameters GetParameterDefaults() {
    Parameters defaults;
    ForEachKey([&defaults](const auto& key) { defaults.Set(key.name, key.defaultValue); });
    return defaults;
  }

  // Each of its keys in the string with the part of the value it reads.
  static std::map<std::string, std::string> GetReadTexts(const Parameters& params) {
    return params.GetReadTexts([](auto&& f) { ForEachKey(f); });
  }

  bool IsThresholdComputed() const { return _index >= _minWindowSize; }

  double GetThreshold(bool isSpeechState) const {
    if (!IsThresholdComputed()) return _thresholdLowerLimit;
    double threshold = _noiseLevel + (_speechLevel - _noiseLevel) * _interpolationParam;
    const double offset = isSpeechState ? _thresholdOffsetSpeech : _thresholdOffsetPause;
    if (_noiseLevel + offset > threshold) threshold = _noiseLevel + offset;
    // The lower limit is tested first and wins when the limits cross.
    if (threshold < _thresholdLowerLimit) return _thresholdLowerLimit;
    if (threshold > _thresholdUpperLimit) return _thresholdUpperLimit;
    return threshold;
  }

  double GetNoiseLevelWithOffset() const { return _noiseLevel + _thresholdOffsetSpeech; }
  double GetNoiseLevel() const { return _noiseLevel; }
  double GetSNR() const { return _speechLevel - _noiseLevel; }

 private:
  friend class EnergyHistogramTestAccess;
  static constexpr int kNumBins = 100;

  static constexpr ParameterKey<unsigned int> kWindowSize{"WindowSize", 100};
  static constexpr ParameterKey<unsigned int> kMinWindowSize{"MinWindowSize", 40};
  static constexpr ParameterKey<double> kCutoffFraction{"CutoffFraction", 0.08};
  static constexpr ParameterKey<double> kInterpolationParam{"InterpolationParam", 0.3};
  static constexpr ParameterKey<double> kThresholdOffsetSpeech{"ThresholdOffsetSpeech", 6.0};
  static constexpr ParameterKey<double> kThresholdOffsetPause{"ThresholdOffsetPause", 16.0};
  static constexpr ParameterKey<double> kThresholdLowerLimit{"ThresholdLowerLimit", 30.0};
  static constexpr ParameterKey<double> kThresholdUpperLimit{"ThresholdUpperLimit", 70.0};

  template <typename F>
  static void ForEachKey(F&& f) {
    f(kWindowSize);
    f(kMinWindowSize);
    f(kCutoffFraction);
    f(kInterpolationParam);
    f(kThresholdOffsetSpeech);
    f(kThresholdOffsetPause);
    f(kThresholdLowerLimit);
    f(kThresholdUpperLimit);
  }

  void UpdateThreshold() {
    KT_ASSERT(_index >= _minWindowSize);
    const size_t windowSize = _window.size();
    const size_t n = std::min(windowSize, _index);
    // While the ring fills, the quantile fraction shrinks with how full it is.
    const double cutoffFraction =
        static_cast<double>(n) / static_cast<double>(windowSize) * _cutoffFraction;
    const int limit = static_cast<int>(static_cast<double>(n) * cutoffFraction + 0.5);

    int noiseLevel = kNumBins;
    int sum = 0;
    for (int k = 0; k < kNumBins; ++k) {
      sum += _histogram[k];
      if (sum >= limit) {
        noiseLevel = k;
        break;
      }
    }
    // The same count from the top bin down; 0 when it is never reached.
    int speechLevel = kNumBins - 1;
    sum = _histogram[speechLevel];
    while (sum < limit && speechLevel > 0) {
      --speechLevel;
      sum += _histogram[speechLevel];
    }
    _noiseLevel = noiseLevel;
    _speechLevel = speechLevel;
  }

  // Reads the keys in a fixed order and stores each at once; a refused value is not stored.
  void SetParameters(const Parameters& params) {
    const unsigned int windowSize = params.Get(kWindowSize);
    if (windowSize == 0) throw std::invalid_argument("Value out of range");
    _windowSize = windowSize;
    _minWindowSize = params.Get(kMinWindowSize);
    const double cutoffFraction = params.Get(kCutoffFraction);
    // The quantile count, up to the ring's size times the fraction, must fit an int.
    if (!(std::fabs(cutoffFraction) * windowSize < 2147483647.0)) {
      throw std::invalid_argument("Value out of range");
    }
    _cutoffFraction = cutoffFraction;
    _interpolationParam = params.Get(kInterpolationParam);
    _thresholdOffsetSpeech = params.Get(kThresholdOffsetSpeech);
    _thresholdOffsetPause = params.Get(kThresholdOffsetPause);
    _thresholdLowerLimit = params.Get(kThresholdLowerLimit);
    _thresholdUpperLimit = params.Get(kThresholdUpperLimit);
  }

  // Every member is set by SetParameters and Reset in the constructor.
  size_t _index = 0;
  size_t _minWindowSize = 0;
  size_t _windowSize = 0;
  double _cutoffFraction = 0.0;
  double _interpolationParam = 0.0;
  double _thresholdOffsetSpeech = 0.0;
  double _thresholdOffsetPause = 0.0;
  double _thresholdLowerLimit = 0.0;
  double _thresholdUpperLimit = 0.0;
  double _noiseLevel = 0.0;
  double _speechLevel = 0.0;
  std::vector<double> _window;
  std::vector<int> _histogram;
};

}  // namespace kt
