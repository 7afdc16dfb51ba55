#include "highpassfilter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace {

using kt::AudioData;
using kt::HighpassFilter;

AudioData Filtered(double rate, AudioData samples) {
  HighpassFilter filter(rate);
  filter.Filter(samples.begin(), samples.end());
  return samples;
}

TEST(HighpassFilterTest, StepResponseAt8000Hz) {
  const AudioData out = Filtered(8000.0, AudioData(1000, 1000));
  const AudioData first = {840, 738, 639, 544, 452};
  EXPECT_EQ(AudioData(out.begin(), out.begin() + 5), first);
  int lowest = 0;
  for (int16_t v : out) lowest = std::min<int>(lowest, v);
  EXPECT_EQ(lowest, -240);
  EXPECT_NE(out[128], 17);
  for (size_t i = 129; i < out.size(); ++i) ASSERT_EQ(out[i], 17) << i;
}

TEST(HighpassFilterTest, SilenceStaysSilentAtEveryRate) {
  for (double rate : {8000.0, 11025.0, 16000.0}) {
    EXPECT_EQ(Filtered(rate, AudioData(500, 0)), AudioData(500, 0)) << rate;
  }
}

TEST(HighpassFilterTest, PiecesGiveTheSameSamplesAsOneCall) {
  AudioData signal(3000);
  for (size_t i = 0; i < signal.size(); ++i) {
    signal[i] = static_cast<int16_t>(20000.0 * std::sin(0.05 * i) + 7000.0 * std::sin(0.9 * i));
  }
  for (double rate : {8000.0, 11025.0, 16000.0}) {
    const AudioData whole = Filtered(rate, signal);
    AudioData pieces = signal;
    HighpassFilter filter(rate);
    filter.Filter(pieces.begin(), pieces.begin() + 1234);
    filter.Filter(pieces.begin() + 1234, pieces.begin() + 1234);  // empty range
    filter.Filter(pieces.begin() + 1234, pieces.end());
    EXPECT_EQ(pieces, whole) << rate;

    filter.Reset();
    AudioData again = signal;
    filter.Filter(again.begin(), again.end());
    EXPECT_EQ(again, whole) << rate;
  }
}

// A full-scale 200 Hz square wave overshoots to about +-70000: stored samples clip,
// while the recursion goes on with the unclipped values.
TEST(HighpassFilterTest, ClipsStoredSamplesButNotTheState) {
  AudioData square(400);
  for (size_t i = 0; i < square.size(); ++i) square[i] = (i / 20) % 2 ? -32768 : 32767;
  const AudioData out = Filtered(8000.0, square);

  // Reference recursion written out independently, in the stated order of operations.
  const double b1 = 0.8399, b2 = -1.6796, b3 = 0.8399, a2 = -1.8787, a3 = 0.8905;
  double z1 = 0.0, z2 = 0.0, largest = 0.0;
  int clippedHigh = 0, clippedLow = 0;
  for (size_t i = 0; i < square.size(); ++i) {
    const double in = square[i];
    const double o = b1 * in + z1;
    z1 = b2 * in + z2 - a2 * o;
    z2 = b3 * in - a3 * o;
    largest = std::max(largest, std::fabs(o));
    const double c = o > 32767.0 ? 32767.0 : (o < -32768.0 ? -32768.0 : o);
    ASSERT_EQ(out[i], static_cast<int16_t>(std::floor(c + 0.5))) << i;
    clippedHigh += o > 32767.0;
    clippedLow += o < -32768.0;
  }
  EXPECT_GT(largest, 65000.0);
  EXPECT_GT(clippedHigh, 0);
  EXPECT_GT(clippedLow, 0);
}

TEST(HighpassFilterTest, RoundsHalfUpLikeFloor) {
  EXPECT_EQ(HighpassFilter::RoundHalfUp(2.5), 3);
  EXPECT_EQ(HighpassFilter::RoundHalfUp(-2.5), -2);
  EXPECT_EQ(HighpassFilter::RoundHalfUp(839.9), 840);
  EXPECT_EQ(HighpassFilter::RoundHalfUp(-0.3), 0);
  EXPECT_EQ(HighpassFilter::RoundHalfUp(-0.7), -1);
  EXPECT_EQ(HighpassFilter::RoundHalfUp(-32768.0), -32768);
  EXPECT_EQ(HighpassFilter::RoundHalfUp(32767.0), 32767);
  for (double x = -32768.0; x <= 32767.0; x += 0.1234567) {
    ASSERT_EQ(HighpassFilter::RoundHalfUp(x), static_cast<int>(std::floor(x + 0.5))) << x;
  }
}

TEST(HighpassFilterTest, RefusesOtherRates) {
  for (double rate : {22050.0, 11025.5, 8000.5, 44100.0, 0.0, -8000.0}) {
    try {
      HighpassFilter filter(rate);
      ADD_FAILURE() << rate;
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(std::string(e.what()), "Sampling rate");
    }
  }
}

}  // namespace
