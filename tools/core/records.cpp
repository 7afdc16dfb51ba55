#include "records.h"

namespace ktcli {

const char* ToString(kt::AnalyzerEvent::EventTag tag) {
  switch (tag) {
    case kt::AnalyzerEvent::SpeechStart: return "SpeechStart";
    case kt::AnalyzerEvent::SpeechEnd: return "SpeechEnd";
    case kt::AnalyzerEvent::BelowVOR: return "BelowVOR";
    case kt::AnalyzerEvent::AboveVOR: return "AboveVOR";
  }
  return "?";
}

const char* ToString(kt::AnalyzerVolumeMeter::Info info) {
  switch (info) {
    case kt::AnalyzerVolumeMeter::OK: return "OK";
    case kt::AnalyzerVolumeMeter::TooNoisy: return "TooNoisy";
    case kt::AnalyzerVolumeMeter::TooSoft: return "TooSoft";
    case kt::AnalyzerVolumeMeter::TooLoud: return "TooLoud";
  }
  return "?";
}

const char* ToString(kt::GainDecision::Outcome outcome) {
  switch (outcome) {
    case kt::GainDecision::TooLow: return "toolow";
    case kt::GainDecision::TooHigh: return "toohigh";
    case kt::GainDecision::SpeechOnset: return "speech";
    case kt::GainDecision::Pause: return "pause";
    case kt::GainDecision::Nil: return "nil";
  }
  return "?";
}

const char* DecisionWord(const GainRecord& gain) {
  if (gain.decision) return ktcli::ToString(gain.decision->outcome);
  return gain.volume ? "-" : "median";
}

}  // namespace ktcli
