#pragma once
// Per-frame view of the speech analyzer for plotting: each frame's energy and the
// thresholds and levels that decided it. The analyzer does not report these, so they
// are replayed here from the same building blocks and the same parameter keys.
#include <string>
#include <vector>

#include "audiodata.h"

namespace ktcli {

class FrameTrace {
 public:
  // Throws std::invalid_argument for a bad parameter string, like the analyzer.
  FrameTrace(const kt::AudioData& samples, double rateHz, const std::string& params);

  double GetFrameMs() const { return _frameMs; }
  size_t GetNumFrames() const { return _energiesDb.size(); }
  // All on the energy scale: dB of the mean square, 90.31 at full scale. The levels are
  // NaN until the histogram has learnt them.
  const std::vector<double>& GetEnergiesDb() const { return _energiesDb; }
  const std::vector<double>& GetStartThresholdsDb() const { return _startThresholdsDb; }
  const std::vector<double>& GetEndThresholdsDb() const { return _endThresholdsDb; }
  const std::vector<double>& GetNoiseLevelsDb() const { return _noiseLevelsDb; }
  const std::vector<double>& GetSpeechLevelsDb() const { return _speechLevelsDb; }

 private:
  double _frameMs = 0.0;
  std::vector<double> _energiesDb;
  std::vector<double> _startThresholdsDb;
  std::vector<double> _endThresholdsDb;
  std::vector<double> _noiseLevelsDb;
  std::vector<double> _speechLevelsDb;
};

}  // namespace ktcli
