#pragma once
#include <cstdio>
#include <string>

namespace ktcli {

// A number with a fixed count of decimals, as the tool prints times, levels and gains.
inline std::string Fixed(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

}  // namespace ktcli
