// A C++ host of the classes behind the C interfaces: runs kt::AudioAnalyzer over a WAV file
// and prints its speech segments, then kt::AGC over the same file as agc_host does and
// prints the volume it ends at. Its output is the same wherever the library came from.
// Usage: cpp_host FILE.wav (PCM, 16 bit, mono, 8000, 11025 or 16000 Hz, 44-byte header)
#include <ktfront/agc.h>
#include <ktfront/audioanalyzer.h>
#include <ktfront/version.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "wav_header.h"

namespace {

// Speech segments in seconds, one "start end" line each; a start without an end runs to
// the end of the recording.
int PrintSegments(const kt::AudioData& samples, unsigned int rate) {
  kt::AudioAnalyzer analyzer("", rate, false);
  const size_t block = rate / 50;
  for (size_t at = 0; at < samples.size(); at += block) {
    const size_t end = at + block < samples.size() ? at + block : samples.size();
    analyzer.Process(kt::AudioData(samples.begin() + at, samples.begin() + end));
  }
  analyzer.Flush();
  int segments = 0;
  kt::AnalyzerResultPtr result;
  while (analyzer.GetResult(result)) {
    // The result types cross the library boundary; the cast must still recognise them.
    const auto event = std::dynamic_pointer_cast<kt::AnalyzerEvent>(result);
    if (!event) continue;
    if (event->GetTag() == kt::AnalyzerEvent::SpeechStart) {
      std::printf("speech %.3f", event->GetTimeMs() / 1000.0);
      ++segments;
    } else if (event->GetTag() == kt::AnalyzerEvent::SpeechEnd) {
      std::printf(" %.3f\n", event->GetTimeMs() / 1000.0);
    }
  }
  return segments;
}

// The recording played at the volume the gain control asks for, in 20 ms blocks.
unsigned short FinalGain(const kt::AudioData& samples, unsigned int rate) {
  kt::AGC agc("", static_cast<int>(rate));
  unsigned short gain = 6554;  // a tenth of full scale
  const size_t block = rate / 50;
  for (size_t at = 0; at < samples.size(); at += block) {
    const size_t end = at + block < samples.size() ? at + block : samples.size();
    kt::AudioData scaled(samples.begin() + at, samples.begin() + end);
    for (int16_t& sample : scaled) {
      long long value = static_cast<long long>(sample) * gain / 65535;
      sample = static_cast<int16_t>(value);
    }
    gain = agc.ComputeGain(scaled, gain);
  }
  return gain;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FILE.wav\n", argv[0]);
    return 2;
  }
  FILE* file = std::fopen(argv[1], "rb");
  if (!file) {
    std::fprintf(stderr, "error: cannot open %s\n", argv[1]);
    return 1;
  }
  const unsigned int rate = ReadWavHeader(file);
  kt::AudioData samples;
  int16_t sample;
  // Samples are little-endian in the file and on the x86 targets alike.
  while (rate != 0 && std::fread(&sample, sizeof sample, 1, file) == 1) samples.push_back(sample);
  std::fclose(file);
  if (rate == 0) {
    std::fprintf(stderr, "error: %s is not a 16-bit mono PCM WAV file with a 44-byte header\n",
                 argv[1]);
    return 1;
  }

  std::printf("ktfront %s: %s, %u Hz\n", KTFRONT_VERSION_STRING, argv[1], rate);
  try {
    const int segments = PrintSegments(samples, rate);
    std::printf("%d speech segments\n", segments);
    std::printf("final gain %u of 65535\n", FinalGain(samples, rate));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "error: %s\n", e.what());
    return 1;
  }
  // A refusal reaches the host as the exception the header names.
  try {
    kt::AudioAnalyzer("EOSTimeoutMs=-100", rate, false);
    std::printf("error: a time-out of -100 ms was accepted\n");
    return 1;
  } catch (const std::invalid_argument& e) {
    std::printf("refused: %s\n", e.what());
  }
  return 0;
}
