/* A host of the speech analyzer's C interface: streams a WAV file through it in 20 ms
 * blocks, as a recorder would, and prints speech starts and ends and volume readings.
 * Usage: vad_host FILE.wav (PCM, 16 bit, mono, 8000, 11025 or 16000 Hz, 44-byte header) */
#include <stdio.h>
#include <stdlib.h>

#include <ktfront/KTRVAD.h>
#include "wav_header.h"

static const char* InfoName(int info) {
  switch (info) {
    case KTRVAD_VOLUME_OK: return "ok";
    case KTRVAD_VOLUME_TOO_NOISY: return "too noisy";
    case KTRVAD_VOLUME_TOO_SOFT: return "too soft";
    case KTRVAD_VOLUME_TOO_LOUD: return "too loud";
    default: return "?";
  }
}

int main(int argc, char** argv) {
  unsigned int uiRate, uiBlockBytes, uiBlock = 0;
  unsigned char* pBlock;
  size_t uRead;
  int iRet, iResult, iInfo, iLastInfo = -1;
  double dVolume;
  FILE* file;

  if (argc != 2) {
    fprintf(stderr, "usage: %s FILE.wav\n", argv[0]);
    return 2;
  }
  file = fopen(argv[1], "rb");
  if (!file) {
    fprintf(stderr, "error: cannot open %s\n", argv[1]);
    return 1;
  }
  uiRate = ReadWavHeader(file);
  if (uiRate == 0) {
    fprintf(stderr, "error: %s is not a 16-bit mono PCM WAV file with a 44-byte header\n", argv[1]);
    fclose(file);
    return 1;
  }
  uiBlockBytes = uiRate / 50 * 2;

  iRet = KTRVAD_Init((double)uiRate);
  if (iRet != 0) {
    fprintf(stderr, "error: KTRVAD_Init(%u) returned %d\n", uiRate, iRet);
    fclose(file);
    return 1;
  }
  pBlock = malloc(uiBlockBytes);
  if (!pBlock) {
    fprintf(stderr, "error: out of memory\n");
    KTRVAD_Deinit();
    fclose(file);
    return 1;
  }
  printf("%s: %u Hz\n", argv[1], uiRate);
  /* Samples are little-endian in the file and on the x86 targets alike. */
  while ((uRead = fread(pBlock, 1, uiBlockBytes, file)) > 0) {
    const double dBlockEndMs = 1000.0 * (double)(uiBlock + 1) * (double)uiBlockBytes / 2.0 / uiRate;
    int iStart = 1;
    ++uiBlock;
    /* The first call brings the block; further calls fetch what it left pending. */
    for (;;) {
      iRet = KTRVAD_GetResult(iStart, pBlock, (unsigned int)uRead, &iResult, &dVolume, &iInfo);
      if (iRet != 0) {
        fprintf(stderr, "error: KTRVAD_GetResult returned %d\n", iRet);
        free(pBlock);
        KTRVAD_Deinit();
        fclose(file);
        return 1;
      }
      iStart = 0;
      if (iResult == KTRVAD_RESULT_NONE) break;
      if (iResult == KTRVAD_RESULT_SPEECH_START) {
        printf("%8.0f ms  speech start\n", dBlockEndMs);
      } else if (iResult == KTRVAD_RESULT_SPEECH_END) {
        printf("%8.0f ms  speech end\n", dBlockEndMs);
      } else if (iResult == KTRVAD_RESULT_VOLUME) {
        /* A reading a second, and whenever the verdict changes. */
        if (uiBlock % 50 == 0 || iInfo != iLastInfo) {
          printf("%8.0f ms  volume %6.1f %%  %s\n", dBlockEndMs, dVolume, InfoName(iInfo));
        }
        iLastInfo = iInfo;
      }
    }
  }
  free(pBlock);
  fclose(file);
  KTRVAD_Deinit();
  return 0;
}
