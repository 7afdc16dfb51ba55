#include "outputfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "output.h"

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

// The file a chain of symlinks ends at, which need not exist yet.
std::string FollowLinks(std::string path) {
  for (int hops = 0; hops < 40; ++hops) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) return path;
    std::vector<char> target(PATH_MAX + 1, '\0');
    const ssize_t length = readlink(path.c_str(), target.data(), PATH_MAX);
    if (length < 0) return path;
    const std::string next(target.data(), static_cast<size_t>(length));
    path = next[0] == '/' ? next : DirectoryOf(path) + "/" + next;
  }
  throw std::runtime_error("cannot write " + path + ": " + std::strerror(ELOOP));
}

void PutLittleEndian(unsigned char* at, unsigned long value, int bytes) {
  for (int i = 0; i < bytes; ++i) at[i] = static_cast<unsigned char>(value >> (8 * i));
}

}  // namespace

PendingFile::PendingFile(std::string path) : _path(std::move(path)) {
  if (_path == "-") {
    _direct = true;
    _temporaryPath = "/dev/stdout";
    return;
  }
  _finalPath = FollowLinks(_path);
  struct stat status {};
  const bool exists = stat(_finalPath.c_str(), &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) throw std::runtime_error("cannot write " + _path + ": it is a directory");
  if (exists && !S_ISREG(status.st_mode)) {
    _direct = true;
    _temporaryPath = _finalPath;
    return;
  }
  // A hidden name in the same directory, so that the final rename cannot cross file systems.
  std::string pattern = DirectoryOf(_finalPath) + "/." + FileNameOf(_finalPath) + ".XXXXXX";
  const int fd = mkstemp(pattern.data());
  if (fd < 0) throw std::runtime_error("cannot write " + _path + ": " + std::strerror(errno));
  // mkstemp makes the file private: a file replaced keeps its mode (and, for root, its
  // owner), a new one gets the usual permissions.
  if (exists) {
    fchmod(fd, status.st_mode & 07777);
    if (geteuid() == 0 && fchown(fd, status.st_uid, status.st_gid) != 0) fchmod(fd, status.st_mode & 0777);
  } else {
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
  }
  close(fd);
  _temporaryPath = pattern;
}

PendingFile::PendingFile(PendingFile&& other) noexcept
    : _path(std::move(other._path)),
      _temporaryPath(std::move(other._temporaryPath)),
      _finalPath(std::move(other._finalPath)),
      _direct(other._direct),
      _pending(other._pending) {
  other._pending = false;
}

PendingFile::~PendingFile() {
  if (_pending && !_direct) std::remove(_temporaryPath.c_str());
}

void PendingFile::Commit() {
  if (!_direct && std::rename(_temporaryPath.c_str(), _finalPath.c_str()) != 0) {
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

WavWriter::WavWriter(const PendingFile& file, int rateHz, int channels)
    : _name(file.GetPath()), _direct(file.IsDirect()), _channels(channels) {
  _file = std::fopen(file.GetTemporaryPath().c_str(), "wb");
  if (!_file) Fail();
  unsigned char header[44] = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0,
                              1,   0,   0,   0,   0, 0, 0, 0, 0,   0,   0,   0,   0,   0,   16,  0,  'd', 'a', 't', 'a'};
  PutLittleEndian(header + 4, 0xFFFFFFFFUL, 4);
  PutLittleEndian(header + 22, static_cast<unsigned long>(channels), 2);
  PutLittleEndian(header + 24, static_cast<unsigned long>(rateHz), 4);
  PutLittleEndian(header + 28, static_cast<unsigned long>(rateHz) * 2 * static_cast<unsigned long>(channels), 4);
  PutLittleEndian(header + 32, 2 * static_cast<unsigned long>(channels), 2);
  PutLittleEndian(header + 40, 0xFFFFFFFFUL, 4);
  if (std::fwrite(header, 1, sizeof header, _file) != sizeof header) Fail();
}

WavWriter::~WavWriter() {
  if (_file) std::fclose(_file);
}

void WavWriter::Fail() {
  const int error = errno;
  if (_file) std::fclose(_file);
  _file = nullptr;
  if (error == EPIPE) throw ClosedPipe();  // the reader of a pipe has gone
  throw std::runtime_error("cannot write " + _name + (error ? std::string(": ") + std::strerror(error) : ""));
}

void WavWriter::Write(const short* samples, size_t frames) {
  const size_t count = frames * static_cast<size_t>(_channels);
  errno = 0;
  if (std::fwrite(samples, sizeof(short), count, _file) != count) Fail();
  _dataBytes += count * sizeof(short);
  // Whoever reads a device or FIFO hears each block as soon as it is done.
  if (_direct && std::fflush(_file) != 0) Fail();
}

void WavWriter::Close() {
  errno = 0;
  if (std::fflush(_file) != 0) Fail();
  // Sizes over 4 GiB cannot be told in a WAV header; readers take 0xFFFFFFFF as "to the end".
  const unsigned long data = _dataBytes > 0xFFFFFFFFULL - 36 ? 0xFFFFFFFFUL : static_cast<unsigned long>(_dataBytes);
  unsigned char size[4];
  if (std::fseek(_file, 4, SEEK_SET) == 0) {
    PutLittleEndian(size, data == 0xFFFFFFFFUL ? data : data + 36, 4);
    if (std::fwrite(size, 1, 4, _file) != 4 || std::fseek(_file, 40, SEEK_SET) != 0) Fail();
    PutLittleEndian(size, data, 4);
    if (std::fwrite(size, 1, 4, _file) != 4) Fail();
  }
  std::FILE* file = _file;
  _file = nullptr;
  if (std::fclose(file) != 0) {
    _file = nullptr;
    throw std::runtime_error("cannot write " + _name + ": " + std::strerror(errno));
  }
}

}  // namespace ktcli
