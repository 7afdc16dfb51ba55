// Heap held by one analyzer and one gain control behind the C interfaces: after
// initialisation, at the peak while streaming a minute (polling until nothing is
// pending) and at the end, with the allocations made per block.
#include <cstdio>
#include <cstdlib>

#include "KTRAGC.h"
#include "KTRVAD.h"
#include "heap.h"
#include "signal.h"

namespace {

struct Usage {
  long long init = 0;
  long long peak = 0;
  long long end = 0;
  double allocationsPerBlock = 0.0;
  long long maxAllocationsPerBlock = 0;
};

template <typename Init, typename Block, typename Deinit>
Usage Measure(int rate, Init init, Block block, Deinit deinit) {
  const bench::Samples& signal = bench::TestSignal(rate);
  const size_t n = static_cast<size_t>(rate) / 50;  // 20 ms
  const size_t blocks = signal.size() / n;
  Usage usage;
  const long long base = static_cast<long long>(heap::LiveBytes());
  init(rate);
  usage.init = static_cast<long long>(heap::LiveBytes()) - base;
  heap::ResetPeak();
  const long long allocationsBefore = heap::Allocations();
  for (size_t i = 0; i < blocks; ++i) {
    const long long before = heap::Allocations();
    block(signal.data() + i * n, n);
    if (heap::Allocations() - before > usage.maxAllocationsPerBlock) {
      usage.maxAllocationsPerBlock = heap::Allocations() - before;
    }
  }
  usage.allocationsPerBlock =
      static_cast<double>(heap::Allocations() - allocationsBefore) / static_cast<double>(blocks);
  usage.peak = static_cast<long long>(heap::PeakLiveBytes()) - base;
  usage.end = static_cast<long long>(heap::LiveBytes()) - base;
  deinit();
  return usage;
}

void Print(const char* what, int rate, const Usage& u) {
  std::printf("| %s | %d | %lld | %lld | %lld | %.2f | %lld |\n", what, rate, u.init, u.peak, u.end,
              u.allocationsPerBlock, u.maxAllocationsPerBlock);
}

}  // namespace

int main() {
  for (int rate : {8000, 11025, 16000}) bench::TestSignal(rate);  // built before counting
  std::printf("Heap bytes held (as requested) and allocations per 20 ms block,\n"
              "streaming 60 s through the C interfaces:\n\n");
  std::printf("| service | rate | after init | peak | after 60 s | allocations/block | max/block |\n");
  std::printf("|---|---:|---:|---:|---:|---:|---:|\n");
  for (int rate : {8000, 11025, 16000}) {
    Print("analyzer (KTRVAD)", rate,
          Measure(
              rate, [](int r) { KTRVAD_Init(r); },
              [](const int16_t* data, size_t n) {
                int result = 0;
                double pct = 0.0;
                int info = 0;
                KTRVAD_GetResult(1, data, static_cast<unsigned int>(2 * n), &result, &pct, &info);
                while (result > 0) KTRVAD_GetResult(0, nullptr, 0, &result, &pct, &info);
              },
              [] { KTRVAD_Deinit(); }));
  }
  for (int rate : {8000, 11025, 16000}) {
    long volume = 128;
    Print("gain control (KTRAGC)", rate,
          Measure(
              rate, [](int r) { KTRAGC_Init(r); },
              [&volume](const int16_t* data, size_t n) {
                KTRAGC_ComputeGain(data, static_cast<unsigned int>(2 * n), volume, 255, &volume);
              },
              [] { KTRAGC_Deinit(); }));
  }
  return 0;
}
