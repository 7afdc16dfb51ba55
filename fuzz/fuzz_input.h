#pragma once
// Reads a fuzz input front to back as a script of typed values, and builds audio blocks
// from a few bytes so that short inputs can still stream minutes of speech-like signal.
// Reading past the end yields zeros, so every input is a complete script.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "audiodata.h"
#include "parameters.h"

// A violated property: print it and abort, so that libFuzzer keeps the input as a crash.
#define FUZZ_CHECK(condition)                                                                    \
  do {                                                                                           \
    if (!(condition)) {                                                                          \
      std::fprintf(stderr, "%s:%d: property violated: %s\n", __FILE__, __LINE__, #condition);    \
      std::abort();                                                                              \
    }                                                                                            \
  } while (0)

namespace fuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : _data(data), _size(size) {}

  bool Done() const { return _pos >= _size; }
  size_t Remaining() const { return _pos < _size ? _size - _pos : 0; }
  uint8_t Byte() { return _pos < _size ? _data[_pos++] : 0; }
  bool Bool() { return Byte() & 1; }
  // Little-endian, whatever the host's byte order, so that inputs mean the same everywhere.
  uint64_t Bits(int bytes) {
    uint64_t v = 0;
    for (int i = 0; i < bytes; ++i) v |= static_cast<uint64_t>(Byte()) << (8 * i);
    return v;
  }
  uint16_t U16() { return static_cast<uint16_t>(Bits(2)); }
  uint32_t U32() { return static_cast<uint32_t>(Bits(4)); }
  int32_t I32() { return static_cast<int32_t>(U32()); }
  int64_t I64() { return static_cast<int64_t>(Bits(8)); }
  template <typename T, int N>
  T Float() {
    const uint64_t bits = Bits(N);
    T f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
  }
  // A length byte, then that many bytes (fewer at the end of the input).
  std::string Text() {
    const size_t length = Byte();  // read before Remaining(): argument order is unspecified
    const size_t take = std::min(length, Remaining());
    _pos += take;
    return std::string(reinterpret_cast<const char*>(_data + _pos - take), take);
  }
  const uint8_t* Bytes(size_t n, size_t* taken) {
    *taken = std::min(n, Remaining());
    _pos += *taken;
    return _data + _pos - *taken;
  }

 private:
  const uint8_t* _data;
  size_t _size;
  size_t _pos = 0;
};

// Configurations that only cost resources, skipped so that a run stays within libFuzzer's
// memory and time limits: a window longer than ten minutes (up to a gigabyte of ring), and
// gain jumps of more than 1000 steps (of a tiny step, some 10^9 steps per jump).
inline bool Unaffordable(const std::string& params) {
  try {
    const kt::Parameters p(params);
    return p.Get<int>("HistogramWindowSizeMs", 0) > 600000 || p.Get<int>("WindowSizeMs", 0) > 600000 ||
           p.Get<int>("FastStepSizeUp", 0) > 1000 || p.Get<int>("FastStepSizeDown", 0) > 1000;
  } catch (const std::exception&) {
    return false;
  }
}

// Audio blocks of the kinds a recorder meets: raw bytes from the input, silence, a
// constant, a triangle tone, noise, full-scale clipping, noise under a syllable envelope.
class SignalMaker {
 public:
  kt::AudioData Block(Input& in) {
    const uint8_t kind = in.Byte() % 7;
    size_t n = in.U16() % 4096;
    kt::AudioData block;
    if (kind == 0) {
      size_t taken = 0;
      const uint8_t* p = in.Bytes(2 * n, &taken);
      block.resize(taken / 2);
      for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<int16_t>(p[2 * i] | (p[2 * i + 1] << 8));
      return block;
    }
    block.resize(n);
    const int amplitude = in.U16() % 32769;
    const uint8_t shape = in.Byte();
    for (size_t i = 0; i < n; ++i) block[i] = Sample(kind, amplitude, shape);
    return block;
  }

 private:
  int16_t Sample(uint8_t kind, int amplitude, uint8_t shape) {
    const int period = 2 + shape;
    if (kind == 1) return 0;
    if (kind == 2) return Clip(amplitude * ((shape & 1) ? -1 : 1));
    if (kind == 4) return Clip(static_cast<int>(Noise() % static_cast<uint32_t>(2 * amplitude + 1)) - amplitude);
    const uint64_t t = _t++;  // the tones, the square and the envelope advance the clock
    if (kind == 3) {
      const int phase = static_cast<int>(t % static_cast<uint64_t>(period));
      return Clip(amplitude * (4 * phase < 2 * period ? 4 * phase - period : 3 * period - 4 * phase) / period);
    }
    if (kind == 5) return static_cast<int16_t>(((t / (1 + shape % 8)) & 1) ? 32767 : -32768);
    const int envelope = static_cast<int>((t / 64) % 50);
    const int gain = envelope < 25 ? amplitude * envelope / 25 : amplitude / 50;
    return Clip(static_cast<int>(Noise() % static_cast<uint32_t>(2 * gain + 1)) - gain);
  }
  static int16_t Clip(int v) { return static_cast<int16_t>(v > 32767 ? 32767 : v < -32768 ? -32768 : v); }
  uint32_t Noise() {
    _seed = _seed * 1664525u + 1013904223u;
    return _seed >> 8;
  }

  uint32_t _seed = 12345;
  uint64_t _t = 0;
};

}  // namespace fuzz
