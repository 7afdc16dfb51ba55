// ktfront plot: a picture of one run (chart.h) as SVG or PNG.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>

#include "agcrun.h"
#include "blocks.h"
#include "chart.h"
#include "subcommand.h"
#include "labels.h"
#include "output.h"
#include "outputfile.h"
#include "params.h"
#include "source.h"
#include "textformat.h"
#include "vadrun.h"

namespace ktcli {
namespace {

struct PlotOptions {
  InputOptions input;
  std::string params;
  std::vector<std::string> outputs;
  std::string labelsPath;
  std::string labelsId;
  bool agc = false;
  std::string agcParams;
  float startGain = 0.5f;
  double fromS = 0.0;
  double toS = 0.0;
  bool fromGiven = false;
  bool toGiven = false;
};

int RunPlot(const PlotOptions& options) {
  if (options.agc) Warn(CheckAgcParams(options.agcParams));
  if (options.fromGiven && options.toGiven && options.toS <= options.fromS) {
    throw UsageError("--to " + Fixed(options.toS, 3) + " is not after --from " + Fixed(options.fromS, 3));
  }
  for (const std::string& path : options.outputs) {
    if (!Plot::IsSupportedFormat(path)) throw UsageError("cannot draw " + path + ": the picture must be .svg or .png");
  }
  std::vector<Region> labels;
  if (!options.labelsPath.empty()) {
    labels = ReadLabels(options.labelsPath, options.labelsId.empty() ? RecordingId(options.input.path) : options.labelsId);
  }
  std::vector<PendingFile> files;
  for (const std::string& path : options.outputs) files.emplace_back(path);
  AudioSource source(options.input.path, options.input.rawRateHz);
  const int rateHz = source.GetRateHz();
  Warn(CheckAnalyzerParams(options.params, rateHz));
  const int blockSamples = BlockSamples(options.input.blockMs, rateHz, "--block-ms");

  PlotData data;
  data.name = source.GetName();
  data.rateHz = rateHz;
  const int samplesPerFrame = rateHz / 50;
  data.frameMs = 1000.0 * samplesPerFrame / rateHz;
  data.agc = options.agc;
  // Only the window's frames, and one on either side so that lines reach its edges.
  const double frameS = data.frameMs / 1000.0;
  data.frames = PlotData::FrameSpans(
      options.fromGiven ? static_cast<size_t>(std::max(0.0, std::floor(options.fromS / frameS) - 1)) : 0,
      options.toGiven ? static_cast<size_t>(std::ceil(options.toS / frameS)) + 1 : SIZE_MAX);
  data.startGain = data.windowGain = options.startGain;
  // Volume readings, segments and gain updates are kept only within the window.
  const double windowFromS = options.fromGiven ? options.fromS : 0.0;
  const double windowToS = options.toGiven ? options.toS : INFINITY;
  auto within = [&](double startS, double endS) { return endS >= windowFromS && startS <= windowToS; };
  float volumeS = 0.0f;
  // Each frame's extremes wait here until the analyzer has decided the frame.
  std::deque<std::pair<int16_t, int16_t>> extremes;
  int16_t low = 0;
  int16_t high = 0;
  int inFrame = 0;
  auto onRecord = [&](const Record& record) {
    if (const auto* volume = record.Get<VolumeRecord>()) {
      const float startS = volumeS;
      volumeS = static_cast<float>(volume->timeMs / 1000.0);
      if (within(startS, volumeS)) {
        data.volumes.Add(PlotData::Volume::Of(startS, volumeS, static_cast<float>(volume->snrVolumePct), volume->info));
      }
    } else if (const auto* segment = record.Get<SegmentRecord>()) {
      ++data.segmentCount;
      if (within(segment->startS, segment->endS)) data.segments.Add(segment->startS, segment->endS);
    }
  };
  auto onFrame = [&](const kt::FrameDecision& d) {
    PlotData::Frame frame{static_cast<float>(d.energy), static_cast<float>(d.speechStartThreshold),
                          static_cast<float>(d.speechEndThreshold), static_cast<float>(d.noiseLevel),
                          static_cast<float>(d.speechLevel)};
    if (!extremes.empty()) {
      frame.low = extremes.front().first;
      frame.high = extremes.front().second;
      extremes.pop_front();
    }
    data.frames.Add(frame);
  };
  VadRun vad(source.GetName(), rateHz, options.params, blockSamples, VadRun::Wanted{true, false}, onRecord, onFrame);
  std::unique_ptr<AgcRun> agc;
  float gain = options.startGain;
  if (options.agc) {
    agc = std::make_unique<AgcRun>(source.GetName(), rateHz, options.agcParams, options.startGain, nullptr,
                                   [&](const Record& record) {
                                     const GainRecord& update = *record.Get<GainRecord>();
                                     std::optional<kt::GainDecision::Outcome> outcome;
                                     if (update.decision) outcome = update.decision->outcome;
                                     if (update.timeS < windowFromS) {
                                       data.windowGain = update.gain;
                                     } else if (update.timeS <= windowToS) {
                                       data.gains.Add(PlotData::Gain::Of(static_cast<float>(update.timeS), gain,
                                                                         update.gain, outcome));
                                     }
                                     gain = update.gain;
                                   });
  }
  const bool interrupted = PumpInput(source, blockSamples, [&](const kt::AudioData& block) {
    for (const int16_t s : block) {
      low = std::min(low, s);
      high = std::max(high, s);
      if (++inFrame == samplesPerFrame) {
        extremes.emplace_back(low, high);
        low = high = 0;
        inFrame = 0;
      }
    }
    vad.Process(block);
    if (agc) agc->Process(block);
  });
  vad.Finish(interrupted);
  data.durationS = static_cast<double>(source.GetSamplesRead()) / rateHz;
  // Either end alone, the other being the recording's; a window must lie within it.
  const double fromS = options.fromGiven ? options.fromS : 0.0;
  const double toS = options.toGiven ? options.toS : data.durationS;
  const std::string length = " (the recording lasts " + Fixed(data.durationS, 3) + " s)";
  if (options.fromGiven && fromS >= data.durationS) {
    throw UsageError("--from " + Fixed(fromS, 3) + " is not before the end of the recording" + length);
  }
  if (options.toGiven && toS > data.durationS) throw UsageError("--to " + Fixed(toS, 3) + " is past the end of the recording" + length);
  if (toS <= fromS) throw UsageError("--to " + Fixed(toS, 3) + " is not after --from " + Fixed(fromS, 3));
  const Plot plot(data, labels, options.params, fromS, toS);
  for (const PendingFile& file : files) plot.Render(file);
  for (PendingFile& file : files) file.Commit();
  ReportRate(source, interrupted);
  std::string out;
  for (const std::string& path : options.outputs) out += path + "\n";
  WriteOut(out);
  return 0;
}

}  // namespace

Runner DeclarePlot(CLI::App& app) {
  auto options = std::make_shared<PlotOptions>();
  CLI::App* command =
      app.add_subcommand("plot", "Draw signal, energies, thresholds, segments and volume (SVG or PNG)");
  AddInputOptions(command, options->input);
  AddParamsOption(command, options->params, "Analyzer");
  command->add_option("-o,--output", options->outputs, "Picture to write, .svg or .png; may be repeated")->required();
  command->add_option("--labels", options->labelsPath,
                      "Reference regions to draw: plain, Audacity, RTTM, TextGrid or JSON");
  AddLabelsIdOption(command, options->labelsId);
  command->add_flag("--agc", options->agc, "Add the gain trajectory of a closed-loop gain control run");
  command->add_option("--agc-params", options->agcParams, "Gain-control parameter string for --agc");
  command->add_option("--from", options->fromS, "Show the recording from this time (s)")->check(Within(0, 1e9));
  command->add_option("--to", options->toS, "Show the recording up to this time (s); default its end")
      ->check(Within(0, 1e9));
  command->add_option("--start-gain", options->startGain, "Start gain for --agc")
      ->capture_default_str()
      ->check(Within(0, 1));
  return [options, command] {
    options->fromGiven = command->count("--from") > 0;
    options->toGiven = command->count("--to") > 0;
    InstallSignalHandlers();  // before the input opens: a signal while its header is awaited ends the run
    return RunPlot(*options);
  };
}

}  // namespace ktcli
