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
