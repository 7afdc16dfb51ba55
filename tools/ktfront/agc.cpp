// ktfront agc: the gain control in a closed loop over a recording, its gain trajectory
// printed, the recording as the simulated volume let it through and the diagnostic log on request.
#include <CLI/CLI.hpp>
#include <fstream>
#include <memory>

#include "agcrun.h"
#include "blocks.h"
#include "subcommand.h"
#include "jobs.h"
#include "output.h"
#include "outputfile.h"
#include "params.h"
#include "source.h"
#include "writers.h"

namespace ktcli {
namespace {

struct AgcOptions {
  std::vector<std::string> files;
  int jobs = 0;
  InputOptions input;
  std::string params;
  std::string api = "classes";
  float startGain = 0.5f;
  long bound = 100;
  bool boundGiven = false;
  std::string outputWav;
  std::string logPath;
  bool json = false;
};

int RunAgc(const AgcOptions& options) {
  const bool throughC = options.api == "c";
  if (throughC && !options.params.empty()) {
    throw UsageError("--params cannot be used with --api c: the C interface always uses the defaults");
  }
  if (throughC && !options.logPath.empty()) {
    throw UsageError("--log needs --api classes: the C interface writes no diagnostic log");
  }
  if (!throughC && options.boundGiven) {
    throw UsageError("--bound needs --api c: the classes take the gain itself, not a volume scale");
  }
  if (!throughC) Warn(CheckAgcParams(options.params));
  if (options.outputWav == "-" && options.logPath == "-") {
    throw UsageError("-o - and --log - cannot both write to standard output");
  }
  // Claimed before the work so that an unwritable path fails at once.
  std::unique_ptr<PendingFile> wav;
  std::unique_ptr<PendingFile> log;
  if (!options.outputWav.empty()) wav = std::make_unique<PendingFile>(options.outputWav);
  if (!options.logPath.empty()) log = std::make_unique<PendingFile>(options.logPath);
  // Standard output carries the recording or the log instead of the update lines.
  const bool printUpdates = options.outputWav != "-" && options.logPath != "-";
  AudioSource source(options.input.path, options.input.rawRateHz);
  const int rateHz = source.GetRateHz();
  const int blockSamples = BlockSamples(options.input.blockMs, rateHz, "--block-ms");
  std::unique_ptr<WavWriter> wavFile;
  if (wav) wavFile = std::make_unique<WavWriter>(*wav, rateHz, 1);
  std::shared_ptr<std::ofstream> logStream;
  if (log) logStream = std::make_shared<std::ofstream>(log->GetTemporaryPath(), std::ios::binary);

  LineBuffer out;
  std::unique_ptr<RecordWriter> writer;
  if (options.json) {
    writer = std::make_unique<JsonLinesWriter>(options.files.size() > 1);
  } else {
    writer = std::make_unique<PlainWriter>(false, false);
  }
  auto sink = [&](const Record& record) {
    if (printUpdates) out.Add(writer->Take(record));
  };
  std::unique_ptr<AgcRun> run =
      throughC ? std::make_unique<AgcRun>(source.GetName(), rateHz, options.startGain, options.bound, sink)
               : std::make_unique<AgcRun>(source.GetName(), rateHz, options.params, options.startGain, logStream, sink);
  const bool interrupted = PumpInput(source, blockSamples, [&](const kt::AudioData& block) {
    const kt::AudioData& scaled = run->Process(block);
    if (wavFile) wavFile->Write(scaled.data(), scaled.size());
    if (logStream && log->IsDirect()) logStream->flush();  // a reader of a FIFO hears it as it comes
    out.Flush();
  });
  // A live input ends only by a signal, and its files keep what was heard; files that an
  // interruption left unfinished are otherwise removed with their temporary names.
  if (!interrupted || source.IsLive()) {
    if (wavFile) wavFile->Close();
    if (logStream && !logStream->flush()) throw std::runtime_error("cannot write " + log->GetPath());
    if (wav) wav->Commit();
    if (log) log->Commit();
  }
  out.Flush();
  ReportRate(source, interrupted);
  return 0;
}

}  // namespace

Runner DeclareAgc(CLI::App& app) {
  auto options = std::make_shared<AgcOptions>();
  CLI::App* command =
      app.add_subcommand("agc", "Simulate the gain control in a closed loop and print the gain trajectory");
  AddInputOptions(command, options->input, &options->files, &options->jobs);
  AddParamsOption(command, options->params, "Gain-control");
  AddApiOption(command, options->api);
  command->add_option("--start-gain", options->startGain, "Gain in force for the first block")
      ->capture_default_str()
      ->check(Within(0, 1));
  command->add_option("--bound", options->bound, "Top of the volume scale of the C interface")
      ->capture_default_str()
      ->check(Within(1, 1e9, true));
  command->add_option("-o,--output", options->outputWav,
                      "Write the recording as the simulated volume let it through (WAV)");
  command->add_option("--log", options->logPath, "Write the full diagnostic log");
  command->add_flag("--json", options->json, "Print every gain update as JSON Lines");
  return [options, command] {
    options->boundGiven = command->count("--bound") > 0;
    InstallSignalHandlers();  // before the input opens: a signal while its header is awaited ends the run
    const std::vector<std::string> inputs = ExpandManifests(options->files);
    options->files = inputs;
    if (inputs.size() > 1 && (!options->outputWav.empty() || !options->logPath.empty())) {
      throw UsageError("-o and --log take one recording at a time");
    }
    // The C interface holds one gain control for the whole process.
    return RunEach(inputs, options->api == "c" ? 1 : options->jobs, [&](const std::string& path) {
      AgcOptions one = *options;
      one.input.path = path;
      return RunAgc(one);
    }, options->json ? JsonFraming() : PlainFraming());
  };
}

}  // namespace ktcli
