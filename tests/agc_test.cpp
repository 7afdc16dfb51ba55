#include "agc.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "agc_test_access.h"

namespace {

using kt::AGC;
using kt::AudioData;
using Access = kt::AGCTestAccess;

int BinSum(const AGC::Histogram& h) {
  return std::accumulate(h._histogram.begin(), h._histogram.end(), 0);
}

std::string ErrorOf(const std::string& params, int rate = 16000) {
  try {
    AGC agc(params, rate);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "";
}

// ---- level histogram ----

AGC::Histogram MakeHistogram(int windowSize) {
  AGC::Histogram h(0, 0);
  h.SetSize(windowSize, 400);
  return h;
}

TEST(AGCHistogramTest, QuarterDecibelBins) {
  AGC::Histogram h = MakeHistogram(10);
  h.Update(0.0f);
  h.Update(99.99f);
  h.Update(12.3f);
  EXPECT_EQ(h._histogram[0], 1);
  EXPECT_EQ(h._histogram[399], 1);
  EXPECT_EQ(h._histogram[49], 1);
  EXPECT_EQ(h._window[2], 12.3f);  // stored unscaled
  EXPECT_EQ(h.GetLevel(50, true, 2), 12.25f);
}

TEST(AGCHistogramTest, RefusesLevelsOutsideTheBins) {
  AGC::Histogram h = MakeHistogram(10);
  const std::string text = "z >= 0.0f && (int)z < _histogram.size()";
  for (float x : {100.0f, -0.1f, std::nanf("")}) {  // -0.1 would truncate into bin 0
    try {
      h.Update(x);
      ADD_FAILURE() << x << " was accepted";
    } catch (const std::logic_error& e) {
      EXPECT_EQ(e.what(), text);
    }
  }
  EXPECT_EQ(h._wIndex, 0);
  EXPECT_EQ(BinSum(h), 0);
}

TEST(AGCHistogramTest, WindowReplacesTheOldestLevel) {
  AGC::Histogram h = MakeHistogram(5);
  for (int i = 0; i < 4; ++i) h.Update(10.0f + i);
  EXPECT_EQ(h.GetNumSamples(), 4);
  h.Update(14.0f);
  h.Update(20.0f);  // 10 dB leaves
  EXPECT_EQ(h.GetNumSamples(), 5);
  EXPECT_EQ(h._histogram[40], 0);
  EXPECT_EQ(h._histogram[80], 1);
  EXPECT_EQ(BinSum(h), 5);
  EXPECT_EQ(h.GetLevel(0, true, 1), 11.0f);

  for (int i = 0; i < 103; ++i) {
    h.Update(static_cast<float>(i % 90));
    EXPECT_GE(h._wIndex, 5);
    EXPECT_LE(h._wIndex, 10);
    EXPECT_EQ(BinSum(h), 5);
  }
  // The last five levels, in order, sit in the slots _wIndex - 5 ... _wIndex - 1.
  for (int k = 0; k < 5; ++k) {
    EXPECT_EQ(h._window[(h._wIndex - 5 + k) % 5], static_cast<float>((98 + k) % 90));
  }
}

TEST(AGCHistogramTest, PercentileWalks) {
  AGC::Histogram h = MakeHistogram(100);
  for (int i = 0; i < 100; ++i) h.Update(20.0f + 0.25f * i);  // 20 ... 44.75 dB
  EXPECT_EQ(h.GetLevel(0, true, 1), 20.0f);
  EXPECT_EQ(h.GetLevel(0, false, 1), 44.75f);
  EXPECT_EQ(h.GetLevel(100, true, 1), 44.75f);
  EXPECT_EQ(h.GetLevel(10, true, 1), 22.25f);   // 10th lowest
  EXPECT_EQ(h.GetLevel(10, false, 1), 42.5f);   // 10th highest
  EXPECT_EQ(h.GetLevel(10, true, 11), 22.5f);   // minSamples walks on
  EXPECT_EQ(h.GetLevel(10, false, 11), 42.25f);
}

TEST(AGCHistogramTest, PreconditionsOfTheWalk) {
  AGC::Histogram h = MakeHistogram(10);
  auto errorOf = [&h](int percent, int minSamples) -> std::string {
    try {
      h.GetLevel(percent, true, minSamples);
    } catch (const std::logic_error& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(errorOf(10, 1), "_wIndex > 0");
  h.Update(30.0f);
  h.Update(31.0f);
  EXPECT_EQ(errorOf(-1, 1), "percent >= 0");
  EXPECT_EQ(errorOf(101, 1), "percent <= 100");
  EXPECT_EQ(errorOf(10, 3), "n >= minSamples");
  EXPECT_EQ(errorOf(10, 2), "");
  h.Reset();
  EXPECT_EQ(errorOf(10, 1), "_wIndex > 0");
  EXPECT_EQ(BinSum(h), 0);
}

// ---- configuration ----

TEST(AGCConfigTest, Defaults) {
  const AGC agc("", 16000);
  EXPECT_EQ(Access::MinUpdateFrames(agc), 4);
  EXPECT_EQ(Access::MinLowerLevelFrames(agc), 4);
  EXPECT_EQ(Access::MinUpperLevelFrames(agc), 4);
  EXPECT_EQ(Access::Histogram(agc).GetWindowSize(), 100);
  EXPECT_EQ(Access::SpeechWindowSize(agc), 40);
  EXPECT_EQ(Access::PauseWindowSize(agc), 25);
  EXPECT_EQ(Access::Histogram(agc)._histogram.size(), 400u);
  EXPECT_TRUE(Access::RelativeGain(agc));
  EXPECT_EQ(Access::State(agc), AGC::Initial);
  EXPECT_EQ(AGC::GetFrameSizeMs(), 20);
}

TEST(AGCConfigTest, DurationsTruncateToFrames) {
  AGC agc("WindowSizeMs=2010;PauseWindowSizeMs=30;SpeechWindowSizeMs=39", 16000);
  EXPECT_EQ(Access::Histogram(agc).GetWindowSize(), 100);
  EXPECT_EQ(Access::PauseWindowSize(agc), 1);
  EXPECT_EQ(Access::SpeechWindowSize(agc), 1);
}

TEST(AGCConfigTest, OnlyTheExactWordTrueGivesRelativeSteps) {
  EXPECT_TRUE(Access::RelativeGain(AGC("RelativeGain=true", 8000)));
  EXPECT_TRUE(Access::RelativeGain(AGC("RelativeGain=true yes", 8000)));
  EXPECT_FALSE(Access::RelativeGain(AGC("RelativeGain=TRUE", 8000)));
  EXPECT_FALSE(Access::RelativeGain(AGC("RelativeGain=1", 8000)));
}

TEST(AGCConfigTest, RefusesWhatCannotWork) {
  EXPECT_EQ(ErrorOf("", 44100), "Sampling rate");
  EXPECT_EQ(ErrorOf("broken", 44100), "Sampling rate");  // the rate is checked first
  EXPECT_EQ(ErrorOf("broken"), "Invalid format");
  EXPECT_EQ(ErrorOf("LeastGain=small"), "Invalid format");
  EXPECT_EQ(ErrorOf("MinLowerLevelSizeMs=100"), "_minUpdateFrames >= _minLowerLevelFrames");
  EXPECT_EQ(ErrorOf("MinUpperLevelSizeMs=100"), "_minUpdateFrames >= _minUpperLevelFrames");
  EXPECT_EQ(ErrorOf("MinUpdateIntervalMs=100;MinUpperLevelSizeMs=100"), "");
  // Range refusals, each beside the nearest accepted value.
  const std::vector<std::pair<std::string, bool>> cases = {
      {"MinUpdateIntervalMs=-20", false},
      {"SpeechWindowSizeMs=-1", false},
      {"PauseWindowSizeMs=-40", false},
      {"WindowSizeMs=19", false},
      {"WindowSizeMs=79", false},  // fewer levels than a reading must pass
      {"WindowSizeMs=80", true},
      {"MinUpdateIntervalMs=20;MinLowerLevelSizeMs=20;MinUpperLevelSizeMs=20;WindowSizeMs=20",
       true},
      {"WindowSizeMs=600000", true},
      {"WindowSizeMs=600001", false},
      {"MinUpdateIntervalMs=600020", false},
      {"MinUpdateIntervalMs=300;MinLowerLevelSizeMs=300;WindowSizeMs=280", false},
      {"LeastGain=1.01", false},
      {"LeastGain=-0.001", false},
      {"LeastGain=1", true},
      {"LeastGain=0", true},
      {"CutoffFraction=1.01", false},
      {"CutoffFraction=-0.1", false},
      {"DeltaGain=1", false},
      {"DeltaGain=-0.01", false},
      {"DeltaGain=0", true},
      {"DeltaGain=0.99", true},
      {"FastStepSizeUp=1001", false},
      {"FastStepSizeDown=2000000000", false},
      {"FastStepSizeUp=1000;FastStepSizeDown=0", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ErrorOf(c.first), c.second ? "" : "Value out of range") << c.first;
  }
}

// ---- frame measurement ----

TEST(AGCMeasureTest, Power) {
  const AudioData silence(320, 0);
  EXPECT_EQ(AGC::ComputePower(silence.cbegin(), silence.cend()), 0.0f);
  EXPECT_EQ(AGC::ComputePower(silence.cbegin(), silence.cbegin()), 0.0f);
  const AudioData ones = {1, -1, 1, -1};
  EXPECT_EQ(AGC::ComputePower(ones.cbegin(), ones.cend()), 0.0f);  // mean square 1
  const AudioData small = {1, -1, 2, 0};                          // mean square 1.5
  EXPECT_EQ(AGC::ComputePower(small.cbegin(), small.cend()), 10.0f * log10f(1.5f));

  // 1000 full-scale squares sum beyond 32 bits.
  AudioData full(1000);
  for (size_t i = 0; i < full.size(); ++i) full[i] = (i % 2) ? -32768 : 32767;
  const float power = AGC::ComputePower(full.cbegin(), full.cend());
  EXPECT_EQ(power, 10.0f * log10f(1073709056.5f));
  EXPECT_NEAR(power, 90.309, 0.001);
}

TEST(AGCMeasureTest, ClippingFraction) {
  const AudioData none;
  EXPECT_EQ(AGC::ComputeClippingFraction(none.cbegin(), none.cend()), 0.0f);
  const AudioData half = {32767, 0, -32768, 32766, -32767, 7, -32768, 32767};
  EXPECT_EQ(AGC::ComputeClippingFraction(half.cbegin(), half.cend()), 0.5f);
  const AudioData full = {32767, -32768};
  EXPECT_EQ(AGC::ComputeClippingFraction(full.cbegin(), full.cend()), 1.0f);
}

// ---- speech and pause tests ----

TEST(AGCDetectTest, Thresholds) {
  const AGC agc("", 16000);
  EXPECT_EQ(Access::GetThreshold(agc, 30.0f, 60.0f, 16.0f), 46.0f);
  EXPECT_EQ(Access::GetThreshold(agc, 30.0f, 60.0f, 6.0f), 39.0f);
  EXPECT_EQ(Access::GetThreshold(agc, 60.0f, 90.0f, 16.0f), 70.0f);  // capped
}

TEST(AGCDetectTest, SpeechNeeds13Of40LoudLevels) {
  AGC agc("", 16000);
  // Speech threshold for a = 30, b = 60 is 46 dB.
  std::vector<float> levels(39, 30.0f);
  for (int i = 0; i < 13; ++i) levels[3 * i] = 46.0f;
  Access::AddLevels(agc, levels);
  EXPECT_FALSE(Access::DetectSpeech(agc, 30.0f, 60.0f));  // 39 levels only

  AGC twelve("", 16000);
  std::vector<float> fewer(40, 45.75f);
  for (int i = 0; i < 12; ++i) fewer[3 * i + 1] = 46.0f;
  Access::AddLevels(twelve, fewer);
  EXPECT_FALSE(Access::DetectSpeech(twelve, 30.0f, 60.0f));
  Access::AddLevels(twelve, {46.0f});  // the newest level makes 13
  EXPECT_TRUE(Access::DetectSpeech(twelve, 30.0f, 60.0f));
}

TEST(AGCDetectTest, PauseNeedsTheWholeWindowQuiet) {
  AGC agc("", 16000);
  Access::AddLevels(agc, std::vector<float>(24, 39.0f));
  EXPECT_FALSE(Access::DetectPause(agc, 30.0f, 60.0f));  // fewer than 25 levels
  Access::AddLevels(agc, {39.0f});
  EXPECT_TRUE(Access::DetectPause(agc, 30.0f, 60.0f));
  Access::AddLevels(agc, {39.25f});
  EXPECT_FALSE(Access::DetectPause(agc, 30.0f, 60.0f));
  Access::AddLevels(agc, std::vector<float>(24, 20.0f));
  EXPECT_FALSE(Access::DetectPause(agc, 30.0f, 60.0f));
  Access::AddLevels(agc, {20.0f});  // 39.25 has left the last 25
  EXPECT_TRUE(Access::DetectPause(agc, 30.0f, 60.0f));
}

// ---- gain steps ----

TEST(AGCStepTest, RelativeSteps) {
  const AGC agc("", 16000);
  EXPECT_EQ(Access::Step(agc, 0.5f, true), 0.575f);
  EXPECT_EQ(Access::Step(agc, 0.5f, false), 0.425f);
  EXPECT_EQ(Access::Steps(agc, 0.5f, true, 4), 0x1.bfbedep-1f);   // 0.8745
  EXPECT_EQ(Access::Steps(agc, 0.5f, false, 2), 0x1.71eb86p-2f);  // 0.36125
  EXPECT_EQ(Access::Step(agc, 0.9f, true), 1.0f);
  EXPECT_EQ(Access::Steps(agc, 0.5f, true, 0), 0.5f);
  EXPECT_EQ(Access::Steps(agc, 0.5f, false, -3), 0.5f);
  EXPECT_EQ(Access::Steps(agc, 0.01f, false, 1000), 0.001f);  // never below LeastGain
  EXPECT_EQ(Access::Steps(agc, 0.0f, true, 1), 0.001f);
}

TEST(AGCStepTest, AdditiveStepsAreFlooredAtTheLeastGain) {
  const AGC agc("RelativeGain=false", 16000);
  EXPECT_EQ(Access::Step(agc, 0.5f, true), 0.65f);
  EXPECT_EQ(Access::Step(agc, 0.1f, false), 0.001f);
  EXPECT_EQ(Access::Step(agc, 0.9f, true), 1.0f);
}

TEST(AGCStepTest, StepsNeedAGainFrom0To1) {
  const AGC agc("", 16000);
  EXPECT_THROW(Access::Step(agc, 1.5f, true), std::logic_error);
  try {
    Access::Step(agc, -0.5f, true);
    ADD_FAILURE();
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "g >= 0.0f");
  }
}

TEST(AGCStepTest, MedianGain) {
  EXPECT_NEAR(AGC("", 16000).GetMedianGain(), 0.041013, 5e-7);
  EXPECT_EQ(AGC("RelativeGain=false", 16000).GetMedianGain(), 0.5f);
}

}  // namespace
