// Prints every output of both services, exactly (hexadecimal floats), for the three sample
// recordings and the benchmark's minute at each rate: two builds of the library must
// print the same text.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "KTRAGC.h"
#include "KTRVAD.h"
#include "agc.h"
#include "audioanalyzer.h"
#include "signal.h"

namespace {

unsigned long long Hash(const kt::AudioData& data) {
  unsigned long long h = 1469598103934665603ULL;  // FNV-1a over the samples
  for (int16_t s : data) h = (h ^ static_cast<uint16_t>(s)) * 1099511628211ULL;
  return h;
}

void DumpCInterfaces(const char* name, int rate, const bench::Samples& signal, size_t block) {
  std::printf("# %s %d Hz, blocks of %zu, C interfaces\n", name, rate, block);
  std::printf("init %d %d\n", KTRVAD_Init(rate), KTRAGC_Init(rate));
  long volume = 24;  // starts too low, so that the gain control has work to do
  for (size_t pos = 0; pos + block <= signal.size(); pos += block) {
    int result = 0;
    double pct = 0.0;
    int info = 0;
    int ret = KTRVAD_GetResult(1, signal.data() + pos, static_cast<unsigned int>(2 * block), &result,
                               &pct, &info);
    std::printf("v %zu %d %d %a %d", pos, ret, result, pct, info);
    while (result > 0) {
      ret = KTRVAD_GetResult(0, nullptr, 0, &result, &pct, &info);
      std::printf(" | %d %d %a %d", ret, result, pct, info);
    }
    // The host's volume acts on what is recorded next: 128 is unity.
    std::vector<int16_t> recorded(signal.begin() + pos, signal.begin() + pos + block);
    for (int16_t& s : recorded) {
      const long v = s * volume / 128;
      s = static_cast<int16_t>(v > 32767 ? 32767 : v < -32768 ? -32768 : v);
    }
    ret = KTRAGC_ComputeGain(recorded.data(), static_cast<unsigned int>(2 * block), volume, 255,
                             &volume);
    std::printf("\ng %d %ld\n", ret, volume);
  }
  KTRVAD_Deinit();
  KTRAGC_Deinit();
}

void DumpClasses(const char* name, int rate, const bench::Samples& signal, size_t block) {
  std::printf("# %s %d Hz, blocks of %zu, classes\n", name, rate, block);
  kt::AudioAnalyzer analyzer("", rate, true);
  kt::AudioAnalyzer bare("", rate, false);
  kt::AGC agc("", rate);
  float gain = 0.5f;
  unsigned short gain16 = 32768;
  kt::AGC agc16("", rate);
  for (size_t pos = 0; pos < signal.size(); pos += block) {
    const size_t end = std::min(signal.size(), pos + block);
    const kt::AudioData data(signal.begin() + pos, signal.begin() + end);
    analyzer.Process(data);
    bare.Process(data);
    if (pos / block % 97 == 96) {  // now and then an utterance ends
      analyzer.Flush();
      bare.Flush();
    }
    for (kt::AudioAnalyzer* a : {&analyzer, &bare}) {
      kt::AnalyzerResultPtr r;
      while (a->GetResult(r)) {
        if (const auto* e = dynamic_cast<const kt::AnalyzerEvent*>(r.get())) {
          std::printf("e %d %a\n", e->GetTag(), e->GetTimeMs());
        } else if (const auto* m = dynamic_cast<const kt::AnalyzerVolumeMeter*>(r.get())) {
          std::printf("m %d %a %a %a %a %d\n", m->GetInfo(), m->GetVolumedBFS(), m->GetVolume(),
                      m->GetSNRVolumePct(), m->GetTimeMs(), m->IsSpeechState());
        } else if (const auto* f = dynamic_cast<const kt::AnalyzerAudioFrame*>(r.get())) {
          std::printf("f %d %d %zu %llx\n", f->GetFrameIndex(), f->IsSpeechSegmentFrame(),
                      f->GetData().size(), Hash(f->GetData()));
        }
      }
    }
    gain = agc.ComputeGain(data, gain);
    gain16 = agc16.ComputeGain(data, gain16);
    std::printf("a %a %u\n", gain, gain16);
  }
}

// The 16-bit scale at every gain of a jump path: silence is too low, four steps up.
void DumpSixteenBitScale() {
  std::printf("# 16-bit scale, four steps up from every gain\n");
  kt::AGC agc("", 8000);
  const kt::AudioData silence(800, 0);
  for (unsigned gain = 1; gain <= 65535; ++gain) {
    std::printf("s %u %u\n", gain, agc.ComputeGain(silence, static_cast<unsigned short>(gain)));
  }
}

}  // namespace

int main() {
  DumpSixteenBitScale();
  const std::string dir = KTFRONT_SAMPLES_DIR;
  for (const char* file : {"message_8000.wav", "directions_11025.wav", "forecast_16000.wav"}) {
    const bench::Recording r = bench::ReadWav(dir + "/" + file);
    for (size_t block : {r.rate / 50, r.rate / 100, 1001}) {
      DumpCInterfaces(file, r.rate, r.samples, static_cast<size_t>(block));
      DumpClasses(file, r.rate, r.samples, static_cast<size_t>(block));
    }
  }
  for (int rate : {8000, 11025, 16000}) {
    const bench::Samples& minute = bench::TestSignal(rate);
    DumpCInterfaces("minute", rate, minute, static_cast<size_t>(rate / 50));
    DumpClasses("minute", rate, minute, static_cast<size_t>(rate / 50));
  }
  return 0;
}
