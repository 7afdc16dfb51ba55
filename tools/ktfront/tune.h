#pragma once
// Searching the analyzer's parameter string for the lowest detection error rate over groups of
// labelled recordings, with the error on groups held out estimated by cross-validation.
#include <cstdint>
#include <string>
#include <vector>

#include "search.h"

namespace ktcli {

// The built-in ranges of the keys that decide detection; the default key set.
std::vector<KeyRange> DefaultSpace();
// "Key LOW HIGH [STEP]" lines; throws std::runtime_error "PATH:LINE: ...".
std::vector<KeyRange> ReadSpace(const std::string& path);

struct TuneOptions {
  std::vector<std::string> files;
  std::vector<std::string> labels;
  std::string labelsId;  // the tuning recordings' RTTM ID
  int rawRateHz = 0;     // headerless input's rate
  std::vector<std::string> validate;
  std::vector<std::string> keys;
  std::string spacePath;
  std::string groups;  // as GroupPaths takes it
  int folds = 5;
  uint64_t seed = 1;
  int evaluations = 200;
  double timeS = 0.0;
  double collarS = 0.0;
  int jobs = 0;
  int blockMs = 20;
  bool json = false;
};

int RunTune(const TuneOptions& options);

}  // namespace ktcli
