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

using Point = std::vector<long>;  // grid index of each key

double ValueAt(const KeyRange& range, long index) { return range.low + static_cast<double>(index) * range.step; }
long GridSize(const KeyRange& range) { return static_cast<long>(std::floor((range.high - range.low) / range.step + 1e-9)); }

std::string ToParams(const std::vector<KeyRange>& space, const Point& point) {
  std::string params;
  for (size_t k = 0; k < space.size(); ++k) {
    char value[32];
    std::snprintf(value, sizeof value, "%.6g", ValueAt(space[k], point[k]));
    params += (k ? ";" : "") + space[k].key + "=" + value;
  }
  return params;
}

// The total error rate over the recordings; infinite for a string the analyzer refuses.
class Objective {
 public:
  Objective(const std::vector<Recording>& recordings, const TuneOptions& options)
      : _recordings(recordings), _options(options) {}

  // Scores every string not scored yet on all recordings, spread over the jobs.
  void Score(const std::vector<std::string>& candidates) {
    std::vector<std::string> fresh;
    for (const std::string& c : candidates) {
      if (!_scores.count(c) && std::find(fresh.begin(), fresh.end(), c) == fresh.end()) fresh.push_back(c);
    }
    const size_t files = _recordings.size();
    std::vector<ktcli::Score> scores(fresh.size() * files);
    const std::vector<std::string> errors = ParallelFor(scores.size(), _options.jobs, [&](size_t i) {
      const Recording& recording = _recordings[i % files];
      scores[i] = Evaluate(recording.reference, Detect(recording, fresh[i / files], _options.blockMs), _options.collarS);
    });
    for (size_t c = 0; c < fresh.size(); ++c) {
      ktcli::Score total;
      bool refused = false;
      for (size_t f = 0; f < files; ++f) {
        total += scores[c * files + f];
        refused = refused || !errors[c * files + f].empty();
      }
      const double rate = total.ErrorRate();
      _scores[fresh[c]] = refused || std::isnan(rate) ? std::numeric_limits<double>::infinity() : rate;
    }
  }
  double Get(const std::string& params) const { return _scores.at(params); }
  bool Has(const std::string& params) const { return _scores.count(params) != 0; }
  size_t Count() const { return _scores.size(); }

 private:
  const std::vector<Recording>& _recordings;
  const TuneOptions& _options;
  std::map<std::string, double> _scores;
};

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

std::vector<Recording> LoadAll(const std::vector<std::string>& files, const std::vector<std::string>& labels, int jobs) {
  std::vector<std::string> errors;
  std::vector<Recording> recordings = LoadLabelled(ExpandManifests(files), labels, 0, jobs, errors);
  for (const std::string& error : errors) {
    if (!error.empty()) throw std::runtime_error(error);
  }
  return recordings;
}

std::string TotalRate(const std::vector<Score>& scores) {
  Score total;
  for (const Score& score : scores) total += score;
  return std::isnan(total.ErrorRate()) ? "-" : Fixed(100.0 * total.ErrorRate(), 2) + " %";
}

}  // namespace

std::vector<KeyRange> DefaultSpace() {
  return {{"EOSTimeoutMs", 100, 1500, 20},        {"SpeechWindowSizeMs", 60, 600, 20},
          {"SpeechWindowFraction", 0.05, 0.9, 0.01}, {"CutoffFraction", 0.01, 0.3, 0.01},
          {"ThresholdOffsetSpeech", 0, 20, 0.5},   {"ThresholdOffsetPause", 0, 30, 0.5},
          {"ThresholdLowerLimit", 10, 60, 0.5},    {"ThresholdUpperLimit", 40, 90, 0.5}};
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
    space.push_back(range);
  }
  if (space.empty()) throw std::runtime_error(path + ": no keys to search");
  return space;
}

// Seeded random search over the grid, then a compass search from the best point found: the
// error rate is a step function of the parameters, so there is no gradient to follow, and a
// batch of candidates at a time keeps every core busy while the outcome stays independent of
// the number of jobs (ties go to the earlier candidate).
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
  const std::vector<Recording> recordings = LoadAll(options.files, options.labels, options.jobs);
  Objective objective(recordings, options);
  const auto started = std::chrono::steady_clock::now();
  auto outOfTime = [&]() {
    return options.timeS > 0 &&
           std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count() >= options.timeS;
  };

  Point best(space.size());
  for (size_t k = 0; k < space.size(); ++k) {
    const double value = DefaultOf(space[k].key);
    const long index = std::isnan(value) ? GridSize(space[k]) / 2 : std::lround((value - space[k].low) / space[k].step);
    best[k] = std::clamp(index, 0L, GridSize(space[k]));
  }
  Progress progress(options.evaluations);
  std::mt19937_64 random(options.seed);
  // Random phase: a third of the budget, the defaults first.
  const size_t randomCount = std::max<size_t>(1, static_cast<size_t>(options.evaluations) / 3);
  std::vector<Point> points = {best};
  while (points.size() < randomCount) {
    Point point(space.size());
    for (size_t k = 0; k < space.size(); ++k) point[k] = static_cast<long>(random() % static_cast<uint64_t>(GridSize(space[k]) + 1));
    points.push_back(point);
  }
  double bestScore = std::numeric_limits<double>::infinity();
  const size_t kBatch = 16;
  for (size_t first = 0; first < points.size() && !outOfTime(); first += kBatch) {
    std::vector<std::string> batch;
    for (size_t i = first; i < std::min(points.size(), first + kBatch); ++i) batch.push_back(ToParams(space, points[i]));
    objective.Score(batch);
    for (size_t i = first; i < std::min(points.size(), first + kBatch); ++i) {
      const double score = objective.Get(batch[i - first]);
      if (score < bestScore) {
        bestScore = score;
        best = points[i];
      }
    }
    progress.Show(objective.Count(), bestScore);
  }
  // Compass phase: each key one step up and down; move to the best gain, or halve the steps.
  std::vector<long> steps(space.size());
  for (size_t k = 0; k < space.size(); ++k) steps[k] = std::max(1L, GridSize(space[k]) / 8);
  while (objective.Count() < static_cast<size_t>(options.evaluations) && !outOfTime()) {
    std::vector<Point> candidates;
    std::vector<std::string> batch;
    for (size_t k = 0; k < space.size(); ++k) {
      for (const long direction : {-1L, 1L}) {
        Point point = best;
        point[k] = std::clamp(best[k] + direction * steps[k], 0L, GridSize(space[k]));
        const std::string params = ToParams(space, point);
        if (point == best || std::find(batch.begin(), batch.end(), params) != batch.end()) continue;
        candidates.push_back(point);
        batch.push_back(params);
      }
    }
    // The budget may end inside this batch.
    size_t fresh = 0;
    const size_t room = static_cast<size_t>(options.evaluations) - objective.Count();
    for (size_t i = 0; i < batch.size(); ++i) {
      if (!objective.Has(batch[i]) && ++fresh > room) {
        candidates.resize(i);
        batch.resize(i);
      }
    }
    objective.Score(batch);
    size_t moveTo = candidates.size();
    double moveScore = bestScore;
    for (size_t i = 0; i < candidates.size(); ++i) {
      if (objective.Get(batch[i]) < moveScore) {
        moveScore = objective.Get(batch[i]);
        moveTo = i;
      }
    }
    progress.Show(objective.Count(), std::min(bestScore, moveScore));
    if (moveTo < candidates.size()) {
      best = candidates[moveTo];
      bestScore = moveScore;
    } else if (*std::max_element(steps.begin(), steps.end()) == 1) {
      break;  // no neighbour on the finest grid is better
    } else {
      for (long& step : steps) step = std::max(1L, step / 2);
    }
  }
  progress.End();

  const std::string bestParams = ToParams(space, best);
  const std::vector<Score> defaults = ScoreEach(recordings, "", options);
  const std::vector<Score> tuned = ScoreEach(recordings, bestParams, options);
  std::vector<Recording> held;
  std::vector<Score> heldDefaults, heldTuned;
  if (!options.validate.empty()) {
    held = LoadAll(options.validate, {}, options.jobs);
    heldDefaults = ScoreEach(held, "", options);
    heldTuned = ScoreEach(held, bestParams, options);
  }
  if (options.json) {
    std::string text = FormatBestJson(bestParams, objective.Count(), options.seed);
    text += FormatScoresJson(NamesOf(recordings), defaults, {{"set", "tune"}, {"string", "defaults"}});
    text += FormatScoresJson(NamesOf(recordings), tuned, {{"set", "tune"}, {"string", "best"}});
    if (!held.empty()) {
      text += FormatScoresJson(NamesOf(held), heldDefaults, {{"set", "validate"}, {"string", "defaults"}});
      text += FormatScoresJson(NamesOf(held), heldTuned, {{"set", "validate"}, {"string", "best"}});
    }
    WriteOut(text);
    return 0;
  }
  std::string text = "best: " + bestParams + "\n\ntuned on " + std::to_string(recordings.size()) + " recordings, " +
                     std::to_string(objective.Count()) + " strings tried (seed " + std::to_string(options.seed) +
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
  command->add_option("--labels", options->labels, "Reference labels, as for eval")->allow_extra_args(false);
  command->add_option("--validate", options->validate, "Labelled recordings to compare defaults and best string on")
      ->expected(1, -1);
  command->add_option("--keys", options->keys, "Keys to search (default: time-out, speech window, histogram)")
      ->delimiter(',');
  command->add_option("--space", options->spacePath, "Ranges to search: \"Key LOW HIGH [STEP]\" lines");
  command->add_option("--seed", options->seed, "Seed of the random phase")->capture_default_str();
  command->add_option("--evals", options->evaluations, "Parameter strings to try at most")
      ->capture_default_str()
      ->check(CLI::Range(1, 10000000));
  command->add_option("--time", options->timeS, "Stop after this many seconds (the result then depends on speed)")
      ->check(CLI::PositiveNumber);
  command->add_option("--collar", options->collarS, "Seconds around each reference boundary left unscored")
      ->check(CLI::NonNegativeNumber);
  AddJobsOption(command, options->jobs, "Threads (default: one per core)");
  command->add_flag("--json", options->json, "The best string, then every score as JSON Lines");
  AddBlockOption(command, options->blockMs);
  return [options] { return RunTune(*options); };
}

}  // namespace ktcli
