#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "audioanalyzer.h"
#include "audioanalyzer_access.h"

namespace {

using kt::AnalyzerVolumeMeter;
using kt::AudioAnalyzer;
using kt::AudioData;
using kt::Drain;
using Access = kt::AudioAnalyzerTestAccess;

// Teaches the histogram a noise and a speech level (whole bins) from 40 energies.
void Learn(AudioAnalyzer& a, double noiseLevel, double speechLevel) {
  for (int i = 0; i < 20; ++i) Access::Histogram(a).Update(noiseLevel + 0.5);
  for (int i = 0; i < 20; ++i) Access::Histogram(a).Update(speechLevel + 0.5);
  ASSERT_EQ(Access::Histogram(a).GetNoiseLevel(), noiseLevel);
  ASSERT_EQ(Access::Histogram(a).GetSNR(), speechLevel - noiseLevel);
}

// One reading over a silent frame whose stored energy is `energy`, made at `writeIndex`.
AnalyzerVolumeMeter Read(AudioAnalyzer& a, double energy, int writeIndex = 1) {
  Access::SetWriteIndex(a, writeIndex);
  Access::SetEnergy(a, writeIndex - 1, energy);
  Access::Meter(a, AudioData(static_cast<size_t>(a.GetSamplesPerFrame()), 0));
  const kt::Drained d = Drain(a);
  EXPECT_EQ(d.all.size(), 1u);
  return d.meters.empty() ? AnalyzerVolumeMeter(AnalyzerVolumeMeter::OK, 0, 0, 0, 0, false)
                          : *d.meters.back();
}

AudioData Frames(int count, int16_t peak) {
  AudioData block(160 * static_cast<size_t>(count), 0);
  block[3] = peak;
  return block;
}

double LastLevel(AudioAnalyzer& a) { return Drain(a).meters.back()->GetVolumedBFS(); }

TEST(VolumeMeterTest, dBFSOfThePeak) {
  const AudioAnalyzer a("", 8000.0, true);
  const double floordBFS = 20.0 * std::log10(1.0 / 32768.0);
  EXPECT_EQ(Access::GetdBFS(a, 0.0), floordBFS);
  EXPECT_EQ(Access::GetdBFS(a, 1.0), floordBFS);
  EXPECT_EQ(Access::GetdBFS(a, 32768.0), 0.0);
  EXPECT_EQ(-floordBFS, AnalyzerVolumeMeter::kFullScaleDb);
}

TEST(VolumeMeterTest, LevelRisesAtOnceAndFallsAtTheDecayRate) {
  AudioAnalyzer a("", 8000.0, true);
  a.Process(Frames(1, 0));
  EXPECT_EQ(LastLevel(a), -9.6);  // from the top of the scale after Reset

  a.Reset();
  a.Process(Frames(1, 16384));
  double expected = 20.0 * std::log10(0.5);  // -6 dBFS
  EXPECT_EQ(LastLevel(a), expected);
  for (int i = 0; i < 8; ++i) {  // -15.6, -25.2, ... while above the silent floor
    expected -= 9.6;
    a.Process(Frames(1, 0));
    EXPECT_EQ(LastLevel(a), expected) << "reading " << i;
  }
  a.Process(Frames(1, 0));
  EXPECT_EQ(LastLevel(a), -AnalyzerVolumeMeter::kFullScaleDb);

  a.Process(Frames(1, -32768));
  const kt::Drained loud = Drain(a);
  EXPECT_EQ(loud.meters.back()->GetVolumedBFS(), 0.0);
  EXPECT_EQ(loud.meters.back()->GetVolume(), 32768.0);
  a.Process(Frames(5, 0));  // five frames may fall 48 dB
  EXPECT_EQ(LastLevel(a), -48.0);
}

TEST(VolumeMeterTest, SignalToNoisePercentInSpeech) {
  // Noise level 30, with the offset 36; full scale max(24, 18.309).
  const struct {
    double energy;
    double percent;
  } cases[] = {{60.0, 100.0}, {48.0, 50.0}, {30.0, -25.0}, {70.0, 100.0}};
  for (const auto& c : cases) {
    AudioAnalyzer a("", 8000.0, true);
    Learn(a, 30.0, 60.0);
    Access::SetState(a, AudioAnalyzer::Speech);
    const AnalyzerVolumeMeter m = Read(a, c.energy);
    EXPECT_EQ(m.GetSNRVolumePct(), c.percent) << c.energy;
    EXPECT_TRUE(m.IsSpeechState());
  }

  // Below the minimum recording level 100 per cent needs more: max(24, 28.309).
  AudioAnalyzer low("", 8000.0, true);
  Learn(low, 20.0, 60.0);
  Access::SetState(low, AudioAnalyzer::Speech);
  EXPECT_NEAR(Read(low, 40.0).GetSNRVolumePct(), 49.45423944082636, 1e-9);

  AudioAnalyzer pause("", 8000.0, true);
  Learn(pause, 30.0, 60.0);
  EXPECT_EQ(Read(pause, 60.0).GetSNRVolumePct(), 0.0);
}

TEST(VolumeMeterTest, MaximumEnergyDecaysLikeTheLevel) {
  AudioAnalyzer a("", 8000.0, true);
  Read(a, 60.0, 1);
  EXPECT_EQ(Access::PrevSNRVolume(a), 60.0);
  Read(a, 20.0, 2);
  EXPECT_EQ(Access::PrevSNRVolume(a), 60.0 - 9.6);
  Read(a, 55.0, 3);
  EXPECT_EQ(Access::PrevSNRVolume(a), 55.0);
}

TEST(VolumeMeterTest, NoiseAndLoudnessVerdicts) {
  for (bool speech : {false, true}) {
    AudioAnalyzer noisy("", 8000.0, true);
    Learn(noisy, 66.0, 66.0);
    if (speech) Access::SetState(noisy, AudioAnalyzer::Speech);
    EXPECT_EQ(Read(noisy, 90.0).GetInfo(), AnalyzerVolumeMeter::TooNoisy);
    EXPECT_EQ(Read(noisy, 20.0, 300).GetInfo(), AnalyzerVolumeMeter::TooNoisy);
  }
  AudioAnalyzer quieter("", 8000.0, true);
  Learn(quieter, 65.0, 65.0);
  EXPECT_EQ(Read(quieter, 66.0).GetInfo(), AnalyzerVolumeMeter::OK);

  // Too loud from a frame above -10 dBFS, the block's own maximum, not the decayed one.
  AudioAnalyzer loud("", 8000.0, true);
  EXPECT_EQ(Read(loud, 80.4, 1).GetInfo(), AnalyzerVolumeMeter::TooLoud);
  EXPECT_EQ(Read(loud, 80.3, 2).GetInfo(), AnalyzerVolumeMeter::OK);
  EXPECT_EQ(Read(loud, 20.0, 3).GetInfo(), AnalyzerVolumeMeter::OK);
}

TEST(VolumeMeterTest, TooSoftOnlyAfterTheSpeechHasLasted) {
  AudioAnalyzer a("", 8000.0, true);
  Learn(a, 40.0, 56.0);  // SNR 16
  Access::SetState(a, AudioAnalyzer::Speech);
  Access::SetSpeechStartIndex(a, 7);
  EXPECT_EQ(Read(a, 50.0, 107).GetInfo(), AnalyzerVolumeMeter::OK);
  EXPECT_EQ(Read(a, 50.0, 108).GetInfo(), AnalyzerVolumeMeter::TooSoft);
  Access::SetState(a, AudioAnalyzer::Pause);
  EXPECT_EQ(Read(a, 50.0, 108).GetInfo(), AnalyzerVolumeMeter::OK);

  // SNR 24, but a speech level of 54 lies below -36 dBFS; 55 does not.
  for (const auto& [speechLevel, info] :
       {std::pair<double, AnalyzerVolumeMeter::Info>{54.0, AnalyzerVolumeMeter::TooSoft},
        {55.0, AnalyzerVolumeMeter::OK}}) {
    AudioAnalyzer b("", 8000.0, true);
    Learn(b, 30.0, speechLevel);
    Access::SetState(b, AudioAnalyzer::Speech);
    EXPECT_EQ(Read(b, 50.0, 100).GetInfo(), AnalyzerVolumeMeter::OK);
    EXPECT_EQ(Read(b, 50.0, 101).GetInfo(), info) << speechLevel;
  }

  AudioAnalyzer shortWindow("TooSoftWindowSizeMs=1000.9", 8000.0, true);
  Learn(shortWindow, 40.0, 56.0);
  Access::SetState(shortWindow, AudioAnalyzer::Speech);
  EXPECT_EQ(Read(shortWindow, 50.0, 50).GetInfo(), AnalyzerVolumeMeter::OK);
  EXPECT_EQ(Read(shortWindow, 50.0, 51).GetInfo(), AnalyzerVolumeMeter::TooSoft);
}

TEST(VolumeMeterTest, OneReadingPerBlockOfWholeFrames) {
  AudioAnalyzer a("", 8000.0, true);
  a.Process(AudioData(159, 1000));
  EXPECT_TRUE(Drain(a).all.empty());
  a.Process(AudioData(1 + 160 * 2, 5));
  const kt::Drained d = Drain(a);
  ASSERT_EQ(d.meters.size(), 1u);
  EXPECT_EQ(d.meters[0]->GetVolume(), 1000.0);
  EXPECT_EQ(d.meters[0]->GetTimeMs(), 60.0);
  EXPECT_FALSE(d.meters[0]->IsSpeechState());

  Access::Meter(a, AudioData());
  EXPECT_TRUE(Drain(a).all.empty());
  EXPECT_THROW(Access::Meter(a, AudioData(100, 0)), std::logic_error);
}

}  // namespace
