#pragma once
// Internal invariants. A violated one throws std::logic_error whose text is the
// condition exactly as written, so the library reports it instead of aborting its host.
#include <stdexcept>

#define KT_ASSERT(condition)                                                   \
  do {                                                                         \
    if (!(condition)) throw std::logic_error(#condition);                      \
  } while (0)
