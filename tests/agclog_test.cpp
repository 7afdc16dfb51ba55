#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "agc.h"
#include "agc_test_access.h"

namespace {

using kt::AGC;
using kt::AudioData;
using kt::ostreamptr;
using kt::operator<<;  // the holder lives in std, so ADL does not find these
using Access = kt::AGCTestAccess;

// Counts the flushes that reach the buffer.
class CountingBuffer : public std::stringbuf {
 public:
  int Syncs() const { return _syncs; }

 protected:
  int sync() override {
    ++_syncs;
    return std::stringbuf::sync();
  }

 private:
  int _syncs = 0;
};

std::shared_ptr<std::ostringstream> NewLog() { return std::make_shared<std::ostringstream>(); }

TEST(AGCLogTest, EveryTokenIsFlushed) {
  CountingBuffer buffer;
  ostreamptr os = std::make_shared<std::ostream>(&buffer);
  ostreamptr& same = (os << 12u << "\t " << 0.5f << -3);
  EXPECT_EQ(&same, &os);
  EXPECT_EQ(buffer.str(), "12\t 0.5-3");
  EXPECT_EQ(buffer.Syncs(), 4);

  ostreamptr none;
  EXPECT_EQ(&(none << "x" << 1.0f), &none);
}

TEST(AGCLogTest, ExampleMeasurementPart) {
  AGC agc("", 16000);
  auto log = NewLog();
  agc.SetLogStream(log);
  Access::LogMeasurement(agc, 12340, 0.5f, 30.25f, 30.5f, 61.0f, 60.75f, 0.0f, 100);
  EXPECT_EQ(log->str(), "12340\t 0.5\t30.25\t 30.5\t 61\t 60.75\t 0\t 100");
}

TEST(AGCLogTest, SpeechOnsetLine) {
  // Minimum sizes of 11 levels let a2 and b2 differ from a and b at the 10th percentile.
  AGC agc("MinUpdateIntervalMs=220;MinLowerLevelSizeMs=220;MinUpperLevelSizeMs=220", 16000);
  auto log = NewLog();
  agc.SetLogStream(log);
  std::vector<float> levels(10, 30.25f);
  levels.push_back(30.5f);
  levels.insert(levels.end(), 78, 50.0f);
  levels.push_back(60.75f);
  levels.insert(levels.end(), 10, 61.0f);
  Access::AddLevels(agc, levels);
  Access::SetTimeMs(agc, 12340.9);
  EXPECT_EQ(Access::Decide(agc, 0.5f), 0.5f);
  EXPECT_EQ(log->str(), "12340\t 0.5\t30.25\t 30.5\t 60.75\t 61\t 0\t 100\t speech:11540\n");
}

TEST(AGCLogTest, JumpLinesCarryTheTimeTwiceAndTheNewGain) {
  AGC agc("", 16000);
  auto log = NewLog();
  agc.SetLogStream(log);
  agc.ComputeGain(AudioData(1600, 0), 0.5f);
  EXPECT_EQ(log->str(), "100\t 0.5\t0\t 0\t 0\t 0\t 0\t 5\t toolow:100\t# 0.874503\n");

  // Full-scale alternation: every sample clipped, far too loud.
  AGC loud("", 8000);
  auto loudLog = NewLog();
  loud.SetLogStream(loudLog);
  AudioData square(800);
  for (size_t i = 0; i < square.size(); ++i) square[i] = (i % 2) ? -32768 : 32767;
  EXPECT_EQ(loud.ComputeGain(square, 0.5f), 0x1.71eb86p-2f);
  const std::string line = loudLog->str();
  EXPECT_EQ(line.rfind("100\t 0.5\t", 0), 0u) << line;
  const std::string tail = "\t 1\t 5\t toohigh:100\t# 0.36125\n";
  ASSERT_GE(line.size(), tail.size());
  EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
}

TEST(AGCLogTest, SpeechPhaseLines) {
  AGC agc("", 16000);
  auto log = NewLog();
  agc.SetLogStream(log);
  Access::SetTimeMs(agc, 5000.0);

  Access::AddLevels(agc, std::vector<float>(100, 20.0f));
  Access::SetPhase(agc, AGC::Speech, false, 45.0f);
  Access::Decide(agc, 0.5f);
  EXPECT_EQ(log->str(), "5000\t 0.5\t20\t 20\t 20\t 20\t 0\t 100\t pause:4500\n");

  log->str("");
  std::vector<float> levels(100, 20.0f);
  for (size_t i = 6; i < levels.size(); i += 7) levels[i] = 45.0f;
  Access::AddLevels(agc, levels);
  Access::SetPhase(agc, AGC::Speech, true, 44.0f);
  Access::Decide(agc, 0.5f);  // still rising
  EXPECT_EQ(log->str(), "5000\t 0.5\t20\t 20\t 45\t 45\t 0\t 100\t nil:5000\n");

  log->str("");
  Access::Decide(agc, 0.5f);  // stopped rising: one step up
  EXPECT_EQ(log->str(), "5000\t 0.5\t20\t 20\t 45\t 45\t 0\t 100\t nil:5000\t# 0.575\n");
}

TEST(AGCLogTest, TheLogChangesNoGain) {
  const std::string path = std::string(KTFRONT_SAMPLES_DIR) + "/forecast_16000.wav";
  std::ifstream file(path, std::ios::binary);
  ASSERT_TRUE(file) << path;
  file.seekg(44);
  AudioData recording;
  int16_t sample;
  while (file.read(reinterpret_cast<char*>(&sample), sizeof sample)) recording.push_back(sample);
  ASSERT_GT(recording.size(), 100000u);

  AGC quiet("", 16000);
  AGC logged("", 16000);
  auto log = NewLog();
  logged.SetLogStream(log);
  float quietGain = 0.05f;
  float loggedGain = 0.05f;
  int changes = 0;
  const size_t block = 320;
  for (size_t i = 0; i + block <= recording.size(); i += block) {
    // Closed loop: the block as recorded at the current gain.
    AudioData a(recording.begin() + i, recording.begin() + i + block);
    for (int16_t& x : a) x = static_cast<int16_t>(std::lround(x * static_cast<double>(quietGain)));
    const float next = quiet.ComputeGain(a, quietGain);
    if (next != quietGain) ++changes;
    quietGain = next;
    loggedGain = logged.ComputeGain(a, loggedGain);
    ASSERT_EQ(quietGain, loggedGain) << "block " << i / block;
    if (i / block == 100) log->setstate(std::ios::badbit);  // a failed stream drops lines
    if (i / block == 200) log->clear();
  }
  EXPECT_GE(changes, 3);  // jumps up, then slow steps during speech
  // One line per update of five 20 ms blocks, less those dropped by the failed stream.
  const std::string text = log->str();
  const long lines = std::count(text.begin(), text.end(), '\n');
  EXPECT_EQ(lines, static_cast<long>(recording.size() / block / 5 - 20));
}

TEST(AGCLogTest, StreamCanBeSetAndClearedBetweenUpdates) {
  AGC agc("", 16000);
  const AudioData silence(1600, 0);
  float gain = agc.ComputeGain(silence, 0.5f);
  auto log = NewLog();
  agc.SetLogStream(log);
  gain = agc.ComputeGain(silence, gain);
  EXPECT_EQ(log->str(), "200\t 0.874503\t0\t 0\t 0\t 0\t 0\t 5\t toolow:200\t# 1\n");
  agc.SetLogStream(ostreamptr());
  agc.ComputeGain(silence, gain);
  EXPECT_EQ(log->str(), "200\t 0.874503\t0\t 0\t 0\t 0\t 0\t 5\t toolow:200\t# 1\n");
  EXPECT_EQ(log.use_count(), 1);  // the gain control let go of it
}

}  // namespace
