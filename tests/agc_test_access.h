#pragma once
// Reaches into kt::AGC for the gain-control tests.
#include <cmath>
#include <cstddef>
#include <vector>

#include "agc.h"

namespace kt {

class AGCTestAccess {
 public:
  static AGC::Histogram& Histogram(AGC& agc) { return agc._h; }
  static const AGC::Histogram& Histogram(const AGC& agc) { return agc._h; }
  static const AudioData& Buffer(const AGC& agc) { return agc._audioBuffer; }
  static AGC::State State(const AGC& agc) { return agc._state; }
  static bool Rising(const AGC& agc) { return agc._rising; }
  static float UpperLevelRef(const AGC& agc) { return agc._upperLevelRef; }
  static bool RelativeGain(const AGC& agc) { return agc._relativeGain; }

  static int MinUpdateFrames(const AGC& agc) { return agc._minUpdateFrames; }
  static int MinLowerLevelFrames(const AGC& agc) { return agc._minLowerLevelFrames; }
  static int MinUpperLevelFrames(const AGC& agc) { return agc._minUpperLevelFrames; }
  static int SpeechWindowSize(const AGC& agc) { return agc._speechWindowSize; }
  static int PauseWindowSize(const AGC& agc) { return agc._pauseWindowSize; }

  static void SetPhase(AGC& agc, AGC::State state, bool rising, float upperLevelRef) {
    agc._state = state;
    agc._rising = rising;
    agc._upperLevelRef = upperLevelRef;
  }
  static void SetTimeMs(AGC& agc, double timeMs) { agc._timeMs = timeMs; }
  static void SetCutoffFraction(AGC& agc, float fraction) { agc._cutoffFraction = fraction; }

  // Adds levels to the histogram as if measured, oldest first.
  static void AddLevels(AGC& agc, const std::vector<float>& levels) {
    for (float x : levels) agc._h.Update(x);
  }

  static bool DetectSpeech(const AGC& agc, float a, float b) { return agc.DetectSpeech(a, b); }
  static bool DetectPause(const AGC& agc, float a, float b) { return agc.DetectPause(a, b); }
  static float GetThreshold(const AGC& agc, float a, float b, float offset) {
    return agc.GetThreshold(a, b, offset);
  }
  static float Decide(AGC& agc, float currentGain) { return agc.ComputeGain(currentGain, 0.0f); }
  static float Step(const AGC& agc, float g, bool increase) { return agc.ComputeGain(g, increase); }
  static float Steps(const AGC& agc, float g, bool increase, int stepSize) {
    return agc.ComputeGain(g, increase, stepSize);
  }
  static void LogMeasurement(AGC& agc, uint32_t timeMs, float currentGain, float a, float a2,
                             float b2, float b, float clippingFraction, int n) {
    agc.LogMeasurement(timeMs, currentGain, a, a2, b2, b, clippingFraction, n);
  }
};

// A 1 kHz tone of the given amplitude, continuing from sample offset; the high-pass filter
// passes it at about 0.95, so amplitude 6300 measures 72 dB and 1600 about 60 dB at 16 kHz.
inline AudioData Tone(int samplingRate, size_t offset, size_t n, double amplitude) {
  AudioData a(n);
  const double pi = 3.14159265358979323846;
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(offset + i) / samplingRate;
    a[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2.0 * pi * 1000.0 * t)));
  }
  return a;
}

}  // namespace kt
