#include "source.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
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

// What the first bytes of an input say about it.
enum class Header { Known, Unknown, NeedMore };

// Enough for the longest fixed header below and four MPEG frames of any kind.
constexpr size_t kPeekBytes = 12288;

// The length of the MPEG audio frame whose header starts at b, or 0 if that is no valid
// header; a sample rate and layer differing from the first frame's also count as invalid.
size_t MpegFrameBytes(const unsigned char* b, unsigned& kind) {
  static const int kBitratesKbps[5][16] = {
      {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},  // MPEG-1 layer I
      {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},     // MPEG-1 layer II
      {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},      // MPEG-1 layer III
      {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},     // MPEG-2/2.5 layer I
      {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0}};         // MPEG-2/2.5 layers II, III
  static const int kRatesHz[3] = {44100, 48000, 32000};
  if (b[0] != 0xFF || (b[1] & 0xE0) != 0xE0) return 0;
  const int version = (b[1] >> 3) & 3;  // 0: 2.5, 2: 2, 3: 1
  const int layer = 4 - ((b[1] >> 1) & 3);
  const int bitrateIndex = b[2] >> 4;
  const int rateIndex = (b[2] >> 2) & 3;
  if (version == 1 || layer == 4 || bitrateIndex == 0 || bitrateIndex == 15 || rateIndex == 3) return 0;
  const unsigned thisKind = static_cast<unsigned>(b[1] & 0x1E) << 8 | static_cast<unsigned>(rateIndex);
  if (kind != 0 && kind != thisKind) return 0;
  kind = thisKind;
  const long bitrate = 1000L * kBitratesKbps[version == 3 ? layer - 1 : (layer == 1 ? 3 : 4)][bitrateIndex];
  const long rateHz = kRatesHz[rateIndex] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
  const long padding = (b[2] >> 1) & 1;
  if (layer == 1) return static_cast<size_t>((12 * bitrate / rateHz + padding) * 4);
  return static_cast<size_t>((layer == 3 && version != 3 ? 72 : 144) * bitrate / rateHz + padding);
}

// Recognises the formats libsndfile reads by their headers. Headerless samples are never
// handed to a decoder to see whether it accepts them: noise passes for MPEG audio.
Header Recognise(const std::string& bytes, bool complete) {
  const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
  const size_t n = bytes.size();
  auto at = [&](size_t offset, const char* magic) { return bytes.compare(offset, std::strlen(magic), magic) == 0; };
  if (n < 28 && !complete) return Header::NeedMore;
  if (n >= 12 && (at(0, "RIFF") || at(0, "RIFX") || at(0, "RF64") || at(0, "BW64")) && at(8, "WAVE")) return Header::Known;
  if (n >= 28 && at(0, "riff") && at(24, "wave")) return Header::Known;  // Sony Wave64
  if (n >= 12 && at(0, "FORM") && (at(8, "AIFF") || at(8, "AIFC"))) return Header::Known;
  for (const char* magic : {"fLaC", "OggS", ".snd", "dns.", "caff", "NIST_1A", "Creative Voice File", "ID3"}) {
    if (n >= std::strlen(magic) && at(0, magic)) return Header::Known;
  }
  // A run of MPEG frames from the first byte: four, or all there are up to the end.
  unsigned kind = 0;
  size_t offset = 0;
  for (int frames = 0; frames < 4; ++frames) {
    if (offset + 4 > n) return complete ? (frames > 0 && offset == n ? Header::Known : Header::Unknown) : Header::NeedMore;
    const size_t length = MpegFrameBytes(b + offset, kind);
    if (length < 4) return Header::Unknown;
    offset += length;
  }
  return Header::Known;
}

// Up to kPeekBytes from the start of fd, left there for the decoder: read in place from a
// file, copied with tee(2) from a pipe (waiting until the writer has given enough to tell),
// peeked at on a socket.
std::string Peek(int fd, const std::string& name) {
  std::string bytes(kPeekBytes, '\0');
  struct stat status {};
  fstat(fd, &status);
  if (S_ISFIFO(status.st_mode)) {
    int scratch[2];
    if (pipe2(scratch, O_CLOEXEC) != 0) throw std::runtime_error("cannot read " + name + ": " + std::strerror(errno));
    fcntl(scratch[1], F_SETPIPE_SZ, static_cast<int>(kPeekBytes));
    size_t have = 0;
    bool interrupted = false;  // a signal (Ctrl-C) ends the wait
    for (bool ended = false; !ended;) {
      pollfd poll1{fd, POLLIN, 0};
      if (poll(&poll1, 1, -1) < 0) {
        interrupted = true;
        break;
      }
      ended = (poll1.revents & POLLHUP) != 0 && (poll1.revents & POLLIN) == 0;
      const ssize_t copied = ended ? 0 : tee(fd, scratch[1], kPeekBytes, SPLICE_F_NONBLOCK);
      if (copied < 0 && errno != EAGAIN) {
        const int error = errno;
        close(scratch[0]);
        close(scratch[1]);
        throw std::runtime_error("cannot read " + name + ": " + std::strerror(error));
      }
      have = 0;
      for (ssize_t got; have < static_cast<size_t>(std::max<ssize_t>(copied, 0)) &&
                        (got = read(scratch[0], &bytes[have], kPeekBytes - have)) > 0;) {
        have += static_cast<size_t>(got);
      }
      // All that will come is in the pipe once its writer has gone.
      ended = ended || (poll1.revents & POLLHUP) != 0;
      if (Recognise(bytes.substr(0, have), ended || have == kPeekBytes) != Header::NeedMore) break;
      if (!ended && usleep(10000) != 0) {  // the pipe holds some bytes; wait for the rest
        interrupted = true;
        break;
      }
    }
    close(scratch[0]);
    close(scratch[1]);
    if (interrupted) throw std::runtime_error("cannot read " + name + ": interrupted before its format was known");
    bytes.resize(have);
    return bytes;
  }
  if (isatty(fd)) throw std::runtime_error("cannot read " + name + ": it is a terminal, not audio");
  ssize_t got = S_ISSOCK(status.st_mode) ? recv(fd, &bytes[0], kPeekBytes, MSG_PEEK | MSG_WAITALL)
                                          : pread(fd, &bytes[0], kPeekBytes, lseek(fd, 0, SEEK_CUR));
  if (got < 0) throw std::runtime_error("cannot read " + name + ": " + std::strerror(errno));
  bytes.resize(static_cast<size_t>(got));
  return bytes;
}

// Formats whose samples are decoded as floats; every other one is read as 16-bit integers,
// which keeps wider integer formats as libsndfile shortens them.
bool IsFloatFormat(int format) {
  switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_DOUBLE:
    case SF_FORMAT_VORBIS:
    case SF_FORMAT_OPUS:
    case SF_FORMAT_MPEG_LAYER_I:
    case SF_FORMAT_MPEG_LAYER_II:
    case SF_FORMAT_MPEG_LAYER_III: return true;
    default: return false;
  }
}

// libsndfile reads a pipe straight on, but its FLAC, CAF and VOC readers go back to the
// start after the header has been looked at. Over a pipe they read through this instead: the
// first kKeptBytes stay in memory, so seeks back within them work until the stream passes that
// point; seeks that would need more (back past it, or forward over audio) fail.
constexpr sf_count_t kKeptBytes = 1 << 20;

}  // namespace

class PipeReader {
 public:
  explicit PipeReader(int fd) : _fd(fd) {}
  ~PipeReader() {
    if (_fd != STDIN_FILENO) close(_fd);
  }
  PipeReader(const PipeReader&) = delete;
  PipeReader& operator=(const PipeReader&) = delete;

  // The stream is read with these bytes in place of those at offset.
  void Overwrite(sf_count_t offset, std::string bytes) {
    _overwriteAt = offset;
    _overwrite = std::move(bytes);
  }

  // Made once, as threads may open inputs at the same time.
  static SF_VIRTUAL_IO* Callbacks() {
    static SF_VIRTUAL_IO io = [] {
      SF_VIRTUAL_IO made{};
      made.get_filelen = [](void*) -> sf_count_t { return SF_COUNT_MAX; };  // unknown, as for a pipe
      made.seek = [](sf_count_t offset, int whence, void* self) { return static_cast<PipeReader*>(self)->Seek(offset, whence); };
      made.read = [](void* to, sf_count_t count, void* self) { return static_cast<PipeReader*>(self)->Read(to, count); };
      made.write = [](const void*, sf_count_t, void*) -> sf_count_t { return 0; };
      made.tell = [](void* self) { return static_cast<PipeReader*>(self)->_position; };
      return made;
    }();
    return &io;
  }

 private:
  sf_count_t Read(void* to, sf_count_t count) {
    char* out = static_cast<char*>(to);
    const sf_count_t begin = _position;
    sf_count_t done = 0;
    while (done < count) {
      if (_position < _taken) {  // again, from what was kept
        const sf_count_t n = std::min(count - done, _taken - _position);
        std::memcpy(out + done, _kept.data() + _position, static_cast<size_t>(n));
        _position += n, done += n;
        continue;
      }
      const ssize_t got = read(_fd, out + done, static_cast<size_t>(count - done));
      if (got < 0 && errno == EINTR) continue;  // a signal turns standard input into its end
      if (got <= 0) break;
      if (_keeping && _taken + got <= kKeptBytes) {
        _kept.append(out + done, static_cast<size_t>(got));
      } else if (_keeping) {
        _keeping = false;  // past the start: nothing more is needed again
        std::string().swap(_kept);
      }
      _taken += got, _position += got, done += got;
    }
    const sf_count_t overwriteEnd = _overwriteAt + static_cast<sf_count_t>(_overwrite.size());
    for (sf_count_t at = std::max(begin, _overwriteAt); at < std::min(_position, overwriteEnd); ++at) {
      out[at - begin] = _overwrite[static_cast<size_t>(at - _overwriteAt)];
    }
    return done;
  }

  sf_count_t Seek(sf_count_t offset, int whence) {
    const sf_count_t target = whence == SEEK_SET ? offset : whence == SEEK_CUR ? _position + offset : -1;
    if (target == _position) return _position;
    if (target < 0 || !_keeping || target > kKeptBytes) return -1;
    if (target <= _taken) {
      _position = target;
      return _position;
    }
    std::string skipped(static_cast<size_t>(target - _taken), '\0');  // forward within the start
    _position = _taken;
    if (Read(&skipped[0], target - _taken) != target - _taken) return -1;
    return _position;
  }

  int _fd;
  std::string _kept;  // the stream's first _taken bytes while _keeping
  sf_count_t _taken = 0;  // bytes read from the pipe
  sf_count_t _position = 0;
  bool _keeping = true;
  sf_count_t _overwriteAt = 0;
  std::string _overwrite;
};

namespace {

// Where a CAF's data size is in its header, or 0.
size_t CafDataSizeOffset(const std::string& header) {
  if (header.rfind("caff", 0) != 0) return 0;
  for (size_t chunk = 8; chunk + 12 <= header.size();) {
    uint64_t bytes = 0;
    for (size_t i = 0; i < 8; ++i) bytes = bytes << 8 | static_cast<unsigned char>(header[chunk + 4 + i]);
    if (header.compare(chunk, 4, "data") == 0) return chunk + 4;
    if (bytes > header.size()) return 0;
    chunk += 12 + static_cast<size_t>(bytes);
  }
  return 0;
}

// A CAF written as a stream leaves its data size at -1, "up to the end", which libsndfile
// does not read by itself.
bool IsCafOfUnknownLength(const std::string& header) {
  const size_t at = CafDataSizeOffset(header);
  return at != 0 && header.compare(at, 8, std::string(8, '\xff')) == 0;
}

// libsndfile's own writer, on a pipe, gives the data size as 4 (the edit count alone) and
// writes its header again into the audio, and once more at the end. From a pipe, whose first
// bytes may not show the repeat yet, a data size of 4 is enough to tell.
bool IsCafGivingNoLength(const std::string& header, bool streamed) {
  const size_t at = CafDataSizeOffset(header);
  return at != 0 && header.compare(at, 8, std::string("\0\0\0\0\0\0\0\4", 8)) == 0 &&
         (streamed || header.compare(at + 12, 4, "caff") == 0);
}

// The formats whose reading goes back to the start, which a pipe cannot.
bool RereadsItsStart(const std::string& header) {
  return header.rfind("fLaC", 0) == 0 || header.rfind("caff", 0) == 0 || header.rfind("Creative Voice File", 0) == 0;
}

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
  const int fd = path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  fstat(fd, &status);
  _live = !S_ISREG(status.st_mode);
  std::string header;
  if (rawRateHz > 0) {
    _info.samplerate = rawRateHz;
    _info.channels = 1;
    _info.format = SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE;
  } else {
    try {
      header = Peek(fd, _name);
    } catch (...) {
      if (fd != STDIN_FILENO) close(fd);
      throw;
    }
    if (Recognise(header, true) != Header::Known) {
      if (fd != STDIN_FILENO) close(fd);
      throw std::runtime_error("cannot read " + _name + ": " +
                               (header.empty() ? "it is empty" : "no audio file header recognised") +
                               " (raw audio needs --rate)");
    }
  }
  const bool streamed = lseek(fd, 0, SEEK_CUR) < 0;
  if (IsCafGivingNoLength(header, streamed)) {
    if (fd != STDIN_FILENO) close(fd);
    throw std::runtime_error("cannot read " + _name +
                             ": a CAF whose header gives no length, as libsndfile writes one to a pipe, is not "
                             "supported (give a CAF file or WAV)");
  }
  const bool unknownLength = IsCafOfUnknownLength(header);
  if (rawRateHz == 0 && (unknownLength || (streamed && RereadsItsStart(header)))) {
    _reader = std::make_unique<PipeReader>(fd);
    // Read up to its end: the data size as the largest there can be.
    if (unknownLength) {
      _reader->Overwrite(static_cast<sf_count_t>(CafDataSizeOffset(header)), std::string("\x7f\xff\xff\xff\xff\xff\xff\xff", 8));
    }
    _file = sf_open_virtual(PipeReader::Callbacks(), SFM_READ, &_info, _reader.get());
    _info.seekable = SF_FALSE;
  } else {
    _file = sf_open_fd(fd, SFM_READ, &_info, fd == STDIN_FILENO ? SF_FALSE : SF_TRUE);
  }
  if (!_file) {
    if (!_reader && fd != STDIN_FILENO) close(fd);
    throw std::runtime_error("cannot read " + _name + ": " + sf_strerror(nullptr));
  }
  // libsndfile trusts the file over a header that claims more data, and only logs it. A
  // stream's length is not known before its end.
  char log[4096] = {};
  sf_command(_file, SFC_GET_LOG_INFO, log, sizeof log);
  for (const char* chunk : {"\ndata :", "\nSSND :"}) {
    const char* line = std::strstr(log, chunk);
    const char* lineEnd = line ? std::strchr(line + 1, '\n') : nullptr;
    const char* claim = line ? std::strstr(line, "(should be ") : nullptr;
    if (claim && (!lineEnd || claim < lineEnd) && !_reader) _truncated = true;
  }
  _float = IsFloatFormat(_info.format);
  try {
    _converter = std::make_unique<MonoConverter>(_info.samplerate, _info.channels, _name);
  } catch (...) {
    sf_close(_file);
    throw;
  }
  _sourceChunk.resize(static_cast<size_t>(kChunkFrames * _info.channels));
}

AudioSource::~AudioSource() { sf_close(_file); }

bool AudioSource::Read() {
  if (_ended) return false;
  const size_t channels = static_cast<size_t>(_info.channels);
  _sourceChunk.resize(static_cast<size_t>(kChunkFrames) * channels);
  sf_count_t frames = 0;
  if (_float) {
    // Full scale is -1..1 whatever the file's own peak: the true level, as for integers.
    _floatChunk.resize(_sourceChunk.size());
    frames = sf_readf_float(_file, _floatChunk.data(), kChunkFrames);
    for (size_t i = 0; i < static_cast<size_t>(std::max<sf_count_t>(frames, 0)) * channels; ++i) {
      _sourceChunk[i] = ToSample(_floatChunk[i]);
    }
  } else {
    frames = sf_readf_short(_file, _sourceChunk.data(), kChunkFrames);
  }
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
  _samples = &_converter->Convert(_sourceChunk.data(), static_cast<size_t>(frames));
  _samplesRead += _samples->size();
  return frames > 0 || !_samples->empty();
}

std::string AudioSource::Describe() const { return _name + ": " + _converter->Describe(); }

MonoConverter::MonoConverter(int sourceRateHz, int channels, const std::string& name)
    : _sourceRateHz(sourceRateHz),
      _channels(static_cast<size_t>(channels)),
      _rateHz(AudioSource::AnalysisRateFor(sourceRateHz)) {
  if (_rateHz == 0) {
    throw std::runtime_error("unsupported sampling rate " + std::to_string(sourceRateHz) + " Hz in " + name +
                             ": at least 8000 Hz is needed");
  }
  if (_rateHz != sourceRateHz) _resampler = std::make_unique<Resampler>(sourceRateHz, _rateHz);
}

MonoConverter::~MonoConverter() = default;

const kt::AudioData& MonoConverter::Convert(const short* frames, size_t count) {
  _samples.clear();
  if (_channels == 1 && !_resampler) {
    _samples.assign(frames, frames + count);
    return _samples;
  }
  _mono.resize(count);
  const double scale = 1.0 / (static_cast<double>(_channels) * 32768.0);
  float* out = _mono.data();
  if (_channels == 2) {  // the common case, in a loop the compiler vectorises
    for (size_t i = 0; i < count; ++i) out[i] = static_cast<float>((frames[2 * i] + frames[2 * i + 1]) * scale);
  } else {
    for (size_t i = 0; i < count; ++i) {
      int sum = 0;
      for (size_t c = 0; c < _channels; ++c) sum += frames[i * _channels + c];
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
  return _samples;
}

std::string MonoConverter::Describe() const {
  std::string text = std::to_string(_rateHz) + " Hz";
  if (_rateHz != _sourceRateHz) text += ", resampled from " + std::to_string(_sourceRateHz) + " Hz";
  if (_channels > 1) text += ", " + std::to_string(_channels) + " channels mixed to mono";
  return text;
}

}  // namespace ktcli
