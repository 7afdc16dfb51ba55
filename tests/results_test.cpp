#include "audioanalyzer.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace kt;

TEST(AnalyzerResultTest, TypesAndValues) {
  const AnalyzerResultPtr event = std::make_shared<AnalyzerEvent>(12.5, AnalyzerEvent::SpeechEnd);
  const AnalyzerResultPtr frame = std::make_shared<AnalyzerAudioFrame>(3, true, nullptr);
  const AnalyzerResultPtr meter = std::make_shared<AnalyzerVolumeMeter>(
      AnalyzerVolumeMeter::TooSoft, -6.0, 16384.0, 42.0, 60.0, true);
  EXPECT_EQ(event->GetType(), 0);
  EXPECT_EQ(frame->GetType(), 1);
  EXPECT_EQ(meter->GetType(), 2);

  const auto* e = dynamic_cast<const AnalyzerEvent*>(event.get());
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->GetTag(), 1);
  EXPECT_EQ(e->GetTimeMs(), 12.5);
  EXPECT_EQ(dynamic_cast<const AnalyzerVolumeMeter*>(event.get()), nullptr);

  const auto* m = dynamic_cast<const AnalyzerVolumeMeter*>(meter.get());
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->GetInfo(), 2);
  EXPECT_EQ(m->GetVolumedBFS(), -6.0);
  EXPECT_EQ(m->GetVolume(), 16384.0);
  EXPECT_EQ(m->GetSNRVolumePct(), 42.0);
  EXPECT_EQ(m->GetTimeMs(), 60.0);
  EXPECT_TRUE(m->IsSpeechState());
  EXPECT_EQ(m->GetVolumePct(), 50.0);

  EXPECT_EQ(AnalyzerEvent::AboveVOR, 3);
  EXPECT_EQ(AnalyzerEvent::BelowVOR, 2);
  EXPECT_EQ(AnalyzerVolumeMeter::TooLoud, 3);
}

TEST(AnalyzerResultTest, LevelPercentSpansFloorToFullScale) {
  const double floordBFS = -20.0 * std::log10(32768.0);
  EXPECT_NEAR(AnalyzerVolumeMeter(AnalyzerVolumeMeter::OK, floordBFS, 0.0, 0.0, 0.0, false)
                  .GetVolumedBFSPct(), 0.0, 1e-12);
  EXPECT_EQ(AnalyzerVolumeMeter(AnalyzerVolumeMeter::OK, 0.0, 32768.0, 0.0, 0.0, false)
                .GetVolumedBFSPct(), 100.0);
  EXPECT_EQ(AnalyzerVolumeMeter(AnalyzerVolumeMeter::OK, 0.0, 32768.0, 0.0, 0.0, false)
                .GetVolumePct(), 100.0);
}

TEST(AnalyzerResultTest, AudioFrameOwnsItsCopy) {
  AudioData source = {1, -2, 3};
  const AnalyzerAudioFrame frame(7, false, &source);
  source[0] = 99;
  EXPECT_EQ(frame.GetData(), (AudioData{1, -2, 3}));
  EXPECT_EQ(frame.GetFrameIndex(), 7);
  EXPECT_FALSE(frame.IsSpeechSegmentFrame());
  EXPECT_TRUE(AnalyzerAudioFrame(0, true, nullptr).GetData().empty());
}

}  // namespace
