#pragma once
// The input read chunk by chunk: the source as stored, and the same stretch mixed to mono
// and resampled to the rate the services run at.
#include <sndfile.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audiodata.h"

namespace ktcli {

class PipeReader;
class Resampler;

// Interleaved 16-bit frames at their own rate and channels, mixed to mono and resampled to
// the rate the services run at: what every input goes through, files and live audio alike.
class MonoConverter {
 public:
  // Throws std::runtime_error for a rate below 8000 Hz, naming the input.
  MonoConverter(int sourceRateHz, int channels, const std::string& name);
  ~MonoConverter();
  MonoConverter(const MonoConverter&) = delete;
  MonoConverter& operator=(const MonoConverter&) = delete;

  // The analysis-rate samples these frames gave; no frames drain the resampler's tail.
  const kt::AudioData& Convert(const short* frames, size_t count);
  int GetRateHz() const { return _rateHz; }
  // Which rate the services run at and how it was reached, after "NAME: ".
  std::string Describe() const;

 private:
  int _sourceRateHz;
  size_t _channels;
  int _rateHz;
  std::unique_ptr<Resampler> _resampler;
  std::vector<float> _mono;
  std::vector<float> _resampled;  // kept from chunk to chunk, so converting allocates nothing
  kt::AudioData _samples;
};

class AudioSource {
 public:
  // path "-" reads standard input. rawRateHz > 0 reads headerless 16-bit little-endian
  // mono at that rate; 0 recognises the format by its header, and refuses input without
  // one. Float formats are read at their true level, -1..1 being full scale. Throws
  // std::runtime_error.
  AudioSource(const std::string& path, int rawRateHz);
  ~AudioSource();
  AudioSource(const AudioSource&) = delete;
  AudioSource& operator=(const AudioSource&) = delete;

  // The highest rate the library supports that is not above rateHz; 0 below 8000 Hz.
  static int AnalysisRateFor(int rateHz);

  // Reads the next chunk; false once the input and the resampler's tail are exhausted.
  // A read error, or a file shorter than its header says, throws std::runtime_error.
  bool Read();
  // This chunk: interleaved source frames, and the analysis-rate samples they gave.
  const std::vector<short>& GetSourceChunk() const { return _sourceChunk; }
  const kt::AudioData& GetSamples() const { return *_samples; }
  uint64_t GetSamplesRead() const { return _samplesRead; }

  int GetRateHz() const { return _converter->GetRateHz(); }
  int GetSourceRateHz() const { return _info.samplerate; }
  int GetSourceChannels() const { return _info.channels; }
  const std::string& GetName() const { return _name; }
  // Not a regular file (a pipe, a FIFO, a device): stopping it is the only way to end it.
  bool IsLive() const { return _live; }
  // One line for the user: which rate the services run at and how it was reached.
  std::string Describe() const;

 private:
  std::string _name;
  SF_INFO _info{};
  std::unique_ptr<PipeReader> _reader;  // over a pipe, for formats that reread their start
  SNDFILE* _file = nullptr;
  std::unique_ptr<MonoConverter> _converter;
  std::vector<short> _sourceChunk;
  std::vector<float> _floatChunk;
  const kt::AudioData* _samples = nullptr;
  uint64_t _framesRead = 0;
  uint64_t _samplesRead = 0;
  bool _ended = false;
  bool _float = false;  // samples decoded as floats
  bool _live = false;
  bool _truncated = false;  // the header promised more data than the file holds
};

}  // namespace ktcli
