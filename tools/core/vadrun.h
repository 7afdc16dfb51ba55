#pragma once
// The speech analyzer fed block by block, through the classes or the C interface; every
// result becomes a JSON record handed on as soon as the block that produced it is done.
#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "audioanalyzer.h"

namespace ktcli {

class Segment {
 public:
  Segment(double startS, double endS, bool open) : _startS(startS), _endS(endS), _open(open) {}
  double GetStartS() const { return _startS; }
  double GetEndS() const { return _endS; }
  // Not ended by the analyzer: the input ended (C interface) or was interrupted.
  bool IsOpen() const { return _open; }

 private:
  double _startS;
  double _endS;
  bool _open;
};

class VadRun {
 public:
  using RecordSink = std::function<void(const nlohmann::ordered_json&)>;
  using FrameSink = std::function<void(const kt::FrameDecision&)>;

  // Which records to build: segments and events always, the others on request.
  struct Wanted {
    bool volume = false;
    bool frames = false;
  };

  // kt::AudioAnalyzer with the parameter string; flushed by Finish.
  VadRun(int rateHz, const std::string& params, int blockSamples, Wanted wanted, RecordSink sink,
         FrameSink frameSink = nullptr);
  // KTRVAD_* with its defaults; every pending result is fetched after each block. Times are
  // when the host hears of a result: the end of the block whose call reported it.
  VadRun(int rateHz, int blockSamples, Wanted wanted, RecordSink sink);
  ~VadRun();
  VadRun(const VadRun&) = delete;
  VadRun& operator=(const VadRun&) = delete;

  void Process(const kt::AudioData& block);
  // Ends the stream: the analyzer's flush through the classes, and a segment still going on
  // closed at the end, marked open when interrupted or through the C interface.
  void Finish(bool interrupted);

 private:
  void Drain();
  void AddEvent(const char* tag, double timeMs);
  void CloseOpenSegment(double endS);
  void Emit(const nlohmann::ordered_json& record) { _sink(record); }

  int _rateHz;
  int _blockSamples;
  Wanted _wanted;
  RecordSink _sink;
  std::unique_ptr<kt::AudioAnalyzer> _analyzer;  // null through the C interface
  std::deque<kt::FrameDecision> _decisions;      // decided frames whose result is still held back
  uint64_t _samples = 0;
  bool _finishing = false;
  bool _interrupted = false;
  std::optional<double> _openStartS;
};

// The segments `vad` prints, in seconds, for samples held in memory and handed on through the
// classes in host blocks of blockSamples, the last one shorter.
std::vector<std::pair<double, double>> SpeechSegments(const int16_t* samples, size_t count, int rateHz,
                                                      const std::string& params, int blockSamples);

}  // namespace ktcli
