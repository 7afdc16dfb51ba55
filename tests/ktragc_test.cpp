#include "KTRAGC.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <vector>

#include "agc.h"
#include "agc_test_access.h"

namespace {

using kt::AGC;
using kt::AudioData;
using Access = kt::AGCTestAccess;

const long kUntouched = -777;

class KTRAGCTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(KTRAGC_Deinit(), 0); }

  // Replaces the default gain control with one of another configuration.
  static void Install(const char* params) {
    delete g_pAgc;
    g_pAgc = new AGC(params, 16000);
  }

  // A block too short for an update: the gain stays.
  const std::vector<int16_t> _short = std::vector<int16_t>(160, 1000);
  // 100 ms of digital silence at 16 kHz: an update that finds the input too low.
  const std::vector<int16_t> _silence = std::vector<int16_t>(1600, 0);
};

int Compute(const std::vector<int16_t>& block, long volume, long bound, long* result) {
  return KTRAGC_ComputeGain(block.data(), static_cast<unsigned int>(block.size() * 2), volume,
                            bound, result);
}

TEST_F(KTRAGCTest, Lifecycle) {
  long volume = kUntouched;
  EXPECT_EQ(Compute(_short, 29, 100, &volume), -1);  // before KTRAGC_Init
  EXPECT_EQ(volume, kUntouched);
  EXPECT_EQ(KTRAGC_Init(44100), -2);
  EXPECT_EQ(g_pAgc, nullptr);
  EXPECT_EQ(Compute(_short, 29, 100, &volume), -1);
  EXPECT_EQ(KTRAGC_Init(16000), 0);
  AGC* first = g_pAgc;
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Compute(_short, 29, 100, &volume), 0);
  EXPECT_EQ(KTRAGC_Init(8000), 0);  // a fresh one: nothing buffered
  EXPECT_TRUE(Access::Buffer(*g_pAgc).empty());
  EXPECT_EQ(KTRAGC_Init(11025), 0);
  EXPECT_EQ(KTRAGC_Deinit(), 0);
  EXPECT_EQ(g_pAgc, nullptr);
  EXPECT_EQ(KTRAGC_Deinit(), 0);
}

TEST_F(KTRAGCTest, RefusalsWriteNothing) {
  ASSERT_EQ(KTRAGC_Init(16000), 0);
  EXPECT_EQ(Compute(_short, 29, 100, nullptr), -1);
  long volume = kUntouched;
  EXPECT_EQ(Compute(_short, 29, 0, &volume), -1);
  EXPECT_EQ(KTRAGC_ComputeGain(nullptr, 2, 29, 100, &volume), -1);
  EXPECT_EQ(Compute(_short, 101, 100, &volume), -1);
  EXPECT_EQ(Compute(_short, -1, 100, &volume), -1);
  EXPECT_EQ(Compute(_short, 5, -100, &volume), -1);
  EXPECT_EQ(Compute(_short, -200, -100, &volume), -1);
  EXPECT_EQ(volume, kUntouched);
  EXPECT_TRUE(Access::Buffer(*g_pAgc).empty());

  EXPECT_EQ(KTRAGC_ComputeGain(nullptr, 0, 29, 100, &volume), 0);  // nothing to read
  EXPECT_EQ(volume, 29);
  EXPECT_EQ(Compute(_short, -50, -100, &volume), 0);  // gain 0.5 on a negative scale
  EXPECT_EQ(volume, -50);
}

TEST_F(KTRAGCTest, UnchangedVolumeComesBackAsGiven) {
  ASSERT_EQ(KTRAGC_Init(16000), 0);
  long volume = kUntouched;
  EXPECT_EQ(Compute(_short, 29, 100, &volume), 0);
  EXPECT_EQ(volume, 29);
  EXPECT_EQ(Compute(_short, 255, 255, &volume), 0);
  EXPECT_EQ(volume, 255);
  ASSERT_EQ(KTRAGC_Init(16000), 0);
  EXPECT_EQ(Compute(_silence, 100, 100, &volume), 0);  // too low at gain 1: stays 1
  EXPECT_EQ(volume, 100);
}

TEST_F(KTRAGCTest, BlocksGainOneZeroSample) {
  ASSERT_EQ(KTRAGC_Init(16000), 0);
  long volume = 0;
  ASSERT_EQ(Compute(std::vector<int16_t>(160, -2), 50, 100, &volume), 0);
  const AudioData& buffer = Access::Buffer(*g_pAgc);
  ASSERT_EQ(buffer.size(), 161u);
  EXPECT_EQ(buffer[159], -2);
  EXPECT_EQ(buffer[160], 0);

  const unsigned char odd[3] = {0x34, 0x12, 0xff};  // one sample and a stray low byte
  ASSERT_EQ(KTRAGC_ComputeGain(odd, 3, 50, 100, &volume), 0);
  ASSERT_EQ(buffer.size(), 163u);
  EXPECT_EQ(buffer[161], 0x1234);
  EXPECT_EQ(buffer[162], 0x00ff);
  ASSERT_EQ(KTRAGC_ComputeGain(odd, 0, 50, 100, &volume), 0);
  EXPECT_EQ(buffer.size(), 164u);
}

TEST_F(KTRAGCTest, NewGainTimesBoundTruncated) {
  ASSERT_EQ(KTRAGC_Init(16000), 0);
  long volume = 0;
  EXPECT_EQ(Compute(_silence, 50, 100, &volume), 0);
  EXPECT_EQ(volume, 87);  // 0.874503
  EXPECT_EQ(Compute(_short, 0, 100, &volume), 0);
  EXPECT_EQ(volume, 4);  // the median gain 0.041013

  Install("RelativeGain=false");  // median gain 0.5
  EXPECT_EQ(Compute(_short, 0, 100, &volume), 0);
  EXPECT_EQ(volume, 50);
  EXPECT_EQ(Compute(_short, 0, 255, &volume), 0);
  EXPECT_EQ(volume, 127);

  // Any step from 0.01 lands on LeastGain, 0.28999999 in single precision:
  // 28.99999917 in double, where a float product would round to 29.
  Install("RelativeGain=false;DeltaGain=0.001;LeastGain=0.29;FastStepSizeUp=1");
  EXPECT_EQ(Compute(_silence, 1, 100, &volume), 0);
  EXPECT_EQ(volume, 28);
}

TEST_F(KTRAGCTest, ProductsBeyondLongSaturate) {
  ASSERT_EQ(KTRAGC_Init(16000), 0);
  long volume = 0;
  // float(LONG_MAX) is 2^63 (2^31 on i386); the full gain times it does not fit a long.
  EXPECT_EQ(Compute(_silence, LONG_MAX / 10 * 9, LONG_MAX, &volume), 0);
  EXPECT_EQ(volume, LONG_MAX);
}

TEST_F(KTRAGCTest, ExceptionsBecomeReturnCodes) {
  ASSERT_EQ(KTRAGC_Init(16000), 0);
  Access::SetCutoffFraction(*g_pAgc, 2.0f);  // a percentile of 200 breaks an invariant
  long volume = kUntouched;
  EXPECT_EQ(Compute(_silence, 50, 100, &volume), -2);
  EXPECT_EQ(volume, 0);
  Access::SetCutoffFraction(*g_pAgc, 0.1f);  // the gain control is still usable
  EXPECT_EQ(Compute(_silence, 50, 100, &volume), 0);
  EXPECT_EQ(volume, 87);
}

}  // namespace
