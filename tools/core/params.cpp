#include "params.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "agc.h"
#include "audioanalyzer.h"
#include "parameters.h"

namespace ktcli {

std::string Abridged(const std::string& text) {
  constexpr size_t kMost = 200;
  if (text.size() <= kMost) return text;
  return text.substr(0, kMost - 3) + "... (" + std::to_string(text.size()) + " characters)";
}

namespace {

constexpr const char* kBlanks = " \t\n\v\f\r";

// Unknown keys, and values of which the service reads only a leading part (an integer
// key given "3e2" reads 3): the library takes both without a word.
std::vector<std::string> Comments(const std::string& params, const std::vector<std::string>& known,
                                  const std::map<std::string, std::string>& read, const char* service) {
  std::vector<std::string> warnings;
  for (const auto& entry : kt::Parameters(params)) {
    if (std::find(known.begin(), known.end(), entry.first) == known.end()) {
      warnings.push_back(std::string("the ") + service + " reads no key \"" + Abridged(entry.first) +
                         "\" (keys are case-sensitive)");
      continue;
    }
    const auto found = read.find(entry.first);
    if (found == read.end() || found->second.empty()) continue;
    const size_t first = entry.second.find_first_not_of(kBlanks);
    const std::string given = entry.second.substr(first, entry.second.find_last_not_of(kBlanks) + 1 - first);
    if (found->second.size() < given.size()) {
      warnings.push_back(Abridged(entry.first + "=" + given) + " is read as " + found->second);
    }
  }
  return warnings;
}

std::invalid_argument Refusal(const std::string& params, const std::exception& e) {
  return std::invalid_argument("invalid parameter string \"" + Abridged(params) + "\": " + e.what());
}

}  // namespace

std::vector<std::string> CheckAnalyzerParams(const std::string& params, int rateHz) {
  kt::AudioAnalyzer(std::string(), rateHz, false);  // a rate it refuses is no fault of the string
  try {
    kt::AudioAnalyzer(params, rateHz, false);
  } catch (const std::invalid_argument& e) {
    throw Refusal(params, e);
  }
  return Comments(params, kt::AudioAnalyzer::GetParameterKeys(), kt::AudioAnalyzer::GetParameterReadTexts(params),
                  "speech analyzer");
}

std::vector<std::string> CheckAgcParams(const std::string& params) {
  try {
    kt::AGC(params, 16000);
  } catch (const std::exception& e) {
    throw Refusal(params, e);
  }
  return Comments(params, kt::AGC::GetParameterKeys(), kt::AGC::GetParameterReadTexts(params), "gain control");
}

}  // namespace ktcli
