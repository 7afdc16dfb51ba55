// The search on objectives with a known optimum, and the grouping, folds and group mean
// that tune's objective and cross-validation are built from.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <set>
#include <utility>

#include "subcommand.h"
#include "search.h"

namespace {

using ktcli::KeyRange;
using ktcli::Point;

const std::vector<KeyRange> kSpace = {{"A", 0, 60, 1}, {"B", 0, 3, 0.1}, {"C", 100, 500, 20}};  // 61, 31, 21 points

// Scores each point with f and records every point asked for.
struct Counted {
  explicit Counted(std::function<double(const Point&)> function) : f(std::move(function)) {}
  std::function<double(const Point&)> f;
  std::vector<Point> asked;
  ktcli::BatchObjective Objective() {
    return [this](const std::vector<Point>& points) {
      std::vector<double> scores;
      for (const Point& p : points) {
        asked.push_back(p);
        scores.push_back(f(p));
      }
      return scores;
    };
  }
};

TEST(Search, FindsTheOptimumForEverySeedWithinTheBudget) {
  // A bowl of steps around (47, 5, 3); the start far off in a corner.
  Counted bowl([](const Point& p) { return std::abs(p[0] - 47) + 3.0 * std::abs(p[1] - 5) + 2.0 * std::abs(p[2] - 3); });
  // Flat (score 1) except for a narrow valley far from the start: compass steps from the
  // start see no change, so only the random points can find it.
  Counted hidden([](const Point& p) {
    return p[0] >= 40 && p[1] >= 20 ? 0.5 - 0.01 * static_cast<double>(p[0] - 40 + p[1] - 20) : 1.0;
  });
  for (const uint64_t seed : {1u, 2u, 3u, 4u, 5u}) {
    ktcli::SearchOptions options;
    options.seed = seed;
    options.evaluations = 200;
    bowl.asked.clear();
    const ktcli::SearchResult result = ktcli::Search(kSpace, {0, 30, 20}, bowl.Objective(), options);
    EXPECT_EQ(result.best, (Point{47, 5, 3})) << "seed " << seed;
    EXPECT_EQ(result.score, 0.0);
    // Never beyond the budget, never a point twice, never off the grid.
    EXPECT_LE(bowl.asked.size(), 200u);
    EXPECT_EQ(result.tried, bowl.asked.size());
    EXPECT_EQ(std::set<Point>(bowl.asked.begin(), bowl.asked.end()).size(), bowl.asked.size());
    for (const Point& p : bowl.asked) {
      EXPECT_TRUE(p[0] >= 0 && p[0] <= 60 && p[1] >= 0 && p[1] <= 30 && p[2] >= 0 && p[2] <= 20);
    }
    options.evaluations = 400;
    const ktcli::SearchResult found = ktcli::Search(kSpace, {10, 5, 10}, hidden.Objective(), options);
    EXPECT_EQ(found.best[0], 60) << "seed " << seed;
    EXPECT_EQ(found.best[1], 30) << "seed " << seed;
  }
}

TEST(Search, NearTiesGoToTheStartAndUnscorablePointsLose) {
  ktcli::SearchOptions options;
  options.evaluations = 120;
  options.startWeight = 0.01;
  // Two minima of the same depth; the one nearer the start wins, and on a nearly flat objective the start itself.
  Counted twin([](const Point& p) { return 0.01 * static_cast<double>(std::min(std::abs(p[0] - 10), std::abs(p[0] - 50))); });
  // Falls slightly away from the start, by less than the distance costs.
  Counted flat([](const Point& p) { return 0.25 - 1e-5 * static_cast<double>(p[0]); });
  const ktcli::SearchResult twins = ktcli::Search({kSpace[0]}, {40}, twin.Objective(), options);
  EXPECT_EQ(twins.best, Point{50});
  const ktcli::SearchResult rest = ktcli::Search(kSpace, {12, 7, 9}, flat.Objective(), options);
  EXPECT_EQ(rest.best, (Point{12, 7, 9}));
  EXPECT_EQ(rest.score, 0.25 - 12e-5);  // the score without the distance term
  // A step down one key's range: it wins when it gains more than its distance costs (at
  // least 8/60 of a range away on one key of two, 0.00067), and not when less.
  for (const double gain : {0.001, 0.0006}) {
    Counted step([gain](const Point& p) { return p[0] >= 20 ? 0.25 - gain : 0.25; });
    const Point best = ktcli::Search({kSpace[0], kSpace[1]}, {12, 7}, step.Objective(), options).best;
    EXPECT_EQ(best[0] >= 20, gain > 0.0008) << gain;
  }
  // A deep step just off the start, but a point the objective cannot score (NaN, infinity) never wins.
  Counted refusing([](const Point& p) {
    if (p[0] < 20) return std::numeric_limits<double>::quiet_NaN();
    if (p[0] > 40) return std::numeric_limits<double>::infinity();
    return 0.5 + std::abs(p[0] - 25) * 0.01;
  });
  options.startWeight = 0;
  EXPECT_EQ(ktcli::Search({kSpace[0]}, {30}, refusing.Objective(), options).best, Point{25});
  // Without the pull, exact ties go to the point scored first: the start.
  Counted constant([](const Point&) { return 0.5; });
  EXPECT_EQ(ktcli::Search(kSpace, {3, 4, 5}, constant.Objective(), options).best, (Point{3, 4, 5}));
  // A budget of one scores the start alone; a search stopped at once scores nothing.
  options.evaluations = 1;
  const ktcli::SearchResult one = ktcli::Search(kSpace, {3, 4, 5}, twin.Objective(), options);
  EXPECT_EQ(one.best, (Point{3, 4, 5}));
  EXPECT_EQ(one.tried, 1u);
  options.evaluations = 200;
  options.stop = [] { return true; };
  twin.asked.clear();
  const ktcli::SearchResult none = ktcli::Search(kSpace, {3, 4, 5}, twin.Objective(), options);
  EXPECT_TRUE(none.best == (Point{3, 4, 5}) && none.tried == 0 && twin.asked.empty() && std::isinf(none.score));
}

TEST(Search, GridIndicesAndValues) {
  EXPECT_EQ(ktcli::GridSize({"S", 0.05, 0.9, 0.01}), 85);  // not 84 for rounding
  EXPECT_EQ(ktcli::IndexOf(kSpace[2], 420), 16);
  EXPECT_EQ(ktcli::IndexOf(kSpace[2], 9000), 20);
  EXPECT_EQ(ktcli::IndexOf(kSpace[2], -5), 0);
  EXPECT_DOUBLE_EQ(ktcli::ValueAt(kSpace[1], 7), 0.7);
}

ktcli::Score Scored(double speech, double missed, double falseAlarm) {
  ktcli::Score score;
  score.referenceS = speech;
  score.missedS = missed;
  score.falseAlarmS = falseAlarm;
  return score;
}

TEST(Groups, MeanOverGroupsFoldsAndNaming) {
  // Group 0: one long recording at 10 %; group 1: two short ones pooled to 25 %; group 2 has
  // no speech and does not count. Pooled over all it would be 12.5 / 110.
  const std::vector<ktcli::Score> scores = {Scored(100, 4, 6), Scored(6, 1, 1), Scored(4, 0, 0.5), Scored(0, 0, 3)};
  EXPECT_NEAR(ktcli::MeanGroupError(scores, {0, 1, 1, 2}), 0.175, 1e-12);
  EXPECT_NEAR(ktcli::MeanGroupError(scores, {0, 1, 2, 3}), (0.1 + 2.0 / 6 + 0.125) / 3, 1e-12);
  EXPECT_TRUE(std::isnan(ktcli::MeanGroupError({Scored(0, 0, 1)}, {0})));

  const std::vector<std::string> paths = {"c/en_m1/a_white5.wav", "c/en_f2/b.wav", "c/en_m1/c.wav", "d_m3.wav"};
  EXPECT_EQ(ktcli::GroupPaths(paths, ""), (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(ktcli::GroupPaths(paths, "folder"), (std::vector<int>{0, 1, 0, 2}));
  EXPECT_EQ(ktcli::GroupPaths(paths, "_(m|f)"), (std::vector<int>{0, 1, 0, 0}));   // first group: the sex
  EXPECT_EQ(ktcli::GroupPaths(paths, "[a-d][._][wm]"), (std::vector<int>{0, 1, 2, 3}));  // whole match
  EXPECT_THROW(ktcli::GroupPaths(paths, "white"), ktcli::UsageError);  // matches one path only
  EXPECT_THROW(ktcli::GroupPaths(paths, "(unclosed"), ktcli::UsageError);

  // Every group in exactly one fold; no more folds than groups.
  const std::vector<std::vector<size_t>> folds = ktcli::MakeFolds({0, 1, 0, 2, 3, 4, 1}, 2);
  EXPECT_EQ(folds, (std::vector<std::vector<size_t>>{{0, 2, 3, 5}, {1, 4, 6}}));
  EXPECT_EQ(ktcli::MakeFolds({0, 1, 1}, 5).size(), 2u);
}

}  // namespace
