// The parameter string on arbitrary bytes: construction, then every typed Get on every
// key. Only std::invalid_argument with one of the two fixed texts may come out, and a
// parsed set must match an independent reading of the grammar.
#include <algorithm>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

#include "fuzz_input.h"
#include "parameters.h"

namespace {

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Runs of characters other than the separator, empty runs skipped.
template <typename F>
void ForEachField(const std::string& s, char separator, F f) {
  size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && s[i] == separator) ++i;
    size_t j = i;
    while (j < s.size() && s[j] != separator) ++j;
    if (j > i) f(s.substr(i, j - i));
    i = j;
  }
}

// The grammar read a second way: false when some item is not exactly two fields.
bool Model(const std::string& text, std::map<std::string, std::string>& out) {
  bool ok = true;
  ForEachField(text, ';', [&](const std::string& item) {
    std::string fields[3];
    int n = 0;
    ForEachField(item, '=', [&](const std::string& field) {
      if (n < 3) fields[n] = field;
      ++n;
    });
    if (n != 2) ok = false;
    if (ok) out.emplace(fields[0], fields[1]);  // the first item with a key wins
  });
  return ok;
}

std::string Failure(const std::invalid_argument& e) { return e.what(); }

// Every typed read of a present key gives a value or "Invalid format", nothing else.
template <typename T>
void ReadPresent(const kt::Parameters& p, const std::string& key, T fallback) {
  bool failed = false;
  T value{};
  try {
    value = p.Get<T>(key);
  } catch (const std::invalid_argument& e) {
    FUZZ_CHECK(Failure(e) == "Invalid format");
    failed = true;
  }
  // The default is for absent keys only: a present key reads the same either way.
  try {
    const T withDefault = p.Get<T>(key, fallback);
    FUZZ_CHECK(!failed);
    FUZZ_CHECK(withDefault == value || withDefault != withDefault);  // NaN stays NaN
  } catch (const std::invalid_argument& e) {
    FUZZ_CHECK(Failure(e) == "Invalid format");
    FUZZ_CHECK(failed);
  }
}

template <typename T>
void ReadAbsent(const kt::Parameters& p, const std::string& key, T fallback) {
  try {
    p.Get<T>(key);
    FUZZ_CHECK(false);
  } catch (const std::invalid_argument& e) {
    FUZZ_CHECK(Failure(e) == "Key not found");
  }
  FUZZ_CHECK(p.Get<T>(key, fallback) == fallback);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::map<std::string, std::string> expected;
  const bool valid = Model(text, expected);

  kt::Parameters params;
  try {
    params = kt::Parameters(text);
  } catch (const std::invalid_argument& e) {
    FUZZ_CHECK(Failure(e) == "Invalid format");
    FUZZ_CHECK(!valid);
    return 0;
  }
  FUZZ_CHECK(valid);
  FUZZ_CHECK(params.size() == expected.size());
  FUZZ_CHECK(std::equal(params.begin(), params.end(), expected.begin()));

  for (const auto& [key, value] : expected) {
    FUZZ_CHECK(!key.empty() && !value.empty());
    FUZZ_CHECK(key.find_first_of(";=") == std::string::npos);
    FUZZ_CHECK(value.find_first_of(";=") == std::string::npos);
    FUZZ_CHECK(params.Exists(key));
    ReadPresent<int>(params, key, -7);
    ReadPresent<unsigned int>(params, key, 7u);
    ReadPresent<double>(params, key, 0.25);
    ReadPresent<float>(params, key, 0.5f);
    ReadPresent<std::string>(params, key, std::string("default"));

    // A string value is the first word; blanks only fail.
    size_t b = 0;
    while (b < value.size() && IsSpace(value[b])) ++b;
    size_t e = b;
    while (e < value.size() && !IsSpace(value[e])) ++e;
    if (b == value.size()) {
      try {
        params.Get<std::string>(key);
        FUZZ_CHECK(false);
      } catch (const std::invalid_argument& e) {
        FUZZ_CHECK(Failure(e) == "Invalid format");
      }
    } else {
      FUZZ_CHECK(params.Get<std::string>(key) == value.substr(b, e - b));
    }

    // A key with a trailing byte added is absent unless the string holds it too.
    const std::string other = key + '\x01';
    if (!params.Exists(other)) {
      ReadAbsent<int>(params, other, 11);
      ReadAbsent<double>(params, other, 1.5);
      ReadAbsent<std::string>(params, other, std::string("x"));
    }
  }

  // Set replaces or adds; an int reads back exactly. Copies are independent values.
  kt::Parameters copy = params;
  fuzz::Input in(data, size);
  const int32_t x = in.I32();
  const std::string key = expected.empty() ? std::string("k") : expected.begin()->first;
  copy.Set<int>(key, x);
  FUZZ_CHECK(copy.Get<int>(key) == x);
  FUZZ_CHECK(params.size() == expected.size());
  if (!expected.empty()) FUZZ_CHECK(params.at(key) == expected.at(key));
  return 0;
}
