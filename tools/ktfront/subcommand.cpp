#include "subcommand.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "blocks.h"
#include "output.h"
#include "source.h"

namespace ktcli {

void AddInputOptions(CLI::App* command, InputOptions& input, std::vector<std::string>* files, int* jobs) {
  if (files) {
    command->add_option("FILE", *files, "Recordings to read (WAV, FLAC, OGG, AIFF, ...), @list.txt, - for standard input")
        ->required();
    AddJobsOption(command, *jobs, "Files to work on at once (default: one per core)");
  } else {
    command->add_option("FILE", input.path, "Recording to read (WAV, FLAC, OGG, AIFF, ...), - for standard input")
        ->required();
  }
  AddRateOption(command, input.rawRateHz);
  AddBlockOption(command, input.blockMs);
}

void AddJobsOption(CLI::App* command, int& jobs, const std::string& help) {
  command->add_option("-j,--jobs", jobs, help)->check(CLI::PositiveNumber);
}

void AddRateOption(CLI::App* command, int& rawRateHz) {
  command->add_option("--rate", rawRateHz, "Read headerless 16-bit little-endian mono at this rate (Hz)")
      ->check(CLI::PositiveNumber);
}

void AddBlockOption(CLI::App* command, int& blockMs) {
  command->add_option("--block-ms", blockMs, "Block size handed to the library (ms)")
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

void Warn(const std::vector<std::string>& warnings) {
  for (const std::string& warning : warnings) std::cerr << "ktfront: warning: " << warning << "\n";
}

bool PumpInput(AudioSource& source, int blockSamples, const std::function<void(const kt::AudioData&)>& onBlock,
               const std::function<void(const AudioSource&)>& onChunk) {
  InstallSignalHandlers();
  return Pump(source, blockSamples, onBlock, onChunk, Interrupted);
}

void ReportRate(const AudioSource& source, bool interrupted) {
  std::cerr << "ktfront: " << source.Describe() << (interrupted ? " (interrupted)" : "") << "\n";
}

void LineBuffer::Flush() {
  if (_text.empty()) return;
  WriteOut(_text);
  _text.clear();
}

}  // namespace ktcli
