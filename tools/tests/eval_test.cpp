// Scoring by hand-computed cases, label formats written and read back, and the tool's
// eval, tune and many-file runs end to end.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "eval.h"
#include "labels.h"
#include "writers.h"

namespace {

using ktcli::Region;

struct Case {
  std::vector<Region> reference, detected;
  double collarS, referenceS, missedS, falseAlarmS;
  int found, detectedTrue;
};

TEST(Evaluate, HandComputedCases) {
  const Case cases[] = {
      {{{1, 3}}, {{2, 4}}, 0, 2, 1, 1, 1, 1},
      {{{1, 3}}, {{2, 4}}, 0.25, 1.5, 0.75, 0.75, 1, 1},  // [0.75,1.25] and [2.75,3.25] unscored
      // The worked example of docs/cli.md, without and with a collar.
      {{{1, 3}, {5, 6}}, {{1.2, 3.5}, {4, 4.5}}, 0, 3, 1.2, 1.0, 1, 1},
      {{{1, 3}, {5, 6}}, {{1.2, 3.5}, {4, 4.5}}, 0.1, 2.6, 0.9, 0.9, 1, 1},
      {{{1, 2}, {1.5, 2.5}}, {{0, 1}, {2.5, 3}}, 0, 1.5, 1.5, 1.5, 0, 0},  // overlapping labels join; touching is no overlap
      {{}, {{0, 1}}, 0.5, 0, 0, 1, 0, 0},  // empty reference: every detection is a false alarm
      {{{0, 2}}, {}, 0, 2, 2, 0, 0, 0},    // empty detection
  };
  for (const Case& c : cases) {
    const ktcli::Score s = ktcli::Evaluate(c.reference, c.detected, c.collarS);
    EXPECT_NEAR(s.referenceS, c.referenceS, 1e-9);
    EXPECT_NEAR(s.missedS, c.missedS, 1e-9);
    EXPECT_NEAR(s.falseAlarmS, c.falseAlarmS, 1e-9);
    EXPECT_EQ(s.referenceFound, c.found);
    EXPECT_EQ(s.detectedTrue, c.detectedTrue);
    if (c.referenceS > 0) {
      EXPECT_NEAR(s.ErrorRate(), (c.missedS + c.falseAlarmS) / c.referenceS, 1e-9);
    }
  }
  const ktcli::Score example = ktcli::Evaluate({{1, 3}, {5, 6}}, {{1.2, 3.5}, {4, 4.5}}, 0.1);
  EXPECT_NEAR(example.ErrorRate(), 1.8 / 2.6, 1e-9);
  EXPECT_EQ(example.Recall(), 0.5);
  EXPECT_EQ(example.Precision(), 0.5);
  EXPECT_TRUE(std::isnan(ktcli::Evaluate({}, {{0, 1}}, 0).ErrorRate()));
}

TEST(Labels, EveryFormatReadsBackToTheMillisecond) {
  const std::vector<Region> regions = {{0.0004, 1.0596}, {5.18, 7.5805}};
  for (const char* name : {"plain", "audacity", "rttm", "textgrid", "json"}) {
    ktcli::LabelWriter writer(ktcli::ParseLabelFormat(name), "take");
    const std::vector<Region> back = ktcli::ParseLabels(writer.Write(regions, 9.0), name, "take");
    ASSERT_EQ(back.size(), 2u) << name;
    for (size_t i = 0; i < 2; ++i) {
      EXPECT_EQ(std::lround(back[i].startS * 1000), std::lround(regions[i].startS * 1000)) << name;
      EXPECT_EQ(std::lround(back[i].endS * 1000), std::lround(regions[i].endS * 1000)) << name;
    }
  }
  // Praat's short TextGrid; an RTTM of two recordings; Audacity's spectral lines.
  const std::string shortGrid = "File type = \"ooTextFile\"\nObject class = \"TextGrid\"\n0\n3\n<exists>\n1\n"
                                "\"IntervalTier\"\n\"vad\"\n0\n3\n3\n0\n1\n\"\"\n1\n2\n\"yes\"\n2\n3\n\" \"\n";
  EXPECT_EQ(ktcli::ParseLabels(shortGrid, "g")[0].endS, 2.0);
  const auto rttm = ktcli::ParseLabels("SPEAKER a 1 1 2 <NA> <NA> speech <NA> <NA>\nSPEAKER b 1 4 1 x\n", "r", "b");
  EXPECT_TRUE(rttm.size() == 1 && rttm[0].startS == 4 && rttm[0].endS == 5);
  EXPECT_EQ(ktcli::ParseLabels("1\t2\tspeech\n\\\t100\t200\n3\t4\n", "a").size(), 2u);
  for (const char* bad : {"1 2\n3 x\n", "1 2\n\n4 3\n", "1\t2\nx\t3\n", "SPEAKER a 1 1\n", "{\"type\":\"segment\"}\n"}) {
    try {
      ktcli::ParseLabels(bad, "bad.txt");
      ADD_FAILURE() << bad;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()).rfind("bad.txt:", 0), 0u) << e.what();
    }
  }
}

// UTF-16 as Praat writes a TextGrid with a non-ASCII label: byte order mark, then each ASCII
// or Latin-1 character as one 16-bit unit.
std::string Utf16(const std::string& latin1, bool bigEndian) {
  std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
  for (const char c : latin1) {
    const char unit[2] = {'\0', c};
    out += bigEndian ? std::string(unit, 2) : std::string({c, '\0'});
  }
  return out;
}

TEST(Labels, EncodingsRecordTypesRecordingIdsAndPointLabels) {
  const std::string grid = "File type = \"ooTextFile\"\nObject class = \"TextGrid\"\n\nxmin = 0 \nxmax = 3 \ntiers? <exists> \n"
                           "size = 1 \nitem []: \n    item [1]:\n        class = \"IntervalTier\" \n        name = \"words\" \n"
                           "        xmin = 0 \n        xmax = 3 \n        intervals: size = 3 \n        intervals [1]:\n"
                           "            xmin = 0 \n            xmax = 1 \n            text = \"\" \n        intervals [2]:\n"
                           "            xmin = 1 \n            xmax = 2.5 \n            text = \"caf\xE9\" \n        intervals [3]:\n"
                           "            xmin = 2.5 \n            xmax = 3 \n            text = \"\" \n";
  for (const bool bigEndian : {true, false}) {
    const auto regions = ktcli::ParseLabels(Utf16(grid, bigEndian), "g.TextGrid");
    ASSERT_EQ(regions.size(), 1u) << bigEndian;
    EXPECT_TRUE(regions[0].startS == 1 && regions[0].endS == 2.5) << bigEndian;
  }
  const std::vector<Region> two = {{1, 2}, {3, 4.5}};
  for (const char* name : {"plain", "audacity", "rttm", "textgrid", "json"}) {
    ktcli::LabelWriter writer(ktcli::ParseLabelFormat(name), "take");
    EXPECT_EQ(ktcli::ParseLabels("\xEF\xBB\xBF" + writer.Write(two, 5), name, "take").size(), 2u) << name;
  }
  // Any record type may come first; only the recording's own lines count, and none is refused.
  const std::string rttm = "SPKR-INFO take 1 <NA> <NA> <NA> unknown a <NA> <NA>\nSPEAKER take 1 1 2 <NA> <NA> a <NA> <NA>\n"
                           "SPEAKER other 1 5 1 <NA> <NA> a <NA> <NA>\n";
  const auto take = ktcli::ParseLabels(rttm, "r.rttm", "take");
  EXPECT_TRUE(take.size() == 1 && take[0].startS == 1 && take[0].endS == 3);
  try {
    ktcli::ParseLabels(rttm, "r.rttm", "missing");
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "r.rttm: no SPEAKER line for recording \"missing\" (it has other, take; --labels-id names the one to use)");
  }
  // Audacity's point labels have no length: they are reported, not counted as regions.
  std::vector<double> points;
  const auto marked = ktcli::ParseLabels("0.5\t0.5\tclick\n1\t2\tspeech\n3\t3\n", "a.txt", "", &points);
  EXPECT_TRUE(marked.size() == 1 && marked[0].startS == 1);
  EXPECT_EQ(points, (std::vector<double>{0.5, 3}));
}

std::string RunTool(const std::string& args, int& status) {
  FILE* pipe = popen((std::string(KTFRONT_CLI) + " " + args + " 2>/dev/null").c_str(), "r");
  std::string out;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  status = WEXITSTATUS(pclose(pipe));
  return out;
}

const std::string kSamples = KTFRONT_SAMPLES_DIR;

TEST(Cli, EvalAgreesWithAMillisecondCountOfVadAndLabels) {
  int status = 0;
  for (const char* name : {"message_8000", "directions_11025"}) {
    const std::string wav = kSamples + "/" + name + ".wav";
    const auto detected = ktcli::ParseLabels(RunTool("vad " + wav, status), "vad");
    const auto reference = ktcli::ReadLabels(kSamples + "/" + name + ".labels");
    auto inside = [](const std::vector<Region>& regions, double t) {
      for (const Region& r : regions) if (r.startS <= t && t < r.endS) return true;
      return false;
    };
    double missed = 0, falseAlarm = 0;
    for (int ms = 0; ms < 12000; ++ms) {
      const double t = (ms + 0.5) / 1000;
      missed += inside(reference, t) && !inside(detected, t) ? 0.001 : 0;
      falseAlarm += !inside(reference, t) && inside(detected, t) ? 0.001 : 0;
    }
    const std::string out = RunTool("eval --json " + wav, status);
    const auto total = nlohmann::json::parse(out.substr(out.rfind("{\"type\":\"total\"")));
    EXPECT_EQ(status, 0);
    EXPECT_NEAR(total["missedS"].get<double>(), missed, 0.0015) << name;
    EXPECT_NEAR(total["falseAlarmS"].get<double>(), falseAlarm, 0.0015) << name;
  }
}

// One RTTM for two recordings: --labels takes one value, the rest are recordings, and each
// recording is scored against its own lines only.
TEST(Cli, OneRttmForSeveralRecordingsIsReadByRecordingId) {
  char dir[] = "/tmp/ktfront_rttm_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string rttm = std::string(dir) + "/all.rttm";
  std::ofstream(rttm) << "SPEAKER message_8000 1 1.06 3.46 <NA> <NA> a <NA> <NA>\nSPEAKER message_8000 1 5.18 2.4 <NA> <NA> a <NA> <NA>\n"
                         "SPEAKER forecast_16000 1 1.36 3.04 <NA> <NA> a <NA> <NA>\nSPEAKER forecast_16000 1 5.1 2.38 <NA> <NA> a <NA> <NA>\n";
  int status = 0;
  const std::string table = RunTool("eval --labels " + rttm + " " + kSamples + "/message_8000.wav " + kSamples + "/forecast_16000.wav", status);
  EXPECT_EQ(status, 0) << table;
  EXPECT_NE(table.find("11.280    0.000    0.0    0.000    0.0     0.0       4/4       4/4"), std::string::npos) << table;
  RunTool("eval --labels " + rttm + " " + kSamples + "/directions_11025.wav", status);
  EXPECT_EQ(status, 1);
  std::remove(rttm.c_str());
  rmdir(dir);
}

TEST(Cli, TuneIsTheSameForAnyJobsAndManyFilesKeepOrder) {
  const std::string args = "tune --evals 24 --seed 7 " + kSamples + "/message_8000.wav " + kSamples +
                           "/forecast_16000.wav --validate " + kSamples + "/directions_11025.wav";
  int status = 0;
  const std::string one = RunTool(args + " -j1", status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(RunTool(args + " -j2", status), one);
  EXPECT_NE(one.find("best: EOSTimeoutMs="), std::string::npos);
  EXPECT_NE(one.find("validated on 1 other recordings"), std::string::npos);
  // --json: the same best string, then file and total records of both sets and both strings.
  std::istringstream json(RunTool(args + " -j2 --json", status));
  std::vector<nlohmann::json> records;
  for (std::string line; std::getline(json, line);) records.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(records.size(), 12u);
  EXPECT_EQ("best: " + records[0]["params"].get<std::string>(), one.substr(0, one.find('\n')));
  EXPECT_EQ(records[0]["tried"], 24 * 3);  // each of the two folds, then all recordings
  // Two recordings, each its own group: each fold searched on one and scored on the other.
  EXPECT_EQ(records[1]["type"], "crossval");
  ASSERT_EQ(records[1]["bestPct"].size(), 2u);
  EXPECT_NE(one.find("cross-validated over 2 folds of 2 groups"), std::string::npos);
  EXPECT_EQ(records[4]["type"], "total");
  EXPECT_EQ(records[7]["string"], "best");
  EXPECT_LE(records[7]["errorRatePct"].get<double>(), records[4]["errorRatePct"].get<double>());
  EXPECT_EQ(records[11]["set"], "validate");
  // One group (one folder), or --folds 0: nothing to cross-validate.
  for (const char* extra : {" --groups folder", " --folds 0"}) {
    const std::string single = RunTool(args + extra, status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(single.find("cross-validated"), std::string::npos) << extra;
    EXPECT_NE(single.find(" strings tried"), std::string::npos) << extra;
  }
  RunTool(args + " --groups '(unclosed'", status);
  EXPECT_EQ(status, 2);
  const std::string many = RunTool("vad -j2 " + kSamples + "/message_8000.wav missing.wav " + kSamples + "/message_8000.wav", status);
  EXPECT_EQ(status, 1);
  const std::string header = "==> " + kSamples + "/message_8000.wav <==\n1.060 4.520\n5.180 7.580\n";
  EXPECT_EQ(many, header + "==> missing.wav <==\nerror: cannot read missing.wav: No such file or directory\n" + header);
}

// Two recordings labelled with opposite time-outs, each the vad's own output with it: a search
// on either one picks its time-out, which the other recording punishes, so the cross-validated
// error is worse than the defaults' and tune must print the defaults, although on both together
// a shorter time-out scores better. Labelled alike, the searched time-out holds and is printed.
TEST(Cli, TuneKeepsTheDefaultsUnlessTheyLoseOnHeldOutRecordings) {
  char dir[] = "/tmp/ktfront_tune_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string d = dir;
  std::ofstream(d + "/space") << "EOSTimeoutMs 100 1500\n";
  int status = 0;
  for (const bool alike : {false, true}) {
    for (const std::string name : {"message_8000", "forecast_16000"}) {
      const std::string timeout = name == "message_8000" && !alike ? "1500" : "100";
      std::ofstream(d + "/" + name + ".labels") << RunTool("vad --params EOSTimeoutMs=" + timeout + " " + kSamples + "/" + name + ".wav", status);
      ASSERT_EQ(status, 0);
    }
    const std::string files = " --labels " + d + "/message_8000.labels --labels " + d + "/forecast_16000.labels " +
                              kSamples + "/message_8000.wav " + kSamples + "/forecast_16000.wav";
    const std::string tuned = RunTool("tune --space " + d + "/space --evals 30" + files, status);
    EXPECT_EQ(status, 0);
    const std::string best = tuned.substr(0, tuned.find('\n'));
    const bool kept = tuned.find("keeping the defaults") != std::string::npos;
    if (alike) {
      EXPECT_EQ(best, "best: EOSTimeoutMs=100") << tuned;
      EXPECT_FALSE(kept) << tuned;
    } else {
      EXPECT_EQ(best, "best: EOSTimeoutMs=420") << tuned;
      EXPECT_TRUE(kept) << tuned;
      // Without cross-validation nothing holds the search back.
      EXPECT_EQ(RunTool("tune --folds 0 --space " + d + "/space --evals 30" + files, status).rfind("best: EOSTimeoutMs=100\n", 0), 0u);
    }
  }
  for (const char* name : {"space", "message_8000.labels", "forecast_16000.labels"}) std::remove((d + "/" + name).c_str());
  rmdir(dir);
}

}  // namespace
