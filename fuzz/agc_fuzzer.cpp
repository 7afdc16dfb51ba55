// kt::AGC driven by a fuzzed script: a rate and a parameter string, then any
// interleaving of ComputeGain (float and 16-bit) with gains in and out of range,
// ComputeGainRandom, GetMedianGain, Reset and SetLogStream. A gain outside 0 to 1 must be
// refused with std::invalid_argument; a gain inside must give a gain inside; the log
// holds only whole records.
#include <cmath>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "agc.h"
#include "fuzz_input.h"

namespace {

using kt::AGC;
using kt::AudioData;

constexpr size_t kSampleBudget = 500000;

std::string What(const std::invalid_argument& e) { return e.what(); }

bool IsBadConfiguration(const std::invalid_argument& e) {
  const std::string what = What(e);
  return what == "Invalid format" || what == "Value out of range" ||
         what == "_minUpdateFrames >= _minLowerLevelFrames" ||
         what == "_minUpdateFrames >= _minUpperLevelFrames";
}

bool InRange(float g) { return g >= 0.0f && g <= 1.0f; }

int Rate(fuzz::Input& in) {
  switch (in.Byte() % 4) {
    case 0:
      return 8000;
    case 1:
      return 11025;
    case 2:
      return 16000;
    default:
      return in.I32();
  }
}

// Mostly the gain the host would set next, sometimes anything a buggy host might pass.
float Gain(fuzz::Input& in, float next) {
  switch (in.Byte() % 8) {
    case 0:
      return 0.0f;
    case 1:
      return 1.0f;
    case 2:
      return static_cast<float>(in.U16()) / 65535.0f;
    case 3:
      return in.F32();  // any bits: negative, above 1, infinite, NaN
    case 4:
      return std::nextafter(in.Bool() ? 1.0f : 0.0f, in.Bool() ? 2.0f : -1.0f);
    default:
      return next;
  }
}

// Each record: the eight measurement fields, then the decision, then maybe a new gain.
void CheckLog(const std::string& log, size_t updatesAtMost) {
  std::istringstream lines(log);
  std::string line;
  size_t records = 0;
  while (std::getline(lines, line)) {
    ++records;
    std::vector<std::string> fields(1);
    for (char c : line) {
      if (c == '\t') {
        fields.emplace_back();
      } else {
        fields.back() += c;
      }
    }
    FUZZ_CHECK(fields.size() == 9 || fields.size() == 10);
    const std::string& decision = fields[8];
    const std::string word = decision.substr(0, decision.find(':') + 1);
    FUZZ_CHECK(word == " toolow:" || word == " toohigh:" || word == " speech:" ||
               word == " pause:" || word == " nil:");
    if (fields.size() == 10) FUZZ_CHECK(fields[9].compare(0, 2, "# ") == 0);
  }
  FUZZ_CHECK(log.empty() || log.back() == '\n');
  FUZZ_CHECK(records <= updatesAtMost);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const int rate = Rate(in);
  const bool supported = rate == 8000 || rate == 11025 || rate == 16000;
  std::unique_ptr<AGC> agc;
  try {
    agc = std::make_unique<AGC>(in.Text(), rate);
  } catch (const std::invalid_argument& e) {
    FUZZ_CHECK(supported ? IsBadConfiguration(e) : What(e) == "Sampling rate");
    return 0;
  }
  FUZZ_CHECK(supported);
  const float median = agc->GetMedianGain();
  FUZZ_CHECK(InRange(median));

  fuzz::SignalMaker signal;
  size_t budget = kSampleBudget;
  float next = 0.5f;
  std::shared_ptr<std::ostringstream> log;
  size_t calls = 0;  // calls since the log was set: each writes at most one record

  while (!in.Done()) {
    switch (in.Byte() % 8) {
      case 0:
      case 1: {
        const AudioData block = signal.Block(in);
        for (int repeat = in.Byte() % 16 + 1; repeat > 0 && block.size() <= budget; --repeat) {
          budget -= block.size();
          const float g = Gain(in, next);
          ++calls;
          try {
            const float r = agc->ComputeGain(block, g);
            FUZZ_CHECK(InRange(g));
            FUZZ_CHECK(InRange(r));
            if (g == 0.0f) FUZZ_CHECK(r == median);
            next = r;
          } catch (const std::invalid_argument&) {
            FUZZ_CHECK(!InRange(g));
          }
        }
        break;
      }
      case 2: {
        const AudioData block = signal.Block(in);
        if (block.size() > budget) break;
        budget -= block.size();
        const auto g = static_cast<unsigned short>(in.Bool() ? in.U16() : next * 65535.0f);
        ++calls;
        const unsigned short r = agc->ComputeGain(block, g);
        next = static_cast<float>(r) / 65535.0f;
        break;
      }
      case 3:
        agc->Reset();
        break;
      case 4: {
        if (log) CheckLog(log->str(), calls);
        const uint8_t kind = in.Byte() % 3;
        log = kind ? std::make_shared<std::ostringstream>() : nullptr;
        if (kind == 2) log->setstate(std::ios::badbit);  // a failed stream drops the lines
        agc->SetLogStream(log);
        calls = 0;
        break;
      }
      case 5:
        FUZZ_CHECK(agc->GetMedianGain() == median);  // configuration only
        break;
      case 6: {
        const float g = Gain(in, next);
        try {
          const float r = agc->ComputeGainRandom(AudioData(), g);
          FUZZ_CHECK(InRange(g));
          FUZZ_CHECK(InRange(r));
        } catch (const std::invalid_argument&) {
          FUZZ_CHECK(!InRange(g));
        }
        break;
      }
      default: {
        // An empty block moves nothing but the clock.
        const float g = Gain(in, next);
        ++calls;
        try {
          const float r = agc->ComputeGain(AudioData(), g);
          FUZZ_CHECK(InRange(g));
          FUZZ_CHECK(r == (g == 0.0f ? median : g));
        } catch (const std::invalid_argument&) {
          FUZZ_CHECK(!InRange(g));
        }
        break;
      }
    }
  }
  if (log) CheckLog(log->str(), calls);
  return 0;
}
