#pragma once
// Parameter string "key=value;key=value": parsed once, read typed on request.
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace kt {

// A key of a parameter string, with the value it takes when the string lacks it: the one
// place each default is written.
template <typename T>
struct ParameterKey {
  const char* name;
  T defaultValue;
};

class Parameters : public std::map<std::string, std::string> {
 public:
  Parameters() = default;

  // Throws std::invalid_argument("Invalid format") when an item is not exactly key=value.
  // Of several items with the same key the first one counts.
  explicit Parameters(const std::string& keyValuePairs) {
    std::vector<std::string> items;
    std::vector<std::string> fields;
    Split(items, keyValuePairs, ";");
    for (const std::string& item : items) {
      Split(fields, item, "=");
      if (fields.size() != 2) throw std::invalid_argument("Invalid format");
      emplace(fields[0], fields[1]);  // emplace keeps an existing key: first wins
    }
  }

  // Standard formatted extraction of one T; trailing text is ignored.
  template <typename T>
  const T Get(const std::string& key) const {
    const const_iterator it = find(key);
    if (it == end()) throw std::invalid_argument("Key not found");
    std::istringstream stream(it->second);
    T value{};
    stream >> value;
    if (stream.fail()) throw std::invalid_argument("Invalid format");
    return value;
  }

  // A present key with a malformed value still throws: the default is only for absent keys.
  template <typename T>
  const T Get(const std::string& key, T defaultValue) const {
    if (!Exists(key)) return defaultValue;
    return Get<T>(key);
  }

  template <typename T>
  const T Get(const ParameterKey<T>& key) const {
    return Get<T>(key.name, key.defaultValue);
  }

  template <typename T>
  void Set(const std::string& key, T x) {
    std::ostringstream stream;
    stream << x;
    (*this)[key] = stream.str();
  }

  bool Exists(const std::string& key) const { return find(key) != end(); }

  // The part of a present key's value that Get<T> reads, without leading blanks; empty when
  // Get<T> would throw. A const char* key is read as std::string.
  template <typename T>
  std::string GetReadText(const std::string& key) const {
    using Read = typename std::conditional<std::is_same<T, const char*>::value, std::string, T>::type;
    const std::string& text = at(key);
    std::istringstream stream(text);
    Read value{};
    stream >> value;
    if (stream.fail()) return std::string();
    const std::string::size_type first = text.find_first_not_of(" \t\n\v\f\r");
    const std::streamoff stop = stream.eof() ? static_cast<std::streamoff>(text.size()) : std::streamoff(stream.tellg());
    return text.substr(first, static_cast<std::string::size_type>(stop) - first);
  }

  // Each key of this string that ForEachKey names, with GetReadText of its value.
  template <typename F>
  std::map<std::string, std::string> GetReadTexts(F&& forEachKey) const {
    std::map<std::string, std::string> read;
    forEachKey([&](const auto& key) {
      using T = typename std::decay<decltype(key.defaultValue)>::type;
      if (Exists(key.name)) read[key.name] = GetReadText<T>(key.name);
    });
    return read;
  }

 private:
  // Fields between separator characters; runs of separators count as one, no empty field.
  static void Split(std::vector<std::string>& strVec, const std::string& str,
                    const std::string& separators) {
    strVec.clear();
    std::string::size_type start = str.find_first_not_of(separators);
    while (start != std::string::npos) {
      const std::string::size_type stop = str.find_first_of(separators, start);
      strVec.push_back(str.substr(start, stop - start));
      if (stop == std::string::npos) break;
      start = str.find_first_not_of(separators, stop);
    }
  }
};

}  // namespace kt
