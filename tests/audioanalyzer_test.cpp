#include "audioanalyzer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "audioanalyzer_access.h"

namespace {

using kt::AnalyzerEvent;
using kt::AudioAnalyzer;
using kt::AudioData;
using kt::Drain;
using kt::Drained;
using Access = kt::AudioAnalyzerTestAccess;

constexpr double kQuiet = 20.2;
constexpr double kLoud = 60.4;

void ExpectEvents(const Drained& d, const std::vector<Drained::Event>& expected) {
  ASSERT_EQ(d.events.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(d.events[i].tag, expected[i].tag) << "event " << i;
    EXPECT_EQ(d.events[i].timeMs, expected[i].timeMs) << "event " << i;
  }
}

// Frames are released once each, in order from 0, flagged exactly on [first, last].
void ExpectFrames(const Drained& d, int count, int firstSpeech, int lastSpeech) {
  ASSERT_EQ(static_cast<int>(d.frames.size()), count);
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(d.frames[i].index, i);
    EXPECT_EQ(d.frames[i].isSpeech, i >= firstSpeech && i <= lastSpeech) << "frame " << i;
  }
}

std::string MessageOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "no exception";
}

TEST(AudioAnalyzerConfigTest, FrameGeometryFollowsTheRate) {
  EXPECT_EQ(AudioAnalyzer("", 8000.0, true).GetSamplesPerFrame(), 160);
  EXPECT_EQ(AudioAnalyzer("", 16000.0, true).GetSamplesPerFrame(), 320);
  const AudioAnalyzer a11("", 11025.0, true);
  EXPECT_EQ(a11.GetSamplesPerFrame(), 220);
  EXPECT_EQ(a11.GetFrameSizeMs(), 19.954648526077097);
  EXPECT_EQ(AudioAnalyzer("", 8000.0, true).GetFrameSizeMs(), 20.0);
  EXPECT_EQ(MessageOf([] { AudioAnalyzer("", 22050.0, true); }), "Sampling rate");
  EXPECT_EQ(MessageOf([] { AudioAnalyzer("", 8000.5, true); }), "Sampling rate");
  EXPECT_EQ(MessageOf([] { AudioAnalyzer("SpeechWindowSizeMs", 8000.0, true); }),
            "Invalid format");
}

TEST(AudioAnalyzerConfigTest, DefaultsAtEveryRate) {
  for (double rate : {8000.0, 11025.0, 16000.0}) {
    AudioAnalyzer a("", rate, true);
    EXPECT_EQ(Access::SpeechWindowSize(a), 10);
    EXPECT_EQ(Access::SpeechWindowFraction(a), 0.3);
    EXPECT_EQ(a.GetEOSTimeout(), 420);
    EXPECT_EQ(Access::NumPauseFrames(a), 21);
    EXPECT_EQ(Access::MaxDecayRate(a), 48.0);
    EXPECT_EQ(Access::FullScaleSNR(a), 24.0);
    EXPECT_EQ(Access::TooSoftSNR(a), 18.0);
    // The histogram's minimum window is 40 frames.
    Access::Feed(a, 30.5, 39);
    EXPECT_FALSE(Access::Histogram(a).IsThresholdComputed());
    Access::Feed(a, 30.5);
    EXPECT_TRUE(Access::Histogram(a).IsThresholdComputed());
  }
}

TEST(AudioAnalyzerConfigTest, HistogramWindowComesFromMilliseconds) {
  // 1 frame to learn from; the ring holds 50 frames, whatever "WindowSize" says.
  const std::string params = "HistogramWindowSizeMs=1000;HistogramMinWindowSizeMs=20;WindowSize=7";
  AudioAnalyzer a(params, 16000.0, false);
  // With a ring of 7 only the loud energies would remain.
  Access::Feed(a, 20.5, 45);
  Access::Feed(a, 40.5, 10);
  EXPECT_EQ(Access::Histogram(a).GetNoiseLevel(), 20.0);
  // With the default ring of 100 the three quiet energies would still count.
  AudioAnalyzer b(params, 16000.0, false);
  Access::Feed(b, 20.5, 3);
  Access::Feed(b, 40.5, 52);
  EXPECT_EQ(Access::Histogram(b).GetNoiseLevel(), 40.0);
}

TEST(AudioAnalyzerConfigTest, TimeoutOutlivesAbsentKeyOthersFallBack) {
  AudioAnalyzer a("SpeechWindowSizeMs=100", 8000.0, true);
  EXPECT_EQ(Access::SpeechWindowSize(a), 5);
  a.SetEOSTimeout(600);
  EXPECT_EQ(Access::NumPauseFrames(a), 30);
  a.UpdateParameters("");
  EXPECT_EQ(a.GetEOSTimeout(), 600);
  EXPECT_EQ(Access::NumPauseFrames(a), 30);
  EXPECT_EQ(Access::SpeechWindowSize(a), 10);
  a.UpdateParameters("EOSTimeoutMs=200");
  EXPECT_EQ(a.GetEOSTimeout(), 200);
  EXPECT_EQ(Access::NumPauseFrames(a), 10);
}

TEST(AudioAnalyzerConfigTest, FailingKeyStopsTheUpdateThere) {
  const std::string head = "SpeechWindowSizeMs=100;EOSTimeoutMs=600;MaxDecayRateDbPerDs=10;";
  const std::string tail = ";TooSoftSNR=3";
  for (const char* bad : {"FullScaleSNR=abc", "FullScaleSNR=0", "FullScaleSNR=-2"}) {
    AudioAnalyzer a("", 8000.0, true);
    const std::string message = MessageOf([&] { a.UpdateParameters(head + bad + tail); });
    EXPECT_EQ(message, bad == std::string("FullScaleSNR=abc") ? "Invalid format"
                                                              : "Value out of range");
    EXPECT_EQ(Access::Parameter(a, "TooSoftSNR"), "3");
    EXPECT_EQ(Access::SpeechWindowSize(a), 5);
    EXPECT_EQ(a.GetEOSTimeout(), 600);
    EXPECT_EQ(Access::NumPauseFrames(a), 30);
    EXPECT_EQ(Access::MaxDecayRate(a), 10.0);
    EXPECT_EQ(Access::FullScaleSNR(a), 24.0);
    EXPECT_EQ(Access::TooSoftSNR(a), 18.0);
  }
}

TEST(AudioAnalyzerConfigTest, RefusedHistogramWindowLeavesTheHistogramAsItWas) {
  AudioAnalyzer a("", 8000.0, true);
  EXPECT_EQ(MessageOf([&] {
              a.UpdateParameters(
                  "SpeechWindowSizeMs=100;HistogramWindowSizeMs=9;HistogramMinWindowSizeMs=20;"
                  "MaxDecayRateDbPerDs=10");
            }),
            "Value out of range");
  EXPECT_EQ(Access::SpeechWindowSize(a), 5);
  EXPECT_EQ(Access::MaxDecayRate(a), 48.0);
  Access::Feed(a, 30.5, 39);  // still the minimum window of 40, not 1
  EXPECT_FALSE(Access::Histogram(a).IsThresholdComputed());
}

TEST(AudioAnalyzerConfigTest, RefusesValuesBeyondTheRings) {
  AudioAnalyzer a("", 16000.0, true);
  // 198 frames of window or of a third of the time-out are the most the rings allow.
  EXPECT_NO_THROW(a.UpdateParameters("SpeechWindowSizeMs=3969;EOSTimeoutMs=11929"));
  EXPECT_EQ(Access::SpeechWindowSize(a), 198);
  EXPECT_EQ(Access::NumPauseFrames(a), 596);
  for (const char* bad :
       {"SpeechWindowSizeMs=3970", "SpeechWindowSizeMs=-1", "EOSTimeoutMs=11930",
        "EOSTimeoutMs=-20", "HistogramWindowSizeMs=9", "HistogramWindowSizeMs=600010",
        "HistogramWindowSizeMs=-2000", "HistogramMinWindowSizeMs=-1",
        "TooSoftWindowSizeMs=-1", "TooSoftWindowSizeMs=3e9"}) {
    EXPECT_EQ(MessageOf([&] { a.UpdateParameters(bad); }), "Value out of range") << bad;
    EXPECT_EQ(MessageOf([&] { AudioAnalyzer("", 16000.0, true).UpdateParameters(bad); }),
              "Value out of range") << bad;
  }
  EXPECT_NO_THROW(a.UpdateParameters("HistogramWindowSizeMs=600000"));

  a.SetEOSTimeout(420);
  EXPECT_EQ(MessageOf([&] { a.SetEOSTimeout(11930); }), "Value out of range");
  EXPECT_EQ(MessageOf([&] { a.SetEOSTimeout(-1); }), "Value out of range");
  EXPECT_EQ(a.GetEOSTimeout(), 420);
  EXPECT_EQ(Access::NumPauseFrames(a), 21);

  // Still usable after the refusals.
  a.Process(AudioData(640, 100));
  const Drained d = Drain(a);
  EXPECT_EQ(d.meters.size(), 1u);
}

TEST(AudioAnalyzerFramingTest, FramesWaitForTheirLastSample) {
  AudioAnalyzer a("", 16000.0, true);
  AudioData block(319, 5);
  block[7] = -1234;
  a.Process(block);
  EXPECT_TRUE(Drain(a).all.empty());
  a.Process(AudioData(1, 0));
  const Drained d = Drain(a);
  ASSERT_EQ(d.all.size(), 1u);
  ASSERT_EQ(d.meters.size(), 1u);
  EXPECT_EQ(d.meters[0]->GetVolume(), 1234.0);
  EXPECT_EQ(d.meters[0]->GetTimeMs(), 20.0);
  EXPECT_EQ(Access::WriteIndex(a), 1);
  a.Process(AudioData());
  EXPECT_TRUE(Drain(a).all.empty());
}

TEST(AudioAnalyzerFramingTest, LeftoverWaitsAndIsFlushedAsShortFrame) {
  AudioAnalyzer a("", 8000.0, true);
  AudioData block(1000, 3);
  block[959] = 700;   // last sample of the sixth frame
  block[960] = 9000;  // leftover: not in this block's reading
  a.Process(block);
  EXPECT_EQ(Access::AudioBuffer(a).size(), 40u);
  Drained d = Drain(a);
  ASSERT_EQ(d.meters.size(), 1u);
  EXPECT_EQ(d.meters[0]->GetVolume(), 700.0);
  EXPECT_EQ(d.meters[0]->GetTimeMs(), 120.0);
  a.Flush();
  d = Drain(a);
  ASSERT_EQ(d.frames.size(), 7u);
  EXPECT_EQ(d.frames[6].index, 6);
  EXPECT_EQ(d.frames[6].numSamples, 40u);
  EXPECT_TRUE(d.meters.empty());
  EXPECT_TRUE(d.events.empty());
  EXPECT_TRUE(Access::AudioBuffer(a).empty());
}

TEST(AudioAnalyzerFramingTest, FrameResultsCarryRawSamplesOnlyWhenAsked) {
  AudioData audio(160 * 30 + 17);
  for (size_t i = 0; i < audio.size(); ++i) {
    audio[i] = static_cast<int16_t>((i * 7919) % 4001) - 2000;
  }
  AudioAnalyzer with("", 8000.0, true);
  AudioAnalyzer without("", 8000.0, false);
  for (AudioAnalyzer* a : {&with, &without}) {
    a->Process(audio);
    a->Flush();
  }
  const Drained dWith = Drain(with);
  const Drained dWithout = Drain(without);
  ASSERT_EQ(dWith.frames.size(), 31u);
  ASSERT_EQ(dWithout.frames.size(), 31u);
  for (size_t i = 0; i < dWith.frames.size(); ++i) {
    EXPECT_EQ(dWith.frames[i].index, dWithout.frames[i].index);
    EXPECT_EQ(dWith.frames[i].isSpeech, dWithout.frames[i].isSpeech);
    EXPECT_EQ(dWithout.frames[i].numSamples, 0u);
  }
  // Unfiltered, frame by frame, the leftover last.
  size_t offset = 0;
  for (const kt::AnalyzerResultPtr& r : dWith.all) {
    const auto* frame = dynamic_cast<const kt::AnalyzerAudioFrame*>(r.get());
    if (!frame) continue;
    const AudioData& data = frame->GetData();
    ASSERT_EQ(data.size(), offset + 160 <= audio.size() ? 160u : 17u);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), audio.begin() + offset));
    offset += data.size();
  }
  EXPECT_EQ(offset, audio.size());
}

TEST(AudioAnalyzerEnergyTest, MeanSquareInDecibels) {
  const AudioAnalyzer a("", 8000.0, true);
  EXPECT_EQ(Access::ComputeEnergy(a, AudioData(160, 0)), 0.0);
  EXPECT_EQ(Access::ComputeEnergy(a, AudioData{1, -1, 1, -1}), 0.0);
  EXPECT_EQ(Access::ComputeEnergy(a, AudioData()), 0.0);
  EXPECT_EQ(Access::ComputeEnergy(a, AudioData(160, -32768)), 10.0 * std::log10(1073741824.0));
  // Mean square 2.5: just above the silence bound.
  EXPECT_EQ(Access::ComputeEnergy(a, AudioData{1, 2}), 10.0 * std::log10(2.5));
}

TEST(AudioAnalyzerDecisionTest, FirstThresholdStream) {
  AudioAnalyzer a("", 16000.0, false);
  Access::Feed(a, kLoud, 3);
  Access::Feed(a, kQuiet, 36);
  EXPECT_TRUE(Drain(a).all.empty());  // nothing decided before the first threshold
  Access::Feed(a, kQuiet);            // the 40th energy decides frames 0 to 38
  const Drained d = Drain(a);
  ExpectEvents(d, {{AnalyzerEvent::AboveVOR, 0.0},
                   {AnalyzerEvent::SpeechStart, 0.0},
                   {AnalyzerEvent::BelowVOR, 340.0},
                   {AnalyzerEvent::SpeechEnd, 340.0}});
  // Frames 0 to 2 follow the start at once; the last released is 38 - 10.
  ASSERT_GE(d.all.size(), 5u);
  EXPECT_EQ(d.all[1]->GetType(), kt::AnalyzerResult::RT_Event);
  EXPECT_EQ(d.all[2]->GetType(), kt::AnalyzerResult::RT_AudioFrame);
  ExpectFrames(d, 29, 0, 16);
}

TEST(AudioAnalyzerDecisionTest, SpeechBetweenPausesWithLookAhead) {
  AudioAnalyzer a("", 16000.0, false);
  Drained all;
  auto feed = [&](double energy, int count) {
    Access::Feed(a, energy, count);
    const Drained d = Drain(a);
    all.events.insert(all.events.end(), d.events.begin(), d.events.end());
    all.frames.insert(all.frames.end(), d.frames.begin(), d.frames.end());
  };
  feed(kQuiet, 60);
  feed(kLoud, 3);  // frame 62 is stored but not decided yet
  EXPECT_TRUE(all.events.empty());
  feed(kLoud, 1);
  ExpectEvents(all, {{AnalyzerEvent::AboveVOR, 1060.0}, {AnalyzerEvent::SpeechStart, 1060.0}});
  feed(kLoud, 46);
  feed(kQuiet, 22);  // frame 131 waits for its successor
  EXPECT_EQ(all.events.size(), 2u);
  feed(kQuiet, 1);
  feed(kQuiet, 67);
  a.Flush();
  const Drained rest = Drain(a);
  all.events.insert(all.events.end(), rest.events.begin(), rest.events.end());
  all.frames.insert(all.frames.end(), rest.frames.begin(), rest.frames.end());
  ExpectEvents(all, {{AnalyzerEvent::AboveVOR, 1060.0},
                     {AnalyzerEvent::SpeechStart, 1060.0},
                     {AnalyzerEvent::BelowVOR, 2480.0},
                     {AnalyzerEvent::SpeechEnd, 2480.0}});
  ExpectFrames(all, 200, 53, 123);
}

TEST(AudioAnalyzerDecisionTest, LoudFrameInSpeechRestartsThePauseCount) {
  AudioAnalyzer a("", 16000.0, false);
  Access::Feed(a, kQuiet, 60);
  Access::Feed(a, kLoud, 50);
  Access::Feed(a, kQuiet, 10);
  Access::Feed(a, kLoud);   // frame 120: its own mean and the next reach the threshold
  Access::Feed(a, kQuiet, 22);
  EXPECT_EQ(Drain(a).events.size(), 2u);
  Access::Feed(a, kQuiet);  // frame 143 lets frame 142 complete 21 quiet frames
  const Drained d = Drain(a);
  ExpectEvents(d, {{AnalyzerEvent::BelowVOR, 2700.0}, {AnalyzerEvent::SpeechEnd, 2700.0}});
}

TEST(AudioAnalyzerDecisionTest, DigitalSilenceIsDecidedAtTheRingsEnd) {
  AudioAnalyzer a("", 16000.0, true);
  for (int i = 0; i < 199; ++i) a.Process(AudioData(320, 0));
  Drained d = Drain(a);
  EXPECT_TRUE(d.frames.empty());
  EXPECT_EQ(d.meters.size(), 199u);
  a.Process(AudioData(320, 0));
  d = Drain(a);
  EXPECT_TRUE(d.events.empty());
  ExpectFrames(d, 189, -1, -1);  // frames 0 to 198 decided, trailing by the window
  EXPECT_FALSE(Access::Histogram(a).IsThresholdComputed());
  a.Process(AudioData(320, 0));
  d = Drain(a);
  ASSERT_EQ(d.frames.size(), 1u);
  EXPECT_EQ(d.frames[0].index, 189);
}

TEST(AudioAnalyzerDecisionTest, EmptySpeechWindowStartsAtTheFirstDecision) {
  AudioAnalyzer a("SpeechWindowSizeMs=9", 16000.0, false);
  EXPECT_EQ(Access::SpeechWindowSize(a), 0);
  Access::Feed(a, 0.0, 200);
  const Drained d = Drain(a);
  // Frame 0 is released as pause before the start is found, so speech starts after it.
  ASSERT_GE(d.all.size(), 3u);
  ASSERT_FALSE(d.frames.empty());
  EXPECT_EQ(d.frames[0].index, 0);
  EXPECT_FALSE(d.frames[0].isSpeech);
  ASSERT_GE(d.events.size(), 2u);
  EXPECT_EQ(d.events[0].tag, AnalyzerEvent::AboveVOR);
  EXPECT_EQ(d.events[1].tag, AnalyzerEvent::SpeechStart);
  EXPECT_EQ(d.events[1].timeMs, 20.0);
  EXPECT_EQ(d.all[1]->GetType(), kt::AnalyzerResult::RT_Event);
}

TEST(AudioAnalyzerFlushTest, OpenSegmentEndsWithTheAudio) {
  for (const auto& [leftover, endMs] : {std::pair<size_t, double>{80, 1010.0}, {100, 1012.5}}) {
    AudioAnalyzer a("", 8000.0, true);
    Access::Feed(a, kQuiet, 40);
    Access::Feed(a, kLoud, 10);
    a.Process(AudioData(leftover, 9));
    a.Flush();
    const Drained d = Drain(a);
    ExpectEvents(d, {{AnalyzerEvent::AboveVOR, 660.0},
                     {AnalyzerEvent::SpeechStart, 660.0},
                     {AnalyzerEvent::BelowVOR, endMs},
                     {AnalyzerEvent::SpeechEnd, endMs}});
    ASSERT_EQ(d.frames.size(), 51u);
    EXPECT_EQ(d.frames[50].index, 50);
    EXPECT_TRUE(d.frames[50].isSpeech);
    EXPECT_EQ(d.frames[50].numSamples, leftover);
    // The leftover frame comes right before the closing events.
    EXPECT_EQ(d.all[d.all.size() - 3]->GetType(), kt::AnalyzerResult::RT_AudioFrame);
    EXPECT_EQ(Access::GetState(a), AudioAnalyzer::Pause);
    a.Flush();
    EXPECT_TRUE(Drain(a).all.empty());
  }
}

TEST(AudioAnalyzerFlushTest, NextUtteranceCountsFromZeroWithLearntLevels) {
  AudioAnalyzer a("", 8000.0, false);
  Access::Feed(a, kQuiet, 45);
  a.Flush();
  Drain(a);
  EXPECT_TRUE(Access::Histogram(a).IsThresholdComputed());
  Access::Feed(a, kLoud, 4);
  const Drained d = Drain(a);
  ExpectEvents(d, {{AnalyzerEvent::AboveVOR, 0.0}, {AnalyzerEvent::SpeechStart, 0.0}});
  ASSERT_EQ(d.frames.size(), 3u);
  EXPECT_EQ(d.frames[0].index, 0);
}

TEST(AudioAnalyzerQueueTest, ResetKeepsQueueAndConfiguration) {
  AudioAnalyzer a("EOSTimeoutMs=1000", 8000.0, false);
  kt::AnalyzerResultPtr result = std::make_shared<AnalyzerEvent>(1.0, AnalyzerEvent::AboveVOR);
  const kt::AnalyzerResultPtr before = result;
  EXPECT_FALSE(a.GetResult(result));
  EXPECT_EQ(result, before);
  Access::Feed(a, kQuiet, 40);
  Access::Feed(a, kLoud, 4);
  a.Reset();
  EXPECT_EQ(Access::GetState(a), AudioAnalyzer::Pause);
  EXPECT_FALSE(Access::Histogram(a).IsThresholdComputed());
  EXPECT_EQ(a.GetEOSTimeout(), 1000);
  const Drained d = Drain(a);
  ExpectEvents(d, {{AnalyzerEvent::AboveVOR, 660.0}, {AnalyzerEvent::SpeechStart, 660.0}});
  // A result taken out outlives its analyzer.
  auto owner = std::make_unique<AudioAnalyzer>("", 8000.0, false);
  owner->Process(AudioData(160, 42));
  ASSERT_TRUE(owner->GetResult(result));
  owner.reset();
  EXPECT_EQ(dynamic_cast<const kt::AnalyzerVolumeMeter&>(*result).GetVolume(), 42.0);
}

}  // namespace
