#include "commands.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>

#include "agc.h"
#include "agcrun.h"
#include "audioanalyzer.h"
#include "labels.h"
#include "output.h"
#include "outputfile.h"
#include "parameters.h"
#include "chart.h"
#include "source.h"
#include "textformat.h"
#include "vadrun.h"

namespace ktcli {
namespace {

// The library ignores keys it does not read, so a misspelt key would silently do nothing.
void WarnUnknownKeys(const std::string& params, const std::vector<std::string>& known, const char* service) {
  for (const auto& entry : kt::Parameters(params)) {
    if (std::find(known.begin(), known.end(), entry.first) == known.end()) {
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
    WarnUnknownKeys(params, kt::AudioAnalyzer::GetParameterKeys(), "speech analyzer");
  } catch (const std::invalid_argument& e) {
    throw std::runtime_error("invalid parameter string \"" + params + "\": " + e.what());
  }
}

// The gain control's frames are 20 ms at every rate, so any supported rate will do.
void CheckAgcParams(const std::string& params) {
  try {
    kt::AGC(params, 16000);
    WarnUnknownKeys(params, kt::AGC::GetParameterKeys(), "gain control");
  } catch (const std::exception& e) {
    throw std::runtime_error("invalid parameter string \"" + params + "\": " + e.what());
  }
}

// Reported once the run has ended, so that a failure prints its one line only.
void ReportRate(const AudioSource& source, bool interrupted) {
  std::cerr << "ktfront: " << source.Describe() << (interrupted ? " (interrupted)" : "") << "\n";
}

int BlockSamples(const InputOptions& input, int rateHz) {
  const long samples = static_cast<long>(input.blockMs) * rateHz / 1000;
  if (samples < 1) throw UsageError("--block-ms " + std::to_string(input.blockMs) + " is below one sample");
  return static_cast<int>(samples);
}

// Reads the input chunk by chunk and hands its analysis-rate samples on in host blocks, the
// last one shorter; onChunk sees each chunk first. Returns whether SIGINT or SIGTERM ended it.
bool Pump(AudioSource& source, int blockSamples, const std::function<void(const kt::AudioData&)>& onBlock,
          const std::function<void(const AudioSource&)>& onChunk = nullptr) {
  InstallSignalHandlers();
  kt::AudioData block;
  block.reserve(static_cast<size_t>(blockSamples));
  while (!Interrupted() && source.Read()) {
    if (onChunk) onChunk(source);
    const kt::AudioData& samples = source.GetSamples();
    for (size_t at = 0; at < samples.size();) {
      const size_t take = std::min(samples.size() - at, static_cast<size_t>(blockSamples) - block.size());
      block.insert(block.end(), samples.begin() + static_cast<std::ptrdiff_t>(at),
                   samples.begin() + static_cast<std::ptrdiff_t>(at + take));
      at += take;
      if (block.size() == static_cast<size_t>(blockSamples)) {
        onBlock(block);
        block.clear();
      }
    }
  }
  if (!block.empty()) onBlock(block);
  return Interrupted();
}

// Lines gathered while a block is processed, written and flushed once it is done.
class LineBuffer {
 public:
  void Add(const std::string& line) {
    if (!line.empty()) _text += line + "\n";
  }
  void Flush() {
    if (_text.empty()) return;
    WriteOut(_text);
    _text.clear();
  }

 private:
  std::string _text;
};

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

std::vector<Segment> ReadReference(const std::string& path, const std::string& fileId) {
  std::vector<Segment> labels;
  if (path.empty()) return labels;
  for (const Region& region : ktcli::ReadLabels(path, fileId)) labels.emplace_back(region.startS, region.endS, false);
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
  AudioSource source(options.input.path, options.input.rawRateHz);
  const int rateHz = source.GetRateHz();
  if (!throughC) CheckAnalyzerParams(options.params, rateHz);
  const int blockSamples = BlockSamples(options.input, rateHz);
  LineBuffer out;
  const bool labelFormat = options.format != "plain" && options.format != "json";
  LabelWriter labels(labelFormat ? ParseLabelFormat(options.format) : LabelFormat::Plain, StemOf(source.GetName()));
  auto sink = [&](const nlohmann::ordered_json& record) {
    if (labelFormat) {
      std::string text = labels.Take(record);
      if (!text.empty()) text.pop_back();  // the buffer ends each addition with a newline
      return out.Add(text);
    }
    out.Add(options.json ? record.dump() : PlainLine(record, options));
  };
  const VadRun::Wanted wanted{options.volume || options.json, !throughC && (options.frames || options.json)};
  std::unique_ptr<VadRun> run = throughC ? std::make_unique<VadRun>(rateHz, blockSamples, wanted, sink)
                                         : std::make_unique<VadRun>(rateHz, options.params, blockSamples, wanted, sink);
  const bool interrupted = Pump(source, blockSamples, [&](const kt::AudioData& block) {
    run->Process(block);
    out.Flush();
  });
  run->Finish(interrupted);
  out.Flush();
  ReportRate(source, interrupted);
  return 0;
}

namespace {

// The source frames a segment may still reach back to, and the segment file being written.
class SegmentWriter {
 public:
  SegmentWriter(const AudioSource& source, std::string directory, int blockMs)
      : _rateHz(source.GetSourceRateHz()),
        _channels(source.GetSourceChannels()),
        _directory(std::move(directory)),
        // A start is dated back at most over the analyzer's ring of frames, decided a block late.
        _keepFrames(static_cast<uint64_t>(_rateHz) * (kt::AudioAnalyzer::kRingSize / 50 + 2 + 2 * blockMs / 1000)) {}
  ~SegmentWriter() { Close(); }

  void Append(const std::vector<short>& chunk) {
    if (_file) Write(chunk.data(), chunk.size() / _channels);
    _history.insert(_history.end(), chunk.begin(), chunk.end());
    _framesRead += chunk.size() / _channels;
    const uint64_t held = _history.size() / _channels;
    if (held > 2 * _keepFrames) {
      const uint64_t drop = held - _keepFrames;
      _history.erase(_history.begin(), _history.begin() + static_cast<std::ptrdiff_t>(drop * _channels));
      _historyStart += drop;
    }
  }

  void Start(double startS) {
    Close();
    char name[32];
    std::snprintf(name, sizeof name, "/%04d.wav", ++_count);
    _pending = std::make_unique<PendingFile>(_directory + name);
    SF_INFO info{};
    info.samplerate = _rateHz;
    info.channels = _channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    _file = sf_open(_pending->GetTemporaryPath().c_str(), SFM_WRITE, &info);
    if (!_file) throw std::runtime_error("cannot write " + _pending->GetPath() + ": " + sf_strerror(nullptr));
    _first = std::max(_historyStart, std::min(_framesRead, Frame(startS)));
    _written = 0;
    Write(_history.data() + (_first - _historyStart) * _channels, _framesRead - _first);
  }

  // Cuts the file at the segment's end and puts it in place; returns its path.
  std::string Finish(double endS) {
    sf_count_t frames = static_cast<sf_count_t>(std::min(_framesRead, std::max(_first, Frame(endS))) - _first);
    if (sf_command(_file, SFC_FILE_TRUNCATE, &frames, sizeof frames) != 0 || sf_close(_file) != 0) {
      _file = nullptr;
      throw std::runtime_error("cannot write " + _pending->GetPath());
    }
    _file = nullptr;
    _pending->Commit();
    return _pending->GetPath();
  }

  // Drops a file not finished: the temporary name goes with it.
  void Close() {
    if (_file) sf_close(_file);
    _file = nullptr;
    _pending.reset();
  }

 private:
  uint64_t Frame(double timeS) const { return static_cast<uint64_t>(timeS * _rateHz + 0.5); }
  void Write(const short* frames, uint64_t count) {
    if (sf_writef_short(_file, frames, static_cast<sf_count_t>(count)) != static_cast<sf_count_t>(count)) {
      throw std::runtime_error("cannot write " + _pending->GetPath() + ": " + sf_strerror(_file));
    }
    _written += count;
  }

  int _rateHz;
  size_t _channels;
  std::string _directory;
  uint64_t _keepFrames;
  std::vector<short> _history;
  uint64_t _historyStart = 0;
  uint64_t _framesRead = 0;
  int _count = 0;
  std::unique_ptr<PendingFile> _pending;
  SNDFILE* _file = nullptr;
  uint64_t _first = 0;
  uint64_t _written = 0;
};

}  // namespace

int RunSplit(const SplitOptions& options) {
  AudioSource source(options.input.path, options.input.rawRateHz);
  CheckAnalyzerParams(options.params, source.GetRateHz());
  const int blockSamples = BlockSamples(options.input, source.GetRateHz());
  if (mkdir(options.directory.c_str(), 0777) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot create " + options.directory + ": " + std::strerror(errno));
  }
  SegmentWriter writer(source, options.directory, options.input.blockMs);
  LineBuffer out;
  auto sink = [&](const nlohmann::ordered_json& record) {
    if (record["type"] == "event" && record["tag"] == "SpeechStart") {
      writer.Start(record["timeMs"].get<double>() / 1000.0);
    } else if (record["type"] == "segment" && !record["open"].get<bool>()) {
      const double startS = record["start"].get<double>();
      const double endS = record["end"].get<double>();
      out.Add(writer.Finish(endS) + " " + Fixed(startS, 3) + " " + Fixed(endS, 3));
    }
  };
  VadRun run(source.GetRateHz(), options.params, blockSamples, VadRun::Wanted{}, sink);
  const bool interrupted = Pump(
      source, blockSamples,
      [&](const kt::AudioData& block) {
        run.Process(block);
        out.Flush();
      },
      [&](const AudioSource& chunk) { writer.Append(chunk.GetSourceChunk()); });
  run.Finish(interrupted);
  writer.Close();  // a segment the interruption left open
  out.Flush();
  ReportRate(source, interrupted);
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
  const int blockSamples = BlockSamples(options.input, rateHz);
  std::unique_ptr<WavWriter> wavFile;
  if (wav) wavFile = std::make_unique<WavWriter>(*wav, rateHz, 1);
  std::shared_ptr<std::ofstream> logStream;
  if (log) logStream = std::make_shared<std::ofstream>(log->GetTemporaryPath(), std::ios::binary);

  LineBuffer out;
  auto sink = [&](const GainUpdate& update, const nlohmann::ordered_json& record) {
    if (!printUpdates) return;
    if (options.json) return out.Add(record.dump());
    out.Add(Fixed(update.GetTimeS(), 3) + " " + Fixed(update.GetGain(), 6) + " " +
            (throughC ? std::to_string(record["volume"].get<long>()) + "/" + std::to_string(options.bound)
                      : update.GetDecision()));
  };
  std::unique_ptr<AgcRun> run = throughC ? std::make_unique<AgcRun>(rateHz, options.startGain, options.bound, sink)
                                         : std::make_unique<AgcRun>(rateHz, options.params, options.startGain, logStream, sink);
  const bool interrupted = Pump(source, blockSamples, [&](const kt::AudioData& block) {
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

int RunPlot(const PlotOptions& options) {
  if (options.agc) CheckAgcParams(options.agcParams);
  if (options.toS != 0.0 && options.toS <= options.fromS) {
    throw UsageError("--to " + Fixed(options.toS, 3) + " is not after --from " + Fixed(options.fromS, 3));
  }
  for (const std::string& path : options.outputs) {
    if (!Plot::IsSupportedFormat(path)) throw UsageError("cannot draw " + path + ": the picture must be .svg or .png");
  }
  const std::vector<Segment> labels = ReadReference(options.labelsPath, options.labelsId.empty() ? StemOf(options.input.path) : options.labelsId);
  std::vector<PendingFile> files;
  for (const std::string& path : options.outputs) files.emplace_back(path);
  AudioSource source(options.input.path, options.input.rawRateHz);
  const int rateHz = source.GetRateHz();
  CheckAnalyzerParams(options.params, rateHz);
  const int blockSamples = BlockSamples(options.input, rateHz);

  PlotData data;
  data.name = source.GetName();
  data.rateHz = rateHz;
  const int samplesPerFrame = rateHz / 50;
  data.frameMs = 1000.0 * samplesPerFrame / rateHz;
  data.agc = options.agc;
  data.startGain = options.startGain;
  // Each frame's extremes wait here until the analyzer has decided the frame.
  std::deque<std::pair<int16_t, int16_t>> extremes;
  int16_t low = 0;
  int16_t high = 0;
  int inFrame = 0;
  auto onRecord = [&](const nlohmann::ordered_json& record) {
    if (record["type"] == "volume") {
      static const std::vector<std::string> kInfos = {"OK", "TooNoisy", "TooSoft", "TooLoud"};
      const auto info = std::find(kInfos.begin(), kInfos.end(), record["info"].get<std::string>()) - kInfos.begin();
      data.volumes.push_back({static_cast<float>(record["timeMs"].get<double>() / 1000.0),
                              static_cast<float>(record["snrVolumePct"].get<double>()), static_cast<int8_t>(info)});
    } else if (record["type"] == "segment") {
      data.segments.emplace_back(record["start"].get<double>(), record["end"].get<double>(), record["open"].get<bool>());
    }
  };
  auto onFrame = [&](const kt::FrameDecision& d) {
    PlotData::Frame frame{static_cast<float>(d.energy), static_cast<float>(d.speechStartThreshold),
                          static_cast<float>(d.speechEndThreshold), static_cast<float>(d.noiseLevel),
                          static_cast<float>(d.speechLevel)};
    if (!extremes.empty()) {
      frame.low = extremes.front().first;
      frame.high = extremes.front().second;
      extremes.pop_front();
    }
    data.frames.push_back(frame);
  };
  VadRun vad(rateHz, options.params, blockSamples, VadRun::Wanted{true, false}, onRecord, onFrame);
  std::unique_ptr<AgcRun> agc;
  if (options.agc) {
    agc = std::make_unique<AgcRun>(rateHz, options.agcParams, options.startGain, nullptr,
                                   [&](const GainUpdate& update, const nlohmann::ordered_json&) { data.gains.push_back(update); });
  }
  const bool interrupted = Pump(source, blockSamples, [&](const kt::AudioData& block) {
    for (const int16_t s : block) {
      low = std::min(low, s);
      high = std::max(high, s);
      if (++inFrame == samplesPerFrame) {
        extremes.emplace_back(low, high);
        low = high = 0;
        inFrame = 0;
      }
    }
    vad.Process(block);
    if (agc) agc->Process(block);
  });
  vad.Finish(interrupted);
  data.durationS = static_cast<double>(source.GetSamplesRead()) / rateHz;
  const Plot plot(data, labels, options.params, options.fromS, options.toS);
  for (const PendingFile& file : files) plot.Render(file);
  for (PendingFile& file : files) file.Commit();
  ReportRate(source, interrupted);
  std::string out;
  for (const std::string& path : options.outputs) out += path + "\n";
  WriteOut(out);
  return 0;
}

}  // namespace ktcli
