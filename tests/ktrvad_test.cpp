#include "KTRVAD.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <vector>

#include "audioanalyzer.h"
#include "audioanalyzer_access.h"

namespace {

using kt::AudioData;
using Access = kt::AudioAnalyzerTestAccess;

// Output slots preset to values the interface never writes by itself.
struct Outputs {
  int result = 77;
  double volume = 7.5;
  int info = 9;
};

int Call(int start, const void* data, unsigned int bytes, Outputs& out) {
  return KTRVAD_GetResult(start, data, bytes, &out.result, &out.volume, &out.info);
}

int Send(const AudioData& block, Outputs& out) {
  return Call(1, block.data(), static_cast<unsigned int>(block.size() * 2), out);
}

void ExpectUntouched(const Outputs& out) {
  EXPECT_EQ(out.result, 77);
  EXPECT_EQ(out.volume, 7.5);
  EXPECT_EQ(out.info, 9);
}

// Alternating at the Nyquist rate passes the high-pass filter almost unchanged.
AudioData Tone(int frames, int16_t amplitude) {
  AudioData block(320 * static_cast<size_t>(frames));
  for (size_t i = 0; i < block.size(); ++i) {
    block[i] = static_cast<int16_t>(i % 2 ? -amplitude : amplitude);
  }
  return block;
}

// A fresh analyzer at 16000 Hz that has learnt a noise level of about 25 dB.
void InitWithLearntNoise() {
  ASSERT_EQ(KTRVAD_Init(16000.0), 0);
  Outputs out;
  for (int i = 0; i < 45; ++i) {
    ASSERT_EQ(Send(Tone(1, 20), out), 0);
    while (out.result != 0) ASSERT_EQ(Call(0, nullptr, 0, out), 0);
  }
}

class KtrvadTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(KTRVAD_Deinit(), 0); }
  void TearDown() override { KTRVAD_Deinit(); }
};

TEST_F(KtrvadTest, NothingWrittenWithoutAnalyzerOrOutputs) {
  Outputs out;
  const int16_t samples[2] = {1, 2};
  EXPECT_EQ(Call(1, samples, 4, out), -1);
  ExpectUntouched(out);

  ASSERT_EQ(KTRVAD_Init(16000.0), 0);
  for (int start : {0, 1}) {
    EXPECT_EQ(KTRVAD_GetResult(start, samples, 4, nullptr, &out.volume, &out.info), -1);
    EXPECT_EQ(KTRVAD_GetResult(start, samples, 4, &out.result, nullptr, &out.info), -1);
    EXPECT_EQ(KTRVAD_GetResult(start, samples, 4, &out.result, &out.volume, nullptr), -1);
    ExpectUntouched(out);
  }
  // A missing block of non-zero size is refused and nothing is read.
  EXPECT_EQ(Call(1, nullptr, 4, out), -1);
  ExpectUntouched(out);
  EXPECT_TRUE(Access::AudioBuffer(*g_pAudioAnalyzer).empty());
  EXPECT_EQ(Call(1, nullptr, 0, out), 0);
  EXPECT_EQ(Call(0, nullptr, 4, out), 0);
}

TEST_F(KtrvadTest, Lifecycle) {
  Outputs out;
  EXPECT_EQ(KTRVAD_Init(44100.0), -2);
  EXPECT_EQ(g_pAudioAnalyzer, nullptr);
  EXPECT_EQ(Call(0, nullptr, 0, out), -1);
  ExpectUntouched(out);
  for (double rate : {8000.0, 11025.0, 16000.0}) {
    EXPECT_EQ(KTRVAD_Init(rate), 0);
    ASSERT_NE(g_pAudioAnalyzer, nullptr);
    EXPECT_EQ(g_pAudioAnalyzer->GetSamplesPerFrame(), static_cast<int>(rate / 50));
  }
  // A failed re-initialisation leaves no analyzer behind.
  EXPECT_EQ(KTRVAD_Init(22050.0), -2);
  EXPECT_EQ(g_pAudioAnalyzer, nullptr);
  EXPECT_EQ(KTRVAD_Init(16000.0), 0);
  EXPECT_EQ(KTRVAD_Deinit(), 0);
  EXPECT_EQ(g_pAudioAnalyzer, nullptr);
  EXPECT_EQ(KTRVAD_Deinit(), 0);
  EXPECT_EQ(Call(1, nullptr, 0, out), -1);
}

TEST_F(KtrvadTest, BlockGainsOneTrailingSample) {
  std::vector<uint8_t> bytes(321);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 37 + 1);
  for (unsigned int size : {320u, 321u, 0u}) {
    ASSERT_EQ(KTRVAD_Init(16000.0), 0);
    Outputs out;
    EXPECT_EQ(Call(1, bytes.data(), size, out), 0);
    const AudioData& buffer = Access::AudioBuffer(*g_pAudioAnalyzer);
    ASSERT_EQ(buffer.size(), size / 2 + 1);
    for (size_t i = 0; i < size / 2; ++i) {
      ASSERT_EQ(static_cast<uint16_t>(buffer[i]), bytes[2 * i] | (bytes[2 * i + 1] << 8)) << i;
    }
    EXPECT_EQ(buffer.back(), size % 2 ? bytes[320] : 0) << size;
  }
}

TEST_F(KtrvadTest, NothingPending) {
  ASSERT_EQ(KTRVAD_Init(16000.0), 0);
  Outputs out;
  EXPECT_EQ(Send(AudioData(10, 3), out), 0);  // completes no frame
  EXPECT_EQ(out.result, 0);
  EXPECT_EQ(out.volume, 0.0);
  EXPECT_EQ(out.info, 0);
  Outputs polled;
  EXPECT_EQ(Call(0, nullptr, 0, polled), 0);
  EXPECT_EQ(polled.result, 0);
  EXPECT_EQ(polled.volume, 7.5);
  EXPECT_EQ(polled.info, 9);
}

TEST_F(KtrvadTest, EventFirstThenItsBlocksReading) {
  InitWithLearntNoise();
  Outputs out;
  EXPECT_EQ(Send(Tone(6, 3000), out), 0);
  EXPECT_EQ(out.result, 1);
  EXPECT_EQ(Call(0, nullptr, 0, out), 0);
  EXPECT_EQ(out.result, 3);
  EXPECT_EQ(out.volume, 100.0);
  EXPECT_EQ(out.info, 0);
  EXPECT_EQ(Call(0, nullptr, 0, out), 0);
  EXPECT_EQ(out.result, 0);
}

// One call per block and no polling: each call reports the oldest reportable result, so
// the readings fall one block behind at the speech start and two after the speech end.
TEST_F(KtrvadTest, ReadingsLagOneBlockPerEvent) {
  // The same blocks through an analyzer of our own give the results to expect, in order.
  kt::AudioAnalyzer mirror("", 16000.0, true);
  std::deque<Outputs> expected;
  auto mirrorBlock = [&](const AudioData& block) {
    AudioData samples(block);
    samples.push_back(0);
    mirror.Process(samples);
    for (const kt::AnalyzerResultPtr& r : kt::Drain(mirror).all) {
      const auto* event = dynamic_cast<const kt::AnalyzerEvent*>(r.get());
      const auto* meter = dynamic_cast<const kt::AnalyzerVolumeMeter*>(r.get());
      if (event && event->GetTag() == kt::AnalyzerEvent::SpeechStart) expected.push_back({1, 0.0, 0});
      if (event && event->GetTag() == kt::AnalyzerEvent::SpeechEnd) expected.push_back({2, 0.0, 0});
      if (meter) expected.push_back({3, meter->GetSNRVolumePct(), meter->GetInfo()});
    }
  };
  InitWithLearntNoise();
  for (int i = 0; i < 45; ++i) mirrorBlock(Tone(1, 20));
  expected.clear();

  std::vector<int> codes;
  for (int i = 0; i < 11; ++i) {
    const AudioData block = i == 0 ? Tone(6, 3000) : Tone(4, 0);
    Outputs out;
    ASSERT_EQ(Send(block, out), 0);
    mirrorBlock(block);
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(out.result, expected.front().result) << "block " << i;
    EXPECT_EQ(out.volume, expected.front().volume) << "block " << i;
    EXPECT_EQ(out.info, expected.front().info) << "block " << i;
    expected.pop_front();
    codes.push_back(out.result);
    if (i == 1) {
      EXPECT_EQ(out.volume, 100.0);  // the loud block's reading
    }
  }
  // Speech ends in the sixth silent block and is reported with the seventh.
  EXPECT_EQ(codes, (std::vector<int>{1, 3, 3, 3, 3, 3, 3, 2, 3, 3, 3}));
  EXPECT_EQ(expected.size(), 2u);
}

TEST_F(KtrvadTest, ReinitialisationDropsQueuedResults) {
  InitWithLearntNoise();
  Outputs out;
  ASSERT_EQ(Send(Tone(6, 3000), out), 0);
  ASSERT_EQ(out.result, 1);
  EXPECT_EQ(KTRVAD_Init(16000.0), 0);
  EXPECT_EQ(Call(0, nullptr, 0, out), 0);
  EXPECT_EQ(out.result, 0);
  EXPECT_EQ(Send(Tone(1, 3000), out), 0);
  EXPECT_EQ(out.result, 3);
}

}  // namespace
