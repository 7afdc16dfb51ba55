#include "signal.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>

#ifndef KTFRONT_SAMPLES_DIR
#error "KTFRONT_SAMPLES_DIR must name the folder of the sample recordings"
#endif

namespace bench {

namespace {

uint32_t Le32(const unsigned char* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

int16_t Clip16(double x) {
  const double r = std::floor(x + 0.5);
  return static_cast<int16_t>(std::min(32767.0, std::max(-32768.0, r)));
}

}  // namespace

Recording ReadWav(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)),
                                         std::istreambuf_iterator<char>());
  if (bytes.size() < 12 || std::memcmp(bytes.data(), "RIFF", 4) ||
      std::memcmp(bytes.data() + 8, "WAVE", 4)) {
    throw std::runtime_error("not a RIFF WAV file: " + path);
  }
  Recording recording;
  bool format = false;
  for (size_t pos = 12; pos + 8 <= bytes.size();) {
    const unsigned char* chunk = bytes.data() + pos;
    const size_t size = Le32(chunk + 4);
    if (pos + 8 + size > bytes.size()) break;
    if (!std::memcmp(chunk, "fmt ", 4) && size >= 16) {
      format = Le16(chunk + 8) == 1 && Le16(chunk + 10) == 1 && Le16(chunk + 22) == 16;
      recording.rate = static_cast<int>(Le32(chunk + 12));
    } else if (!std::memcmp(chunk, "data", 4) && format) {
      recording.samples.resize(size / 2);
      for (size_t i = 0; i < recording.samples.size(); ++i) {
        recording.samples[i] = static_cast<int16_t>(Le16(chunk + 8 + 2 * i));
      }
      return recording;
    }
    pos += 8 + size + (size & 1);
  }
  throw std::runtime_error("no 16-bit mono PCM data in " + path);
}

Samples Resample(const Samples& in, int fromRate, int toRate) {
  if (fromRate == toRate) return in;
  const double pi = 3.141592653589793;
  const double step = static_cast<double>(fromRate) / toRate;  // input samples per output
  const double cutoff = 0.95 * std::min(1.0, 1.0 / step);      // of the input's Nyquist
  const int half = static_cast<int>(std::ceil(16.0 / cutoff));  // taps on each side
  Samples out(static_cast<size_t>(static_cast<double>(in.size()) / step));
  for (size_t n = 0; n < out.size(); ++n) {
    const double t = static_cast<double>(n) * step;
    const long centre = static_cast<long>(t);
    double sum = 0.0;
    for (long k = centre - half + 1; k <= centre + half; ++k) {
      if (k < 0 || k >= static_cast<long>(in.size())) continue;
      const double d = t - static_cast<double>(k);
      const double x = pi * cutoff * d;
      const double sinc = d == 0.0 ? 1.0 : std::sin(x) / x;
      const double window = 0.5 + 0.5 * std::cos(pi * d / half);  // Hann
      sum += in[static_cast<size_t>(k)] * cutoff * sinc * window;
    }
    out[n] = Clip16(sum);
  }
  return out;
}

const Samples& TestSignal(int rate) {
  static std::map<int, Samples> cache;
  const auto found = cache.find(rate);
  if (found != cache.end()) return found->second;

  const std::string dir = KTFRONT_SAMPLES_DIR;
  std::vector<Recording> sources;
  for (const char* name : {"message_8000.wav", "directions_11025.wav", "forecast_16000.wav"}) {
    Recording r = ReadWav(dir + "/" + name);
    r.samples = Resample(r.samples, r.rate, rate);
    r.rate = rate;
    sources.push_back(std::move(r));
  }
  // Levels from 20 dB too soft to clipping, so that the gain control jumps both ways.
  const double gains[] = {1.0, 0.3, 1.0, 2.2, 0.5, 0.1, 1.4, 0.7};
  const double gapsS[] = {0.4, 1.5, 0.0, 2.5, 0.8};
  const size_t total = static_cast<size_t>(60) * static_cast<size_t>(rate);
  Samples signal;
  signal.reserve(total);
  for (size_t piece = 0; signal.size() < total; ++piece) {
    const Samples& speech = sources[piece % sources.size()].samples;
    const double gain = gains[piece % std::size(gains)];
    for (int16_t s : speech) signal.push_back(Clip16(gain * s));
    // The recordings open with at least 1 s of background alone: loop over it for a pause.
    const size_t gap = static_cast<size_t>(gapsS[piece % std::size(gapsS)] * rate);
    const size_t background = static_cast<size_t>(rate) * 9 / 10;
    for (size_t i = 0; i < gap; ++i) signal.push_back(Clip16(gain * speech[i % background]));
  }
  signal.resize(total);
  return cache.emplace(rate, std::move(signal)).first->second;
}

}  // namespace bench
