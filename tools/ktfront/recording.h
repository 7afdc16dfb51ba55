#pragma once
// A recording read for analysis: the source as stored, and the mono 16-bit stream at
// the rate the library supports that the services are fed with.
#include <string>
#include <vector>

#include "audiodata.h"

namespace ktcli {

class Recording {
 public:
  // path "-" reads standard input. rawRateHz > 0 reads headerless 16-bit little-endian
  // mono at that rate; 0 lets libsndfile recognise the format. Throws std::runtime_error.
  static Recording Load(const std::string& path, int rawRateHz);

  // The highest rate the library supports that is not above rateHz; 0 below 8000 Hz.
  static int AnalysisRateFor(int rateHz);

  const kt::AudioData& GetSamples() const { return _samples; }
  int GetRateHz() const { return _rateHz; }
  double GetDurationS() const { return static_cast<double>(_samples.size()) / _rateHz; }

  // The source as read: interleaved 16-bit frames of GetSourceChannels() samples.
  const std::vector<short>& GetSource() const { return _source; }
  int GetSourceRateHz() const { return _sourceRateHz; }
  int GetSourceChannels() const { return _sourceChannels; }
  const std::string& GetName() const { return _name; }

  // One line for the user: which rate the services run at and how it was reached.
  std::string Describe() const;

 private:
  Recording(std::string name, std::vector<short> source, int rateHz, int channels);
  void MixAndResample();

  std::string _name;
  std::vector<short> _source;
  int _sourceRateHz;
  int _sourceChannels;
  kt::AudioData _samples;
  int _rateHz = 0;
};

}  // namespace ktcli
