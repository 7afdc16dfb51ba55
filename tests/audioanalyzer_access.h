#pragma once
// Reaches into AudioAnalyzer so that tests can drive its decision core with chosen
// frame energies and read its state. Used by tests only.
#include <string>
#include <vector>

#include "audioanalyzer.h"

namespace kt {

class AudioAnalyzerTestAccess {
 public:
  // Stores frames of the given energy as if measured, deciding what falls due.
  static void Feed(AudioAnalyzer& a, double energy, int count = 1) {
    for (int i = 0; i < count; ++i) a.AnalyzeEnergy(energy);
  }
  static void Meter(AudioAnalyzer& a, const AudioData& block) {
    a.GenerateVolumeMeterResult(block.cbegin(), block.cend());
  }
  static double ComputeEnergy(const AudioAnalyzer& a, const AudioData& samples) {
    return a.ComputeEnergy(samples.cbegin(), samples.cend());
  }
  static double GetdBFS(const AudioAnalyzer& a, double val) { return a.GetdBFS(val); }

  static EnergyHistogram& Histogram(AudioAnalyzer& a) { return a._histogram; }
  static AudioAnalyzer::State GetState(const AudioAnalyzer& a) { return a._state; }
  static void SetState(AudioAnalyzer& a, AudioAnalyzer::State state) { a._state = state; }
  static int WriteIndex(const AudioAnalyzer& a) { return a._writeIndex; }
  static void SetWriteIndex(AudioAnalyzer& a, int index) { a._writeIndex = index; }
  static void SetSpeechStartIndex(AudioAnalyzer& a, int index) { a._speechStartIndex = index; }
  static void SetEnergy(AudioAnalyzer& a, int frame, double energy) {
    a._energyWindow[static_cast<size_t>(frame % AudioAnalyzer::kRingSize)] = energy;
  }
  static double PrevSNRVolume(const AudioAnalyzer& a) { return a._prevSNRVolume; }
  static const AudioData& AudioBuffer(const AudioAnalyzer& a) { return a._audioBuffer; }

  static int SpeechWindowSize(const AudioAnalyzer& a) { return a._speechWindowSize; }
  static double SpeechWindowFraction(const AudioAnalyzer& a) { return a._speechWindowFraction; }
  static int NumPauseFrames(const AudioAnalyzer& a) { return a._numPauseFrames; }
  static double MaxDecayRate(const AudioAnalyzer& a) { return a._maxDecayRateDbPerDs; }
  static double FullScaleSNR(const AudioAnalyzer& a) { return a._fullScaleSNR; }
  static double TooSoftSNR(const AudioAnalyzer& a) { return a._tooSoftSNR; }
  static double TooSoftWindowSizeMs(const AudioAnalyzer& a) { return a._tooSoftWindowSizeMs; }
  static std::string Parameter(const AudioAnalyzer& a, const std::string& key) {
    return a._parameters.Get<std::string>(key);
  }
};

// What came out of the queue, in order.
struct Drained {
  struct Event {
    AnalyzerEvent::EventTag tag;
    double timeMs;
  };
  struct Frame {
    int index;
    bool isSpeech;
    size_t numSamples;
  };
  std::vector<AnalyzerResultPtr> all;
  std::vector<Event> events;
  std::vector<Frame> frames;
  std::vector<const AnalyzerVolumeMeter*> meters;
};

inline Drained Drain(AudioAnalyzer& a) {
  Drained d;
  AnalyzerResultPtr result;
  while (a.GetResult(result)) {
    d.all.push_back(result);
    if (const auto* event = dynamic_cast<const AnalyzerEvent*>(result.get())) {
      d.events.push_back({event->GetTag(), event->GetTimeMs()});
    } else if (const auto* frame = dynamic_cast<const AnalyzerAudioFrame*>(result.get())) {
      d.frames.push_back({frame->GetFrameIndex(), frame->IsSpeechSegmentFrame(),
                          frame->GetData().size()});
    } else if (const auto* meter = dynamic_cast<const AnalyzerVolumeMeter*>(result.get())) {
      d.meters.push_back(meter);
    }
  }
  return d;
}

}  // namespace kt
