// The speech analyzer through its public operations: geometry, what every key does,
// refusals, reconfiguration in mid-stream, flushing.
#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <vector>

#include "audioanalyzer.h"
#include "trace.h"

namespace {

using kt::AnalyzerEvent;
using kt::AudioAnalyzer;
using kt::AudioData;

const char* const kSample = "message_8000.wav";

// The filter's rounding is floor(x + 0.5): exact halves go up, on both sides of zero.
TEST(HighpassFilterTest, RoundsHalfUp) {
  const double x[] = {-32768.5, -1.5, -0.51, -0.5, -0.49, 0.0, 0.49, 0.5, 1.5, 32767.5};
  const int expected[] = {-32768, -1, -1, 0, 0, 0, 0, 1, 2, 32768};
  for (int i = 0; i < 10; ++i) EXPECT_EQ(kt::HighpassFilter::RoundHalfUp(x[i]), expected[i]) << x[i];
  // Filter stores what Measure sums the squares of, and removes a constant.
  AudioData block(320, 1000);
  for (size_t i = 0; i < block.size(); i += 7) block[i] = -20000;
  kt::HighpassFilter filter(16000), meter(16000);
  const int64_t measured = meter.Measure(block.begin(), block.end());
  filter.Filter(block.begin(), block.end());
  int64_t sum = 0;
  for (const int16_t s : block) sum += static_cast<int64_t>(s) * s;
  EXPECT_EQ(sum, measured);
  EXPECT_NE(block[1], 1000);
}

TEST(AnalyzerTest, FrameGeometryFollowsTheRate) {
  const struct { double rate; int samples; double ms; } table[] = {
      {8000, 160, 20.0}, {11025, 220, 19.954648526077097}, {16000, 320, 20.0}};
  for (const auto& row : table) {
    const AudioAnalyzer a("", row.rate, false);
    EXPECT_EQ(a.GetSamplesPerFrame(), row.samples);
    EXPECT_DOUBLE_EQ(a.GetFrameSizeMs(), row.ms);
    EXPECT_EQ(a.GetEOSTimeout(), 420);
  }
  EXPECT_THROW(AudioAnalyzer("", 22050.0, false), std::invalid_argument);
  EXPECT_THROW(AudioAnalyzer("", 8000.5, false), std::invalid_argument);
}

// Each key, given a telling value, changes what the recording yields; a misspelt key
// would leave the default trace.
TEST(AnalyzerTest, EveryKeyHasAnEffect) {
  const uint64_t base = trace::Hash(trace::Analyzer("", kSample, 160));
  for (const char* params :
       {"SpeechWindowSizeMs=400", "SpeechWindowFraction=0.8", "EOSTimeoutMs=1000",
        "HistogramWindowSizeMs=600", "HistogramMinWindowSizeMs=200", "MaxDecayRateDbPerDs=4",
        "FullScaleSNR=60", "TooNoisyLeveldBFS=-80", "TooLoudAlignmentLeveldBFS=-60",
        "TooSoftSNR=60", "MinRecordingLeveldBFS=-1", "CutoffFraction=0.3",
        "InterpolationParam=0.9", "ThresholdOffsetSpeech=25", "ThresholdOffsetPause=35",
        "ThresholdLowerLimit=50", "ThresholdUpperLimit=35"}) {
    EXPECT_NE(trace::Hash(trace::Analyzer(params, kSample, 160)), base) << params;
  }
  EXPECT_NE(trace::Hash(trace::Analyzer("TooSoftSNR=60;TooSoftWindowSizeMs=100000", kSample, 160)),
            trace::Hash(trace::Analyzer("TooSoftSNR=60", kSample, 160)));
  // The histogram's own window keys are overwritten by the analyzer's.
  EXPECT_EQ(trace::Hash(trace::Analyzer("HistogramWindowSizeMs=1000;WindowSize=7;MinWindowSize=3", kSample, 160)),
            trace::Hash(trace::Analyzer("HistogramWindowSizeMs=1000", kSample, 160)));
}

TEST(AnalyzerTest, RefusesOnlyWhatCannotWork) {
  for (double rate : {8000.0, 11025.0}) {
    for (const char* params :
         {"SpeechWindowSizeMs=-30", "SpeechWindowSizeMs=3970", "EOSTimeoutMs=-70", "EOSTimeoutMs=11940",
          "HistogramWindowSizeMs=9", "HistogramWindowSizeMs=-29", "HistogramWindowSizeMs=-30",
          "HistogramMinWindowSizeMs=-30", "CutoffFraction=30000000", "TooSoftWindowSizeMs=-2147483649",
          "TooSoftWindowSizeMs=2147483648"}) {
      try {
        AudioAnalyzer a(params, rate, false);
        ADD_FAILURE() << params;
      } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "Value out of range") << params;
      }
    }
    for (const char* params :
         {"SpeechWindowSizeMs=-29", "SpeechWindowSizeMs=3960", "EOSTimeoutMs=-69", "EOSTimeoutMs=11900",
          "HistogramWindowSizeMs=10", "HistogramMinWindowSizeMs=-29", "HistogramWindowSizeMs=700000",
          "CutoffFraction=-1", "CutoffFraction=2", "FullScaleSNR=0", "FullScaleSNR=-5",
          "TooSoftWindowSizeMs=-2147483648.9", "TooSoftWindowSizeMs=2147483647.9"}) {
      EXPECT_NO_THROW(AudioAnalyzer(params, rate, false)) << params;
    }
  }
  AudioAnalyzer a("", 8000, false);
  EXPECT_THROW(a.SetEOSTimeout(-70), std::invalid_argument);
  EXPECT_EQ(a.GetEOSTimeout(), 420);
  // A failing key leaves the keys before it in effect.
  EXPECT_THROW(a.UpdateParameters("EOSTimeoutMs=600;FullScaleSNR=x"), std::invalid_argument);
  EXPECT_EQ(a.GetEOSTimeout(), 600);
}

// Durations that round to 0 frames act as 0 ms. A speech window of no frame opens speech
// when the first frame is decided, after that frame was released as pause: at 20 ms.
TEST(AnalyzerTest, NegativeDurationsOfNoFrameActAsZero) {
  const std::string zero = trace::Analyzer("SpeechWindowSizeMs=0", kSample, 160);
  const size_t start = zero.find("\ne0 ");
  ASSERT_GT(start, 24u);
  EXPECT_EQ(zero.substr(start - 24, 8), "\nf1 0 0 ");
  EXPECT_EQ(zero.substr(start, 31), "\ne0 3 20.000000\ne0 0 20.000000\n");
  EXPECT_EQ(trace::Analyzer("SpeechWindowSizeMs=-29", kSample, 160), zero);
  EXPECT_EQ(trace::Analyzer("EOSTimeoutMs=-69", kSample, 160), trace::Analyzer("EOSTimeoutMs=0", kSample, 160));
  EXPECT_EQ(trace::Analyzer("HistogramMinWindowSizeMs=-29", kSample, 160),
            trace::Analyzer("HistogramMinWindowSizeMs=0", kSample, 160));
  AudioAnalyzer a("", 8000, false);
  a.SetEOSTimeout(-69);
  EXPECT_EQ(a.GetEOSTimeout(), -69);
}

// With a full scale of 0 or less a speech reading is 100 above the noise level plus offset
// and 0 otherwise, pause readings 0; never NaN.
TEST(AnalyzerTest, FullScaleOfNoExtent) {
  const AudioData& samples = trace::Sample(kSample).samples;
  for (const char* params : {"FullScaleSNR=0;MinRecordingLeveldBFS=-100", "FullScaleSNR=-5;MinRecordingLeveldBFS=-100"}) {
    AudioAnalyzer a(params, 8000, false);
    int readings = 0, speech = 0, full = 0;
    for (size_t pos = 0; pos + 1600 <= samples.size(); pos += 1600) {
      a.Process(samples.data() + pos, 1600);
      kt::AnalyzerResultPtr r;
      while (a.GetResult(r)) {
        if (const auto* m = dynamic_cast<const kt::AnalyzerVolumeMeter*>(r.get())) {
          const double pct = m->GetSNRVolumePct();
          EXPECT_TRUE(pct == 0.0 || (pct == 100.0 && m->IsSpeechState())) << params << " " << pct;
          ++readings;
          speech += m->IsSpeechState();
          full += pct == 100.0;
        }
      }
    }
    EXPECT_GT(full, 10) << params;
    EXPECT_GT(speech, full - 1) << params;
    EXPECT_GT(readings, speech) << params;
  }
}

// The meter's per-cent scales: the level from the floor (a peak of 1) to 0 dBFS, the peak
// against 32768.
TEST(AnalyzerTest, MeterPercentScales) {
  const struct { int16_t peak; double levelPct, volumePct; } table[] = {
      {1, 0.0, 100.0 / 32768}, {-16384, 100.0 * (1 - std::log10(2.0) / std::log10(32768.0)), 50.0}, {-32768, 100.0, 100.0}};
  for (const auto& row : table) {
    AudioAnalyzer a("MaxDecayRateDbPerDs=1000", 8000, false);  // no decay from the start's 0 dBFS
    AudioData block(160, 0);
    block[80] = row.peak;
    a.Process(block);
    kt::AnalyzerResultPtr r;
    const kt::AnalyzerVolumeMeter* meter = nullptr;
    while (!meter && a.GetResult(r)) meter = dynamic_cast<const kt::AnalyzerVolumeMeter*>(r.get());
    ASSERT_TRUE(meter) << row.peak;
    EXPECT_NEAR(meter->GetVolumedBFSPct(), row.levelPct, 1e-9) << row.peak;
    EXPECT_DOUBLE_EQ(meter->GetVolumePct(), row.volumePct) << row.peak;
  }
}

// A negative decay rate is taken as given: the level climbs by it from block to block.
TEST(AnalyzerTest, NegativeDecayRateRaisesTheLevel) {
  AudioAnalyzer a("MaxDecayRateDbPerDs=-100", 8000, false);
  double level = -1000.0;
  for (int i = 0; i < 3; ++i) {
    a.Process(AudioData(160, 1000));
    kt::AnalyzerResultPtr r;
    while (a.GetResult(r)) {
      if (const auto* m = dynamic_cast<const kt::AnalyzerVolumeMeter*>(r.get())) {
        if (i > 0) {
          EXPECT_DOUBLE_EQ(m->GetVolumedBFS(), level + 20.0);  // 20 ms at 100 dB/ds
        }
        level = m->GetVolumedBFS();
      }
    }
  }
  EXPECT_GT(level, 0.0);
}

// After SetEOSTimeout a string without the key keeps the time-out; others fall back.
TEST(AnalyzerTest, TimeoutOutlivesAnAbsentKey) {
  AudioAnalyzer a("EOSTimeoutMs=1000;SpeechWindowSizeMs=400", 8000, false);
  a.SetEOSTimeout(600);
  a.UpdateParameters("");
  EXPECT_EQ(a.GetEOSTimeout(), 600);
  AudioAnalyzer b("", 8000, false);
  b.SetEOSTimeout(600);
  const bench::Recording& r = trace::Sample(kSample);
  a.Process(r.samples);
  b.Process(r.samples);
  a.Flush();
  b.Flush();
  EXPECT_EQ(trace::Drain(a), trace::Drain(b));
}

// UpdateParameters in mid-speech keeps the frame count, the state and the queue.
TEST(AnalyzerTest, UpdateInMidStreamKeepsStateIndexAndQueue) {
  const bench::Recording& r = trace::Sample(kSample);
  AudioAnalyzer a("", r.rate, false);
  std::string events;
  int lastFrame = -1, held = -1;
  for (size_t pos = 0; pos + 160 <= r.samples.size(); pos += 160) {
    a.Process(AudioData(r.samples.begin() + pos, r.samples.begin() + pos + 160));
    if (held >= 0 && ++held == 10) {  // ten blocks into speech, their results queued
      a.UpdateParameters("");
      events += "| ";
      held = -2;
    }
    kt::AnalyzerResultPtr res;
    while (held < 0 && a.GetResult(res)) {
      if (const auto* e = dynamic_cast<const AnalyzerEvent*>(res.get())) {
        events += std::to_string(e->GetTag()) + " ";
        if (e->GetTag() == AnalyzerEvent::SpeechStart && held == -1) held = 0;
      } else if (const auto* f = dynamic_cast<const kt::AnalyzerAudioFrame*>(res.get())) {
        EXPECT_EQ(f->GetFrameIndex(), lastFrame + 1);
        lastFrame = f->GetFrameIndex();
      }
    }
  }
  EXPECT_EQ(events.substr(0, 8), "3 0 | 2 ") << events;  // no second start: still in speech
  EXPECT_GT(lastFrame, 400);
}

// The speech window is the decided frame and the W - 1 before it, no more: with W = 5 and
// every frame required, a quiet frame opens speech 5 loud frames later, not 4. The time-out
// (21 frames) then counts from the first quiet decision after the start.
TEST(AnalyzerTest, SpeechWindowAndTimeoutCountExactlyTheirFrames) {
  const std::string plan = std::string(100, 'n') + "LnLLLLL" + std::string(40, 'n');  // n: noise, L: loud
  AudioData samples;
  unsigned seed = 7;
  for (size_t f = 0; f < plan.size(); ++f) {
    for (int i = 0; i < 160; ++i) {
      seed = seed * 1103515245u + 12345u;
      double v = static_cast<double>((seed >> 16) % 41) - 20.0;
      // A Hann envelope ends each loud frame at rest, so the filter carries nothing over.
      if (plan[f] == 'L') v += 8000.0 * (1.0 - std::cos(i * 2.0 * M_PI / 160.0)) * std::sin(i * 0.9);
      samples.push_back(static_cast<int16_t>(v));
    }
  }
  AudioAnalyzer a("SpeechWindowSizeMs=100;SpeechWindowFraction=1;ThresholdLowerLimit=55", 8000, false);
  std::vector<kt::FrameDecision> frames;
  a.SetFrameObserver([&frames](const kt::FrameDecision& d) { frames.push_back(d); });
  a.Process(samples);
  ASSERT_GE(frames.size(), 130u);
  // The plan's premises: loud and noise frames either side of the start threshold, and the
  // first decision after the start (frames 106 and 107 smoothed) below the end threshold.
  for (int f = 100; f < 108; ++f) EXPECT_EQ(frames[f].energy >= frames[f].speechStartThreshold, plan[f] == 'L') << f;
  EXPECT_LT((frames[106].energy + frames[107].energy) / 2, frames[107].speechEndThreshold);
  std::string states;
  for (int f = 104; f < 130; ++f) states += frames[f].isSpeech ? 'S' : '-';
  EXPECT_EQ(states, "--" + std::string(21, 'S') + "---");  // speech from 106 to 126, ended at 127
}

// UpdateParameters amid the quiet frames that end speech keeps their count: the end comes
// 21 quiet decisions after the first, dated 7 frames back, as without the update.
TEST(AnalyzerTest, UpdateKeepsThePauseCount) {
  const char* const params = "ThresholdLowerLimit=55;ThresholdUpperLimit=55";  // fixed thresholds
  AudioData samples;
  unsigned seed = 7;
  for (int f = 0; f < 170; ++f) {
    for (int i = 0; i < 160; ++i) {
      seed = seed * 1103515245u + 12345u;
      double v = static_cast<double>((seed >> 16) % 41) - 20.0;
      if (f >= 100 && f < 110) v += 8000.0 * (1.0 - std::cos(i * 2.0 * M_PI / 160.0)) * std::sin(i * 0.9);
      samples.push_back(static_cast<int16_t>(v));
    }
  }
  for (int updateAfter : {-1, 115, 125}) {
    AudioAnalyzer a(params, 8000, false);
    int firstQuiet = -1;
    a.SetFrameObserver([&](const kt::FrameDecision& d) {
      if (firstQuiet < 0 && d.frameIndex > 100 && d.energy < d.speechEndThreshold) firstQuiet = d.frameIndex;
    });
    for (int f = 0; f < 170; ++f) {
      a.Process(samples.data() + 160 * f, 160);
      if (f == updateAfter) a.UpdateParameters(params);
    }
    std::vector<double> ends;
    kt::AnalyzerResultPtr r;
    while (a.GetResult(r)) {
      const auto* e = dynamic_cast<const AnalyzerEvent*>(r.get());
      if (e && e->GetTag() == AnalyzerEvent::SpeechEnd) ends.push_back(e->GetTimeMs());
    }
    EXPECT_EQ(firstQuiet, 110) << updateAfter;
    EXPECT_EQ(ends, std::vector<double>{(110 + 20 - 7) * 20.0}) << updateAfter;
  }
}

TEST(AnalyzerTest, FlushEndsTheUtteranceAtTheEndOfTheAudio) {
  AudioAnalyzer a("", 8000, true);
  const bench::Recording& r = trace::Sample(kSample);
  a.Process(AudioData(r.samples.begin(), r.samples.begin() + 16000 + 80));  // 2 s and 80 samples
  a.Flush();
  const std::string out = trace::Drain(a);
  // In speech at the end: the leftover frame, then the end at 2010 ms.
  EXPECT_NE(out.find("e0 2 2010.000000\ne0 1 2010.000000\n"), std::string::npos) << out;
  EXPECT_EQ(out.substr(out.rfind("f1 100"), 9), "f1 100 1 ");
  a.Flush();
  kt::AnalyzerResultPtr none;
  EXPECT_FALSE(a.GetResult(none));
  EXPECT_FALSE(none);
}

}  // namespace
