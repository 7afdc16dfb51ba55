#pragma once
// Streaming rate conversion of mono float samples, shared by files, arrays and live input.
#include <soxr.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

namespace ktcli {

// libsoxr's high quality, streaming, single-threaded: 20-bit precision, linear phase.
class Resampler {
 public:
  Resampler(int fromHz, int toHz) : _ratio(static_cast<double>(toHz) / fromHz) {
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    const soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    soxr_error_t error = nullptr;
    _soxr = soxr_create(fromHz, toHz, 1, &error, &io, &quality, &runtime);
    if (error) throw std::runtime_error(std::string("cannot resample: ") + error);
  }
  ~Resampler() { soxr_delete(_soxr); }
  Resampler(const Resampler&) = delete;
  Resampler& operator=(const Resampler&) = delete;

  // Appends what the input gives to out; no input drains the filter's tail.
  void Process(const std::vector<float>& in, std::vector<float>& out) {
    size_t offset = 0;
    do {
      const size_t room = static_cast<size_t>(std::ceil((in.size() - offset) * _ratio)) + 64;
      const size_t at = out.size();
      out.resize(at + room);
      size_t used = 0;
      size_t made = 0;
      const soxr_error_t error = soxr_process(_soxr, in.empty() ? nullptr : in.data() + offset,
                                              in.size() - offset, &used, out.data() + at, room, &made);
      if (error) throw std::runtime_error(std::string("resampling failed: ") + error);
      out.resize(at + made);
      offset += used;
      if (in.empty() && made == 0) break;
    } while (offset < in.size() || in.empty());
  }

 private:
  double _ratio;
  soxr_t _soxr = nullptr;
};

}  // namespace ktcli
