#include "subcommand.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <iostream>
#include <sstream>
#include <mutex>
#include <set>

#include "blocks.h"
#include "output.h"
#include "params.h"
#include "source.h"

namespace ktcli {

CLI::Validator Within(double low, double high, bool integral) {
  auto bound = [](double value) {
    std::ostringstream text;
    if (value == std::floor(value)) {
      text << static_cast<long long>(value);
    } else {
      text << value;
    }
    return text.str();
  };
  const std::string range = (integral ? "a whole number from " : "a number from ") + bound(low) + " to " + bound(high);
  return CLI::Validator(
      [=](std::string& text) -> std::string {
        const std::string shown = "\"" + Abridged(text) + "\"";
        size_t used = 0;
        double value = 0;
        try {
          value = std::stod(text, &used);
        } catch (const std::exception&) {
          return shown + " is not " + range;
        }
        if (used != text.size() || !std::isfinite(value) || value < low || value > high ||
            (integral && value != std::floor(value))) {
          return shown + " is not " + range;
        }
        return std::string();
      },
      range);
}

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
  command->add_option("-j,--jobs", jobs, help)->check(Within(1, 1024, true));
}

void AddRateOption(CLI::App* command, int& rawRateHz) {
  command->add_option("--rate", rawRateHz, "Read headerless 16-bit little-endian mono at this rate (Hz)")
      ->check(Within(1, 1e7, true));
}

void AddBlockOption(CLI::App* command, int& blockMs) {
  command->add_option("--block-ms", blockMs, "Block size handed to the library (ms)")
      ->capture_default_str()
      ->check(Within(1, 60000, true));
}

void AddParamsOption(CLI::App* command, std::string& params, const char* service) {
  command->add_option("--params", params, std::string(service) + " parameter string \"Key=Value;...\"");
}

CLI::Option* AddApiOption(CLI::App* command, std::string& api) {
  return command->add_option("--api", api, "Reach the library through the C interface or the classes")
      ->capture_default_str()
      ->check(CLI::IsMember({"c", "classes"}));
}

void AddLabelsOption(CLI::App* command, std::vector<std::string>& labels) {
  command->add_option("--labels", labels, "Reference labels, one file a use: one for all or one per recording "
                      "(default: STEM.labels, .txt, .rttm, .TextGrid or .json beside each recording)")
      ->allow_extra_args(false);
}

void AddLabelsIdOption(CLI::App* command, std::string& labelsId) {
  command->add_option("--labels-id", labelsId,
                      "The RTTM recording ID to read (default: each recording's stem, blanks as _)");
}

void Warn(const std::vector<std::string>& warnings) {
  // Every file of a run checks the same string; its warnings are printed once.
  static std::mutex mutex;
  static std::set<std::string> printed;
  std::lock_guard<std::mutex> lock(mutex);
  for (const std::string& warning : warnings) {
    if (printed.insert(warning).second) std::cerr << "ktfront: warning: " << warning << "\n";
  }
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
