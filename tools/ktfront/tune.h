#pragma once
// Searching the analyzer's parameter string for the lowest total detection error rate over
// labelled recordings.
#include <cstdint>
#include <string>
#include <vector>

namespace ktcli {

// One key's range, searched on a grid of the given step.
struct KeyRange {
  std::string key;
  double low = 0.0;
  double high = 0.0;
  double step = 1.0;
};

// The built-in ranges of the keys that decide detection; the default key set.
std::vector<KeyRange> DefaultSpace();
// "Key LOW HIGH [STEP]" lines; throws std::runtime_error "PATH:LINE: ...".
std::vector<KeyRange> ReadSpace(const std::string& path);

struct TuneOptions {
  std::vector<std::string> files;
  std::vector<std::string> labels;
  std::vector<std::string> validate;
  std::vector<std::string> keys;
  std::string spacePath;
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
