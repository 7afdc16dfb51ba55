// WebRTC's VAD and its analog gain control, as Debian's libwebrtc-audio-processing ships them.
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include <cstring>
#include <memory>
#include <stdexcept>

#include "harness.h"
#include "webrtc_vad.h"

namespace bench {

namespace {

void Require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

class WebRtcVad {
 public:
  WebRtcVad(int rate, size_t) : _rate(rate), _vad(WebRtcVad_Create()) {
    Require(_vad && WebRtcVad_Init(_vad) == 0 && WebRtcVad_set_mode(_vad, 3) == 0,
            "WebRtcVad set-up");
  }
  ~WebRtcVad() { WebRtcVad_Free(_vad); }
  void Process(const int16_t* in, size_t n) { _voiced += WebRtcVad_Process(_vad, _rate, in, n); }
  long Checksum() const { return _voiced; }

 private:
  int _rate;
  WebRtcVadInst* _vad;
  long _voiced = 0;
};

// The audio-processing module with nothing but the gain control in adaptive analog mode,
// steering a host volume of 0 to 255.
template <bool kExperimentalAgc>
class WebRtcAgc {
 public:
  WebRtcAgc(int rate, size_t) {
    webrtc::Config config;
    config.Set<webrtc::ExperimentalAgc>(new webrtc::ExperimentalAgc(kExperimentalAgc));
    _apm.reset(webrtc::AudioProcessing::Create(config));
    webrtc::GainControl* agc = _apm->gain_control();
    Require(agc->set_analog_level_limits(0, 255) == 0 &&
                agc->set_mode(webrtc::GainControl::kAdaptiveAnalog) == 0 && agc->Enable(true) == 0,
            "WebRTC gain control set-up");
    _frame.sample_rate_hz_ = rate;
    _frame.num_channels_ = 1;
  }
  void Process(const int16_t* in, size_t n) {
    _frame.samples_per_channel_ = n;
    std::memcpy(_frame.data_, in, n * sizeof(int16_t));
    webrtc::GainControl* agc = _apm->gain_control();
    agc->set_stream_analog_level(_level);
    _apm->ProcessStream(&_frame);
    _level = agc->stream_analog_level();
    _sum += _level;
  }
  long Checksum() const { return _sum; }

 private:
  std::unique_ptr<webrtc::AudioProcessing> _apm;
  webrtc::AudioFrame _frame;
  int _level = 128;
  long _sum = 0;
};

}  // namespace

void RegisterWebRtc() {
  for (int rate : {8000, 16000}) {
    const std::string r = "/" + std::to_string(rate);
    Register<WebRtcVad>("WebRTC VAD, mode 3, 10 ms" + r, rate, 10);
    Register<WebRtcAgc<false>>("WebRTC analog AGC, experimental off, 10 ms" + r, rate, 10);
    Register<WebRtcAgc<true>>("WebRTC analog AGC, defaults, 10 ms" + r, rate, 10);
  }
}

}  // namespace bench
