/* Speech analyzer (voice activity detection with a volume meter) for C hosts.
 *
 * Return codes of every function: 0 success; -1 a null output pointer, no analyzer
 * (KTRVAD_Init not called or failed), or a null block with a non-zero size; -2 an error
 * inside the library (such as an unsupported sampling rate); -3 any other failure.
 * Not thread-safe: make all calls from one thread. */
#ifndef KTRVAD_H
#define KTRVAD_H

#include "export.h"

#ifdef __cplusplus
namespace kt {
class AudioAnalyzer;
}
extern "C" {
#endif

/* Result codes written to *piResult_p. */
#define KTRVAD_RESULT_FAILED (-1)
#define KTRVAD_RESULT_NONE 0
#define KTRVAD_RESULT_SPEECH_START 1
#define KTRVAD_RESULT_SPEECH_END 2
#define KTRVAD_RESULT_VOLUME 3

/* Volume info codes written to *piVolumeInfo_p. */
#define KTRVAD_VOLUME_OK 0
#define KTRVAD_VOLUME_TOO_NOISY 1
#define KTRVAD_VOLUME_TOO_SOFT 2
#define KTRVAD_VOLUME_TOO_LOUD 3

/* Replaces any analyzer with a fresh one; 8000, 11025 and 16000 Hz are supported.
 * An unsupported rate returns -2 and leaves no analyzer. */
KTFRONT_API int KTRVAD_Init(const double dSamplingRate_p);

/* iStart_p non-zero: analyse the block of uiDataSize_p bytes of 16-bit mono samples at
 * pvData_p (machine byte order) and reset the volume outputs to 0. iStart_p zero: only
 * fetch a pending result; the block and the volume outputs are left alone.
 * Reports at most one result: 0 none pending, 1 speech start, 2 speech end, 3 a volume
 * reading (then *pdVolumePcnt_p and *piVolumeInfo_p are set). Poll with iStart_p zero
 * until *piResult_p is 0 to get every result. */
KTFRONT_API int KTRVAD_GetResult(const int iStart_p, const void* pvData_p,
                                 const unsigned int uiDataSize_p, int* piResult_p,
                                 double* pdVolumePcnt_p, int* piVolumeInfo_p);

/* Deletes the analyzer and its pending results; 0 also when there was none. */
KTFRONT_API int KTRVAD_Deinit(void);

#ifdef __cplusplus
/* The analyzer in use, null without one. Exported unmangled like the functions, but
 * declared for C++ hosts only: C has no type for it. */
extern KTFRONT_API kt::AudioAnalyzer* g_pAudioAnalyzer;
}
#endif

#endif /* KTRVAD_H */
