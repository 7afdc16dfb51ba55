// The services' observers report what they decided, the key lists name what they read with
// their defaults, and each enum value has its name.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "agc.h"
#include "audioanalyzer.h"
#include "trace.h"

namespace {

using kt::AudioData;

// Noise at 16 kHz with loud bursts from..to seconds; ends inside the last burst.
AudioData Bursts(const std::vector<std::pair<double, double>>& bursts, double totalS) {
  AudioData samples(static_cast<size_t>(totalS * 16000));
  unsigned seed = 7;
  for (size_t i = 0; i < samples.size(); ++i) {
    seed = seed * 1103515245u + 12345u;
    double v = static_cast<double>((seed >> 16) % 201) - 100.0;
    for (const auto& b : bursts) {
      if (i >= b.first * 16000 && i < b.second * 16000) v += 6000.0 * std::sin(i * 0.17) * std::sin(i * 0.0021);
    }
    samples[i] = static_cast<int16_t>(v);
  }
  return samples;
}

TEST(ObserverTest, FrameDecisionsExplainTheAnalyzersEventsAndChangeNothing) {
  const AudioData samples = Bursts({{3.0, 4.5}, {6.5, 7.5}, {9.0, 9.6}}, 9.6);
  kt::AudioAnalyzer observed("", 16000, true);
  kt::AudioAnalyzer bare("", 16000, true);
  std::vector<kt::FrameDecision> frames;
  observed.SetFrameObserver([&](const kt::FrameDecision& d) { frames.push_back(d); });
  std::vector<std::pair<kt::AnalyzerEvent::EventTag, double>> events;
  auto drain = [&](bool flush) {
    if (flush) observed.Flush(), bare.Flush();
    kt::AnalyzerResultPtr a, b;
    while (observed.GetResult(a)) {
      ASSERT_TRUE(bare.GetResult(b));
      ASSERT_EQ(a->GetType(), b->GetType());
      if (a->GetType() != kt::AnalyzerResult::RT_Event) continue;
      const auto& e = static_cast<const kt::AnalyzerEvent&>(*a);
      EXPECT_EQ(e.GetTimeMs(), static_cast<const kt::AnalyzerEvent&>(*b).GetTimeMs());
      if (e.GetTag() <= kt::AnalyzerEvent::SpeechEnd) events.emplace_back(e.GetTag(), e.GetTimeMs());
    }
    EXPECT_FALSE(bare.GetResult(b));
  };
  for (size_t i = 0; i < samples.size(); i += 320) {
    const AudioData block(samples.begin() + i, samples.begin() + std::min(samples.size(), i + 320));
    observed.Process(block);
    bare.Process(block);
    drain(false);
  }
  drain(true);
  ASSERT_EQ(frames.size(), samples.size() / 320);
  for (size_t i = 0; i < frames.size(); ++i) ASSERT_EQ(frames[i].frameIndex, static_cast<int>(i));
  ASSERT_EQ(events.size(), 6u);  // three segments, the last closed by the flush
  const auto energy = [&](long i) { return frames[static_cast<size_t>(i)].energy; };
  for (size_t k = 0; k < events.size(); k += 2) {
    // A start is dated back over the 10-frame window whose last frame opened it: 3 loud frames.
    const long r = std::lround(events[k].second / 20.0) + 9;
    EXPECT_TRUE(frames[r].isSpeech && !frames[r - 1].isSpeech) << k;
    int loud = 0;
    for (long i = r - 9; i <= r; ++i) loud += energy(i) >= frames[r].speechStartThreshold;
    EXPECT_GE(loud, 3) << k;
    EXPECT_FALSE(std::isnan(frames[r].noiseLevel) || std::isnan(frames[r].speechLevel));
    EXPECT_LT(frames[r].noiseLevel, frames[r].speechLevel);
    if (k + 2 == events.size()) continue;  // closed by the flush, not by quiet
    // An end keeps 13 of the 21 quiet frames, dated 7 before the last; each smoothed energy
    // was below its threshold.
    const long e = std::lround(events[k + 1].second / 20.0) + 7;
    EXPECT_TRUE(!frames[e].isSpeech && frames[e - 1].isSpeech) << k;
    for (long i = e - 20; i <= e; ++i) {
      EXPECT_LT((energy(i - 1) + energy(i)) / 2, frames[i].speechEndThreshold) << k << " " << i;
    }
  }
  EXPECT_TRUE(frames.back().isSpeech);
}

TEST(ObserverTest, GainDecisionsCarryTheLogLinesValues) {
  kt::AGC agc("", 16000);
  auto log = std::make_shared<std::ostringstream>();
  agc.SetLogStream(log);
  std::ostringstream fromObserver;
  const char* const words[] = {"toolow:", "toohigh:", "speech:", "pause:", "nil:"};
  int decisions = 0;
  agc.SetDecisionObserver([&](const kt::GainDecision& d) {
    ++decisions;
    fromObserver << d.timeMs << "\t " << d.currentGain << "\t" << d.lowerLevel << "\t " << d.lowerLevel2
                 << "\t " << d.upperLevel2 << "\t " << d.upperLevel << "\t " << d.clippingFraction
                 << "\t " << d.numLevels << "\t " << words[d.outcome] << d.outcomeTimeMs;
    if (d.stepped) fromObserver << "\t# " << d.newGain;
    fromObserver << "\n";
  });
  const AudioData quiet = Bursts({{1.0, 3.0}, {4.0, 6.0}}, 7.0);
  AudioData loud(quiet);
  for (int16_t& s : loud) s = static_cast<int16_t>(std::max(-32768, std::min(32767, s * 8)));
  float gain = 0.5f;
  const AudioData silence(32000, 0);
  for (const AudioData* signal : std::vector<const AudioData*>{&silence, &quiet, &loud, &quiet}) {
    for (size_t i = 0; i + 320 <= signal->size(); i += 320) {
      gain = agc.ComputeGain(AudioData(signal->begin() + i, signal->begin() + i + 320), gain);
    }
  }
  EXPECT_GT(decisions, 50);
  EXPECT_EQ(fromObserver.str(), log->str());
  for (const char* word : words) EXPECT_NE(log->str().find(word), std::string::npos) << word;
}

// A key that is read refuses a value that is not a number; the histogram's ring sizes come
// from the analyzer's own keys and are not read from the string.
TEST(ObserverTest, ParameterKeysAreTheKeysRead) {
  for (const std::string& key : kt::AudioAnalyzer::GetParameterKeys()) {
    EXPECT_THROW(kt::AudioAnalyzer(key + "=x", 16000, false), std::invalid_argument) << key;
  }
  EXPECT_EQ(kt::AudioAnalyzer::GetParameterKeys().size(), 18u);
  EXPECT_NO_THROW(kt::AudioAnalyzer("WindowSize=x;MinWindowSize=x", 16000, false));
  for (const std::string& key : kt::AGC::GetParameterKeys()) {
    if (key == "RelativeGain") continue;  // a word: anything but "true" turns it off
    EXPECT_THROW(kt::AGC(key + "=x", 16000), std::invalid_argument) << key;
  }
  EXPECT_EQ(kt::AGC::GetParameterKeys().size(), 21u);
}

// Every key read has a default, and the defaults written out as a parameter string change
// nothing.
TEST(ObserverTest, ParameterDefaultsAreTheValuesOfAbsentKeys) {
  const auto analyzer = kt::AudioAnalyzer::GetParameterDefaults();
  const auto agc = kt::AGC::GetParameterDefaults();
  const auto join = [](const std::map<std::string, std::string>& defaults) {
    std::string params;
    for (const auto& entry : defaults) params += entry.first + "=" + entry.second + ";";
    return params;
  };
  const auto keys = [](const std::map<std::string, std::string>& defaults) {
    std::vector<std::string> names;
    for (const auto& entry : defaults) names.push_back(entry.first);
    return names;
  };
  std::vector<std::string> read = kt::AudioAnalyzer::GetParameterKeys();
  std::sort(read.begin(), read.end());
  EXPECT_EQ(keys(analyzer), read);
  read = kt::AGC::GetParameterKeys();
  std::sort(read.begin(), read.end());
  EXPECT_EQ(keys(agc), read);
  const std::map<std::string, std::string> someAnalyzer = {
      {"SpeechWindowSizeMs", "200"}, {"SpeechWindowFraction", "0.3"}, {"EOSTimeoutMs", "420"},
      {"TooNoisyLeveldBFS", "-25"}, {"CutoffFraction", "0.08"}, {"ThresholdOffsetPause", "16"}};
  for (const auto& entry : someAnalyzer) EXPECT_EQ(analyzer.at(entry.first), entry.second) << entry.first;
  const std::map<std::string, std::string> someAgc = {
      {"SpeechWindowSizeMs", "800"}, {"CutoffFraction", "0.1"}, {"LeastGain", "0.001"},
      {"FastStepSizeUp", "4"}, {"RelativeGain", "true"}, {"ThresholdOffsetPause", "6"}};
  for (const auto& entry : someAgc) EXPECT_EQ(agc.at(entry.first), entry.second) << entry.first;
  EXPECT_EQ(trace::Analyzer(join(analyzer), "message_8000.wav", 160),
            trace::Analyzer("", "message_8000.wav", 160));
  EXPECT_EQ(trace::Agc(join(agc), "message_8000.wav", 160), trace::Agc("", "message_8000.wav", 160));
}

// Names as hosts print them; a value outside an enum has the empty name (tried where the
// enum's range holds one).
TEST(ObserverTest, EnumValuesHaveNames) {
  using kt::AnalyzerEvent;
  using kt::AnalyzerVolumeMeter;
  using kt::GainDecision;
  using kt::ToString;
  const std::vector<std::pair<const char*, const char*>> names = {
      {ToString(kt::AnalyzerResult::RT_Event), "Event"},
      {ToString(kt::AnalyzerResult::RT_AudioFrame), "AudioFrame"},
      {ToString(kt::AnalyzerResult::RT_VolumeMeter), "VolumeMeter"},
      {ToString(AnalyzerEvent::SpeechStart), "SpeechStart"},
      {ToString(AnalyzerEvent::SpeechEnd), "SpeechEnd"},
      {ToString(AnalyzerEvent::BelowVOR), "BelowVOR"},
      {ToString(AnalyzerEvent::AboveVOR), "AboveVOR"},
      {ToString(AnalyzerVolumeMeter::OK), "OK"},
      {ToString(AnalyzerVolumeMeter::TooNoisy), "TooNoisy"},
      {ToString(AnalyzerVolumeMeter::TooSoft), "TooSoft"},
      {ToString(AnalyzerVolumeMeter::TooLoud), "TooLoud"},
      {ToString(kt::AudioAnalyzer::Pause), "Pause"},
      {ToString(kt::AudioAnalyzer::Speech), "Speech"},
      {ToString(GainDecision::TooLow), "toolow"},
      {ToString(GainDecision::TooHigh), "toohigh"},
      {ToString(GainDecision::SpeechOnset), "speech"},
      {ToString(GainDecision::Pause), "pause"},
      {ToString(GainDecision::Nil), "nil"},
      {ToString(static_cast<GainDecision::Outcome>(7)), ""},
      {ToString(kt::AGC::Speech), "Speech"},
      {ToString(kt::AGC::Initial), "Initial"},
      {ToString(static_cast<kt::AGC::State>(-1)), ""}};
  for (const auto& name : names) EXPECT_STREQ(name.first, name.second);
}

}  // namespace
