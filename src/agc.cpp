#include "agc.h"

#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "check.h"
#include "parameters.h"

namespace kt {

namespace {

void RefuseUnless(bool inRange) {
  if (!inRange) throw std::invalid_argument("Value out of range");
}

// A duration key as whole 20 ms frames, truncated; a negative duration has no meaning.
int ReadFrames(const Parameters& params, const ParameterKey<int>& key) {
  const int ms = params.Get(key);
  RefuseUnless(ms >= 0);
  return ms / AGC::GetFrameSizeMs();
}

// The levels are read at this percentile truncated: the product in double, so that a
// fraction of 0.29f (0.28999999) gives 28.
double Percent(float cutoffFraction) { return 100.0 * static_cast<double>(cutoffFraction); }

constexpr ParameterKey<int> kMinUpdateIntervalMs{"MinUpdateIntervalMs", 80};
constexpr ParameterKey<int> kMinLowerLevelSizeMs{"MinLowerLevelSizeMs", 80};
constexpr ParameterKey<int> kMinUpperLevelSizeMs{"MinUpperLevelSizeMs", 80};
constexpr ParameterKey<int> kWindowSizeMs{"WindowSizeMs", 2000};
constexpr ParameterKey<int> kSpeechWindowSizeMs{"SpeechWindowSizeMs", 800};
constexpr ParameterKey<float> kSpeechFraction{"SpeechFraction", 0.3f};
constexpr ParameterKey<int> kPauseWindowSizeMs{"PauseWindowSizeMs", 500};
constexpr ParameterKey<float> kCutoffFraction{"CutoffFraction", 0.1f};
constexpr ParameterKey<float> kInterpolationWeight{"InterpolationWeight", 0.3f};
constexpr ParameterKey<float> kThresholdOffsetSpeech{"ThresholdOffsetSpeech", 16.0f};
constexpr ParameterKey<float> kThresholdOffsetPause{"ThresholdOffsetPause", 6.0f};
constexpr ParameterKey<float> kThresholdUpperBound{"ThresholdUpperBound", 70.0f};
constexpr ParameterKey<float> kMinLowerBound{"MinLowerBound", 10.0f};
constexpr ParameterKey<float> kLowerBound{"LowerBound", 51.0f};
constexpr ParameterKey<float> kUpperBound{"UpperBound", 78.0f};
constexpr ParameterKey<float> kUpperLevelRefDelta{"UpperLevelRefDelta", 6.0f};
constexpr ParameterKey<int> kFastStepSizeUp{"FastStepSizeUp", 4};
constexpr ParameterKey<int> kFastStepSizeDown{"FastStepSizeDown", 2};
constexpr ParameterKey<float> kLeastGain{"LeastGain", 0.001f};
constexpr ParameterKey<float> kDeltaGain{"DeltaGain", 0.15f};
// Relative exactly when the value is "true".
constexpr ParameterKey<const char*> kRelativeGain{"RelativeGain", "true"};

// Every key in the order the constructor reads it.
template <typename F>
void ForEachKey(F&& f) {
  f(kMinUpdateIntervalMs);
  f(kMinLowerLevelSizeMs);
  f(kMinUpperLevelSizeMs);
  f(kWindowSizeMs);
  f(kSpeechWindowSizeMs);
  f(kSpeechFraction);
  f(kPauseWindowSizeMs);
  f(kCutoffFraction);
  f(kInterpolationWeight);
  f(kThresholdOffsetSpeech);
  f(kThresholdOffsetPause);
  f(kThresholdUpperBound);
  f(kMinLowerBound);
  f(kLowerBound);
  f(kUpperBound);
  f(kUpperLevelRefDelta);
  f(kFastStepSizeUp);
  f(kFastStepSizeDown);
  f(kLeastGain);
  f(kDeltaGain);
  f(kRelativeGain);
}

}  // namespace

const char* ToString(GainDecision::Outcome outcome) {
  switch (outcome) {
    case GainDecision::TooLow: return "toolow";
    case GainDecision::TooHigh: return "toohigh";
    case GainDecision::SpeechOnset: return "speech";
    case GainDecision::Pause: return "pause";
    case GainDecision::Nil: return "nil";
  }
  return "";
}

const char* ToString(AGC::State state) {
  switch (state) {
    case AGC::Speech: return "Speech";
    case AGC::Initial: return "Initial";
  }
  return "";
}

void AGC::Histogram::Update(float x) {
  const float z = x * _scaleFactor;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare"
  KT_ASSERT(z >= 0.0f && (int)z < _histogram.size());
#pragma GCC diagnostic pop
  const int w = GetWindowSize();
  KT_ASSERT(w > 0);
  if (_wIndex >= w) {
    // The oldest level leaves through the same truncation that brought it in.
    const float y = _window[_wIndex % w];
    const int oldest = static_cast<int>(y * _scaleFactor);
    --_histogram[oldest];
    --_groups[oldest / kBinsPerGroup];
    if (_wIndex >= 2 * w) _wIndex -= w;
  }
  ++_histogram[static_cast<int>(z)];
  ++_groups[static_cast<int>(z) / kBinsPerGroup];
  _window[_wIndex % w] = x;
  ++_wIndex;
}

float AGC::Histogram::GetLevel(int percent, bool b, int minSamples) const {
  KT_ASSERT(percent >= 0);
  KT_ASSERT(percent <= 100);
  KT_ASSERT(_wIndex > 0);
  const int n = GetNumSamples();
  KT_ASSERT(n >= minSamples);
  const auto reached = [&](int sum) { return sum >= minSamples && sum * 100 >= percent * n; };
  const int numBins = static_cast<int>(_histogram.size());
  const int numGroups = static_cast<int>(_groups.size());
  // Whole groups are passed while even all their levels would not stop the walk: once
  // reached, the condition holds for every larger sum, so the stop bin is the same.
  int sum = 0;
  if (b) {
    int g = 0;
    while (g < numGroups && !reached(sum + _groups[g])) sum += _groups[g++];
    for (int i = g * kBinsPerGroup; i < numBins; ++i) {
      sum += _histogram[i];
      if (reached(sum)) return static_cast<float>(i) / _scaleFactor;  // the bin's lower edge
    }
  } else {
    int g = numGroups - 1;
    while (g >= 0 && !reached(sum + _groups[g])) sum += _groups[g--];
    for (int i = std::min(numBins, (g + 1) * kBinsPerGroup) - 1; i >= 0; --i) {
      sum += _histogram[i];
      if (reached(sum)) return static_cast<float>(i) / _scaleFactor;  // lower edge as well
    }
  }
  KT_ASSERT(false);
  return 0.0f;
}

AGC::AGC(const std::string& keyValuePairs, int samplingRate)
    : _state(Initial),
      _timeMs(0.0),
      _samplingRate(samplingRate),
      _rising(false),
      _upperLevelRef(0.0f),
      _h(0, 0),
      _f(static_cast<double>(samplingRate)) {  // refuses the rate before any key is read
  const Parameters params(keyValuePairs);
  _minUpdateFrames = ReadFrames(params, kMinUpdateIntervalMs);
  _minLowerLevelFrames = ReadFrames(params, kMinLowerLevelSizeMs);
  _minUpperLevelFrames = ReadFrames(params, kMinUpperLevelSizeMs);
  // Every update measures more than _minUpdateFrames frames, so readings find enough levels.
  if (!(_minUpdateFrames >= _minLowerLevelFrames)) {
    throw std::invalid_argument("_minUpdateFrames >= _minLowerLevelFrames");
  }
  if (!(_minUpdateFrames >= _minUpperLevelFrames)) {
    throw std::invalid_argument("_minUpdateFrames >= _minUpperLevelFrames");
  }
  const int windowSize = ReadFrames(params, kWindowSizeMs);
  RefuseUnless(windowSize >= 1 && windowSize >= _minLowerLevelFrames &&
               windowSize >= _minUpperLevelFrames);
  _h.SetSize(windowSize, 100 * Histogram::_scaleFactor);  // 0 dB up to 100 dB
  _speechWindowSize = ReadFrames(params, kSpeechWindowSizeMs);
  _speechFraction = params.Get(kSpeechFraction);
  _pauseWindowSize = ReadFrames(params, kPauseWindowSizeMs);
  const float cutoffFraction = params.Get(kCutoffFraction);
  // The level walk reads a percentile of 0 to 100, which the truncation gives from this range.
  RefuseUnless(Percent(cutoffFraction) > -1.0 && Percent(cutoffFraction) < 101.0);
  _cutoffFraction = cutoffFraction;
  _interpolationWeight = params.Get(kInterpolationWeight);
  _thresholdOffsetSpeech = params.Get(kThresholdOffsetSpeech);
  _thresholdOffsetPause = params.Get(kThresholdOffsetPause);
  _thresholdUpperBound = params.Get(kThresholdUpperBound);
  _minLowerBound = params.Get(kMinLowerBound);
  _lowerBound = params.Get(kLowerBound);
  _upperBound = params.Get(kUpperBound);
  _upperLevelRefDelta = params.Get(kUpperLevelRefDelta);
  _fastStepSizeUp = params.Get(kFastStepSizeUp);
  _fastStepSizeDown = params.Get(kFastStepSizeDown);
  _leastGain = params.Get(kLeastGain);
  // The floor is applied after the ceiling of 1.
  RefuseUnless(_leastGain >= 0.0f && _leastGain <= 1.0f);
  _deltaGain = params.Get(kDeltaGain);
  _relativeGain =
      params.Get<std::string>(kRelativeGain.name, kRelativeGain.defaultValue) == "true";
  if (_relativeGain) {
    // The median gain takes the logarithm of (1 - d) / (1 + d): d = 1 or -1 gives 1 by
    // its limit, except with a least gain of 0, where it is -inf / -inf.
    RefuseUnless(_deltaGain >= -1.0f && _deltaGain <= 1.0f);
    RefuseUnless(!(std::fabs(_deltaGain) == 1.0f && _leastGain == 0.0f));
  }
  Reset();
}

void AGC::Reset() {
  _state = Initial;
  _timeMs = 0.0;
  _upperLevelRef = 0.0f;
  _rising = false;
  _h.Reset();
  _f.Reset();
}

namespace {

// A host's gain is input, not an invariant: refused with the condition it breaks.
void CheckGain(float currentGain) {
  if (!(currentGain >= 0.0f)) throw std::invalid_argument("currentGain >= 0.0f");
  if (!(currentGain <= 1.0f)) throw std::invalid_argument("currentGain <= 1.0f");
}

}  // namespace

float AGC::ComputeGain(const AudioData& a, float currentGain) {
  return ComputeGain(a.data(), a.size(), currentGain);
}

float AGC::ComputeGain(const int16_t* samples, size_t count, float currentGain) {
  CheckGain(currentGain);
  const double blockMs = static_cast<double>(count) * 1000.0 / _samplingRate;
  if (!(currentGain > 0.0f)) {
    _timeMs += blockMs;
    _state = Initial;
    _h.Reset();
    return GetMedianGain();  // the block is not buffered
  }
  if (count) _audioBuffer.insert(_audioBuffer.end(), samples, samples + count);
  _timeMs += blockMs;  // after the append, so a failed one changes nothing

  const size_t samplesPerFrame = static_cast<size_t>(GetSamplesPerFrame());
  const size_t numFrames = _audioBuffer.size() / samplesPerFrame;
  if (numFrames <= static_cast<size_t>(_minUpdateFrames)) return currentGain;

  const float clippingFraction =
      ComputeClippingFraction(_audioBuffer.cbegin(), _audioBuffer.cend());
  for (size_t i = 0; i < numFrames; ++i) {
    const AudioData::const_iterator first = _audioBuffer.cbegin() + i * samplesPerFrame;
    Process(first, first + samplesPerFrame);
  }
  _audioBuffer.clear();  // an incomplete last frame is dropped
  return ComputeGain(currentGain, clippingFraction);
}

unsigned short AGC::ComputeGain(const AudioData& a, unsigned short gain) {
  return ComputeGain(a.data(), a.size(), gain);
}

unsigned short AGC::ComputeGain(const int16_t* samples, size_t count, unsigned short gain) {
  const float g = static_cast<float>(gain) / 65535.0f;
  const float r = ComputeGain(samples, count, g);
  if (r == g) return gain;
  // The exact product, truncated: rounding it to float first gives one too many for some gains.
  return static_cast<unsigned short>(static_cast<double>(r) * 65535.0);
}

float AGC::GetMedianGain() const {
  if (!_relativeGain) return 0.5f;
  // The gain k steps up from _leastGain equals the one k steps down from 1.
  const float k = logf(_leastGain) / logf((1.0f - _deltaGain) / (1.0f + _deltaGain));
  return 1.0f / powf(1.0f + _deltaGain, k);
}

float AGC::ComputeGainRandom(const AudioData& /*a*/, float currentGain) const {
  CheckGain(currentGain);
  static const float startGain = currentGain;  // once per process, thread-safe
  switch (std::rand() % 3) {
    case 1:
      if (log10f(currentGain / startGain) <= 0.5f) return ComputeGain(currentGain, true);
      return currentGain;
    case 2:
      if (log10f(currentGain / startGain) >= -0.5f) return ComputeGain(currentGain, false);
      return currentGain;
    default:
      return currentGain;
  }
}

float AGC::ComputePower(AudioData::const_iterator first, AudioData::const_iterator last) {
  int64_t sumOfSquares = 0;  // exact: each square fits 31 bits
  for (AudioData::const_iterator it = first; it != last; ++it) {
    const int32_t s = *it;
    sumOfSquares += s * s;
  }
  return Power(sumOfSquares, static_cast<size_t>(last - first));
}

float AGC::Power(int64_t sumOfSquares, size_t numSamples) {
  if (numSamples == 0) return 0.0f;
  const double m = static_cast<double>(sumOfSquares) / static_cast<double>(numSamples);
  if (!(m > 1.0)) return 0.0f;
  return 10.0f * log10f(static_cast<float>(m));
}

float AGC::ComputeClippingFraction(AudioData::const_iterator first,
                                   AudioData::const_iterator last) {
  if (first == last) return 0.0f;
  // Counted without a branch in 16-bit lanes, a chunk at a time, so that the loop vectorises.
  size_t clipped = 0;
  for (AudioData::const_iterator chunk = first; chunk != last;) {
    const AudioData::const_iterator end = last - chunk > 65535 ? chunk + 65535 : last;
    uint16_t count = 0;
    // The two tests exclude each other, so their sum counts without a branch.
    for (; chunk != end; ++chunk) count += static_cast<uint16_t>((*chunk == 32767) + (*chunk == -32768));
    clipped += count;
  }
  // One rounding of the quotient to float, also for blocks beyond 2^24 samples.
  return static_cast<float>(static_cast<double>(clipped) / static_cast<double>(last - first));
}

void AGC::Process(AudioData::const_iterator first, AudioData::const_iterator last) {
  // ComputePower of the filtered frame, measured by the filter as it goes.
  _h.Update(Power(_f.Measure(first, last), static_cast<size_t>(last - first)));
}

float AGC::GetThreshold(float a, float b, float offset) const {
  const float t = std::max(a + offset, a + (b - a) * _interpolationWeight);
  return std::min(t, _thresholdUpperBound);
}

bool AGC::DetectSpeech(float a, float b) const {
  if (_speechWindowSize > _h.GetNumSamples()) return false;
  const float t = GetThreshold(a, b, _thresholdOffsetSpeech);
  const int count = _h.CountLast(_speechWindowSize, [t](float x) { return x >= t; });
  // 40 × 0.300000012 = 12.0000005 in double: 13 loud frames are needed, not 12.
  return count >= static_cast<double>(_speechWindowSize) * static_cast<double>(_speechFraction);
}

bool AGC::DetectPause(float a, float b) const {
  if (_pauseWindowSize > _h.GetNumSamples()) return false;
  const float t = GetThreshold(a, b, _thresholdOffsetPause);
  return _h.CountLast(_pauseWindowSize, [t](float x) { return x <= t; }) == _pauseWindowSize;
}

float AGC::ComputeGain(float currentGain, float clippingFraction) {
  const int p = static_cast<int>(Percent(_cutoffFraction));
  const float a = _h.GetLevel(p, true, 1);
  const float a2 = _h.GetLevel(p, true, _minLowerLevelFrames);
  const float b = _h.GetLevel(p, false, 1);
  const float b2 = _h.GetLevel(p, false, _minUpperLevelFrames);
  const int n = _h.GetNumSamples();
  const uint32_t timeMs = GetLogTimeMs();
  const uint32_t frameMs = static_cast<uint32_t>(GetFrameSizeMs());
  LogMeasurement(timeMs, currentGain, a, a2, b2, b, clippingFraction, n);
  GainDecision decision{timeMs, currentGain, a, a2, b2, b, clippingFraction, n,
                        GainDecision::Nil, timeMs, false, currentGain};

  if (a2 < _minLowerBound && b < _lowerBound) {
    return Jump(currentGain, true, _fastStepSizeUp, timeMs, decision);
  }
  if (b2 > _upperBound) {
    return Jump(currentGain, false, _fastStepSizeDown, timeMs, decision);
  }
  if (_state == Initial) {
    if (DetectSpeech(a, b)) {
      _rising = true;
      _upperLevelRef = b;
      _state = Speech;
      const uint32_t onsetMs = timeMs - frameMs * static_cast<uint32_t>(_speechWindowSize);
      _logStream << "\t " << ToString(GainDecision::SpeechOnset) << ":" << onsetMs << "\n";
      return Decided(decision, GainDecision::SpeechOnset, onsetMs, false, currentGain);
    }
    _logStream << "\t " << ToString(GainDecision::Nil) << ":" << timeMs << "\n";
    return Decided(decision, GainDecision::Nil, timeMs, false, currentGain);
  }
  if (DetectPause(a, b)) {
    _state = Initial;
    const uint32_t pauseMs = timeMs - frameMs * static_cast<uint32_t>(_pauseWindowSize);
    _logStream << "\t " << ToString(GainDecision::Pause) << ":" << pauseMs << "\n";
    return Decided(decision, GainDecision::Pause, pauseMs, false, currentGain);
  }
  _logStream << "\t " << ToString(GainDecision::Nil) << ":" << timeMs;
  if (b > _upperLevelRef) {
    _upperLevelRef = b;
    if (_rising) {  // no increase while the speech level still climbs
      _logStream << "\n";
      return Decided(decision, GainDecision::Nil, timeMs, false, currentGain);
    }
  } else {
    _rising = false;
  }
  if (b < _lowerBound && b >= _upperLevelRef - _upperLevelRefDelta &&
      b - a >= _thresholdOffsetSpeech) {
    const float newGain = NewGain(currentGain, true, 1);
    LogNewGain(newGain);
    return Decided(decision, GainDecision::Nil, timeMs, true, newGain);
  }
  _logStream << "\n";
  return Decided(decision, GainDecision::Nil, timeMs, false, currentGain);
}

float AGC::Jump(float currentGain, bool increase, int stepSize, uint32_t timeMs,
                GainDecision& decision) {
  const float newGain = NewGain(currentGain, increase, stepSize);
  _state = Initial;
  const GainDecision::Outcome outcome = increase ? GainDecision::TooLow : GainDecision::TooHigh;
  _logStream << "\t " << ToString(outcome) << ":" << timeMs;
  LogNewGain(newGain);
  return Decided(decision, outcome, timeMs, true, newGain);
}

float AGC::Decided(GainDecision& decision, GainDecision::Outcome outcome, uint32_t outcomeTimeMs,
                   bool stepped, float newGain) const {
  decision.outcome = outcome;
  decision.outcomeTimeMs = outcomeTimeMs;
  decision.stepped = stepped;
  decision.newGain = newGain;
  if (_decisionObserver) _decisionObserver(decision);
  return newGain;
}

std::vector<std::string> AGC::GetParameterKeys() {
  std::vector<std::string> keys;
  ForEachKey([&keys](const auto& key) { keys.push_back(key.name); });
  return keys;
}

std::map<std::string, std::string> AGC::GetParameterDefaults() {
  Parameters defaults;
  ForEachKey([&defaults](const auto& key) { defaults.Set(key.name, key.defaultValue); });
  return std::move(defaults);
}

std::map<std::string, std::string> AGC::GetParameterReadTexts(const std::string& params) {
  return Parameters(params).GetReadTexts([](auto&& f) { ForEachKey(f); });
}

float AGC::NewGain(float currentGain, bool increase, int stepSize) {
  _h.Reset();  // levels measured at the old gain no longer apply
  return ComputeGain(currentGain, increase, stepSize);
}

float AGC::ComputeGain(float g, bool increase) const {
  KT_ASSERT(g >= 0.0f);
  KT_ASSERT(g <= 1.0f);
  float r;
  if (_relativeGain) {
    r = increase ? g * (1.0f + _deltaGain) : g * (1.0f - _deltaGain);
  } else {
    r = increase ? g + _deltaGain : g - _deltaGain;
  }
  if (r > 1.0f) r = 1.0f;
  if (_leastGain > r) r = _leastGain;  // after the ceiling: the floor wins
  return r;
}

float AGC::ComputeGain(float g, bool increase, int stepSize) const {
  // Once a step changes nothing neither do the rest: any step count ends quickly.
  for (int i = 0; i < stepSize; ++i) {
    const float r = ComputeGain(g, increase);
    if (r == g) break;
    g = r;
  }
  return g;
}

void AGC::LogMeasurement(uint32_t timeMs, float currentGain, float a, float a2, float b2,
                         float b, float clippingFraction, int n) {
  if (!_logStream) return;
  _logStream << timeMs << "\t " << currentGain << "\t" << a << "\t " << a2 << "\t " << b2
             << "\t " << b << "\t " << clippingFraction << "\t " << n;
}

void AGC::LogNewGain(float newGain) { _logStream << "\t# " << newGain << "\n"; }

}  // namespace kt
