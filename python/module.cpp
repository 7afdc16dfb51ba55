// ktfront for Python: the speech analyzer and the gain control over NumPy blocks, and the
// tool's file reading, mixing, resampling, segmenting and label writing.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agc.h"
#include "audioanalyzer.h"
#include "blocks.h"
#include "labels.h"
#include "params.h"
#include "pcm.h"
#include "records.h"
#include "resampler.h"
#include "source.h"
#include "vadrun.h"
#include "writers.h"

namespace py = pybind11;

namespace {

// The source's chunk length: whole arrays are resampled in the pieces a file is read in,
// so that an array and the same audio in a file give the same samples.
constexpr size_t kChunkFrames = 4096;
// More channels than this is taken for an array laid out channels x frames.
constexpr py::ssize_t kMaxChannels = 64;

std::string TypeName(const py::handle& object) { return py::str(py::type::handle_of(object).attr("__name__")); }

// Audio as a caller holds it, read as the tool reads a file: 16-bit samples seen in place (a
// 1-D int16 array or bytes of 16-bit little-endian samples); float samples (full scale
// -1..1) put on the 16-bit scale one by one; 2-D frames x channels mixed onto full-scale
// mono floats.
class Audio {
 public:
  explicit Audio(const py::handle& object) {
    if (py::isinstance<py::array>(object)) {
      FromArray(py::reinterpret_borrow<py::array>(object));
    } else if (PyObject_CheckBuffer(object.ptr())) {
      FromBytes(object);
    } else {
      throw py::type_error("audio must be a numpy array (int16, float32 or float64) or bytes of 16-bit samples, not " +
                           TypeName(object));
    }
  }
  // 16-bit mono samples held in place; otherwise Floats() holds the audio.
  bool IsInt16() const { return _int16 != nullptr; }
  const int16_t* Int16() const { return _int16; }
  size_t size() const { return _int16 ? _count : _floats.size(); }
  const std::vector<float>& Floats() const { return _floats; }

  // The 16-bit mono samples at the source rate (a copy only when conversion is needed).
  const int16_t* Samples() {
    if (_int16) return _int16;
    _converted.resize(_floats.size());
    for (size_t i = 0; i < _floats.size(); ++i) _converted[i] = ktcli::ToSample(_floats[i]);
    return _converted.data();
  }
  // Full-scale mono floats, as the resampler takes them.
  const std::vector<float>& AsFloats() {
    if (_int16 && _floats.empty()) {
      _floats.resize(_count);
      for (size_t i = 0; i < _count; ++i) _floats[i] = static_cast<float>(_int16[i] * (1.0 / 32768.0));
    }
    return _floats;
  }

 private:
  void FromBytes(const py::handle& object) {
    _info = py::reinterpret_borrow<py::buffer>(object).request();
    const std::string format = _info.format;
    const bool bytes = _info.itemsize == 1 && (format == "B" || format == "b" || format == "c");
    if (!bytes || _info.ndim != 1) {
      throw py::type_error("a buffer that is not a numpy array must be bytes of 16-bit samples, not format '" + format +
                           "'");
    }
    if (_info.shape[0] % 2) throw py::value_error("bytes must hold whole 16-bit samples: got an odd length");
    _int16 = static_cast<const int16_t*>(_info.ptr);
    _count = static_cast<size_t>(_info.shape[0] / 2);
  }

  // Interleaved 16-bit frames mixed as the tool mixes a file's channels: the sum times
  // 1 / (channels x 32768), in double, onto full-scale floats.
  void Mix(const int16_t* in, size_t frames, size_t channels) {
    _floats.resize(frames);
    const double scale = 1.0 / (static_cast<double>(channels) * 32768.0);
    for (size_t i = 0; i < frames; ++i) {
      int sum = 0;
      for (size_t c = 0; c < channels; ++c) sum += in[i * channels + c];
      _floats[i] = static_cast<float>(sum * scale);
    }
  }

  // Float samples onto the 16-bit scale one by one, as the tool reads a float file.
  template <typename T>
  void FromFloats(const py::array& array) {
    const auto a = py::array_t<T, py::array::c_style | py::array::forcecast>::ensure(array);
    if (!a) throw py::error_already_set();
    _owned.resize(static_cast<size_t>(a.size()));
    const T* in = a.data();
    py::gil_scoped_release release;
    for (size_t i = 0; i < _owned.size(); ++i) _owned[i] = ktcli::ToSample(static_cast<float>(in[i]));
  }

  void FromArray(const py::array& array) {
    const py::dtype dtype = array.dtype();
    const char kind = dtype.kind();
    const bool int16 = kind == 'i' && dtype.itemsize() == 2;
    const bool floating = kind == 'f' && (dtype.itemsize() == 4 || dtype.itemsize() == 8);
    if (!int16 && !floating) {
      throw py::type_error("audio arrays must be int16, float32 or float64, not " + std::string(py::str(py::handle(dtype))));
    }
    if (array.ndim() != 1 && array.ndim() != 2) {
      throw py::value_error("audio must be 1-D, or 2-D frames x channels, not " + std::to_string(array.ndim()) + "-D");
    }
    if (array.ndim() == 2 && (array.shape(1) < 1 || array.shape(1) > kMaxChannels)) {
      throw py::value_error("a 2-D array is frames x channels: " + std::to_string(array.shape(1)) +
                            " channels is not plausible (pass array.T?)");
    }
    const size_t frames = static_cast<size_t>(array.shape(0));
    const size_t channels = array.ndim() == 2 ? static_cast<size_t>(array.shape(1)) : 1;
    const bool contiguous = array.ndim() == 1 && (array.shape(0) < 2 || array.strides(0) == 2);
    // Big-endian int16 (from np.frombuffer(..., ">i2")) is swapped by the copy below.
    const bool native = dtype.attr("isnative").cast<bool>();
    if (int16 && contiguous && native) {  // read in place
      _info = py::reinterpret_borrow<py::buffer>(array).request();
      _int16 = static_cast<const int16_t*>(_info.ptr);
      _count = frames;
      return;
    }
    if (int16) {
      _copy = py::array_t<int16_t, py::array::c_style | py::array::forcecast>::ensure(array);
      if (!_copy) throw py::error_already_set();
    } else if (dtype.itemsize() == 4) {
      FromFloats<float>(array);
    } else {
      FromFloats<double>(array);
    }
    const int16_t* samples = int16 ? _copy.data() : _owned.data();
    if (channels == 1) {
      _int16 = samples;
      _count = frames;
    } else {
      py::gil_scoped_release release;
      Mix(samples, frames, channels);
    }
  }

  py::buffer_info _info;
  py::array_t<int16_t> _copy;
  std::vector<int16_t> _owned;  // float samples on the 16-bit scale
  const int16_t* _int16 = nullptr;
  size_t _count = 0;
  std::vector<float> _floats;
  std::vector<int16_t> _converted;
};

// The rate a user gives: any positive whole number of Hz (an integral float is accepted).
int RateOf(double rate) {
  if (!(rate >= 1 && rate <= 1e7) || rate != std::floor(rate)) {
    throw py::value_error("rate must be a whole number of Hz, not " + std::string(py::str(py::float_(rate))));
  }
  return static_cast<int>(rate);
}

// The analysis rate for a source rate, as the tool chooses it.
int AnalysisRate(int rate) {
  const int analysis = ktcli::AudioSource::AnalysisRateFor(rate);
  if (analysis == 0) throw py::value_error("unsupported sampling rate " + std::to_string(rate) + " Hz: at least 8000 Hz is needed");
  return analysis;
}

py::array_t<int16_t> ToArray(kt::AudioData&& samples) {
  auto* held = new kt::AudioData(std::move(samples));
  py::capsule owner(held, [](void* p) { delete static_cast<kt::AudioData*>(p); });
  return py::array_t<int16_t>(static_cast<py::ssize_t>(held->size()), held->data(), owner);
}

// Full-scale mono floats resampled and put on the 16-bit scale; the tool's path for a file
// whose rate the library does not take.
class Converter {
 public:
  Converter(int fromHz, int toHz) {
    if (fromHz != toHz) _resampler = std::make_unique<ktcli::Resampler>(fromHz, toHz);
  }
  // Appends the 16-bit samples the input gives; an empty input drains the filter.
  void Process(const std::vector<float>& in, kt::AudioData& out) {
    if (!_resampler) {
      for (float v : in) out.push_back(ktcli::ToSample(v));
      return;
    }
    _resampled.clear();
    _resampler->Process(in, _resampled);
    for (float v : _resampled) out.push_back(ktcli::ToSample(v));
  }
  bool Resamples() const { return _resampler != nullptr; }

 private:
  std::unique_ptr<ktcli::Resampler> _resampler;
  std::vector<float> _resampled;
};

// A whole array onto 16-bit mono at the analysis rate, exactly as the tool reads a file.
std::pair<kt::AudioData, int> Prepare(Audio& audio, int rate) {
  const int analysis = AnalysisRate(rate);
  kt::AudioData out;
  if (audio.IsInt16() && analysis == rate) {
    out.assign(audio.Int16(), audio.Int16() + audio.size());
    return {std::move(out), rate};
  }
  const std::vector<float>& floats = audio.AsFloats();
  py::gil_scoped_release release;
  Converter converter(rate, analysis);
  if (!converter.Resamples()) {
    converter.Process(floats, out);
    return {std::move(out), rate};
  }
  out.reserve(static_cast<size_t>(static_cast<double>(floats.size()) * analysis / rate) + 64);
  std::vector<float> chunk;
  for (size_t at = 0; at < floats.size(); at += kChunkFrames) {
    chunk.assign(floats.begin() + static_cast<std::ptrdiff_t>(at),
                 floats.begin() + static_cast<std::ptrdiff_t>(std::min(floats.size(), at + kChunkFrames)));
    converter.Process(chunk, out);
  }
  converter.Process({}, out);
  return {std::move(out), analysis};
}

// Serialises the calls on one service, which run without the GIL. Entered only with the
// GIL released, so that a callback holding the lock can always take the GIL back.
class Serial {
 public:
  class Entry {
   public:
    explicit Entry(Serial& serial) : _serial(serial) {
      if (serial._owner.load() == std::this_thread::get_id()) {
        throw std::runtime_error("a ktfront object was called from its own callback");
      }
      _lock = std::unique_lock<std::mutex>(serial._mutex);
      serial._owner = std::this_thread::get_id();
    }
    ~Entry() { _serial._owner = std::thread::id(); }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   private:
    Serial& _serial;
    std::unique_lock<std::mutex> _lock;
  };

 private:
  std::mutex _mutex;
  std::atomic<std::thread::id> _owner{};
};

// Keys the service does not read and values it reads only in part, as UserWarnings: the
// library takes both without a word.
void Warn(const std::vector<std::string>& warnings) {
  for (const std::string& warning : warnings) {
    if (PyErr_WarnEx(PyExc_UserWarning, warning.c_str(), 1) != 0) throw py::error_already_set();
  }
}

// The warnings for a string the service has already taken (so the check cannot refuse it
// at the rate given; an update on top of other settings is judged by the service alone).
template <typename Check>
void WarnAccepted(Check&& check) {
  std::vector<std::string> warnings;
  try {
    warnings = check();
  } catch (const std::invalid_argument&) {
    return;
  }
  Warn(warnings);
}

// A level the histogram has not learnt yet is NaN in the library, None here.
py::object Level(double db) { return std::isnan(db) ? py::none() : py::object(py::float_(db)); }

// The result classes of ktfront._results, looked up once.
struct Types {
  py::object event, volume, frame, frameDecision, gainDecision, segment;
};
Types& ResultTypes() {
  static Types* types = [] {
    const py::module_ results = py::module_::import("ktfront._results");
    return new Types{results.attr("Event"),         results.attr("Volume"),       results.attr("Frame"),
                     results.attr("FrameDecision"), results.attr("GainDecision"), results.attr("Segment")};
  }();
  return *types;
}

py::object MakeDecision(const kt::FrameDecision& d, double frameMs) {
  return ResultTypes().frameDecision(d.frameIndex, d.frameIndex * frameMs, d.energy, d.speechStartThreshold,
                                     d.speechEndThreshold, Level(d.noiseLevel), Level(d.speechLevel), d.isSpeech);
}

py::object MakeGainDecision(const kt::GainDecision& d) {
  return ResultTypes().gainDecision(d.timeMs, d.currentGain, d.lowerLevel, d.lowerLevel2, d.upperLevel2, d.upperLevel,
                                    d.clippingFraction, d.numLevels, kt::ToString(d.outcome), d.outcomeTimeMs, d.stepped,
                                    d.newGain);
}

class Analyzer {
 public:
  Analyzer(double rate, const std::string& params, bool frameData, py::object onFrame)
      : _analyzer(params, rate, frameData), _rateHz(static_cast<int>(rate)), _frameData(frameData),
        _onFrame(std::move(onFrame)) {
    ResultTypes();
    if (!params.empty()) WarnAccepted([&] { return ktcli::CheckAnalyzerParams(params, _rateHz); });
    _analyzer.SetFrameObserver([this](const kt::FrameDecision& decision) {
      _decisions.Add(decision);
      if (_onFrame.is_none()) return;
      py::gil_scoped_acquire gil;
      _onFrame(MakeDecision(decision, _analyzer.GetFrameSizeMs()));
    });
  }

  py::list Process(const py::object& block) {
    Audio audio(block);
    const int16_t* samples = audio.Samples();
    Run([&] { _analyzer.Process(samples, audio.size()); });
    return Results();
  }

  py::list Flush() {
    Run([&] { _analyzer.Flush(); });
    return Results();
  }

  void Reset() {
    Run([&] {
      _analyzer.Reset();
      _decisions.Clear();
    });
  }
  void UpdateParameters(const std::string& params) {
    Run([&] { _analyzer.UpdateParameters(params); });
    WarnAccepted([&] { return ktcli::CheckAnalyzerParams(params, _rateHz); });
  }
  void SetEosTimeout(int ms) { Run([&] { _analyzer.SetEOSTimeout(ms); }); }
  int GetEosTimeout() {
    int ms = 0;
    Run([&] { ms = _analyzer.GetEOSTimeout(); });
    return ms;
  }
  int GetSamplesPerFrame() const { return _analyzer.GetSamplesPerFrame(); }
  double GetFrameMs() const { return _analyzer.GetFrameSizeMs(); }

 private:
  template <typename F>
  void Run(F&& work) {
    py::gil_scoped_release release;
    Serial::Entry entry(_serial);
    work();
    kt::AnalyzerResultPtr result;
    while (_analyzer.GetResult(result)) _pending.push_back(std::move(result));
  }

  // The results taken from the queue, in its order, as Python objects. Needs the GIL.
  py::list Results() {
    std::vector<kt::AnalyzerResultPtr> taken;
    std::deque<std::optional<kt::FrameDecision>> decisions;  // of the frames taken, in order
    {
      py::gil_scoped_release release;
      Serial::Entry entry(_serial);
      taken.swap(_pending);
      for (const auto& r : taken) {
        if (r->GetType() == kt::AnalyzerResult::RT_AudioFrame) {
          decisions.push_back(_decisions.Take(static_cast<const kt::AnalyzerAudioFrame&>(*r).GetFrameIndex()));
        }
      }
    }
    const Types& types = ResultTypes();
    py::list out;
    const double frameMs = _analyzer.GetFrameSizeMs();
    for (const auto& r : taken) {
      switch (r->GetType()) {
        case kt::AnalyzerResult::RT_Event: {
          const auto& e = static_cast<const kt::AnalyzerEvent&>(*r);
          out.append(types.event(kt::ToString(e.GetTag()), e.GetTimeMs()));
          break;
        }
        case kt::AnalyzerResult::RT_VolumeMeter: {
          const auto& v = static_cast<const kt::AnalyzerVolumeMeter&>(*r);
          out.append(types.volume(v.GetTimeMs(), v.GetVolumedBFS(), v.GetVolume(), v.GetSNRVolumePct(),
                                  kt::ToString(v.GetInfo()), v.IsSpeechState()));
          break;
        }
        case kt::AnalyzerResult::RT_AudioFrame: {
          const auto& f = static_cast<const kt::AnalyzerAudioFrame&>(*r);
          const int index = f.GetFrameIndex();
          py::object samples = py::none();
          if (_frameData) {
            const kt::AudioData& data = f.GetData();
            samples = py::array_t<int16_t>(static_cast<py::ssize_t>(data.size()), data.data());
          }
          const std::optional<kt::FrameDecision> decision = decisions.front();
          decisions.pop_front();
          if (decision) {
            const kt::FrameDecision& d = *decision;
            out.append(types.frame(index, index * frameMs, f.IsSpeechSegmentFrame(), samples, d.energy,
                                   d.speechStartThreshold, d.speechEndThreshold, Level(d.noiseLevel),
                                   Level(d.speechLevel)));
          } else {  // the short last frame of a flush is not decided
            out.append(types.frame(index, index * frameMs, f.IsSpeechSegmentFrame(), samples, py::none(), py::none(),
                                   py::none(), py::none(), py::none()));
          }
          break;
        }
      }
    }
    return out;
  }

  kt::AudioAnalyzer _analyzer;
  int _rateHz;
  bool _frameData = false;
  py::object _onFrame;
  Serial _serial;
  ktcli::DecisionJoin _decisions;               // decided frames whose results are not out yet
  std::vector<kt::AnalyzerResultPtr> _pending;  // taken from the queue, not yet handed out
};

class GainControl {
 public:
  GainControl(int rate, const std::string& params) : _agc(params, rate) {
    if (!params.empty()) WarnAccepted([&] { return ktcli::CheckAgcParams(params); });
    _agc.SetDecisionObserver([this](const kt::GainDecision& d) { _decision = d; });
  }

  float ComputeGain(const py::object& block, float gain) {
    Audio audio(block);
    const int16_t* samples = audio.Samples();
    float next = 0.0f;
    Run([&] { next = _agc.ComputeGain(samples, audio.size(), gain); });
    return next;
  }

  int ComputeGain16(const py::object& block, long gain) {
    if (gain < 0 || gain > 65535) throw py::value_error("gain must lie in 0 to 65535");
    Audio audio(block);
    const int16_t* samples = audio.Samples();
    unsigned short next = 0;
    Run([&] { next = _agc.ComputeGain(samples, audio.size(), static_cast<unsigned short>(gain)); });
    return next;
  }

  float MedianGain() const { return _agc.GetMedianGain(); }
  void Reset() { Run([&] { _agc.Reset(); }); }
  py::object LastDecision() const { return _last ? MakeGainDecision(*_last) : py::none(); }

 private:
  template <typename F>
  void Run(F&& work) {
    py::gil_scoped_release release;
    Serial::Entry entry(_serial);
    _decision.reset();
    work();
    _last = _decision;
  }

  kt::AGC _agc;
  Serial _serial;
  std::optional<kt::GainDecision> _decision;
  std::optional<kt::GainDecision> _last;
};

// Blocks at any rate onto 16-bit mono at the analysis rate, block by block, by the tool's
// resampler.
class Resampler {
 public:
  Resampler(int rate, int toRate) : _rate(rate), _toRate(toRate ? toRate : AnalysisRate(rate)) {
    if (ktcli::AudioSource::AnalysisRateFor(_toRate) != _toRate) {
      throw py::value_error("to_rate must be 8000, 11025 or 16000, not " + std::to_string(_toRate));
    }
    _converter = std::make_unique<Converter>(_rate, _toRate);
  }
  py::array_t<int16_t> Process(const py::object& block) {
    Audio audio(block);
    kt::AudioData out;
    if (audio.IsInt16() && !_converter->Resamples()) {
      out.assign(audio.Int16(), audio.Int16() + audio.size());
    } else {
      const std::vector<float>& floats = audio.AsFloats();
      py::gil_scoped_release release;
      Serial::Entry entry(_serial);
      _converter->Process(floats, out);
    }
    return ToArray(std::move(out));
  }
  // The filter's tail; the resampler then starts over.
  py::array_t<int16_t> Flush() {
    kt::AudioData out;
    if (_converter->Resamples()) {
      py::gil_scoped_release release;
      Serial::Entry entry(_serial);
      _converter->Process({}, out);
      _converter = std::make_unique<Converter>(_rate, _toRate);
    }
    return ToArray(std::move(out));
  }
  int GetRate() const { return _rate; }
  int GetToRate() const { return _toRate; }

 private:
  int _rate;
  int _toRate;
  std::unique_ptr<Converter> _converter;
  Serial _serial;
};

// A file read chunk by chunk and segmented as `ktfront vad` does, its records handed out
// as they come: only a chunk of audio is held at any time.
class FileStream {
 public:
  // warn: the parameter string's warnings, which a corpus gives once for all its files.
  FileStream(const std::string& path, int rawRate, const std::string& params, int blockMs, bool volume, bool events,
             bool warn)
      : _events(events) {
    std::string error;
    {
      py::gil_scoped_release release;
      try {
        _source = std::make_unique<ktcli::AudioSource>(path, rawRate);
      } catch (const std::runtime_error& e) {
        error = e.what();
      }
    }
    if (!error.empty()) {
      PyErr_SetString(PyExc_OSError, error.c_str());
      throw py::error_already_set();
    }
    const std::vector<std::string> warnings = ktcli::CheckAnalyzerParams(params, _source->GetRateHz());
    if (warn) Warn(warnings);
    const int block = ktcli::BlockSamples(blockMs, _source->GetRateHz(), "block_ms");
    _blockSamples = static_cast<size_t>(block);
    _block.reserve(_blockSamples);
    _run = std::make_unique<ktcli::VadRun>(path, _source->GetRateHz(), params, block, ktcli::VadRun::Wanted{volume, false},
                                           [this](const ktcli::Record& r) { _records.push_back(r); });
  }

  // The records of the next chunk read, None once the file and its last records are out.
  py::object Read() {
    if (_done) return py::none();
    std::string error;
    {
      py::gil_scoped_release release;
      Serial::Entry entry(_serial);
      _records.clear();
      try {
        if (_source->Read()) {
          const kt::AudioData& samples = _source->GetSamples();
          for (size_t at = 0; at < samples.size();) {  // host blocks cut as the tool cuts them
            const size_t take = std::min(samples.size() - at, _blockSamples - _block.size());
            _block.insert(_block.end(), samples.begin() + static_cast<std::ptrdiff_t>(at),
                          samples.begin() + static_cast<std::ptrdiff_t>(at + take));
            at += take;
            if (_block.size() == _blockSamples) {
              _run->Process(_block);
              _block.clear();
            }
          }
        } else {
          if (!_block.empty()) _run->Process(_block);
          _run->Finish(false);
          _done = true;
        }
      } catch (const std::runtime_error& e) {
        _done = true;
        error = e.what();
      }
    }
    if (!error.empty()) {
      PyErr_SetString(PyExc_OSError, error.c_str());
      throw py::error_already_set();
    }
    const Types& types = ResultTypes();
    py::list out;
    for (const ktcli::Record& r : _records) {
      if (const auto* segment = r.Get<ktcli::SegmentRecord>()) {
        out.append(types.segment(segment->startS, segment->endS, segment->open));
      } else if (const auto* v = r.Get<ktcli::VolumeRecord>()) {  // through the classes: levels always there
        out.append(types.volume(v->timeMs, v->levels->volumedBFS, v->levels->volume, v->snrVolumePct,
                                kt::ToString(v->info), v->levels->isSpeechState));
      } else if (const auto* event = r.Get<ktcli::EventRecord>(); event && _events) {
        out.append(types.event(kt::ToString(event->tag), event->timeMs));
      }
    }
    return std::move(out);
  }
  int GetRate() const { return _source->GetRateHz(); }
  double GetSeconds() const { return static_cast<double>(_source->GetSamplesRead()) / _source->GetRateHz(); }
  std::string Describe() const { return _source->Describe(); }

 private:
  bool _events;
  std::unique_ptr<ktcli::AudioSource> _source;
  std::unique_ptr<ktcli::VadRun> _run;
  size_t _blockSamples = 0;
  kt::AudioData _block;
  std::vector<ktcli::Record> _records;
  bool _done = false;
  Serial _serial;
};

py::tuple Load(const std::string& file, int rawRate) {
  kt::AudioData samples;
  int rate = 0;
  std::string error;
  {
    py::gil_scoped_release release;
    try {
      ktcli::Audio audio = ktcli::ReadAudio(file, rawRate);
      rate = audio.rateHz;
      samples = std::move(audio.samples);
    } catch (const std::runtime_error& e) {
      error = e.what();
    }
  }
  if (!error.empty()) {
    PyErr_SetString(PyExc_OSError, error.c_str());
    throw py::error_already_set();
  }
  return py::make_tuple(ToArray(std::move(samples)), rate);
}

py::tuple PrepareArray(const py::object& samples, double rate) {
  Audio audio(samples);
  auto prepared = Prepare(audio, RateOf(rate));
  return py::make_tuple(ToArray(std::move(prepared.first)), prepared.second);
}

// The tool's check of the parameter string: its refusal as ValueError, a warning per unknown key.
void WarnParams(const std::string& params, int rate) { Warn(ktcli::CheckAnalyzerParams(params, rate)); }

// Runs one of the core's whole-audio functions on the audio as the tool would read it:
// a supported-rate int16 array in place, anything else converted and resampled first.
template <typename F>
auto OnAudio(const py::object& samples, double rate, const std::string& params, int blockMs, F&& run) {
  Audio audio(samples);
  const int given = RateOf(rate);
  const int analysis = AnalysisRate(given);
  const int blockSamples = ktcli::BlockSamples(blockMs, analysis, "block_ms");
  WarnParams(params, analysis);
  if (audio.IsInt16() && analysis == given) {
    py::gil_scoped_release release;
    return run(audio.Int16(), audio.size(), analysis, params, blockSamples);
  }
  auto prepared = Prepare(audio, given);
  py::gil_scoped_release release;
  return run(prepared.first.data(), prepared.first.size(), analysis, params, blockSamples);
}

std::vector<std::pair<double, double>> Segments(const py::object& samples, double rate, const std::string& params,
                                                int blockMs) {
  return OnAudio(samples, rate, params, blockMs, ktcli::SpeechSegments);
}

py::list SegmentsWithVolume(const py::object& samples, double rate, const std::string& params, int blockMs) {
  const auto found = OnAudio(samples, rate, params, blockMs, ktcli::SpeechSegmentsWithVolume);
  py::list rows;
  for (const ktcli::SegmentVolume& s : found) rows.append(py::make_tuple(s.startS, s.endS, s.peakdBFS, s.meanSnrVolumePct));
  return rows;
}

// The parameter string checked as the tool checks it: ValueError for what the service
// refuses, and the warnings for keys it does not read.
std::vector<std::string> CheckParams(const std::string& params, const std::string& service, int rate) {
  if (service == "analyzer") return ktcli::CheckAnalyzerParams(params, rate);
  if (service == "gain_control") return ktcli::CheckAgcParams(params);
  throw py::value_error("service must be \"analyzer\" or \"gain_control\"");
}

std::string LabelText(const std::vector<std::pair<double, double>>& regions, const std::string& format,
                      const std::string& fileId, double durationS) {
  ktcli::LabelFormat kind;
  try {
    kind = ktcli::ParseLabelFormat(format);
  } catch (const std::invalid_argument& e) {
    throw py::value_error(e.what());
  }
  std::vector<ktcli::Region> out;
  for (const auto& r : regions) {
    if (!(r.first <= r.second)) throw py::value_error("a region ends before it starts");
    out.push_back({r.first, r.second});
  }
  return ktcli::LabelWriter(kind, fileId).Write(out, durationS);
}

// Objects that hold a running analysis refuse to be copied: say so plainly.
template <typename T>
void RefuseCopies(py::class_<T>& cls, const char* name) {
  const std::string message = std::string("ktfront.") + name +
                              " holds a running analysis and cannot be pickled or copied: create one where it is "
                              "used (in each Dask task), with the same rate and parameters";
  cls.def("__reduce_ex__", [message](const T&, py::object) -> py::object { throw py::type_error(message); });
  cls.def("__copy__", [message](const T&) -> py::object { throw py::type_error(message); });
  cls.def("__deepcopy__", [message](const T&, py::object) -> py::object { throw py::type_error(message); });
}

}  // namespace

PYBIND11_MODULE(_ktfront, m) {
  m.doc() = "ktfront's native part; use the ktfront package.";

  py::class_<Analyzer> analyzer(m, "Analyzer",
                                "Voice activity detector with a volume meter.\n\n"
                                "Feed blocks of any length to process(); each call returns the results the block "
                                "produced, in order: Event, Volume and Frame objects. flush() ends an utterance. Calls "
                                "on one analyzer are serialised; separate analyzers run in parallel threads, as the GIL "
                                "is released while a block is processed. Not picklable: create one per task.");
  analyzer
      .def(py::init([](double rate, const std::string& params, bool frameData, py::object onFrame) {
             if (!onFrame.is_none() && !PyCallable_Check(onFrame.ptr())) throw py::type_error("on_frame must be callable");
             return std::make_unique<Analyzer>(rate, params, frameData, std::move(onFrame));
           }),
           py::arg("rate"), py::arg("params") = "", py::arg("frame_data") = false, py::arg("on_frame") = py::none(),
           "rate: 8000, 11025 or 16000 Hz (ktfront.Resampler brings other rates there). params: \"Key=Value;...\" "
           "(see parameter_keys()). frame_data: Frame results carry their samples. on_frame: called with a "
           "FrameDecision as each frame is decided.\n"
           "Raises ValueError (\"Sampling rate\", \"Invalid format\", \"Value out of range\").")
      .def("process", &Analyzer::Process, py::arg("block"),
           "Analyzes a block at the analyzer's rate: int16 (a 1-D contiguous array is read in place), float32 or "
           "float64 at full scale -1..1, 1-D or 2-D frames x channels (mixed down), or bytes of 16-bit "
           "little-endian samples. Returns the list of results it produced.")
      .def("flush", &Analyzer::Flush,
           "Ends the utterance: decides what is held, closes an open segment at the end of the audio and "
           "returns the results; times start again from 0.")
      .def("reset", &Analyzer::Reset, "Back to the initial measuring state; configuration stays.")
      .def("update_parameters", &Analyzer::UpdateParameters, py::arg("params"),
           "Applies \"Key=Value;...\"; raises ValueError as the constructor does.")
      .def_property("eos_timeout_ms", &Analyzer::GetEosTimeout, &Analyzer::SetEosTimeout,
                    "End-of-speech time-out in ms")
      .def_property_readonly("samples_per_frame", &Analyzer::GetSamplesPerFrame)
      .def_property_readonly("frame_ms", &Analyzer::GetFrameMs)
      .def_static("parameter_keys", &kt::AudioAnalyzer::GetParameterKeys, "Every key the analyzer reads.");
  RefuseCopies(analyzer, "Analyzer");

  py::class_<GainControl> gain(m, "GainControl",
                               "Automatic gain control: give it each recorded block with the gain it was recorded "
                               "at, and set the gain it returns. Not picklable: create one per task.");
  gain.def(py::init([](double rate, const std::string& params) { return std::make_unique<GainControl>(RateOf(rate), params); }),
           py::arg("rate"), py::arg("params") = "",
           "rate: 8000, 11025 or 16000 Hz. Raises ValueError for a bad rate or parameter string.")
      .def("compute_gain", &GainControl::ComputeGain, py::arg("block"), py::arg("gain"),
           "The gain (0 to 1, single precision) to set next; block as for Analyzer.process. A gain of 0 "
           "restarts and returns median_gain.")
      .def("compute_gain_u16", &GainControl::ComputeGain16, py::arg("block"), py::arg("gain"),
           "The same on the scale 0 to 65535; an unchanged gain comes back as it went in.")
      .def_property_readonly("median_gain", &GainControl::MedianGain, "The neutral gain")
      .def_property_readonly("last_decision", &GainControl::LastDecision,
                             "The GainDecision of the last compute_gain call, None if it made none")
      .def("reset", &GainControl::Reset, "Starts over: levels, clock and filter; configuration stays.")
      .def_static("parameter_keys", &kt::AGC::GetParameterKeys, "Every key the gain control reads.");
  RefuseCopies(gain, "GainControl");

  py::class_<Resampler> resampler(m, "Resampler",
                                  "Blocks at any rate (44.1 or 48 kHz from a microphone) onto int16 mono at a rate the "
                                  "services take, by the ktfront tool's resampler. Not picklable.");
  resampler
      .def(py::init([](double rate, int toRate) { return std::make_unique<Resampler>(RateOf(rate), toRate); }),
           py::arg("rate"), py::arg("to_rate") = 0,
           "to_rate: 8000, 11025 or 16000; by default the highest not above rate, as the tool chooses.")
      .def("process", &Resampler::Process, py::arg("block"),
           "The block (any dtype Analyzer.process takes, 2-D mixed down) at to_rate, as an int16 array; the filter "
           "holds back a few ms, which later blocks and flush() give out.")
      .def("flush", &Resampler::Flush, "The samples still held; the resampler then starts over.")
      .def_property_readonly("rate", &Resampler::GetRate)
      .def_property_readonly("to_rate", &Resampler::GetToRate);
  RefuseCopies(resampler, "Resampler");

  py::class_<FileStream> stream(m, "_FileStream");
  stream.def(py::init<const std::string&, int, const std::string&, int, bool, bool, bool>())
      .def("read", &FileStream::Read)
      .def_property_readonly("rate", &FileStream::GetRate)
      .def_property_readonly("seconds", &FileStream::GetSeconds)
      .def("describe", &FileStream::Describe);
  RefuseCopies(stream, "_FileStream");

  m.def("load", &Load, py::arg("path"), py::arg("raw_rate") = 0);
  m.def("prepare", &PrepareArray, py::arg("samples"), py::arg("rate"));
  m.def("segments", &Segments, py::arg("samples"), py::arg("rate"), py::arg("params") = "", py::arg("block_ms") = 20);
  m.def("segments_with_volume", &SegmentsWithVolume, py::arg("samples"), py::arg("rate"), py::arg("params") = "",
        py::arg("block_ms") = 20);
  m.def("check_params", &CheckParams, py::arg("params"), py::arg("service"), py::arg("rate"));
  m.def("label_text", &LabelText, py::arg("regions"), py::arg("format"), py::arg("file_id"), py::arg("duration"));
  m.def("recording_id", &ktcli::RecordingId, py::arg("path"));
  m.attr("ANALYSIS_RATES") = py::make_tuple(8000, 11025, 16000);
  m.attr("MAX_LOOK_BACK_FRAMES") = kt::AudioAnalyzer::kMaxLookBackFrames;
}
