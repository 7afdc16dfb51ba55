// The gain-control C interface under fuzzed call sequences: Init with any rate,
// ComputeGain with a null output or block, odd and zero byte counts, and volumes and
// bounds anywhere in the range of long (0, negative, LONG_MIN, LONG_MAX), Deinit.
// Checked: codes from the failure table only, nothing written when refused, a volume
// between 0 and the bound when accepted, and normal answers after any refused call.
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "KTRAGC.h"
#include "fuzz_input.h"

namespace {

constexpr long kUntouched = -424242;
constexpr size_t kByteBudget = 500000;

int Rate(fuzz::Input& in) {
  switch (in.Byte() % 9) {
    case 0:
      return 8000;
    case 1:
      return 11025;
    case 2:
      return 16000;
    case 3:
      return 44100;
    case 4:
      return 0;
    case 5:
      return -16000;
    case 6:
      return INT_MIN;
    case 7:
      return INT_MAX;
    default:
      return in.I32();
  }
}

long Bound(fuzz::Input& in) {
  switch (in.Byte() % 10) {
    case 0:
      return 100;
    case 1:
      return 255;
    case 2:
      return 65535;
    case 3:
      return 1;
    case 4:
      return 0;
    case 5:
      return -100;
    case 6:
      return LONG_MIN;
    case 7:
      return LONG_MAX;
    default:
      return static_cast<long>(in.I64());
  }
}

// Mostly the volume the interface asked for last, as a host sets it.
long Volume(fuzz::Input& in, long bound, long next) {
  switch (in.Byte() % 10) {
    case 0:
      return 0;
    case 1:
      return bound;
    case 2:
      return bound / 2;
    case 3:
      return -1;
    case 4:
      return bound == LONG_MAX ? LONG_MIN : bound + 1;
    case 5:
      return LONG_MIN;
    case 6:
      return LONG_MAX;
    case 7:
      return static_cast<long>(in.I64());
    default:
      return next;
  }
}

struct Model {
  bool initialized = false;
  long next = 50;
};

void ComputeGain(fuzz::Input& in, fuzz::SignalMaker& signal, Model& model, size_t& budget) {
  const kt::AudioData block = signal.Block(in);
  std::vector<uint8_t> bytes(block.size() * 2);
  if (!bytes.empty()) std::memcpy(bytes.data(), block.data(), bytes.size());
  unsigned int size = static_cast<unsigned int>(bytes.size());
  const uint8_t shape = in.Byte();
  if ((shape & 3) == 1 && size) --size;
  if ((shape & 3) == 2) size = 0;
  const void* data = bytes.empty() ? nullptr : bytes.data();
  if (shape & 4) data = nullptr;
  const bool nullOutput = shape & 8;
  const long bound = Bound(in);

  for (int repeat = in.Byte() % 64 + 1; repeat > 0 && size <= budget; --repeat) {
    budget -= size;
    const long volume = Volume(in, bound, model.next);
    long out = kUntouched;
    const int rc = KTRAGC_ComputeGain(data, size, volume, bound, nullOutput ? nullptr : &out);
    std::snprintf(fuzz::Context(), 256, "KTRAGC_ComputeGain(%p, %u, %ld, %ld, %s) = %d, wrote %ld",
                  data, size, volume, bound, nullOutput ? "null" : "&out", rc, out);
    // A volume outside 0 to the bound (either sign) is refused however float rounds it.
    const bool inScale = bound > 0 ? volume >= 0 && volume <= bound : volume <= 0 && volume >= bound;
    const bool refused =
        nullOutput || !model.initialized || bound == 0 || (!data && size) || !inScale;
    if (refused) {
      FUZZ_CHECK(rc == -1);
      FUZZ_CHECK(out == kUntouched);
      continue;
    }
    FUZZ_CHECK(rc == 0);  // with the default configuration nothing inside may fail
    if (bound > 0) {
      FUZZ_CHECK(out >= 0 && out <= bound);
    } else {
      FUZZ_CHECK(out <= 0 && out >= bound);
    }
    model.next = out;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FUZZ_CHECK(KTRAGC_Deinit() == 0);
  fuzz::Input in(data, size);
  fuzz::SignalMaker signal;
  Model model;
  size_t budget = kByteBudget;
  while (!in.Done()) {
    switch (in.Byte() % 6) {
      case 0: {
        const int rate = Rate(in);
        const bool supported = rate == 8000 || rate == 11025 || rate == 16000;
        FUZZ_CHECK(KTRAGC_Init(rate) == (supported ? 0 : -2));
        FUZZ_CHECK((g_pAgc != nullptr) == supported);
        model.initialized = supported;
        break;
      }
      case 5:
        FUZZ_CHECK(KTRAGC_Deinit() == 0);
        FUZZ_CHECK(g_pAgc == nullptr);
        model.initialized = false;
        break;
      default:
        ComputeGain(in, signal, model, budget);
        break;
    }
  }
  FUZZ_CHECK(KTRAGC_Deinit() == 0);
  return 0;
}
