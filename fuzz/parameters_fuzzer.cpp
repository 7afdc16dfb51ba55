// kt::Parameters on any text: it parses exactly when every ';'-separated item is one
// key=value pair, the first of equal keys wins, and typed reads either convert or say why.
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_input.h"

namespace {

// Non-empty fields between separators.
std::vector<std::string> Fields(const std::string& s, char separator) {
  std::vector<std::string> out;
  for (size_t i = 0, j; i < s.size(); i = j + 1) {
    j = std::min(s.find(separator, i), s.size());
    if (j > i) out.push_back(s.substr(i, j - i));
  }
  return out;
}

template <typename T>
void Read(const kt::Parameters& p, const std::string& key, T fallback) {
  std::string first, second;
  try { p.Get<T>(key); } catch (const std::invalid_argument& e) { first = e.what(); }
  try { p.Get<T>(key, fallback); } catch (const std::invalid_argument& e) { second = e.what(); }
  FUZZ_CHECK(first.empty() || first == "Invalid format" || first == "Key not found");
  FUZZ_CHECK(second == (first == "Key not found" ? "" : first));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::map<std::string, std::string> expected;
  bool valid = true;
  for (const std::string& item : Fields(text, ';')) {
    const std::vector<std::string> kv = Fields(item, '=');
    valid = valid && kv.size() == 2;
    if (valid) expected.emplace(kv[0], kv[1]);
  }
  kt::Parameters params;
  try {
    params = kt::Parameters(text);
  } catch (const std::invalid_argument& e) {
    FUZZ_CHECK(std::string(e.what()) == "Invalid format" && !valid);
    return 0;
  }
  FUZZ_CHECK(valid && params == expected);
  for (const auto& entry : expected) {
    for (const std::string& key : {entry.first, entry.first + '\x01'}) {
      Read<int>(params, key, -7);
      Read<double>(params, key, 0.25);
      Read<std::string>(params, key, "default");
    }
  }
  fuzz::Input in(data, size);
  const int32_t x = in.I32();
  params.Set<int>("k", x);
  FUZZ_CHECK(params.Get<int>("k") == x);
  return 0;
}
