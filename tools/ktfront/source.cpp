#include "source.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "pcm.h"
#include "resampler.h"

namespace ktcli {
namespace {

constexpr int kSupportedRatesHz[] = {16000, 11025, 8000};
constexpr sf_count_t kChunkFrames = 4096;

std::string NameOf(const std::string& path) { return path == "-" ? "standard input" : path; }

}  // namespace

int AudioSource::AnalysisRateFor(int rateHz) {
  for (const int supported : kSupportedRatesHz) {
    if (supported <= rateHz) return supported;
  }
  return 0;
}

AudioSource::AudioSource(const std::string& path, int rawRateHz) : _name(NameOf(path)) {
  // The system's own words for a missing, unreadable or wrong kind of file.
  struct stat status {};
  if (path != "-" && stat(path.c_str(), &status) != 0) {
    throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  }
  if (path != "-" && S_ISDIR(status.st_mode)) throw std::runtime_error("cannot read " + path + ": it is a directory");
  if (rawRateHz > 0) {
    _info.samplerate = rawRateHz;
    _info.channels = 1;
    _info.format = SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE;
  }
  _file = path == "-" ? sf_open_fd(STDIN_FILENO, SFM_READ, &_info, SF_FALSE)
                      : sf_open(path.c_str(), SFM_READ, &_info);
  if (!_file) {
    std::string why = sf_strerror(nullptr);
    if (path == "-" && rawRateHz == 0) why += " (raw audio needs --rate)";
    throw std::runtime_error("cannot read " + _name + ": " + why);
  }
  // libsndfile trusts the file over a header that claims more data, and only logs it.
  char log[4096] = {};
  sf_command(_file, SFC_GET_LOG_INFO, log, sizeof log);
  for (const char* chunk : {"\ndata :", "\nSSND :"}) {
    const char* line = std::strstr(log, chunk);
    const char* lineEnd = line ? std::strchr(line + 1, '\n') : nullptr;
    const char* claim = line ? std::strstr(line, "(should be ") : nullptr;
    if (claim && (!lineEnd || claim < lineEnd)) _truncated = true;
  }
  // Float files hold -1..1; read them scaled to the 16-bit range like integer ones.
  sf_command(_file, SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
  _rateHz = AnalysisRateFor(_info.samplerate);
  if (_rateHz == 0) {
    sf_close(_file);
    throw std::runtime_error("unsupported sampling rate " + std::to_string(_info.samplerate) +
                             " Hz in " + _name + ": at least 8000 Hz is needed");
  }
  if (_rateHz != _info.samplerate) _resampler = std::make_unique<Resampler>(_info.samplerate, _rateHz);
  _sourceChunk.resize(static_cast<size_t>(kChunkFrames * _info.channels));
}

AudioSource::~AudioSource() { sf_close(_file); }

bool AudioSource::Read() {
  if (_ended) return false;
  const size_t channels = static_cast<size_t>(_info.channels);
  _sourceChunk.resize(static_cast<size_t>(kChunkFrames) * channels);
  const sf_count_t frames = sf_readf_short(_file, _sourceChunk.data(), kChunkFrames);
  if (sf_error(_file) != SF_ERR_NO_ERROR) {
    throw std::runtime_error("cannot read " + _name + ": " + sf_strerror(_file));
  }
  _sourceChunk.resize(static_cast<size_t>(frames) * channels);
  _framesRead += static_cast<uint64_t>(frames);
  if (frames == 0) {
    _ended = true;
    // A seekable file knows its length: ending short of it means the file was cut.
    if (_truncated || (_info.seekable && _info.frames > 0 && _framesRead < static_cast<uint64_t>(_info.frames))) {
      throw std::runtime_error("cannot read " + _name + ": the file is truncated after " +
                               std::to_string(_framesRead) + " frames");
    }
    if (_framesRead == 0) throw std::runtime_error(_name + " holds no audio");
  }
  _samples.clear();
  if (channels == 1 && !_resampler) {
    _samples.assign(_sourceChunk.begin(), _sourceChunk.end());
  } else {
    _mono.resize(static_cast<size_t>(frames));
    const double scale = 1.0 / (static_cast<double>(channels) * 32768.0);
    const short* in = _sourceChunk.data();
    float* out = _mono.data();
    if (channels == 2) {  // the common case, in a loop the compiler vectorises
      for (size_t i = 0; i < _mono.size(); ++i) out[i] = static_cast<float>((in[2 * i] + in[2 * i + 1]) * scale);
    } else {
      for (size_t i = 0; i < _mono.size(); ++i) {
        int sum = 0;
        for (size_t c = 0; c < channels; ++c) sum += in[i * channels + c];
        out[i] = static_cast<float>(sum * scale);
      }
    }
    if (_resampler) {
      _resampled.clear();
      _resampler->Process(_mono, _resampled);
      _mono.swap(_resampled);
    }
    _samples.resize(_mono.size());
    for (size_t i = 0; i < _mono.size(); ++i) _samples[i] = ToSample(_mono[i]);
  }
  _samplesRead += _samples.size();
  return frames > 0 || !_samples.empty();
}

std::string AudioSource::Describe() const {
  std::string text = _name + ": " + std::to_string(_rateHz) + " Hz";
  if (_rateHz != _info.samplerate) text += ", resampled from " + std::to_string(_info.samplerate) + " Hz";
  if (_info.channels > 1) text += ", " + std::to_string(_info.channels) + " channels mixed to mono";
  return text;
}

}  // namespace ktcli
