// The gain control through its public operations: measurement, steps, the 16-bit scale,
// decisions on steady signals, what every key does, refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "agc.h"
#include "trace.h"

namespace {

using kt::AGC;
using kt::AudioData;

// A square wave of the given amplitude: every frame measures 20 log10(amplitude).
AudioData Square(size_t n, int amplitude) {
  AudioData a(n);
  for (size_t i = 0; i < n; ++i) a[i] = static_cast<int16_t>(i % 2 ? amplitude : -amplitude);
  return a;
}

TEST(AGCTest, PowerAndClipping) {
  const AudioData silence(160, 0), ones = Square(160, 1), full = {32767, -32768, 32767, -32768};
  EXPECT_EQ(AGC::ComputePower(silence.begin(), silence.end()), 0.0f);
  EXPECT_EQ(AGC::ComputePower(ones.begin(), ones.end()), 0.0f);
  EXPECT_EQ(AGC::ComputePower(full.begin(), full.end()), 10.0f * log10f(1073709056.5f));
  EXPECT_EQ(AGC::ComputePower(full.begin(), full.begin()), 0.0f);
  EXPECT_EQ(AGC::ComputePower(full.begin(), full.begin() + 1), 10.0f * log10f(32767.0f * 32767.0f));
  EXPECT_EQ(AGC::ComputeClippingFraction(full.begin(), full.end()), 1.0f);
  const AudioData some = {32767, 5, -32768, -32767, 0};
  EXPECT_EQ(AGC::ComputeClippingFraction(some.begin(), some.end()), 0.4f);
  EXPECT_EQ(AGC::ComputeClippingFraction(some.begin(), some.begin()), 0.0f);
  const AudioData clipped(200000, -32768);  // beyond what one 16-bit count can hold
  EXPECT_EQ(AGC::ComputeClippingFraction(clipped.begin(), clipped.end()), 1.0f);
}

// A level is the lower edge of the first bin where at least minSamples levels and percent
// of all levels are passed: 10 of 101 levels are below 10 per cent.
TEST(AGCTest, LevelPercentiles) {
  AGC::Histogram h(101, 400);
  for (int i = 0; i < 101; ++i) h.Update(i < 10 ? 20.0f : 50.25f);
  EXPECT_EQ(h.GetLevel(10, true, 1), 50.25f);
  EXPECT_EQ(h.GetLevel(9, true, 1), 20.0f);
  EXPECT_EQ(h.GetLevel(0, true, 11), 50.25f);
  EXPECT_EQ(h.GetLevel(91, false, 1), 20.0f);  // from the top: 91 of 101 are below 91 per cent
  EXPECT_EQ(h.GetLevel(90, false, 1), 50.25f);
  AGC::Histogram one(10, 400);
  EXPECT_THROW(one.GetLevel(50, true, 0), std::logic_error);  // no level yet
  one.Update(30.0f);
  EXPECT_EQ(one.GetLevel(50, true, 1), 30.0f);
}

// Digital silence is too low at every update: four relative steps up, a quarter-second
// block at a time; additive steps, one step of 0.3 each.
TEST(AGCTest, SilenceClimbsByJumps) {
  const AudioData silence(1600, 0);
  float g = 0.5f;
  for (int i = 0; i < 4; ++i) g = g * (1.0f + 0.15f);
  AGC agc("", 16000);
  EXPECT_EQ(agc.ComputeGain(AudioData(1599, 0), 0.5f), 0.5f);  // four whole frames: no update
  EXPECT_EQ(agc.ComputeGain(AudioData(1, 0), 0.5f), g);        // the fifth completes
  EXPECT_EQ(agc.ComputeGain(silence, g), 1.0f);
  AGC fresh("", 16000);
  AGC additive("RelativeGain=false;DeltaGain=0.3;FastStepSizeUp=1", 8000);
  EXPECT_EQ(additive.ComputeGain(AudioData(800, 0), 0.1f), 0.1f + 0.3f);
  EXPECT_EQ(additive.ComputeGain(Square(800, 10000), 0.9f), 0.9f - 0.3f - 0.3f);  // too high
  EXPECT_EQ(additive.GetMedianGain(), 0.5f);
  EXPECT_NEAR(fresh.GetMedianGain(), 0.041013f, 1e-6f);
  // Gain 0: the median gain; the block is not buffered.
  EXPECT_EQ(fresh.ComputeGain(silence, 0.0f), fresh.GetMedianGain());
}

// A steady tone is speech once 40 frames are measured exactly when it reaches 70 dB; too
// loud above 78 dB (two steps down).
TEST(AGCTest, SteadyTones) {
  const struct { int amplitude, calls; float gain; const char* params; } table[] = {
      {1000, 12, 0.5f, ""},                                    // 60 dB: nil, never speech
      {4000, 12, 0.5f, ""},                                    // 72 dB (71 filtered): speech, no change
      {4000, 12, 0.5f, "UpperBound=71"},                       // a bound equal to its level: not above
      {10000, 1, 0.5f * (1.0f - 0.15f) * (1.0f - 0.15f), ""},  // 80 dB: too high
  };
  for (const auto& row : table) {
    AGC agc(row.params, 8000);
    auto log = std::make_shared<std::ostringstream>();
    agc.SetLogStream(log);
    float g = 0.5f;
    for (int i = 0; i < row.calls; ++i) g = agc.ComputeGain(Square(800, row.amplitude), g);
    EXPECT_EQ(g, row.gain) << row.amplitude;
    const bool speech = log->str().find("speech:") != std::string::npos;
    EXPECT_EQ(speech, row.amplitude == 4000) << log->str();
  }
}

// The 16-bit scale is the exact product truncated, at every gain of the jump path.
TEST(AGCTest, SixteenBitScaleAtEveryGain) {
  AGC agc("", 8000);
  const AudioData silence(800, 0);
  int mismatches = 0;
  for (int gain = 1; gain <= 65535; ++gain) {
    float r = static_cast<float>(gain) / 65535.0f;
    for (int i = 0; i < 4; ++i) r = std::max(0.001f, std::min(1.0f, r * (1.0f + 0.15f)));
    const auto expected = static_cast<unsigned short>(static_cast<double>(r) * 65535.0);
    if (agc.ComputeGain(silence, static_cast<unsigned short>(gain)) != expected) ++mismatches;
  }
  EXPECT_EQ(mismatches, 0);
  EXPECT_EQ(agc.ComputeGain(silence, static_cast<unsigned short>(3773)), 6598);
  EXPECT_EQ(agc.ComputeGain(silence, static_cast<unsigned short>(5534)), 9678);
  EXPECT_EQ(agc.ComputeGain(silence, static_cast<unsigned short>(65535)), 65535);  // unchanged
}

// Each key, given a telling value, changes the log or the gains of a recording (against
// the defaults, or against a setting under which the key matters).
TEST(AGCTest, EveryKeyHasAnEffect) {
  const struct { const char* params; const char* base; } table[] = {
      {"MinUpdateIntervalMs=200", ""}, {"MinLowerLevelSizeMs=40", ""}, {"MinUpperLevelSizeMs=40", ""},
      {"WindowSizeMs=600", ""}, {"SpeechWindowSizeMs=200", ""}, {"SpeechFraction=0.9", ""},
      {"PauseWindowSizeMs=100", ""}, {"CutoffFraction=0.3", ""}, {"InterpolationWeight=0.9", ""},
      {"ThresholdOffsetSpeech=5", ""}, {"ThresholdOffsetPause=20", ""}, {"ThresholdUpperBound=20", ""},
      {"MinLowerBound=40", ""}, {"LowerBound=70", ""}, {"UpperBound=45", ""},
      {"UpperLevelRefDelta=-5", ""}, {"FastStepSizeUp=1", ""}, {"LeastGain=0.3", ""}, {"DeltaGain=0.3", ""},
      {"RelativeGain=TRUE", ""}, {"UpperBound=45;FastStepSizeDown=5", "UpperBound=45"},
  };
  for (const auto& row : table) {
    EXPECT_NE(trace::Hash(trace::Agc(row.params, "forecast_16000.wav", 320)),
              trace::Hash(trace::Agc(row.base, "forecast_16000.wav", 320)))
        << row.params;
  }
}

// The random walk moves one relative step (up 1.15, down 0.85) in two calls of three and stays
// within half a decade (plus a step) of the first gain this process passed; its only caller.
TEST(AGCTest, RandomWalkStaysNearTheFirstGain) {
  const AGC agc("", 16000);
  std::srand(1);
  float g = 0.2f, low = g, high = g;
  int still = 0;
  for (int i = 0; i < 3000; ++i) {
    const float next = agc.ComputeGainRandom(AudioData(), g);
    still += next == g;
    g = next;
    low = std::min(low, g), high = std::max(high, g);
  }
  EXPECT_TRUE(low < 0.2f / 2.5f && low > 0.2f / 3.17f * 0.85f) << low;
  EXPECT_TRUE(high > 0.2f * 2.5f && high < 0.2f * 3.17f * 1.16f) << high;
  EXPECT_TRUE(still > 900 && still < 1300) << still;
}

TEST(AGCTest, RefusesOnlyWhatCannotWork) {
  const struct { const char* params; const char* what; } refused[] = {
      {"MinUpdateIntervalMs=-20", "Value out of range"},
      {"SpeechWindowSizeMs=-1", "Value out of range"},
      {"WindowSizeMs=19", "Value out of range"},
      {"WindowSizeMs=100;MinUpdateIntervalMs=120;MinLowerLevelSizeMs=120", "Value out of range"},
      {"MinUpdateIntervalMs=60;MinLowerLevelSizeMs=80", "_minUpdateFrames >= _minLowerLevelFrames"},
      {"MinUpdateIntervalMs=60;MinLowerLevelSizeMs=60;MinUpperLevelSizeMs=80",
       "_minUpdateFrames >= _minUpperLevelFrames"},
      {"CutoffFraction=3e7", "Value out of range"},
      {"CutoffFraction=1.02", "Value out of range"},
      {"CutoffFraction=-0.02", "Value out of range"},
      {"LeastGain=1.01", "Value out of range"},
      {"LeastGain=-0.1", "Value out of range"},
      {"DeltaGain=1.01", "Value out of range"},
      {"DeltaGain=-1.01", "Value out of range"},
      {"DeltaGain=1;LeastGain=0", "Value out of range"},
      {"DeltaGain=-1;LeastGain=-0", "Value out of range"},
      {"RelativeGain=true;x", "Invalid format"},
  };
  for (const auto& row : refused) {
    try {
      AGC agc(row.params, 8000);
      ADD_FAILURE() << row.params;
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), row.what) << row.params;
    }
  }
  EXPECT_THROW(AGC("", 44100), std::invalid_argument);
  // Taken as given: a window of one frame, long windows, large step counts, additive steps
  // of 1 or more.
  const AudioData silence(800, 0);
  AGC oneFrame("WindowSizeMs=20;MinUpdateIntervalMs=20;MinLowerLevelSizeMs=20;MinUpperLevelSizeMs=20", 8000);
  EXPECT_EQ(oneFrame.ComputeGain(silence, 0.01f), 0.01f * 1.15f * 1.15f * 1.15f * 1.15f);
  AGC longWindows("WindowSizeMs=700000;SpeechWindowSizeMs=700000;PauseWindowSizeMs=700000", 8000);
  EXPECT_EQ(longWindows.ComputeGain(silence, 0.01f), 0.01f * 1.15f * 1.15f * 1.15f * 1.15f);
  AGC manySteps("FastStepSizeUp=2000000000;FastStepSizeDown=2000000000", 8000);
  EXPECT_EQ(manySteps.ComputeGain(silence, 0.001f), 1.0f);
  AGC bigSteps("RelativeGain=false;DeltaGain=1.5", 8000);
  EXPECT_EQ(bigSteps.ComputeGain(silence, 0.001f), 1.0f);
  EXPECT_EQ(AGC("RelativeGain=no;DeltaGain=-3", 8000).ComputeGain(silence, 0.5f), 0.001f);
  // Relative steps of 1: the median gain is 1 by the formula's limit; a step up doubles or
  // reaches the floor.
  AGC doubling("DeltaGain=1", 8000);
  EXPECT_EQ(doubling.GetMedianGain(), 1.0f);
  EXPECT_EQ(doubling.ComputeGain(silence, 0.01f), 0.16f);
  AGC vanishing("DeltaGain=-1;LeastGain=0.5", 8000);
  EXPECT_EQ(vanishing.GetMedianGain(), 1.0f);
  EXPECT_EQ(vanishing.ComputeGain(silence, 0.75f), 0.5f);
  // 1.01f and -0.01f lie just inside: their percentiles truncate to 100 and 0.
  for (const char* edge : {"CutoffFraction=1.01", "CutoffFraction=-0.01"}) {
    AGC agc(edge, 8000);
    EXPECT_EQ(agc.ComputeGain(silence, 0.01f), 0.01f * 1.15f * 1.15f * 1.15f * 1.15f) << edge;
  }
  AGC agc("", 8000);
  for (float bad : {-0.1f, 1.01f, NAN}) EXPECT_THROW(agc.ComputeGain(silence, bad), std::invalid_argument);
}

}  // namespace
