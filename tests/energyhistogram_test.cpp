#include "energyhistogram.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <string>

namespace kt {

class EnergyHistogramTestAccess {
 public:
  static size_t Index(const EnergyHistogram& h) { return h._index; }
  static const std::vector<double>& Window(const EnergyHistogram& h) { return h._window; }
  static const std::vector<int>& Bins(const EnergyHistogram& h) { return h._histogram; }
};

}  // namespace kt

namespace {

using kt::EnergyHistogram;
using kt::Parameters;
using Access = kt::EnergyHistogramTestAccess;

int BinSum(const EnergyHistogram& h) {
  const std::vector<int>& bins = Access::Bins(h);
  return std::accumulate(bins.begin(), bins.end(), 0);
}

TEST(EnergyHistogramTest, AcceptsEnergiesFrom15dB) {
  EnergyHistogram h{Parameters()};
  h.Update(14.99);
  h.Update(0.0);
  EXPECT_EQ(Access::Index(h), 0u);
  EXPECT_EQ(BinSum(h), 0);
  h.Update(15.0);
  h.Update(99.99);
  EXPECT_EQ(Access::Index(h), 2u);
  EXPECT_EQ(Access::Bins(h)[15], 1);
  EXPECT_EQ(Access::Bins(h)[99], 1);
  EXPECT_EQ(BinSum(h), 2);
}

TEST(EnergyHistogramTest, LearningPhaseUsesTheLowerLimit) {
  EnergyHistogram h{Parameters()};
  for (int i = 0; i < 39; ++i) h.Update(20.0 + i);
  EXPECT_FALSE(h.IsThresholdComputed());
  EXPECT_EQ(h.GetThreshold(false), 30.0);
  EXPECT_EQ(h.GetThreshold(true), 30.0);
  EXPECT_EQ(h.GetNoiseLevelWithOffset(), 36.0);
  EXPECT_EQ(h.GetSNR(), 40.0);

  // The 40th energy computes the levels: lowest and highest occupied bins.
  h.Update(25.5);
  EXPECT_TRUE(h.IsThresholdComputed());
  EXPECT_EQ(h.GetNoiseLevel(), 20.0);
  EXPECT_EQ(h.GetSNR(), 58.0 - 20.0);
}

TEST(EnergyHistogramTest, RecomputesAtTheMinimumThenEveryFifth) {
  EnergyHistogram h{Parameters()};
  for (int i = 0; i < 40; ++i) h.Update(40.0);
  EXPECT_EQ(h.GetNoiseLevel(), 40.0);
  // 41st to 44th energies lower the bottom of the ring, but nothing is recomputed yet.
  for (int i = 0; i < 4; ++i) h.Update(20.0);
  EXPECT_EQ(h.GetNoiseLevel(), 40.0);
  h.Update(20.0);  // the 45th
  EXPECT_EQ(h.GetNoiseLevel(), 20.0);
}

TEST(EnergyHistogramTest, CounterFoldsBetweenWAnd2W) {
  EnergyHistogram h{Parameters()};
  for (int i = 0; i < 200; ++i) h.Update(30.0 + (i % 50));
  EXPECT_EQ(Access::Index(h), 200u);
  EXPECT_EQ(BinSum(h), 100);
  h.Update(77.0);
  EXPECT_EQ(Access::Index(h), 101u);
  EXPECT_EQ(Access::Window(h)[0], 77.0);
  EXPECT_EQ(BinSum(h), 100);
}

TEST(EnergyHistogramTest, UniformRingGivesOffsetThresholds) {
  EnergyHistogram h{Parameters()};
  for (int i = 0; i < 100; ++i) h.Update(50.4);
  EXPECT_EQ(h.GetNoiseLevel(), 50.0);
  EXPECT_EQ(h.GetSNR(), 0.0);
  EXPECT_EQ(h.GetThreshold(false), 66.0);
  EXPECT_EQ(h.GetThreshold(true), 56.0);
}

TEST(EnergyHistogramTest, ThresholdInterpolatesAndClamps) {
  // Noise 40, speech 70 with limit 8: eight energies at each end.
  EnergyHistogram h{Parameters()};
  for (int i = 0; i < 100; ++i) h.Update(i < 50 ? 40.5 : 70.5);
  EXPECT_EQ(h.GetNoiseLevel(), 40.0);
  EXPECT_EQ(h.GetSNR(), 30.0);
  EXPECT_EQ(h.GetThreshold(false), 56.0);
  EXPECT_EQ(h.GetThreshold(true), 40.0 + 30.0 * 0.3);

  EnergyHistogram capped{Parameters("ThresholdUpperLimit=50")};
  for (int i = 0; i < 100; ++i) capped.Update(i < 50 ? 40.5 : 70.5);
  EXPECT_EQ(capped.GetThreshold(false), 50.0);

  // Crossed limits: the lower limit is tested first and wins.
  EnergyHistogram crossed{Parameters("ThresholdLowerLimit=60;ThresholdUpperLimit=50")};
  for (int i = 0; i < 100; ++i) crossed.Update(i < 50 ? 40.5 : 70.5);
  EXPECT_EQ(crossed.GetThreshold(false), 60.0);
  EXPECT_EQ(crossed.GetThreshold(true), 60.0);
}

TEST(EnergyHistogramTest, MinimumAboveTwiceTheWindowNeverComputes) {
  EnergyHistogram h{Parameters("WindowSize=10;MinWindowSize=21")};
  for (int i = 0; i < 1000; ++i) h.Update(60.0);
  EXPECT_FALSE(h.IsThresholdComputed());
  EXPECT_EQ(h.GetThreshold(false), 30.0);
}

TEST(EnergyHistogramTest, ReplayKeepsTheRingInOrder) {
  EnergyHistogram h{Parameters()};
  for (int i = 0; i < 150; ++i) h.Update(20.0 + (i * 7) % 70);
  const std::vector<int> bins = Access::Bins(h);
  const std::vector<double> window = Access::Window(h);
  const double noise = h.GetNoiseLevel(), snr = h.GetSNR();

  h.UpdateParameters(Parameters());
  EXPECT_EQ(Access::Index(h), 100u);
  EXPECT_EQ(Access::Bins(h), bins);
  EXPECT_EQ(Access::Window(h)[0], window[50]);   // the oldest energy
  EXPECT_EQ(Access::Window(h)[99], window[49]);  // the newest
  EXPECT_EQ(h.GetNoiseLevel(), noise);
  EXPECT_EQ(h.GetSNR(), snr);

  // A smaller ring keeps only the newest energies.
  h.UpdateParameters(Parameters("WindowSize=10;MinWindowSize=5"));
  EXPECT_EQ(Access::Index(h), 20u);  // 100 replayed energies leave the counter folded at 2W
  EXPECT_EQ(BinSum(h), 10);
  EXPECT_EQ(Access::Window(h)[9], window[49]);
}

TEST(EnergyHistogramTest, RefusesRingsOfNoSlotOrTooMany) {
  for (const char* text : {"WindowSize=0", "WindowSize=30001", "WindowSize=-1"}) {
    try {
      EnergyHistogram h{Parameters(text)};
      ADD_FAILURE() << text;
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(std::string(e.what()), "Value out of range") << text;
    }
  }
  // A refused update keeps what was learnt.
  EnergyHistogram h{Parameters()};
  for (int i = 0; i < 60; ++i) h.Update(45.0);
  EXPECT_THROW(h.UpdateParameters(Parameters("WindowSize=0")), std::invalid_argument);
  EXPECT_EQ(Access::Index(h), 60u);
  EXPECT_EQ(h.GetNoiseLevel(), 45.0);
  EXPECT_THROW(h.UpdateParameters(Parameters("CutoffFraction=x")), std::invalid_argument);
  EXPECT_EQ(Access::Index(h), 60u);
}

// The fraction is a share of the ring: 0 and 1 are its ends, and a fraction far
// beyond them would overflow the int quantile count.
TEST(EnergyHistogramTest, AcceptsCutoffFractionsFromZeroToOneOnly) {
  for (const char* text : {"CutoffFraction=-0.01", "CutoffFraction=1.0000001",
                           "CutoffFraction=1e300", "CutoffFraction=-1e300"}) {
    try {
      EnergyHistogram h{Parameters(text)};
      ADD_FAILURE() << text;
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(std::string(e.what()), "Value out of range") << text;
    }
  }
  // Fraction 1 on a full ring: the count is the whole ring, reached from below only at
  // the highest energy and from above only at the lowest.
  EnergyHistogram h{Parameters("WindowSize=10;MinWindowSize=10;CutoffFraction=1")};
  for (int i = 0; i < 10; ++i) h.Update(20.0 + 3 * i);
  EXPECT_EQ(h.GetNoiseLevel(), 47.0);
  EXPECT_EQ(h.GetSNR(), 20.0 - 47.0);
  // Fraction 0: a count of 0 is reached at once, at bin 0 and at bin 99.
  h.UpdateParameters(Parameters("WindowSize=10;MinWindowSize=10;CutoffFraction=0"));
  EXPECT_EQ(h.GetNoiseLevel(), 0.0);
  EXPECT_EQ(h.GetSNR(), 99.0);
  // A refused fraction leaves the ring and its levels as they were.
  EXPECT_THROW(h.UpdateParameters(Parameters("WindowSize=10;MinWindowSize=10;CutoffFraction=2")),
               std::invalid_argument);
  EXPECT_EQ(Access::Index(h), 10u);
  EXPECT_EQ(h.GetNoiseLevel(), 0.0);
}

TEST(EnergyHistogramTest, AssertsItsPreconditions) {
  EnergyHistogram h{Parameters()};
  for (double bad : {-0.5, 100.0, std::nan("")}) {
    try {
      h.Update(bad);
      ADD_FAILURE() << bad;
    } catch (const std::logic_error& e) {
      EXPECT_EQ(std::string(e.what()), "energy >= 0 && energy < 100");
    }
  }
}

}  // namespace
