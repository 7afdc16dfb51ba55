// Memory exhaustion at every allocation of a host's call sequence: each C interface runs
// one realistic sequence once for every N, with the N-th allocation failing. The call
// that meets the failure returns -2 with its documented outputs, nothing escapes, the
// following calls work, and Deinit leaves no block behind.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "KTRAGC.h"
#include "KTRVAD.h"
#include "heap.h"
#include "signal.h"

namespace {

constexpr int kRate = 8000;
constexpr size_t kBlock = 160;  // 20 ms

// Noise to learn the floor, a burst of speech, then noise again to end it: the sequence
// passes through construction, measuring, speech start and end and the volume meter.
std::vector<std::vector<int16_t>> HostBlocks() {
  signal_gen::Recorder recorder(7);
  std::vector<std::vector<int16_t>> blocks(140);
  for (size_t i = 0; i < blocks.size(); ++i) {
    if (i == 0) recorder.Begin(signal_gen::Recorder::Noise, 0.01);
    if (i == 60) recorder.Begin(signal_gen::Recorder::Speech, 0.9);
    if (i == 100) recorder.Begin(signal_gen::Recorder::Noise, 0.01);
    recorder.Record(blocks[i], kBlock, 0.5);
  }
  return blocks;
}

// Tells whether the armed failure was met by the call just made, and checks that a
// call fails exactly when it meets it.
class FailureWatch {
 public:
  bool Met(int rc) {
    const bool metNow = heap::Failed() && !_met;
    _met = _met || metNow;
    EXPECT_EQ(rc == -2, metNow) << "rc " << rc;
    if (metNow) ++_failedCalls;
    return metNow;
  }
  bool Armed() const { return !_met; }
  int FailedCalls() const { return _failedCalls; }

 private:
  bool _met = false;
  int _failedCalls = 0;
};

// One VAD host run with the n-th allocation failing (0: none). Returns whether the
// failure was met.
bool RunVad(const std::vector<std::vector<int16_t>>& blocks, long failAt, int* speechStarts) {
  const long liveBefore = heap::LiveBlocks();
  FailureWatch watch;
  heap::FailAt(failAt);

  int rc = KTRVAD_Init(kRate);
  if (watch.Met(rc)) {
    EXPECT_EQ(g_pAudioAnalyzer, nullptr);
    rc = KTRVAD_Init(kRate);
  }
  EXPECT_EQ(rc, 0);
  for (const std::vector<int16_t>& block : blocks) {
    int result = 99;
    double volume = -1.0;
    int info = -1;
    rc = KTRVAD_GetResult(1, block.data(), static_cast<unsigned>(block.size() * 2), &result,
                          &volume, &info);
    if (watch.Met(rc)) {
      EXPECT_EQ(result, -1);
    }
    // Polls until nothing is pending, as a host does; a failed poll is polled again.
    for (int polls = 0; result != 0 && polls < 1000; ++polls) {
      if (result == 1) ++*speechStarts;
      rc = KTRVAD_GetResult(0, nullptr, 0, &result, &volume, &info);
      if (watch.Met(rc)) {
        EXPECT_EQ(result, -1);
      }
      EXPECT_GE(result, -1);
      EXPECT_LE(result, 3);
    }
    EXPECT_EQ(result, 0);
  }
  EXPECT_EQ(KTRVAD_Deinit(), 0);
  heap::FailAt(0);
  EXPECT_LE(watch.FailedCalls(), 1);
  EXPECT_EQ(heap::LiveBlocks(), liveBefore) << "leak with allocation " << failAt << " failing";
  return !watch.Armed();
}

bool RunAgc(const std::vector<std::vector<int16_t>>& blocks, long failAt, int* gainChanges) {
  const long liveBefore = heap::LiveBlocks();
  FailureWatch watch;
  heap::FailAt(failAt);

  int rc = KTRAGC_Init(kRate);
  if (watch.Met(rc)) {
    EXPECT_EQ(g_pAgc, nullptr);
    rc = KTRAGC_Init(kRate);
  }
  EXPECT_EQ(rc, 0);
  long volume = 50;
  for (const std::vector<int16_t>& block : blocks) {
    long next = -1;
    rc = KTRAGC_ComputeGain(block.data(), static_cast<unsigned>(block.size() * 2), volume, 100,
                            &next);
    if (watch.Met(rc)) {
      EXPECT_EQ(next, 0);
      continue;  // the host keeps its volume
    }
    EXPECT_GE(next, 0);
    EXPECT_LE(next, 100);
    if (next != volume) ++*gainChanges;
    volume = next;
  }
  EXPECT_EQ(KTRAGC_Deinit(), 0);
  heap::FailAt(0);
  EXPECT_LE(watch.FailedCalls(), 1);
  EXPECT_EQ(heap::LiveBlocks(), liveBefore) << "leak with allocation " << failAt << " failing";
  return !watch.Armed();
}

TEST(AllocationFailure, EveryAllocationOfAVadHostRun) {
  const std::vector<std::vector<int16_t>> blocks = HostBlocks();
  int starts = 0;
  const long before = heap::Allocations();
  EXPECT_FALSE(RunVad(blocks, 0, &starts));
  const long total = heap::Allocations() - before;
  // The undisturbed run must reach the paths that allocate results.
  ASSERT_GE(starts, 1);
  ASSERT_GT(total, 200);
  long n = 1;
  for (; n <= total + 1; ++n) {
    int ignored = 0;
    if (!RunVad(blocks, n, &ignored)) break;
    if (testing::Test::HasFailure()) break;
  }
  EXPECT_EQ(n, total + 1) << "every allocation of the run was made to fail once";
}

TEST(AllocationFailure, EveryAllocationOfAnAgcHostRun) {
  const std::vector<std::vector<int16_t>> blocks = HostBlocks();
  int changes = 0;
  const long before = heap::Allocations();
  EXPECT_FALSE(RunAgc(blocks, 0, &changes));
  const long total = heap::Allocations() - before;
  ASSERT_GT(changes, 0);
  ASSERT_GT(total, 10);
  long n = 1;
  for (; n <= total + 1; ++n) {
    int ignored = 0;
    if (!RunAgc(blocks, n, &ignored)) break;
    if (testing::Test::HasFailure()) break;
  }
  EXPECT_EQ(n, total + 1);
}

// The harness itself: a failure is thrown exactly once, where armed. Direct calls of
// operator new, which the compiler may not elide as it may new-expressions.
TEST(AllocationFailure, HarnessFailsTheArmedAllocationOnly) {
  const long live = heap::LiveBlocks();
  heap::FailAt(2);
  void* first = ::operator new(8);
  EXPECT_FALSE(heap::Failed());
  EXPECT_THROW(static_cast<void>(::operator new(8)), std::bad_alloc);
  EXPECT_TRUE(heap::Failed());
  void* third = ::operator new(8);
  EXPECT_EQ(heap::LiveBlocks(), live + 2);
  ::operator delete(first);
  ::operator delete(third);
  EXPECT_EQ(heap::LiveBlocks(), live);
  heap::FailAt(0);
}

}  // namespace
