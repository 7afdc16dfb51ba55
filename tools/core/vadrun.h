#pragma once
// The speech analyzer fed block by block, through the classes or the C interface; every
// result becomes a record handed on as soon as the block that produced it is done.
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "audioanalyzer.h"
#include "records.h"

namespace ktcli {

// Frames are decided before their results leave the analyzer's queue: the decisions wait
// here until their frame comes out.
class DecisionJoin {
 public:
  void Add(const kt::FrameDecision& decision) { _decisions.push_back(decision); }
  // The decision of this frame, dropping those of earlier frames; none for the short last
  // frame of a flush, which is never decided.
  std::optional<kt::FrameDecision> Take(int frameIndex);
  void Clear() { _decisions.clear(); }

 private:
  std::deque<kt::FrameDecision> _decisions;
};

class VadRun {
 public:
  using FrameSink = std::function<void(const kt::FrameDecision&)>;

  // Which records to build: stream, events, segments and end always, the others on request.
  struct Wanted {
    bool volume = false;
    bool frames = false;
  };

  // kt::AudioAnalyzer with the parameter string; flushed by Finish. Records name file.
  VadRun(const std::string& file, int rateHz, const std::string& params, int blockSamples, Wanted wanted,
         RecordSink sink, FrameSink frameSink = nullptr);
  // KTRVAD_* with its defaults; every pending result is fetched after each block. Times are
  // when the host hears of a result: the end of the block whose call reported it.
  VadRun(const std::string& file, int rateHz, int blockSamples, Wanted wanted, RecordSink sink);
  ~VadRun();
  VadRun(const VadRun&) = delete;
  VadRun& operator=(const VadRun&) = delete;

  void Process(const kt::AudioData& block);
  // Ends the stream: the analyzer's flush through the classes, and a segment still going on
  // closed at the end, marked open when interrupted or through the C interface.
  void Finish(bool interrupted);

 private:
  template <typename T>
  void Emit(T body) {
    _sink(Record{_file, std::move(body)});
  }
  void Drain();
  void AddEvent(kt::AnalyzerEvent::EventTag tag, double timeMs);
  void CloseOpenSegment(double endS);

  std::shared_ptr<const std::string> _file;
  int _rateHz;
  Wanted _wanted;
  RecordSink _sink;
  std::unique_ptr<kt::AudioAnalyzer> _analyzer;  // null through the C interface
  DecisionJoin _decisions;
  uint64_t _samples = 0;
  bool _finishing = false;
  bool _interrupted = false;
  std::optional<double> _openStartS;
};

// The segments `vad` prints, in seconds, for samples held in memory and handed on through the
// classes in host blocks of blockSamples, the last one shorter.
std::vector<std::pair<double, double>> SpeechSegments(const int16_t* samples, size_t count, int rateHz,
                                                      const std::string& params, int blockSamples);

// A segment with the volume readings dated inside it (after its start, up to its end).
struct SegmentVolume {
  double startS;
  double endS;
  std::optional<double> peakdBFS;          // the highest volumedBFS; none without readings
  std::optional<double> meanSnrVolumePct;  // the mean SNR volume; none without readings
};

// The same segments with their volume, from one run over the samples.
std::vector<SegmentVolume> SpeechSegmentsWithVolume(const int16_t* samples, size_t count, int rateHz,
                                                    const std::string& params, int blockSamples);

}  // namespace ktcli
