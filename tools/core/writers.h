#pragma once
// Sinks of records: each turns the records of a run into the text of one output format.
#include <string>
#include <vector>

#include "labels.h"
#include "records.h"

namespace ktcli {

class RecordWriter {
 public:
  virtual ~RecordWriter() = default;
  // The text the record adds: whole lines, often none.
  virtual std::string Take(const Record& record) = 0;
};

// The tool's plain lines: "start end [open]" per segment; with volume, "volume TIME DBFS
// SNR% VERDICT"; with frames, "frame INDEX TIME speech|pause" and the values that decided
// it; "TIME GAIN DECISION" (or "VOLUME/BOUND" through the C interface) per gain update.
class PlainWriter : public RecordWriter {
 public:
  PlainWriter(bool volume, bool frames) : _volume(volume), _frames(frames) {}
  std::string Take(const Record& record) override;

 private:
  bool _volume;
  bool _frames;
};

// Every record as one JSON object a line (jsonlines.cpp); with nameFile, each also has a
// "file" field, the record's file, as when several files share one output.
class JsonLinesWriter : public RecordWriter {
 public:
  explicit JsonLinesWriter(bool nameFile = false) : _nameFile(nameFile) {}
  std::string Take(const Record& record) override;
  // The line that stands for a file that failed: {"type":"error","file":...,"message":...}.
  static std::string Failure(const std::string& file, const std::string& why);

 private:
  bool _nameFile;
};

// Segments as a label file: each as soon as it is found, TextGrid (which states its length
// first) at the end of the stream.
class LabelWriter : public RecordWriter {
 public:
  // An RTTM ID is one of the line's space-separated fields: empty or with blanks it is refused
  // (std::invalid_argument); RecordingId gives one from a path.
  LabelWriter(LabelFormat format, std::string fileId);
  std::string Take(const Record& record) override;
  // All regions in one go, as Take would give them for a stream of durationS seconds.
  std::string Write(const std::vector<Region>& regions, double durationS);

 private:
  std::string Line(const Region& region) const;
  std::string TextGrid(double durationS) const;

  LabelFormat _format;
  std::string _fileId;
  int _rateHz = 0;
  std::vector<Region> _regions;
};

// A line of a JSON Lines file as a speech region: false for a record of another type;
// std::invalid_argument for a line that is no JSON object or a segment without numeric
// start and end (jsonlines.cpp).
bool ParseJsonSegment(const std::string& line, Region& region);

}  // namespace ktcli
