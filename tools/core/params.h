#pragma once
// The one check of a parameter string, for every command and the Python module.
#include <string>
#include <vector>

namespace ktcli {

// Builds the service once, so that a string it refuses is refused here with its reason:
// std::invalid_argument "invalid parameter string "...": why". The analyzer's limits depend
// on its frame length, so it is checked at the rate it will run at; the gain control's
// frames are 20 ms at every rate. Returns one warning per key the service does not read:
// the library ignores those, so a misspelt key would silently do nothing; and one per value
// of which it reads only a leading part: "EOSTimeoutMs=3e2 is read as 3".
std::vector<std::string> CheckAnalyzerParams(const std::string& params, int rateHz);
std::vector<std::string> CheckAgcParams(const std::string& params);

// The text itself up to 200 characters, or its start and its length: how messages echo
// what a user gave.
std::string Abridged(const std::string& text);

}  // namespace ktcli
