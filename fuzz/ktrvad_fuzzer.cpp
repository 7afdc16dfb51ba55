// The VAD C interface driven by a fuzzed script of Init, GetResult (any start flag, block,
// byte count and null outputs), polling and Deinit. Refused calls return -1 and write
// nothing; accepted ones return 0 with a result code, and speech starts and ends alternate.
#include <climits>
#include <cmath>
#include <vector>

#include "KTRVAD.h"
#include "fuzz_input.h"

namespace {

struct Host {
  bool initialized = false;
  bool inSpeech = false;

  void Call(int start, const void* data, unsigned size, uint8_t nulls) {
    int result = -12345, info = -54321;
    double volume = -777.5;
    const int rc = KTRVAD_GetResult(start, data, size, (nulls & 1) ? nullptr : &result,
                                    (nulls & 2) ? nullptr : &volume, (nulls & 4) ? nullptr : &info);
    if ((nulls & 7) || !initialized || (start && !data && size)) {
      FUZZ_CHECK(rc == -1 && result == -12345 && volume == -777.5 && info == -54321);
      return;
    }
    FUZZ_CHECK(rc == 0 && result >= 0 && result <= 3);
    if (result == 3) FUZZ_CHECK(info >= 0 && info <= 3 && std::isfinite(volume) && volume <= 100.0);
    if (result != 3) FUZZ_CHECK(start ? volume == 0.0 && info == 0 : volume == -777.5 && info == -54321);
    if (result == 1 || result == 2) FUZZ_CHECK(inSpeech == (result == 2));
    if (result == 1 || result == 2) inSpeech = result == 1;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FUZZ_CHECK(KTRVAD_Deinit() == 0);
  fuzz::Input in(data, size);
  fuzz::SignalMaker signal;
  Host host;
  size_t budget = 500000;  // bytes
  while (!in.Done()) {
    const uint8_t op = in.Byte() % 8;
    if (op == 0) {
      const double rates[] = {8000.0, 11025.0, 16000.0, 44100.0, 0.0, -16000.0, std::nan(""), INFINITY, 8000.5};
      const uint8_t k = in.Byte() % 10;
      const double rate = k < 9 ? rates[k] : in.Float<double, 8>();
      const bool supported = rate == 8000.0 || rate == 11025.0 || rate == 16000.0;
      FUZZ_CHECK(KTRVAD_Init(rate) == (supported ? 0 : -2) && (g_pAudioAnalyzer != nullptr) == supported);
      host = Host{supported, false};
    } else if (op == 5) {  // polls until nothing is pending
      for (int i = 0, result = -1; result != 0; ++i) {
        double volume = 0.0;
        int info = 0;
        const int rc = KTRVAD_GetResult(0, nullptr, 0, &result, &volume, &info);
        FUZZ_CHECK(host.initialized ? rc == 0 && i < 100000 : rc == -1);
        if (!host.initialized) break;
        if (result == 1 || result == 2) host.inSpeech = result == 1;
      }
    } else if (op == 6) {
      FUZZ_CHECK(KTRVAD_Deinit() == 0 && g_pAudioAnalyzer == nullptr);
      host = Host();
    } else {
      int repeat = op == 7 ? in.Byte() + 1 : 1;
      const uint8_t s = in.Byte() % 4;
      const int start = s == 0 ? 0 : s == 1 ? INT_MIN : s == 2 ? static_cast<int>(in.U32()) : 1;
      const kt::AudioData block = signal.Block(in);
      std::vector<uint8_t> bytes(block.size() * 2);
      if (!bytes.empty()) std::memcpy(bytes.data(), block.data(), bytes.size());
      unsigned size = static_cast<unsigned>(bytes.size());
      const uint8_t shape = in.Byte();
      if ((shape & 3) == 1 && size) --size;  // an odd count: the last byte is a low byte
      if ((shape & 3) == 2) size = 0;
      const void* p = bytes.empty() || (shape & 4) ? nullptr : bytes.data();
      if ((shape & 8) && !start) p = reinterpret_cast<const void*>(uintptr_t{16});  // not read
      const uint8_t nulls = in.Byte();
      for (; repeat > 0 && size <= budget; --repeat, budget -= size) host.Call(start, p, size, nulls);
    }
  }
  FUZZ_CHECK(KTRVAD_Deinit() == 0);
  return 0;
}
