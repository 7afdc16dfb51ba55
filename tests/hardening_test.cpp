// Regressions from fuzzing, as plain cases that also run on i386 (fuzz/regressions/ keeps
// the original inputs).
#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <vector>

#include "KTRAGC.h"
#include "audioanalyzer.h"

namespace {

// A bound beyond float's 24 bits: bound + 1 and bound round to the same float, so the
// quotient alone would take a volume past the bound for a gain of 1.
TEST(FuzzRegression, VolumePastALargeBoundIsRefused) {
  ASSERT_EQ(KTRAGC_Init(16000), 0);
  const std::vector<int16_t> block(320, 0);
  const long bound = LONG_MAX / 2;
  long out = -5;
  EXPECT_EQ(KTRAGC_ComputeGain(block.data(), 640, bound + 1, bound, &out), -1);
  EXPECT_EQ(out, -5);
  EXPECT_EQ(KTRAGC_ComputeGain(block.data(), 640, -bound - 1, -bound, &out), -1);
  EXPECT_EQ(out, -5);
  EXPECT_EQ(KTRAGC_ComputeGain(block.data(), 640, bound, bound, &out), 0);
  EXPECT_EQ(out, bound);  // too few frames for an update: the volume comes back
  EXPECT_EQ(KTRAGC_Deinit(), 0);
}

// A bound that float rounds upward: the full gain times it lay past the bound, and the
// host's next call, with that volume, was refused.
TEST(FuzzRegression, RaisedVolumeStaysWithinALargeBound) {
  ASSERT_EQ(KTRAGC_Init(16000), 0);
  const std::vector<int16_t> silence(1600, 0);  // an update that finds the input too low
  const long big = LONG_MAX / 2 + 1;             // 2^62 (2^30 on i386)
  const long bound = big + (big >> 24) + 1;      // just past half float's step there
  ASSERT_GT(static_cast<double>(static_cast<float>(bound)), static_cast<double>(bound));
  long out = -5;
  ASSERT_EQ(KTRAGC_ComputeGain(silence.data(), 3200, bound / 10 * 9, bound, &out), 0);
  EXPECT_EQ(out, bound);  // four steps up from 0.9 reach 1
  EXPECT_EQ(KTRAGC_ComputeGain(silence.data(), 3200, out, bound, &out), 0);
  EXPECT_EQ(KTRAGC_Deinit(), 0);
}

// A negative decay rate let the level climb past 0 dBFS with every reading.
TEST(FuzzRegression, NegativeDecayRateIsRefused) {
  try {
    kt::AudioAnalyzer("MaxDecayRateDbPerDs=-100", 16000, false);
    FAIL() << "accepted";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "Value out of range");
  }
  kt::AudioAnalyzer analyzer("", 16000, false);
  EXPECT_THROW(analyzer.UpdateParameters("MaxDecayRateDbPerDs=-0.5"), std::invalid_argument);
  analyzer.UpdateParameters("MaxDecayRateDbPerDs=0");  // holding the peak is allowed
}

}  // namespace
