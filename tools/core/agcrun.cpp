#include "agcrun.h"

#include <KTRAGC.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace ktcli {
namespace {

const char* const kOutcomeWords[] = {"toolow", "toohigh", "speech", "pause", "nil"};

}  // namespace

AgcRun::AgcRun(int rateHz, const std::string& params, float startGain, std::shared_ptr<std::ostream> log,
               UpdateSink sink)
    : _rateHz(rateHz), _gain(startGain), _sink(std::move(sink)), _agc(std::make_unique<kt::AGC>(params, rateHz)) {
  if (log) _agc->SetLogStream(std::move(log));
  _agc->SetDecisionObserver([this](const kt::GainDecision& decision) { _decision = decision; });
}

AgcRun::AgcRun(int rateHz, float startGain, long bound, UpdateSink sink)
    : _rateHz(rateHz), _gain(startGain), _bound(bound), _sink(std::move(sink)) {
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
  _samples += block.size();
  const double timeS = static_cast<double>(_samples) / _rateHz;
  if (!_agc) {
    long newVolume = 0;
    const int code = KTRAGC_ComputeGain(_scaled.data(), static_cast<unsigned int>(_scaled.size() * sizeof(int16_t)),
                                        _volume, _bound, &newVolume);
    if (code != 0) throw std::runtime_error("KTRAGC_ComputeGain returned " + std::to_string(code));
    if (newVolume != _volume) {
      const GainUpdate update(timeS, static_cast<float>(newVolume) / static_cast<float>(_bound), "-");
      _sink(update, {{"timeS", timeS}, {"gain", update.GetGain()}, {"decision", "-"},
                     {"volume", newVolume}, {"bound", _bound}});
    }
    _volume = newVolume;
    return _scaled;
  }
  _decision.reset();
  const float newGain = _agc->ComputeGain(_scaled, _gain);
  if (_decision) {
    const kt::GainDecision& d = *_decision;
    const GainUpdate update(timeS, newGain, kOutcomeWords[d.outcome]);
    _sink(update, {{"timeS", timeS}, {"gain", newGain}, {"decision", update.GetDecision()},
                   {"logTimeMs", d.timeMs}, {"currentGain", d.currentGain}, {"a", d.lowerLevel},
                   {"a2", d.lowerLevel2}, {"b2", d.upperLevel2}, {"b", d.upperLevel},
                   {"clippingFraction", d.clippingFraction}, {"n", d.numLevels}});
  } else if (newGain != _gain) {
    const GainUpdate update(timeS, newGain, "median");
    _sink(update, {{"timeS", timeS}, {"gain", newGain}, {"decision", "median"}});
  }
  _gain = newGain;
  return _scaled;
}

}  // namespace ktcli
