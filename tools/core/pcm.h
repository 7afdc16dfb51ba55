#pragma once
// Full-scale float samples (-1..1) onto the 16-bit scale: the one conversion every input
// (integer or float files, pipes, arrays, live audio) goes through.
#include <algorithm>
#include <cmath>

namespace ktcli {

// Times 32768, saturating, rounding half away from zero as std::round does, without a libm
// call per sample: a float times 32768 plus one half is exact in double, so the truncation
// sees the true sum. NaN reads as 0.
inline short ToSample(float fullScaleOne) {
  if (fullScaleOne != fullScaleOne) return 0;
  const double v = std::min(32767.0, std::max(-32768.0, static_cast<double>(fullScaleOne) * 32768.0));
  return static_cast<short>(static_cast<int>(v + std::copysign(0.5, v)));
}

}  // namespace ktcli
