// The analyzer's energy histogram: learning, quantiles, thresholds and every key.
#include <gtest/gtest.h>

#include <stdexcept>

#include "energyhistogram.h"

namespace {

using kt::EnergyHistogram;
using kt::Parameters;

EnergyHistogram Make(const std::string& params) { return EnergyHistogram(Parameters(params)); }

TEST(EnergyHistogramTest, LearnsFrom15dBThenComputesAtTheMinimumAndEveryFifth) {
  EnergyHistogram h = Make("");
  for (int i = 0; i < 39; ++i) h.Update(i % 2 ? 20.5 : 80.2);
  h.Update(14.99);  // not accepted
  EXPECT_FALSE(h.IsThresholdComputed());
  EXPECT_EQ(h.GetThreshold(false), 30.0);
  EXPECT_EQ(h.GetThreshold(true), 30.0);
  EXPECT_EQ(h.GetNoiseLevelWithOffset(), 36.0);
  EXPECT_EQ(h.GetSNR(), 40.0);
  h.Update(15.0);  // the 40th: lowest and highest occupied bin
  EXPECT_TRUE(h.IsThresholdComputed());
  EXPECT_EQ(h.GetNoiseLevel(), 15.0);
  EXPECT_EQ(h.GetSNR(), 80.0 - 15.0);
  for (int i = 0; i < 4; ++i) h.Update(99.99);
  EXPECT_EQ(h.GetSNR(), 65.0);  // not yet recomputed
  h.Update(99.99);              // the 45th: 45 * 45 / 100 * 0.08 rounds to 2 energies
  EXPECT_EQ(h.GetNoiseLevel(), 20.0);
  EXPECT_EQ(h.GetSNR(), 99.0 - 20.0);
}

TEST(EnergyHistogramTest, WorkedThresholds) {
  EnergyHistogram h = Make("");
  for (int i = 0; i < 100; ++i) h.Update(50.4);
  EXPECT_EQ(h.GetNoiseLevel(), 50.0);
  EXPECT_EQ(h.GetSNR(), 0.0);
  EXPECT_EQ(h.GetThreshold(false), 66.0);
  EXPECT_EQ(h.GetThreshold(true), 56.0);
  // The 8th-lowest and 8th-highest of a full ring of 100.
  EnergyHistogram q = Make("");
  for (int i = 0; i < 100; ++i) q.Update(20.0 + i * 0.7);
  EXPECT_EQ(q.GetNoiseLevel(), 24.0);               // 20 + 7 * 0.7 = 24.9
  EXPECT_EQ(q.GetNoiseLevel() + q.GetSNR(), 84.0);  // 20 + 92 * 0.7 = 84.4
}

// Each key given a telling value, on a ring of noise at 40 and speech at 70 dB: with the
// defaults interpolated 49, and the pause offset lifts the other to 56.
TEST(EnergyHistogramTest, EveryKey) {
  const struct { const char* params; double pause, speech, noise, snr; } table[] = {
      {"", 56, 49, 40, 30},
      {"InterpolationParam=0.9", 67, 67, 40, 30},
      {"ThresholdOffsetSpeech=20", 56, 60, 40, 30},
      {"ThresholdOffsetPause=2", 49, 49, 40, 30},
      {"ThresholdLowerLimit=52", 56, 52, 40, 30},
      {"ThresholdUpperLimit=50", 50, 49, 40, 30},
      {"ThresholdLowerLimit=60;ThresholdUpperLimit=50", 60, 60, 40, 30},  // the lower limit wins
      {"CutoffFraction=0.6", 70, 70, 70, -30},  // 60 energies from each end cross over
      {"CutoffFraction=0", 30, 30, 0, 99},       // 29.7 interpolated, below the lower limit
      {"WindowSize=60", 56, 49, 40, 30},
      {"WindowSize=40;MinWindowSize=40", 70, 70, 70, 0},  // only the newest 40
      {"MinWindowSize=101", 30, 30, 30, 40},
  };
  for (const auto& row : table) {
    EnergyHistogram h = Make(row.params);
    for (int i = 0; i < 100; ++i) h.Update(i < 50 ? 40.5 : 70.5);
    EXPECT_DOUBLE_EQ(h.GetThreshold(false), row.pause) << row.params;
    EXPECT_DOUBLE_EQ(h.GetThreshold(true), row.speech) << row.params;
    EXPECT_EQ(h.GetNoiseLevel(), row.noise) << row.params;
    EXPECT_EQ(h.GetSNR(), row.snr) << row.params;
  }
}

// With the minimum between W + 1 and 2W the counter's cycle from W + 1 to 2W switches
// the threshold on at the minimum and off again when the counter folds back.
TEST(EnergyHistogramTest, MinimumBetweenWAnd2WToggles) {
  EnergyHistogram h = Make("WindowSize=10;MinWindowSize=15");
  std::string seen;
  for (int i = 1; i <= 32; ++i) {
    h.Update(60.0);
    seen += h.IsThresholdComputed() ? '1' : '0';
  }
  // Counter: 1..20, then 11..20 (folded), then 11, 12.
  EXPECT_EQ(seen, "00000000000000111111" "0000111111" "00");
}

TEST(EnergyHistogramTest, UpdateParametersReplaysTheRing) {
  EnergyHistogram h = Make("");
  // A ring not yet full replays from its first energy: 40 stay 40, enough to compute.
  for (int i = 0; i < 40; ++i) h.Update(50.0);
  h.UpdateParameters(Parameters(""));
  EXPECT_TRUE(h.IsThresholdComputed());
  for (int i = 0; i < 110; ++i) h.Update(20.0 + (i * 37) % 70);
  const double noise = h.GetNoiseLevel(), snr = h.GetSNR();
  h.UpdateParameters(Parameters(""));
  EXPECT_EQ(h.GetNoiseLevel(), noise);
  EXPECT_EQ(h.GetSNR(), snr);
  // A smaller ring keeps the newest energies: the last 40 were all at 89 or 90 dB.
  for (int i = 0; i < 40; ++i) h.Update(89.5 + (i % 2));
  EnergyHistogram g = h;
  h.UpdateParameters(Parameters("WindowSize=40"));
  EXPECT_EQ(h.GetNoiseLevel(), 89.0);
  EXPECT_EQ(h.GetSNR(), 1.0);
  // Exactly those 40, counted from 40: the next computation, at 45, finds no older energy
  // even when a single one sets the noise level.
  g.UpdateParameters(Parameters("WindowSize=40;CutoffFraction=0.025"));
  for (int i = 0; i < 5; ++i) g.Update(89.5);
  EXPECT_EQ(g.GetNoiseLevel(), 89.0);
}

TEST(EnergyHistogramTest, RefusalsAndAssertions) {
  for (const char* params : {"WindowSize=0", "CutoffFraction=21474837", "WindowSize=1000;CutoffFraction=-2147484"}) {
    EXPECT_THROW(Make(params), std::invalid_argument) << params;
  }
  EnergyHistogram h = Make("");
  // A refused update leaves the ring as it was.
  for (int i = 0; i < 40; ++i) h.Update(50.0);
  EXPECT_THROW(h.UpdateParameters(Parameters("WindowSize=0")), std::invalid_argument);
  EXPECT_EQ(h.GetNoiseLevel(), 50.0);
  EXPECT_THROW(h.Update(-0.1), std::logic_error);
  EXPECT_THROW(h.Update(100.0), std::logic_error);
}

}  // namespace
