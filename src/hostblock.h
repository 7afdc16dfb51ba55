#pragma once
// The host's byte block as both C interfaces hand it on.
#include <cstring>

#include "audiodata.h"

namespace kt {

// Fills block with the 16-bit samples of the bytes and one zero sample more; an odd last
// byte becomes the low byte of that sample. A block reused from call to call costs no
// allocation once it has grown to the host's block size.
inline void CopyHostBlock(AudioData& block, const void* data, unsigned int bytes) {
  block.resize(bytes / 2 + 1);
  block.back() = 0;
  if (bytes) std::memcpy(block.data(), data, bytes);
}

// Gives the memory of a reused block back.
inline void ReleaseHostBlock(AudioData& block) { AudioData().swap(block); }

}  // namespace kt
