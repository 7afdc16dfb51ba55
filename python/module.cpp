// ktfront for Python: the speech analyzer and the gain control over NumPy blocks, and the
// tool's file reading and segmenting.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <cmath>
#include <deque>
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
#include "params.h"
#include "records.h"
#include "vadrun.h"

namespace py = pybind11;

namespace {

// A caller's block seen where it lies: a 1-D contiguous int16 array, or bytes of 16-bit
// little-endian samples. The buffer stays held, so the memory cannot go away or move.
class Block {
 public:
  explicit Block(const py::handle& object) {
    if (!PyObject_CheckBuffer(object.ptr())) {
      throw py::type_error("block must be a 1-D numpy.int16 array or bytes of 16-bit samples, not " +
                           std::string(py::str(py::type::handle_of(object).attr("__name__"))));
    }
    _info = py::reinterpret_borrow<py::buffer>(object).request();
    const std::string format = _info.format;
    const bool int16 = _info.itemsize == 2 && (format == "h" || format == "<h" || format == "=h");
    const bool bytes = _info.itemsize == 1 && (format == "B" || format == "b" || format == "c");
    if (!int16 && !bytes) {
      std::string what = "format '" + format + "'";
      if (py::hasattr(object, "dtype")) what = "dtype " + std::string(py::str(object.attr("dtype")));
      throw py::type_error("block must hold 16-bit samples (numpy.int16 or bytes), not " + what);
    }
    if (_info.ndim != 1) {
      throw py::value_error("block must be 1-D, not " + std::to_string(_info.ndim) + "-D");
    }
    if (_info.shape[0] > 1 && _info.strides[0] != _info.itemsize) {
      throw py::value_error("block must be contiguous (numpy.ascontiguousarray makes a copy that is)");
    }
    const size_t bytesHeld = static_cast<size_t>(_info.shape[0] * _info.itemsize);
    if (bytesHeld % 2) throw py::value_error("bytes must hold whole 16-bit samples: got an odd length");
    _count = bytesHeld / 2;
  }
  const int16_t* data() const { return static_cast<const int16_t*>(_info.ptr); }
  size_t size() const { return _count; }

 private:
  py::buffer_info _info;
  size_t _count = 0;
};

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

// A level the histogram has not learnt yet is NaN in the library, None here.
py::object Level(double db) { return std::isnan(db) ? py::none() : py::object(py::float_(db)); }

struct Event {
  std::string tag;
  double timeMs;
};

struct Volume {
  double timeMs;
  double volumedBFS;
  double volume;
  double snrVolumePct;
  std::string info;
  bool isSpeechState;
};

struct Frame {
  int frameIndex;
  double timeMs;
  bool isSpeech;
  py::object samples;  // None without frame data
  std::optional<kt::FrameDecision> decision;  // absent for the short last frame of a flush
};

py::object DecisionField(const Frame& frame, double kt::FrameDecision::*field) {
  return frame.decision ? Level((*frame.decision).*field) : py::none();
}

class Analyzer {
 public:
  Analyzer(double rate, const std::string& params, bool frameData, py::object onFrame)
      : _analyzer(params, rate, frameData), _frameData(frameData), _onFrame(std::move(onFrame)) {
    _analyzer.SetFrameObserver([this](const kt::FrameDecision& decision) {
      _decisions.Add(decision);
      if (_onFrame.is_none()) return;
      py::gil_scoped_acquire gil;
      _onFrame(decision);
    });
  }

  py::list Process(const py::object& block) {
    const Block samples(block);
    Run([&] { _analyzer.Process(samples.data(), samples.size()); });
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
  void UpdateParameters(const std::string& params) { Run([&] { _analyzer.UpdateParameters(params); }); }
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
    py::list out;
    const double frameMs = _analyzer.GetFrameSizeMs();
    for (const auto& r : taken) {
      switch (r->GetType()) {
        case kt::AnalyzerResult::RT_Event: {
          const auto& e = static_cast<const kt::AnalyzerEvent&>(*r);
          out.append(Event{kt::ToString(e.GetTag()), e.GetTimeMs()});
          break;
        }
        case kt::AnalyzerResult::RT_VolumeMeter: {
          const auto& v = static_cast<const kt::AnalyzerVolumeMeter&>(*r);
          out.append(Volume{v.GetTimeMs(), v.GetVolumedBFS(), v.GetVolume(), v.GetSNRVolumePct(),
                            kt::ToString(v.GetInfo()), v.IsSpeechState()});
          break;
        }
        case kt::AnalyzerResult::RT_AudioFrame: {
          const auto& f = static_cast<const kt::AnalyzerAudioFrame&>(*r);
          Frame frame{f.GetFrameIndex(), f.GetFrameIndex() * frameMs, f.IsSpeechSegmentFrame(), py::none(), {}};
          if (_frameData) {
            const kt::AudioData& data = f.GetData();
            frame.samples = py::array_t<int16_t>(static_cast<py::ssize_t>(data.size()), data.data());
          }
          frame.decision = decisions.front();
          decisions.pop_front();
          out.append(std::move(frame));
          break;
        }
      }
    }
    return out;
  }

  kt::AudioAnalyzer _analyzer;
  bool _frameData = false;
  py::object _onFrame;
  Serial _serial;
  ktcli::DecisionJoin _decisions;               // decided frames whose results are not out yet
  std::vector<kt::AnalyzerResultPtr> _pending;  // taken from the queue, not yet handed out
};

class GainControl {
 public:
  GainControl(int rate, const std::string& params) : _agc(params, rate) {
    _agc.SetDecisionObserver([this](const kt::GainDecision& d) { _decision = d; });
  }

  float ComputeGain(const py::object& block, float gain) {
    const Block samples(block);
    float next = 0.0f;
    Run([&] { next = _agc.ComputeGain(samples.data(), samples.size(), gain); });
    return next;
  }

  int ComputeGain16(const py::object& block, long gain) {
    if (gain < 0 || gain > 65535) throw py::value_error("gain must lie in 0 to 65535");
    const Block samples(block);
    unsigned short next = 0;
    Run([&] { next = _agc.ComputeGain(samples.data(), samples.size(), static_cast<unsigned short>(gain)); });
    return next;
  }

  float MedianGain() const { return _agc.GetMedianGain(); }
  void Reset() { Run([&] { _agc.Reset(); }); }
  std::optional<kt::GainDecision> LastDecision() const { return _last; }

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

std::string PathOf(const py::object& path) {
  return py::str(py::module_::import("os").attr("fsdecode")(path));
}

py::tuple Load(const py::object& path, int rawRate) {
  const std::string file = PathOf(path);
  auto samples = std::make_unique<kt::AudioData>();
  int rate = 0;
  std::string error;
  {
    py::gil_scoped_release release;
    try {
      ktcli::Audio audio = ktcli::ReadAudio(file, rawRate);
      rate = audio.rateHz;
      *samples = std::move(audio.samples);
    } catch (const std::runtime_error& e) {
      error = e.what();
    }
  }
  if (!error.empty()) {
    PyErr_SetString(PyExc_OSError, error.c_str());
    throw py::error_already_set();
  }
  // The array takes the samples over instead of copying them.
  kt::AudioData* held = samples.release();
  py::capsule owner(held, [](void* p) { delete static_cast<kt::AudioData*>(p); });
  py::array_t<int16_t> array(static_cast<py::ssize_t>(held->size()), held->data(), owner);
  return py::make_tuple(array, rate);
}

// The tool's check of the parameter string: its refusal as ValueError, a warning per unknown key.
void CheckParams(const std::string& params, int rate) {
  for (const std::string& warning : ktcli::CheckAnalyzerParams(params, rate)) {
    if (PyErr_WarnEx(PyExc_UserWarning, warning.c_str(), 1) != 0) throw py::error_already_set();
  }
}

std::vector<std::pair<double, double>> Segments(const py::object& block, int rate, const std::string& params,
                                                int blockMs) {
  const Block samples(block);
  const int blockSamples = ktcli::BlockSamples(blockMs, rate, "block_ms");
  CheckParams(params, rate);
  py::gil_scoped_release release;
  return ktcli::SpeechSegments(samples.data(), samples.size(), rate, params, blockSamples);
}

std::vector<ktcli::SegmentVolume> SegmentsWithVolume(const py::object& block, int rate, const std::string& params,
                                                     int blockMs) {
  const Block samples(block);
  const int blockSamples = ktcli::BlockSamples(blockMs, rate, "block_ms");
  CheckParams(params, rate);
  py::gil_scoped_release release;
  return ktcli::SpeechSegmentsWithVolume(samples.data(), samples.size(), rate, params, blockSamples);
}

template <typename T>
std::string Repr(const char* name, const T& fields) {
  return std::string(name) + "(" + fields + ")";
}

std::string Num(double v) { return py::str(py::float_(v)); }

}  // namespace

PYBIND11_MODULE(_ktfront, m) {
  m.doc() = "ktfront: voice activity detection with a volume meter, and automatic gain control.";

  py::class_<Event>(m, "Event", "A speech analyzer event: a segment starts or ends.")
      .def_property_readonly("type", [](const Event&) { return "event"; })
      .def_readonly("tag", &Event::tag, "\"SpeechStart\", \"SpeechEnd\", \"AboveVOR\" or \"BelowVOR\"")
      .def_readonly("time_ms", &Event::timeMs, "When, in ms of audio since the start or the last flush")
      .def("__repr__", [](const Event& e) { return Repr("Event", "tag='" + e.tag + "', time_ms=" + Num(e.timeMs)); });

  py::class_<Volume>(m, "Volume", "A volume reading over one block's whole frames.")
      .def_property_readonly("type", [](const Volume&) { return "volume"; })
      .def_readonly("time_ms", &Volume::timeMs)
      .def_readonly("volume_dbfs", &Volume::volumedBFS, "Peak level in dBFS, falling at most at the decay rate")
      .def_readonly("volume", &Volume::volume, "Peak magnitude, 32768 at full scale")
      .def_readonly("snr_volume_pct", &Volume::snrVolumePct, "Signal-to-noise volume in per cent")
      .def_readonly("info", &Volume::info, "\"OK\", \"TooNoisy\", \"TooSoft\" or \"TooLoud\"")
      .def_readonly("is_speech_state", &Volume::isSpeechState)
      .def("__repr__", [](const Volume& v) {
        return Repr("Volume", "time_ms=" + Num(v.timeMs) + ", snr_volume_pct=" + Num(v.snrVolumePct) + ", info='" +
                                  v.info + "'");
      });

  py::class_<Frame>(m, "Frame",
                    "One frame (20 ms, 19.95 at 11025 Hz: see Analyzer.frame_ms) as decided, with the levels it "
                    "was decided by; the levels are None for the short last frame of a flush.")
      .def_property_readonly("type", [](const Frame&) { return "frame"; })
      .def_readonly("frame_index", &Frame::frameIndex)
      .def_readonly("time_ms", &Frame::timeMs, "Start of the frame")
      .def_readonly("is_speech", &Frame::isSpeech, "Inside a speech segment")
      .def_readonly("samples", &Frame::samples, "The frame's int16 samples with frame_data=True, else None")
      .def_property_readonly("energy", [](const Frame& f) { return DecisionField(f, &kt::FrameDecision::energy); },
                             "dB of the mean square of the high-pass filtered frame (90.31 at full scale)")
      .def_property_readonly(
          "speech_start_threshold",
          [](const Frame& f) { return DecisionField(f, &kt::FrameDecision::speechStartThreshold); })
      .def_property_readonly(
          "speech_end_threshold", [](const Frame& f) { return DecisionField(f, &kt::FrameDecision::speechEndThreshold); })
      .def_property_readonly("noise_level", [](const Frame& f) { return DecisionField(f, &kt::FrameDecision::noiseLevel); },
                             "None until the levels are learnt")
      .def_property_readonly("speech_level",
                             [](const Frame& f) { return DecisionField(f, &kt::FrameDecision::speechLevel); })
      .def("__repr__", [](const Frame& f) {
        return Repr("Frame", "frame_index=" + std::to_string(f.frameIndex) + ", is_speech=" + (f.isSpeech ? "True" : "False"));
      });

  py::class_<kt::FrameDecision>(m, "FrameDecision", "What the on_frame callback is given for each decided frame.")
      .def_readonly("frame_index", &kt::FrameDecision::frameIndex)
      .def_readonly("energy", &kt::FrameDecision::energy)
      .def_readonly("speech_start_threshold", &kt::FrameDecision::speechStartThreshold)
      .def_readonly("speech_end_threshold", &kt::FrameDecision::speechEndThreshold)
      .def_property_readonly("noise_level", [](const kt::FrameDecision& d) { return Level(d.noiseLevel); })
      .def_property_readonly("speech_level", [](const kt::FrameDecision& d) { return Level(d.speechLevel); })
      .def_readonly("is_speech", &kt::FrameDecision::isSpeech)
      .def("__repr__", [](const kt::FrameDecision& d) {
        return Repr("FrameDecision", "frame_index=" + std::to_string(d.frameIndex) + ", energy=" + Num(d.energy));
      });

  py::class_<Analyzer>(m, "Analyzer",
                       "Voice activity detector with a volume meter.\n\n"
                       "Feed blocks of 16-bit mono samples of any length to process(); each call returns the "
                       "results the block produced, in order: Event, Volume and Frame objects. flush() ends an "
                       "utterance. Calls on one analyzer are serialised; separate analyzers run in parallel "
                       "threads, as the GIL is released while a block is processed.")
      .def(py::init([](double rate, const std::string& params, bool frameData, py::object onFrame) {
             if (!onFrame.is_none() && !PyCallable_Check(onFrame.ptr())) throw py::type_error("on_frame must be callable");
             return std::make_unique<Analyzer>(rate, params, frameData, std::move(onFrame));
           }),
           py::arg("rate"), py::arg("params") = "", py::arg("frame_data") = false, py::arg("on_frame") = py::none(),
           "rate: 8000, 11025 or 16000 Hz. params: \"Key=Value;...\" (see parameter_keys()). frame_data: Frame "
           "results carry their samples. on_frame: called with a FrameDecision as each frame is decided.\n"
           "Raises ValueError (\"Sampling rate\", \"Invalid format\", \"Value out of range\").")
      .def("process", &Analyzer::Process, py::arg("block"),
           "Analyzes a block: a 1-D contiguous numpy.int16 array (read in place, not copied) or bytes of "
           "16-bit little-endian samples. Returns the list of results it produced.")
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

  py::class_<kt::GainDecision>(m, "GainDecision", "One gain update of the gain control; levels in dB.")
      .def_readonly("time_ms", &kt::GainDecision::timeMs)
      .def_readonly("current_gain", &kt::GainDecision::currentGain)
      .def_readonly("lower_level", &kt::GainDecision::lowerLevel)
      .def_readonly("lower_level2", &kt::GainDecision::lowerLevel2)
      .def_readonly("upper_level2", &kt::GainDecision::upperLevel2)
      .def_readonly("upper_level", &kt::GainDecision::upperLevel)
      .def_readonly("clipping_fraction", &kt::GainDecision::clippingFraction)
      .def_readonly("num_levels", &kt::GainDecision::numLevels)
      .def_property_readonly("outcome", [](const kt::GainDecision& d) { return kt::ToString(d.outcome); },
                             "\"toolow\", \"toohigh\", \"speech\", \"pause\" or \"nil\"")
      .def_readonly("outcome_time_ms", &kt::GainDecision::outcomeTimeMs)
      .def_readonly("stepped", &kt::GainDecision::stepped)
      .def_readonly("new_gain", &kt::GainDecision::newGain)
      .def("__repr__", [](const kt::GainDecision& d) {
        return Repr("GainDecision", std::string("outcome='") + kt::ToString(d.outcome) + "', new_gain=" + Num(d.newGain));
      });

  py::class_<GainControl>(m, "GainControl",
                          "Automatic gain control: give it each recorded block with the gain it was recorded "
                          "at, and set the gain it returns.")
      .def(py::init<int, const std::string&>(), py::arg("rate"), py::arg("params") = "",
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

  m.def("load", &Load, py::arg("path"), py::arg("raw_rate") = 0,
        "Reads an audio file as the ktfront tool does: decoded by libsndfile, mixed down to mono and "
        "resampled by libsoxr to the highest supported rate not above the file's. raw_rate > 0 reads "
        "headerless 16-bit little-endian mono at that rate. Returns (int16 samples, rate). Raises "
        "OSError with the tool's message for a file that cannot be read.");
  m.def("segments", &Segments, py::arg("samples"), py::arg("rate"), py::arg("params") = "", py::arg("block_ms") = 20,
        "The speech segments [(start_s, end_s), ...] that `ktfront vad` prints for these samples, handed "
        "to the analyzer in blocks of block_ms.");
  m.def("segments_with_volume", [](const py::object& samples, int rate, const std::string& params, int blockMs) {
          py::list rows;
          for (const ktcli::SegmentVolume& s : SegmentsWithVolume(samples, rate, params, blockMs)) {
            rows.append(py::make_tuple(s.startS, s.endS, s.peakdBFS, s.meanSnrVolumePct));
          }
          return rows;
        },
        py::arg("samples"), py::arg("rate"), py::arg("params") = "", py::arg("block_ms") = 20,
        "The segments of segments() from the same one run, each with the volume readings dated inside "
        "it: [(start_s, end_s, peak_dbfs, mean_snr_volume_pct), ...], the last two None without readings.");
}
