#include "tune.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "audioanalyzer.h"
#include "subcommand.h"
#include "eval.h"
#include "jobs.h"
#include "output.h"
#include "textformat.h"

namespace ktcli {
namespace {

// The analyzer's default, where a search starts; NaN for a key without a numeric one.
double DefaultOf(const std::string& key) {
  static const std::map<std::string, std::string> kDefaults = kt::AudioAnalyzer::GetParameterDefaults();
  const auto found = kDefaults.find(key);
  if (found == kDefaults.end()) return std::numeric_limits<double>::quiet_NaN();
  const char* text = found->second.c_str();
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  return end != text && *end == '\0' ? value : std::numeric_limits<double>::quiet_NaN();
}

std::string ToParams(const std::vector<KeyRange>& space, const Point& point) {
  std::string params;
  for (size_t k = 0; k < space.size(); ++k) {
    char value[32];
    std::snprintf(value, sizeof value, "%.6g", ValueAt(space[k], point[k]));
    params += (k ? ";" : "") + space[k].key + "=" + value;
  }
  return params;
}

// On near ties, the string nearer the defaults: at most this much error rate (a fraction) for
// a string at the far corner of every range; small, so that it only settles near ties.
constexpr double kDefaultsWeight = 0.001;

// Every string's score on every recording it was run on, so that the searches of the folds,
// which share most of their recordings, run each string over a recording once.
class Scorer {
 public:
  Scorer(const std::vector<Recording>& recordings, const TuneOptions& options)
      : _recordings(recordings), _options(options) {}

  // The scores of each string on the given recordings; a string the analyzer refuses has none.
  std::vector<std::vector<ktcli::Score>> Get(const std::vector<std::string>& strings, const std::vector<size_t>& files) {
    std::vector<std::pair<size_t, size_t>> work;  // (string, recording) not run yet
    for (size_t s = 0; s < strings.size(); ++s) {
      Entry& entry = _cache[strings[s]];
      entry.scores.resize(_recordings.size());
      entry.done.resize(_recordings.size(), false);
      for (const size_t f : files) {
        if (!entry.done[f] && std::find(work.begin(), work.end(), std::make_pair(s, f)) == work.end()) work.push_back({s, f});
      }
    }
    std::vector<ktcli::Score> scores(work.size());
    const std::vector<std::string> errors = ParallelFor(work.size(), _options.jobs, [&](size_t i) {
      const Recording& recording = _recordings[work[i].second];
      scores[i] = Evaluate(recording.reference, Detect(recording, strings[work[i].first], _options.blockMs), _options.collarS);
    });
    for (size_t i = 0; i < work.size(); ++i) {
      Entry& entry = _cache[strings[work[i].first]];
      entry.scores[work[i].second] = scores[i];
      entry.done[work[i].second] = true;
      entry.refused = entry.refused || !errors[i].empty();
    }
    std::vector<std::vector<ktcli::Score>> result;
    for (const std::string& string : strings) {
      const Entry& entry = _cache.at(string);
      result.emplace_back();
      if (entry.refused) continue;
      for (const size_t f : files) result.back().push_back(entry.scores[f]);
    }
    return result;
  }

 private:
  struct Entry {
    std::vector<ktcli::Score> scores;
    std::vector<bool> done;
    bool refused = false;
  };
  const std::vector<Recording>& _recordings;
  const TuneOptions& _options;
  std::map<std::string, Entry> _cache;
};

std::vector<int> Pick(const std::vector<int>& values, const std::vector<size_t>& indices) {
  std::vector<int> picked;
  for (const size_t i : indices) picked.push_back(values[i]);
  return picked;
}

// The mean group error of one string on the given recordings; infinity for a refused string.
double GroupError(Scorer& scorer, const std::string& params, const std::vector<size_t>& files,
                  const std::vector<int>& groupOf) {
  const std::vector<ktcli::Score> scores = scorer.Get({params}, files).front();
  const double error = scores.empty() ? NAN : MeanGroupError(scores, Pick(groupOf, files));
  return std::isnan(error) ? std::numeric_limits<double>::infinity() : error;
}

class Progress {
 public:
  Progress(int total) : _total(total), _shown(isatty(STDERR_FILENO) != 0) {}
  void Show(size_t done, double best) {
    if (!_shown) return;
    const int width = 30;
    const int filled = static_cast<int>(width * std::min<size_t>(done, _total) / std::max(1, _total));
    std::cerr << "\rtune [" << std::string(filled, '#') << std::string(width - filled, '.') << "] " << done << "/"
              << _total << "  best " << Fixed(100.0 * best, 2) << " %" << std::flush;
  }
  void End() {
    if (_shown) std::cerr << "\n";
  }

 private:
  int _total;
  bool _shown;
};

std::vector<Score> ScoreEach(const std::vector<Recording>& recordings, const std::string& params, const TuneOptions& options) {
  std::vector<Score> scores(recordings.size());
  ParallelFor(recordings.size(), options.jobs, [&](size_t i) {
    scores[i] = Evaluate(recordings[i].reference, Detect(recordings[i], params, options.blockMs), options.collarS);
  });
  return scores;
}

std::vector<std::string> NamesOf(const std::vector<Recording>& recordings) {
  std::vector<std::string> names;
  for (const Recording& recording : recordings) names.push_back(recording.name);
  return names;
}

std::vector<Recording> LoadAll(const std::vector<std::string>& files, const std::vector<std::string>& labels,
                               const TuneOptions& options, const std::string& labelsId) {
  std::vector<std::string> errors;
  std::vector<Recording> recordings =
      LoadLabelled(ExpandManifests(files), labels, options.rawRateHz, options.jobs, errors, labelsId);
  for (const std::string& error : errors) {
    if (!error.empty()) throw std::runtime_error(error);
  }
  return recordings;
}

double Mean(const std::vector<double>& values) {
  double sum = 0;
  for (const double value : values) sum += value;
  return values.empty() ? NAN : sum / static_cast<double>(values.size());
}

double StandardDeviation(const std::vector<double>& values) {
  const double mean = Mean(values);
  double sum = 0;
  for (const double value : values) sum += (value - mean) * (value - mean);
  return values.size() < 2 ? NAN : std::sqrt(sum / static_cast<double>(values.size() - 1));
}

std::string Percents(const std::vector<double>& values) {
  std::string text;
  for (const double value : values) text += (text.empty() ? "" : ", ") + Fixed(100.0 * value, 2);
  return text;
}

std::string TotalRate(const std::vector<Score>& scores) {
  Score total;
  for (const Score& score : scores) total += score;
  return std::isnan(total.ErrorRate()) ? "-" : Fixed(100.0 * total.ErrorRate(), 2) + " %";
}

}  // namespace

std::vector<KeyRange> DefaultSpace() {
  // The limits stay at least 10 dB apart, around the usual speech levels: limits found close
  // together pin the threshold to the level of the recordings tuned on.
  return {{"EOSTimeoutMs", 100, 1500, 20},        {"SpeechWindowSizeMs", 60, 600, 20},
          {"SpeechWindowFraction", 0.05, 0.9, 0.01}, {"CutoffFraction", 0.01, 0.3, 0.01},
          {"ThresholdOffsetSpeech", 0, 20, 0.5},   {"ThresholdOffsetPause", 0, 30, 0.5},
          {"ThresholdLowerLimit", 10, 45, 0.5},    {"ThresholdUpperLimit", 55, 90, 0.5}};
}

std::vector<KeyRange> ReadSpace(const std::string& path) {
  std::ifstream stream(path);
  if (!stream) throw std::runtime_error("cannot read " + path);
  const std::vector<std::string> known = kt::AudioAnalyzer::GetParameterKeys();
  std::vector<KeyRange> space;
  int number = 0;
  for (std::string line; std::getline(stream, line);) {
    ++number;
    const std::string where = path + ":" + std::to_string(number) + ": ";
    std::istringstream words(line.substr(0, line.find('#')));
    KeyRange range;
    if (!(words >> range.key)) continue;
    if (std::find(known.begin(), known.end(), range.key) == known.end()) {
      throw std::runtime_error(where + "the speech analyzer reads no key \"" + range.key + "\"");
    }
    std::string rest;
    if (!(words >> range.low >> range.high)) throw std::runtime_error(where + "expected KEY LOW HIGH [STEP]");
    // Keys in milliseconds are whole numbers; the analyzer counts them in 20 ms frames.
    range.step = range.key.size() > 2 && range.key.compare(range.key.size() - 2, 2, "Ms") == 0 ? 20 : 0.01;
    if (!(words >> range.step) && !words.eof()) throw std::runtime_error(where + "expected KEY LOW HIGH [STEP]");
    if (words >> rest) throw std::runtime_error(where + "unexpected \"" + rest + "\"");
    if (!(range.low <= range.high) || !(range.step > 0) || !std::isfinite(range.high)) {
      throw std::runtime_error(where + "expected LOW <= HIGH and a positive STEP");
    }
    // A key the analyzer reads as an integer would run 110.5 as 110: the search would try
    // strings that differ only in ignored digits, and print a value that is not the one used.
    const std::string half = range.key + "=0.5";
    const bool whole = kt::AudioAnalyzer::GetParameterReadTexts(half)[range.key] != "0.5";
    if (whole && (range.low != std::floor(range.low) || range.step != std::floor(range.step))) {
      throw std::runtime_error(where + range.key + " is read as a whole number: LOW and STEP must be whole");
    }
    space.push_back(range);
  }
  if (space.empty()) throw std::runtime_error(path + ": no keys to search");
  return space;
}

int RunTune(const TuneOptions& options) {
  std::vector<KeyRange> space = options.spacePath.empty() ? DefaultSpace() : ReadSpace(options.spacePath);
  if (!options.keys.empty()) {
    std::vector<KeyRange> chosen;
    for (const std::string& key : options.keys) {
      const auto found = std::find_if(space.begin(), space.end(), [&](const KeyRange& r) { return r.key == key; });
      if (found == space.end()) throw UsageError("--keys: no range for \"" + key + "\" (give one with --space)");
      chosen.push_back(*found);
    }
    space = chosen;
  }
  if (options.evaluations < 1) throw UsageError("--evals must be at least 1");
  if (options.folds < 0) throw UsageError("--folds must be 0 (none) or more");
  const std::vector<Recording> recordings = LoadAll(options.files, options.labels, options, options.labelsId);
  const std::vector<int> groupOf = GroupPaths(NamesOf(recordings), options.groups);
  const int groups = *std::max_element(groupOf.begin(), groupOf.end()) + 1;
  // Cross-validation needs a group to hold out and one to search on.
  const std::vector<std::vector<size_t>> folds = options.folds >= 2 && groups >= 2 ? MakeFolds(groupOf, options.folds)
                                                                    : std::vector<std::vector<size_t>>();
  Scorer scorer(recordings, options);
  const auto started = std::chrono::steady_clock::now();
  SearchOptions search;
  search.seed = options.seed;
  search.evaluations = static_cast<size_t>(options.evaluations);
  search.startWeight = kDefaultsWeight;
  search.stop = [&]() {
    return options.timeS > 0 &&
           std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count() >= options.timeS;
  };
  Progress progress(options.evaluations * static_cast<int>(folds.size() + 1));
  size_t triedBefore = 0;
  search.progress = [&](size_t tried, double best) { progress.Show(triedBefore + tried, best); };

  Point start(space.size());
  for (size_t k = 0; k < space.size(); ++k) {
    const double value = DefaultOf(space[k].key);
    start[k] = std::isnan(value) ? GridSize(space[k]) / 2 : IndexOf(space[k], value);
  }
  auto searchOn = [&](const std::vector<size_t>& files) {
    const SearchResult result = Search(space, start, [&](const std::vector<Point>& points) {
      std::vector<std::string> strings;
      for (const Point& point : points) strings.push_back(ToParams(space, point));
      scorer.Get(strings, files);  // the whole batch at once, to keep every thread busy
      std::vector<double> errors;
      for (const std::string& params : strings) errors.push_back(GroupError(scorer, params, files, groupOf));
      return errors;
    }, search);
    triedBefore += result.tried;
    return result;
  };
  // Each fold searched on the other groups and scored on its own.
  std::vector<double> foldBest, foldDefaults;
  for (const std::vector<size_t>& held : folds) {
    std::vector<size_t> train;
    for (size_t i = 0; i < recordings.size(); ++i) {
      if (std::find(held.begin(), held.end(), i) == held.end()) train.push_back(i);
    }
    const SearchResult result = searchOn(train);
    foldBest.push_back(GroupError(scorer, ToParams(space, result.best), held, groupOf));
    foldDefaults.push_back(GroupError(scorer, "", held, groupOf));
  }
  std::vector<size_t> all(recordings.size());
  for (size_t i = 0; i < all.size(); ++i) all[i] = i;
  const SearchResult found = searchOn(all);
  progress.End();
  // Keep the defaults when strings searched without a group did worse on it than they did.
  const bool keepDefaults = !folds.empty() && Mean(foldBest) >= Mean(foldDefaults);
  const Point best = keepDefaults ? start : found.best;

  const std::string bestParams = ToParams(space, best);
  const std::vector<Score> defaults = ScoreEach(recordings, "", options);
  const std::vector<Score> tuned = ScoreEach(recordings, bestParams, options);
  std::vector<Recording> held;
  std::vector<Score> heldDefaults, heldTuned;
  if (!options.validate.empty()) {
    held = LoadAll(options.validate, {}, options, "");
    heldDefaults = ScoreEach(held, "", options);
    heldTuned = ScoreEach(held, bestParams, options);
  }
  if (options.json) {
    std::string text = FormatBestJson(bestParams, triedBefore, options.seed);
    if (!folds.empty()) {
      auto pct = [](const std::vector<double>& values) {
        std::vector<double> pct;
        for (const double value : values) pct.push_back(100.0 * value);
        return pct;
      };
      const nlohmann::ordered_json crossval = {{"type", "crossval"},
                                               {"folds", folds.size()},
                                               {"groups", groups},
                                               {"bestPct", pct(foldBest)},
                                               {"defaultsPct", pct(foldDefaults)},
                                               {"bestMeanPct", 100.0 * Mean(foldBest)},
                                               {"defaultsMeanPct", 100.0 * Mean(foldDefaults)},
                                               {"keptDefaults", keepDefaults}};
      text += crossval.dump() + "\n";
    }
    text += FormatScoresJson(NamesOf(recordings), defaults, {{"set", "tune"}, {"string", "defaults"}});
    text += FormatScoresJson(NamesOf(recordings), tuned, {{"set", "tune"}, {"string", "best"}});
    if (!held.empty()) {
      text += FormatScoresJson(NamesOf(held), heldDefaults, {{"set", "validate"}, {"string", "defaults"}});
      text += FormatScoresJson(NamesOf(held), heldTuned, {{"set", "validate"}, {"string", "best"}});
    }
    WriteOut(text);
    return 0;
  }
  std::string text = "best: " + bestParams + "\n";
  if (!folds.empty()) {
    const double sd = StandardDeviation(foldBest);
    text += "\ncross-validated over " + std::to_string(folds.size()) + " folds of " + std::to_string(groups) +
            " groups, each searched on the other folds: held-out error " + Fixed(100.0 * Mean(foldBest), 2) + " %" +
            (std::isnan(sd) ? "" : " (sd " + Fixed(100.0 * sd, 2) + ")") + ", defaults " +
            Fixed(100.0 * Mean(foldDefaults), 2) + " % (mean over folds of the mean over groups)\n  per fold: " +
            Percents(foldBest) + " %; defaults " + Percents(foldDefaults) + " %\n";
    if (keepDefaults) text += "  the search did not beat the defaults on held-out groups: keeping the defaults\n";
  }
  text += "\ntuned on " + std::to_string(recordings.size()) + " recordings in " + std::to_string(groups) + " groups, " +
                     std::to_string(triedBefore) + " strings tried (seed " + std::to_string(options.seed) +
                     "): error rate " + TotalRate(defaults) + " with the defaults, " + TotalRate(tuned) +
                     " with the best string\n" + FormatScores(NamesOf(recordings), tuned);
  if (!held.empty()) {
    text += "\nvalidated on " + std::to_string(held.size()) + " other recordings: error rate " + TotalRate(heldDefaults) +
            " with the defaults, " + TotalRate(heldTuned) + " with the best string\ndefaults:\n" +
            FormatScores(NamesOf(held), heldDefaults) + "best string:\n" + FormatScores(NamesOf(held), heldTuned);
  }
  WriteOut(text);
  return 0;
}

Runner DeclareTune(CLI::App& app) {
  auto options = std::make_shared<TuneOptions>();
  CLI::App* command = app.add_subcommand("tune", "Search the analyzer's parameter string for the lowest error rate");
  command->add_option("FILE", options->files, "Labelled recordings to tune on, or @list.txt")->required();
  AddLabelsOption(command, options->labels);
  AddLabelsIdOption(command, options->labelsId);
  command->add_option("--validate", options->validate, "Labelled recordings to compare defaults and best string on")
      ->expected(1, -1);
  command->add_option("--keys", options->keys, "Keys to search (default: time-out, speech window, histogram)")
      ->delimiter(',');
  command->add_option("--space", options->spacePath, "Ranges to search: \"Key LOW HIGH [STEP]\" lines");
  command->add_option("--groups", options->groups,
                      "Group recordings for cross-validation and the error mean: folder, or a regular expression "
                      "whose first group names the group (default: each recording its own)");
  command->add_option("--folds", options->folds, "Folds of cross-validation over the groups (0: none)")
      ->capture_default_str()
      ->check(Within(0, 1000, true));
  command->add_option("--seed", options->seed, "Seed of the random phase")->capture_default_str();
  command->add_option("--evals", options->evaluations, "Parameter strings to try at most")
      ->capture_default_str()
      ->check(Within(1, 1e7, true));
  command->add_option("--time", options->timeS, "Stop after this many seconds (the result then depends on speed)")
      ->check(Within(0, 1e9));
  command->add_option("--collar", options->collarS, "Seconds around each reference boundary left unscored")
      ->check(Within(0, 1e6));
  AddJobsOption(command, options->jobs, "Threads (default: one per core)");
  command->add_flag("--json", options->json, "The best string, then every score as JSON Lines");
  AddBlockOption(command, options->blockMs);
  AddRateOption(command, options->rawRateHz);
  return [options] { return RunTune(*options); };
}

}  // namespace ktcli
