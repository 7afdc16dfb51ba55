/* Automatic gain control for C hosts: from each recorded block and the recording volume
 * that was in force, the volume to set next.
 *
 * Volumes are longs on the host's scale: lUBound_p stands for gain 1, 0 for gain 0.
 * Return codes of every function: 0 success; -1 a null output pointer, no gain control
 * (KTRAGC_Init not called or failed), a zero bound, a volume outside 0 to lUBound_p
 * (the bound may be negative), or a null block with a non-zero size
 * (in all these cases nothing is written); -2 an error inside the library (such as an
 * unsupported sampling rate, or memory exhaustion); -3 any other failure.
 * Not thread-safe: make all calls from one thread. */
#ifndef KTRAGC_H
#define KTRAGC_H

#include "export.h"

#ifdef __cplusplus
namespace kt {
class AGC;
}
extern "C" {
#endif

/* Replaces any gain control with a fresh one in its default configuration; 8000, 11025
 * and 16000 Hz are supported. An unsupported rate returns -2 and leaves none. */
KTFRONT_API int KTRAGC_Init(const int iSamplingRate_p);

/* Takes the block of uiDataSize_p bytes of 16-bit mono samples at pvData_p (machine byte
 * order), recorded at volume lInVolume_p, and writes the volume to set next to
 * *plCurrentGain_p: lInVolume_p itself while the gain stays, otherwise the new gain times
 * the bound, truncated toward zero. A product past the bound (a large bound that float
 * rounds upward) is written as the bound. On -2 or -3 *plCurrentGain_p is 0. */
KTFRONT_API int KTRAGC_ComputeGain(const void* pvData_p, const unsigned int uiDataSize_p,
                                   const long lInVolume_p, const long lUBound_p,
                                   long* plCurrentGain_p);

/* Deletes the gain control; 0 also when there was none. */
KTFRONT_API int KTRAGC_Deinit(void);

#ifdef __cplusplus
/* The gain control in use, null without one. Exported unmangled like the functions, but
 * declared for C++ hosts only: C has no type for it. */
extern KTFRONT_API kt::AGC* g_pAgc;
}
#endif

#endif /* KTRAGC_H */
