#pragma once
// What the runs of the two services hand on: one typed record per result, in the order the
// results come out, each naming the file it came from. Writers (writers.h) turn them into text.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "agc.h"
#include "audioanalyzer.h"

namespace ktcli {

// A run begins: the interface, the rate the service runs at and the host block.
struct StreamRecord {
  bool throughC = false;
  int rateHz = 0;
  int blockSamples = 0;
};

struct EventRecord {
  kt::AnalyzerEvent::EventTag tag;
  double timeMs;
};

// A volume reading. The C interface gives the SNR volume and the verdict only.
struct VolumeRecord {
  struct Levels {
    double volumedBFS;
    double volume;
    bool isSpeechState;
  };
  double timeMs;
  double snrVolumePct;
  kt::AnalyzerVolumeMeter::Info info;
  std::optional<Levels> levels;  // through the classes
};

// A frame result with the values it was decided by; the short last frame of a flush has none.
struct FrameRecord {
  int frameIndex;
  double timeMs;
  bool isSpeechSegmentFrame;
  size_t numSamples;
  std::optional<kt::FrameDecision> decision;
};

// A speech segment in seconds. Open: not ended by the analyzer, but by the end of the input
// through the C interface or by an interruption.
struct SegmentRecord {
  double startS;
  double endS;
  bool open;
};

// A gain the host sets after the block ending at timeS.
struct GainRecord {
  struct Volume {
    long volume;
    long bound;
  };
  double timeS;
  float gain;
  std::optional<kt::GainDecision> decision;  // through the classes, when the control decided
  std::optional<Volume> volume;              // through the C interface
};

// The run ends: the samples it read, and whether SIGINT or SIGTERM cut it short.
struct EndRecord {
  uint64_t samples;
  bool interrupted;
};

struct Record {
  std::shared_ptr<const std::string> file;
  std::variant<StreamRecord, EventRecord, VolumeRecord, FrameRecord, SegmentRecord, GainRecord, EndRecord> body;

  template <typename T>
  const T* Get() const {
    return std::get_if<T>(&body);
  }
};

using RecordSink = std::function<void(const Record&)>;

// The decision word of a gain update: the record word of the diagnostic log (kt::ToString of
// the outcome), "median" for the restart at gain 0, "-" through the C interface.
const char* DecisionWord(const GainRecord& gain);

}  // namespace ktcli
