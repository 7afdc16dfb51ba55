#pragma once
// Closed-loop simulation of the gain control: the recording plays through a simulated
// recording volume, and the host sets whatever gain the control returns for the next block.
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>

#include "agc.h"
#include "audiodata.h"

namespace ktcli {

class GainUpdate {
 public:
  GainUpdate(double timeS, float gain, std::string decision) : _timeS(timeS), _gain(gain), _decision(std::move(decision)) {}
  // End of the block after which the gain below is set.
  double GetTimeS() const { return _timeS; }
  float GetGain() const { return _gain; }
  // The record word of the diagnostic log ("toolow", "toohigh", "speech", "pause",
  // "nil"), "median" for the restart at gain 0, "-" through the C interface.
  const std::string& GetDecision() const { return _decision; }

 private:
  double _timeS;
  float _gain;
  std::string _decision;
};

class AgcRun {
 public:
  // The update, with its JSON record.
  using UpdateSink = std::function<void(const GainUpdate&, const nlohmann::ordered_json&)>;

  // kt::AGC with the parameter string; log may be null.
  AgcRun(int rateHz, const std::string& params, float startGain, std::shared_ptr<std::ostream> log,
         UpdateSink sink);
  // KTRAGC_* on a volume scale of 0 to bound; one update per change of volume.
  AgcRun(int rateHz, float startGain, long bound, UpdateSink sink);
  ~AgcRun();
  AgcRun(const AgcRun&) = delete;
  AgcRun& operator=(const AgcRun&) = delete;

  // Plays the block through the gain in force, saturating to 16 bits, hands it to the
  // gain control and sets the gain it returns. Returns the block as recorded.
  const kt::AudioData& Process(const kt::AudioData& block);

 private:
  int _rateHz;
  float _gain;
  long _bound = 0;
  long _volume = 0;
  uint64_t _samples = 0;
  UpdateSink _sink;
  std::unique_ptr<kt::AGC> _agc;  // null through the C interface
  std::optional<kt::GainDecision> _decision;  // the one the current block brought
  kt::AudioData _scaled;
};

}  // namespace ktcli
