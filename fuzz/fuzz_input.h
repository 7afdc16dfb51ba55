#pragma once
// Reads a fuzz input front to back as a script of typed values, and builds audio blocks
// from a few bytes so that short inputs can still stream minutes of speech-like signal.
// Reading past the end yields zeros, so every input is a complete script.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "audiodata.h"

// A violated property: print it with the call being checked and abort, so that
// libFuzzer keeps the input as a crash.
#define FUZZ_CHECK(condition)                                                        \
  do {                                                                               \
    if (!(condition)) {                                                              \
      std::fprintf(stderr, "%s:%d: property violated: %s\n%s\n", __FILE__, __LINE__, \
                   #condition, fuzz::Context());                                     \
      std::abort();                                                                  \
    }                                                                                \
  } while (0)

namespace fuzz {

// The call being checked, as text for the report of a violated property.
inline char* Context() {
  static char context[256];
  return context;
}

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
  double F64() {
    const uint64_t bits = Bits(8);
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
  }
  float F32() {
    const uint32_t bits = U32();
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
  }

  // A length byte, then that many bytes (fewer at the end of the input).
  std::string Text() {
    const size_t n = Byte();
    const size_t take = n < Remaining() ? n : Remaining();
    std::string s(reinterpret_cast<const char*>(_data + _pos), take);
    _pos += take;
    return s;
  }

  // Up to n raw bytes, as they stand in the input.
  const uint8_t* Bytes(size_t n, size_t* taken) {
    *taken = n < Remaining() ? n : Remaining();
    const uint8_t* p = _data + _pos;
    _pos += *taken;
    return p;
  }

 private:
  const uint8_t* _data;
  size_t _size;
  size_t _pos = 0;
};

// Audio blocks of the kinds a recorder meets: silence, hum, noise, speech-like bursts,
// clipping, and raw bytes straight from the input.
class SignalMaker {
 public:
  // Reads a block description: kind, length and shape.
  kt::AudioData Block(Input& in) {
    const uint8_t kind = in.Byte() % 7;
    size_t n = in.U16() % 4096;
    kt::AudioData block;
    if (kind == 0) {
      size_t taken = 0;
      const uint8_t* p = in.Bytes(2 * n, &taken);
      block.resize(taken / 2);
      for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<int16_t>(p[2 * i] | (p[2 * i + 1] << 8));
      }
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
    const int period = 2 + shape;  // samples per cycle of the tone
    switch (kind) {
      case 1:
        return 0;
      case 2:
        return Clip(amplitude * ((shape & 1) ? -1 : 1));
      case 3: {  // triangle tone
        const int phase = static_cast<int>((_t++) % static_cast<uint64_t>(period));
        const int tri = 4 * phase < 2 * period ? 4 * phase - period : 3 * period - 4 * phase;
        return Clip(amplitude * tri / period);
      }
      case 4:
        return Clip(static_cast<int>(Noise() % static_cast<uint32_t>(2 * amplitude + 1)) - amplitude);
      case 5:  // full-scale square: every sample clips
        return static_cast<int16_t>(((_t++ / (1 + shape % 8)) & 1) ? 32767 : -32768);
      default: {  // noise under a syllable-like envelope of about 200 ms at 16 kHz
        const uint64_t t = _t++;
        const int envelope = static_cast<int>((t / 64) % 50);
        const int gain = envelope < 25 ? amplitude * envelope / 25 : amplitude / 50;
        return Clip(static_cast<int>(Noise() % static_cast<uint32_t>(2 * gain + 1)) - gain);
      }
    }
  }

  static int16_t Clip(int v) {
    if (v > 32767) return 32767;
    if (v < -32768) return -32768;
    return static_cast<int16_t>(v);
  }

  uint32_t Noise() {
    _seed = _seed * 1664525u + 1013904223u;
    return _seed >> 8;
  }

  uint32_t _seed = 12345;
  uint64_t _t = 0;
};

}  // namespace fuzz
