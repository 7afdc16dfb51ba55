// kt::AGC driven by a fuzzed script: a rate and a parameter string, then any interleaving
// of ComputeGain (float and 16-bit) with gains in and out of range, ComputeGainRandom,
// GetMedianGain, Reset and SetLogStream. A gain outside 0 to 1 is refused with
// std::invalid_argument; a gain inside gives a gain inside, 0 gives the median gain.
#include <cmath>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "agc.h"
#include "fuzz_input.h"

namespace {

bool InRange(float g) { return g >= 0.0f && g <= 1.0f; }

// Mostly the gain the host would set next, sometimes anything a faulty host might pass.
float Gain(fuzz::Input& in, float next) {
  switch (in.Byte() % 8) {
    case 0: return 0.0f;
    case 1: return 1.0f;
    case 2: return static_cast<float>(in.U16()) / 65535.0f;
    case 3: return in.Float<float, 4>();  // any bits: negative, above 1, infinite, NaN
    case 4: return std::nextafter(in.Bool() ? 1.0f : 0.0f, in.Bool() ? 2.0f : -1.0f);
  }
  return next;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const uint8_t r = in.Byte() % 4;
  const int rate = r == 0 ? 8000 : r == 1 ? 11025 : r == 2 ? 16000 : in.I32();
  const std::string params = in.Text();
  if (fuzz::Unaffordable(params)) return 0;
  std::unique_ptr<kt::AGC> agc;
  try {
    agc = std::make_unique<kt::AGC>(params, rate);
  } catch (const std::invalid_argument& e) {
    const std::string what = e.what();
    FUZZ_CHECK(rate == 8000 || rate == 11025 || rate == 16000 ? what != "Sampling rate" : what == "Sampling rate");
    return 0;
  }
  const float median = agc->GetMedianGain();
  FUZZ_CHECK(InRange(median));
  fuzz::SignalMaker signal;
  size_t budget = 500000;
  float next = 0.5f;
  auto compute = [&](const kt::AudioData& block, float g) {
    try {
      const float result = agc->ComputeGain(block, g);
      FUZZ_CHECK(InRange(g) && InRange(result) && (g != 0.0f || result == median));
      FUZZ_CHECK(!block.empty() || result == (g == 0.0f ? median : g));
      next = result;
    } catch (const std::invalid_argument&) {
      FUZZ_CHECK(!InRange(g));
    }
  };
  while (!in.Done()) {
    switch (in.Byte() % 8) {
      case 0:
      case 1: {
        const kt::AudioData block = signal.Block(in);
        for (int repeat = in.Byte() % 16 + 1; repeat > 0 && block.size() <= budget; --repeat) {
          budget -= block.size();
          compute(block, Gain(in, next));
        }
        break;
      }
      case 2: {
        const kt::AudioData block = signal.Block(in);
        if (block.size() > budget) break;
        budget -= block.size();
        const auto g = static_cast<unsigned short>(in.Bool() ? in.U16() : next * 65535.0f);
        next = static_cast<float>(agc->ComputeGain(block, g)) / 65535.0f;
        break;
      }
      case 3:
        agc->Reset();
        break;
      case 4: {
        const uint8_t kind = in.Byte() % 3;
        auto log = kind ? std::make_shared<std::ostringstream>() : nullptr;
        if (kind == 2) log->setstate(std::ios::badbit);  // a failed stream drops the lines
        agc->SetLogStream(log);
        break;
      }
      case 5:
        FUZZ_CHECK(agc->GetMedianGain() == median);  // configuration only
        break;
      case 6: {
        const float g = Gain(in, next);
        try {
          FUZZ_CHECK(InRange(agc->ComputeGainRandom(kt::AudioData(), g)) && InRange(g));
        } catch (const std::invalid_argument&) {
          FUZZ_CHECK(!InRange(g));
        }
        break;
      }
      default:
        compute(kt::AudioData(), Gain(in, next));  // an empty block moves nothing but the clock
        break;
    }
  }
  return 0;
}
