#pragma once
// Closed-loop simulation of the gain control: the recording plays through a simulated
// recording volume, and the host sets whatever gain the control returns for the next block.
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "audiodata.h"

namespace ktcli {

class GainUpdate {
 public:
  GainUpdate(double timeS, float gain, std::string decision, nlohmann::ordered_json detail)
      : _timeS(timeS), _gain(gain), _decision(std::move(decision)), _detail(std::move(detail)) {}
  // End of the block after which the gain below is set.
  double GetTimeS() const { return _timeS; }
  float GetGain() const { return _gain; }
  // The record word of the diagnostic log ("toolow", "toohigh", "speech", "pause",
  // "nil"), "median" for the restart at gain 0, "-" through the C interface.
  const std::string& GetDecision() const { return _decision; }
  nlohmann::ordered_json ToJson() const;

 private:
  double _timeS;
  float _gain;
  std::string _decision;
  nlohmann::ordered_json _detail;
};

class AgcRun {
 public:
  // kt::AGC with the parameter string and its diagnostic log; one update per log line.
  static AgcRun ThroughClasses(const kt::AudioData& samples, int rateHz, const std::string& params,
                               int blockSamples, float startGain);
  // KTRAGC_* on a volume scale of 0 to bound; one update per change of volume.
  static AgcRun ThroughCInterface(const kt::AudioData& samples, int rateHz, int blockSamples,
                                  float startGain, long bound);

  const std::vector<GainUpdate>& GetUpdates() const { return _updates; }
  // The recording as the simulated volume let it through.
  const kt::AudioData& GetScaled() const { return _scaled; }
  const std::string& GetLog() const { return _log; }
  float GetStartGain() const { return _startGain; }

 private:
  explicit AgcRun(float startGain) : _startGain(startGain) {}
  // Appends the block scaled by gain, saturating to 16 bits; returns the scaled block.
  kt::AudioData Scale(const kt::AudioData& samples, size_t begin, size_t end, double gain);

  float _startGain;
  std::vector<GainUpdate> _updates;
  kt::AudioData _scaled;
  std::string _log;
};

}  // namespace ktcli
