// ktfront vad: the speech segments of recordings, with volume and frames on request, as plain
// lines, JSON Lines or label files.
#include <CLI/CLI.hpp>
#include <map>
#include <memory>

#include "blocks.h"
#include "subcommand.h"
#include "jobs.h"
#include "labels.h"
#include "output.h"
#include "params.h"
#include "source.h"
#include "vadrun.h"
#include "writers.h"

namespace ktcli {
namespace {

struct VadOptions {
  std::vector<std::string> files;
  int jobs = 0;
  InputOptions input;
  std::string params;
  std::string api = "classes";
  bool volume = false;
  bool frames = false;
  bool json = false;
  std::string format = "plain";  // or a label format: audacity, rttm, textgrid
};

std::unique_ptr<RecordWriter> MakeWriter(const VadOptions& options, const std::string& name) {
  if (options.format != "plain" && options.format != "json") {
    return std::make_unique<LabelWriter>(ParseLabelFormat(options.format), RecordingId(name));
  }
  if (options.json) return std::make_unique<JsonLinesWriter>(options.files.size() > 1);
  return std::make_unique<PlainWriter>(options.volume, options.frames);
}

int RunVad(const VadOptions& options) {
  const bool throughC = options.api == "c";
  if (throughC && !options.params.empty()) {
    throw UsageError("--params cannot be used with --api c: the C interface always uses the defaults");
  }
  if (throughC && options.frames) {
    throw UsageError("--frames needs --api classes: the C interface reports no frames");
  }
  AudioSource source(options.input.path, options.input.rawRateHz);
  const int rateHz = source.GetRateHz();
  if (!throughC) Warn(CheckAnalyzerParams(options.params, rateHz));
  const int blockSamples = BlockSamples(options.input.blockMs, rateHz, "--block-ms");
  LineBuffer out;
  const std::unique_ptr<RecordWriter> writer = MakeWriter(options, options.input.path);
  auto sink = [&](const Record& record) { out.Add(writer->Take(record)); };
  const VadRun::Wanted wanted{options.volume || options.json, !throughC && (options.frames || options.json)};
  std::unique_ptr<VadRun> run =
      throughC ? std::make_unique<VadRun>(source.GetName(), rateHz, blockSamples, wanted, sink)
               : std::make_unique<VadRun>(source.GetName(), rateHz, options.params, blockSamples, wanted, sink);
  const bool interrupted = PumpInput(source, blockSamples, [&](const kt::AudioData& block) {
    run->Process(block);
    out.Flush();
  });
  run->Finish(interrupted);
  out.Flush();
  ReportRate(source, interrupted);
  return 0;
}

}  // namespace

Runner DeclareVad(CLI::App& app) {
  auto options = std::make_shared<VadOptions>();
  CLI::App* command = app.add_subcommand("vad", "Print one \"start end\" line in seconds per speech segment");
  AddInputOptions(command, options->input, &options->files, &options->jobs);
  command->add_option("--format", options->format, "Output: plain, audacity, rttm, textgrid (at the end) or json")
      ->capture_default_str()
      ->check(CLI::IsMember({"plain", "audacity", "rttm", "textgrid", "json"}));
  AddParamsOption(command, options->params, "Analyzer");
  AddApiOption(command, options->api);
  command->add_flag("--volume", options->volume, "Also print every volume reading: time, dBFS, SNR %, verdict");
  command->add_flag("--frames", options->frames, "Also print every frame's speech flag");
  command->add_flag("--json", options->json, "Print every result as JSON Lines");
  return [options] {
    InstallSignalHandlers();  // before the input opens: a signal while its header is awaited ends the run
    const bool labels = options->format != "plain" && options->format != "json";
    if (labels && (options->json || options->volume || options->frames)) {
      throw UsageError("--format " + options->format + " writes segments only: it takes no --json, --volume or --frames");
    }
    if (options->format == "json") options->json = true;
    const std::vector<std::string> files = ExpandManifests(options->files);
    options->files = files;
    if (files.size() > 1 && (options->format == "audacity" || options->format == "textgrid")) {
      throw UsageError("--format " + options->format + " holds one recording: use rttm, json or plain for several");
    }
    // Lines of two recordings with one ID could not be told apart.
    std::map<std::string, std::string> ids;
    for (const std::string& path : options->format == "rttm" ? files : std::vector<std::string>()) {
      const auto [other, fresh] = ids.emplace(RecordingId(path), path);
      if (!fresh) {
        throw UsageError(other->second + " and " + path + " would both be RTTM recording \"" + other->first + "\"");
      }
    }
    const Framing framing = options->json ? JsonFraming() : options->format == "rttm" ? RttmFraming() : PlainFraming();
    // The C interface holds one analyzer for the whole process.
    return RunEach(files, options->api == "c" ? 1 : options->jobs,
                   [&](const std::string& path) {
                     VadOptions one = *options;
                     one.input.path = path;
                     return RunVad(one);
                   },
                   framing);
  };
}

}  // namespace ktcli
