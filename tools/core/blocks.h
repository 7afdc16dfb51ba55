#pragma once
// The input as the services take it: whole, or in host blocks of a fixed size.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>

#include "audiodata.h"

namespace ktcli {

class AudioSource;

// Samples in a host block of blockMs at rateHz. Throws std::invalid_argument
// "OPTION N is below one sample", naming the option the caller took blockMs from.
int BlockSamples(int blockMs, int rateHz, const std::string& option);

// Reads the source chunk by chunk and hands its analysis-rate samples on in blocks of
// blockSamples, the last one shorter; onChunk, when given, sees each chunk first. Stops
// reading once stop() says so; returns whether it did.
// Source is an AudioSource or anything else with bool Read() and GetSamples() (a live capture);
// onChunk's type names it without taking part in deducing it.
template <class Source>
bool Pump(Source& source, int blockSamples, const std::function<void(const kt::AudioData&)>& onBlock,
          const std::function<void(const std::common_type_t<Source>&)>& onChunk, const std::function<bool()>& stop) {
  const auto stopped = [&] { return stop && stop(); };
  kt::AudioData block;
  block.reserve(static_cast<size_t>(blockSamples));
  while (!stopped() && source.Read()) {
    if (onChunk) onChunk(source);
    const kt::AudioData& samples = source.GetSamples();
    for (size_t at = 0; at < samples.size();) {
      const size_t take = std::min(samples.size() - at, static_cast<size_t>(blockSamples) - block.size());
      block.insert(block.end(), samples.begin() + static_cast<std::ptrdiff_t>(at),
                   samples.begin() + static_cast<std::ptrdiff_t>(at + take));
      at += take;
      if (block.size() == static_cast<size_t>(blockSamples)) {
        onBlock(block);
        block.clear();
      }
    }
  }
  if (!block.empty()) onBlock(block);
  return stopped();
}

// The same for samples held in memory.
void ForEachBlock(const int16_t* samples, size_t count, int blockSamples,
                  const std::function<void(const kt::AudioData&)>& onBlock);

// A recording read whole: mono at the rate the services run at.
struct Audio {
  std::string name;  // as AudioSource names it ("standard input" for "-")
  int rateHz = 0;
  kt::AudioData samples;
};

// Throws std::runtime_error as AudioSource does.
Audio ReadAudio(const std::string& path, int rawRateHz);

}  // namespace ktcli
