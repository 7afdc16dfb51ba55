#pragma once
// Recording from a source of the audio server through libpulse (PulseAudio, or PipeWire's
// pulse server), and the source's volume read and set through the same connection.
#include <pulse/mainloop.h>
#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/stream.h>
#include <pulse/volume.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "audiodata.h"
#include "source.h"

namespace ktcli {

// The server went away, or the source did, while recording.
class AudioServerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class PulseCapture {
 public:
  // Connects to the server ($PULSE_SERVER or the user's; never starts one) and records from
  // the source of that name, the server's default if empty, at the source's own rate and
  // channels, 16-bit. Throws std::runtime_error naming what failed.
  explicit PulseCapture(const std::string& sourceName);
  ~PulseCapture();
  PulseCapture(const PulseCapture&) = delete;
  PulseCapture& operator=(const PulseCapture&) = delete;

  // Waits for the next chunk; false once SIGINT or SIGTERM was caught. Throws
  // AudioServerError when the server or the source goes away.
  bool Read();
  const std::vector<short>& GetSourceChunk() const { return _chunk; }
  const kt::AudioData& GetSamples() const { return *_samples; }
  int GetRateHz() const { return _converter->GetRateHz(); }
  const std::string& GetSourceName() const { return _sourceName; }
  // One line for the user: the source, and how its audio reaches the services.
  std::string Describe() const;

  // The source's volume on the server's scale (PA_VOLUME_NORM is 100 %), its loudest channel;
  // follows changes made by others.
  pa_volume_t GetVolume() const { return _volume; }
  // Sets every channel of the source to volume; a refusal is thrown by a later Read.
  void SetVolume(pa_volume_t volume);
  // Puts back the volume the source had when recording began, and waits until it is set.
  void RestoreVolume();

 private:
  static void OnSourceInfo(pa_context* context, const pa_source_info* info, int eol, void* self);
  static void OnVolumeRead(pa_context* context, const pa_source_info* info, int eol, void* self);
  static void OnEvent(pa_context* context, pa_subscription_event_type_t type, uint32_t index, void* self);
  static void OnVolumeSet(pa_context* context, int success, void* self);
  static void OnRead(pa_stream* stream, size_t bytes, void* self);

  // One turn of the main loop, waiting at most timeoutMs; throws when the connection failed.
  void Iterate(int timeoutMs);
  // Runs the main loop until the operation is done.
  void Wait(pa_operation* operation);
  void ThrowIfGone();
  void Release();
  std::string SourceList();

  pa_mainloop* _loop = nullptr;
  pa_context* _context = nullptr;
  pa_stream* _stream = nullptr;
  std::string _sourceName;
  uint32_t _sourceIndex = PA_INVALID_INDEX;
  pa_sample_spec _format{};
  pa_channel_map _channelMap{};
  pa_cvolume _startVolume{};
  pa_volume_t _volume = PA_VOLUME_NORM;
  int _setsPending = 0;  // a volume read while one of ours is on its way is already stale
  std::string _failure;  // why a volume could not be set
  std::unique_ptr<MonoConverter> _converter;
  std::vector<short> _chunk;
  const kt::AudioData* _samples = nullptr;
};

}  // namespace ktcli
