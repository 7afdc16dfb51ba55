#include "frametrace.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "audioanalyzer.h"
#include "energyhistogram.h"
#include "highpassfilter.h"
#include "parameters.h"

namespace ktcli {
namespace {

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

double EnergyDb(const kt::AudioData& frame) {
  double sum = 0.0;
  for (const int16_t s : frame) sum += static_cast<double>(s) * s;
  const double meanSquare = sum / static_cast<double>(frame.size());
  return meanSquare > 1.0 ? 10.0 * std::log10(meanSquare) : 0.0;
}

}  // namespace

FrameTrace::FrameTrace(const kt::AudioData& samples, double rateHz, const std::string& params) {
  // Building the analyzer validates the parameters exactly as a run would.
  const kt::AudioAnalyzer analyzer(params, rateHz, false);
  const int samplesPerFrame = analyzer.GetSamplesPerFrame();
  _frameMs = analyzer.GetFrameSizeMs();
  auto numFrames = [this](int ms) { return static_cast<int>(ms / _frameMs + 0.5); };

  kt::Parameters histogramParams(params);
  histogramParams.Set<int>("WindowSize",
                           numFrames(histogramParams.Get<int>("HistogramWindowSizeMs", 2000)));
  histogramParams.Set<int>("MinWindowSize",
                           numFrames(histogramParams.Get<int>("HistogramMinWindowSizeMs", 800)));
  kt::EnergyHistogram histogram(histogramParams);
  kt::HighpassFilter filter(rateHz);

  // The histogram as each frame's energy left it.
  std::vector<double> startAfter, endAfter, noiseAfter, speechAfter;
  size_t firstDecision = 0;
  bool deciding = false;
  kt::AudioData frame(samplesPerFrame);
  for (size_t begin = 0; begin + samplesPerFrame <= samples.size(); begin += samplesPerFrame) {
    std::copy_n(samples.begin() + begin, samplesPerFrame, frame.begin());
    filter.Filter(frame.begin(), frame.end());
    const double energy = EnergyDb(frame);
    histogram.Update(energy);
    _energiesDb.push_back(energy);
    startAfter.push_back(histogram.GetThreshold(false));
    endAfter.push_back(histogram.GetThreshold(true));
    // The levels mean nothing until the histogram has computed them.
    const bool learnt = histogram.IsThresholdComputed();
    noiseAfter.push_back(learnt ? histogram.GetNoiseLevel() : kUnknown);
    speechAfter.push_back(learnt ? histogram.GetNoiseLevel() + histogram.GetSNR() : kUnknown);
    if (!deciding && (histogram.IsThresholdComputed() ||
                      _energiesDb.size() >= static_cast<size_t>(kt::AudioAnalyzer::kRingSize))) {
      deciding = true;
      firstDecision = _energiesDb.size() - 1;
    }
  }
  // A frame is decided once its successor is stored, and none before the analysis starts;
  // the last frame is decided by the final flush.
  const size_t n = _energiesDb.size();
  for (size_t r = 0; r < n; ++r) {
    const size_t at = deciding ? std::min(std::max(r + 1, firstDecision), n - 1) : n - 1;
    _startThresholdsDb.push_back(startAfter[at]);
    _endThresholdsDb.push_back(endAfter[at]);
    _noiseLevelsDb.push_back(noiseAfter[at]);
    _speechLevelsDb.push_back(speechAfter[at]);
  }
}

}  // namespace ktcli
