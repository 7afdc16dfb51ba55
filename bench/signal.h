#pragma once
// The benchmark's input: a minute of speech with pauses and background noise at one
// sampling rate, built from the bundled recordings.
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

using Samples = std::vector<int16_t>;

struct Recording {
  int rate = 0;
  Samples samples;
};

// 16-bit mono PCM RIFF WAV; throws std::runtime_error on anything else.
Recording ReadWav(const std::string& path);

// Windowed-sinc resampling, low-passed below both Nyquist frequencies.
Samples Resample(const Samples& in, int fromRate, int toRate);

// 60 s at `rate`: the three sample recordings in turn, each at its own gain (quiet,
// normal, too loud), with stretches of their background noise between them.
// The same rate always yields the same samples.
const Samples& TestSignal(int rate);

}  // namespace bench
