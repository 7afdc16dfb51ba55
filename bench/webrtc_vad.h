#pragma once
// The package exports the VAD's C functions without installing their header.
#include <cstddef>
#include <cstdint>

extern "C" {
struct WebRtcVadInst;
WebRtcVadInst* WebRtcVad_Create();
void WebRtcVad_Free(WebRtcVadInst* handle);
int WebRtcVad_Init(WebRtcVadInst* handle);
int WebRtcVad_set_mode(WebRtcVadInst* handle, int mode);
int WebRtcVad_Process(WebRtcVadInst* handle, int fs, const int16_t* audio_frame, size_t frame_length);
}
