#pragma once
// Speech regions as label files: the plain "start end" lines of samples/*.labels, Audacity
// label tracks, RTTM and Praat TextGrid, read by content (LabelWriter in writers.h writes them).
#include <string>
#include <vector>

namespace ktcli {

struct Region {
  double startS = 0.0;
  double endS = 0.0;
};

enum class LabelFormat { Plain, Audacity, Rttm, TextGrid, Json };

// "plain", "audacity", "rttm", "textgrid" or "json"; throws std::invalid_argument.
LabelFormat ParseLabelFormat(const std::string& name);

// Reads speech regions from a label file in any of the formats, recognised by content, in
// UTF-8 (with or without a byte order mark) or UTF-16 with one. fileId picks an RTTM file's
// lines for one recording, and a file without any is refused; empty takes every line.
// Labels of no length are no regions: ParseLabels hands their times to points (if not
// null), ReadLabels warns about them on standard error.
// Throws std::runtime_error "PATH:LINE: what is wrong".
std::vector<Region> ReadLabels(const std::string& path, const std::string& fileId = "");
std::vector<Region> ParseLabels(const std::string& bytes, const std::string& path, const std::string& fileId = "",
                                std::vector<double>* points = nullptr);

// Sorted, with overlapping or touching regions joined.
std::vector<Region> Normalize(std::vector<Region> regions);

// The label file beside a recording: same stem, first of .labels .txt .rttm .TextGrid .json.
// Empty when there is none.
std::string FindLabelsFor(const std::string& recording);

// The stem of a path: its file name without directory and extension.
std::string StemOf(const std::string& path);

// The ID a recording goes by in RTTM files, one of its space-separated fields: the stem with
// every blank (space, tab, ...) replaced by '_', and "stdin" for standard input ("-").
std::string RecordingId(const std::string& path);

}  // namespace ktcli
