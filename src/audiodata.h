#pragma once
#include <cstdint>
#include <vector>

namespace kt {

// 16-bit signed mono samples: the unit in which audio passes through the library.
using AudioData = std::vector<int16_t>;

}  // namespace kt
