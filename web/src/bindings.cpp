// The library's classes behind a flat C surface for the WebAssembly build: handles, plain
// numbers and pointers into linear memory, which the JavaScript side reads and writes.
// No exception crosses it: a failing call returns its failure value and leaves the
// message for kw_error().
#include <cstdint>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "KTRAGC.h"
#include "KTRVAD.h"
#include "agc.h"
#include "audioanalyzer.h"
#include "pcm.h"
#include "resampler.h"

#define KW_EXPORT extern "C" __attribute__((used, visibility("default")))

namespace {

std::string g_error;

template <typename F>
auto Guard(F&& body, decltype(body()) failed) -> decltype(body()) {
  try {
    return body();
  } catch (const std::exception& e) {
    g_error = e.what();
  } catch (...) {
    g_error = "unknown error";
  }
  return failed;
}

// The rates the services run at, highest first, as the tool picks them.
int AnalysisRateFor(int rateHz) {
  for (const int supported : {16000, 11025, 8000}) {
    if (supported <= rateHz) return supported;
  }
  return 0;
}

// Samples at any rate onto the 16-bit analysis-rate blocks the services take, as the tool
// reads files: floats go through ktcli::ToSample first, and other rates through the tool's
// resampler (16-bit samples times 1/32768), the input fed in the tool's 4096-frame chunks.
// blockSamples 0 hands on what each call gives as one block.
class Input {
 public:
  Input(int rateHz, int blockSamples)
      : _sourceRateHz(rateHz), _rateHz(AnalysisRateFor(rateHz)), _blockSamples(blockSamples) {
    if (_rateHz == 0) throw std::invalid_argument("rate below 8000 Hz");
    if (_rateHz != rateHz) _resampler = std::make_unique<ktcli::Resampler>(rateHz, _rateHz);
  }
  int GetRateHz() const { return _rateHz; }
  // Analysis-rate samples handed on in blocks so far.
  double GetSamples() const { return _samples; }

  // Appends the blocks that are complete to blocks.
  template <typename T>
  void Add(const T* samples, size_t count, std::vector<kt::AudioData>& blocks) {
    _converted.clear();
    if (_resampler) {
      constexpr size_t kChunk = 4096;
      for (size_t at = 0; at < count; at += kChunk) {
        _chunk.clear();
        for (size_t i = at; i < std::min(count, at + kChunk); ++i) _chunk.push_back(ToFloat(To16(samples[i])));
        _resampled.clear();
        _resampler->Process(_chunk, _resampled);
        for (const float f : _resampled) _converted.push_back(ktcli::ToSample(f));
      }
    } else {
      for (size_t i = 0; i < count; ++i) _converted.push_back(To16(samples[i]));
    }
    Block(blocks);
  }

  // The resampler's tail and the short last block; what follows starts a new stream.
  void End(std::vector<kt::AudioData>& blocks) {
    _converted.clear();
    if (_resampler) {
      _chunk.clear();
      _resampled.clear();
      _resampler->Process(_chunk, _resampled);
      for (const float f : _resampled) _converted.push_back(ktcli::ToSample(f));
      _resampler = std::make_unique<ktcli::Resampler>(_sourceRateHz, _rateHz);
    }
    Block(blocks);
    if (!_pending.empty()) {
      _samples += static_cast<double>(_pending.size());
      blocks.push_back(std::move(_pending));
    }
    _pending.clear();
  }

 private:
  static float ToFloat(int16_t s) { return static_cast<float>(s * (1.0 / 32768.0)); }
  static int16_t To16(int16_t s) { return s; }
  static int16_t To16(float f) { return ktcli::ToSample(f); }

  void Block(std::vector<kt::AudioData>& blocks) {
    if (_blockSamples == 0) {
      _samples += static_cast<double>(_converted.size());
      if (!_converted.empty()) blocks.push_back(_converted);
      return;
    }
    for (const int16_t s : _converted) {
      _pending.push_back(s);
      if (_pending.size() == static_cast<size_t>(_blockSamples)) {
        _samples += static_cast<double>(_blockSamples);
        blocks.push_back(std::move(_pending));
        _pending.clear();
      }
    }
  }

  int _sourceRateHz;
  int _rateHz;
  int _blockSamples;
  double _samples = 0;
  std::unique_ptr<ktcli::Resampler> _resampler;
  std::vector<float> _chunk;
  std::vector<float> _resampled;
  kt::AudioData _converted;
  kt::AudioData _pending;
};

int BlockSamples(int rateHz, double blockMs) {
  const int samples = static_cast<int>(blockMs * AnalysisRateFor(rateHz) / 1000.0);
  if (blockMs != 0 && samples < 1) throw std::invalid_argument("block below one sample");
  return samples;
}

struct Analyzer {
  Analyzer(const char* params, int rateHz, bool frames, double blockMs)
      : input(rateHz, BlockSamples(rateHz, blockMs)), analyzer(params, input.GetRateHz(), frames) {}
  Input input;
  kt::AudioAnalyzer analyzer;
  std::vector<kt::AudioData> blocks;
  kt::AnalyzerResultPtr result;  // the last one taken, whose frame samples JS may read
};

struct GainControl {
  GainControl(const char* params, int rateHz, bool log, double blockMs)
      : input(rateHz, BlockSamples(rateHz, blockMs)), agc(params, input.GetRateHz()) {
    if (log) {
      stream = std::make_shared<std::ostringstream>();
      agc.SetLogStream(stream);
    }
    agc.SetDecisionObserver([this](const kt::GainDecision& d) { decisions.push_back(d); });
  }
  // The gain for each block the samples complete, all recorded at gain; the last one
  // decided, or gain itself when no block was complete.
  template <typename G>
  G Process(const void* samples, size_t count, int kind, G gain) {
    blocks.clear();
    // Refused before any sample is taken, also by calls that complete no block.
    if (!(gain >= 0 && gain <= (std::is_integral<G>::value ? 65535 : 1))) throw std::invalid_argument("gain out of range");
    if (kind == 1) {
      input.Add(static_cast<const float*>(samples), count, blocks);
    } else {
      input.Add(static_cast<const int16_t*>(samples), count, blocks);
    }
    G next = gain;
    for (const kt::AudioData& block : blocks) next = agc.ComputeGain(block, gain);
    return next;
  }
  Input input;
  std::vector<kt::AudioData> blocks;
  kt::AGC agc;
  std::shared_ptr<std::ostringstream> stream;
  std::string log;
  std::deque<kt::GainDecision> decisions;
};

}  // namespace

KW_EXPORT const char* kw_error() { return g_error.c_str(); }

KW_EXPORT int kw_analysis_rate(int rateHz) { return AnalysisRateFor(rateHz); }

// The library's own word for an enumerator: what 0 an event tag, 1 a volume verdict, 2 a
// gain decision's outcome.
KW_EXPORT const char* kw_name(int what, int value) {
  if (what == 0) return kt::ToString(static_cast<kt::AnalyzerEvent::EventTag>(value));
  if (what == 1) return kt::ToString(static_cast<kt::AnalyzerVolumeMeter::Info>(value));
  return kt::ToString(static_cast<kt::GainDecision::Outcome>(value));
}

// Every key of a service (0 the analyzer, 1 the gain control) with its default, as
// "key=value;..." in key order.
KW_EXPORT const char* kw_parameter_defaults(int service) {
  static std::string text;
  text.clear();
  for (const auto& [key, value] :
       service == 0 ? kt::AudioAnalyzer::GetParameterDefaults() : kt::AGC::GetParameterDefaults()) {
    text += key + "=" + value + ";";
  }
  return text.c_str();
}

// --- speech analyzer

KW_EXPORT Analyzer* kw_analyzer_new(const char* params, int rateHz, int frames, double blockMs) {
  return Guard([&] { return new Analyzer(params, rateHz, frames != 0, blockMs); }, nullptr);
}

KW_EXPORT void kw_analyzer_delete(Analyzer* a) { delete a; }

KW_EXPORT int kw_analyzer_rate(Analyzer* a) { return a->input.GetRateHz(); }
KW_EXPORT double kw_analyzer_samples(Analyzer* a) { return a->input.GetSamples(); }

// kind 0: 16-bit samples, 1: floats. Returns 0, or -1 with the message in kw_error().
KW_EXPORT int kw_analyzer_process(Analyzer* a, const void* samples, size_t count, int kind) {
  return Guard(
      [&] {
        a->blocks.clear();
        if (kind == 1) {
          a->input.Add(static_cast<const float*>(samples), count, a->blocks);
        } else {
          a->input.Add(static_cast<const int16_t*>(samples), count, a->blocks);
        }
        for (const kt::AudioData& block : a->blocks) a->analyzer.Process(block);
        return 0;
      },
      -1);
}

// Ends the utterance; with end, also the input (the resampler's tail, the short block).
KW_EXPORT int kw_analyzer_flush(Analyzer* a, int end) {
  return Guard(
      [&] {
        if (end) {
          a->blocks.clear();
          a->input.End(a->blocks);
          for (const kt::AudioData& block : a->blocks) a->analyzer.Process(block);
        }
        a->analyzer.Flush();
        return 0;
      },
      -1);
}

KW_EXPORT int kw_analyzer_reset(Analyzer* a) {
  return Guard([&] { a->analyzer.Reset(); return 0; }, -1);
}

KW_EXPORT int kw_analyzer_update(Analyzer* a, const char* params) {
  return Guard([&] { a->analyzer.UpdateParameters(params); return 0; }, -1);
}

// Takes the next result into out; returns its type, or -1 when there is none.
// Event: out = tag, timeMs. Volume: info, timeMs, volumedBFS, volume, snrVolumePct,
// isSpeechState. Frame: frameIndex, isSpeechSegmentFrame, sample count.
KW_EXPORT int kw_analyzer_next(Analyzer* a, double* out) {
  if (!a->analyzer.GetResult(a->result)) return -1;
  const kt::AnalyzerResult* r = a->result.get();
  if (const auto* e = dynamic_cast<const kt::AnalyzerEvent*>(r)) {
    out[0] = e->GetTag();
    out[1] = e->GetTimeMs();
  } else if (const auto* m = dynamic_cast<const kt::AnalyzerVolumeMeter*>(r)) {
    out[0] = m->GetInfo();
    out[1] = m->GetTimeMs();
    out[2] = m->GetVolumedBFS();
    out[3] = m->GetVolume();
    out[4] = m->GetSNRVolumePct();
    out[5] = m->IsSpeechState();
  } else if (const auto* f = dynamic_cast<const kt::AnalyzerAudioFrame*>(r)) {
    out[0] = f->GetFrameIndex();
    out[1] = f->IsSpeechSegmentFrame();
    out[2] = static_cast<double>(f->GetData().size());
  }
  return r->GetType();
}

KW_EXPORT const int16_t* kw_analyzer_frame_data(Analyzer* a) {
  const auto* f = dynamic_cast<const kt::AnalyzerAudioFrame*>(a->result.get());
  return f ? f->GetData().data() : nullptr;
}

KW_EXPORT double kw_analyzer_frame_ms(Analyzer* a) { return a->analyzer.GetFrameSizeMs(); }

// --- gain control

KW_EXPORT GainControl* kw_agc_new(const char* params, int rateHz, int log, double blockMs) {
  return Guard([&] { return new GainControl(params, rateHz, log != 0, blockMs); }, nullptr);
}

KW_EXPORT void kw_agc_delete(GainControl* g) { delete g; }

// The gain to set next (kind as for the analyzer); -1 with the message in kw_error() for a
// refused call.
KW_EXPORT float kw_agc_gain(GainControl* g, const void* samples, size_t count, int kind, float gain) {
  return Guard([&] { return g->Process(samples, count, kind, gain); }, -1.0f);
}

KW_EXPORT int kw_agc_gain16(GainControl* g, const void* samples, size_t count, int kind, int gain) {
  return Guard(
      [&] {
        if (gain < 0 || gain > 65535) throw std::invalid_argument("gain out of range");
        return static_cast<int>(g->Process(samples, count, kind, static_cast<unsigned short>(gain)));
      },
      -1);
}

KW_EXPORT int kw_agc_rate(GainControl* g) { return g->input.GetRateHz(); }

KW_EXPORT int kw_agc_reset(GainControl* g) {
  return Guard([&] { g->agc.Reset(); return 0; }, -1);
}

KW_EXPORT float kw_agc_median_gain(GainControl* g) { return g->agc.GetMedianGain(); }

// Takes the oldest decision into out (time, gains, levels, outcome...); 0 when there is none.
KW_EXPORT int kw_agc_next_decision(GainControl* g, double* out) {
  if (g->decisions.empty()) return 0;
  const kt::GainDecision d = g->decisions.front();
  g->decisions.pop_front();
  const double values[] = {static_cast<double>(d.timeMs), d.currentGain, d.lowerLevel, d.lowerLevel2,
                           d.upperLevel2, d.upperLevel, d.clippingFraction, static_cast<double>(d.numLevels),
                           static_cast<double>(d.outcome), static_cast<double>(d.outcomeTimeMs),
                           static_cast<double>(d.stepped), d.newGain};
  std::memcpy(out, values, sizeof values);
  return 1;
}

// The log written since the last call.
KW_EXPORT const char* kw_agc_log(GainControl* g) {
  g->log.clear();
  if (g->stream) {
    g->log = g->stream->str();
    g->stream->str("");
  }
  return g->log.c_str();
}

// --- the C interfaces, as a C host calls them

KW_EXPORT int kw_vad_init(double rateHz) { return KTRVAD_Init(rateHz); }
KW_EXPORT int kw_vad_deinit() { return KTRVAD_Deinit(); }
// out: result, volume per cent, info; NaN for each one the call left unwritten.
KW_EXPORT int kw_vad_get_result(int start, const int16_t* samples, unsigned bytes, double* out) {
  constexpr int kUnset = -123456789;
  int result = kUnset;
  int info = kUnset;
  double pct = std::numeric_limits<double>::quiet_NaN();
  const int rc = KTRVAD_GetResult(start, samples, bytes, &result, &pct, &info);
  out[0] = result == kUnset ? std::numeric_limits<double>::quiet_NaN() : result;
  out[1] = pct;
  out[2] = info == kUnset ? std::numeric_limits<double>::quiet_NaN() : info;
  return rc;
}
KW_EXPORT int kw_agc_init(double rateHz) { return KTRAGC_Init(rateHz); }
KW_EXPORT int kw_agc_deinit() { return KTRAGC_Deinit(); }
KW_EXPORT int kw_agc_compute_gain(const int16_t* samples, unsigned bytes, long volume, long maxVolume, long* out) {
  *out = volume;  // as a host passing its own variable: unchanged when nothing is written
  return KTRAGC_ComputeGain(samples, bytes, volume, maxVolume, out);
}
