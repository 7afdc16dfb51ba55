#include "KTRAGC.h"

#include <algorithm>
#include <climits>
#include <exception>

#include "agc.h"
#include "hostblock.h"

kt::AGC* g_pAgc = nullptr;

namespace {

// The host's block for the gain control, reused from call to call; freed with it.
kt::AudioData g_audioData;

}  // namespace

int KTRAGC_Init(const int iSamplingRate_p) {
  try {
    delete g_pAgc;
    g_pAgc = nullptr;
    kt::ReleaseHostBlock(g_audioData);
    g_pAgc = new kt::AGC("", iSamplingRate_p);
    return g_pAgc ? 0 : -1;
  } catch (const std::exception&) {
    return -2;
  } catch (...) {
    return -3;
  }
}

namespace {

// The product as long, truncated toward zero; saturated where float rounded the bound
// beyond the range of long.
long TruncateToLong(double dVolume) {
  if (dVolume >= -static_cast<double>(LONG_MIN)) return LONG_MAX;
  if (dVolume < static_cast<double>(LONG_MIN)) return LONG_MIN;
  return static_cast<long>(dVolume);
}

}  // namespace

int KTRAGC_ComputeGain(const void* pvData_p, const unsigned int uiDataSize_p,
                       const long lInVolume_p, const long lUBound_p, long* plCurrentGain_p) {
  if (!plCurrentGain_p) return -1;
  if (!g_pAgc) return -1;
  if (lUBound_p == 0) return -1;
  if (!pvData_p && uiDataSize_p) return -1;
  // Compared as integers: with a bound beyond 2^24, float would round a volume just past
  // it to a gain of 1 and hand it back unchanged.
  if (lUBound_p > 0 ? lInVolume_p < 0 || lInVolume_p > lUBound_p
                    : lInVolume_p > 0 || lInVolume_p < lUBound_p) {
    return -1;
  }
  // long / float: both in single precision, the quotient rounded to single precision.
  const float fCurrentGain = lInVolume_p / static_cast<float>(lUBound_p);
  if (!(fCurrentGain >= 0.0f && fCurrentGain <= 1.0f)) return -1;
  *plCurrentGain_p = 0;
  try {
    // One sample more than the block holds; an odd last byte becomes a low byte.
    kt::CopyHostBlock(g_audioData, pvData_p, uiDataSize_p);
    const float fNewGain = g_pAgc->ComputeGain(g_audioData, fCurrentGain);
    if (fNewGain == fCurrentGain) {
      *plCurrentGain_p = lInVolume_p;  // an unchanged gain keeps the host's own value
    } else {
      // Formed in double and not rounded to float: 0.29f × 100 gives 28, not 29.
      const double dNewVolume =
          static_cast<double>(fNewGain) * static_cast<double>(static_cast<float>(lUBound_p));
      // Float may round a large bound upward and the product past it: the host's next
      // call would then be refused, so the volume stays on its scale.
      const long lNewVolume = TruncateToLong(dNewVolume);
      *plCurrentGain_p = lUBound_p > 0 ? std::min(lNewVolume, lUBound_p)
                                       : std::max(lNewVolume, lUBound_p);
    }
    return 0;
  } catch (const std::exception&) {
    return -2;
  } catch (...) {
    return -3;
  }
}

int KTRAGC_Deinit(void) {
  try {
    delete g_pAgc;
    g_pAgc = nullptr;
    kt::ReleaseHostBlock(g_audioData);
    return 0;
  } catch (const std::exception&) {
    return -2;
  } catch (...) {
    return -3;
  }
}
