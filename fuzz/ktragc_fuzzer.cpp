// The gain-control C interface driven by a fuzzed script of Init, ComputeGain (any block,
// byte count, volume, bound, null output) and Deinit. Refused calls return -1 and write
// nothing; accepted ones return 0 with a volume on the host's scale.
#include <climits>
#include <vector>

#include "KTRAGC.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FUZZ_CHECK(KTRAGC_Deinit() == 0);
  fuzz::Input in(data, size);
  fuzz::SignalMaker signal;
  bool initialized = false;
  long next = 50;
  size_t budget = 500000;  // bytes
  while (!in.Done()) {
    const uint8_t op = in.Byte() % 6;
    if (op == 0) {
      const int rates[] = {8000, 11025, 16000, 44100, 0, -16000, INT_MIN, INT_MAX};
      const uint8_t k = in.Byte() % 9;
      const int rate = k < 8 ? rates[k] : in.I32();
      initialized = rate == 8000 || rate == 11025 || rate == 16000;
      FUZZ_CHECK(KTRAGC_Init(rate) == (initialized ? 0 : -2) && (g_pAgc != nullptr) == initialized);
      continue;
    }
    if (op == 5) {
      FUZZ_CHECK(KTRAGC_Deinit() == 0 && g_pAgc == nullptr);
      initialized = false;
      continue;
    }
    const kt::AudioData block = signal.Block(in);
    std::vector<uint8_t> bytes(block.size() * 2);
    if (!bytes.empty()) std::memcpy(bytes.data(), block.data(), bytes.size());
    unsigned size = static_cast<unsigned>(bytes.size());
    const uint8_t shape = in.Byte();
    if ((shape & 3) == 1 && size) --size;
    if ((shape & 3) == 2) size = 0;
    const void* p = bytes.empty() || (shape & 4) ? nullptr : bytes.data();
    const bool nullOutput = shape & 8;
    const long bounds[] = {100, 255, 65535, 1, 0, -100, LONG_MIN, LONG_MAX};
    const uint8_t kb = in.Byte() % 10;
    const long bound = kb < 8 ? bounds[kb] : static_cast<long>(in.I64());
    for (int repeat = in.Byte() % 64 + 1; repeat > 0 && size <= budget; --repeat) {
      budget -= size;
      const uint8_t kv = in.Byte() % 10;
      const long volumes[] = {0, bound, bound / 2, -1, bound == LONG_MAX ? LONG_MIN : bound + 1, LONG_MIN, LONG_MAX};
      const long volume = kv < 7 ? volumes[kv] : kv == 7 ? static_cast<long>(in.I64()) : next;
      long out = -424242;
      const int rc = KTRAGC_ComputeGain(p, size, volume, bound, nullOutput ? nullptr : &out);
      const bool inScale = bound > 0 ? volume >= 0 && volume <= bound : volume <= 0 && volume >= bound;
      if (nullOutput || !initialized || bound == 0 || (!p && size) || !inScale) {
        FUZZ_CHECK(rc == -1 && out == -424242);
        continue;
      }
      FUZZ_CHECK(rc == 0 && (bound > 0 ? out >= 0 && out <= bound : out <= 0 && out >= bound));
      next = out;
    }
  }
  FUZZ_CHECK(KTRAGC_Deinit() == 0);
  return 0;
}
