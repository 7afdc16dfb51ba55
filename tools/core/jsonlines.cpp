// The one place the records meet JSON.
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "writers.h"

namespace ktcli {
namespace {

using Json = nlohmann::ordered_json;

// NaN, a level not learnt yet, becomes null.
Json Level(double db) { return std::isnan(db) ? Json() : Json(db); }

struct ToJson {
  Json operator()(const StreamRecord& r) const {
    return {{"type", "stream"}, {"api", r.throughC ? "c" : "classes"}, {"rateHz", r.rateHz},
            {"blockSamples", r.blockSamples}};
  }
  Json operator()(const EventRecord& r) const {
    return {{"type", "event"}, {"tag", kt::ToString(r.tag)}, {"timeMs", r.timeMs}};
  }
  Json operator()(const VolumeRecord& r) const {
    if (!r.levels) return {{"type", "volume"}, {"timeMs", r.timeMs}, {"snrVolumePct", r.snrVolumePct}, {"info", kt::ToString(r.info)}};
    return {{"type", "volume"},          {"timeMs", r.timeMs},           {"volumedBFS", r.levels->volumedBFS},
            {"volume", r.levels->volume}, {"snrVolumePct", r.snrVolumePct}, {"info", kt::ToString(r.info)},
            {"isSpeechState", r.levels->isSpeechState}};
  }
  Json operator()(const FrameRecord& r) const {
    Json json = {{"type", "frame"},
                 {"frameIndex", r.frameIndex},
                 {"timeMs", r.timeMs},
                 {"isSpeechSegmentFrame", r.isSpeechSegmentFrame},
                 {"numSamples", r.numSamples}};
    if (r.decision) {
      json["energyDb"] = r.decision->energy;
      json["startThresholdDb"] = r.decision->speechStartThreshold;
      json["endThresholdDb"] = r.decision->speechEndThreshold;
      json["noiseLevelDb"] = Level(r.decision->noiseLevel);
      json["speechLevelDb"] = Level(r.decision->speechLevel);
    }
    return json;
  }
  Json operator()(const SegmentRecord& r) const {
    return {{"type", "segment"}, {"start", r.startS}, {"end", r.endS}, {"open", r.open}};
  }
  Json operator()(const GainRecord& r) const {
    Json json = {{"timeS", r.timeS}, {"gain", r.gain}, {"decision", DecisionWord(r)}};
    if (r.volume) {
      json["volume"] = r.volume->volume;
      json["bound"] = r.volume->bound;
    }
    if (const auto& d = r.decision) {
      json["logTimeMs"] = d->timeMs;
      json["currentGain"] = d->currentGain;
      json["a"] = d->lowerLevel;
      json["a2"] = d->lowerLevel2;
      json["b2"] = d->upperLevel2;
      json["b"] = d->upperLevel;
      json["clippingFraction"] = d->clippingFraction;
      json["n"] = d->numLevels;
    }
    return json;
  }
  Json operator()(const EndRecord& r) const {
    return {{"type", "end"}, {"samples", r.samples}, {"interrupted", r.interrupted}};
  }
};

}  // namespace

std::string JsonLinesWriter::Take(const Record& record) {
  Json json = std::visit(ToJson{}, record.body);
  if (_nameFile && record.file) json["file"] = *record.file;
  return json.dump() + "\n";
}

std::string JsonLinesWriter::Failure(const std::string& file, const std::string& why) {
  return Json{{"type", "error"}, {"file", file}, {"message", why}}.dump() + "\n";
}

bool ParseJsonSegment(const std::string& line, Region& region) {
  nlohmann::json record;
  try {
    record = nlohmann::json::parse(line);
  } catch (const nlohmann::json::exception&) {
    throw std::invalid_argument("not a JSON object");
  }
  if (!record.is_object() || record.value("type", "") != "segment") return false;
  if (!record.contains("start") || !record.contains("end") || !record["start"].is_number() || !record["end"].is_number()) {
    throw std::invalid_argument("segment without numeric start and end");
  }
  region = {record["start"].get<double>(), record["end"].get<double>()};
  return true;
}

}  // namespace ktcli
