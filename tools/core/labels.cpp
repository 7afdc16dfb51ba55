#include "labels.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

#include "textformat.h"
#include "writers.h"

namespace ktcli {
namespace {

class LabelError : public std::runtime_error {
 public:
  LabelError(const std::string& path, int line, const std::string& what)
      : std::runtime_error(path + ":" + std::to_string(line) + ": " + what) {}
};

bool ParseNumber(const std::string& token, double& value) {
  if (token.empty()) return false;
  char* end = nullptr;
  errno = 0;
  value = std::strtod(token.c_str(), &end);
  return end == token.c_str() + token.size() && errno == 0 && std::isfinite(value);
}

std::vector<std::string> Split(const std::string& line, char separator) {
  std::vector<std::string> fields;
  if (separator == ' ') {
    std::istringstream stream(line);
    for (std::string field; stream >> field;) fields.push_back(field);
    return fields;
  }
  std::string field;
  std::istringstream stream(line);
  while (std::getline(stream, field, separator)) fields.push_back(field);
  return fields;
}

// Zero-length labels (Audacity's point labels) mark instants: they go to points, if given.
void AddRegion(std::vector<Region>& regions, const std::string& path, int line, const std::string& startText,
               const std::string& endText, bool isDuration, std::vector<double>* points = nullptr) {
  double start = 0.0;
  double end = 0.0;
  if (!ParseNumber(startText, start)) throw LabelError(path, line, "\"" + startText + "\" is not a time in seconds");
  if (!ParseNumber(endText, end)) {
    throw LabelError(path, line, "\"" + endText + "\" is not a " + (isDuration ? "duration" : "time") + " in seconds");
  }
  if (isDuration) end += start;
  if (start < 0.0) throw LabelError(path, line, "negative time " + startText);
  if (end < start) throw LabelError(path, line, "region ends before it starts");
  if (end == start && points) return points->push_back(start);
  regions.push_back({start, end});
}

enum class Kind { Plain, Audacity, Rttm, TextGrid, Json };

bool IsRttmType(const std::string& word) {
  static const std::set<std::string> kTypes = {"SPEAKER", "SPKR-INFO", "SEGMENT", "NOSCORE", "NO_RT_METADATA", "LEXEME",
                                               "NON-LEX", "NON-SPEECH", "FILLER", "IP", "SU", "EDIT", "CB", "A/P"};
  return kTypes.count(word) != 0;
}

// Appends code point c as UTF-8.
void AppendUtf8(std::string& out, unsigned long c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// The text as UTF-8: a UTF-8 byte order mark is dropped, UTF-16 with one (as Praat writes a
// TextGrid holding any non-ASCII character) is converted.
std::string ToUtf8(const std::string& bytes, const std::string& path) {
  if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) return bytes.substr(3);
  const bool little = bytes.rfind("\xFF\xFE", 0) == 0;
  if (!little && bytes.rfind("\xFE\xFF", 0) != 0) return bytes;
  if (bytes.size() % 2 != 0) throw LabelError(path, 1, "UTF-16 text of an odd number of bytes");
  auto unit = [&](size_t at) {
    const auto a = static_cast<unsigned char>(bytes[at]), b = static_cast<unsigned char>(bytes[at + 1]);
    return little ? static_cast<unsigned long>(b << 8 | a) : static_cast<unsigned long>(a << 8 | b);
  };
  std::string text;
  int line = 1;
  for (size_t at = 2; at < bytes.size(); at += 2) {
    unsigned long c = unit(at);
    if (c >= 0xD800 && c < 0xDC00 && at + 3 < bytes.size() && unit(at + 2) >= 0xDC00 && unit(at + 2) < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (unit(at + 2) - 0xDC00);
      at += 2;
    } else if (c >= 0xD800 && c < 0xE000) {
      throw LabelError(path, line, "broken UTF-16 surrogate pair");
    }
    if (c == '\n') ++line;
    AppendUtf8(text, c);
  }
  return text;
}

Kind Recognize(const std::string& text) {
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos) continue;
    const std::string rest = line.substr(first);
    if (rest.rfind("File type", 0) == 0 || rest.find("ooTextFile") != std::string::npos) return Kind::TextGrid;
    if (rest[0] == '{') return Kind::Json;
    if (rest.rfind(";;", 0) == 0 || IsRttmType(rest.substr(0, rest.find_first_of(" \t")))) return Kind::Rttm;
    if (rest.find('\t') != std::string::npos) return Kind::Audacity;
    if (rest[0] != '#') return Kind::Plain;
  }
  return Kind::Plain;
}

// Praat writes TextGrids long ("xmin = 0") or short (the bare values); both are the same
// sequence of numbers and strings once names, "=" and "[1]:" are left out.
struct Token {
  bool isText;
  std::string text;
  double number;
  int line;
};

std::vector<Token> TextGridTokens(const std::string& text) {
  std::vector<Token> tokens;
  int line = 1;
  for (size_t at = 0; at < text.size();) {
    const char c = text[at];
    if (c == '\n') ++line;
    if (std::isspace(static_cast<unsigned char>(c))) {
      ++at;
    } else if (c == '"') {
      std::string value;
      const int startLine = line;
      for (++at; at < text.size(); ++at) {
        if (text[at] == '"' && at + 1 < text.size() && text[at + 1] == '"') {
          value += '"';
          ++at;
        } else if (text[at] == '"') {
          break;
        } else {
          if (text[at] == '\n') ++line;
          value += text[at];
        }
      }
      ++at;
      tokens.push_back({true, value, 0.0, startLine});
    } else {
      const size_t end = text.find_first_of(" \t\r\n", at);
      const std::string word = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
      double number = 0.0;
      if ((std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '+' || c == '.') && ParseNumber(word, number)) {
        tokens.push_back({false, "", number, line});
      }
      at += word.size();
    }
  }
  return tokens;
}

std::vector<Region> ParseTextGrid(const std::string& text, const std::string& path) {
  const std::vector<Token> tokens = TextGridTokens(text);
  size_t at = 0;
  auto next = [&](bool wantText, const char* what) -> const Token& {
    if (at >= tokens.size()) {
      throw LabelError(path, tokens.empty() ? 1 : tokens.back().line, std::string("TextGrid ends where ") + what + " was expected");
    }
    const Token& token = tokens[at++];
    if (token.isText != wantText) throw LabelError(path, token.line, std::string("expected ") + what);
    return token;
  };
  auto count = [&](const char* what) {
    const Token& token = next(false, what);
    if (token.number < 0 || token.number != std::floor(token.number)) throw LabelError(path, token.line, std::string("bad ") + what);
    return static_cast<long>(token.number);
  };
  if (next(true, "\"ooTextFile\"").text != "ooTextFile" || next(true, "\"TextGrid\"").text != "TextGrid") {
    throw LabelError(path, tokens[at - 1].line, "not a TextGrid");
  }
  next(false, "xmin");
  next(false, "xmax");
  const long tiers = count("number of tiers");
  for (long tier = 0; tier < tiers; ++tier) {
    const std::string kind = next(true, "tier class").text;
    next(true, "tier name");
    next(false, "xmin");
    next(false, "xmax");
    const long items = count("number of intervals");
    if (kind == "IntervalTier") {
      std::vector<Region> regions;
      for (long i = 0; i < items; ++i) {
        const Token& start = next(false, "interval xmin");
        const Token& end = next(false, "interval xmax");
        const std::string label = next(true, "interval text").text;
        // Empty (or blank) intervals are the pauses.
        if (label.find_first_not_of(" \t\r\n") == std::string::npos) continue;
        AddRegion(regions, path, start.line, Fixed(start.number, 9), Fixed(end.number, 9), false);
      }
      return regions;
    }
    if (kind != "TextTier") throw LabelError(path, tokens[at - 1].line, "unknown tier class \"" + kind + "\"");
    for (long i = 0; i < items; ++i) {
      next(false, "point time");
      next(true, "point mark");
    }
  }
  throw LabelError(path, tokens.empty() ? 1 : tokens.back().line, "TextGrid has no interval tier");
}

std::vector<Region> ParseLines(const std::string& text, const std::string& path, Kind kind, const std::string& fileId,
                               std::vector<double>* points) {
  std::vector<Region> regions;
  std::set<std::string> ids;  // the recordings an RTTM file speaks of
  std::istringstream stream(text);
  int number = 0;
  for (std::string line; std::getline(stream, line);) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::vector<std::string> words = Split(line, ' ');
    if (words.empty() || words[0][0] == '#') continue;
    if (kind == Kind::Json) {
      Region segment;
      try {
        if (!ParseJsonSegment(line, segment)) continue;
      } catch (const std::invalid_argument& e) {
        throw LabelError(path, number, e.what());
      }
      AddRegion(regions, path, number, Fixed(segment.startS, 9), Fixed(segment.endS, 9), false, points);
    } else if (kind == Kind::Rttm) {
      if (words[0] != "SPEAKER") continue;  // comments and other record types
      if (words.size() < 5) throw LabelError(path, number, "expected SPEAKER FILE CHANNEL START DURATION ...");
      ids.insert(words[1]);
      if (!fileId.empty() && words[1] != fileId) continue;
      AddRegion(regions, path, number, words[3], words[4], true, points);
    } else if (kind == Kind::Audacity) {
      if (line[0] == '\\') continue;  // a spectral selection belonging to the label above
      const std::vector<std::string> fields = Split(line, '\t');
      if (fields.size() < 2) throw LabelError(path, number, "expected START<TAB>END<TAB>LABEL");
      AddRegion(regions, path, number, fields[0], fields[1], false, points);
    } else {
      // vad's plain output may carry volume and frame lines and mark a segment "open".
      if (words[0] == "volume" || words[0] == "frame") continue;
      if (words.size() < 2 || words.size() > 3 || (words.size() == 3 && words[2] != "open")) {
        throw LabelError(path, number, "expected \"start end\" in seconds");
      }
      AddRegion(regions, path, number, words[0], words[1], false, points);
    }
  }
  // Another recording's lines would be scored against this one as if they were its own.
  if (kind == Kind::Rttm && !fileId.empty() && ids.count(fileId) == 0) {
    std::string known;
    for (const std::string& id : ids) known += (known.empty() ? "" : ", ") + id;
    throw std::runtime_error(path + ": no SPEAKER line for recording \"" + fileId + "\"" +
                             (known.empty() ? std::string(" (it has none)") : " (it has " + known + "; --labels-id names the one to use)"));
  }
  return regions;
}

}  // namespace

LabelFormat ParseLabelFormat(const std::string& name) {
  if (name == "plain") return LabelFormat::Plain;
  if (name == "audacity") return LabelFormat::Audacity;
  if (name == "rttm") return LabelFormat::Rttm;
  if (name == "textgrid") return LabelFormat::TextGrid;
  if (name == "json") return LabelFormat::Json;
  throw std::invalid_argument("unknown label format \"" + name + "\"");
}

std::vector<Region> ParseLabels(const std::string& bytes, const std::string& path, const std::string& fileId,
                                std::vector<double>* points) {
  const std::string text = ToUtf8(bytes, path);
  const Kind kind = Recognize(text);
  return kind == Kind::TextGrid ? ParseTextGrid(text, path) : ParseLines(text, path, kind, fileId, points);
}

std::vector<Region> ReadLabels(const std::string& path, const std::string& fileId) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  std::ostringstream text;
  text << stream.rdbuf();
  std::vector<double> points;
  std::vector<Region> regions = ParseLabels(text.str(), path, fileId, &points);
  if (!points.empty()) {
    std::string at;
    for (size_t i = 0; i < points.size() && i < 5; ++i) at += (i ? ", " : "") + Fixed(points[i], 3);
    std::cerr << "ktfront: warning: " << path << ": " << points.size() << " point label" << (points.size() > 1 ? "s" : "")
              << " (no length; at " << at << (points.size() > 5 ? ", ..." : "") << " s) left out: a label of no length marks no region\n";
  }
  return regions;
}

std::vector<Region> Normalize(std::vector<Region> regions) {
  std::sort(regions.begin(), regions.end(), [](const Region& a, const Region& b) { return a.startS < b.startS; });
  std::vector<Region> joined;
  for (const Region& region : regions) {
    if (!joined.empty() && region.startS <= joined.back().endS) {
      joined.back().endS = std::max(joined.back().endS, region.endS);
    } else {
      joined.push_back(region);
    }
  }
  return joined;
}

std::string StemOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = name.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

std::string RecordingId(const std::string& path) {
  if (path == "-") return "stdin";
  std::string id = StemOf(path);
  for (char& c : id) {
    if (std::isspace(static_cast<unsigned char>(c))) c = '_';
  }
  return id;
}

std::string FindLabelsFor(const std::string& recording) {
  const size_t slash = recording.find_last_of('/');
  const std::string base = (slash == std::string::npos ? "" : recording.substr(0, slash + 1)) + StemOf(recording);
  for (const char* extension : {".labels", ".txt", ".rttm", ".TextGrid", ".json"}) {
    struct stat status {};
    if (stat((base + extension).c_str(), &status) == 0 && S_ISREG(status.st_mode)) return base + extension;
  }
  return "";
}

}  // namespace ktcli
