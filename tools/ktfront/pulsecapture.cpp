#include "pulsecapture.h"

#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/subscribe.h>

#include <algorithm>
#include <cstring>

#include "output.h"

namespace ktcli {
namespace {

// A live source hands on about every 20 ms; a wait this long still notices Ctrl-C at once.
constexpr int kWaitMs = 100;

// The source's description gathered by the callbacks of one query.
struct SourceQuery {
  bool found = false;
  std::string name;
  uint32_t index = PA_INVALID_INDEX;
  pa_sample_spec format{};
  pa_channel_map channelMap{};
  pa_cvolume volume{};
  std::vector<std::string> names;  // every source, for a listing
};

std::string ErrorText(pa_context* context) { return pa_strerror(pa_context_errno(context)); }

}  // namespace

PulseCapture::PulseCapture(const std::string& sourceName) {
  _loop = pa_mainloop_new();
  if (!_loop) throw std::runtime_error("cannot start the audio server client");
  _context = pa_context_new(pa_mainloop_get_api(_loop), "ktfront");
  if (!_context) {
    pa_mainloop_free(_loop);
    throw std::runtime_error("cannot start the audio server client");
  }
  // A constructor that throws gets no destructor call: release here what was made.
  struct Guard {
    PulseCapture* self;
    bool done = false;
    ~Guard() {
      if (!done) self->Release();
    }
  } guard{this};

  if (pa_context_connect(_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
    throw std::runtime_error("cannot connect to the audio server: " + ErrorText(_context));
  }
  for (;;) {
    const pa_context_state_t state = pa_context_get_state(_context);
    if (state == PA_CONTEXT_READY) break;
    if (!PA_CONTEXT_IS_GOOD(state)) throw std::runtime_error("cannot connect to the audio server: " + ErrorText(_context));
    Iterate(kWaitMs);
  }

  SourceQuery query;
  const char* lookup = sourceName.empty() ? "@DEFAULT_SOURCE@" : sourceName.c_str();
  Wait(pa_context_get_source_info_by_name(_context, lookup, OnSourceInfo, &query));
  if (!query.found) {
    if (sourceName.empty()) throw std::runtime_error("the audio server has no default source");
    throw std::runtime_error("the audio server has no source \"" + sourceName + "\" (sources: " + SourceList() + ")");
  }
  _sourceName = query.name;
  _sourceIndex = query.index;
  _channelMap = query.channelMap;
  _startVolume = query.volume;
  _volume = pa_cvolume_max(&query.volume);
  _format = {PA_SAMPLE_S16NE, query.format.rate, query.format.channels};
  _converter = std::make_unique<MonoConverter>(static_cast<int>(_format.rate), _format.channels, "source " + _sourceName);

  pa_context_set_subscribe_callback(_context, OnEvent, this);
  Wait(pa_context_subscribe(_context, PA_SUBSCRIPTION_MASK_SOURCE, nullptr, nullptr));

  _stream = pa_stream_new(_context, "ktfront live", &_format, &_channelMap);
  if (!_stream) throw std::runtime_error("cannot record from source \"" + _sourceName + "\": " + ErrorText(_context));
  pa_stream_set_read_callback(_stream, OnRead, this);
  // Chunks of 20 ms, so that what the services decide follows the voice closely.
  pa_buffer_attr attributes{};
  attributes.maxlength = static_cast<uint32_t>(-1);
  attributes.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(20000, &_format));
  // Not moved elsewhere when the source goes: the volume set belongs to this one.
  const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE);
  if (pa_stream_connect_record(_stream, _sourceName.c_str(), &attributes, flags) < 0) {
    throw std::runtime_error("cannot record from source \"" + _sourceName + "\": " + ErrorText(_context));
  }
  for (;;) {
    const pa_stream_state_t state = pa_stream_get_state(_stream);
    if (state == PA_STREAM_READY) break;
    if (!PA_STREAM_IS_GOOD(state)) {
      throw std::runtime_error("cannot record from source \"" + _sourceName + "\": " + ErrorText(_context));
    }
    Iterate(kWaitMs);
  }
  guard.done = true;
}

PulseCapture::~PulseCapture() { Release(); }

void PulseCapture::Release() {
  if (_stream) {
    pa_stream_disconnect(_stream);
    pa_stream_unref(_stream);
    _stream = nullptr;
  }
  if (_context) {
    pa_context_disconnect(_context);
    pa_context_unref(_context);
    _context = nullptr;
  }
  if (_loop) pa_mainloop_free(_loop);
  _loop = nullptr;
}

void PulseCapture::OnSourceInfo(pa_context*, const pa_source_info* info, int eol, void* self) {
  auto* query = static_cast<SourceQuery*>(self);
  if (eol || !info) return;
  query->found = true;
  query->name = info->name;
  query->index = info->index;
  query->format = info->sample_spec;
  query->channelMap = info->channel_map;
  query->volume = info->volume;
}

void PulseCapture::OnVolumeRead(pa_context*, const pa_source_info* info, int eol, void* self) {
  auto* capture = static_cast<PulseCapture*>(self);
  if (eol || !info || capture->_setsPending > 0) return;
  capture->_volume = pa_cvolume_max(&info->volume);
}

void PulseCapture::OnEvent(pa_context* context, pa_subscription_event_type_t type, uint32_t index, void* self) {
  auto* capture = static_cast<PulseCapture*>(self);
  if (index != capture->_sourceIndex) return;
  if ((type & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_CHANGE) {
    pa_operation* operation = pa_context_get_source_info_by_index(context, index, OnVolumeRead, capture);
    if (operation) pa_operation_unref(operation);
  }
}

void PulseCapture::OnVolumeSet(pa_context* context, int success, void* self) {
  auto* capture = static_cast<PulseCapture*>(self);
  --capture->_setsPending;
  if (!success && capture->_failure.empty()) {
    capture->_failure = "cannot set the volume of source \"" + capture->_sourceName + "\": " + ErrorText(context);
  }
}

void PulseCapture::OnRead(pa_stream* stream, size_t, void* self) {
  auto* capture = static_cast<PulseCapture*>(self);
  const void* data = nullptr;
  size_t bytes = 0;
  while (pa_stream_readable_size(stream) > 0 && pa_stream_peek(stream, &data, &bytes) == 0 && bytes > 0) {
    const size_t count = bytes / sizeof(short);
    if (data) {
      const short* samples = static_cast<const short*>(data);
      capture->_chunk.insert(capture->_chunk.end(), samples, samples + count);
    } else {
      capture->_chunk.resize(capture->_chunk.size() + count, 0);  // a hole: the server lost audio
    }
    pa_stream_drop(stream);
  }
}

void PulseCapture::Iterate(int timeoutMs) {
  // A poll cut short by a signal counts as a turn with nothing to do, not as a failure.
  if (pa_mainloop_prepare(_loop, timeoutMs * 1000) < 0 || pa_mainloop_poll(_loop) < 0 ||
      pa_mainloop_dispatch(_loop) < 0) {
    throw AudioServerError("the audio server client failed");
  }
  ThrowIfGone();
}

void PulseCapture::Wait(pa_operation* operation) {
  if (!operation) throw AudioServerError("the audio server refused a request: " + ErrorText(_context));
  while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING) {
    try {
      Iterate(kWaitMs);
    } catch (...) {
      pa_operation_unref(operation);
      throw;
    }
  }
  pa_operation_unref(operation);
}

void PulseCapture::ThrowIfGone() {
  if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(_context))) {
    throw AudioServerError("lost the audio server: " + ErrorText(_context));
  }
  if (_stream && !PA_STREAM_IS_GOOD(pa_stream_get_state(_stream))) {
    // Asked after the fact: the server kills the stream before it announces the removal.
    SourceQuery query;
    pa_stream_unref(_stream);
    _stream = nullptr;
    Wait(pa_context_get_source_info_by_index(_context, _sourceIndex, OnSourceInfo, &query));
    if (!query.found) throw AudioServerError("source \"" + _sourceName + "\" was removed from the audio server");
    throw AudioServerError("the audio server ended the recording from source \"" + _sourceName + "\": " +
                           ErrorText(_context));
  }
  if (!_failure.empty()) throw AudioServerError(_failure);
}

std::string PulseCapture::SourceList() {
  SourceQuery query;
  Wait(pa_context_get_source_info_list(
      _context,
      [](pa_context*, const pa_source_info* info, int eol, void* self) {
        if (!eol && info) static_cast<SourceQuery*>(self)->names.push_back(info->name);
      },
      &query));
  std::string list;
  for (const std::string& name : query.names) list += (list.empty() ? "" : ", ") + name;
  return list.empty() ? "none" : list;
}

bool PulseCapture::Read() {
  _chunk.clear();
  while (_chunk.empty()) {
    if (Interrupted()) return false;
    Iterate(kWaitMs);
  }
  _samples = &_converter->Convert(_chunk.data(), _chunk.size() / _format.channels);
  return true;
}

std::string PulseCapture::Describe() const { return "source \"" + _sourceName + "\": " + _converter->Describe(); }

void PulseCapture::SetVolume(pa_volume_t volume) {
  pa_cvolume channels;
  pa_cvolume_set(&channels, _startVolume.channels, volume);
  pa_operation* operation = pa_context_set_source_volume_by_index(_context, _sourceIndex, &channels, OnVolumeSet, this);
  if (!operation) throw AudioServerError("cannot set the volume of source \"" + _sourceName + "\": " + ErrorText(_context));
  pa_operation_unref(operation);
  ++_setsPending;
  _volume = volume;
}

void PulseCapture::RestoreVolume() {
  ++_setsPending;
  Wait(pa_context_set_source_volume_by_index(_context, _sourceIndex, &_startVolume, OnVolumeSet, this));
  _volume = pa_cvolume_max(&_startVolume);
}

}  // namespace ktcli
