// The core the tool and the Python module share: blocks, the decision join, the parameter
// check, and segments with their volume from one run against the tool's own records.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <sys/wait.h>

#include "blocks.h"
#include "labels.h"
#include "params.h"
#include "source.h"
#include "vadrun.h"
#include "writers.h"

namespace {

const std::string kSamples = KTFRONT_SAMPLES_DIR;

TEST(Core, BlocksCoverTheInputInOrderTheLastOneShorter) {
  EXPECT_EQ(ktcli::BlockSamples(20, 11025, "--block-ms"), 220);
  EXPECT_EQ(ktcli::BlockSamples(1, 8000, "--block-ms"), 8);
  try {
    ktcli::BlockSamples(0, 16000, "block_ms");
    ADD_FAILURE() << "a block of no samples was accepted";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "block_ms 0 is below one sample");
  }
  const ktcli::Audio whole = ktcli::ReadAudio(kSamples + "/directions_11025.wav", 0);
  EXPECT_EQ(whole.rateHz, 11025);
  ASSERT_GT(whole.samples.size() % 1000, 0u);
  ktcli::AudioSource source(kSamples + "/directions_11025.wav", 0);
  std::vector<size_t> sizes;
  kt::AudioData joined;
  const auto collect = [&](const kt::AudioData& block) {
    sizes.push_back(block.size());
    joined.insert(joined.end(), block.begin(), block.end());
  };
  EXPECT_FALSE(ktcli::Pump(source, 1000, collect, nullptr, [] { return false; }));
  EXPECT_EQ(joined, whole.samples);
  ASSERT_EQ(sizes.size(), whole.samples.size() / 1000 + 1);
  EXPECT_EQ(sizes.front(), 1000u);
  EXPECT_EQ(sizes.back(), whole.samples.size() % 1000);
  const std::vector<size_t> pumped = sizes;
  sizes.clear();
  joined.clear();
  ktcli::ForEachBlock(whole.samples.data(), whole.samples.size(), 1000, collect);
  EXPECT_EQ(sizes, pumped);
  EXPECT_EQ(joined, whole.samples);
  // A stop asked for before the first chunk reads nothing.
  ktcli::AudioSource again(kSamples + "/directions_11025.wav", 0);
  sizes.clear();
  EXPECT_TRUE(ktcli::Pump(again, 1000, collect, nullptr, [] { return true; }));
  EXPECT_TRUE(sizes.empty());
}

TEST(Core, EachFrameGetsItsOwnDecisionOrNone) {
  ktcli::DecisionJoin join;
  for (const int index : {3, 4, 5, 7}) {
    kt::FrameDecision decision{};
    decision.frameIndex = index;
    decision.energy = 10.0 * index;
    join.Add(decision);
  }
  EXPECT_EQ(join.Take(4)->energy, 40.0);  // frame 3's result never came: dropped
  EXPECT_FALSE(join.Take(6).has_value());  // drops 5 on the way
  EXPECT_EQ(join.Take(7)->energy, 70.0);
  EXPECT_FALSE(join.Take(7).has_value());
}

TEST(Core, TheParameterCheckRefusesWithTheReasonAndWarnsOfUnknownKeys) {
  try {
    ktcli::CheckAnalyzerParams("EOSTimeoutMs", 16000);
    ADD_FAILURE() << "a key without a value was accepted";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "invalid parameter string \"EOSTimeoutMs\": Invalid format");
  }
  EXPECT_THROW(ktcli::CheckAgcParams("LeastGain=2"), std::invalid_argument);
  // A rate the analyzer refuses is reported as the library words it, not blamed on the string.
  try {
    ktcli::CheckAnalyzerParams("", 44100);
    ADD_FAILURE() << "44100 Hz was accepted";
  } catch (const std::invalid_argument& e) {
    EXPECT_EQ(std::string(e.what()).find("invalid parameter string"), std::string::npos) << e.what();
  }
  const auto warnings = ktcli::CheckAnalyzerParams("EOSTimeoutMs=300;eostimeoutms=2;UpperBound=1", 8000);
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_EQ(warnings[0], "the speech analyzer reads no key \"UpperBound\" (keys are case-sensitive)");
  EXPECT_NE(warnings[1].find("\"eostimeoutms\""), std::string::npos);
  EXPECT_TRUE(ktcli::CheckAgcParams("UpperBound=-20;LeastGain=0.1").empty());
  ASSERT_EQ(ktcli::CheckAgcParams("EOSTimeoutMs=300").size(), 1u);
}

// The readings dated after a segment's start and up to its end, from the tool's JSON records.
// An RTTM ID is one space-separated field: made so from a path, refused otherwise.
TEST(Core, RttmRecordingIdsAreOneField) {
  EXPECT_EQ(ktcli::RecordingId("-"), "stdin");
  EXPECT_EQ(ktcli::RecordingId("takes/my take\t2.x.wav"), "my_take_2.x");
  for (const std::string id : {"a b", "", "a\nb"}) {
    EXPECT_THROW(ktcli::LabelWriter(ktcli::LabelFormat::Rttm, id), std::invalid_argument) << id;
  }
  EXPECT_NO_THROW(ktcli::LabelWriter(ktcli::LabelFormat::Audacity, "a b"));
}

TEST(Core, SegmentsWithVolumeAgreeWithTheToolsRecords) {
  for (const char* name : {"message_8000", "directions_11025", "forecast_16000"}) {
    const std::string path = kSamples + "/" + name + ".wav";
    FILE* pipe = popen((std::string(KTFRONT_CLI) + " vad --json --block-ms 30 " + path + " 2>/dev/null").c_str(), "r");
    std::vector<nlohmann::json> segments, readings;
    char line[4096];
    while (fgets(line, sizeof line, pipe)) {
      const nlohmann::json record = nlohmann::json::parse(line);
      if (record["type"] == "segment") segments.push_back(record);
      if (record["type"] == "volume") readings.push_back(record);
    }
    EXPECT_EQ(WEXITSTATUS(pclose(pipe)), 0);
    const ktcli::Audio audio = ktcli::ReadAudio(path, 0);
    const int block = ktcli::BlockSamples(30, audio.rateHz, "--block-ms");
    const auto found = ktcli::SpeechSegmentsWithVolume(audio.samples.data(), audio.samples.size(), audio.rateHz, "", block);
    ASSERT_EQ(found.size(), segments.size()) << name;
    ASSERT_FALSE(found.empty());
    for (size_t i = 0; i < found.size(); ++i) {
      const double start = segments[i]["start"], end = segments[i]["end"];
      double peak = -1e9, sum = 0;
      int count = 0;
      for (const auto& r : readings) {
        const double t = r["timeMs"];
        if (t <= start * 1000 || t > end * 1000) continue;
        peak = std::max(peak, r["volumedBFS"].get<double>());
        sum += r["snrVolumePct"].get<double>();
        ++count;
      }
      EXPECT_EQ(found[i].startS, start);
      EXPECT_EQ(found[i].endS, end);
      ASSERT_GT(count, 0);
      EXPECT_EQ(found[i].peakdBFS.value(), peak) << name << " " << i;
      EXPECT_EQ(found[i].meanSnrVolumePct.value(), sum / count) << name << " " << i;
    }
  }
  // Samples without speech: no segments, so nothing to measure.
  const std::vector<int16_t> silence(16000 * 2);
  EXPECT_TRUE(ktcli::SpeechSegmentsWithVolume(silence.data(), silence.size(), 16000, "", 320).empty());
}

}  // namespace
