// Ten hours of varied audio through both C interfaces, block by block as a host records
// it: one call per 20 ms block, the VAD polled until nothing is pending, the AGC's
// answer set as the next recording volume. Memory must stay flat and the results sane
// from the first tenth of the stream to the last.
//
// At 8000 Hz to stay under a minute. The i386 build runs under qemu-user, ten times
// slower, and streams two hours instead; sanitizer builds stream four, one on i386.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "KTRAGC.h"
#include "KTRVAD.h"
#include "heap.h"
#include "signal.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr int kSanitized = 1;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr int kSanitized = 1;
#else
constexpr int kSanitized = 0;
#endif
#else
constexpr int kSanitized = 0;
#endif

#if defined(__i386__)
constexpr int kHours = kSanitized ? 1 : 2;
#else
constexpr int kHours = kSanitized ? 4 : 10;
#endif

constexpr int kRate = 8000;
constexpr size_t kBlock = 160;
constexpr long kBlocksPerHour = 3600L * 50;
// The stream is judged in ten equal periods, each against the first.
constexpr int kPeriods = 10;
constexpr long kPeriodBlocks = kHours * kBlocksPerHour / kPeriods;
constexpr long kBound = 100;

// Per period, from a count per hour.
constexpr long PerPeriod(long perHour) { return perHour * kPeriodBlocks / kBlocksPerHour; }

struct Period {
  size_t maxLiveBytes = 0;
  long maxLiveBlocks = 0;
  int speechStarts = 0;
  int speechEnds = 0;
  int readings = 0;
  int gainChanges = 0;
  long minVolume = kBound;
  long maxVolume = 0;
};

// The scene changes every 0.2 to 8 s: silence, noise floors, hum, speech at many levels,
// and now and then a clipped stretch.
void NextScene(signal_gen::Recorder& r, long* blocksLeft) {
  const double u = r.Uniform();
  if (u < 0.10) {
    r.Begin(signal_gen::Recorder::Silence, 0.0);
  } else if (u < 0.35) {
    r.Begin(signal_gen::Recorder::Noise, 0.0005 + 0.02 * r.Uniform());
  } else if (u < 0.45) {
    r.Begin(signal_gen::Recorder::Hum, 0.01 * r.Uniform());
  } else if (u < 0.97) {
    r.Begin(signal_gen::Recorder::Speech, 0.02 + 0.6 * r.Uniform() * r.Uniform());
  } else {
    r.Begin(signal_gen::Recorder::Clipping, 1.0);
  }
  *blocksLeft = 10 + static_cast<long>(r.Random() % 390);
}

TEST(LongStream, TenHoursThroughBothInterfaces) {
  ASSERT_EQ(KTRVAD_Init(kRate), 0);
  ASSERT_EQ(KTRAGC_Init(kRate), 0);
  signal_gen::Recorder recorder(2024);
  std::vector<int16_t> block;
  std::vector<Period> periods(kPeriods);
  long sceneLeft = 0;
  long volume = 50;
  bool inSpeech = false;

  for (Period& period : periods) {
    for (long b = 0; b < kPeriodBlocks; ++b) {
      if (sceneLeft-- == 0) NextScene(recorder, &sceneLeft);
      recorder.Record(block, kBlock, static_cast<double>(volume) / kBound);
      const unsigned bytes = static_cast<unsigned>(block.size() * 2);

      int result = -9;
      double pct = 0.0;
      int info = -9;
      ASSERT_EQ(KTRVAD_GetResult(1, block.data(), bytes, &result, &pct, &info), 0);
      for (int polls = 0; result != 0; ++polls) {
        ASSERT_LT(polls, 8) << "one block cannot leave more than a few results pending";
        if (result == 1) {
          ASSERT_FALSE(inSpeech);
          inSpeech = true;
          ++period.speechStarts;
        } else if (result == 2) {
          ASSERT_TRUE(inSpeech);
          inSpeech = false;
          ++period.speechEnds;
        } else {
          ASSERT_EQ(result, 3);
          ASSERT_TRUE(std::isfinite(pct));
          ASSERT_LE(pct, 100.0);
          ASSERT_GE(info, 0);
          ASSERT_LE(info, 3);
          ++period.readings;
        }
        ASSERT_EQ(KTRVAD_GetResult(0, nullptr, 0, &result, &pct, &info), 0);
      }

      long next = -1;
      ASSERT_EQ(KTRAGC_ComputeGain(block.data(), bytes, volume, kBound, &next), 0);
      ASSERT_GE(next, 0);
      ASSERT_LE(next, kBound);
      if (next != volume) ++period.gainChanges;
      // A host never records at volume 0: it would get the neutral gain back anyway.
      volume = std::max(next, 1L);
      period.minVolume = std::min(period.minVolume, volume);
      period.maxVolume = std::max(period.maxVolume, volume);

      period.maxLiveBytes = std::max(period.maxLiveBytes, heap::LiveBytes());
      period.maxLiveBlocks = std::max(period.maxLiveBlocks, heap::LiveBlocks());
    }
  }
  EXPECT_EQ(KTRVAD_Deinit(), 0);
  EXPECT_EQ(KTRAGC_Deinit(), 0);

  const Period& first = periods.front();
  for (int p = 0; p < kPeriods; ++p) {
    const Period& period = periods[static_cast<size_t>(p)];
    SCOPED_TRACE(testing::Message() << "period " << p + 1 << " of " << kPeriods);
    // Nothing grows with time: after the first period the heap never holds more.
    EXPECT_LE(period.maxLiveBytes, first.maxLiveBytes);
    EXPECT_LE(period.maxLiveBlocks, first.maxLiveBlocks);
    // The detector keeps working: scenes change about every 4 s, half of them speech,
    // and some 200 utterances an hour stand apart (a floor, not a rate).
    EXPECT_GT(period.speechStarts, PerPeriod(100));
    EXPECT_LE(std::abs(period.speechStarts - period.speechEnds), 1);
    // Every block completes a frame, so every block brings one reading.
    EXPECT_EQ(period.readings, kPeriodBlocks);
    // The gain control keeps adjusting and never gets stuck at one end.
    EXPECT_GT(period.gainChanges, PerPeriod(50));
    EXPECT_LT(period.minVolume, period.maxVolume);
  }
  // Both services together stay well under a megabyte.
  EXPECT_LT(first.maxLiveBytes, size_t{1} << 20);
}

}  // namespace
