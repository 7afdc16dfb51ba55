/* A host of the gain control's C interface: plays a WAV file through it in 20 ms blocks
 * as a recorder would, each block scaled by the recording volume then in force, sets the
 * volume it answers, and prints every change.
 * Usage: agc_host FILE.wav [VOLUME [BOUND]] (PCM, 16 bit, mono, 8000, 11025 or 16000 Hz,
 * 44-byte header; the volume scale runs from 0 to BOUND, by default 10 of 100) */
#include <stdio.h>
#include <stdlib.h>

#include <ktfront/KTRAGC.h>
#include "wav_header.h"

/* The recording at a volume of lVolume / lBound, saturated to 16 bits. */
static void ApplyVolume(short* psSamples, size_t uCount, long lVolume, long lBound) {
  size_t u;
  for (u = 0; u < uCount; ++u) {
    long long llScaled = (long long)psSamples[u] * lVolume / lBound;
    if (llScaled > 32767) llScaled = 32767;
    if (llScaled < -32768) llScaled = -32768;
    psSamples[u] = (short)llScaled;
  }
}

int main(int argc, char** argv) {
  unsigned int uiRate, uiBlockBytes, uiBlock = 0;
  short* psBlock;
  size_t uRead;
  long lVolume = 10, lBound = 100, lNewVolume;
  int iRet;
  FILE* file;

  if (argc < 2 || argc > 4) {
    fprintf(stderr, "usage: %s FILE.wav [VOLUME [BOUND]]\n", argv[0]);
    return 2;
  }
  if (argc > 2) lVolume = strtol(argv[2], NULL, 10);
  if (argc > 3) lBound = strtol(argv[3], NULL, 10);
  if (lBound <= 0 || lVolume < 0 || lVolume > lBound) {
    fprintf(stderr, "error: the volume must lie between 0 and a positive bound\n");
    return 2;
  }
  file = fopen(argv[1], "rb");
  if (!file) {
    fprintf(stderr, "error: cannot open %s\n", argv[1]);
    return 1;
  }
  uiRate = ReadWavHeader(file);
  if (uiRate == 0) {
    fprintf(stderr, "error: %s is not a 16-bit mono PCM WAV file with a 44-byte header\n",
            argv[1]);
    fclose(file);
    return 1;
  }
  uiBlockBytes = uiRate / 50 * 2;

  iRet = KTRAGC_Init((int)uiRate);
  if (iRet != 0) {
    fprintf(stderr, "error: KTRAGC_Init(%u) returned %d\n", uiRate, iRet);
    fclose(file);
    return 1;
  }
  psBlock = malloc(uiBlockBytes);
  if (!psBlock) {
    fprintf(stderr, "error: out of memory\n");
    KTRAGC_Deinit();
    fclose(file);
    return 1;
  }
  printf("%s: %u Hz, volume %ld of %ld\n", argv[1], uiRate, lVolume, lBound);
  /* Samples are little-endian in the file and on the x86 targets alike. */
  while ((uRead = fread(psBlock, 1, uiBlockBytes, file)) > 0) {
    const double dBlockEndMs = 1000.0 * (double)(uiBlock + 1) * (double)uiBlockBytes / 2.0 / uiRate;
    ++uiBlock;
    ApplyVolume(psBlock, uRead / 2, lVolume, lBound);
    iRet = KTRAGC_ComputeGain(psBlock, (unsigned int)uRead, lVolume, lBound, &lNewVolume);
    if (iRet != 0) {
      fprintf(stderr, "error: KTRAGC_ComputeGain returned %d\n", iRet);
      free(psBlock);
      KTRAGC_Deinit();
      fclose(file);
      return 1;
    }
    if (lNewVolume != lVolume) {
      printf("%8.0f ms  volume %ld -> %ld\n", dBlockEndMs, lVolume, lNewVolume);
      lVolume = lNewVolume;
    }
  }
  printf("final volume %ld of %ld\n", lVolume, lBound);
  free(psBlock);
  fclose(file);
  KTRAGC_Deinit();
  return 0;
}
