#pragma once
// Scoring detected speech against reference labels, and the recordings held in memory
// that eval and tune run the analyzer over.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "audiodata.h"
#include "labels.h"

namespace ktcli {

// Missed speech and false alarm in seconds, outside the collars around reference
// boundaries; and how many regions on either side overlap one on the other.
struct Score {
  double referenceS = 0.0;
  double missedS = 0.0;
  double falseAlarmS = 0.0;
  int referenceCount = 0;
  int referenceFound = 0;
  int detectedCount = 0;
  int detectedTrue = 0;

  Score& operator+=(const Score& other);
  // (missed + false alarm) / reference speech; NaN without reference speech.
  double ErrorRate() const;
  // Found reference regions / reference regions, and true detections / detections; NaN for none.
  double Recall() const;
  double Precision() const;
};

Score Evaluate(const std::vector<Region>& reference, const std::vector<Region>& detected, double collarS);

// A recording decoded once: mono at the rate the analyzer runs at.
struct Recording {
  std::string name;
  int rateHz = 0;
  kt::AudioData samples;
  std::vector<Region> reference;
};

Recording Decode(const std::string& path, int rawRateHz);
// The analyzer through the classes over the samples in blocks, flushed at the end, as vad runs it.
std::vector<Region> Detect(const Recording& recording, const std::string& params, int blockMs);

// Decodes every file and reads its labels: labels.size() 0 (found beside each recording),
// 1 (one file for all; RTTM lines picked by labelsId, or else by stem) or one per file.
// errors[i] is empty for a file that loaded.
std::vector<Recording> LoadLabelled(const std::vector<std::string>& files, const std::vector<std::string>& labels,
                                    int rawRateHz, int jobs, std::vector<std::string>& errors,
                                    const std::string& labelsId = "");

// A table with one row per named score and a total row.
std::string FormatScores(const std::vector<std::string>& names, const std::vector<Score>& scores);
// The same as JSON Lines: one "file" object per score and a "total", each carrying the
// given tags after its type.
std::string FormatScoresJson(const std::vector<std::string>& names, const std::vector<Score>& scores,
                             const std::vector<std::pair<std::string, std::string>>& tags = {});

// tune's first JSON line: the best string, how many were tried, the seed.
std::string FormatBestJson(const std::string& params, size_t tried, uint64_t seed);

struct EvalOptions {
  std::vector<std::string> files;
  std::vector<std::string> labels;
  std::string labelsId;
  std::string params;
  double collarS = 0.0;
  bool json = false;
  int jobs = 0;
  int blockMs = 20;
  int rawRateHz = 0;
};

int RunEval(const EvalOptions& options);

}  // namespace ktcli
