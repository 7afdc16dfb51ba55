// kt::AudioAnalyzer driven by a fuzzed script: a rate and a parameter string, then any
// interleaving of Process, Flush, Reset, UpdateParameters, SetEOSTimeout and GetResult.
// Refusals carry their texts; results come in order: frames numbered from 0 in each
// utterance, marked as the events before them say, events in AboveVOR/SpeechStart and
// BelowVOR/SpeechEnd pairs, readings within range.
#include <cmath>
#include <memory>
#include <stdexcept>

#include "audioanalyzer.h"
#include "fuzz_input.h"

namespace {

using kt::AnalyzerEvent;

struct Checker {
  kt::AudioAnalyzer& a;
  int nextFrame = 0;
  bool inSpeech = false;
  int pending = -1;  // AboveVOR or BelowVOR awaiting its partner

  void Drain(size_t n) {
    kt::AnalyzerResultPtr r;
    for (size_t i = 0; i < n && a.GetResult(r); ++i) {
      if (const auto* e = dynamic_cast<const AnalyzerEvent*>(r.get())) {
        const int tag = e->GetTag();
        FUZZ_CHECK(pending < 0 ? (tag == AnalyzerEvent::AboveVOR && !inSpeech) || (tag == AnalyzerEvent::BelowVOR && inSpeech)
                               : tag == (pending == AnalyzerEvent::AboveVOR ? AnalyzerEvent::SpeechStart : AnalyzerEvent::SpeechEnd));
        pending = pending < 0 ? tag : -1;
        if (pending < 0) inSpeech = tag == AnalyzerEvent::SpeechStart;
      } else if (const auto* f = dynamic_cast<const kt::AnalyzerAudioFrame*>(r.get())) {
        FUZZ_CHECK(pending < 0 && f->GetFrameIndex() == nextFrame++ && f->IsSpeechSegmentFrame() == inSpeech);
      } else if (const auto* m = dynamic_cast<const kt::AnalyzerVolumeMeter*>(r.get())) {
        FUZZ_CHECK(pending < 0 && m->IsSpeechState() == inSpeech && !(m->GetSNRVolumePct() > 100.0) &&
                   !std::isnan(m->GetSNRVolumePct()));
        FUZZ_CHECK(m->GetVolume() >= 0 && m->GetVolume() <= 32768 && m->GetInfo() >= 0 && m->GetInfo() <= 3);
      }
    }
  }
  // An utterance ends with its frames (the leftover one included) and a closed segment.
  void Flush() {
    Drain(SIZE_MAX);
    a.Flush();
    Drain(SIZE_MAX);
    FUZZ_CHECK(!inSpeech && pending < 0);
    nextFrame = 0;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const uint8_t r = in.Byte() % 4;
  const double rate = r == 0 ? 8000.0 : r == 1 ? 11025.0 : r == 2 ? 16000.0 : in.Float<double, 8>();
  const bool supply = in.Bool();
  const std::string params = in.Text();
  if (fuzz::Unaffordable(params)) return 0;
  std::unique_ptr<kt::AudioAnalyzer> analyzer;
  try {
    analyzer = std::make_unique<kt::AudioAnalyzer>(params, rate, supply);
  } catch (const std::invalid_argument& e) {
    const std::string what = e.what();
    const bool supported = rate == 8000.0 || rate == 11025.0 || rate == 16000.0;
    FUZZ_CHECK(!supported ? what == "Sampling rate" : what == "Invalid format" || what == "Value out of range");
    return 0;
  }
  Checker checker{*analyzer};
  fuzz::SignalMaker signal;
  size_t budget = 250000;  // samples: some 15 to 30 s, still fast under the sanitizers
  while (!in.Done()) {
    switch (in.Byte() % 8) {
      case 0:
      case 1: {
        const kt::AudioData block = signal.Block(in);
        for (int repeat = in.Byte() % 32 + 1; repeat > 0 && block.size() <= budget; --repeat) {
          budget -= block.size();
          analyzer->Process(block);
        }
        break;
      }
      case 2:
        checker.Flush();
        break;
      case 3:
        checker.Drain(SIZE_MAX);
        analyzer->Reset();
        checker.nextFrame = 0;  // Reset closes no segment and queues nothing
        checker.inSpeech = false;
        break;
      case 4: {
        const std::string update = in.Text();
        if (fuzz::Unaffordable(update)) break;
        try {
          analyzer->UpdateParameters(update);
        } catch (const std::invalid_argument& e) {
          FUZZ_CHECK(std::string(e.what()) == "Invalid format" || std::string(e.what()) == "Value out of range");
        }
        break;
      }
      case 5: {
        const int before = analyzer->GetEOSTimeout();
        const int timeout = in.Bool() ? static_cast<int>(in.U16() % 13000) - 100 : in.I32();
        try {
          analyzer->SetEOSTimeout(timeout);
          FUZZ_CHECK(analyzer->GetEOSTimeout() == timeout);
        } catch (const std::invalid_argument&) {
          FUZZ_CHECK(analyzer->GetEOSTimeout() == before);
        }
        break;
      }
      case 6:
        checker.Drain(in.Byte());
        break;
      default:
        analyzer->Process(kt::AudioData(in.Byte() % 3, static_cast<int16_t>(in.U16())));
        break;
    }
  }
  checker.Flush();
  return 0;
}
