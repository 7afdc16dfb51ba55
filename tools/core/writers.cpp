#include "writers.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <stdexcept>

#include "textformat.h"

namespace ktcli {
namespace {

// Times are kept to the millisecond, so a region written and read back is the same region.
long Ms(double seconds) { return std::lround(seconds * 1000.0); }
std::string Seconds(long ms) { return Fixed(static_cast<double>(ms) / 1000.0, 3); }

// A level on one decimal; "-" for one not learnt yet (NaN).
std::string Level(double db) { return std::isnan(db) ? std::string("-") : Fixed(db, 1); }

}  // namespace

std::string PlainWriter::Take(const Record& record) {
  if (const auto* segment = record.Get<SegmentRecord>()) {
    return Fixed(segment->startS, 3) + " " + Fixed(segment->endS, 3) + (segment->open ? " open\n" : "\n");
  }
  if (const auto* volume = record.Get<VolumeRecord>()) {
    if (!_volume) return "";
    const std::string level = volume->levels ? Fixed(volume->levels->volumedBFS, 1) : "-";
    return "volume " + Fixed(volume->timeMs / 1000.0, 3) + " " + level + " " + Fixed(volume->snrVolumePct, 1) + " " +
           kt::ToString(volume->info) + "\n";
  }
  if (const auto* frame = record.Get<FrameRecord>()) {
    if (!_frames) return "";
    std::string line = "frame " + std::to_string(frame->frameIndex) + " " + Fixed(frame->timeMs / 1000.0, 3) +
                       (frame->isSpeechSegmentFrame ? " speech" : " pause");
    if (const auto& d = frame->decision) {
      line += " " + Fixed(d->energy, 1) + " " + Fixed(d->speechStartThreshold, 1) + " " +
              Fixed(d->speechEndThreshold, 1) + " " + Level(d->noiseLevel) + " " + Level(d->speechLevel);
    }
    return line + "\n";
  }
  if (const auto* gain = record.Get<GainRecord>()) {
    return Fixed(gain->timeS, 3) + " " + Fixed(gain->gain, 6) + " " +
           (gain->volume ? std::to_string(gain->volume->volume) + "/" + std::to_string(gain->volume->bound)
                         : std::string(DecisionWord(*gain))) +
           "\n";
  }
  return "";
}

LabelWriter::LabelWriter(LabelFormat format, std::string fileId) : _format(format), _fileId(std::move(fileId)) {
  const bool blank = std::any_of(_fileId.begin(), _fileId.end(), [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
  if (_format == LabelFormat::Rttm && (_fileId.empty() || blank)) {
    throw std::invalid_argument("an RTTM recording ID must be one word, without blanks: \"" + _fileId + "\"");
  }
}

std::string LabelWriter::Line(const Region& region) const {
  const long start = Ms(region.startS);
  const long end = Ms(region.endS);
  switch (_format) {
    case LabelFormat::Audacity: return Seconds(start) + "\t" + Seconds(end) + "\tspeech\n";
    case LabelFormat::Rttm:
      return "SPEAKER " + _fileId + " 1 " + Seconds(start) + " " + Seconds(end - start) + " <NA> <NA> speech <NA> <NA>\n";
    case LabelFormat::Json:
      return "{\"type\":\"segment\",\"start\":" + Seconds(start) + ",\"end\":" + Seconds(end) + ",\"open\":false}\n";
    default: return Seconds(start) + " " + Seconds(end) + "\n";
  }
}

std::string LabelWriter::TextGrid(double durationS) const {
  long cursor = 0;
  std::vector<std::pair<std::pair<long, long>, bool>> intervals;
  for (const Region& region : Normalize(_regions)) {
    const long start = Ms(region.startS);
    const long end = Ms(region.endS);
    if (end <= start) continue;  // Praat allows no empty interval
    if (start > cursor) intervals.push_back({{cursor, start}, false});
    intervals.push_back({{start, end}, true});
    cursor = end;
  }
  const long xmax = std::max(cursor, Ms(durationS));
  if (xmax > cursor || intervals.empty()) intervals.push_back({{cursor, std::max(xmax, cursor + 1)}, false});
  const std::string end = Seconds(intervals.back().first.second);
  std::string text = "File type = \"ooTextFile\"\nObject class = \"TextGrid\"\n\nxmin = 0\nxmax = " + end +
                     "\ntiers? <exists>\nsize = 1\nitem []:\n    item [1]:\n        class = \"IntervalTier\"\n"
                     "        name = \"speech\"\n        xmin = 0\n        xmax = " + end +
                     "\n        intervals: size = " + std::to_string(intervals.size()) + "\n";
  for (size_t i = 0; i < intervals.size(); ++i) {
    text += "        intervals [" + std::to_string(i + 1) + "]:\n            xmin = " + Seconds(intervals[i].first.first) +
            "\n            xmax = " + Seconds(intervals[i].first.second) + "\n            text = \"" +
            (intervals[i].second ? "speech" : "") + "\"\n";
  }
  return text;
}

std::string LabelWriter::Take(const Record& record) {
  if (const auto* stream = record.Get<StreamRecord>()) _rateHz = stream->rateHz;
  if (const auto* segment = record.Get<SegmentRecord>()) {
    const Region region{segment->startS, segment->endS};
    if (_format == LabelFormat::TextGrid) {
      _regions.push_back(region);
      return "";
    }
    return Line(region);
  }
  const auto* end = record.Get<EndRecord>();
  if (end && _format == LabelFormat::TextGrid) {
    return TextGrid(_rateHz > 0 ? static_cast<double>(end->samples) / _rateHz : 0.0);
  }
  return "";
}

std::string LabelWriter::Write(const std::vector<Region>& regions, double durationS) {
  if (_format == LabelFormat::TextGrid) {
    _regions = regions;
    return TextGrid(durationS);
  }
  std::string text;
  for (const Region& region : regions) text += Line(region);
  return text;
}

}  // namespace ktcli
