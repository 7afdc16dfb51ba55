#pragma once
// The input as the services take it: whole, or in host blocks of a fixed size.
#include <cstdint>
#include <functional>
#include <string>

#include "audiodata.h"

namespace ktcli {

class AudioSource;

// Samples in a host block of blockMs at rateHz. Throws std::invalid_argument
// "OPTION N is below one sample", naming the option the caller took blockMs from.
int BlockSamples(int blockMs, int rateHz, const std::string& option);

// Reads the source chunk by chunk and hands its analysis-rate samples on in blocks of
// blockSamples, the last one shorter; onChunk, when given, sees each chunk first. Stops
// reading once stop() says so; returns whether it did.
bool Pump(AudioSource& source, int blockSamples, const std::function<void(const kt::AudioData&)>& onBlock,
          const std::function<void(const AudioSource&)>& onChunk, const std::function<bool()>& stop);

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
