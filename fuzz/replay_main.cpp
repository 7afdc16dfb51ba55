// Runs a fuzz target over stored inputs without libFuzzer, so that every build (gcc,
// i386 under emulation, the sanitizer build) replays the corpus and the regressions.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void Replay(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                std::istreambuf_iterator<char>());
  // Copied into an exact-size allocation so that the sanitizers see any overread.
  std::vector<uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path arg(argv[i]);
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(arg)) {
      for (const auto& entry : std::filesystem::directory_iterator(arg)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
      std::sort(files.begin(), files.end());
    } else if (std::filesystem::exists(arg)) {
      files.push_back(arg);
    } else {
      std::fprintf(stderr, "no such input: %s\n", argv[i]);
      return 1;
    }
    for (const auto& file : files) {
      Replay(file);
      ++count;
    }
  }
  std::printf("replayed %zu inputs\n", count);
  return count ? 0 : 1;
}
