#include "vadrun.h"

#include <KTRVAD.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "audioanalyzer.h"
#include "frametrace.h"

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

nlohmann::ordered_json StreamRecord(const char* api, int rateHz, int blockSamples, size_t samples) {
  return {{"type", "stream"}, {"api", api},          {"rateHz", rateHz},
          {"blockSamples", blockSamples}, {"samples", samples}};
}

}  // namespace

void VadRun::Add(nlohmann::ordered_json record) { _records.push_back(std::move(record)); }

void VadRun::AddEvent(const std::string& tag, double timeMs) {
  Add({{"type", "event"}, {"tag", tag}, {"timeMs", timeMs}});
  if (tag == "SpeechStart") {
    _openStartS = timeMs / 1000.0;
  } else if (tag == "SpeechEnd" && _openStartS) {
    _segments.emplace_back(*_openStartS, timeMs / 1000.0, false);
    Add({{"type", "segment"}, {"start", *_openStartS}, {"end", timeMs / 1000.0}, {"open", false}});
    _openStartS.reset();
  }
}

void VadRun::CloseOpenSegment(double endS) {
  if (!_openStartS) return;
  _segments.emplace_back(*_openStartS, endS, true);
  Add({{"type", "segment"}, {"start", *_openStartS}, {"end", endS}, {"open", true}});
  _openStartS.reset();
}

void VadRun::AddFrameTrace(const FrameTrace& trace) {
  // NaN, a level not learnt yet, becomes null.
  auto value = [](double db) { return std::isnan(db) ? nlohmann::ordered_json() : nlohmann::ordered_json(db); };
  for (nlohmann::ordered_json& record : _records) {
    if (record["type"] != "frame") continue;
    const size_t i = record["frameIndex"].get<size_t>();
    if (i >= trace.GetNumFrames()) continue;  // the flushed partial frame
    record["energyDb"] = trace.GetEnergiesDb()[i];
    record["startThresholdDb"] = trace.GetStartThresholdsDb()[i];
    record["endThresholdDb"] = trace.GetEndThresholdsDb()[i];
    record["noiseLevelDb"] = value(trace.GetNoiseLevelsDb()[i]);
    record["speechLevelDb"] = value(trace.GetSpeechLevelsDb()[i]);
  }
}

VadRun VadRun::ThroughClasses(const kt::AudioData& samples, int rateHz, const std::string& params,
                              int blockSamples) {
  VadRun run;
  run.Add(StreamRecord("classes", rateHz, blockSamples, samples.size()));
  kt::AudioAnalyzer analyzer(params, rateHz, true);
  const double frameMs = analyzer.GetFrameSizeMs();
  auto drain = [&]() {
    kt::AnalyzerResultPtr result;
    while (analyzer.GetResult(result)) {
      if (result->GetType() == kt::AnalyzerResult::RT_Event) {
        const auto& event = static_cast<const kt::AnalyzerEvent&>(*result);
        run.AddEvent(TagName(event.GetTag()), event.GetTimeMs());
      } else if (result->GetType() == kt::AnalyzerResult::RT_VolumeMeter) {
        const auto& meter = static_cast<const kt::AnalyzerVolumeMeter&>(*result);
        run.Add({{"type", "volume"},
                 {"timeMs", meter.GetTimeMs()},
                 {"volumedBFS", meter.GetVolumedBFS()},
                 {"volume", meter.GetVolume()},
                 {"snrVolumePct", meter.GetSNRVolumePct()},
                 {"info", InfoName(meter.GetInfo())},
                 {"isSpeechState", meter.IsSpeechState()}});
      } else {
        const auto& frame = static_cast<const kt::AnalyzerAudioFrame&>(*result);
        run.Add({{"type", "frame"},
                 {"frameIndex", frame.GetFrameIndex()},
                 {"timeMs", frame.GetFrameIndex() * frameMs},
                 {"isSpeechSegmentFrame", frame.IsSpeechSegmentFrame()},
                 {"numSamples", frame.GetData().size()}});
      }
    }
  };
  for (size_t begin = 0; begin < samples.size(); begin += blockSamples) {
    const size_t end = std::min(samples.size(), begin + blockSamples);
    analyzer.Process(kt::AudioData(samples.begin() + begin, samples.begin() + end));
    drain();
  }
  analyzer.Flush();
  drain();
  run.CloseOpenSegment(static_cast<double>(samples.size()) / rateHz);
  return run;
}

VadRun VadRun::ThroughCInterface(const kt::AudioData& samples, int rateHz, int blockSamples) {
  VadRun run;
  run.Add(StreamRecord("c", rateHz, blockSamples, samples.size()));
  if (KTRVAD_Init(rateHz) != 0) throw std::runtime_error("KTRVAD_Init failed");
  for (size_t begin = 0; begin < samples.size(); begin += blockSamples) {
    const size_t end = std::min(samples.size(), begin + blockSamples);
    const double reportMs = 1000.0 * static_cast<double>(end) / rateHz;
    int start = 1;
    int result = KTRVAD_RESULT_NONE;
    do {
      double volumePct = 0.0;
      int volumeInfo = 0;
      const int code = KTRVAD_GetResult(start, samples.data() + begin,
                                        static_cast<unsigned int>((end - begin) * sizeof(int16_t)),
                                        &result, &volumePct, &volumeInfo);
      if (code != 0) {
        KTRVAD_Deinit();
        throw std::runtime_error("KTRVAD_GetResult returned " + std::to_string(code));
      }
      if (result == KTRVAD_RESULT_SPEECH_START) run.AddEvent("SpeechStart", reportMs);
      if (result == KTRVAD_RESULT_SPEECH_END) run.AddEvent("SpeechEnd", reportMs);
      if (result == KTRVAD_RESULT_VOLUME) {
        run.Add({{"type", "volume"},
                 {"timeMs", reportMs},
                 {"snrVolumePct", volumePct},
                 {"info", InfoName(volumeInfo)}});
      }
      start = 0;
    } while (result != KTRVAD_RESULT_NONE);
  }
  KTRVAD_Deinit();
  run.CloseOpenSegment(static_cast<double>(samples.size()) / rateHz);
  return run;
}

}  // namespace ktcli
