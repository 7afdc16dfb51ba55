#include "vadrun.h"

#include <KTRVAD.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace ktcli {
namespace {

const char* TagName(kt::AnalyzerEvent::EventTag tag) {
  switch (tag) {
    case kt::AnalyzerEvent::SpeechStart: return "SpeechStart";
    case kt::AnalyzerEvent::SpeechEnd: return "SpeechEnd";
    case kt::AnalyzerEvent::BelowVOR: return "BelowVOR";
    case kt::AnalyzerEvent::AboveVOR: return "AboveVOR";
  }
  return "?";
}

const char* InfoName(int info) {
  static const char* const kNames[] = {"OK", "TooNoisy", "TooSoft", "TooLoud"};
  return info >= 0 && info < 4 ? kNames[info] : "?";
}

// NaN, a level not learnt yet, becomes null.
nlohmann::ordered_json Level(double db) {
  return std::isnan(db) ? nlohmann::ordered_json() : nlohmann::ordered_json(db);
}

}  // namespace

VadRun::VadRun(int rateHz, const std::string& params, int blockSamples, Wanted wanted, RecordSink sink,
               FrameSink frameSink)
    : _rateHz(rateHz), _blockSamples(blockSamples), _wanted(wanted), _sink(std::move(sink)) {
  _analyzer = std::make_unique<kt::AudioAnalyzer>(params, rateHz, wanted.frames);
  if (wanted.frames || frameSink) {
    _analyzer->SetFrameObserver([this, frameSink](const kt::FrameDecision& decision) {
      if (_wanted.frames) _decisions.push_back(decision);
      if (frameSink) frameSink(decision);
    });
  }
  Emit({{"type", "stream"}, {"api", "classes"}, {"rateHz", rateHz}, {"blockSamples", blockSamples}});
}

VadRun::VadRun(int rateHz, int blockSamples, Wanted wanted, RecordSink sink)
    : _rateHz(rateHz), _blockSamples(blockSamples), _wanted(wanted), _sink(std::move(sink)) {
  if (KTRVAD_Init(rateHz) != 0) throw std::runtime_error("KTRVAD_Init failed");
  Emit({{"type", "stream"}, {"api", "c"}, {"rateHz", rateHz}, {"blockSamples", blockSamples}});
}

VadRun::~VadRun() {
  if (!_analyzer) KTRVAD_Deinit();
}

void VadRun::AddEvent(const char* tag, double timeMs) {
  Emit({{"type", "event"}, {"tag", tag}, {"timeMs", timeMs}});
  const std::string name = tag;
  if (name == "SpeechStart") {
    _openStartS = timeMs / 1000.0;
  } else if (name == "SpeechEnd" && _openStartS) {
    // The end the flush gives an interrupted stream is where the input stopped, not speech.
    const bool open = _finishing && _interrupted;
    Emit({{"type", "segment"}, {"start", *_openStartS}, {"end", timeMs / 1000.0}, {"open", open}});
    _openStartS.reset();
  }
}

void VadRun::CloseOpenSegment(double endS) {
  if (!_openStartS) return;
  Emit({{"type", "segment"}, {"start", *_openStartS}, {"end", endS}, {"open", true}});
  _openStartS.reset();
}

void VadRun::Process(const kt::AudioData& block) {
  _samples += block.size();
  if (_analyzer) {
    _analyzer->Process(block);
    Drain();
    return;
  }
  const double reportMs = 1000.0 * static_cast<double>(_samples) / _rateHz;
  int start = 1;
  int result = KTRVAD_RESULT_NONE;
  do {
    double volumePct = 0.0;
    int volumeInfo = 0;
    const int code = KTRVAD_GetResult(start, block.data(), static_cast<unsigned int>(block.size() * sizeof(int16_t)),
                                      &result, &volumePct, &volumeInfo);
    if (code != 0) throw std::runtime_error("KTRVAD_GetResult returned " + std::to_string(code));
    if (result == KTRVAD_RESULT_SPEECH_START) AddEvent("SpeechStart", reportMs);
    if (result == KTRVAD_RESULT_SPEECH_END) AddEvent("SpeechEnd", reportMs);
    if (result == KTRVAD_RESULT_VOLUME && _wanted.volume) {
      Emit({{"type", "volume"}, {"timeMs", reportMs}, {"snrVolumePct", volumePct}, {"info", InfoName(volumeInfo)}});
    }
    start = 0;
  } while (result != KTRVAD_RESULT_NONE);
}

void VadRun::Drain() {
  const double frameMs = _analyzer->GetFrameSizeMs();
  kt::AnalyzerResultPtr result;
  while (_analyzer->GetResult(result)) {
    if (result->GetType() == kt::AnalyzerResult::RT_Event) {
      const auto& event = static_cast<const kt::AnalyzerEvent&>(*result);
      AddEvent(TagName(event.GetTag()), event.GetTimeMs());
    } else if (result->GetType() == kt::AnalyzerResult::RT_VolumeMeter) {
      if (!_wanted.volume) continue;
      const auto& meter = static_cast<const kt::AnalyzerVolumeMeter&>(*result);
      Emit({{"type", "volume"},
            {"timeMs", meter.GetTimeMs()},
            {"volumedBFS", meter.GetVolumedBFS()},
            {"volume", meter.GetVolume()},
            {"snrVolumePct", meter.GetSNRVolumePct()},
            {"info", InfoName(meter.GetInfo())},
            {"isSpeechState", meter.IsSpeechState()}});
    } else if (_wanted.frames) {
      const auto& frame = static_cast<const kt::AnalyzerAudioFrame&>(*result);
      nlohmann::ordered_json record = {{"type", "frame"},
                                       {"frameIndex", frame.GetFrameIndex()},
                                       {"timeMs", frame.GetFrameIndex() * frameMs},
                                       {"isSpeechSegmentFrame", frame.IsSpeechSegmentFrame()},
                                       {"numSamples", frame.GetData().size()}};
      // Every whole frame is decided before its result comes out; the flushed partial one is not.
      while (!_decisions.empty() && _decisions.front().frameIndex < frame.GetFrameIndex()) _decisions.pop_front();
      if (!_decisions.empty() && _decisions.front().frameIndex == frame.GetFrameIndex()) {
        const kt::FrameDecision& d = _decisions.front();
        record["energyDb"] = d.energy;
        record["startThresholdDb"] = d.speechStartThreshold;
        record["endThresholdDb"] = d.speechEndThreshold;
        record["noiseLevelDb"] = Level(d.noiseLevel);
        record["speechLevelDb"] = Level(d.speechLevel);
        _decisions.pop_front();
      }
      Emit(record);
    }
  }
}

void VadRun::Finish(bool interrupted) {
  _finishing = true;
  _interrupted = interrupted;
  if (_analyzer) {
    _analyzer->Flush();
    Drain();
  }
  CloseOpenSegment(static_cast<double>(_samples) / _rateHz);
  Emit({{"type", "end"}, {"samples", _samples}, {"interrupted", interrupted}});
}

std::vector<std::pair<double, double>> SpeechSegments(const int16_t* samples, size_t count, int rateHz,
                                                      const std::string& params, int blockSamples) {
  std::vector<std::pair<double, double>> segments;
  VadRun run(rateHz, params, blockSamples, VadRun::Wanted{}, [&](const nlohmann::ordered_json& record) {
    if (record["type"] == "segment") segments.emplace_back(record["start"].get<double>(), record["end"].get<double>());
  });
  const size_t step = static_cast<size_t>(blockSamples);
  kt::AudioData block;
  for (size_t at = 0; at < count; at += step) {
    block.assign(samples + at, samples + at + std::min(step, count - at));
    run.Process(block);
  }
  run.Finish(false);
  return segments;
}

}  // namespace ktcli
