#pragma once
// The speech analyzer: voice activity detection with a volume meter, and its results.
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "audiodata.h"
#include "energyhistogram.h"
#include "export.h"
#include "highpassfilter.h"
#include "parameters.h"

namespace kt {

// Base of everything the analyzer reports; immutable once built.
class AnalyzerResult {
 public:
  enum ResultType { RT_Event = 0, RT_AudioFrame = 1, RT_VolumeMeter = 2 };

  virtual ~AnalyzerResult() {}
  virtual ResultType GetType() const = 0;
};

// The type's name without its prefix, "Event" for RT_Event; "" for a value outside the enum.
KTFRONT_API const char* ToString(AnalyzerResult::ResultType type);

using AnalyzerResultPtr = std::shared_ptr<AnalyzerResult>;

class AnalyzerEvent : public AnalyzerResult {
 public:
  enum EventTag { SpeechStart = 0, SpeechEnd = 1, BelowVOR = 2, AboveVOR = 3 };

  AnalyzerEvent(double timeMs, EventTag tag) : _timeMs(timeMs), _tag(tag) {}

  ResultType GetType() const override { return RT_Event; }
  EventTag GetTag() const { return _tag; }
  double GetTimeMs() const { return _timeMs; }

 private:
  double _timeMs;
  EventTag _tag;
};

// The tag's name, "SpeechStart" for SpeechStart; "" for a value outside the enum.
KTFRONT_API const char* ToString(AnalyzerEvent::EventTag tag);

class AnalyzerVolumeMeter : public AnalyzerResult {
 public:
  enum Info { OK = 0, TooNoisy = 1, TooSoft = 2, TooLoud = 3 };

  // 20 log10(32768): full scale on the energy scale, and the depth of the dBFS floor.
  static constexpr double kFullScaleDb = 90.30899869919436;

  AnalyzerVolumeMeter(Info info, double volumedBFS, double volume, double snrVolumePct,
                      double timeMs, bool isSpeechState)
      : _info(info),
        _volumedBFS(volumedBFS),
        _volume(volume),
        _snrVolumePct(snrVolumePct),
        _timeMs(timeMs),
        _isSpeechState(isSpeechState) {}

  ResultType GetType() const override { return RT_VolumeMeter; }
  Info GetInfo() const { return _info; }
  double GetSNRVolumePct() const { return _snrVolumePct; }
  double GetVolumedBFS() const { return _volumedBFS; }
  double GetVolume() const { return _volume; }
  double GetTimeMs() const { return _timeMs; }
  bool IsSpeechState() const { return _isSpeechState; }

  // The level on a linear per-cent scale of the meter's range: 0 at the floor of
  // -90.309 dBFS (a peak of 1 or less), 100 at 0 dBFS.
  double GetVolumedBFSPct() const { return 100.0 * (_volumedBFS + kFullScaleDb) / kFullScaleDb; }
  // The peak magnitude in per cent of full scale: 100 at 32768.
  double GetVolumePct() const { return 100.0 * _volume / 32768.0; }

 private:
  Info _info;
  double _volumedBFS;
  double _volume;
  double _snrVolumePct;
  double _timeMs;
  bool _isSpeechState;
};

// The verdict's name, "TooNoisy" for TooNoisy; "" for a value outside the enum.
KTFRONT_API const char* ToString(AnalyzerVolumeMeter::Info info);

class AnalyzerAudioFrame : public AnalyzerResult {
 public:
  // Copies *frame when given; the result owns its samples.
  AnalyzerAudioFrame(int frameIndex, bool b, const AudioData* frame)
      : _frameIndex(frameIndex), _isSpeechSegmentFrame(b) {
    if (frame) _audioFrame = *frame;
  }

  ResultType GetType() const override { return RT_AudioFrame; }
  virtual const AudioData& GetData() const { return _audioFrame; }
  virtual int GetFrameIndex() const { return _frameIndex; }
  virtual bool IsSpeechSegmentFrame() const { return _isSpeechSegmentFrame; }

 private:
  AudioData _audioFrame;
  int _frameIndex;
  bool _isSpeechSegmentFrame;
};

// What the analyzer decided for one whole frame, and the levels it was decided by. Levels
// are on the energy scale (dB of the mean square sample, 90.31 at full scale).
struct FrameDecision {
  int frameIndex;
  double energy;                // of the high-pass filtered frame
  double speechStartThreshold;  // in force when the frame was decided
  double speechEndThreshold;
  double noiseLevel;            // NaN until the histogram has learnt the levels
  double speechLevel;           // NaN likewise
  bool isSpeech;                // the state the decision left: in a speech segment or not
};

// Voice activity detector with a volume meter. Cuts the audio into 20 ms frames,
// decides each frame between pause and speech and queues its findings as results.
//
// Configuration ("key=value;...") refusals, std::invalid_argument("Value out of range"),
// each with its reason:
// - a duration key that rounds to a negative count of frames ("SpeechWindowSizeMs",
//   "HistogramWindowSizeMs" or "HistogramMinWindowSizeMs" of -30 ms or less at 20 ms
//   frames): the window would reach frames not yet measured, or the histogram four billion
//   slots. Down to -29 ms they round to 0 frames: a speech window of no frame, which
//   detects speech at the first frame decided;
// - "EOSTimeoutMs" whose third in frames is negative (-70 ms or less): speech would
//   release frames ahead of their decision. -1 to -69 ms act as 0 ms;
// - "SpeechWindowSizeMs" over kMaxLookBackFrames frames, "EOSTimeoutMs" over
//   3 * kMaxLookBackFrames + 2 (about 3970 ms and 11930 ms at 20 ms frames): a decision
//   would read a ring slot that a newer frame has overwritten;
// - "HistogramWindowSizeMs" of less than half a frame: a histogram ring of no slot;
// - "CutoffFraction" times the histogram window beyond an int: the quantile count must
//   fit one (EnergyHistogram);
// - "TooSoftWindowSizeMs" whose truncation does not fit an int: it is truncated to one.
// Everything else is taken as given, such as a negative "MaxDecayRateDbPerDs" (the level
// then climbs), a "FullScaleSNR" of 0 or less, or long histogram windows (memory grows
// with them; running out is std::bad_alloc). The meter's full scale is the larger of
// "FullScaleSNR" and the distance from the noise level plus offset up to
// "MinRecordingLeveldBFS"; when that is 0 or less, a speech reading is 100 per cent above
// the noise level plus offset and 0 at or below it.
// UpdateParameters then behaves as for a value that fails to convert: the new string
// and the keys read before the failing one are in effect, the failing key and those
// after it keep their old values, and the analyzer stays usable. "HistogramWindowSizeMs"
// and "HistogramMinWindowSizeMs" take effect together when the histogram is reconfigured.
class AudioAnalyzer {
 public:
  enum State { Pause = 0, Speech = 1 };

  // Frames kept in the energy and sample rings.
  static constexpr int kRingSize = 200;
  // Most frames a decision may look back, or a frame result be held back: the ring
  // less the decided frame and its look-ahead.
  static constexpr int kMaxLookBackFrames = kRingSize - 2;

  // Throws std::invalid_argument: "Sampling rate" unless 8000, 11025 or 16000 Hz,
  // "Invalid format" or "Value out of range" for a bad parameter string.
  KTFRONT_API AudioAnalyzer(const std::string& keyValuePairs, double samplingRate,
                            bool supplyFrameData);

  // Back to the initial measuring state; configuration and queued results stay.
  KTFRONT_API void Reset();
  KTFRONT_API void UpdateParameters(const std::string& keyValuePairs);
  // Any block length; samples short of a frame wait for the next block.
  KTFRONT_API void Process(const AudioData& audioData);
  // The same for samples held elsewhere (a binding's array): read in place, not copied first.
  KTFRONT_API void Process(const int16_t* samples, size_t count);
  // Ends the utterance: decides all stored frames, releases the leftover samples as a
  // short last frame and closes an open speech segment at the end of the audio.
  KTFRONT_API void Flush();
  // Takes the oldest queued result; false and `result` untouched when there is none.
  KTFRONT_API bool GetResult(AnalyzerResultPtr& result);

  // Called once per decided whole frame, in decision order, from Process and Flush; an
  // empty function removes it. Frames are decided with one frame of look-ahead, and the
  // first ones all at once when the first threshold is computed. An exception from the
  // observer leaves Process or Flush; the frame counts as decided.
  KTFRONT_API void SetFrameObserver(std::function<void(const FrameDecision&)> observer);
  // Every key UpdateParameters reads, its histogram's included.
  KTFRONT_API static std::vector<std::string> GetParameterKeys();
  // Each of those keys with the value it takes when absent, as a parameter string writes
  // it ("EOSTimeoutMs": its value after construction; later an absent key keeps the last).
  KTFRONT_API static std::map<std::string, std::string> GetParameterDefaults();
  // Each key of the string that is read, with the part of its value that is read (leading
  // blanks skipped; the rest is ignored, as Parameters::Get does; empty when it cannot be
  // read). Throws std::invalid_argument("Invalid format") when the string is malformed.
  KTFRONT_API static std::map<std::string, std::string> GetParameterReadTexts(const std::string& params);

  // A refused time-out throws std::invalid_argument("Value out of range") and changes nothing.
  KTFRONT_API void SetEOSTimeout(int timeoutMs);
  int GetEOSTimeout() const { return _eosTimeoutMs; }
  int GetSamplesPerFrame() const { return _samplesPerFrame; }
  double GetFrameSizeMs() const { return _frameSizeMs; }

 private:
  friend class AudioAnalyzerTestAccess;

  // Stores, filters and measures one frame of raw samples, deciding what falls due.
  void ProcessFrame(AudioData::const_iterator first, AudioData::const_iterator last);
  // Stores one measured frame energy and decides the frames that are due.
  void AnalyzeEnergy(double energy);
  void Process(int index);
  int GetNumFrames(int ms) const { return static_cast<int>(ms / _frameSizeMs + 0.5); }
  // GetNumFrames, refusing a negative count.
  int Frames(int ms) const;
  int SpeechWindowFrames(int windowMs) const;
  int PauseFrames(int timeoutMs) const;

  // 10 log10 of the mean square, 0 when it is at most 1 or there are no samples.
  static double Energy(double sumOfSquares, size_t numSamples);
  bool DetectSpeech() const;
  bool DetectPause();
  void NotifyFrameDecided(int index) const;
  void GenerateEventResult(double timeMs, AnalyzerEvent::EventTag tag);
  void GenerateFrameResults(int index);
  double GenerateLeftoverFrame();

  void GenerateVolumeMeterResult(AudioData::const_iterator first, AudioData::const_iterator last);
  AnalyzerVolumeMeter::Info GetVolumeInfo(double maxEnergy) const;
  double GetdBFS(double val) const;

  HighpassFilter _highpassFilter;
  Parameters _parameters;
  bool _supplyFrameData;
  double _standardFrameSizeMs = 20.0;
  double _frameSizeMs = 0.0;
  double _samplingRate;
  int _samplesPerFrame = 0;
  int _speechWindowSize = 0;
  double _speechWindowFraction = 0.0;
  int _eosTimeoutMs;
  int _numPauseFrames = 0;
  int _pauseCounter = 0;
  std::vector<double> _energyWindow;
  EnergyHistogram _histogram;
  int _readIndex = 0;
  int _writeIndex = 0;
  int _frameIndex = 0;
  int _speechStartIndex = 0;
  double _prevVolumedBFS = 0.0;
  double _prevSNRVolume = 0.0;
  double _maxDecayRateDbPerDs = 0.0;
  double _fullScaleSNR = 0.0;
  double _tooNoisyLeveldBFS = 0.0;
  double _tooLoudAlignmentLeveldBFS = 0.0;
  double _tooSoftWindowSizeMs = 0.0;
  double _tooSoftSNR = 0.0;
  double _minRecordingLeveldBFS = 0.0;
  State _state = Pause;
  std::vector<AudioData> _audioFrames;
  AudioData _audioBuffer;
  std::deque<AnalyzerResultPtr> _resultDeque;
  std::function<void(const FrameDecision&)> _frameObserver;
};

// The state's name, "Pause" or "Speech"; "" for a value outside the enum.
KTFRONT_API const char* ToString(AudioAnalyzer::State state);

}  // namespace kt
