#include "audioanalyzer.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <map>
#include <stdexcept>
#include <utility>

#include "check.h"

namespace kt {

namespace {

void RefuseUnless(bool inRange) {
  if (!inRange) throw std::invalid_argument("Value out of range");
}

constexpr ParameterKey<int> kSpeechWindowSizeMs{"SpeechWindowSizeMs", 200};
constexpr ParameterKey<double> kSpeechWindowFraction{"SpeechWindowFraction", 0.3};
// The time-out after construction; an absent key keeps the one last set.
constexpr ParameterKey<int> kEOSTimeoutMs{"EOSTimeoutMs", 420};
constexpr ParameterKey<int> kHistogramWindowSizeMs{"HistogramWindowSizeMs", 2000};
constexpr ParameterKey<int> kHistogramMinWindowSizeMs{"HistogramMinWindowSizeMs", 800};
constexpr ParameterKey<double> kMaxDecayRateDbPerDs{"MaxDecayRateDbPerDs", 48.0};
constexpr ParameterKey<double> kFullScaleSNR{"FullScaleSNR", 24.0};
constexpr ParameterKey<double> kTooNoisyLeveldBFS{"TooNoisyLeveldBFS", -25.0};
constexpr ParameterKey<double> kTooLoudAlignmentLeveldBFS{"TooLoudAlignmentLeveldBFS", -10.0};
constexpr ParameterKey<double> kTooSoftWindowSizeMs{"TooSoftWindowSizeMs", 2000.0};
constexpr ParameterKey<double> kTooSoftSNR{"TooSoftSNR", 18.0};
constexpr ParameterKey<double> kMinRecordingLeveldBFS{"MinRecordingLeveldBFS", -36.0};

// The analyzer's own keys in the order UpdateParameters reads them.
template <typename F>
void ForEachKey(F&& f) {
  f(kSpeechWindowSizeMs);
  f(kSpeechWindowFraction);
  f(kEOSTimeoutMs);
  f(kHistogramWindowSizeMs);
  f(kHistogramMinWindowSizeMs);
  f(kMaxDecayRateDbPerDs);
  f(kFullScaleSNR);
  f(kTooNoisyLeveldBFS);
  f(kTooLoudAlignmentLeveldBFS);
  f(kTooSoftWindowSizeMs);
  f(kTooSoftSNR);
  f(kMinRecordingLeveldBFS);
}

// The histogram's ring sizes are set from the analyzer's two Ms keys.
bool IsSetFromMs(const std::string& histogramKey) {
  return histogramKey == "WindowSize" || histogramKey == "MinWindowSize";
}

}  // namespace

const char* ToString(AnalyzerResult::ResultType type) {
  switch (type) {
    case AnalyzerResult::RT_Event: return "Event";
    case AnalyzerResult::RT_AudioFrame: return "AudioFrame";
    case AnalyzerResult::RT_VolumeMeter: return "VolumeMeter";
  }
  return "";
}

const char* ToString(AnalyzerEvent::EventTag tag) {
  switch (tag) {
    case AnalyzerEvent::SpeechStart: return "SpeechStart";
    case AnalyzerEvent::SpeechEnd: return "SpeechEnd";
    case AnalyzerEvent::BelowVOR: return "BelowVOR";
    case AnalyzerEvent::AboveVOR: return "AboveVOR";
  }
  return "";
}

const char* ToString(AnalyzerVolumeMeter::Info info) {
  switch (info) {
    case AnalyzerVolumeMeter::OK: return "OK";
    case AnalyzerVolumeMeter::TooNoisy: return "TooNoisy";
    case AnalyzerVolumeMeter::TooSoft: return "TooSoft";
    case AnalyzerVolumeMeter::TooLoud: return "TooLoud";
  }
  return "";
}

const char* ToString(AudioAnalyzer::State state) {
  switch (state) {
    case AudioAnalyzer::Pause: return "Pause";
    case AudioAnalyzer::Speech: return "Speech";
  }
  return "";
}

AudioAnalyzer::AudioAnalyzer(const std::string& keyValuePairs, double samplingRate,
                             bool supplyFrameData)
    : _highpassFilter(samplingRate),
      _supplyFrameData(supplyFrameData),
      _samplingRate(samplingRate),
      _eosTimeoutMs(kEOSTimeoutMs.defaultValue),
      _histogram(Parameters()) {
  _samplesPerFrame = static_cast<int>(_standardFrameSizeMs * samplingRate / 1000.0);
  // Durations use the true frame length: 220 samples at 11025 Hz are 19.95 ms.
  _frameSizeMs = 1000.0 * (_samplesPerFrame / samplingRate);
  UpdateParameters(keyValuePairs);
  Reset();
}

void AudioAnalyzer::Reset() {
  _highpassFilter.Reset();
  _histogram.Reset();
  _energyWindow.assign(kRingSize, 0.0);
  _audioFrames.assign(kRingSize, AudioData());
  if (_supplyFrameData) {
    for (AudioData& frame : _audioFrames) frame.reserve(static_cast<size_t>(_samplesPerFrame));
  }
  _audioBuffer.clear();
  _pauseCounter = 0;
  _readIndex = 0;
  _writeIndex = 0;
  _frameIndex = 0;
  _speechStartIndex = 0;
  _state = Pause;
  _prevVolumedBFS = 0.0;
  _prevSNRVolume = 0.0;
}

int AudioAnalyzer::Frames(int ms) const {
  const int frames = GetNumFrames(ms);
  RefuseUnless(frames >= 0);
  return frames;
}

int AudioAnalyzer::SpeechWindowFrames(int windowMs) const {
  const int frames = Frames(windowMs);
  RefuseUnless(frames <= kMaxLookBackFrames);
  return frames;
}

// -1 and -2 frames (down to -69 ms at 20 ms frames) act as 0: the count is reached at
// once and the third is 0.
int AudioAnalyzer::PauseFrames(int timeoutMs) const {
  const int frames = GetNumFrames(timeoutMs);
  RefuseUnless(frames / 3 >= 0 && frames / 3 <= kMaxLookBackFrames);
  return frames;
}

void AudioAnalyzer::SetEOSTimeout(int timeoutMs) {
  const int numPauseFrames = PauseFrames(timeoutMs);
  _eosTimeoutMs = timeoutMs;
  _numPauseFrames = numPauseFrames;
}

// Keys are read in a fixed order and each is stored at once, so a failing key leaves
// the ones before it in effect.
void AudioAnalyzer::UpdateParameters(const std::string& keyValuePairs) {
  _parameters = Parameters(keyValuePairs);
  _speechWindowSize = SpeechWindowFrames(_parameters.Get(kSpeechWindowSizeMs));
  _speechWindowFraction = _parameters.Get(kSpeechWindowFraction);
  // An absent key keeps the time-out last set, also one set by SetEOSTimeout.
  SetEOSTimeout(_parameters.Get<int>(kEOSTimeoutMs.name, _eosTimeoutMs));

  const int histogramWindowSize = Frames(_parameters.Get(kHistogramWindowSizeMs));
  const int histogramMinWindowSize = Frames(_parameters.Get(kHistogramMinWindowSizeMs));
  Parameters par(_parameters);
  par.Set<int>("WindowSize", histogramWindowSize);
  par.Set<int>("MinWindowSize", histogramMinWindowSize);
  // Refuses a ring of no slot and leaves the histogram untouched.
  _histogram.UpdateParameters(par);

  // A negative rate is taken as given: the reported level then climbs by it.
  _maxDecayRateDbPerDs = _parameters.Get(kMaxDecayRateDbPerDs);
  _fullScaleSNR = _parameters.Get(kFullScaleSNR);
  _tooNoisyLeveldBFS = _parameters.Get(kTooNoisyLeveldBFS);
  _tooLoudAlignmentLeveldBFS = _parameters.Get(kTooLoudAlignmentLeveldBFS);
  const double tooSoftWindowSizeMs = _parameters.Get(kTooSoftWindowSizeMs);
  // Truncated to an int at every reading, so the truncation must fit one.
  RefuseUnless(tooSoftWindowSizeMs > -2147483649.0 && tooSoftWindowSizeMs < 2147483648.0);
  _tooSoftWindowSizeMs = tooSoftWindowSizeMs;
  _tooSoftSNR = _parameters.Get(kTooSoftSNR);
  _minRecordingLeveldBFS = _parameters.Get(kMinRecordingLeveldBFS);
}

void AudioAnalyzer::Process(const AudioData& audioData) {
  Process(audioData.data(), audioData.size());
}

void AudioAnalyzer::Process(const int16_t* samples, size_t count) {
  if (count) _audioBuffer.insert(_audioBuffer.end(), samples, samples + count);
  const size_t samplesPerFrame = static_cast<size_t>(_samplesPerFrame);
  size_t i = 0;
  try {
    while (i + samplesPerFrame - 1 < _audioBuffer.size()) {
      const AudioData::const_iterator first = _audioBuffer.cbegin() + static_cast<ptrdiff_t>(i);
      // Counted as consumed before it is processed: a failure never measures a frame twice.
      i += samplesPerFrame;
      ProcessFrame(first, first + _samplesPerFrame);
    }
    GenerateVolumeMeterResult(_audioBuffer.cbegin(),
                              _audioBuffer.cbegin() + static_cast<ptrdiff_t>(i));
  } catch (...) {
    _audioBuffer.erase(_audioBuffer.begin(), _audioBuffer.begin() + static_cast<ptrdiff_t>(i));
    throw;
  }
  _audioBuffer.erase(_audioBuffer.begin(), _audioBuffer.begin() + static_cast<ptrdiff_t>(i));
}

void AudioAnalyzer::ProcessFrame(AudioData::const_iterator first,
                                 AudioData::const_iterator last) {
  if (_supplyFrameData) {
    _audioFrames[static_cast<size_t>(_writeIndex % kRingSize)].assign(first, last);
  }
  // The energy of the filtered frame, measured by the filter without storing it; its
  // integer sum of squares is what a double sum would give, exact below 2^23 samples.
  const int64_t sumOfSquares = _highpassFilter.Measure(first, last);
  AnalyzeEnergy(Energy(static_cast<double>(sumOfSquares), static_cast<size_t>(last - first)));
}

void AudioAnalyzer::AnalyzeEnergy(double energy) {
  _histogram.Update(energy);
  _energyWindow[static_cast<size_t>(_writeIndex % kRingSize)] = energy;
  ++_writeIndex;
  // Nothing is decided before the first threshold unless the ring is full.
  if (_histogram.IsThresholdComputed() || _writeIndex >= static_cast<int>(_energyWindow.size())) {
    Process(_writeIndex - 1);
  }
}

// Decides frames _readIndex .. index - 1; the newest stored frame is the look-ahead.
void AudioAnalyzer::Process(int index) {
  while (_readIndex < index) {
    if (_state == Pause) {
      // Frames that might still open a speech segment are held back.
      GenerateFrameResults(_readIndex - _speechWindowSize);
      if (DetectSpeech()) {
        _state = Speech;
        _pauseCounter = 0;
        _speechStartIndex = _readIndex;
        const double timeMs = GetFrameSizeMs() * _frameIndex;
        GenerateEventResult(timeMs, AnalyzerEvent::AboveVOR);
        GenerateEventResult(timeMs, AnalyzerEvent::SpeechStart);
        GenerateFrameResults(_readIndex);
      }
    } else {
      if (DetectPause()) {
        const double timeMs = GetFrameSizeMs() * _frameIndex;
        GenerateEventResult(timeMs, AnalyzerEvent::BelowVOR);
        GenerateEventResult(timeMs, AnalyzerEvent::SpeechEnd);
        _state = Pause;
      } else {
        // The segment keeps the first third of the time-out's quiet frames.
        GenerateFrameResults(_readIndex - _numPauseFrames / 3);
      }
    }
    ++_readIndex;
    if (_frameObserver) NotifyFrameDecided(_readIndex - 1);
  }
}

void AudioAnalyzer::NotifyFrameDecided(int index) const {
  const bool learnt = _histogram.IsThresholdComputed();
  const double unknown = std::numeric_limits<double>::quiet_NaN();
  _frameObserver(FrameDecision{index,
                               _energyWindow[static_cast<size_t>(index % kRingSize)],
                               _histogram.GetThreshold(false),
                               _histogram.GetThreshold(true),
                               learnt ? _histogram.GetNoiseLevel() : unknown,
                               learnt ? _histogram.GetNoiseLevel() + _histogram.GetSNR() : unknown,
                               _state == Speech});
}

void AudioAnalyzer::SetFrameObserver(std::function<void(const FrameDecision&)> observer) {
  _frameObserver = std::move(observer);
}

std::vector<std::string> AudioAnalyzer::GetParameterKeys() {
  std::vector<std::string> keys;
  ForEachKey([&keys](const auto& key) { keys.push_back(key.name); });
  for (const std::string& key : EnergyHistogram::GetParameterKeys()) {
    if (!IsSetFromMs(key)) keys.push_back(key);
  }
  return keys;
}

std::map<std::string, std::string> AudioAnalyzer::GetParameterDefaults() {
  Parameters defaults;
  ForEachKey([&defaults](const auto& key) { defaults.Set(key.name, key.defaultValue); });
  for (const auto& entry : EnergyHistogram::GetParameterDefaults()) {
    if (!IsSetFromMs(entry.first)) defaults.insert(entry);
  }
  return std::move(defaults);
}

std::map<std::string, std::string> AudioAnalyzer::GetParameterReadTexts(const std::string& params) {
  const Parameters parsed(params);
  std::map<std::string, std::string> read = parsed.GetReadTexts([](auto&& f) { ForEachKey(f); });
  for (const auto& entry : EnergyHistogram::GetReadTexts(parsed)) {
    if (!IsSetFromMs(entry.first)) read.insert(entry);
  }
  return read;
}

void AudioAnalyzer::Flush() {
  Process(_writeIndex);
  GenerateFrameResults(_writeIndex - 1);
  const double leftoverTimeMs = GenerateLeftoverFrame();
  if (_state == Speech) {
    const double timeMs = GetFrameSizeMs() * _writeIndex + leftoverTimeMs;
    GenerateEventResult(timeMs, AnalyzerEvent::BelowVOR);
    GenerateEventResult(timeMs, AnalyzerEvent::SpeechEnd);
  }
  _readIndex = 0;
  _writeIndex = 0;
  _frameIndex = 0;
  _pauseCounter = 0;
  _state = Pause;
}

bool AudioAnalyzer::GetResult(AnalyzerResultPtr& result) {
  if (_resultDeque.empty()) return false;
  result = std::move(_resultDeque.front());  // no reference count to raise and drop
  _resultDeque.pop_front();
  return true;
}

double AudioAnalyzer::Energy(double sumOfSquares, size_t numSamples) {
  if (numSamples == 0) return 0.0;
  const double meanSquare = sumOfSquares / static_cast<double>(numSamples);
  return meanSquare > 1.0 ? 10.0 * std::log10(meanSquare) : 0.0;
}

// Near the stream's start the window holds fewer frames; the required count stays.
bool AudioAnalyzer::DetectSpeech() const {
  const double threshold = _histogram.GetThreshold(false);
  const int stop = std::max(_readIndex - _speechWindowSize, -1);
  int n = 0;
  for (int i = _readIndex; i > stop; --i) {
    if (_energyWindow[static_cast<size_t>(i % kRingSize)] >= threshold) ++n;
  }
  return n >= _speechWindowSize * _speechWindowFraction;
}

// Smooths over the decided frame and the one before it.
bool AudioAnalyzer::DetectPause() {
  const double threshold = _histogram.GetThreshold(true);
  const int a = std::max(_readIndex - 1, 0);
  const int b = std::min(_readIndex + 1, _writeIndex);
  KT_ASSERT(a < b);
  double sum = 0.0;
  for (int i = a; i < b; ++i) sum += _energyWindow[static_cast<size_t>(i % kRingSize)];
  const double smoothedEnergy = sum / (b - a);
  if (smoothedEnergy < threshold) {
    ++_pauseCounter;
    return _pauseCounter >= _numPauseFrames;
  }
  _pauseCounter = 0;
  return false;
}

void AudioAnalyzer::GenerateEventResult(double timeMs, AnalyzerEvent::EventTag tag) {
  _resultDeque.push_back(std::make_shared<AnalyzerEvent>(timeMs, tag));
}

void AudioAnalyzer::GenerateFrameResults(int index) {
  while (_frameIndex <= index) {
    const AudioData* frame =
        _supplyFrameData ? &_audioFrames[static_cast<size_t>(_frameIndex % kRingSize)] : nullptr;
    _resultDeque.push_back(std::make_shared<AnalyzerAudioFrame>(_frameIndex, _state == Speech, frame));
    ++_frameIndex;
  }
}

double AudioAnalyzer::GenerateLeftoverFrame() {
  const double sizeMs = static_cast<double>(_audioBuffer.size()) / _samplingRate * 1000.0;
  if (!_audioBuffer.empty()) {
    _resultDeque.push_back(std::make_shared<AnalyzerAudioFrame>(
        _frameIndex, _state == Speech, _supplyFrameData ? &_audioBuffer : nullptr));
    _audioBuffer.clear();
  }
  return sizeMs;
}

double AudioAnalyzer::GetdBFS(double val) const {
  return 20.0 * std::log10(std::max(val, 1.0) / 32768.0);
}

void AudioAnalyzer::GenerateVolumeMeterResult(AudioData::const_iterator first,
                                              AudioData::const_iterator last) {
  if (first == last) return;
  // The largest magnitude from the extremes, as an int so that -32768 counts as 32768:
  // a 16-bit max and min vectorise, the magnitude of each sample would not.
  int16_t highest = 0;
  int16_t lowest = 0;
  for (AudioData::const_iterator it = first; it != last; ++it) {
    highest = std::max(highest, *it);
    lowest = std::min(lowest, *it);
  }
  const int maxVal = std::max<int>(highest, -static_cast<int>(lowest));
  const int numSamples = static_cast<int>(last - first);
  KT_ASSERT(!(numSamples % _samplesPerFrame));
  double volumedBFS = GetdBFS(static_cast<double>(maxVal));
  const int numFrames = numSamples / _samplesPerFrame;

  // The level rises at once and falls by at most maxChange over the block.
  const double maxChange = GetFrameSizeMs() * numFrames * _maxDecayRateDbPerDs / 100;
  if (_prevVolumedBFS - maxChange > volumedBFS) volumedBFS = _prevVolumedBFS - maxChange;
  _prevVolumedBFS = volumedBFS;

  double maxEnergy = 0.0;
  for (int i = std::max(_writeIndex - numFrames, 0); i < _writeIndex; ++i) {
    maxEnergy = std::max(maxEnergy, _energyWindow[static_cast<size_t>(i % kRingSize)]);
  }
  const double decayedSNRVolume = _prevSNRVolume - maxChange;
  _prevSNRVolume = decayedSNRVolume > maxEnergy ? decayedSNRVolume : maxEnergy;

  const double noiseLevelWithOffset = _histogram.GetNoiseLevelWithOffset();
  const double snrVolume =
      _state == Speech ? _prevSNRVolume - std::max(noiseLevelWithOffset, 0.0) : 0.0;
  // 100 per cent is never reached below the minimum recording level.
  const double minLevelDistance =
      _minRecordingLeveldBFS + AnalyzerVolumeMeter::kFullScaleDb - noiseLevelWithOffset;
  const double fullScale = minLevelDistance > _fullScaleSNR ? minLevelDistance : _fullScaleSNR;
  double snrVolumePct;
  if (fullScale > 0.0) {
    // No lower bound: a decayed maximum below the noise gives a negative reading.
    snrVolumePct = snrVolume / fullScale > 1 ? 100.0 : 100 * snrVolume / fullScale;
  } else {
    // A scale of no extent is reached by any distance above the noise, and by no other.
    snrVolumePct = snrVolume > 0.0 ? 100.0 : 0.0;
  }

  const double timeMs = GetFrameSizeMs() * _writeIndex;
  _resultDeque.push_back(std::make_shared<AnalyzerVolumeMeter>(
      GetVolumeInfo(maxEnergy), volumedBFS, static_cast<double>(maxVal), snrVolumePct, timeMs,
      _state == Speech));
}

// The first rule that applies decides; the comparisons are strict and a NaN fails them.
AnalyzerVolumeMeter::Info AudioAnalyzer::GetVolumeInfo(double maxEnergy) const {
  const double fullScaleDb = AnalyzerVolumeMeter::kFullScaleDb;
  if (_histogram.GetNoiseLevel() - fullScaleDb > _tooNoisyLeveldBFS) return AnalyzerVolumeMeter::TooNoisy;
  if (maxEnergy - fullScaleDb > _tooLoudAlignmentLeveldBFS) return AnalyzerVolumeMeter::TooLoud;
  if (_state == Pause) return AnalyzerVolumeMeter::OK;
  // Speech is judged too soft only once it has lasted a while.
  if (_writeIndex - _speechStartIndex <= GetNumFrames(static_cast<int>(_tooSoftWindowSizeMs))) {
    return AnalyzerVolumeMeter::OK;
  }
  if (_histogram.GetSNR() < _tooSoftSNR) return AnalyzerVolumeMeter::TooSoft;
  // The speech level lies below the minimum recording level.
  if (_minRecordingLeveldBFS - GetdBFS(1.0) > _histogram.GetNoiseLevel() + _histogram.GetSNR()) {
    return AnalyzerVolumeMeter::TooSoft;
  }
  return AnalyzerVolumeMeter::OK;
}

}  // namespace kt
