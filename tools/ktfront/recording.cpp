#include "recording.h"

#include <samplerate.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace ktcli {
namespace {

constexpr int kSupportedRatesHz[] = {16000, 11025, 8000};

using SndFilePtr = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

short ToSample(double fullScaleOne) {
  const double v = std::round(fullScaleOne * 32768.0);
  return static_cast<short>(v > 32767.0 ? 32767.0 : (v < -32768.0 ? -32768.0 : v));
}

std::string NameOf(const std::string& path) { return path == "-" ? "standard input" : path; }

}  // namespace

Recording::Recording(std::string name, std::vector<short> source, int rateHz, int channels)
    : _name(std::move(name)),
      _source(std::move(source)),
      _sourceRateHz(rateHz),
      _sourceChannels(channels) {}

int Recording::AnalysisRateFor(int rateHz) {
  for (const int supported : kSupportedRatesHz) {
    if (supported <= rateHz) return supported;
  }
  return 0;
}

Recording Recording::Load(const std::string& path, int rawRateHz) {
  // The system's own words for a missing, unreadable or wrong kind of file.
  struct stat status {};
  if (path != "-" && stat(path.c_str(), &status) != 0) {
    throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  }
  if (path != "-" && S_ISDIR(status.st_mode)) throw std::runtime_error("cannot read " + path + ": it is a directory");
  SF_INFO info{};
  if (rawRateHz > 0) {
    info.samplerate = rawRateHz;
    info.channels = 1;
    info.format = SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE;
  }
  SNDFILE* raw = path == "-" ? sf_open_fd(STDIN_FILENO, SFM_READ, &info, SF_FALSE)
                             : sf_open(path.c_str(), SFM_READ, &info);
  if (!raw) {
    std::string why = sf_strerror(nullptr);
    if (path == "-" && rawRateHz == 0) why += " (raw audio needs --rate)";
    throw std::runtime_error("cannot read " + NameOf(path) + ": " + why);
  }
  SndFilePtr file(raw, sf_close);
  // Float files hold -1..1; read them scaled to the 16-bit range like integer ones.
  sf_command(file.get(), SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);

  std::vector<short> source;
  std::vector<short> chunk(4096 * static_cast<size_t>(info.channels));
  sf_count_t frames = 0;
  while ((frames = sf_readf_short(file.get(), chunk.data(), 4096)) > 0) {
    source.insert(source.end(), chunk.begin(), chunk.begin() + frames * info.channels);
  }
  if (sf_error(file.get()) != SF_ERR_NO_ERROR) {
    throw std::runtime_error("cannot read " + NameOf(path) + ": " + sf_strerror(file.get()));
  }
  if (AnalysisRateFor(info.samplerate) == 0) {
    throw std::runtime_error("unsupported sampling rate " + std::to_string(info.samplerate) +
                             " Hz in " + NameOf(path) + ": at least 8000 Hz is needed");
  }
  if (source.empty()) throw std::runtime_error(NameOf(path) + " holds no audio");

  Recording recording(NameOf(path), std::move(source), info.samplerate, info.channels);
  recording.MixAndResample();
  return recording;
}

void Recording::MixAndResample() {
  const size_t channels = static_cast<size_t>(_sourceChannels);
  const size_t frames = _source.size() / channels;
  _rateHz = AnalysisRateFor(_sourceRateHz);

  if (channels == 1 && _rateHz == _sourceRateHz) {
    _samples.assign(_source.begin(), _source.end());
    return;
  }
  std::vector<float> mono(frames);
  for (size_t i = 0; i < frames; ++i) {
    double sum = 0.0;
    for (size_t c = 0; c < channels; ++c) sum += _source[i * channels + c];
    mono[i] = static_cast<float>(sum / static_cast<double>(channels) / 32768.0);
  }
  if (_rateHz != _sourceRateHz) {
    const double ratio = static_cast<double>(_rateHz) / _sourceRateHz;
    std::vector<float> resampled(static_cast<size_t>(std::ceil(frames * ratio)) + 16);
    SRC_DATA data{};
    data.data_in = mono.data();
    data.input_frames = static_cast<long>(frames);
    data.data_out = resampled.data();
    data.output_frames = static_cast<long>(resampled.size());
    data.src_ratio = ratio;
    const int error = src_simple(&data, SRC_SINC_MEDIUM_QUALITY, 1);
    if (error != 0) throw std::runtime_error(std::string("resampling failed: ") + src_strerror(error));
    resampled.resize(static_cast<size_t>(data.output_frames_gen));
    mono.swap(resampled);
  }
  _samples.resize(mono.size());
  for (size_t i = 0; i < mono.size(); ++i) _samples[i] = ToSample(mono[i]);
}

std::string Recording::Describe() const {
  std::string text = _name + ": " + std::to_string(_rateHz) + " Hz";
  if (_rateHz != _sourceRateHz) text += ", resampled from " + std::to_string(_sourceRateHz) + " Hz";
  if (_sourceChannels > 1) text += ", " + std::to_string(_sourceChannels) + " channels mixed to mono";
  return text;
}

}  // namespace ktcli
