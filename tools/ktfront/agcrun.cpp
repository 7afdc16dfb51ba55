#include "agcrun.h"

#include <KTRAGC.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "agc.h"

namespace ktcli {
namespace {

// Fields of one diagnostic line: time, gain, a, a2, b2, b, clipping, levels, "word:time",
// and "# gain" after a step. Returns the record word, the measurements go into detail.
std::string ParseLogLine(const std::string& line, nlohmann::ordered_json& detail) {
  static const char* const kNames[] = {"logTimeMs", "currentGain", "a", "a2", "b2", "b",
                                       "clippingFraction", "n"};
  std::istringstream fields(line);
  std::string field;
  std::string word = "?";
  for (size_t i = 0; std::getline(fields, field, '\t'); ++i) {
    field.erase(0, field.find_first_not_of(" #"));
    if (i == 0 || i == 7) {  // the time and the number of levels are integers
      detail[kNames[i]] = std::strtol(field.c_str(), nullptr, 10);
    } else if (i < 8) {
      detail[kNames[i]] = std::strtod(field.c_str(), nullptr);
    } else if (i == 8) {
      word = field.substr(0, field.find(':'));
    }
  }
  return word;
}

}  // namespace

nlohmann::ordered_json GainUpdate::ToJson() const {
  nlohmann::ordered_json json = {{"timeS", _timeS}, {"gain", _gain}, {"decision", _decision}};
  for (const auto& item : _detail.items()) json[item.key()] = item.value();
  return json;
}

kt::AudioData AgcRun::Scale(const kt::AudioData& samples, size_t begin, size_t end, double gain) {
  kt::AudioData block(end - begin);
  for (size_t i = begin; i < end; ++i) {
    const double v = std::round(samples[i] * gain);
    block[i - begin] = static_cast<int16_t>(std::clamp(v, -32768.0, 32767.0));
  }
  _scaled.insert(_scaled.end(), block.begin(), block.end());
  return block;
}

AgcRun AgcRun::ThroughClasses(const kt::AudioData& samples, int rateHz, const std::string& params,
                              int blockSamples, float startGain) {
  AgcRun run(startGain);
  kt::AGC agc(params, rateHz);
  auto log = std::make_shared<std::ostringstream>();
  agc.SetLogStream(log);
  float gain = startGain;
  std::string pending;  // log text taken from the stream and not yet parsed
  for (size_t begin = 0; begin < samples.size(); begin += blockSamples) {
    const size_t end = std::min(samples.size(), begin + blockSamples);
    const float newGain = agc.ComputeGain(run.Scale(samples, begin, end, gain), gain);
    const double timeS = static_cast<double>(end) / rateHz;
    // Emptied after every block, so a long recording is not copied over and over.
    pending += log->str();
    log->str("");
    const std::string::size_type lineEnd = pending.find('\n');
    if (lineEnd != std::string::npos) {
      nlohmann::ordered_json detail;
      const std::string word = ParseLogLine(pending.substr(0, lineEnd), detail);
      run._updates.emplace_back(timeS, newGain, word, detail);
      run._log.append(pending, 0, lineEnd + 1);
      pending.erase(0, lineEnd + 1);
    } else if (newGain != gain) {
      run._updates.emplace_back(timeS, newGain, "median", nlohmann::ordered_json::object());
    }
    gain = newGain;
  }
  run._log += pending;
  return run;
}

AgcRun AgcRun::ThroughCInterface(const kt::AudioData& samples, int rateHz, int blockSamples,
                                 float startGain, long bound) {
  AgcRun run(startGain);
  if (KTRAGC_Init(rateHz) != 0) throw std::runtime_error("KTRAGC_Init failed");
  long volume = std::lround(static_cast<double>(startGain) * bound);
  for (size_t begin = 0; begin < samples.size(); begin += blockSamples) {
    const size_t end = std::min(samples.size(), begin + blockSamples);
    const kt::AudioData block =
        run.Scale(samples, begin, end, static_cast<double>(volume) / static_cast<double>(bound));
    long newVolume = 0;
    const int code = KTRAGC_ComputeGain(block.data(),
                                        static_cast<unsigned int>(block.size() * sizeof(int16_t)),
                                        volume, bound, &newVolume);
    if (code != 0) {
      KTRAGC_Deinit();
      throw std::runtime_error("KTRAGC_ComputeGain returned " + std::to_string(code));
    }
    if (newVolume != volume) {
      const float gain = static_cast<float>(newVolume) / static_cast<float>(bound);
      run._updates.emplace_back(static_cast<double>(end) / rateHz, gain, "-",
                                nlohmann::ordered_json{{"volume", newVolume}, {"bound", bound}});
    }
    volume = newVolume;
  }
  KTRAGC_Deinit();
  return run;
}

}  // namespace ktcli
