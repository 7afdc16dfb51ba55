// ktfront: runs the speech analyzer and the gain control of libktfront over recordings.
#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "commands.h"
#include "eval.h"
#include "jobs.h"
#include "ktfront/version.h"
#include "labels.h"
#include "output.h"
#include "tune.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// With files, the command takes several recordings and @list.txt manifests, and --jobs.
void AddInputOptions(CLI::App* command, ktcli::InputOptions& input, std::vector<std::string>* files = nullptr,
                     int* jobs = nullptr) {
  if (files) {
    command->add_option("FILE", *files, "Recordings to read (WAV, FLAC, OGG, AIFF, ...), @list.txt, - for standard input")
        ->required();
    command->add_option("-j,--jobs", *jobs, "Files to work on at once (default: one per core)")->check(CLI::PositiveNumber);
  } else {
    command->add_option("FILE", input.path, "Recording to read (WAV, FLAC, OGG, AIFF, ...), - for standard input")
        ->required();
  }
  command->add_option("--rate", input.rawRateHz,
                      "Read headerless 16-bit little-endian mono at this rate (Hz)")
      ->check(CLI::PositiveNumber);
  command->add_option("--block-ms", input.blockMs, "Block size handed to the library (ms)")
      ->capture_default_str()
      ->check(CLI::Range(1, 60000));
}

void AddParamsOption(CLI::App* command, std::string& params, const char* service) {
  command->add_option("--params", params, std::string(service) + " parameter string \"Key=Value;...\"");
}

CLI::Option* AddApiOption(CLI::App* command, std::string& api) {
  return command->add_option("--api", api, "Reach the library through the C interface or the classes")
      ->capture_default_str()
      ->check(CLI::IsMember({"c", "classes"}));
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"ktfront: speech activity detection and gain control over recordings", "ktfront"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "ktfront " KTFRONT_VERSION_STRING);

  std::vector<std::string> files;
  int jobs = 0;
  ktcli::VadOptions vad;
  CLI::App* vadCommand = app.add_subcommand("vad", "Print one \"start end\" line in seconds per speech segment");
  AddInputOptions(vadCommand, vad.input, &files, &jobs);
  vadCommand->add_option("--format", vad.format, "Output: plain, audacity, rttm, textgrid (at the end) or json")
      ->capture_default_str()
      ->check(CLI::IsMember({"plain", "audacity", "rttm", "textgrid", "json"}));
  AddParamsOption(vadCommand, vad.params, "Analyzer");
  AddApiOption(vadCommand, vad.api);
  vadCommand->add_flag("--volume", vad.volume, "Also print every volume reading: time, dBFS, SNR %, verdict");
  vadCommand->add_flag("--frames", vad.frames, "Also print every frame's speech flag");
  vadCommand->add_flag("--json", vad.json, "Print every result as JSON Lines");

  ktcli::SplitOptions split;
  CLI::App* splitCommand = app.add_subcommand("split", "Write each speech segment to DIR/0001.wav, ...");
  AddInputOptions(splitCommand, split.input, &files, &jobs);
  AddParamsOption(splitCommand, split.params, "Analyzer");
  splitCommand->add_option("-o,--output-dir", split.directory, "Directory for the segment files")->required();

  ktcli::AgcOptions agc;
  CLI::App* agcCommand = app.add_subcommand("agc", "Simulate the gain control in a closed loop and print the gain trajectory");
  AddInputOptions(agcCommand, agc.input, &files, &jobs);
  AddParamsOption(agcCommand, agc.params, "Gain-control");
  AddApiOption(agcCommand, agc.api);
  agcCommand->add_option("--start-gain", agc.startGain, "Gain in force for the first block")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1.0));
  agcCommand->add_option("--bound", agc.bound, "Top of the volume scale of the C interface")
      ->capture_default_str()
      ->check(CLI::Range(1L, 1000000000L));
  agcCommand->add_option("-o,--output", agc.outputWav, "Write the recording as the simulated volume let it through (WAV)");
  agcCommand->add_option("--log", agc.logPath, "Write the full diagnostic log");
  agcCommand->add_flag("--json", agc.json, "Print every gain update as JSON Lines");

  ktcli::PlotOptions plot;
  CLI::App* plotCommand = app.add_subcommand("plot", "Draw signal, energies, thresholds, segments and volume (SVG or PNG)");
  AddInputOptions(plotCommand, plot.input);
  AddParamsOption(plotCommand, plot.params, "Analyzer");
  plotCommand->add_option("-o,--output", plot.outputs, "Picture to write, .svg or .png; may be repeated")->required();
  plotCommand->add_option("--labels", plot.labelsPath, "Reference regions to draw: plain, Audacity, RTTM, TextGrid or JSON");
  plotCommand->add_option("--labels-id", plot.labelsId, "The RTTM recording ID to draw (default: the recording's stem)");
  plotCommand->add_flag("--agc", plot.agc, "Add the gain trajectory of a closed-loop gain control run");
  plotCommand->add_option("--agc-params", plot.agcParams, "Gain-control parameter string for --agc");
  plotCommand->add_option("--from", plot.fromS, "Show the recording from this time (s)")->check(CLI::NonNegativeNumber);
  plotCommand->add_option("--to", plot.toS, "Show the recording up to this time (s); default its end")
      ->check(CLI::PositiveNumber);
  plotCommand->add_option("--start-gain", plot.startGain, "Start gain for --agc")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1.0));

  ktcli::EvalOptions eval;
  CLI::App* evalCommand = app.add_subcommand("eval", "Score the detected speech against reference labels");
  evalCommand->add_option("FILE", eval.files, "Recordings, or @list.txt")->required();
  evalCommand->add_option("--labels", eval.labels, "Reference labels: one file for all or one per recording "
                          "(default: STEM.labels, .txt, .rttm, .TextGrid or .json beside each recording)")
      ->allow_extra_args(false);
  evalCommand->add_option("--labels-id", eval.labelsId, "The RTTM recording ID to score against (default: each recording's stem)");
  evalCommand->add_option("--params", eval.params, "Analyzer parameter string \"Key=Value;...\"");
  evalCommand->add_option("--collar", eval.collarS, "Seconds around each reference boundary left unscored")
      ->check(CLI::NonNegativeNumber);
  evalCommand->add_flag("--json", eval.json, "One JSON object per file and one for the total");
  evalCommand->add_option("-j,--jobs", eval.jobs, "Files to work on at once (default: one per core)")->check(CLI::PositiveNumber);
  evalCommand->add_option("--block-ms", eval.blockMs, "Block size handed to the library (ms)")
      ->capture_default_str()
      ->check(CLI::Range(1, 60000));
  evalCommand->add_option("--rate", eval.rawRateHz, "Read headerless 16-bit little-endian mono at this rate (Hz)")
      ->check(CLI::PositiveNumber);

  ktcli::TuneOptions tune;
  CLI::App* tuneCommand = app.add_subcommand("tune", "Search the analyzer's parameter string for the lowest error rate");
  tuneCommand->add_option("FILE", tune.files, "Labelled recordings to tune on, or @list.txt")->required();
  tuneCommand->add_option("--labels", tune.labels, "Reference labels, as for eval")->allow_extra_args(false);
  tuneCommand->add_option("--validate", tune.validate, "Labelled recordings to compare defaults and best string on")
      ->expected(1, -1);
  tuneCommand->add_option("--keys", tune.keys, "Keys to search (default: time-out, speech window, histogram)")
      ->delimiter(',');
  tuneCommand->add_option("--space", tune.spacePath, "Ranges to search: \"Key LOW HIGH [STEP]\" lines");
  tuneCommand->add_option("--seed", tune.seed, "Seed of the random phase")->capture_default_str();
  tuneCommand->add_option("--evals", tune.evaluations, "Parameter strings to try at most")
      ->capture_default_str()
      ->check(CLI::Range(1, 10000000));
  tuneCommand->add_option("--time", tune.timeS, "Stop after this many seconds (the result then depends on speed)")
      ->check(CLI::PositiveNumber);
  tuneCommand->add_option("--collar", tune.collarS, "Seconds around each reference boundary left unscored")
      ->check(CLI::NonNegativeNumber);
  tuneCommand->add_option("-j,--jobs", tune.jobs, "Threads (default: one per core)")->check(CLI::PositiveNumber);
  tuneCommand->add_flag("--json", tune.json, "The best string, then every score as JSON Lines");
  tuneCommand->add_option("--block-ms", tune.blockMs, "Block size handed to the library (ms)")
      ->capture_default_str()
      ->check(CLI::Range(1, 60000));

  // CLI11 would take an unknown command for a stray argument; name it instead.
  const std::string first = argc > 1 ? argv[1] : "-";
  if (first[0] != '-' && first != "vad" && first != "split" && first != "agc" && first != "plot" &&
      first != "eval" && first != "tune") {
    std::cerr << "ktfront: error: unknown command \"" << first
              << "\" (commands: vad, split, agc, plot, eval, tune; see ktfront --help)\n";
    return kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "ktfront: error: " << e.what() << " (see ktfront --help)\n";
    return kExitUsage;
  }

  try {
    if (*evalCommand) return ktcli::RunEval(eval);
    if (*tuneCommand) return ktcli::RunTune(tune);
    // Before any input is opened: a signal while a header is awaited ends the run too.
    ktcli::InstallSignalHandlers();
    if (*plotCommand) return ktcli::RunPlot(plot);
    const std::vector<std::string> inputs = ktcli::ExpandManifests(files);
    if (*vadCommand) {
      if (vad.format == "json") vad.json = true;
      // The C interface holds one analyzer for the whole process.
      return ktcli::RunEach(inputs, vad.api == "c" ? 1 : jobs, [&](const std::string& path) {
        ktcli::VadOptions one = vad;
        one.input.path = path;
        return ktcli::RunVad(one);
      });
    }
    if (*splitCommand) {
      // Several recordings each get a directory of their own, named by stem.
      if (inputs.size() > 1) ktcli::MakeDirectory(split.directory);
      return ktcli::RunEach(inputs, jobs, [&](const std::string& path) {
        ktcli::SplitOptions one = split;
        one.input.path = path;
        if (inputs.size() > 1) one.directory += "/" + ktcli::StemOf(path);
        return ktcli::RunSplit(one);
      });
    }
    if (inputs.size() > 1 && (!agc.outputWav.empty() || !agc.logPath.empty())) {
      throw ktcli::UsageError("-o and --log take one recording at a time");
    }
    return ktcli::RunEach(inputs, agc.api == "c" ? 1 : jobs, [&](const std::string& path) {
      ktcli::AgcOptions one = agc;
      one.input.path = path;
      return ktcli::RunAgc(one);
    });
  } catch (const ktcli::ClosedPipe&) {
    return kExitFailure;  // the reader has gone; nothing to tell it
  } catch (const ktcli::UsageError& e) {
    std::cerr << "ktfront: error: " << e.what() << "\n";
    return kExitUsage;
  } catch (const std::exception& e) {
    std::cerr << "ktfront: error: " << e.what() << "\n";
    return kExitFailure;
  }
}
