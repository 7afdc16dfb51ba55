// ktfront's benchmarks: ktfront, the limit kernels and the peers in one process, ending
// with one table of medians (ns per sample, real-time factor, ratios) and the targets.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "harness.h"

namespace bench {
bool KernelsMatchFilter();
}

namespace {

struct Row {
  std::string name;
  int rate = 0;
  double nsPerSample = 0.0;
  int64_t order = 0;  // registration order: runs come interleaved
};

const char* const kRecursion = "limit: recursion";

// Peers, each a column of speed-ups: the peer's time over the row's.
const std::vector<std::pair<std::string, std::string>> kPeers = {
    {"WebRTC VAD, mode 3, 10 ms", "÷ WebRTC VAD"},
    {"WebRTC analog AGC, experimental off, 10 ms", "÷ WebRTC AGC"},
    {"WebRTC analog AGC, defaults, 10 ms", "÷ WebRTC AGC default"},
    {"speex preprocessor, VAD, 20 ms", "÷ speex VAD"},
    {"speex preprocessor, AGC, 20 ms", "÷ speex AGC"},
};

class TableReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      // The median when there are repetitions, else the single run.
      const bool aggregate = run.run_type == Run::RT_Aggregate;
      if (run.error_occurred || (aggregate && run.aggregate_name != "median") ||
          (!aggregate && run.repetitions > 1)) {
        continue;
      }
      const std::string& full = run.run_name.function_name;
      const size_t slash = full.rfind('/');
      Row row;
      row.name = full.substr(0, slash);
      row.rate = static_cast<int>(run.counters.at("rate").value);
      const double seconds =
          run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      row.nsPerSample = seconds * 1e9 / run.counters.at("samples").value;
      row.order = run.family_index;
      _rows.push_back(row);
    }
  }

  void PrintTable() {
    std::sort(_rows.begin(), _rows.end(),
              [](const Row& a, const Row& b) { return a.order < b.order; });
    std::printf("\nMedians, CPU time; ÷ columns: how many times faster than that peer.\n\n");
    std::printf("| rate | benchmark | ns/sample | × real time | × recursion |");
    for (const auto& peer : kPeers) std::printf(" %s |", peer.second.c_str());
    std::printf("\n|---:|---|---:|---:|---:|");
    for (size_t i = 0; i < kPeers.size(); ++i) std::printf("---:|");
    std::printf("\n");
    for (int rate : {8000, 11025, 16000}) {
      for (const Row& row : _rows) {
        if (row.rate != rate) continue;
        std::printf("| %d | %s | %.2f | %.0f | %s |", rate, row.name.c_str(), row.nsPerSample,
                    1e9 / row.nsPerSample / rate, Ratio(row.nsPerSample, Find(kRecursion, rate)).c_str());
        for (const auto& peer : kPeers) {
          std::printf(" %s |", Ratio(Find(peer.first, rate), row.nsPerSample).c_str());
        }
        std::printf("\n");
      }
    }
  }

  // Returns false when a target is missed or could not be measured.
  bool PrintTargets() const {
    std::printf("\nTargets:\n");
    bool all = true;
    const auto check = [&](const char* what, double value, bool atMost, double limit) {
      const bool measured = value > 0.0;
      const bool met = measured && (atMost ? value <= limit : value >= limit);
      all = all && met;
      std::printf("  %-72s %6.2f  (%s %.1f)  %s\n", what, value, atMost ? "<=" : ">=", limit,
                  !measured ? "NOT MEASURED" : met ? "met" : "MISSED");
    };
    const char* vad = "ktfront KTRVAD_GetResult, 20 ms";
    const char* agc = "ktfront KTRAGC_ComputeGain, 20 ms";
    check("KTRVAD_GetResult 16000 Hz, 20 ms, × recursion", Div(Find(vad, 16000), Find(kRecursion, 16000)), true, 1.4);
    check("KTRVAD_GetResult 16000 Hz, times faster than WebRTC VAD",
          Div(Find(kPeers[0].first, 16000), Find(vad, 16000)), false, 2.0);
    check("KTRVAD_GetResult 8000 Hz, 20 ms, × recursion", Div(Find(vad, 8000), Find(kRecursion, 8000)), true, 1.6);
    check("KTRAGC_ComputeGain 16000 Hz, × recursion", Div(Find(agc, 16000), Find(kRecursion, 16000)), true, 1.4);
    check("KTRAGC_ComputeGain 16000 Hz, times faster than WebRTC AGC (exp. off)",
          Div(Find(kPeers[1].first, 16000), Find(agc, 16000)), false, 4.0);
    return all;
  }

 private:
  double Find(const std::string& name, int rate) const {
    for (const Row& row : _rows) {
      if (row.name == name && row.rate == rate) return row.nsPerSample;
    }
    return 0.0;
  }
  static double Div(double a, double b) { return a > 0.0 && b > 0.0 ? a / b : 0.0; }
  static std::string Ratio(double a, double b) {
    if (!(a > 0.0 && b > 0.0)) return "–";
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", a / b);
    return text;
  }

  std::vector<Row> _rows;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (!bench::KernelsMatchFilter()) return 1;
  bench::RegisterKernels();
  bench::RegisterKtfront();
  bench::RegisterWebRtc();
  bench::RegisterSpeex();
  TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintTable();
  reporter.PrintTargets();
  benchmark::Shutdown();
  return 0;
}
