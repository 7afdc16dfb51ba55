#pragma once
// Text traces of everything the services report for a recording, for golden comparisons
// and for telling whether a parameter had any effect. Values derived from logarithms are
// printed to 7 digits, so a last-bit difference of log10 between platforms cannot show.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "agc.h"
#include "audioanalyzer.h"
#include "bench/signal.h"

namespace trace {

inline const bench::Recording& Sample(const std::string& name) {
  static std::map<std::string, bench::Recording> cache;
  auto it = cache.find(name);
  if (it == cache.end()) it = cache.emplace(name, bench::ReadWav(std::string(KTFRONT_SAMPLES_DIR) + "/" + name)).first;
  return it->second;
}

template <typename... Args>
std::string Format(const char* format, Args... args) {
  char line[256];
  std::snprintf(line, sizeof line, format, args...);
  return line;
}

inline uint64_t Hash(const std::string& text) {
  uint64_t h = 1469598103934665603ULL;  // FNV-1a
  for (unsigned char c : text) h = (h ^ c) * 1099511628211ULL;
  return h;
}

inline std::string Drain(kt::AudioAnalyzer& a) {
  std::string out;
  kt::AnalyzerResultPtr r;
  while (a.GetResult(r)) {
    if (const auto* e = dynamic_cast<const kt::AnalyzerEvent*>(r.get())) {
      out += Format("e%d %d %.6f\n", r->GetType(), e->GetTag(), e->GetTimeMs());
    } else if (const auto* m = dynamic_cast<const kt::AnalyzerVolumeMeter*>(r.get())) {
      out += Format("m%d %d %.7g %g %.7g %.6f %d\n", r->GetType(), m->GetInfo(), m->GetVolumedBFS(), m->GetVolume(),
                    m->GetSNRVolumePct(), m->GetTimeMs(), m->IsSpeechState());
    } else if (const auto* f = dynamic_cast<const kt::AnalyzerAudioFrame*>(r.get())) {
      std::string samples;
      for (int16_t s : f->GetData()) samples += std::to_string(s) + ",";
      out += Format("f%d %d %d %016" PRIx64 "\n", r->GetType(), f->GetFrameIndex(), f->IsSpeechSegmentFrame(),
                    Hash(samples));
    }
  }
  return out;
}

// The recording in blocks of `block` samples; every `flushEvery` blocks (0: never) an
// utterance ends.
inline std::string Analyzer(const std::string& params, const std::string& sample, size_t block,
                            size_t flushEvery = 0, bool supply = true) {
  const bench::Recording& r = Sample(sample);
  kt::AudioAnalyzer a(params, r.rate, supply);
  std::string out;
  for (size_t pos = 0, n = 1; pos < r.samples.size(); pos += block, ++n) {
    a.Process(kt::AudioData(r.samples.begin() + pos,
                            r.samples.begin() + std::min(r.samples.size(), pos + block)));
    if (flushEvery && n % flushEvery == 0) a.Flush();
    out += Drain(a);
  }
  a.Flush();
  return out + Drain(a);
}

// The gain control's log and gains over the recording played back at the gain it asks for
// (0.5 is unity), starting too low; the 16-bit variant runs alongside.
inline std::string Agc(const std::string& params, const std::string& sample, size_t block) {
  const bench::Recording& r = Sample(sample);
  kt::AGC agc(params, r.rate);
  kt::AGC agc16(params, r.rate);
  auto log = std::make_shared<std::ostringstream>();
  agc.SetLogStream(log);
  float gain = 0.02f;
  unsigned short gain16 = 3000;
  std::string out;
  for (size_t pos = 0; pos < r.samples.size(); pos += block) {
    const kt::AudioData raw(r.samples.begin() + pos, r.samples.begin() + std::min(r.samples.size(), pos + block));
    auto play = [&raw](float g) {
      kt::AudioData data(raw);
      for (int16_t& s : data) s = static_cast<int16_t>(std::max(-32768.0f, std::min(32767.0f, s * g * 2.0f)));
      return data;
    };
    gain16 = agc16.ComputeGain(play(gain16 / 65535.0f), gain16);
    gain = agc.ComputeGain(play(gain), gain);
    out += Format("g %a %u\n", gain, gain16);
  }
  return out + log->str();
}

}  // namespace trace
