#pragma once
// Streams the test signal through one engine per benchmark iteration, block by block,
// as a host would, and records what the table needs: the rate and the samples streamed.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "signal.h"

namespace bench {

// Samples in a block of blockMs at rate, truncated as the hosts' frame sizes are.
inline size_t BlockSamples(int rate, int blockMs) {
  return static_cast<size_t>(rate) * static_cast<size_t>(blockMs) / 1000;
}

inline void SetCounters(benchmark::State& state, int rate, size_t samples) {
  state.counters["rate"] = rate;
  state.counters["samples"] = static_cast<double>(samples);
}

// Engine(rate, blockSamples) is built, fed every whole block of the signal with
// Process(const int16_t*, size_t) and destroyed in each iteration; Checksum() keeps
// its results alive for the optimiser.
template <typename Engine>
void StreamBlocks(benchmark::State& state, int rate, int blockMs) {
  const Samples& signal = TestSignal(rate);
  const size_t block = BlockSamples(rate, blockMs);
  const size_t blocks = signal.size() / block;
  for (auto _ : state) {
    Engine engine(rate, block);
    for (size_t i = 0; i < blocks; ++i) engine.Process(signal.data() + i * block, block);
    benchmark::DoNotOptimize(engine.Checksum());
  }
  SetCounters(state, rate, blocks * block);
}

template <typename Engine>
void Register(const std::string& name, int rate, int blockMs) {
  benchmark::RegisterBenchmark(name.c_str(), [rate, blockMs](benchmark::State& state) {
    StreamBlocks<Engine>(state, rate, blockMs);
  })->Unit(benchmark::kMillisecond);
}

void RegisterKernels();
void RegisterKtfront();
void RegisterWebRtc();
void RegisterSpeex();

}  // namespace bench
