#include "commands.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>

#include "agc.h"
#include "agcrun.h"
#include "audioanalyzer.h"
#include "frametrace.h"
#include "outputfile.h"
#include "parameters.h"
#include "plot.h"
#include "recording.h"
#include "textformat.h"
#include "vadrun.h"

namespace ktcli {
namespace {

const std::set<std::string> kAnalyzerKeys = {
    "SpeechWindowSizeMs", "SpeechWindowFraction", "EOSTimeoutMs", "HistogramWindowSizeMs",
    "HistogramMinWindowSizeMs", "MaxDecayRateDbPerDs", "FullScaleSNR", "TooNoisyLeveldBFS",
    "TooLoudAlignmentLeveldBFS", "TooSoftWindowSizeMs", "TooSoftSNR", "MinRecordingLeveldBFS",
    "CutoffFraction", "InterpolationParam", "ThresholdOffsetSpeech", "ThresholdOffsetPause",
    "ThresholdLowerLimit", "ThresholdUpperLimit"};

const std::set<std::string> kAgcKeys = {
    "MinUpdateIntervalMs", "MinLowerLevelSizeMs", "MinUpperLevelSizeMs", "WindowSizeMs",
    "SpeechWindowSizeMs", "SpeechFraction", "PauseWindowSizeMs", "CutoffFraction",
    "InterpolationWeight", "ThresholdOffsetSpeech", "ThresholdOffsetPause",
    "ThresholdUpperBound", "MinLowerBound", "LowerBound", "UpperBound", "UpperLevelRefDelta",
    "FastStepSizeUp", "FastStepSizeDown", "LeastGain", "DeltaGain", "RelativeGain"};

// The library ignores keys it does not read, so a misspelt key would silently do nothing.
void WarnUnknownKeys(const std::string& params, const std::set<std::string>& known,
                     const char* service) {
  for (const auto& entry : kt::Parameters(params)) {
    if (!known.count(entry.first)) {
      std::cerr << "ktfront: warning: the " << service << " reads no key \"" << entry.first
                << "\" (keys are case-sensitive)\n";
    }
  }
}

// Builds the service once so that a bad string is refused with its own message. The
// analyzer's limits depend on the frame length, so it is checked at the rate in use.
void CheckAnalyzerParams(const std::string& params, int rateHz) {
  try {
    kt::AudioAnalyzer(params, rateHz, false);
    WarnUnknownKeys(params, kAnalyzerKeys, "speech analyzer");
  } catch (const std::invalid_argument& e) {
    throw std::runtime_error("invalid parameter string \"" + params + "\": " + e.what());
  }
}

// The gain control's frames are 20 ms at every rate, so any supported rate will do.
void CheckAgcParams(const std::string& params) {
  try {
    kt::AGC(params, 16000);
    WarnUnknownKeys(params, kAgcKeys, "gain control");
  } catch (const std::exception& e) {
    throw std::runtime_error("invalid parameter string \"" + params + "\": " + e.what());
  }
}

// Reported once the run has succeeded, so that a failure prints its one line only.
void ReportRate(const Recording& recording) {
  std::cerr << "ktfront: " << recording.Describe() << "\n";
}

int BlockSamples(const InputOptions& input, int rateHz) {
  const long samples = static_cast<long>(input.blockMs) * rateHz / 1000;
  if (samples < 1) throw UsageError("--block-ms " + std::to_string(input.blockMs) + " is below one sample");
  return static_cast<int>(samples);
}

// One line of plain output per record, or nothing for records not asked for.
std::string PlainLine(const nlohmann::ordered_json& record, const VadOptions& options) {
  const std::string type = record["type"];
  if (type == "segment") {
    return Fixed(record["start"].get<double>(), 3) + " " + Fixed(record["end"].get<double>(), 3) +
           (record["open"].get<bool>() ? " open" : "");
  }
  if (type == "volume" && options.volume) {
    const std::string level = record.contains("volumedBFS") ? Fixed(record["volumedBFS"].get<double>(), 1) : "-";
    return "volume " + Fixed(record["timeMs"].get<double>() / 1000.0, 3) + " " + level + " " +
           Fixed(record["snrVolumePct"].get<double>(), 1) + " " + record["info"].get<std::string>();
  }
  if (type == "frame" && options.frames) {
    std::string line = "frame " + std::to_string(record["frameIndex"].get<int>()) + " " +
                       Fixed(record["timeMs"].get<double>() / 1000.0, 3) +
                       (record["isSpeechSegmentFrame"].get<bool>() ? " speech" : " pause");
    for (const char* key : {"energyDb", "startThresholdDb", "endThresholdDb", "noiseLevelDb", "speechLevelDb"}) {
      if (!record.contains(key)) break;
      line += " " + (record[key].is_null() ? std::string("-") : Fixed(record[key].get<double>(), 1));
    }
    return line;
  }
  return "";
}

std::vector<Segment> ReadLabels(const std::string& path) {
  std::vector<Segment> labels;
  if (path.empty()) return labels;
  std::ifstream stream(path);
  if (!stream) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  double start = 0.0;
  double end = 0.0;
  while (stream >> start >> end) labels.emplace_back(start, end, false);
  if (!stream.eof()) throw std::runtime_error(path + ": expected lines of \"start end\" in seconds");
  return labels;
}

}  // namespace

int RunVad(const VadOptions& options) {
  const bool throughC = options.api == "c";
  if (throughC && !options.params.empty()) {
    throw UsageError("--params cannot be used with --api c: the C interface always uses the defaults");
  }
  if (throughC && options.frames) {
    throw UsageError("--frames needs --api classes: the C interface reports no frames");
  }
  const Recording recording = Recording::Load(options.input.path, options.input.rawRateHz);
  if (!throughC) CheckAnalyzerParams(options.params, recording.GetRateHz());
  const int blockSamples = BlockSamples(options.input, recording.GetRateHz());
  VadRun run =
      throughC ? VadRun::ThroughCInterface(recording.GetSamples(), recording.GetRateHz(), blockSamples)
               : VadRun::ThroughClasses(recording.GetSamples(), recording.GetRateHz(),
                                        options.params, blockSamples);
  if (!throughC && (options.frames || options.json)) {
    run.AddFrameTrace(FrameTrace(recording.GetSamples(), recording.GetRateHz(), options.params));
  }
  std::string out;
  for (const nlohmann::ordered_json& record : run.GetRecords()) {
    const std::string line = options.json ? record.dump() : PlainLine(record, options);
    if (!line.empty()) out += line + "\n";
  }
  ReportRate(recording);
  std::cout << out << std::flush;
  return 0;
}

int RunSplit(const SplitOptions& options) {
  const Recording recording = Recording::Load(options.input.path, options.input.rawRateHz);
  CheckAnalyzerParams(options.params, recording.GetRateHz());
  const VadRun run =
      VadRun::ThroughClasses(recording.GetSamples(), recording.GetRateHz(), options.params,
                             BlockSamples(options.input, recording.GetRateHz()));
  if (mkdir(options.directory.c_str(), 0777) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot create " + options.directory + ": " + std::strerror(errno));
  }
  // Every file is complete before the first one is renamed into place.
  const std::vector<short>& source = recording.GetSource();
  const int channels = recording.GetSourceChannels();
  const size_t sourceFrames = source.size() / channels;
  std::vector<PendingFile> files;
  std::string out;
  for (const Segment& segment : run.GetSegments()) {
    const size_t first = std::min(sourceFrames, static_cast<size_t>(
                                                    segment.GetStartS() * recording.GetSourceRateHz() + 0.5));
    const size_t last = std::min(sourceFrames, static_cast<size_t>(
                                                   segment.GetEndS() * recording.GetSourceRateHz() + 0.5));
    char name[32];
    std::snprintf(name, sizeof name, "/%04zu.wav", files.size() + 1);
    files.emplace_back(options.directory + name);
    WriteWav(files.back(), source.data() + first * channels, last - first,
             recording.GetSourceRateHz(), channels);
    out += files.back().GetPath() + " " + Fixed(segment.GetStartS(), 3) + " " + Fixed(segment.GetEndS(), 3) + "\n";
  }
  for (PendingFile& file : files) file.Commit();
  ReportRate(recording);
  std::cout << out << std::flush;
  return 0;
}

int RunAgc(const AgcOptions& options) {
  const bool throughC = options.api == "c";
  if (throughC && !options.params.empty()) {
    throw UsageError("--params cannot be used with --api c: the C interface always uses the defaults");
  }
  if (throughC && !options.logPath.empty()) {
    throw UsageError("--log needs --api classes: the C interface writes no diagnostic log");
  }
  if (!throughC) CheckAgcParams(options.params);
  // Claimed before the work so that an unwritable path fails at once.
  std::unique_ptr<PendingFile> wav;
  std::unique_ptr<PendingFile> log;
  if (!options.outputWav.empty()) wav = std::make_unique<PendingFile>(options.outputWav);
  if (!options.logPath.empty()) log = std::make_unique<PendingFile>(options.logPath);
  const Recording recording = Recording::Load(options.input.path, options.input.rawRateHz);
  const int blockSamples = BlockSamples(options.input, recording.GetRateHz());
  const AgcRun run =
      throughC ? AgcRun::ThroughCInterface(recording.GetSamples(), recording.GetRateHz(),
                                           blockSamples, options.startGain, options.bound)
               : AgcRun::ThroughClasses(recording.GetSamples(), recording.GetRateHz(),
                                        options.params, blockSamples, options.startGain);
  // Files first: a failure to write them must not leave a report that claims success.
  if (wav) WriteWav(*wav, run.GetScaled().data(), run.GetScaled().size(), recording.GetRateHz(), 1);
  if (log) WriteText(*log, run.GetLog());
  if (wav) wav->Commit();
  if (log) log->Commit();

  std::string out;
  for (const GainUpdate& update : run.GetUpdates()) {
    if (options.json) {
      out += update.ToJson().dump() + "\n";
    } else {
      out += Fixed(update.GetTimeS(), 3) + " " + Fixed(update.GetGain(), 6) + " ";
      out += throughC ? std::to_string(update.ToJson()["volume"].get<long>()) + "/" +
                            std::to_string(options.bound)
                      : update.GetDecision();
      out += "\n";
    }
  }
  ReportRate(recording);
  std::cout << out << std::flush;
  return 0;
}

int RunPlot(const PlotOptions& options) {
  if (options.agc) CheckAgcParams(options.agcParams);
  if (options.toS != 0.0 && options.toS <= options.fromS) {
    throw UsageError("--to " + Fixed(options.toS, 3) + " is not after --from " + Fixed(options.fromS, 3));
  }
  for (const std::string& path : options.outputs) {
    if (!Plot::IsSupportedFormat(path)) throw UsageError("cannot draw " + path + ": the picture must be .svg or .png");
  }
  const std::vector<Segment> labels = ReadLabels(options.labelsPath);
  std::vector<PendingFile> files;
  for (const std::string& path : options.outputs) files.emplace_back(path);
  const Recording recording = Recording::Load(options.input.path, options.input.rawRateHz);
  CheckAnalyzerParams(options.params, recording.GetRateHz());
  const int blockSamples = BlockSamples(options.input, recording.GetRateHz());
  const VadRun run = VadRun::ThroughClasses(recording.GetSamples(), recording.GetRateHz(),
                                            options.params, blockSamples);
  const FrameTrace trace(recording.GetSamples(), recording.GetRateHz(), options.params);
  std::unique_ptr<AgcRun> agc;
  if (options.agc) {
    agc = std::make_unique<AgcRun>(AgcRun::ThroughClasses(recording.GetSamples(), recording.GetRateHz(),
                                                          options.agcParams, blockSamples,
                                                          options.startGain));
  }
  const Plot plot(recording, trace, run, agc.get(), labels, options.params, options.fromS, options.toS);
  for (const PendingFile& file : files) plot.Render(file);
  for (PendingFile& file : files) file.Commit();
  ReportRate(recording);
  for (const std::string& path : options.outputs) std::cout << path << "\n";
  return 0;
}

}  // namespace ktcli
