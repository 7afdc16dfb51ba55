// ktfront: runs the speech analyzer and the gain control of libktfront over recordings.
#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "commands.h"
#include "ktfront/version.h"
#include "output.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

void AddInputOptions(CLI::App* command, ktcli::InputOptions& input) {
  command->add_option("FILE", input.path, "Recording to read (WAV, FLAC, OGG, AIFF, ...), - for standard input")
      ->required();
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

  ktcli::VadOptions vad;
  CLI::App* vadCommand = app.add_subcommand("vad", "Print one \"start end\" line in seconds per speech segment");
  AddInputOptions(vadCommand, vad.input);
  AddParamsOption(vadCommand, vad.params, "Analyzer");
  AddApiOption(vadCommand, vad.api);
  vadCommand->add_flag("--volume", vad.volume, "Also print every volume reading: time, dBFS, SNR %, verdict");
  vadCommand->add_flag("--frames", vad.frames, "Also print every frame's speech flag");
  vadCommand->add_flag("--json", vad.json, "Print every result as JSON Lines");

  ktcli::SplitOptions split;
  CLI::App* splitCommand = app.add_subcommand("split", "Write each speech segment to DIR/0001.wav, ...");
  AddInputOptions(splitCommand, split.input);
  AddParamsOption(splitCommand, split.params, "Analyzer");
  splitCommand->add_option("-o,--output-dir", split.directory, "Directory for the segment files")->required();

  ktcli::AgcOptions agc;
  CLI::App* agcCommand = app.add_subcommand("agc", "Simulate the gain control in a closed loop and print the gain trajectory");
  AddInputOptions(agcCommand, agc.input);
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
  plotCommand->add_option("--labels", plot.labelsPath, "Reference regions to draw, one \"start end\" line in seconds each");
  plotCommand->add_flag("--agc", plot.agc, "Add the gain trajectory of a closed-loop gain control run");
  plotCommand->add_option("--agc-params", plot.agcParams, "Gain-control parameter string for --agc");
  plotCommand->add_option("--from", plot.fromS, "Show the recording from this time (s)")->check(CLI::NonNegativeNumber);
  plotCommand->add_option("--to", plot.toS, "Show the recording up to this time (s); default its end")
      ->check(CLI::PositiveNumber);
  plotCommand->add_option("--start-gain", plot.startGain, "Start gain for --agc")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1.0));

  // CLI11 would take an unknown command for a stray argument; name it instead.
  const std::string first = argc > 1 ? argv[1] : "-";
  if (first[0] != '-' && first != "vad" && first != "split" && first != "agc" && first != "plot") {
    std::cerr << "ktfront: error: unknown command \"" << first
              << "\" (commands: vad, split, agc, plot; see ktfront --help)\n";
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
    if (*vadCommand) return ktcli::RunVad(vad);
    if (*splitCommand) return ktcli::RunSplit(split);
    if (*agcCommand) return ktcli::RunAgc(agc);
    return ktcli::RunPlot(plot);
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
