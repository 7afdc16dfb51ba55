#include "agcrun.h"

#include <KTRAGC.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace ktcli {

AgcRun::AgcRun(const std::string& file, int rateHz, const std::string& params, float startGain,
               std::shared_ptr<std::ostream> log, RecordSink sink)
    : _file(std::make_shared<const std::string>(file)),
      _rateHz(rateHz),
      _gain(startGain),
      _sink(std::move(sink)),
      _agc(std::make_unique<kt::AGC>(params, rateHz)) {
  if (log) _agc->SetLogStream(std::move(log));
  _agc->SetDecisionObserver([this](const kt::GainDecision& decision) { _decision = decision; });
}

AgcRun::AgcRun(const std::string& file, int rateHz, float startGain, long bound, RecordSink sink)
    : _file(std::make_shared<const std::string>(file)),
      _rateHz(rateHz),
      _gain(startGain),
      _bound(bound),
      _sink(std::move(sink)) {
  if (KTRAGC_Init(rateHz) != 0) throw std::runtime_error("KTRAGC_Init failed");
  _volume = std::lround(static_cast<double>(startGain) * bound);
}

AgcRun::~AgcRun() {
  if (!_agc) KTRAGC_Deinit();
}

const kt::AudioData& AgcRun::Process(const kt::AudioData& block) {
  const double gain = _agc ? static_cast<double>(_gain) : static_cast<double>(_volume) / static_cast<double>(_bound);
  _scaled.resize(block.size());
  for (size_t i = 0; i < block.size(); ++i) {
    _scaled[i] = static_cast<int16_t>(std::clamp(std::round(block[i] * gain), -32768.0, 32767.0));
  }
  if (_agc) {
    _gain = Compute(_scaled, _gain);
    return _scaled;
  }
  _samples += block.size();
  const double timeS = static_cast<double>(_samples) / _rateHz;
  long newVolume = 0;
  const int code = KTRAGC_ComputeGain(_scaled.data(), static_cast<unsigned int>(_scaled.size() * sizeof(int16_t)),
                                      _volume, _bound, &newVolume);
  if (code != 0) throw std::runtime_error("KTRAGC_ComputeGain returned " + std::to_string(code));
  if (newVolume != _volume) {
    Emit({timeS, static_cast<float>(newVolume) / static_cast<float>(_bound), std::nullopt,
          GainRecord::Volume{newVolume, _bound}});
  }
  _volume = newVolume;
  return _scaled;
}

float AgcRun::Compute(const kt::AudioData& recorded, float gain) {
  _samples += recorded.size();
  const double timeS = static_cast<double>(_samples) / _rateHz;
  _decision.reset();
  const float newGain = _agc->ComputeGain(recorded, gain);
  if (_decision || newGain != gain) Emit({timeS, newGain, _decision, std::nullopt});
  return newGain;
}

}  // namespace ktcli
