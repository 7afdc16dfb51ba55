#include "search.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <regex>

#include "subcommand.h"

namespace ktcli {
namespace {

class Searcher {
 public:
  Searcher(const std::vector<KeyRange>& space, const Point& start, const BatchObjective& objective,
           const SearchOptions& options)
      : _space(space), _start(start), _objective(objective), _options(options) {}

  bool Exhausted() const { return _scores.size() >= _options.evaluations || (_options.stop && _options.stop()); }

  // Scores the points not scored yet, as many as the budget allows, in their order.
  void Score(const std::vector<Point>& points) {
    std::vector<Point> fresh;
    for (const Point& point : points) {
      if (_scores.size() + fresh.size() >= _options.evaluations) break;
      if (!_scores.count(point) && std::find(fresh.begin(), fresh.end(), point) == fresh.end()) fresh.push_back(point);
    }
    if (fresh.empty()) return;
    const std::vector<double> scores = _objective(fresh);
    for (size_t i = 0; i < fresh.size(); ++i) {
      _scores[fresh[i]] = i < scores.size() && !std::isnan(scores[i]) ? scores[i] : kInfinity;
      _order.push_back(fresh[i]);
    }
    if (_options.progress) _options.progress(_scores.size(), _scores.at(Best()));
  }

  bool Has(const Point& point) const { return _scores.count(point) != 0; }

  // The score with the pull towards the start; infinity for a point not scored.
  double Penalised(const Point& point) const {
    const auto found = _scores.find(point);
    if (found == _scores.end()) return kInfinity;
    double distance = 0;
    for (size_t k = 0; k < _space.size(); ++k) {
      distance += std::abs(point[k] - _start[k]) / std::max(1.0, static_cast<double>(GridSize(_space[k])));
    }
    return found->second + _options.startWeight * distance / std::max<size_t>(1, _space.size());
  }

  // The best point so far; ties go to the point scored first.
  Point Best() const { return Ranked(1).front(); }

  std::vector<Point> Ranked(size_t count) const {
    std::vector<Point> ranked = _order;
    std::stable_sort(ranked.begin(), ranked.end(),
                     [&](const Point& a, const Point& b) { return Penalised(a) < Penalised(b); });
    ranked.resize(std::min(count, ranked.size()));
    return ranked;
  }

  // Every key one step up and one down from the current point; move to the best improvement,
  // or halve all steps (from an eighth of each range down to one grid step) when none improves.
  void Compass(Point current, size_t budget) {
    const size_t until = std::min(_options.evaluations, _scores.size() + budget);
    std::vector<long> steps(_space.size());
    for (size_t k = 0; k < _space.size(); ++k) steps[k] = std::max(1L, GridSize(_space[k]) / 8);
    Score({current});
    while (_scores.size() < until && !Exhausted()) {
      std::vector<Point> candidates;
      for (size_t k = 0; k < _space.size(); ++k) {
        for (const long direction : {-1L, 1L}) {
          Point point = current;
          point[k] = std::clamp(current[k] + direction * steps[k], 0L, GridSize(_space[k]));
          if (point != current) candidates.push_back(point);
        }
      }
      size_t fresh = 0;
      for (size_t i = 0; i < candidates.size(); ++i) {
        if (!Has(candidates[i]) && _scores.size() + ++fresh > until) candidates.resize(i);
      }
      if (candidates.empty()) break;
      Score(candidates);
      const Point* move = nullptr;
      for (const Point& point : candidates) {
        if (Penalised(point) < Penalised(move ? *move : current)) move = &point;
      }
      if (move) {
        current = *move;
      } else if (*std::max_element(steps.begin(), steps.end()) == 1) {
        break;  // no neighbour on the finest grid is better
      } else {
        for (long& step : steps) step = std::max(1L, step / 2);
      }
    }
  }

  size_t Tried() const { return _scores.size(); }
  double Raw(const Point& point) const { return _scores.at(point); }

 private:
  static constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const std::vector<KeyRange>& _space;
  const Point& _start;
  const BatchObjective& _objective;
  const SearchOptions& _options;
  std::map<Point, double> _scores;
  std::vector<Point> _order;  // in the order scored, which settles ties
};

}  // namespace

long GridSize(const KeyRange& range) { return static_cast<long>(std::floor((range.high - range.low) / range.step + 1e-9)); }
double ValueAt(const KeyRange& range, long index) { return range.low + static_cast<double>(index) * range.step; }
long IndexOf(const KeyRange& range, double value) {
  return std::clamp(std::lround((value - range.low) / range.step), 0L, GridSize(range));
}

// The error rate is a step function of the parameters, with no gradient to follow and wide
// flat plateaus. A third of the budget goes to random points (the start first), which find
// the right region among coupled keys; a compass search from the best of them settles each
// key. Measured on held-out voices, splitting the budget over compass searches from several
// starts, or scanning key after key, did worse at 200 points: each search got too few.
SearchResult Search(const std::vector<KeyRange>& space, const Point& start, const BatchObjective& objective,
                    const SearchOptions& options) {
  Searcher searcher(space, start, objective, options);
  std::mt19937_64 random(options.seed);
  std::vector<Point> points = {start};
  const size_t randomCount = std::max<size_t>(1, options.evaluations / 3);
  while (points.size() < randomCount) {
    Point point(space.size());
    for (size_t k = 0; k < space.size(); ++k) {
      point[k] = static_cast<long>(random() % static_cast<uint64_t>(GridSize(space[k]) + 1));
    }
    points.push_back(point);
  }
  // Scored in batches, so a time limit can end the phase between them.
  const size_t kBatch = 16;
  for (size_t first = 0; first < points.size() && !searcher.Exhausted(); first += kBatch) {
    searcher.Score(std::vector<Point>(points.begin() + first, points.begin() + std::min(points.size(), first + kBatch)));
  }
  if (searcher.Tried() && !searcher.Exhausted()) searcher.Compass(searcher.Best(), options.evaluations);
  SearchResult result;
  result.best = searcher.Tried() ? searcher.Best() : start;
  result.score = searcher.Tried() ? searcher.Raw(result.best) : std::numeric_limits<double>::infinity();
  result.tried = searcher.Tried();
  return result;
}

double MeanGroupError(const std::vector<Score>& scores, const std::vector<int>& groupOf) {
  std::map<int, Score> groups;
  for (size_t i = 0; i < scores.size(); ++i) groups[groupOf[i]] += scores[i];
  double sum = 0;
  int counted = 0;
  for (const auto& [group, score] : groups) {
    if (score.referenceS > 0) {
      sum += score.ErrorRate();
      ++counted;
    }
  }
  return counted ? sum / counted : std::numeric_limits<double>::quiet_NaN();
}

std::vector<int> GroupPaths(const std::vector<std::string>& paths, const std::string& how) {
  std::regex pattern;
  if (!how.empty() && how != "folder") {
    try {
      pattern = std::regex(how);
    } catch (const std::regex_error& e) {
      throw UsageError("--groups: not a regular expression: \"" + how + "\" (" + e.what() + ")");
    }
  }
  std::map<std::string, int> numbers;
  std::vector<int> groupOf;
  for (size_t i = 0; i < paths.size(); ++i) {
    std::string name = std::to_string(i);
    if (how == "folder") {
      const size_t slash = paths[i].rfind('/');
      name = slash == std::string::npos ? "." : paths[i].substr(0, slash);
    } else if (!how.empty()) {
      std::smatch match;
      if (!std::regex_search(paths[i], match, pattern)) {
        throw UsageError("--groups: \"" + how + "\" does not match " + paths[i]);
      }
      name = match.size() > 1 && match[1].matched ? match[1].str() : match[0].str();
    }
    groupOf.push_back(numbers.emplace(name, static_cast<int>(numbers.size())).first->second);
  }
  return groupOf;
}

std::vector<std::vector<size_t>> MakeFolds(const std::vector<int>& groupOf, int folds) {
  const int groups = groupOf.empty() ? 0 : *std::max_element(groupOf.begin(), groupOf.end()) + 1;
  std::vector<std::vector<size_t>> result(static_cast<size_t>(std::max(0, std::min(folds, groups))));
  for (size_t i = 0; i < groupOf.size() && !result.empty(); ++i) result[groupOf[i] % result.size()].push_back(i);
  return result;
}

}  // namespace ktcli
