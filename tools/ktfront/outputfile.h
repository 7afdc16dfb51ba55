#pragma once
// Output files appear whole or not at all: they are written under a temporary name beside
// the target and renamed into place once complete. A symlink's target is written in that
// way and the link stays; a device, a FIFO or "-" (standard output) is written directly.
#include <cstdio>
#include <string>
#include <vector>

namespace ktcli {

class PendingFile {
 public:
  explicit PendingFile(std::string path);
  ~PendingFile();
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;
  PendingFile(PendingFile&& other) noexcept;

  // Where to write: a new name in the directory of the file finally written, or, when the
  // target is written directly, the target itself (/dev/stdout for "-").
  const std::string& GetTemporaryPath() const { return _temporaryPath; }
  const std::string& GetPath() const { return _path; }
  // A device, a FIFO or standard output: what was written stays, whatever happens next.
  bool IsDirect() const { return _direct; }
  // Renames the temporary file onto the target. Throws std::runtime_error.
  void Commit();

 private:
  std::string _path;
  std::string _temporaryPath;
  std::string _finalPath;  // the file the temporary one replaces: a symlink's target
  bool _direct = false;
  bool _pending = true;
};

// Writes text under the file's temporary name; the caller commits it.
void WriteText(const PendingFile& file, const std::string& text);

// 16-bit PCM WAV written as the frames come. The sizes in the header are filled in at the
// end where the target can seek; a pipe or FIFO keeps the streaming value 0xFFFFFFFF.
class WavWriter {
 public:
  WavWriter(const PendingFile& file, int rateHz, int channels);
  ~WavWriter();
  WavWriter(const WavWriter&) = delete;
  WavWriter& operator=(const WavWriter&) = delete;

  // Interleaved frames; throws std::runtime_error.
  void Write(const short* samples, size_t frames);
  // Completes the header and closes the file; throws std::runtime_error.
  void Close();

 private:
  void Fail();

  std::string _name;
  std::FILE* _file = nullptr;
  bool _direct;
  int _channels;
  unsigned long long _dataBytes = 0;
};

}  // namespace ktcli
