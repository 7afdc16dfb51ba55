// ktfront through its C interfaces and through its classes, driven as hosts drive them.
#include <map>
#include <utility>
#include <vector>

#include "KTRAGC.h"
#include "KTRVAD.h"
#include "agc.h"
#include "audioanalyzer.h"
#include "harness.h"

namespace bench {

namespace {

// One call per block, then polling until nothing is pending.
class KtrVad {
 public:
  KtrVad(int rate, size_t) { KTRVAD_Init(rate); }
  ~KtrVad() { KTRVAD_Deinit(); }
  void Process(const int16_t* in, size_t n) {
    int result = 0;
    double volumePct = 0.0;
    int volumeInfo = 0;
    KTRVAD_GetResult(1, in, static_cast<unsigned int>(n * sizeof(int16_t)), &result, &volumePct,
                     &volumeInfo);
    while (result > 0) {
      _sum += result + volumeInfo;
      KTRVAD_GetResult(0, nullptr, 0, &result, &volumePct, &volumeInfo);
    }
  }
  long Checksum() const { return _sum; }

 private:
  long _sum = 0;
};

// The host keeps its blocks as AudioData, so they are cut out once, outside the timing.
const std::vector<kt::AudioData>& Blocks(int rate, size_t block) {
  static std::map<std::pair<int, size_t>, std::vector<kt::AudioData>> cache;
  std::vector<kt::AudioData>& blocks = cache[{rate, block}];
  if (blocks.empty()) {
    const Samples& signal = TestSignal(rate);
    for (size_t pos = 0; pos + block <= signal.size(); pos += block) {
      blocks.emplace_back(signal.begin() + pos, signal.begin() + pos + block);
    }
  }
  return blocks;
}

// Process per block, then every result taken.
template <bool kSupplyFrameData>
class Analyzer {
 public:
  Analyzer(int rate, size_t block)
      : _analyzer("", rate, kSupplyFrameData), _blocks(Blocks(rate, block)) {}
  void Process(const int16_t*, size_t) {
    _analyzer.Process(_blocks[_next++]);
    kt::AnalyzerResultPtr result;
    while (_analyzer.GetResult(result)) _sum += result->GetType();
  }
  long Checksum() const { return _sum; }

 private:
  kt::AudioAnalyzer _analyzer;
  const std::vector<kt::AudioData>& _blocks;
  size_t _next = 0;
  long _sum = 0;
};

// The host sets the volume it is told, on a scale of 0 to 255.
class KtrAgc {
 public:
  KtrAgc(int rate, size_t) { KTRAGC_Init(rate); }
  ~KtrAgc() { KTRAGC_Deinit(); }
  void Process(const int16_t* in, size_t n) {
    KTRAGC_ComputeGain(in, static_cast<unsigned int>(n * sizeof(int16_t)), _volume, 255, &_volume);
    _sum += _volume;
  }
  long Checksum() const { return _sum; }

 private:
  long _volume = 128;
  long _sum = 0;
};

class Agc {
 public:
  Agc(int rate, size_t block) : _agc("", rate), _blocks(Blocks(rate, block)) {}
  void Process(const int16_t*, size_t) {
    _gain = _agc.ComputeGain(_blocks[_next++], _gain);
    _sum += _gain;
  }
  double Checksum() const { return _sum; }

 private:
  kt::AGC _agc;
  const std::vector<kt::AudioData>& _blocks;
  size_t _next = 0;
  float _gain = 0.5f;
  double _sum = 0.0;
};

}  // namespace

void RegisterKtfront() {
  for (int rate : {8000, 11025, 16000}) {
    const std::string r = "/" + std::to_string(rate);
    Register<KtrVad>("ktfront KTRVAD_GetResult, 20 ms" + r, rate, 20);
    Register<KtrVad>("ktfront KTRVAD_GetResult, 10 ms" + r, rate, 10);
    Register<Analyzer<true>>("ktfront AudioAnalyzer, frame data, 20 ms" + r, rate, 20);
    Register<Analyzer<false>>("ktfront AudioAnalyzer, no frame data, 20 ms" + r, rate, 20);
    Register<KtrAgc>("ktfront KTRAGC_ComputeGain, 20 ms" + r, rate, 20);
    Register<Agc>("ktfront AGC::ComputeGain, 20 ms" + r, rate, 20);
  }
}

}  // namespace bench
