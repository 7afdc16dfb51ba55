#include "eval.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "audioanalyzer.h"
#include "blocks.h"
#include "subcommand.h"
#include "jobs.h"
#include "output.h"
#include "params.h"
#include "textformat.h"
#include "vadrun.h"

namespace ktcli {
namespace {

bool Inside(const std::vector<Region>& regions, double timeS) {
  for (const Region& region : regions) {
    if (region.startS <= timeS && timeS < region.endS) return true;
  }
  return false;
}

// Counts the regions of one side that share some time with a region of the other.
int CountOverlapping(const std::vector<Region>& regions, const std::vector<Region>& others) {
  return static_cast<int>(std::count_if(regions.begin(), regions.end(), [&](const Region& region) {
    return std::any_of(others.begin(), others.end(), [&](const Region& other) {
      return std::min(region.endS, other.endS) > std::max(region.startS, other.startS);
    });
  }));
}

std::string Percent(double fraction) { return std::isnan(fraction) ? "-" : Fixed(100.0 * fraction, 1); }

nlohmann::ordered_json NumberOrNull(double value) {
  return std::isnan(value) ? nlohmann::ordered_json() : nlohmann::ordered_json(value);
}

nlohmann::ordered_json ToJson(const std::string& type, const std::string& name, const Score& score,
                              const std::vector<std::pair<std::string, std::string>>& tags) {
  nlohmann::ordered_json record = {{"type", type}};
  for (const auto& tag : tags) record[tag.first] = tag.second;
  if (!name.empty()) record["file"] = name;
  const double reference = score.referenceS;
  record["referenceS"] = score.referenceS;
  record["missedS"] = score.missedS;
  record["falseAlarmS"] = score.falseAlarmS;
  record["missedPct"] = NumberOrNull(reference > 0 ? 100.0 * score.missedS / reference : NAN);
  record["falseAlarmPct"] = NumberOrNull(reference > 0 ? 100.0 * score.falseAlarmS / reference : NAN);
  record["errorRatePct"] = NumberOrNull(100.0 * score.ErrorRate());
  record["referenceSegments"] = score.referenceCount;
  record["foundSegments"] = score.referenceFound;
  record["recall"] = NumberOrNull(score.Recall());
  record["detectedSegments"] = score.detectedCount;
  record["trueSegments"] = score.detectedTrue;
  record["precision"] = NumberOrNull(score.Precision());
  return record;
}

}  // namespace

Score& Score::operator+=(const Score& other) {
  referenceS += other.referenceS;
  missedS += other.missedS;
  falseAlarmS += other.falseAlarmS;
  referenceCount += other.referenceCount;
  referenceFound += other.referenceFound;
  detectedCount += other.detectedCount;
  detectedTrue += other.detectedTrue;
  return *this;
}

double Score::ErrorRate() const { return referenceS > 0 ? (missedS + falseAlarmS) / referenceS : NAN; }
double Score::Recall() const { return referenceCount > 0 ? static_cast<double>(referenceFound) / referenceCount : NAN; }
double Score::Precision() const { return detectedCount > 0 ? static_cast<double>(detectedTrue) / detectedCount : NAN; }

Score Evaluate(const std::vector<Region>& referenceIn, const std::vector<Region>& detectedIn, double collarS) {
  const std::vector<Region> reference = Normalize(referenceIn);
  const std::vector<Region> detected = Normalize(detectedIn);
  // Time within the collar of a reference boundary is not scored.
  std::vector<Region> collars;
  std::vector<double> cuts;
  for (const Region& region : reference) {
    for (const double boundary : {region.startS, region.endS}) {
      if (collarS > 0) collars.push_back({boundary - collarS, boundary + collarS});
      cuts.push_back(boundary);
      if (collarS > 0) cuts.insert(cuts.end(), {boundary - collarS, boundary + collarS});
    }
  }
  collars = Normalize(collars);
  for (const Region& region : detected) cuts.insert(cuts.end(), {region.startS, region.endS});
  std::sort(cuts.begin(), cuts.end());
  Score score;
  // Between two neighbouring cuts nothing changes, so the middle decides for the whole piece.
  for (size_t i = 1; i < cuts.size(); ++i) {
    const double length = cuts[i] - cuts[i - 1];
    const double middle = (cuts[i] + cuts[i - 1]) / 2;
    if (length <= 0 || Inside(collars, middle)) continue;
    const bool speech = Inside(reference, middle);
    const bool found = Inside(detected, middle);
    if (speech) score.referenceS += length;
    if (speech && !found) score.missedS += length;
    if (!speech && found) score.falseAlarmS += length;
  }
  score.referenceCount = static_cast<int>(reference.size());
  score.referenceFound = CountOverlapping(reference, detected);
  score.detectedCount = static_cast<int>(detected.size());
  score.detectedTrue = CountOverlapping(detected, reference);
  return score;
}

Recording Decode(const std::string& path, int rawRateHz) {
  Audio audio = ReadAudio(path, rawRateHz);
  Recording recording;
  recording.name = path;
  recording.rateHz = audio.rateHz;
  recording.samples = std::move(audio.samples);
  return recording;
}

std::vector<Region> Detect(const Recording& recording, const std::string& params, int blockMs) {
  const int blockSamples = BlockSamples(blockMs, recording.rateHz, "--block-ms");
  std::vector<Region> regions;
  for (const auto& [startS, endS] :
       SpeechSegments(recording.samples.data(), recording.samples.size(), recording.rateHz, params, blockSamples)) {
    regions.push_back({startS, endS});
  }
  return regions;
}

std::vector<Recording> LoadLabelled(const std::vector<std::string>& files, const std::vector<std::string>& labels,
                                    int rawRateHz, int jobs, std::vector<std::string>& errors,
                                    const std::string& labelsId) {
  if (labels.size() > 1 && labels.size() != files.size()) {
    throw UsageError(std::to_string(labels.size()) + " label files for " + std::to_string(files.size()) +
                     " recordings: give one for all, one per recording, or none to find them beside the recordings");
  }
  std::vector<Recording> recordings(files.size());
  errors = ParallelFor(files.size(), jobs, [&](size_t i) {
    std::string labelPath = labels.empty() ? FindLabelsFor(files[i]) : labels[labels.size() == 1 ? 0 : i];
    if (labelPath.empty()) {
      throw std::runtime_error("no labels for " + files[i] + " (looked for " + StemOf(files[i]) +
                               ".labels, .txt, .rttm, .TextGrid, .json beside it)");
    }
    const std::vector<Region> reference = ReadLabels(labelPath, labelsId.empty() ? RecordingId(files[i]) : labelsId);
    recordings[i] = Decode(files[i], rawRateHz);
    recordings[i].reference = reference;
  });
  return recordings;
}

std::string FormatScores(const std::vector<std::string>& names, const std::vector<Score>& scores) {
  size_t width = 5;
  for (const std::string& name : names) width = std::max(width, name.size());
  auto row = [&](const std::string& name, const Score& s) {
    char text[512];
    const double reference = s.referenceS;
    const std::string recall = std::to_string(s.referenceFound) + "/" + std::to_string(s.referenceCount);
    const std::string precision = std::to_string(s.detectedTrue) + "/" + std::to_string(s.detectedCount);
    std::snprintf(text, sizeof text, "%-*s %8.3f %8.3f %6s %8.3f %6s %7s %9s %9s\n", static_cast<int>(width),
                  name.c_str(), s.referenceS, s.missedS,
                  Percent(reference > 0 ? s.missedS / reference : NAN).c_str(), s.falseAlarmS,
                  Percent(reference > 0 ? s.falseAlarmS / reference : NAN).c_str(), Percent(s.ErrorRate()).c_str(),
                  recall.c_str(), precision.c_str());
    return std::string(text);
  };
  char header[256];
  std::snprintf(header, sizeof header, "%-*s %8s %8s %6s %8s %6s %7s %9s %9s\n", static_cast<int>(width), "file",
                "speech_s", "missed_s", "%", "f.a._s", "%", "error%", "recall", "precision");
  std::string text = header;
  Score total;
  for (size_t i = 0; i < scores.size(); ++i) {
    text += row(names[i], scores[i]);
    total += scores[i];
  }
  return text + row("total", total);
}

std::string FormatScoresJson(const std::vector<std::string>& names, const std::vector<Score>& scores,
                             const std::vector<std::pair<std::string, std::string>>& tags) {
  std::string text;
  Score total;
  for (size_t i = 0; i < scores.size(); ++i) {
    text += ToJson("file", names[i], scores[i], tags).dump() + "\n";
    total += scores[i];
  }
  return text + ToJson("total", "", total, tags).dump() + "\n";
}

int RunEval(const EvalOptions& options) {
  const std::vector<std::string> files = ExpandManifests(options.files);
  std::vector<std::string> errors;
  const std::vector<Recording> recordings = LoadLabelled(files, options.labels, options.rawRateHz, options.jobs, errors, options.labelsId);
  // Checked at each rate the analyzer will run at, as vad checks it; warned about once.
  std::set<int> rates;
  for (size_t i = 0; i < files.size(); ++i) {
    if (errors[i].empty()) rates.insert(recordings[i].rateHz);
  }
  std::vector<std::string> warnings;
  for (const int rateHz : rates) warnings = CheckAnalyzerParams(options.params, rateHz);
  Warn(warnings);
  std::vector<Score> scores(files.size());
  const std::vector<std::string> detectErrors = ParallelFor(files.size(), options.jobs, [&](size_t i) {
    if (errors[i].empty()) scores[i] = Evaluate(recordings[i].reference, Detect(recordings[i], options.params, options.blockMs), options.collarS);
  });
  std::vector<std::string> names;
  std::vector<Score> good;
  bool failed = false;
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string& why = errors[i].empty() ? detectErrors[i] : errors[i];
    if (!why.empty()) {
      std::cerr << "ktfront: error: " << why << "\n";
      failed = true;
      continue;
    }
    names.push_back(files[i]);
    good.push_back(scores[i]);
  }
  if (good.empty()) {
    // Nothing was scored; the errors above say why.
  } else if (options.json) {
    WriteOut(FormatScoresJson(names, good));
  } else {
    WriteOut(FormatScores(names, good));
  }
  return failed ? 1 : 0;
}

std::string FormatBestJson(const std::string& params, size_t tried, uint64_t seed) {
  return nlohmann::ordered_json{{"type", "best"}, {"params", params}, {"tried", tried}, {"seed", seed}}.dump() + "\n";
}

Runner DeclareEval(CLI::App& app) {
  auto options = std::make_shared<EvalOptions>();
  CLI::App* command = app.add_subcommand("eval", "Score the detected speech against reference labels");
  command->add_option("FILE", options->files, "Recordings, or @list.txt")->required();
  AddLabelsOption(command, options->labels);
  AddLabelsIdOption(command, options->labelsId);
  AddParamsOption(command, options->params, "Analyzer");
  command->add_option("--collar", options->collarS, "Seconds around each reference boundary left unscored")
      ->check(Within(0, 1e6));
  command->add_flag("--json", options->json, "One JSON object per file and one for the total");
  AddJobsOption(command, options->jobs, "Files to work on at once (default: one per core)");
  AddBlockOption(command, options->blockMs);
  AddRateOption(command, options->rawRateHz);
  return [options] { return RunEval(*options); };
}

}  // namespace ktcli
