// The bundled recordings through the analyzer: every labelled sentence is found.
#include <gtest/gtest.h>

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "audioanalyzer.h"

namespace {

using kt::AnalyzerEvent;
using kt::AudioAnalyzer;
using kt::AudioData;

struct Segment {
  double startMs;
  double endMs;
};

// A canonical 44-byte header: PCM, mono, 16 bit; the sample rate is returned.
AudioData ReadWav(const std::string& path, double& samplingRate) {
  std::ifstream file(path, std::ios::binary);
  std::vector<uint8_t> header(44);
  file.read(reinterpret_cast<char*>(header.data()), 44);
  auto u16 = [&](size_t at) { return static_cast<uint32_t>(header[at] | header[at + 1] << 8); };
  auto u32 = [&](size_t at) { return u16(at) | u16(at + 2) << 16; };
  EXPECT_TRUE(file && !std::memcmp(&header[0], "RIFF", 4) && !std::memcmp(&header[8], "WAVE", 4) &&
              !std::memcmp(&header[36], "data", 4))
      << path;
  EXPECT_EQ(u16(20), 1u);  // PCM
  EXPECT_EQ(u16(22), 1u);  // mono
  EXPECT_EQ(u16(34), 16u);
  samplingRate = u32(24);
  AudioData samples(u32(40) / 2);
  for (int16_t& s : samples) {
    uint8_t bytes[2] = {0, 0};
    file.read(reinterpret_cast<char*>(bytes), 2);
    s = static_cast<int16_t>(bytes[0] | bytes[1] << 8);
  }
  EXPECT_TRUE(file) << path;
  return samples;
}

std::vector<Segment> ReadLabels(const std::string& path) {
  std::ifstream file(path);
  std::vector<Segment> labels;
  double start = 0.0;
  double end = 0.0;
  while (file >> start >> end) labels.push_back({start * 1000.0, end * 1000.0});
  return labels;
}

std::vector<Segment> DetectSegments(const AudioData& samples, double samplingRate) {
  AudioAnalyzer analyzer("", samplingRate, true);
  const size_t blockSize = static_cast<size_t>(samplingRate) / 50;
  for (size_t i = 0; i < samples.size(); i += blockSize) {
    const size_t end = std::min(samples.size(), i + blockSize);
    analyzer.Process(AudioData(samples.begin() + i, samples.begin() + end));
  }
  analyzer.Flush();
  std::vector<Segment> segments;
  kt::AnalyzerResultPtr result;
  while (analyzer.GetResult(result)) {
    const auto* event = dynamic_cast<const AnalyzerEvent*>(result.get());
    if (event && event->GetTag() == AnalyzerEvent::SpeechStart) {
      segments.push_back({event->GetTimeMs(), -1.0});
    } else if (event && event->GetTag() == AnalyzerEvent::SpeechEnd) {
      EXPECT_FALSE(segments.empty());
      if (!segments.empty()) segments.back().endMs = event->GetTimeMs();
    }
  }
  return segments;
}

class SampleTest : public ::testing::TestWithParam<std::string> {};

TEST_P(SampleTest, EveryLabelledSentenceOverlapsDetectedSpeech) {
  const std::string base = std::string(KTFRONT_SAMPLES_DIR) + "/" + GetParam();
  double samplingRate = 0.0;
  const AudioData samples = ReadWav(base + ".wav", samplingRate);
  const std::vector<Segment> labels = ReadLabels(base + ".labels");
  ASSERT_FALSE(labels.empty());
  const std::vector<Segment> segments = DetectSegments(samples, samplingRate);
  for (const Segment& s : segments) {
    EXPECT_LT(s.startMs, s.endMs) << "every segment is closed, after its start";
  }
  auto overlap = [](const Segment& a, const Segment& b) {
    return a.startMs < b.endMs && a.endMs > b.startMs;
  };
  for (const Segment& label : labels) {
    bool found = false;
    for (const Segment& s : segments) found = found || overlap(s, label);
    EXPECT_TRUE(found) << GetParam() << ": no speech detected in " << label.startMs << " to "
                       << label.endMs << " ms";
  }
  // The background alone never opens a segment.
  for (const Segment& s : segments) {
    bool found = false;
    for (const Segment& label : labels) found = found || overlap(s, label);
    EXPECT_TRUE(found) << GetParam() << ": speech detected in background at " << s.startMs;
  }
}

INSTANTIATE_TEST_SUITE_P(Recordings, SampleTest,
                         ::testing::Values("message_8000", "directions_11025", "forecast_16000"));

}  // namespace
