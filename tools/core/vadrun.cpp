#include "vadrun.h"

#include <KTRVAD.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "blocks.h"

namespace ktcli {

std::optional<kt::FrameDecision> DecisionJoin::Take(int frameIndex) {
  while (!_decisions.empty() && _decisions.front().frameIndex < frameIndex) _decisions.pop_front();
  if (_decisions.empty() || _decisions.front().frameIndex != frameIndex) return std::nullopt;
  const kt::FrameDecision decision = _decisions.front();
  _decisions.pop_front();
  return decision;
}

VadRun::VadRun(const std::string& file, int rateHz, const std::string& params, int blockSamples, Wanted wanted,
               RecordSink sink, FrameSink frameSink)
    : _file(std::make_shared<const std::string>(file)), _rateHz(rateHz), _wanted(wanted), _sink(std::move(sink)) {
  _analyzer = std::make_unique<kt::AudioAnalyzer>(params, rateHz, wanted.frames);
  if (wanted.frames || frameSink) {
    _analyzer->SetFrameObserver([this, frameSink](const kt::FrameDecision& decision) {
      if (_wanted.frames) _decisions.Add(decision);
      if (frameSink) frameSink(decision);
    });
  }
  Emit(StreamRecord{false, rateHz, blockSamples});
}

VadRun::VadRun(const std::string& file, int rateHz, int blockSamples, Wanted wanted, RecordSink sink)
    : _file(std::make_shared<const std::string>(file)), _rateHz(rateHz), _wanted(wanted), _sink(std::move(sink)) {
  if (KTRVAD_Init(rateHz) != 0) throw std::runtime_error("KTRVAD_Init failed");
  Emit(StreamRecord{true, rateHz, blockSamples});
}

VadRun::~VadRun() {
  if (!_analyzer) KTRVAD_Deinit();
}

void VadRun::AddEvent(kt::AnalyzerEvent::EventTag tag, double timeMs) {
  Emit(EventRecord{tag, timeMs});
  if (tag == kt::AnalyzerEvent::SpeechStart) {
    _openStartS = timeMs / 1000.0;
  } else if (tag == kt::AnalyzerEvent::SpeechEnd && _openStartS) {
    // The end the flush gives an interrupted stream is where the input stopped, not speech.
    const bool open = _finishing && _interrupted;
    Emit(SegmentRecord{*_openStartS, timeMs / 1000.0, open});
    _openStartS.reset();
  }
}

void VadRun::CloseOpenSegment(double endS) {
  if (!_openStartS) return;
  Emit(SegmentRecord{*_openStartS, endS, true});
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
    if (result == KTRVAD_RESULT_SPEECH_START) AddEvent(kt::AnalyzerEvent::SpeechStart, reportMs);
    if (result == KTRVAD_RESULT_SPEECH_END) AddEvent(kt::AnalyzerEvent::SpeechEnd, reportMs);
    if (result == KTRVAD_RESULT_VOLUME && _wanted.volume) {
      Emit(VolumeRecord{reportMs, volumePct, static_cast<kt::AnalyzerVolumeMeter::Info>(volumeInfo), std::nullopt});
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
      AddEvent(event.GetTag(), event.GetTimeMs());
    } else if (result->GetType() == kt::AnalyzerResult::RT_VolumeMeter) {
      if (!_wanted.volume) continue;
      const auto& meter = static_cast<const kt::AnalyzerVolumeMeter&>(*result);
      Emit(VolumeRecord{meter.GetTimeMs(), meter.GetSNRVolumePct(), meter.GetInfo(),
                        VolumeRecord::Levels{meter.GetVolumedBFS(), meter.GetVolume(), meter.IsSpeechState()}});
    } else if (_wanted.frames) {
      const auto& frame = static_cast<const kt::AnalyzerAudioFrame&>(*result);
      Emit(FrameRecord{frame.GetFrameIndex(), frame.GetFrameIndex() * frameMs, frame.IsSpeechSegmentFrame(),
                       frame.GetData().size(), _decisions.Take(frame.GetFrameIndex())});
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
  Emit(EndRecord{_samples, interrupted});
}

std::vector<std::pair<double, double>> SpeechSegments(const int16_t* samples, size_t count, int rateHz,
                                                      const std::string& params, int blockSamples) {
  std::vector<std::pair<double, double>> segments;
  VadRun run("", rateHz, params, blockSamples, VadRun::Wanted{}, [&](const Record& record) {
    if (const auto* segment = record.Get<SegmentRecord>()) segments.emplace_back(segment->startS, segment->endS);
  });
  ForEachBlock(samples, count, blockSamples, [&](const kt::AudioData& block) { run.Process(block); });
  run.Finish(false);
  return segments;
}

std::vector<SegmentVolume> SpeechSegmentsWithVolume(const int16_t* samples, size_t count, int rateHz,
                                                    const std::string& params, int blockSamples) {
  std::vector<SegmentVolume> segments;
  std::vector<VolumeRecord> readings;
  VadRun run("", rateHz, params, blockSamples, VadRun::Wanted{true, false}, [&](const Record& record) {
    if (const auto* segment = record.Get<SegmentRecord>()) {
      segments.push_back({segment->startS, segment->endS, std::nullopt, std::nullopt});
    } else if (const auto* volume = record.Get<VolumeRecord>()) {
      readings.push_back(*volume);
    }
  });
  ForEachBlock(samples, count, blockSamples, [&](const kt::AudioData& block) { run.Process(block); });
  run.Finish(false);
  for (SegmentVolume& segment : segments) {
    double sum = 0.0;
    int inside = 0;
    for (const VolumeRecord& reading : readings) {
      if (!(segment.startS * 1000 < reading.timeMs && reading.timeMs <= segment.endS * 1000)) continue;
      const double dBFS = reading.levels->volumedBFS;
      segment.peakdBFS = segment.peakdBFS ? std::max(*segment.peakdBFS, dBFS) : dBFS;
      sum += reading.snrVolumePct;
      ++inside;
    }
    if (inside > 0) segment.meanSnrVolumePct = sum / inside;
  }
  return segments;
}

}  // namespace ktcli
