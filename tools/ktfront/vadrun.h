#pragma once
// One pass of the speech analyzer over a recording, through the classes or the C
// interface, kept as JSON records in the order the results came out.
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "audiodata.h"

namespace ktcli {

class FrameTrace;

class Segment {
 public:
  Segment(double startS, double endS, bool open) : _startS(startS), _endS(endS), _open(open) {}
  double GetStartS() const { return _startS; }
  double GetEndS() const { return _endS; }
  // Still in speech when the recording ended (only the C interface leaves one open).
  bool IsOpen() const { return _open; }

 private:
  double _startS;
  double _endS;
  bool _open;
};

class VadRun {
 public:
  // kt::AudioAnalyzer with the parameter string, fed block by block, then flushed.
  static VadRun ThroughClasses(const kt::AudioData& samples, int rateHz, const std::string& params,
                               int blockSamples);
  // KTRVAD_* with its defaults; every pending result is fetched after each block. Times
  // are when the host hears of a result: the end of the block whose call reported it.
  static VadRun ThroughCInterface(const kt::AudioData& samples, int rateHz, int blockSamples);

  // Adds to every whole frame's record the energy, thresholds and levels it was decided by.
  void AddFrameTrace(const FrameTrace& trace);

  // Records of type "stream", "event", "volume", "frame" and "segment".
  const std::vector<nlohmann::ordered_json>& GetRecords() const { return _records; }
  const std::vector<Segment>& GetSegments() const { return _segments; }

 private:
  VadRun() = default;
  void Add(nlohmann::ordered_json record);
  // Pairs starts with ends into segments; an end without a start is ignored.
  void AddEvent(const std::string& tag, double timeMs);
  void CloseOpenSegment(double endS);

  std::vector<nlohmann::ordered_json> _records;
  std::vector<Segment> _segments;
  std::optional<double> _openStartS;
};

}  // namespace ktcli
