#include "live.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <iostream>
#include <memory>

#include "agcrun.h"
#include "blocks.h"
#include "output.h"
#include "params.h"
#include "pulsecapture.h"
#include "subcommand.h"
#include "textformat.h"
#include "vadrun.h"
#include "writers.h"

namespace ktcli {
namespace {

struct LiveOptions {
  std::string source;  // empty: the server's default source
  std::string params;
  int blockMs = 20;
  bool volume = false;
  bool frames = false;
  bool json = false;
  bool agc = false;
  std::string agcParams;
  bool restore = false;
};

// The source's volume as the gain control reads a host's volume: volume / bound in single
// precision, PA_VOLUME_NORM (100 %) being the bound. Above 100 % counts as a gain of 1.
float GainOf(pa_volume_t volume) {
  return static_cast<float>(std::min(volume, static_cast<pa_volume_t>(PA_VOLUME_NORM))) /
         static_cast<float>(PA_VOLUME_NORM);
}

// The volume to set, as the gain control's C interface answers its host: the one in force
// while the gain stays, otherwise the new gain times the bound, truncated toward zero.
pa_volume_t VolumeFor(pa_volume_t inForce, float gain, float newGain) {
  if (newGain == gain) return inForce;
  const double volume = static_cast<double>(newGain) * static_cast<double>(static_cast<float>(PA_VOLUME_NORM));
  return static_cast<pa_volume_t>(std::min(volume, static_cast<double>(PA_VOLUME_NORM)));
}

// One line on the terminal, redrawn in place: the latest volume reading, and the gain.
class Meter {
 public:
  explicit Meter(bool agc) : _agc(agc) {}

  // Takes what it shows from the analyzer's volume readings.
  void Take(const Record& record) {
    const VolumeRecord* volume = record.Get<VolumeRecord>();
    if (!volume || !volume->levels) return;
    _levelDbfs = volume->levels->volumedBFS;
    _snrPct = volume->snrVolumePct;
    _info = kt::ToString(volume->info);
    _speech = volume->levels->isSpeechState;
    _read = true;
  }
  void SetGain(float gain, pa_volume_t volume) {
    _gain = gain;
    _volume = volume;
  }

  std::string Line() const {
    if (!_read) return "waiting for audio";
    // 3 dB a mark from -60 dBFS to full scale.
    const int marks = std::clamp(static_cast<int>(std::lround((_levelDbfs + 60.0) / 3.0)), 0, 20);
    std::string line = "level " + Pad(Fixed(_levelDbfs, 1), 6) + " dBFS [" + std::string(static_cast<size_t>(marks), '#') +
                       std::string(static_cast<size_t>(20 - marks), ' ') + "] SNR " + Pad(Fixed(_snrPct, 1), 5) +
                       " % " + Pad(_info, 8, true) + " " + (_speech ? "speech" : "pause ");
    if (_agc) {
      line += "  gain " + Fixed(_gain, 3) + " (volume " + Fixed(100.0 * _volume / PA_VOLUME_NORM, 0) + " %)";
    }
    return line;
  }

 private:
  static std::string Pad(const std::string& text, size_t width, bool left = false) {
    if (text.size() >= width) return text;
    const std::string fill(width - text.size(), ' ');
    return left ? text + fill : fill + text;
  }

  bool _agc;
  bool _read = false;
  double _levelDbfs = 0.0;
  double _snrPct = 0.0;
  std::string _info;
  bool _speech = false;
  float _gain = 0.0f;
  pa_volume_t _volume = 0;
};

// The line the meter stands on: cleared to the start, and the meter's text after it.
constexpr const char* kClearLine = "\r\033[K";

int RunLive(const LiveOptions& options) {
  if (!options.agc && (options.restore || !options.agcParams.empty())) {
    throw UsageError(std::string(options.restore ? "--restore" : "--agc-params") + " needs --agc");
  }
  if (options.agc) Warn(CheckAgcParams(options.agcParams));
  PulseCapture capture(options.source);
  const int rateHz = capture.GetRateHz();
  Warn(CheckAnalyzerParams(options.params, rateHz));
  const int blockSamples = BlockSamples(options.blockMs, rateHz, "--block-ms");
  const std::string name = "source " + capture.GetSourceName();
  std::cerr << "ktfront: " << capture.Describe() << "\n";

  // Whatever ends the run, the volume goes back, if the server is still there to take it.
  struct Restore {
    PulseCapture& capture;
    bool wanted;
    ~Restore() {
      try {
        if (wanted) capture.RestoreVolume();
      } catch (const std::exception&) {
      }
    }
  } restore{capture, options.restore};

  const bool terminal = isatty(STDOUT_FILENO) == 1;
  Meter meter(options.agc);
  LineBuffer out;
  std::unique_ptr<RecordWriter> writer;
  if (options.json) {
    writer = std::make_unique<JsonLinesWriter>();
  } else {
    writer = std::make_unique<PlainWriter>(options.volume, options.frames);
  }
  auto sink = [&](const Record& record) {
    meter.Take(record);
    out.Add(writer->Take(record));
  };
  // Volume readings always, for the meter; printed as `vad` prints them.
  VadRun vad(name, rateHz, options.params, blockSamples, VadRun::Wanted{true, options.frames || options.json}, sink);

  pa_volume_t inForce = capture.GetVolume();
  float gain = GainOf(inForce);
  meter.SetGain(gain, inForce);
  std::unique_ptr<AgcRun> agc;
  if (options.agc) {
    // Each update with the volume it sets; plain lines only for a change of volume.
    agc = std::make_unique<AgcRun>(name, rateHz, options.agcParams, gain, nullptr, [&](const Record& record) {
      Record withVolume = record;
      GainRecord& update = std::get<GainRecord>(withVolume.body);
      const pa_volume_t next = VolumeFor(inForce, gain, update.gain);
      update.volume = GainRecord::Volume{static_cast<long>(next), static_cast<long>(PA_VOLUME_NORM)};
      if (options.json || next != inForce) out.Add(writer->Take(withVolume));
    });
  }

  double drawnS = -1.0;
  uint64_t samples = 0;
  auto show = [&](bool force) {
    // The meter at most ten times a second, and whenever lines go above it.
    const double nowS = static_cast<double>(samples) / rateHz;
    if (!terminal || (!force && out.IsEmpty() && nowS - drawnS < 0.1)) return out.Flush();
    WriteOut(kClearLine);
    out.Flush();
    WriteOut(meter.Line());
    drawnS = nowS;
  };
  auto onBlock = [&](const kt::AudioData& block) {
    samples += block.size();
    vad.Process(block);
    if (agc) {
      inForce = capture.GetVolume();
      gain = GainOf(inForce);
      const float newGain = agc->Compute(block, gain);
      const pa_volume_t next = VolumeFor(inForce, gain, newGain);
      if (next != inForce) capture.SetVolume(next);
      meter.SetGain(newGain, next);
    }
    show(false);
  };
  show(true);
  bool interrupted = false;
  try {
    InstallSignalHandlers();
    interrupted = Pump(capture, blockSamples, onBlock, nullptr, Interrupted);
  } catch (const AudioServerError&) {
    // What was heard stands: a segment going on is printed open, then the error.
    vad.Finish(true);
    if (terminal) WriteOut(kClearLine);
    out.Flush();
    throw;
  }
  vad.Finish(interrupted);
  if (terminal) WriteOut(kClearLine);
  out.Flush();
  return 0;
}

}  // namespace

Runner DeclareLive(CLI::App& app) {
  auto options = std::make_shared<LiveOptions>();
  CLI::App* command =
      app.add_subcommand("live", "Follow speech live on a source of the audio server (PulseAudio, PipeWire)");
  command->add_option("--source", options->source, "Source to record from (default: the server's default source)");
  AddParamsOption(command, options->params, "Analyzer");
  AddBlockOption(command, options->blockMs);
  command->add_flag("--volume", options->volume, "Also print every volume reading: time, dBFS, SNR %, verdict");
  command->add_flag("--frames", options->frames, "Also print every frame's speech flag");
  command->add_flag("--json", options->json, "Print every result as JSON Lines");
  command->add_flag("--agc", options->agc, "Let the gain control set the source's volume");
  command->add_option("--agc-params", options->agcParams, "Gain-control parameter string for --agc");
  command->add_flag("--restore", options->restore, "With --agc, put the source's volume back at the end");
  return [options] { return RunLive(*options); };
}

}  // namespace ktcli
