#pragma once
// Output files appear whole or not at all: they are written under a temporary name
// beside the target and renamed into place once complete.
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

  // Where to write; a new name in the target's directory.
  const std::string& GetTemporaryPath() const { return _temporaryPath; }
  const std::string& GetPath() const { return _path; }
  // Renames the temporary file onto the target. Throws std::runtime_error.
  void Commit();

 private:
  std::string _path;
  std::string _temporaryPath;
  bool _pending = true;
};

// Writes text under the file's temporary name; the caller commits it.
void WriteText(const PendingFile& file, const std::string& text);

// Writes interleaved 16-bit frames as a PCM WAV file under the file's temporary name;
// the caller commits it.
void WriteWav(const PendingFile& file, const short* samples, size_t frames, int rateHz,
              int channels);

}  // namespace ktcli
