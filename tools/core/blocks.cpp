#include "blocks.h"

#include <algorithm>
#include <stdexcept>

#include "source.h"

namespace ktcli {

int BlockSamples(int blockMs, int rateHz, const std::string& option) {
  const long samples = static_cast<long>(blockMs) * rateHz / 1000;
  if (samples < 1) throw std::invalid_argument(option + " " + std::to_string(blockMs) + " is below one sample");
  return static_cast<int>(samples);
}

bool Pump(AudioSource& source, int blockSamples, const std::function<void(const kt::AudioData&)>& onBlock,
          const std::function<void(const AudioSource&)>& onChunk, const std::function<bool()>& stop) {
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

void ForEachBlock(const int16_t* samples, size_t count, int blockSamples,
                  const std::function<void(const kt::AudioData&)>& onBlock) {
  const size_t step = static_cast<size_t>(blockSamples);
  kt::AudioData block;
  for (size_t at = 0; at < count; at += step) {
    block.assign(samples + at, samples + at + std::min(step, count - at));
    onBlock(block);
  }
}

Audio ReadAudio(const std::string& path, int rawRateHz) {
  AudioSource source(path, rawRateHz);
  Audio audio;
  audio.name = source.GetName();
  audio.rateHz = source.GetRateHz();
  while (source.Read()) audio.samples.insert(audio.samples.end(), source.GetSamples().begin(), source.GetSamples().end());
  return audio;
}

}  // namespace ktcli
