// speexdsp's preprocessor with its VAD or its AGC on; denoising off, as a host that
// wants only the one service would run it.
#include <speex/speex_preprocess.h>

#include <stdexcept>
#include <vector>

#include "harness.h"

namespace bench {

namespace {

template <int kRequest>
class SpeexPreprocessor {
 public:
  SpeexPreprocessor(int rate, size_t block)
      : _st(speex_preprocess_state_init(static_cast<int>(block), rate)), _buffer(block) {
    int on = 1;
    int off = 0;
    if (!_st || speex_preprocess_ctl(_st, SPEEX_PREPROCESS_SET_DENOISE, &off) != 0 ||
        speex_preprocess_ctl(_st, kRequest, &on) != 0) {
      throw std::runtime_error("speex preprocessor set-up");
    }
  }
  ~SpeexPreprocessor() { speex_preprocess_state_destroy(_st); }
  // The preprocessor works in place, so the host's block is copied first.
  void Process(const int16_t* in, size_t n) {
    _buffer.assign(in, in + n);
    _sum += speex_preprocess_run(_st, _buffer.data());
  }
  long Checksum() const { return _sum; }

 private:
  SpeexPreprocessState* _st;
  std::vector<spx_int16_t> _buffer;
  long _sum = 0;
};

}  // namespace

void RegisterSpeex() {
  for (int rate : {8000, 11025, 16000}) {
    const std::string r = "/" + std::to_string(rate);
    Register<SpeexPreprocessor<SPEEX_PREPROCESS_SET_VAD>>("speex preprocessor, VAD, 20 ms" + r,
                                                          rate, 20);
    Register<SpeexPreprocessor<SPEEX_PREPROCESS_SET_AGC>>("speex preprocessor, AGC, 20 ms" + r,
                                                          rate, 20);
  }
}

}  // namespace bench
