// Runs a fuzz target over stored inputs without libFuzzer, so that every build (gcc,
// i386 under emulation, the sanitizer build) replays the corpus and the regressions.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(argv[i])) {
      for (const auto& entry : std::filesystem::directory_iterator(argv[i])) files.push_back(entry.path());
      std::sort(files.begin(), files.end());
    } else if (std::filesystem::exists(argv[i])) {
      files.push_back(argv[i]);
    } else {
      std::fprintf(stderr, "no such input: %s\n", argv[i]);
      return 1;
    }
    for (const auto& file : files) {
      std::ifstream in(file, std::ios::binary);
      // An exact-size copy, so that the sanitizers see any overread.
      const std::vector<uint8_t> input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(input.data(), input.size());
      ++count;
    }
  }
  std::printf("replayed %zu inputs\n", count);
  return count ? 0 : 1;
}
