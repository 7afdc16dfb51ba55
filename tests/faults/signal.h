#pragma once
// Deterministic recorder-like audio for the tests of this binary: noise floors, hum,
// speech-like syllable bursts, digital silence and clipping, scaled by the recording
// volume in force, as a microphone behind a gain stage would deliver it.
#include <cstdint>
#include <vector>

namespace signal_gen {

class Recorder {
 public:
  enum Kind { Silence, Noise, Hum, Speech, Clipping, kNumKinds };

  explicit Recorder(uint32_t seed) : _seed(seed) {}

  // Starts a segment of `kind` at the given loudness (0 to 1 of full scale at volume 1).
  void Begin(Kind kind, double loudness) {
    _kind = kind;
    _loudness = loudness;
    _t = 0;
  }

  // The next block of n samples, recorded at `gain` (0 to 1, 0.5 is nominal).
  void Record(std::vector<int16_t>& block, size_t n, double gain) {
    block.resize(n);
    for (int16_t& s : block) s = Clip(Raw() * 2.0 * gain);
  }

  uint32_t Random() {
    _seed = _seed * 1664525u + 1013904223u;
    return _seed >> 8;
  }
  // Uniform in [0, 1).
  double Uniform() { return (Random() & 0xFFFFFF) / 16777216.0; }

 private:
  double Raw() {
    const uint64_t t = _t++;
    const double noise = Uniform() * 2.0 - 1.0;
    switch (_kind) {
      case Silence:
        return 0.0;
      case Noise:
        return 32767.0 * _loudness * noise;
      case Hum: {  // a 100 Hz-ish triangle at 8 kHz
        const double phase = static_cast<double>(t % 80) / 80.0;
        return 32767.0 * _loudness * (phase < 0.5 ? 4 * phase - 1 : 3 - 4 * phase);
      }
      case Speech: {  // syllables of 200 ms at 8 kHz: a loud half and a quiet half
        const bool voiced = (t / 800) % 2 == 0;
        return 32767.0 * _loudness * noise * (voiced ? 1.0 : 0.05);
      }
      default:
        return (t / 4) % 2 ? 40000.0 : -40000.0;
    }
  }

  static int16_t Clip(double v) {
    if (v > 32767.0) return 32767;
    if (v < -32768.0) return -32768;
    return static_cast<int16_t>(v);
  }

  uint32_t _seed;
  Kind _kind = Silence;
  double _loudness = 0.0;
  uint64_t _t = 0;
};

}  // namespace signal_gen
