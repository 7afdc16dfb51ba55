#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "agc.h"
#include "agc_test_access.h"

namespace {

using kt::AGC;
using kt::AudioData;
using Access = kt::AGCTestAccess;

const float kJumpUp = 0x1.bfbedep-1f;    // 0.5 raised by four steps of 0.15: 0.8745
const float kJumpDown = 0x1.71eb86p-2f;  // 0.5 lowered by two steps: 0.36125

int NumLevels(const AGC& agc) { return Access::Histogram(agc).GetNumSamples(); }

// Feeds 100 ms blocks of a steady tone; returns the gain after each update.
std::vector<float> FeedTone(AGC& agc, double amplitude, int numBlocks, float gain) {
  std::vector<float> gains;
  for (int i = 0; i < numBlocks; ++i) {
    gain = agc.ComputeGain(kt::Tone(16000, 1600u * i, 1600, amplitude), gain);
    gains.push_back(gain);
  }
  return gains;
}

// 100 levels: every seventh the speech level, the rest the noise level; a = noise,
// b = speech, and the last 25 hold speech levels, so there is no pause.
void FillSpeech(AGC& agc, float noise, float speech) {
  std::vector<float> levels(100, noise);
  for (size_t i = 6; i < levels.size(); i += 7) levels[i] = speech;
  Access::AddLevels(agc, levels);
}

std::string RefusalOf(AGC& agc, float gain) {
  try {
    agc.ComputeGain(AudioData(1600), gain);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "";
}

TEST(AGCGainTest, RefusesGainsOutside0To1) {
  AGC agc("", 16000);
  EXPECT_EQ(RefusalOf(agc, 1.01f), "currentGain <= 1.0f");
  EXPECT_EQ(RefusalOf(agc, -0.01f), "currentGain >= 0.0f");
  EXPECT_EQ(RefusalOf(agc, std::nanf("")), "currentGain >= 0.0f");
  EXPECT_TRUE(Access::Buffer(agc).empty());
}

TEST(AGCGainTest, ZeroGainStartsOverWithTheMedianGain) {
  AGC agc("", 16000);
  EXPECT_EQ(agc.ComputeGain(AudioData(1599), 0.5f), 0.5f);
  FillSpeech(agc, 20.0f, 45.0f);
  Access::SetPhase(agc, AGC::Speech, true, 45.0f);

  EXPECT_NEAR(agc.ComputeGain(AudioData(800), 0.0f), 0.041013, 5e-7);
  EXPECT_EQ(NumLevels(agc), 0);
  EXPECT_EQ(Access::State(agc), AGC::Initial);
  EXPECT_EQ(Access::Buffer(agc).size(), 1599u);  // kept, and the block not added

  AGC additive("RelativeGain=false", 16000);
  EXPECT_EQ(additive.ComputeGain(AudioData(320), 0.0f), 0.5f);
}

TEST(AGCGainTest, UpdatesNeedMoreThanFourWholeFrames) {
  AGC agc("", 16000);
  EXPECT_EQ(agc.ComputeGain(kt::Tone(16000, 0, 1599, 1600.0), 0.5f), 0.5f);
  EXPECT_EQ(Access::Buffer(agc).size(), 1599u);
  EXPECT_EQ(NumLevels(agc), 0);
  // 3201 samples: ten frames measured, the odd sample dropped.
  EXPECT_EQ(agc.ComputeGain(kt::Tone(16000, 1599, 1602, 1600.0), 0.5f), 0.5f);
  EXPECT_EQ(NumLevels(agc), 10);
  EXPECT_TRUE(Access::Buffer(agc).empty());

  AGC single("", 16000);
  single.ComputeGain(kt::Tone(16000, 0, 1600, 1600.0), 0.5f);
  EXPECT_EQ(NumLevels(single), 5);

  AGC at11k("", 11025);  // frames of 220 samples
  at11k.ComputeGain(kt::Tone(11025, 0, 1099, 1600.0), 0.5f);
  EXPECT_EQ(NumLevels(at11k), 0);
  at11k.ComputeGain(AudioData(), 0.5f);
  EXPECT_EQ(NumLevels(at11k), 0);
  AGC again("", 11025);
  again.ComputeGain(kt::Tone(11025, 0, 1102, 1600.0), 0.5f);
  EXPECT_EQ(NumLevels(again), 5);
  EXPECT_TRUE(Access::Buffer(again).empty());
}

TEST(AGCGainTest, DigitalSilenceClimbsToFullGain) {
  AGC agc("", 16000);
  float gain = 0.5f;
  const std::vector<float> expected = {kJumpUp, 1.0f, 1.0f, 1.0f};
  for (float e : expected) {
    gain = agc.ComputeGain(AudioData(1600, 0), gain);
    EXPECT_EQ(gain, e);
    EXPECT_EQ(NumLevels(agc), 0);  // every jump forgets the levels
    EXPECT_EQ(Access::State(agc), AGC::Initial);
  }
}

TEST(AGCGainTest, SteadyToneAt72dBIsSpeech) {
  AGC agc("", 16000);
  const std::vector<float> gains = FeedTone(agc, 6300.0, 7, 0.5f);
  EXPECT_EQ(gains, std::vector<float>(7, 0.5f));
  EXPECT_EQ(Access::State(agc), AGC::Initial);  // 35 levels: too few for the speech test
  EXPECT_EQ(FeedTone(agc, 6300.0, 1, 0.5f).back(), 0.5f);
  EXPECT_EQ(Access::State(agc), AGC::Speech);
  EXPECT_TRUE(Access::Rising(agc));
  EXPECT_EQ(Access::UpperLevelRef(agc), 72.0f);
  // Neither too high nor below the target band: it stays as it is.
  EXPECT_EQ(FeedTone(agc, 6300.0, 30, 0.5f), std::vector<float>(30, 0.5f));
  EXPECT_EQ(Access::State(agc), AGC::Speech);
}

TEST(AGCGainTest, SteadyToneAt60dBIsNeverSpeech) {
  AGC agc("", 16000);
  EXPECT_EQ(FeedTone(agc, 1600.0, 40, 0.5f), std::vector<float>(40, 0.5f));
  EXPECT_EQ(Access::State(agc), AGC::Initial);
  EXPECT_EQ(NumLevels(agc), 100);
}

TEST(AGCDecisionTest, TooLowNeedsTheLoudLevelsBelowTheLowerBound) {
  for (float loud : {51.0f, 50.75f}) {
    AGC agc("", 16000);
    std::vector<float> levels(90, 5.0f);
    levels.insert(levels.end(), 10, loud);
    Access::AddLevels(agc, levels);
    Access::SetPhase(agc, AGC::Speech, false, 60.0f);
    const bool tooLow = loud < 51.0f;  // b is the 10th highest level
    EXPECT_EQ(Access::Decide(agc, 0.5f), tooLow ? kJumpUp : 0.5f);
    EXPECT_EQ(NumLevels(agc), tooLow ? 0 : 100);
    EXPECT_EQ(Access::State(agc), tooLow ? AGC::Initial : AGC::Speech);
  }
}

TEST(AGCDecisionTest, TooHighIsStrictAndResets) {
  AGC agc("", 16000);
  Access::AddLevels(agc, std::vector<float>(100, 78.0f));
  EXPECT_EQ(Access::Decide(agc, 0.5f), 0.5f);

  AGC loud("", 16000);
  Access::AddLevels(loud, std::vector<float>(100, 78.25f));
  Access::SetPhase(loud, AGC::Speech, false, 78.25f);
  EXPECT_EQ(Access::Decide(loud, 0.5f), kJumpDown);
  EXPECT_EQ(NumLevels(loud), 0);
  EXPECT_EQ(Access::State(loud), AGC::Initial);
}

TEST(AGCDecisionTest, TooLowWinsOverTooHigh) {
  AGC agc("MinLowerBound=40;UpperBound=20", 16000);
  Access::AddLevels(agc, std::vector<float>(100, 30.0f));
  EXPECT_EQ(Access::Decide(agc, 0.5f), kJumpUp);
}

TEST(AGCDecisionTest, SpeechOnsetSetsTheReference) {
  AGC agc("", 16000);
  std::vector<float> levels(100, 30.0f);
  for (size_t i = 60; i < 60 + 3 * 13; i += 3) levels[i] = 50.0f;  // 13 of the last 40
  Access::AddLevels(agc, levels);
  EXPECT_EQ(Access::Decide(agc, 0.5f), 0.5f);
  EXPECT_EQ(Access::State(agc), AGC::Speech);
  EXPECT_TRUE(Access::Rising(agc));
  EXPECT_EQ(Access::UpperLevelRef(agc), 50.0f);
  EXPECT_EQ(NumLevels(agc), 100);
}

TEST(AGCDecisionTest, QuietWindowEndsSpeech) {
  AGC agc("", 16000);
  Access::AddLevels(agc, std::vector<float>(100, 20.0f));
  Access::SetPhase(agc, AGC::Speech, false, 45.0f);
  EXPECT_EQ(Access::Decide(agc, 0.5f), 0.5f);
  EXPECT_EQ(Access::State(agc), AGC::Initial);
  EXPECT_EQ(NumLevels(agc), 100);
}

struct SlowCase {
  float noise;
  float speech;
  bool rising;
  float upperLevelRef;
  bool raises;
};

TEST(AGCDecisionTest, SlowIncreaseDuringSpeech) {
  const std::vector<SlowCase> cases = {
      {20.0f, 45.0f, false, 45.0f, true},
      {20.0f, 45.0f, true, 44.0f, false},   // still rising
      {20.0f, 45.0f, true, 45.0f, true},    // stopped rising
      {20.0f, 45.0f, false, 40.0f, true},   // above the reference, but no longer rising
      {20.0f, 45.0f, false, 51.0f, true},   // 6 dB below the reference
      {20.0f, 45.0f, false, 51.25f, false},
      {29.0f, 45.0f, false, 45.0f, true},   // 16 dB above the noise
      {30.0f, 45.0f, false, 45.0f, false},
      {20.0f, 50.75f, false, 50.75f, true},
      {20.0f, 51.0f, false, 51.0f, false},  // within the target band
  };
  for (const SlowCase& c : cases) {
    SCOPED_TRACE(testing::Message() << c.noise << " " << c.speech << " " << c.rising << " "
                                    << c.upperLevelRef);
    AGC agc("", 16000);
    FillSpeech(agc, c.noise, c.speech);
    Access::SetPhase(agc, AGC::Speech, c.rising, c.upperLevelRef);
    EXPECT_EQ(Access::Decide(agc, 0.5f), c.raises ? 0.575f : 0.5f);
    EXPECT_EQ(Access::State(agc), AGC::Speech);
    EXPECT_EQ(NumLevels(agc), c.raises ? 0 : 100);
    EXPECT_EQ(Access::UpperLevelRef(agc), std::max(c.upperLevelRef, c.speech));
    if (c.upperLevelRef >= c.speech) {
      EXPECT_FALSE(Access::Rising(agc));
    }
  }
}

TEST(AGCGainTest, SixteenBitScale) {
  AGC agc("", 16000);
  FillSpeech(agc, 20.0f, 45.0f);
  Access::SetPhase(agc, AGC::Speech, false, 45.0f);
  // Five silent frames replace five noise levels; the readings stay.
  const unsigned short raised = 32768;
  EXPECT_EQ(agc.ComputeGain(AudioData(1600, 0), raised), 37683);

  AGC full("", 16000);
  const unsigned short top = 65535;
  EXPECT_EQ(full.ComputeGain(AudioData(100), top), 65535);
  EXPECT_EQ(full.ComputeGain(AudioData(1600), top), 65535);  // jumps up from exactly 1.0
  const unsigned short zero = 0;
  EXPECT_EQ(full.ComputeGain(AudioData(100), zero), 2687);  // 0.041013 × 65535
  const unsigned short some = 12345;
  EXPECT_EQ(full.ComputeGain(AudioData(10), some), 12345);
}

TEST(AGCGainTest, ResetKeepsTheBufferedAudio) {
  AGC agc("", 16000);
  agc.ComputeGain(AudioData(1000), 0.5f);
  FillSpeech(agc, 20.0f, 45.0f);
  Access::SetPhase(agc, AGC::Speech, true, 45.0f);
  agc.Reset();
  EXPECT_EQ(Access::Buffer(agc).size(), 1000u);
  EXPECT_EQ(NumLevels(agc), 0);
  EXPECT_EQ(Access::State(agc), AGC::Initial);
  EXPECT_FALSE(Access::Rising(agc));
  EXPECT_EQ(Access::UpperLevelRef(agc), 0.0f);
}

TEST(AGCGainTest, RandomWalkStaysNearItsFirstGain) {
  const AGC agc("", 16000);
  const AudioData none;
  EXPECT_THROW(agc.ComputeGainRandom(none, 1.5f), std::invalid_argument);  // no centre yet
  float gain = 0.1f;  // the first gain accepted in the process: the walk's centre
  int ups = 0;
  int downs = 0;
  for (int i = 0; i < 3000; ++i) {
    const float next = agc.ComputeGainRandom(none, gain);
    const float ratio = next / gain;
    if (next > gain) {
      EXPECT_NEAR(ratio, 1.15, 1e-6);
      ++ups;
    } else if (next < gain) {
      EXPECT_NEAR(ratio, 0.85, 1e-6);
      ++downs;
    }
    gain = next;
    EXPECT_LE(gain, 0.1f * 3.1623f * 1.15f);
    EXPECT_GE(gain, 0.1f / 3.1623f * 0.85f);
  }
  EXPECT_GT(ups, 100);
  EXPECT_GT(downs, 100);
  EXPECT_EQ(Access::State(agc), AGC::Initial);
  EXPECT_EQ(NumLevels(agc), 0);
}

}  // namespace
