#pragma once
// The subcommands of ktfront. Each returns the exit status; failures throw
// UsageError (bad combination of options) or std::runtime_error (bad input, I/O).
#include <stdexcept>
#include <string>
#include <vector>

namespace ktcli {

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Where the audio comes from; shared by every subcommand.
struct InputOptions {
  std::string path;
  int rawRateHz = 0;
  int blockMs = 20;
};

struct VadOptions {
  InputOptions input;
  std::string params;
  std::string api = "classes";
  bool volume = false;
  bool frames = false;
  bool json = false;
  std::string format = "plain";  // or a label format: audacity, rttm, textgrid
};

struct SplitOptions {
  InputOptions input;
  std::string params;
  std::string directory;
};

struct AgcOptions {
  InputOptions input;
  std::string params;
  std::string api = "classes";
  float startGain = 0.5f;
  long bound = 100;
  std::string outputWav;
  std::string logPath;
  bool json = false;
};

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
};

int RunVad(const VadOptions& options);
int RunSplit(const SplitOptions& options);
int RunAgc(const AgcOptions& options);
int RunPlot(const PlotOptions& options);

}  // namespace ktcli
