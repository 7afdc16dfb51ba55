// kt::AudioAnalyzer driven by a fuzzed script: a rate and a parameter string, then any
// interleaving of Process (blocks of any length and content), Flush, Reset,
// UpdateParameters, SetEOSTimeout and GetResult. Every result taken is checked against
// a model of the stream: frame results in order with their raw samples, one volume
// reading per block that completed a frame, events in AboveVOR/SpeechStart and
// BelowVOR/SpeechEnd pairs, speech flags that follow the events.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>

#include "audioanalyzer.h"
#include "fuzz_input.h"

namespace {

using kt::AnalyzerAudioFrame;
using kt::AnalyzerEvent;
using kt::AnalyzerResult;
using kt::AnalyzerResultPtr;
using kt::AnalyzerVolumeMeter;
using kt::AudioAnalyzer;
using kt::AudioData;

// Some 15 to 30 s of audio: several utterances, still fast under ASan.
constexpr size_t kSampleBudget = 250000;

std::string What(const std::invalid_argument& e) { return e.what(); }

bool IsBadConfiguration(const std::invalid_argument& e) {
  return What(e) == "Invalid format" || What(e) == "Value out of range";
}

class Checker {
 public:
  Checker(AudioAnalyzer& analyzer, double rate, bool supply)
      : _a(analyzer),
        _rate(rate),
        _supply(supply),
        _spf(static_cast<size_t>(analyzer.GetSamplesPerFrame())),
        _frameMs(analyzer.GetFrameSizeMs()) {}

  void Process(const AudioData& block) {
    const size_t framesBefore = _samples.size() / _spf;
    _samples.insert(_samples.end(), block.begin(), block.end());
    const size_t framesAfter = _samples.size() / _spf;
    _a.Process(block);
    if (framesAfter > framesBefore) {
      int peak = 0;
      for (size_t i = framesBefore * _spf; i < framesAfter * _spf; ++i) {
        peak = std::max(peak, std::abs(static_cast<int>(_samples[i])));
      }
      _meters.push_back({peak, _frameMs * static_cast<double>(framesAfter)});
    }
  }

  void Flush() {
    DrainAll();
    _a.Flush();
    _flushing = true;
    DrainAll();
    _flushing = false;
    FUZZ_CHECK(!_inSpeech);
    FUZZ_CHECK(_nextFrame == _samples.size() / _spf);
    FUZZ_CHECK(_leftoverSeen == (_samples.size() % _spf != 0));
    NewUtterance();
  }

  void Reset() {
    DrainAll();
    _a.Reset();
    NewUtterance();
    _inSpeech = false;  // Reset closes no segment: the next event may be a start again
  }

  // Takes up to n results; an empty queue answers false and leaves the pointer alone.
  void Drain(size_t n) {
    for (size_t i = 0; i < n; ++i) {
      const AnalyzerResultPtr sentinel = std::make_shared<AnalyzerEvent>(-1.0, AnalyzerEvent::BelowVOR);
      AnalyzerResultPtr result = sentinel;
      if (!_a.GetResult(result)) {
        FUZZ_CHECK(result == sentinel);
        FUZZ_CHECK(_meters.empty());
        FUZZ_CHECK(_pendingTag < 0);
        // Frame results trail the stored frames by a bounded lag: nothing piles up.
        FUZZ_CHECK(_samples.size() / _spf - _nextFrame <= 2 * AudioAnalyzer::kRingSize);
        return;
      }
      FUZZ_CHECK(result && result != sentinel);
      Check(*result);
    }
  }

  void DrainAll() { Drain(SIZE_MAX); }

 private:
  struct Meter {
    int peak;
    double timeMs;
  };

  void NewUtterance() {
    _samples.clear();
    _meters.clear();
    _nextFrame = 0;
    _lastEventMs = 0.0;
    _leftoverSeen = false;
  }

  void Check(const AnalyzerResult& result) {
    const AnalyzerResult::ResultType type = result.GetType();
    if (_pendingTag >= 0) FUZZ_CHECK(type == AnalyzerResult::RT_Event);
    switch (type) {
      case AnalyzerResult::RT_Event:
        CheckEvent(dynamic_cast<const AnalyzerEvent&>(result));
        break;
      case AnalyzerResult::RT_AudioFrame:
        CheckFrame(dynamic_cast<const AnalyzerAudioFrame&>(result));
        break;
      case AnalyzerResult::RT_VolumeMeter:
        CheckMeter(dynamic_cast<const AnalyzerVolumeMeter&>(result));
        break;
      default:
        FUZZ_CHECK(false);
    }
  }

  void CheckEvent(const AnalyzerEvent& e) {
    const double t = e.GetTimeMs();
    FUZZ_CHECK(std::isfinite(t) && t >= _lastEventMs);
    _lastEventMs = t;
    // Events are stamped with the first frame not yet released; at a flush, with the
    // end of all audio, leftover included.
    const double expected =
        _frameMs * static_cast<double>(_nextFrame) +
        (_flushing && _leftoverSeen
             ? static_cast<double>(_samples.size() % _spf) / _rate * 1000.0
             : 0.0);
    FUZZ_CHECK(std::fabs(t - expected) <= 1e-6 * (1.0 + expected));
    switch (e.GetTag()) {
      case AnalyzerEvent::AboveVOR:
        FUZZ_CHECK(!_inSpeech && _pendingTag < 0);
        _pendingTag = AnalyzerEvent::AboveVOR;
        _pendingMs = t;
        break;
      case AnalyzerEvent::BelowVOR:
        FUZZ_CHECK(_inSpeech && _pendingTag < 0);
        _pendingTag = AnalyzerEvent::BelowVOR;
        _pendingMs = t;
        break;
      case AnalyzerEvent::SpeechStart:
        FUZZ_CHECK(_pendingTag == AnalyzerEvent::AboveVOR && t == _pendingMs);
        _pendingTag = -1;
        _inSpeech = true;
        break;
      case AnalyzerEvent::SpeechEnd:
        FUZZ_CHECK(_pendingTag == AnalyzerEvent::BelowVOR && t == _pendingMs);
        _pendingTag = -1;
        _inSpeech = false;
        break;
      default:
        FUZZ_CHECK(false);
    }
  }

  void CheckFrame(const AnalyzerAudioFrame& f) {
    FUZZ_CHECK(!_leftoverSeen);
    FUZZ_CHECK(f.GetFrameIndex() >= 0 && static_cast<size_t>(f.GetFrameIndex()) == _nextFrame);
    FUZZ_CHECK(f.IsSpeechSegmentFrame() == _inSpeech);
    const size_t begin = _nextFrame * _spf;
    size_t end = begin + _spf;
    if (end > _samples.size()) {
      // Only a flush releases the samples short of a frame, as one last short frame.
      FUZZ_CHECK(_flushing && begin < _samples.size());
      end = _samples.size();
      _leftoverSeen = true;
    } else {
      ++_nextFrame;
    }
    const AudioData& data = f.GetData();
    if (_supply) {
      FUZZ_CHECK(data.size() == end - begin);
      FUZZ_CHECK(std::equal(data.begin(), data.end(), _samples.begin() + static_cast<ptrdiff_t>(begin)));
    } else {
      FUZZ_CHECK(data.empty());
    }
  }

  void CheckMeter(const AnalyzerVolumeMeter& m) {
    FUZZ_CHECK(!_meters.empty());
    const Meter expected = _meters.front();
    _meters.pop_front();
    FUZZ_CHECK(m.GetVolume() == expected.peak);
    FUZZ_CHECK(std::fabs(m.GetTimeMs() - expected.timeMs) <= 1e-6 * (1.0 + expected.timeMs));
    FUZZ_CHECK(m.IsSpeechState() == _inSpeech);
    const int info = m.GetInfo();
    FUZZ_CHECK(info >= AnalyzerVolumeMeter::OK && info <= AnalyzerVolumeMeter::TooLoud);
    if (!_inSpeech) FUZZ_CHECK(m.GetSNRVolumePct() == 0.0);
    FUZZ_CHECK(!(m.GetSNRVolumePct() > 100.0));
    // The level rises to the peak at once and decays from there: never above full
    // scale, never below the peak's own level.
    const double floorDb = 20.0 * std::log10(std::max(expected.peak, 1) / 32768.0);
    FUZZ_CHECK(m.GetVolumedBFS() <= 0.0);
    FUZZ_CHECK(m.GetVolumedBFS() >= floorDb - 1e-9);
  }

  AudioAnalyzer& _a;
  const double _rate;
  const bool _supply;
  const size_t _spf;
  const double _frameMs;

  AudioData _samples;  // everything processed since the last Flush or Reset
  std::deque<Meter> _meters;
  size_t _nextFrame = 0;
  bool _inSpeech = false;
  int _pendingTag = -1;
  double _pendingMs = 0.0;
  double _lastEventMs = 0.0;
  bool _flushing = false;
  bool _leftoverSeen = false;
};

double Rate(fuzz::Input& in) {
  switch (in.Byte() % 4) {
    case 0:
      return 8000.0;
    case 1:
      return 11025.0;
    case 2:
      return 16000.0;
    default:
      return in.F64();
  }
}

int Timeout(fuzz::Input& in) {
  // Mostly plausible time-outs, sometimes any int.
  return in.Bool() ? static_cast<int>(in.U16() % 13000) - 100 : in.I32();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const double rate = Rate(in);
  const bool supply = in.Bool();
  const bool supported = rate == 8000.0 || rate == 11025.0 || rate == 16000.0;
  std::unique_ptr<AudioAnalyzer> analyzer;
  try {
    analyzer = std::make_unique<AudioAnalyzer>(in.Text(), rate, supply);
  } catch (const std::invalid_argument& e) {
    FUZZ_CHECK(supported ? IsBadConfiguration(e) : What(e) == "Sampling rate");
    return 0;
  }
  FUZZ_CHECK(supported);
  FUZZ_CHECK(analyzer->GetSamplesPerFrame() == static_cast<int>(20.0 * rate / 1000.0));

  Checker checker(*analyzer, rate, supply);
  fuzz::SignalMaker signal;
  size_t budget = kSampleBudget;
  while (!in.Done()) {
    switch (in.Byte() % 8) {
      case 0:
      case 1: {
        const AudioData block = signal.Block(in);
        for (int repeat = in.Byte() % 32 + 1; repeat > 0 && block.size() <= budget; --repeat) {
          budget -= block.size();
          checker.Process(block);
        }
        break;
      }
      case 2:
        checker.Flush();
        break;
      case 3:
        checker.Reset();
        break;
      case 4:
        try {
          analyzer->UpdateParameters(in.Text());
        } catch (const std::invalid_argument& e) {
          FUZZ_CHECK(IsBadConfiguration(e));
        }
        break;
      case 5: {
        const int before = analyzer->GetEOSTimeout();
        const int timeout = Timeout(in);
        try {
          analyzer->SetEOSTimeout(timeout);
          FUZZ_CHECK(analyzer->GetEOSTimeout() == timeout);
        } catch (const std::invalid_argument& e) {
          FUZZ_CHECK(What(e) == "Value out of range");
          FUZZ_CHECK(analyzer->GetEOSTimeout() == before);
        }
        break;
      }
      case 6:
        checker.Drain(in.Byte());
        break;
      default:
        checker.Process(AudioData(in.Byte() % 3, static_cast<int16_t>(in.U16())));
        break;
    }
  }
  checker.Flush();
  return 0;
}
