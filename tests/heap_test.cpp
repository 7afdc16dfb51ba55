// Heap behaviour of the C interfaces under the counting allocator of bench/heap.cpp:
// memory exhaustion at every allocation of a host run, and a bounded heap while streaming.
#include <gtest/gtest.h>

#include <functional>

#include "KTRAGC.h"
#include "KTRVAD.h"
#include "bench/heap.h"
#include "bench/signal.h"

namespace {

// The recording, and a quiet copy (-36 dB) that the gain control finds too low.
const bench::Samples& Recording(bool quiet) {
  static const bench::Samples s = bench::ReadWav(std::string(KTFRONT_SAMPLES_DIR) + "/message_8000.wav").samples;
  static const bench::Samples q = [] {
    bench::Samples out(s);
    for (int16_t& x : out) x = static_cast<int16_t>(x / 64);
    return out;
  }();
  return quiet ? q : s;
}

// One host run over the first 3 s (a speech start and its readings), with the n-th
// allocation failing (0: none). Each call returns -2 exactly when it meets the failure;
// the calls after it work and Deinit leaves no block behind. Returns whether it was met.
bool HostRun(long failAt, bool vad, int* reports) {
  const bench::Samples& samples = Recording(!vad);
  const long liveBefore = heap::LiveBlocks();
  heap::FailAt(failAt);
  bool met = false;
  auto check = [&](int rc) {
    const bool now = heap::Failed() && !met;
    met = met || now;
    EXPECT_EQ(rc, now ? -2 : 0) << "allocation " << failAt;
    return now;
  };
  while (check(vad ? KTRVAD_Init(8000) : KTRAGC_Init(8000))) {
    EXPECT_TRUE(vad ? !g_pAudioAnalyzer : !g_pAgc);
  }
  long volume = 50;
  for (size_t pos = 0; pos < 24000; pos += 160) {
    const int16_t* block = samples.data() + pos;
    if (vad) {
      int result = 0, info = 0;
      double pct = 0.0;
      bool start = true;
      do {
        if (check(KTRVAD_GetResult(start, block, 320, &result, &pct, &info))) {
          EXPECT_EQ(result, KTRVAD_RESULT_FAILED);
        }
        start = false;
        if (result > 0) ++*reports;
      } while (result != 0);
    } else {
      long next = -1;
      if (check(KTRAGC_ComputeGain(block, 320, volume, 100, &next))) {
        EXPECT_EQ(next, 0);
        continue;  // the host keeps its volume
      }
      if (next != volume) ++*reports;
      volume = next;
    }
  }
  EXPECT_EQ(vad ? KTRVAD_Deinit() : KTRAGC_Deinit(), 0);
  heap::FailAt(0);
  EXPECT_EQ(heap::LiveBlocks(), liveBefore) << "leak with allocation " << failAt << " failing";
  return met;
}

TEST(HeapTest, EveryAllocationOfAHostRunMayFail) {
  for (bool vad : {true, false}) {
    int reports = 0;
    const long before = heap::Allocations();
    EXPECT_FALSE(HostRun(0, vad, &reports));
    const long total = heap::Allocations() - before;
    ASSERT_GT(reports, vad ? 100 : 1);  // readings and events; gain changes
    long met = 0;
    for (long n = 1; n <= total && !testing::Test::HasFailure(); ++n) met += HostRun(n, vad, &reports);
    // A failed call allocates less later on, so the last few may not be reached.
    EXPECT_GE(met, total - total / 20) << (vad ? "vad " : "agc ") << total;
  }
}

// A minute streamed through both services, polling as a host does: after the first 10 s
// the heap grows no further.
TEST(HeapTest, StreamingHeapIsBounded) {
  const bench::Samples& signal = bench::TestSignal(8000);
  ASSERT_EQ(KTRVAD_Init(8000), 0);
  ASSERT_EQ(KTRAGC_Init(8000), 0);
  long volume = 128;
  size_t warmPeak = 0;
  for (size_t pos = 0; pos + 160 <= signal.size(); pos += 160) {
    if (pos == 80000) {
      warmPeak = heap::PeakLiveBytes();
      heap::ResetPeak();
    }
    int result = 0, info = 0;
    double pct = 0.0;
    KTRVAD_GetResult(1, signal.data() + pos, 320, &result, &pct, &info);
    while (result > 0) KTRVAD_GetResult(0, nullptr, 0, &result, &pct, &info);
    ASSERT_EQ(KTRAGC_ComputeGain(signal.data() + pos, 320, volume, 255, &volume), 0);
  }
  EXPECT_LE(heap::PeakLiveBytes(), warmPeak);
  KTRVAD_Deinit();
  KTRAGC_Deinit();
}

}  // namespace
