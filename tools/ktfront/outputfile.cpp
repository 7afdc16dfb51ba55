#include "outputfile.h"

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace ktcli {
namespace {

std::string DirectoryOf(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string FileNameOf(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

PendingFile::PendingFile(std::string path) : _path(std::move(path)) {
  // A hidden name in the same directory, so that the final rename cannot cross file systems.
  std::string pattern = DirectoryOf(_path) + "/." + FileNameOf(_path) + ".XXXXXX";
  const int fd = mkstemp(pattern.data());
  if (fd < 0) throw std::runtime_error("cannot write " + _path + ": " + std::strerror(errno));
  // mkstemp makes the file private; the finished file gets the usual permissions.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  close(fd);
  _temporaryPath = pattern;
}

PendingFile::PendingFile(PendingFile&& other) noexcept
    : _path(std::move(other._path)),
      _temporaryPath(std::move(other._temporaryPath)),
      _pending(other._pending) {
  other._pending = false;
}

PendingFile::~PendingFile() {
  if (_pending) std::remove(_temporaryPath.c_str());
}

void PendingFile::Commit() {
  if (std::rename(_temporaryPath.c_str(), _path.c_str()) != 0) {
    throw std::runtime_error("cannot write " + _path + ": " + std::strerror(errno));
  }
  _pending = false;
}

void WriteText(const PendingFile& file, const std::string& text) {
  std::ofstream stream(file.GetTemporaryPath(), std::ios::binary);
  stream << text;
  stream.close();
  if (!stream) throw std::runtime_error("cannot write " + file.GetPath());
}

void WriteWav(const PendingFile& file, const short* samples, size_t frames, int rateHz,
              int channels) {
  SF_INFO info{};
  info.samplerate = rateHz;
  info.channels = channels;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* wav = sf_open(file.GetTemporaryPath().c_str(), SFM_WRITE, &info);
  if (!wav) throw std::runtime_error("cannot write " + file.GetPath() + ": " + sf_strerror(nullptr));
  const sf_count_t written = sf_writef_short(wav, samples, static_cast<sf_count_t>(frames));
  const int closeError = sf_close(wav);
  if (written != static_cast<sf_count_t>(frames) || closeError != 0) {
    throw std::runtime_error("cannot write " + file.GetPath());
  }
}

}  // namespace ktcli
