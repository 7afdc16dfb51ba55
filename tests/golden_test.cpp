// Golden traces: the bundled recordings through the C interfaces and the classes, with a
// few parameter strings and block plans, against tests/golden.txt (one hash per run and
// the first lines of its trace). scripts/golden rewrites the file; do that only for an
// intended change of output, and say why in the commit.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <vector>

#include "KTRAGC.h"
#include "KTRVAD.h"
#include "trace.h"

namespace {

const char* const kSamples[] = {"message_8000.wav", "directions_11025.wav", "forecast_16000.wav"};
// Every analyzer and histogram key away from its default.
const char* const kAnalyzerParams =
    "SpeechWindowSizeMs=300;SpeechWindowFraction=0.5;EOSTimeoutMs=600;HistogramWindowSizeMs=1500;"
    "HistogramMinWindowSizeMs=500;MaxDecayRateDbPerDs=30;FullScaleSNR=30;TooNoisyLeveldBFS=-60;"
    "TooLoudAlignmentLeveldBFS=-20;TooSoftWindowSizeMs=500;TooSoftSNR=25;MinRecordingLeveldBFS=-20;"
    "CutoffFraction=0.1;InterpolationParam=0.4;ThresholdOffsetSpeech=4;ThresholdOffsetPause=12;"
    "ThresholdLowerLimit=25;ThresholdUpperLimit=60";
// Every gain-control key away from its default.
const char* const kAgcParams =
    "MinUpdateIntervalMs=120;MinLowerLevelSizeMs=100;MinUpperLevelSizeMs=60;WindowSizeMs=1500;"
    "SpeechWindowSizeMs=600;SpeechFraction=0.4;PauseWindowSizeMs=400;CutoffFraction=0.15;"
    "InterpolationWeight=0.4;ThresholdOffsetSpeech=12;ThresholdOffsetPause=4;"
    "ThresholdUpperBound=65;MinLowerBound=15;LowerBound=60;UpperBound=75;UpperLevelRefDelta=4;"
    "FastStepSizeUp=3;FastStepSizeDown=3;LeastGain=0.01;DeltaGain=0.1";

std::string CInterfaces(const std::string& sample, size_t block) {
  const bench::Recording& r = trace::Sample(sample);
  std::string out = trace::Format("init %d %d\n", KTRVAD_Init(r.rate), KTRAGC_Init(r.rate));
  long volume = 24;
  for (size_t pos = 0; pos + block <= r.samples.size(); pos += block) {
    int result = 0, info = 0;
    double pct = 0.0;
    int rc = KTRVAD_GetResult(1, r.samples.data() + pos, static_cast<unsigned>(2 * block), &result, &pct, &info);
    out += trace::Format("v %d %d %.7g %d\n", rc, result, pct, info);
    while (rc == 0 && result > 0) {
      rc = KTRVAD_GetResult(0, nullptr, 0, &result, &pct, &info);
      out += trace::Format(" %d %d %.7g %d\n", rc, result, pct, info);
    }
    rc = KTRAGC_ComputeGain(r.samples.data() + pos, static_cast<unsigned>(2 * block), volume, 255, &volume);
    out += trace::Format("g %d %ld\n", rc, volume);
  }
  KTRVAD_Deinit();
  KTRAGC_Deinit();
  return out;
}

std::vector<std::pair<std::string, std::function<std::string()>>> Runs() {
  std::vector<std::pair<std::string, std::function<std::string()>>> runs;
  for (const std::string s : kSamples) {
    const size_t frame = s[0] == 'm' ? 160 : s[0] == 'd' ? 220 : 320;
    runs.push_back({"capi/" + s, [=] { return CInterfaces(s, frame); }});
    runs.push_back({"capi1001/" + s, [=] { return CInterfaces(s, 1001); }});
    runs.push_back({"vad/" + s, [=] { return trace::Analyzer("", s, frame); }});
    runs.push_back({"vad-flush/" + s, [=] { return trace::Analyzer("", s, 1001, 40, false); }});
    runs.push_back({"vad-keys/" + s, [=] { return trace::Analyzer(kAnalyzerParams, s, 3 * frame + 7); }});
    runs.push_back({"agc/" + s, [=] { return trace::Agc("", s, frame); }});
    runs.push_back({"agc-keys/" + s, [=] { return trace::Agc(kAgcParams, s, 1001); }});
    runs.push_back({"agc-additive/" + s,
                    [=] { return trace::Agc("RelativeGain=false;DeltaGain=0.05", s, 2 * frame); }});
  }
  return runs;
}

// One line per run: its name, the hash and line count of its trace, then its first lines.
std::string Line(const std::string& name, const std::string& text) {
  std::string head = text.substr(0, 60);
  for (char& c : head) c = c == '\n' ? '|' : c;
  return trace::Format("%s %016llx %zu %s", name.c_str(), static_cast<unsigned long long>(trace::Hash(text)),
                       static_cast<size_t>(std::count(text.begin(), text.end(), '\n')), head.c_str());
}

TEST(Golden, EveryRunMatchesTheCheckedInTrace) {
  std::vector<std::string> expected;
  std::ifstream in(KTFRONT_GOLDEN_FILE);
  for (std::string line; std::getline(in, line);) expected.push_back(line);
  const bool rewrite = std::getenv("KTFRONT_GOLDEN_REWRITE") != nullptr;
  std::ofstream out;
  if (rewrite) out.open(KTFRONT_GOLDEN_FILE);
  size_t i = 0;
  for (const auto& [name, run] : Runs()) {
    const std::string line = Line(name, run());
    if (rewrite) out << line << "\n";
    EXPECT_EQ(i < expected.size() ? expected[i] : "", line);
    ++i;
  }
  EXPECT_EQ(expected.size(), i);
}

}  // namespace
