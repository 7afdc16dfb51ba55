// Speech regions by WebRTC's VAD (Debian's libwebrtc-audio-processing), for bench/accuracy to
// score beside ktfront: 16-bit little-endian mono on standard input, "start end" lines out.
#include <cstdint>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "webrtc_vad.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: webrtc_vad RATE MODE HANGOVER_MS < s16le-mono  (RATE 8000, 16000, 32000 or 48000)\n");
    return 2;
  }
  const int rate = std::atoi(argv[1]);
  const int mode = std::atoi(argv[2]);
  const int hangoverMs = std::atoi(argv[3]);
  const size_t frame = static_cast<size_t>(rate / 50);  // 20 ms
  WebRtcVadInst* vad = WebRtcVad_Create();
  if (!vad || WebRtcVad_Init(vad) != 0 || WebRtcVad_set_mode(vad, mode) != 0 || hangoverMs < 0) {
    std::fprintf(stderr, "webrtc_vad: bad mode %s or hangover %s\n", argv[2], argv[3]);
    return 2;
  }
  std::vector<int16_t> samples(frame);
  const int hangoverFrames = hangoverMs / 20;
  long index = 0, start = -1, lastVoiced = -1;
  auto close = [&](long endFrame) {
    std::printf("%.3f %.3f\n", start * 0.02, endFrame * 0.02);
    start = -1;
  };
  // A region runs from the first voiced frame to the last one plus the hangover.
  while (std::fread(samples.data(), sizeof(int16_t), frame, stdin) == frame) {
    const int voiced = WebRtcVad_Process(vad, rate, samples.data(), frame);
    if (voiced < 0) {
      std::fprintf(stderr, "webrtc_vad: the VAD refused rate %d\n", rate);
      return 1;
    }
    if (voiced) {
      if (start < 0) start = index;
      lastVoiced = index;
    } else if (start >= 0 && index - lastVoiced > hangoverFrames) {
      close(lastVoiced + 1 + hangoverFrames);
    }
    ++index;
  }
  if (start >= 0) close(std::min(index, lastVoiced + 1 + hangoverFrames));
  WebRtcVad_Free(vad);
  return 0;
}
