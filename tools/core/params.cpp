#include "params.h"

#include <algorithm>
#include <stdexcept>

#include "agc.h"
#include "audioanalyzer.h"
#include "parameters.h"

namespace ktcli {
namespace {

std::vector<std::string> UnknownKeys(const std::string& params, const std::vector<std::string>& known,
                                     const char* service) {
  std::vector<std::string> warnings;
  for (const auto& entry : kt::Parameters(params)) {
    if (std::find(known.begin(), known.end(), entry.first) == known.end()) {
      warnings.push_back(std::string("the ") + service + " reads no key \"" + entry.first +
                         "\" (keys are case-sensitive)");
    }
  }
  return warnings;
}

std::invalid_argument Refusal(const std::string& params, const std::exception& e) {
  return std::invalid_argument("invalid parameter string \"" + params + "\": " + e.what());
}

}  // namespace

std::vector<std::string> CheckAnalyzerParams(const std::string& params, int rateHz) {
  kt::AudioAnalyzer(std::string(), rateHz, false);  // a rate it refuses is no fault of the string
  try {
    kt::AudioAnalyzer(params, rateHz, false);
  } catch (const std::invalid_argument& e) {
    throw Refusal(params, e);
  }
  return UnknownKeys(params, kt::AudioAnalyzer::GetParameterKeys(), "speech analyzer");
}

std::vector<std::string> CheckAgcParams(const std::string& params) {
  try {
    kt::AGC(params, 16000);
  } catch (const std::exception& e) {
    throw Refusal(params, e);
  }
  return UnknownKeys(params, kt::AGC::GetParameterKeys(), "gain control");
}

}  // namespace ktcli
