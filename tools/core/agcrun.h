#pragma once
// Closed-loop simulation of the gain control: the recording plays through a simulated
// recording volume, and the host sets whatever gain the control returns for the next block.
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "agc.h"
#include "audiodata.h"
#include "records.h"

namespace ktcli {

class AgcRun {
 public:
  // kt::AGC with the parameter string; log may be null. Every update becomes a GainRecord
  // naming file.
  AgcRun(const std::string& file, int rateHz, const std::string& params, float startGain,
         std::shared_ptr<std::ostream> log, RecordSink sink);
  // KTRAGC_* on a volume scale of 0 to bound; one update per change of volume.
  AgcRun(const std::string& file, int rateHz, float startGain, long bound, RecordSink sink);
  ~AgcRun();
  AgcRun(const AgcRun&) = delete;
  AgcRun& operator=(const AgcRun&) = delete;

  // Plays the block through the gain in force, saturating to 16 bits, hands it to the
  // gain control and sets the gain it returns. Returns the block as recorded.
  const kt::AudioData& Process(const kt::AudioData& block);
  // Hands the gain control a block already recorded at gain (a real recording volume, set
  // by the caller) and returns the gain to set next. Classes only.
  float Compute(const kt::AudioData& recorded, float gain);

 private:
  void Emit(const GainRecord& gain) { _sink(Record{_file, gain}); }

  std::shared_ptr<const std::string> _file;
  int _rateHz;
  float _gain;
  long _bound = 0;
  long _volume = 0;
  uint64_t _samples = 0;
  RecordSink _sink;
  std::unique_ptr<kt::AGC> _agc;  // null through the C interface
  std::optional<kt::GainDecision> _decision;  // the one the current block brought
  kt::AudioData _scaled;
};

}  // namespace ktcli
