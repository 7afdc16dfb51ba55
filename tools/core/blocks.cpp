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
