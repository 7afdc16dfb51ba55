#pragma once
// Automatic gain control: measures 20 ms frames into a quarter-dB level histogram and,
// from its low and high percentiles, decides the recording gain to set next.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "audiodata.h"
#include "export.h"
#include "highpassfilter.h"

namespace kt {

// Optional diagnostic stream, shared with the host; may be empty.
using ostreamptr = std::shared_ptr<std::ostream>;

// Writes x with the stream's own formatting and flushes at once; an empty holder
// writes nothing. Returns os so that writes chain. Outside kt: using kt::operator<<.
template <typename T>
ostreamptr& operator<<(ostreamptr& os, const T& x) {
  if (os) {
    *os << x;
    os->flush();
  }
  return os;
}

// One gain decision, with the values its diagnostic log line prints. Levels in dB.
struct GainDecision {
  enum Outcome { TooLow, TooHigh, SpeechOnset, Pause, Nil };
  uint32_t timeMs;          // since the last reset, as the log writes it
  float currentGain;
  float lowerLevel;         // a: the low percentile of the levels
  float lowerLevel2;        // a2: the same over at least "MinLowerLevelSizeMs" of levels
  float upperLevel2;        // b2: the high percentile over at least "MinUpperLevelSizeMs"
  float upperLevel;         // b: the high percentile
  float clippingFraction;
  int numLevels;            // n: levels in the histogram
  Outcome outcome;
  uint32_t outcomeTimeMs;   // the time after the record word: onsets and pauses dated back
  bool stepped;             // the gain was stepped ("# newGain"), even when it stayed equal
  float newGain;            // the gain returned
};

// The outcome's record word in the diagnostic log, "toolow" for TooLow ("speech" for
// SpeechOnset); "" for a value outside the enum.
KTFRONT_API const char* ToString(GainDecision::Outcome outcome);

// Configuration refusals (std::invalid_argument), each with its reason:
// - "Value out of range":
//   - a negative duration key: it has no meaning as a count of frames;
//   - a "WindowSizeMs" of less than one frame (no level could be kept) or of fewer frames
//     than "MinLowerLevelSizeMs" or "MinUpperLevelSizeMs" (a reading would ask the
//     window for more levels than it can hold);
//   - a "CutoffFraction" whose percentile, 100 times it truncated, lies outside 0 to 100
//     (a fraction beyond 1.01f or -0.01f): the levels are read at that percentile;
//   - a "LeastGain" outside 0 to 1: the floor is applied after the ceiling of 1, and a
//     negative gain has no 16-bit or host-scale value;
//   - with relative steps, a "DeltaGain" outside -1 to 1: the median gain takes the
//     logarithm of (1 - d) / (1 + d), which is then undefined; and a "DeltaGain" of 1 or
//     -1 with a "LeastGain" of 0, whose median gain is -inf / -inf steps (with any other
//     least gain it is 1).
// - "_minUpdateFrames >= _minLowerLevelFrames", "_minUpdateFrames >= _minUpperLevelFrames":
//   an update would otherwise ask the histogram for more levels than it holds.
// Everything else is taken as given: long durations (memory grows with them; running out
// is std::bad_alloc), any step count (0 or less means no step), and additive steps of any
// size.
class AGC {
 public:
  enum State : int32_t { Speech = 0, Initial = 1 };

  // Levels of the most recent frames in a circular window, counted in quarter-dB bins.
  struct Histogram {
    static const int _scaleFactor = 4;  // bins per dB

    // Bins counted together in _groups, so that GetLevel passes empty stretches quickly.
    static const int kBinsPerGroup = 16;

    int32_t _wIndex = 0;  // write counter, folded to stay within [W, 2W] once full
    std::vector<float> _window;
    std::vector<int32_t> _histogram;
    std::vector<int32_t> _groups;  // group g: the sum of bins [16g, 16g + 16)

    Histogram(int windowSize, int histogramSize) { SetSize(windowSize, histogramSize); }

    void SetSize(int windowSize, int histogramSize) {
      _window.resize(windowSize, 0.0f);
      _histogram.resize(histogramSize, 0);
      _groups.resize((histogramSize + kBinsPerGroup - 1) / kBinsPerGroup, 0);
      Reset();
    }

    // The window's values stay; they are unreachable until overwritten.
    void Reset() {
      _wIndex = 0;
      std::fill(_histogram.begin(), _histogram.end(), 0);
      std::fill(_groups.begin(), _groups.end(), 0);
    }

    KTFRONT_API void Update(float x);

    int GetNumSamples() const {
      const int w = GetWindowSize();
      return _wIndex < w ? _wIndex : w;
    }

    int GetWindowSize() const { return static_cast<int>(_window.size()); }

    // How many of the last k levels (k at most GetNumSamples()) satisfy pred.
    template <typename Predicate>
    int CountLast(int k, Predicate pred) const {
      const int w = GetWindowSize();
      int count = 0;
      for (int i = _wIndex - k; i < _wIndex; ++i) {
        if (pred(_window[i % w])) ++count;
      }
      return count;
    }

    // Lower edge (dB) of the first bin, walked from the bottom (b) or the top, at which
    // at least minSamples levels and percent of all levels have been passed.
    KTFRONT_API float GetLevel(int percent, bool b, int minSamples) const;
  };

  KTFRONT_API AGC(const std::string& keyValuePairs, int samplingRate);

  // Starts over: phase, clock, levels and filter memory. Keeps configuration,
  // buffered audio and log stream.
  KTFRONT_API void Reset();

  // The gain to set next, given the block recorded at currentGain. A gain outside 0 to 1
  // (or NaN) is refused with std::invalid_argument("currentGain >= 0.0f") or
  // ("currentGain <= 1.0f") before anything changes.
  KTFRONT_API float ComputeGain(const AudioData& a, float currentGain);
  // The same on the scale 0 to 65535; an unchanged gain comes back bit for bit.
  KTFRONT_API unsigned short ComputeGain(const AudioData& a, unsigned short gain);
  // Both for samples held elsewhere (a binding's array), read in place.
  KTFRONT_API float ComputeGain(const int16_t* samples, size_t count, float currentGain);
  KTFRONT_API unsigned short ComputeGain(const int16_t* samples, size_t count, unsigned short gain);

  // The neutral gain, returned for a current gain of 0.
  KTFRONT_API float GetMedianGain() const;

  // Random walk of at most one step per call, within about a factor of 3.16 of the
  // first gain this process passed in. A test aid; a is ignored. Refuses a gain outside
  // 0 to 1 as ComputeGain does.
  KTFRONT_API float ComputeGainRandom(const AudioData& a, float currentGain) const;

  void SetLogStream(ostreamptr logStream) { _logStream = std::move(logStream); }
  // Called once per decision, after its log line; an empty function removes it. An
  // exception from the observer leaves ComputeGain after the decision took effect.
  void SetDecisionObserver(std::function<void(const GainDecision&)> observer) {
    _decisionObserver = std::move(observer);
  }
  // Every key the constructor reads.
  KTFRONT_API static std::vector<std::string> GetParameterKeys();
  // Each of those keys with the value it takes when absent, as a parameter string writes it.
  KTFRONT_API static std::map<std::string, std::string> GetParameterDefaults();
  // Each key of the string that is read, with the part of its value that is read (leading
  // blanks skipped; the rest is ignored, as Parameters::Get does; empty when it cannot be
  // read). Throws std::invalid_argument("Invalid format") when the string is malformed.
  KTFRONT_API static std::map<std::string, std::string> GetParameterReadTexts(const std::string& params);

  static int GetFrameSizeMs() { return 20; }

  KTFRONT_API static float ComputePower(AudioData::const_iterator first,
                                       AudioData::const_iterator last);
  KTFRONT_API static float ComputeClippingFraction(AudioData::const_iterator first,
                                                   AudioData::const_iterator last);

 private:
  friend class AGCTestAccess;

  // Filters one frame of raw samples and adds its level to the histogram.
  void Process(AudioData::const_iterator first, AudioData::const_iterator last);
  // 10 log10 of the mean square in single precision, 0 when it is at most 1 or empty.
  static float Power(int64_t sumOfSquares, size_t numSamples);
  bool DetectSpeech(float a, float b) const;
  bool DetectPause(float a, float b) const;
  float GetThreshold(float a, float b, float offset) const;

  float ComputeGain(float currentGain, float clippingFraction);
  float NewGain(float currentGain, bool increase, int stepSize);
  float ComputeGain(float g, bool increase) const;
  float ComputeGain(float g, bool increase, int stepSize) const;

  int GetSamplesPerFrame() const { return GetFrameSizeMs() * _samplingRate / 1000; }
  // Milliseconds since the last reset as the log writes them; wraps after 49.7 days.
  uint32_t GetLogTimeMs() const {
    return static_cast<uint32_t>(static_cast<uint64_t>(_timeMs));
  }
  // A jump of stepSize steps that forgets the levels and restarts in Initial.
  float Jump(float currentGain, bool increase, int stepSize, uint32_t timeMs,
             GainDecision& decision);
  // Completes the decision, hands it to the observer and returns its new gain.
  float Decided(GainDecision& decision, GainDecision::Outcome outcome, uint32_t outcomeTimeMs,
                bool stepped, float newGain) const;
  void LogMeasurement(uint32_t timeMs, float currentGain, float a, float a2, float b2,
                      float b, float clippingFraction, int n);
  void LogNewGain(float newGain);

  State _state;
  double _timeMs;
  int _samplingRate;
  int _speechWindowSize;
  float _speechFraction;
  int _pauseWindowSize;
  int _minUpdateFrames;
  int _minLowerLevelFrames;
  int _minUpperLevelFrames;
  float _minLowerBound;
  float _lowerBound;
  float _upperBound;
  bool _rising;
  float _upperLevelRef;
  float _upperLevelRefDelta;
  float _cutoffFraction;
  float _interpolationWeight;
  float _thresholdOffsetSpeech;
  float _thresholdOffsetPause;
  float _thresholdUpperBound;
  int _fastStepSizeUp;
  int _fastStepSizeDown;
  float _leastGain;
  float _deltaGain;
  bool _relativeGain;
  Histogram _h;
  HighpassFilter _f;
  AudioData _audioBuffer;
  ostreamptr _logStream;
  std::function<void(const GainDecision&)> _decisionObserver;
};

// The phase's name, "Speech" or "Initial"; "" for a value outside the enum.
KTFRONT_API const char* ToString(AGC::State state);

}  // namespace kt
