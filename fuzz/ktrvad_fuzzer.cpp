// The VAD C interface under fuzzed call sequences: Init with any rate, GetResult with
// null outputs, null or dangling blocks, odd and zero byte counts, any iStart_p, polling,
// Deinit. Checked: every code is one its table allows, refused calls write nothing,
// outputs follow the result code, speech starts and ends alternate, and the analyzer
// answers normally after any refused call.
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "KTRVAD.h"
#include "fuzz_input.h"

namespace {

constexpr int kUntouchedResult = -12345;
constexpr int kUntouchedInfo = -54321;
constexpr double kUntouchedVolume = -777.5;
constexpr size_t kByteBudget = 500000;

double Rate(fuzz::Input& in) {
  switch (in.Byte() % 10) {
    case 0:
      return 8000.0;
    case 1:
      return 11025.0;
    case 2:
      return 16000.0;
    case 3:
      return 44100.0;
    case 4:
      return 0.0;
    case 5:
      return -16000.0;
    case 6:
      return std::nan("");
    case 7:
      return INFINITY;
    case 8:
      return 8000.5;
    default:
      return in.F64();
  }
}

int Start(fuzz::Input& in) {
  switch (in.Byte() % 4) {
    case 0:
      return 0;
    case 1:
      return INT_MIN;
    case 2:
      return static_cast<int>(in.U32());
    default:
      return 1;
  }
}

struct Model {
  bool initialized = false;
  bool inSpeech = false;
};

// Makes one call and checks it against the failure table and the model.
void Call(Model& model, int start, const void* data, unsigned int size, uint8_t nulls) {
  int result = kUntouchedResult;
  double volume = kUntouchedVolume;
  int info = kUntouchedInfo;
  int* pResult = (nulls & 1) ? nullptr : &result;
  double* pVolume = (nulls & 2) ? nullptr : &volume;
  int* pInfo = (nulls & 4) ? nullptr : &info;

  const int rc = KTRVAD_GetResult(start, data, size, pResult, pVolume, pInfo);
  const bool refused = !pResult || !pVolume || !pInfo || !model.initialized ||
                       (start && !data && size);
  if (refused) {
    FUZZ_CHECK(rc == -1);
    FUZZ_CHECK(result == kUntouchedResult && volume == kUntouchedVolume && info == kUntouchedInfo);
    return;
  }
  // With the default configuration nothing inside may fail.
  FUZZ_CHECK(rc == 0);
  FUZZ_CHECK(result >= 0 && result <= 3);
  if (result == 3) {
    FUZZ_CHECK(info >= 0 && info <= 3);
    FUZZ_CHECK(std::isfinite(volume) && volume <= 100.0);
  } else if (start) {
    FUZZ_CHECK(volume == 0.0 && info == 0);
  } else {
    FUZZ_CHECK(volume == kUntouchedVolume && info == kUntouchedInfo);
  }
  if (result == 1) {
    FUZZ_CHECK(!model.inSpeech);
    model.inSpeech = true;
  }
  if (result == 2) {
    FUZZ_CHECK(model.inSpeech);
    model.inSpeech = false;
  }
}

// One call read from the input, made `repeat` times in a row as a recording host does.
void GetResult(fuzz::Input& in, fuzz::SignalMaker& signal, Model& model, size_t& budget,
               int repeat) {
  const int start = Start(in);
  const kt::AudioData block = signal.Block(in);
  std::vector<uint8_t> bytes(block.size() * 2);
  if (!bytes.empty()) std::memcpy(bytes.data(), block.data(), bytes.size());
  unsigned int size = static_cast<unsigned int>(bytes.size());
  const uint8_t shape = in.Byte();
  if ((shape & 3) == 1 && size) --size;  // an odd count: the last byte is a low byte
  if ((shape & 3) == 2) size = 0;
  const void* data = bytes.empty() ? nullptr : bytes.data();
  if (shape & 4) data = nullptr;
  // Without audio the block must not be read: a dangling pointer would fault.
  if ((shape & 8) && !start) data = reinterpret_cast<const void*>(uintptr_t{16});
  const uint8_t nulls = in.Byte();
  for (; repeat > 0 && size <= budget; --repeat) {
    budget -= size;
    Call(model, start, data, size, nulls);
  }
}

// Polls until nothing is pending; the queue cannot hold more reportable results than
// the blocks given so far could produce.
void Poll(Model& model) {
  for (int i = 0; i < 100000; ++i) {
    int result = kUntouchedResult;
    double volume = kUntouchedVolume;
    int info = kUntouchedInfo;
    const int rc = KTRVAD_GetResult(0, nullptr, 0, &result, &volume, &info);
    if (!model.initialized) {
      FUZZ_CHECK(rc == -1 && result == kUntouchedResult);
      return;
    }
    FUZZ_CHECK(rc == 0);
    if (result == 0) return;
    if (result == 1) model.inSpeech = true;
    if (result == 2) model.inSpeech = false;
  }
  FUZZ_CHECK(false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FUZZ_CHECK(KTRVAD_Deinit() == 0);
  fuzz::Input in(data, size);
  fuzz::SignalMaker signal;
  Model model;
  size_t budget = kByteBudget;
  while (!in.Done()) {
    switch (in.Byte() % 8) {
      case 0: {
        const double rate = Rate(in);
        const bool supported = rate == 8000.0 || rate == 11025.0 || rate == 16000.0;
        const int rc = KTRVAD_Init(rate);
        FUZZ_CHECK(rc == (supported ? 0 : -2));
        FUZZ_CHECK((g_pAudioAnalyzer != nullptr) == supported);
        model = Model();
        model.initialized = supported;
        break;
      }
      case 1:
      case 2:
      case 3:
      case 4:
        GetResult(in, signal, model, budget, 1);
        break;
      case 5:
        Poll(model);
        break;
      case 6:
        FUZZ_CHECK(KTRVAD_Deinit() == 0);
        FUZZ_CHECK(g_pAudioAnalyzer == nullptr);
        model = Model();
        break;
      default:
        GetResult(in, signal, model, budget, in.Byte() + 1);
        break;
    }
  }
  FUZZ_CHECK(KTRVAD_Deinit() == 0);
  return 0;
}
