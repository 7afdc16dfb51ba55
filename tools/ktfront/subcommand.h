#pragma once
// The subcommands of ktfront, one file each, and what they share. A subcommand declares its
// options on the app and returns what runs it once they are parsed; that returns the exit
// status, and failures throw UsageError (bad combination of options) or std::runtime_error
// (bad input, I/O).
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "audiodata.h"

namespace CLI {
class App;
class Option;
class Validator;
}  // namespace CLI

namespace ktcli {

class AudioSource;

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

using Runner = std::function<int()>;
using Declare = Runner (*)(CLI::App& app);

Runner DeclareVad(CLI::App& app);
Runner DeclareSplit(CLI::App& app);
Runner DeclareAgc(CLI::App& app);
Runner DeclarePlot(CLI::App& app);
Runner DeclareEval(CLI::App& app);
Runner DeclareTune(CLI::App& app);

// Where the audio comes from; shared by every subcommand.
struct InputOptions {
  std::string path;
  int rawRateHz = 0;
  int blockMs = 20;
};

// FILE, --rate and --block-ms. With files, FILE takes several recordings and @list.txt
// manifests, and --jobs is added.
void AddInputOptions(CLI::App* command, InputOptions& input, std::vector<std::string>* files = nullptr,
                     int* jobs = nullptr);
void AddJobsOption(CLI::App* command, int& jobs, const std::string& help);
void AddRateOption(CLI::App* command, int& rawRateHz);
void AddBlockOption(CLI::App* command, int& blockMs);
void AddParamsOption(CLI::App* command, std::string& params, const char* service);
CLI::Option* AddApiOption(CLI::App* command, std::string& api);
// The label options of every command that reads reference labels, declared once so that
// they all take the same: --labels (one file a use) and --labels-id.
void AddLabelsOption(CLI::App* command, std::vector<std::string>& labels);
void AddLabelsIdOption(CLI::App* command, std::string& labelsId);

// Every numeric option: a finite number from low to high, else a one-line usage error;
// whole numbers only when integral.
CLI::Validator Within(double low, double high, bool integral = false);

// Prints each warning of a parameter check, once per process.
void Warn(const std::vector<std::string>& warnings);

// The input in host blocks (see Pump in blocks.h), until its end or SIGINT or SIGTERM;
// returns whether a signal ended it.
bool PumpInput(AudioSource& source, int blockSamples, const std::function<void(const kt::AudioData&)>& onBlock,
               const std::function<void(const AudioSource&)>& onChunk = nullptr);

// Reported once the run has ended, so that a failure prints its one line only.
void ReportRate(const AudioSource& source, bool interrupted);

// Lines gathered while a block is processed, written and flushed once it is done.
class LineBuffer {
 public:
  void Add(const std::string& text) { _text += text; }
  bool IsEmpty() const { return _text.empty(); }
  void Flush();

 private:
  std::string _text;
};

}  // namespace ktcli
