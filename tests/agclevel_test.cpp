// The level histogram's percentile walk passes whole groups of bins at a time; it must
// stop at exactly the bin a walk over single bins stops at.
#include <gtest/gtest.h>

#include <vector>

#include "agc.h"

namespace {

using Histogram = kt::AGC::Histogram;

// The walk bin by bin, from the bottom (b) or the top.
float WalkBins(const std::vector<int32_t>& bins, int n, int percent, bool b, int minSamples) {
  const int size = static_cast<int>(bins.size());
  int sum = 0;
  for (int k = 0; k < size; ++k) {
    const int i = b ? k : size - 1 - k;
    sum += bins[i];
    if (sum >= minSamples && sum * 100 >= percent * n) return i / 4.0f;
  }
  return -1.0f;
}

TEST(AgcLevelTest, GroupedWalkStopsWhereTheBinWalkStops) {
  unsigned int seed = 7;
  const auto next = [&seed] {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 8) & 0xffff;
  };
  // 400 bins as the gain control uses, and sizes that end in a partial group.
  for (int bins : {400, 37, 16, 5}) {
    for (int windowSize : {1, 7, 100}) {
      Histogram h(0, 0);
      h.SetSize(windowSize, bins);
      for (int update = 0; update < 300; ++update) {
        // Levels bunched in a few bins, as noise and speech are, or spread out.
        const int bin = update % 3 ? static_cast<int>(next() % 3) * (bins / 3)
                                   : static_cast<int>(next() % bins);
        h.Update(bin / 4.0f + 0.1f);
        const int n = h.GetNumSamples();
        for (int percent : {0, 1, 10, 50, 90, 100}) {
          for (int minSamples : {1, 2, n / 2 + 1, n}) {
            if (minSamples > n) continue;
            for (bool b : {true, false}) {
              ASSERT_EQ(h.GetLevel(percent, b, minSamples),
                        WalkBins(h._histogram, n, percent, b, minSamples))
                  << bins << " bins, window " << windowSize << ", update " << update << ", "
                  << percent << "%, min " << minSamples << (b ? " up" : " down");
            }
          }
        }
      }
    }
  }
}

}  // namespace
