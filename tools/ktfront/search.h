#pragma once
// The parts of tune that do not run the analyzer: the search over a grid of parameter values,
// the error aggregated over groups of recordings, and the folds of cross-validation.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "eval.h"

namespace ktcli {

// One key's range, searched on a grid of the given step.
struct KeyRange {
  std::string key;
  double low = 0.0;
  double high = 0.0;
  double step = 1.0;
};

using Point = std::vector<long>;  // grid index of each key

long GridSize(const KeyRange& range);  // the highest index
double ValueAt(const KeyRange& range, long index);
// The index nearest to value, within the grid.
long IndexOf(const KeyRange& range, double value);

// Scores a batch of points (lower is better; infinity for a point that cannot be scored).
using BatchObjective = std::function<std::vector<double>(const std::vector<Point>&)>;

struct SearchOptions {
  uint64_t seed = 1;
  size_t evaluations = 200;
  // Added to a point's score times its mean distance from the start, each key's distance
  // taken as a fraction of its range: on near ties the point nearer the start wins.
  double startWeight = 0.0;
  std::function<bool()> stop;                              // optional: true ends the search
  std::function<void(size_t, double)> progress;            // optional: points scored, best score
};

struct SearchResult {
  Point best;
  double score = 0.0;  // the objective's, without the distance term
  size_t tried = 0;
};

// Random points, then a compass search from the best of them, within the budget; the result
// depends on the seed and the budget only, never on how the batches are scored.
SearchResult Search(const std::vector<KeyRange>& space, const Point& start, const BatchObjective& objective,
                    const SearchOptions& options);

// Mean over groups of each group's error rate (its missed and false-alarm time over its
// speech), so that no long recording or large group outweighs the others; groups without
// speech are left out; NaN when no group has speech.
double MeanGroupError(const std::vector<Score>& scores, const std::vector<int>& groupOf);

// Numbers each path's group from 0, in order of first appearance: "" puts every path in a
// group of its own, "folder" groups by directory, anything else is a regular expression whose
// first capture group (or whole match) names the group. Throws UsageError for a path the
// expression does not match.
std::vector<int> GroupPaths(const std::vector<std::string>& paths, const std::string& how);

// The groups dealt round-robin onto min(folds, groups) folds; fold f holds the indices of
// the recordings it leaves out.
std::vector<std::vector<size_t>> MakeFolds(const std::vector<int>& groupOf, int folds);

}  // namespace ktcli
