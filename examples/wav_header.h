/* The 44-byte header of a 16-bit mono PCM WAV file, read by hand for the example hosts. */
#ifndef KTFRONT_EXAMPLES_WAV_HEADER_H
#define KTFRONT_EXAMPLES_WAV_HEADER_H

#include <stdio.h>
#include <string.h>

static unsigned int ReadLE(const unsigned char* p, int bytes) {
  unsigned int value = 0;
  int i;
  for (i = bytes - 1; i >= 0; --i) value = value << 8 | p[i];
  return value;
}

/* Reads the header and returns the sampling rate, the file positioned at the first sample;
 * 0 when the file is not 16-bit mono PCM with a 44-byte header. */
static unsigned int ReadWavHeader(FILE* file) {
  unsigned char header[44];
  if (fread(header, 1, sizeof header, file) != sizeof header || memcmp(header, "RIFF", 4) ||
      memcmp(header + 8, "WAVEfmt ", 8) || ReadLE(header + 20, 2) != 1 ||
      ReadLE(header + 22, 2) != 1 || ReadLE(header + 34, 2) != 16 ||
      memcmp(header + 36, "data", 4)) {
    return 0;
  }
  return ReadLE(header + 24, 4);
}

#endif /* KTFRONT_EXAMPLES_WAV_HEADER_H */
