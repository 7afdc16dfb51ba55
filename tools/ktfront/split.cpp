// ktfront split: each speech segment of a recording written to a WAV file of its own, as the
// source holds it (rate and channels).
#include <sndfile.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "audioanalyzer.h"
#include "blocks.h"
#include "subcommand.h"
#include "jobs.h"
#include "labels.h"
#include "output.h"
#include "outputfile.h"
#include "params.h"
#include "source.h"
#include "textformat.h"
#include "vadrun.h"

namespace ktcli {
namespace {

struct SplitOptions {
  std::vector<std::string> files;
  int jobs = 0;
  InputOptions input;
  std::string params;
  std::string directory;
};

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

int RunSplit(const SplitOptions& options) {
  AudioSource source(options.input.path, options.input.rawRateHz);
  Warn(CheckAnalyzerParams(options.params, source.GetRateHz()));
  const int blockSamples = BlockSamples(options.input.blockMs, source.GetRateHz(), "--block-ms");
  if (mkdir(options.directory.c_str(), 0777) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot create " + options.directory + ": " + std::strerror(errno));
  }
  SegmentWriter writer(source, options.directory, options.input.blockMs);
  LineBuffer out;
  auto sink = [&](const Record& record) {
    const auto* event = record.Get<EventRecord>();
    const auto* segment = record.Get<SegmentRecord>();
    if (event && event->tag == kt::AnalyzerEvent::SpeechStart) {
      writer.Start(event->timeMs / 1000.0);
    } else if (segment && (!segment->open || source.IsLive())) {
      // A live input ends only by a signal, so its open segment is what was heard last: kept.
      out.Add(writer.Finish(segment->endS) + " " + Fixed(segment->startS, 3) + " " + Fixed(segment->endS, 3) +
              (segment->open ? " open\n" : "\n"));
    }
  };
  VadRun run(source.GetName(), source.GetRateHz(), options.params, blockSamples, VadRun::Wanted{}, sink);
  const bool interrupted = PumpInput(
      source, blockSamples,
      [&](const kt::AudioData& block) {
        run.Process(block);
        out.Flush();
      },
      [&](const AudioSource& chunk) { writer.Append(chunk.GetSourceChunk()); });
  run.Finish(interrupted);
  writer.Close();  // a segment the interruption left open in a file input
  out.Flush();
  ReportRate(source, interrupted);
  return 0;
}

// Each recording's directory: its stem, or STEM-N (the first N free) when stems repeat, so
// that no two recordings write one path.
std::vector<std::string> DirectoryNames(const std::vector<std::string>& inputs) {
  std::map<std::string, int> uses;
  for (const std::string& path : inputs) ++uses[StemOf(path)];
  std::set<std::string> taken;
  for (const auto& [stem, count] : uses) {
    if (count == 1) taken.insert(stem);
  }
  std::vector<std::string> names;
  for (const std::string& path : inputs) {
    std::string name = StemOf(path);
    if (uses[name] > 1) {
      int n = 1;
      while (taken.count(StemOf(path) + "-" + std::to_string(n))) ++n;
      name = StemOf(path) + "-" + std::to_string(n);
    }
    taken.insert(name);
    names.push_back(name);
  }
  return names;
}

}  // namespace

Runner DeclareSplit(CLI::App& app) {
  auto options = std::make_shared<SplitOptions>();
  CLI::App* command = app.add_subcommand("split", "Write each speech segment to DIR/0001.wav, ...");
  AddInputOptions(command, options->input, &options->files, &options->jobs);
  AddParamsOption(command, options->params, "Analyzer");
  command->add_option("-o,--output-dir", options->directory, "Directory for the segment files")->required();
  return [options] {
    InstallSignalHandlers();  // before the input opens: a signal while its header is awaited ends the run
    const std::vector<std::string> inputs = ExpandManifests(options->files);
    // Several recordings each get a directory of their own, named by stem.
    const std::vector<std::string> names = DirectoryNames(inputs);
    std::map<std::string, std::string> directories;
    for (size_t i = 0; i < inputs.size(); ++i) {
      if (!directories.emplace(inputs[i], options->directory + "/" + names[i]).second) {
        throw UsageError(inputs[i] + " is given twice: its segments would be written twice");
      }
    }
    if (inputs.size() > 1) MakeDirectory(options->directory);
    return RunEach(inputs, options->jobs, [&](const std::string& path) {
      SplitOptions one = *options;
      one.input.path = path;
      if (inputs.size() > 1) one.directory = directories.at(path);
      return RunSplit(one);
    }, PlainFraming());
  };
}

}  // namespace ktcli
