// Streaming through either C interface, polling until nothing is pending, allocates a
// bounded number of times per block and holds a bounded heap, however long it runs.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <new>
#include <vector>

#include "KTRAGC.h"
#include "KTRVAD.h"

namespace {

// Counted only while a service call runs; the tests are single-threaded.
bool g_counting = false;
long long g_allocations = 0;
long long g_live = 0;

void* Allocate(size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  if (g_counting) {
    ++g_allocations;
    g_live += static_cast<long long>(malloc_usable_size(p));
  }
  return p;
}

void Release(void* p) {
  if (p && g_counting) g_live -= static_cast<long long>(malloc_usable_size(p));
  std::free(p);
}

}  // namespace

void* operator new(size_t size) { return Allocate(size); }
void* operator new[](size_t size) { return Allocate(size); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }

namespace {

const int kSeconds = 300;
const double kSentencePeriodS = 3.7;

// Sentences of a vowel-like tone with a syllable rhythm at -20 dBFS, between pauses of
// faint noise; the period is no whole number of blocks.
std::vector<int16_t> Talk(int rate, int seconds) {
  const size_t period = static_cast<size_t>(kSentencePeriodS * rate);
  std::vector<int16_t> sentence(period);
  unsigned int seed = 12345;
  const double pi = 3.141592653589793;
  for (size_t i = 0; i < period; ++i) {
    seed = seed * 1103515245u + 12345u;
    const double noise = static_cast<double>((seed >> 16) & 0x7fff) / 16384.0 - 1.0;
    const double t = static_cast<double>(i) / rate;
    double x = 30.0 * noise;
    if (t < 2.1) {
      const double syllables = 0.5 + 0.5 * std::sin(2.0 * pi * 4.0 * t);
      x += 3000.0 * syllables *
           (std::sin(2.0 * pi * 180.0 * t) + 0.6 * std::sin(2.0 * pi * 720.0 * t) +
            0.3 * std::sin(2.0 * pi * 1900.0 * t));
    }
    sentence[i] = static_cast<int16_t>(x);
  }
  std::vector<int16_t> signal(static_cast<size_t>(rate) * seconds);
  for (size_t i = 0; i < signal.size(); ++i) signal[i] = sentence[i % period];
  return signal;
}

// Per block: the allocations made and the heap held afterwards, relative to the start.
struct Trace {
  std::vector<long long> allocations;
  std::vector<long long> live;
};

template <typename Block>
Trace Stream(const std::vector<int16_t>& signal, size_t block, Block process) {
  Trace trace;
  g_allocations = 0;
  g_live = 0;
  for (size_t pos = 0; pos + block <= signal.size(); pos += block) {
    const long long before = g_allocations;
    g_counting = true;
    process(signal.data() + pos, static_cast<unsigned int>(block * sizeof(int16_t)));
    g_counting = false;
    trace.allocations.push_back(g_allocations - before);
    trace.live.push_back(g_live);
  }
  return trace;
}

long long MaxOf(const std::vector<long long>& v, size_t first, size_t last) {
  return *std::max_element(v.begin() + static_cast<long>(first), v.begin() + static_cast<long>(last));
}

// The second half of a long run needs no more allocations per block and no more heap
// than the first half, and no block allocates more than `bound` times once warmed up.
void ExpectBounded(const Trace& trace, long long bound) {
  const size_t n = trace.allocations.size();
  const size_t warm = n / 20;
  EXPECT_LE(MaxOf(trace.allocations, warm, n), bound);
  EXPECT_LE(MaxOf(trace.allocations, n / 2, n), MaxOf(trace.allocations, 0, n / 2));
  EXPECT_LE(MaxOf(trace.live, n / 2, n), MaxOf(trace.live, 0, n / 2));
  // The counter sees the services at all.
  long long total = 0;
  for (long long a : trace.allocations) total += a;
  EXPECT_GT(total, 0);
}

TEST(StreamAllocTest, AnalyzerHeapStaysBoundedWhilePolling) {
  for (int rate : {8000, 11025, 16000}) {
    SCOPED_TRACE(rate);
    const std::vector<int16_t> signal = Talk(rate, kSeconds);
    ASSERT_EQ(KTRVAD_Init(rate), 0);
    for (size_t blockMs : {20, 10}) {
      SCOPED_TRACE(blockMs);
      int events = 0;
      const Trace trace =
          Stream(signal, rate * blockMs / 1000, [&events](const int16_t* data, unsigned int bytes) {
            int result = 0;
            double pct = 0.0;
            int info = 0;
            ASSERT_EQ(KTRVAD_GetResult(1, data, bytes, &result, &pct, &info), 0);
            while (result > 0) {
              events += result == 1 || result == 2;
              ASSERT_EQ(KTRVAD_GetResult(0, nullptr, 0, &result, &pct, &info), 0);
            }
          });
      // The block's copy, two allocations per frame result, events, one reading and the
      // queue's occasional new chunk; a speech start releases the 10 frames of its window.
      ExpectBounded(trace, 32);
      // Speech started and ended in nearly every sentence.
      EXPECT_GE(events, static_cast<int>(2 * 0.9 * kSeconds / kSentencePeriodS)) << events;
    }
    KTRVAD_Deinit();
  }
}

TEST(StreamAllocTest, GainControlHeapStaysBounded) {
  for (int rate : {8000, 11025, 16000}) {
    SCOPED_TRACE(rate);
    const std::vector<int16_t> signal = Talk(rate, kSeconds);
    ASSERT_EQ(KTRAGC_Init(rate), 0);
    // Recorded at the volume in force, 128 being unity; it starts far too low.
    long volume = 8;
    long changes = 0;
    std::vector<int16_t> recorded(static_cast<size_t>(rate / 50));
    const Trace trace = Stream(signal, rate / 50, [&](const int16_t* data, unsigned int bytes) {
      for (size_t i = 0; i < recorded.size(); ++i) {
        recorded[i] = static_cast<int16_t>(std::max(-32768L, std::min(32767L, data[i] * volume / 128)));
      }
      const long before = volume;
      ASSERT_EQ(KTRAGC_ComputeGain(recorded.data(), bytes, volume, 255, &volume), 0);
      changes += volume != before;
    });
    ExpectBounded(trace, 0);  // its buffers, once grown, serve every later block
    EXPECT_GT(changes, 1);
    KTRAGC_Deinit();
  }
}

}  // namespace
