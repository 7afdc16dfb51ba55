// End-to-end tests: run the built ktfront on the bundled samples and on copies made from them.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "audioanalyzer.h"

namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kSamples = {"message_8000", "directions_11025", "forecast_16000"};

std::string SamplePath(const std::string& name, const char* extension = ".wav") {
  return std::string(KTFRONT_SAMPLES_DIR) + "/" + name + extension;
}

class Result {
 public:
  Result(int status, std::string out, std::string err)
      : _status(status), _out(std::move(out)), _err(std::move(err)) {}
  int GetStatus() const { return _status; }
  const std::string& GetOut() const { return _out; }
  const std::string& GetErr() const { return _err; }

 private:
  int _status;
  std::string _out;
  std::string _err;
};

// A directory of its own for each test, removed afterwards.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "ktfront_cli_XXXXXX").string();
    _path = mkdtemp(pattern.data());
  }
  ~TempDir() { fs::remove_all(_path); }
  std::string operator/(const std::string& name) const { return (_path / name).string(); }
  size_t CountEntries() const {
    return static_cast<size_t>(std::distance(fs::directory_iterator(_path), fs::directory_iterator()));
  }

 private:
  fs::path _path;
};

// Runs ktfront with the arguments (already quoted where needed), optionally feeding a file to stdin.
Result RunCli(const std::string& args, const std::string& stdinPath = "") {
  TempDir dir;
  const std::string errPath = dir / "stderr";
  std::string command = std::string(KTFRONT_CLI) + " " + args + " 2>" + errPath;
  if (!stdinPath.empty()) command += " <" + stdinPath;
  FILE* pipe = popen(command.c_str(), "r");
  std::string out;
  char buffer[4096];
  size_t n = 0;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  const int status = pclose(pipe);
  std::ifstream errStream(errPath);
  std::stringstream err;
  err << errStream.rdbuf();
  return Result(WIFEXITED(status) ? WEXITSTATUS(status) : -1, out, err.str());
}

using Interval = std::pair<double, double>;

std::vector<Interval> ReadIntervals(std::istream& stream) {
  std::vector<Interval> intervals;
  std::string line;
  while (std::getline(stream, line)) {
    std::istringstream fields(line);
    double start = 0.0;
    double end = 0.0;
    if (fields >> start >> end) intervals.emplace_back(start, end);
  }
  return intervals;
}

std::vector<Interval> ParseSegments(const std::string& text) {
  std::istringstream stream(text);
  return ReadIntervals(stream);
}

std::vector<Interval> ReadLabels(const std::string& name) {
  std::ifstream stream(SamplePath(name, ".labels"));
  return ReadIntervals(stream);
}

class Audio {
 public:
  Audio(std::vector<short> samples, int rateHz, int channels)
      : _samples(std::move(samples)), _rateHz(rateHz), _channels(channels) {}
  static Audio Read(const std::string& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    EXPECT_NE(file, nullptr) << path;
    if (!file) return Audio({}, 0, 1);
    std::vector<short> samples(static_cast<size_t>(info.frames * info.channels));
    sf_readf_short(file, samples.data(), info.frames);
    sf_close(file);
    return Audio(std::move(samples), info.samplerate, info.channels);
  }
  void Write(const std::string& path, int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16) const {
    SF_INFO info{};
    info.samplerate = _rateHz;
    info.channels = _channels;
    info.format = format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << path;
    sf_writef_short(file, _samples.data(), static_cast<sf_count_t>(_samples.size() / _channels));
    sf_close(file);
  }
  // A copy scaled by factor, saturating to 16 bits.
  Audio Scaled(double factor) const {
    std::vector<short> scaled(_samples.size());
    for (size_t i = 0; i < _samples.size(); ++i) {
      scaled[i] = static_cast<short>(std::clamp(std::round(_samples[i] * factor), -32768.0, 32767.0));
    }
    return Audio(std::move(scaled), _rateHz, _channels);
  }
  const std::vector<short>& GetSamples() const { return _samples; }
  int GetRateHz() const { return _rateHz; }
  int GetChannels() const { return _channels; }
  double GetDurationS() const { return static_cast<double>(_samples.size()) / _channels / _rateHz; }

 private:
  std::vector<short> _samples;
  int _rateHz;
  int _channels;
};

void ExpectEveryLabelOverlapped(const std::vector<Interval>& labels, const std::vector<Interval>& segments,
                                const std::string& what) {
  ASSERT_FALSE(labels.empty());
  for (const Interval& label : labels) {
    const bool overlapped = std::any_of(segments.begin(), segments.end(), [&](const Interval& s) {
      return s.first < label.second && label.first < s.second;
    });
    EXPECT_TRUE(overlapped) << what << ": label " << label.first << "-" << label.second;
  }
}

// ---------------------------------------------------------------------------------------
// vad

TEST(VadCommand, FindsEveryLabelledRegionThroughBothInterfaces) {
  for (const std::string& name : kSamples) {
    for (const std::string api : {"classes", "c"}) {
      const Result result = RunCli("vad --api " + api + " " + SamplePath(name));
      ASSERT_EQ(result.GetStatus(), 0) << result.GetErr();
      const std::vector<Interval> segments = ParseSegments(result.GetOut());
      ExpectEveryLabelOverlapped(ReadLabels(name), segments, name + " " + api);
      // The samples hold one segment per sentence, none spurious.
      EXPECT_EQ(segments.size(), ReadLabels(name).size()) << name << " " << api;
      EXPECT_NE(result.GetErr().find(std::to_string(Audio::Read(SamplePath(name)).GetRateHz()) + " Hz"),
                std::string::npos);
    }
  }
}

TEST(VadCommand, JsonAgreesWithPlainOutput) {
  for (const std::string& name : kSamples) {
    const Result plain = RunCli("vad --volume --frames " + SamplePath(name));
    const Result json = RunCli("vad --json " + SamplePath(name));
    ASSERT_EQ(plain.GetStatus(), 0);
    ASSERT_EQ(json.GetStatus(), 0);

    std::vector<Interval> jsonSegments;
    std::vector<std::string> jsonVolumes;
    size_t frames = 0;
    size_t speechFrames = 0;
    std::string previousTag;
    std::istringstream lines(json.GetOut());
    std::string line;
    while (std::getline(lines, line)) {
      const nlohmann::json record = nlohmann::json::parse(line);  // throws on a malformed line
      const std::string type = record.at("type");
      if (type == "segment") {
        jsonSegments.emplace_back(record.at("start"), record.at("end"));
        EXPECT_FALSE(record.at("open").get<bool>());
      } else if (type == "event") {
        const std::string tag = record.at("tag");
        if (tag == "SpeechStart") {
          EXPECT_EQ(previousTag, "AboveVOR");
        }
        if (tag == "SpeechEnd") {
          EXPECT_EQ(previousTag, "BelowVOR");
        }
        previousTag = tag;
      } else if (type == "volume") {
        char text[64];
        std::snprintf(text, sizeof text, "%.1f %.1f ", record.at("volumedBFS").get<double>(),
                      record.at("snrVolumePct").get<double>());
        jsonVolumes.push_back(text + record.at("info").get<std::string>());
        EXPECT_TRUE(record.contains("volume") && record.contains("isSpeechState"));
      } else if (type == "frame") {
        EXPECT_EQ(record.at("frameIndex").get<size_t>(), frames++);
        speechFrames += record.at("isSpeechSegmentFrame").get<bool>();
      }
    }
    const std::vector<Interval> plainSegments = ParseSegments(plain.GetOut());
    ASSERT_EQ(jsonSegments.size(), plainSegments.size()) << name;
    for (size_t i = 0; i < plainSegments.size(); ++i) {
      EXPECT_NEAR(jsonSegments[i].first, plainSegments[i].first, 0.0005);
      EXPECT_NEAR(jsonSegments[i].second, plainSegments[i].second, 0.0005);
    }
    std::vector<std::string> plainVolumes;
    size_t plainFrames = 0;
    size_t plainSpeechFrames = 0;
    std::istringstream plainLines(plain.GetOut());
    while (std::getline(plainLines, line)) {
      if (line.rfind("volume ", 0) == 0) plainVolumes.push_back(line.substr(line.find(' ', 7) + 1));
      if (line.rfind("frame ", 0) == 0) {
        ++plainFrames;
        plainSpeechFrames += line.find(" speech") != std::string::npos;
      }
    }
    EXPECT_EQ(plainVolumes, jsonVolumes) << name;
    EXPECT_EQ(plainFrames, frames);
    EXPECT_EQ(plainSpeechFrames, speechFrames);
    EXPECT_GT(speechFrames, 0u);
  }
}

// The C interface hands its analyzer each block followed by one zero sample; fed that very
// stream, the classes must announce starts and ends after the same blocks.
TEST(VadCommand, CInterfaceMatchesClassesOnTheStreamItHandsOver) {
  for (const std::string& name : kSamples) {
    const Audio audio = Audio::Read(SamplePath(name));
    const size_t block = static_cast<size_t>(audio.GetRateHz() / 50);
    kt::AudioAnalyzer analyzer("", audio.GetRateHz(), true);
    std::vector<double> starts;
    std::vector<double> ends;
    const std::vector<short>& samples = audio.GetSamples();
    for (size_t begin = 0; begin < samples.size(); begin += block) {
      const size_t end = std::min(samples.size(), begin + block);
      kt::AudioData data(samples.begin() + begin, samples.begin() + end);
      data.push_back(0);
      analyzer.Process(data);
      kt::AnalyzerResultPtr result;
      while (analyzer.GetResult(result)) {
        if (result->GetType() != kt::AnalyzerResult::RT_Event) continue;
        const auto tag = static_cast<const kt::AnalyzerEvent&>(*result).GetTag();
        const double heardS = static_cast<double>(end) / audio.GetRateHz();
        if (tag == kt::AnalyzerEvent::SpeechStart) starts.push_back(heardS);
        if (tag == kt::AnalyzerEvent::SpeechEnd) ends.push_back(heardS);
      }
    }
    const Result result = RunCli("vad --api c --json " + SamplePath(name));
    ASSERT_EQ(result.GetStatus(), 0) << result.GetErr();
    std::vector<double> cStarts;
    std::vector<double> cEnds;
    std::istringstream lines(result.GetOut());
    std::string line;
    while (std::getline(lines, line)) {
      const nlohmann::json record = nlohmann::json::parse(line);
      if (record.at("type") != "event") continue;
      (record.at("tag") == "SpeechStart" ? cStarts : cEnds).push_back(record.at("timeMs").get<double>() / 1000.0);
    }
    ASSERT_FALSE(starts.empty());
    ASSERT_EQ(cStarts.size(), starts.size()) << name;
    ASSERT_EQ(cEnds.size(), ends.size()) << name;
    for (size_t i = 0; i < starts.size(); ++i) EXPECT_NEAR(cStarts[i], starts[i], 1e-9) << name;
    for (size_t i = 0; i < ends.size(); ++i) EXPECT_NEAR(cEnds[i], ends[i], 1e-9) << name;
  }
}

// The energies and thresholds that the tool replays for its frames and plot must explain
// every decision the analyzer took: a start when 3 of the last 10 frames reach the start
// threshold (and not one frame earlier), an end when 21 smoothed energies in a row stay
// below the end threshold. The samples' pauses are long enough for steady-state timing.
TEST(VadCommand, FrameTraceExplainsTheAnalyzersDecisions) {
  for (const std::string& name : kSamples) {
    const Result result = RunCli("vad --json " + SamplePath(name));
    ASSERT_EQ(result.GetStatus(), 0);
    std::vector<double> energy, start, end, starts, ends;
    double frameMs = 0.0;
    std::istringstream lines(result.GetOut());
    std::string line;
    while (std::getline(lines, line)) {
      const nlohmann::json record = nlohmann::json::parse(line);
      if (record.at("type") == "stream") {
        const int rate = record.at("rateHz");
        frameMs = 1000.0 * (rate / 50) / rate;
      } else if (record.at("type") == "frame" && record.contains("energyDb")) {
        energy.push_back(record.at("energyDb"));
        start.push_back(record.at("startThresholdDb"));
        end.push_back(record.at("endThresholdDb"));
      } else if (record.at("type") == "event" && record.at("tag") == "SpeechStart") {
        starts.push_back(record.at("timeMs").get<double>() / frameMs);
      } else if (record.at("type") == "event" && record.at("tag") == "SpeechEnd") {
        ends.push_back(record.at("timeMs").get<double>() / frameMs);
      }
    }
    auto loud = [&](long r, double threshold) {
      int n = 0;
      for (long i = std::max(0L, r - 9); i <= r; ++i) n += energy[i] >= threshold;
      return n;
    };
    auto quiet = [&](long i) { return (energy[i - 1] + energy[i]) / 2 < end[i]; };
    ASSERT_EQ(starts.size(), ReadLabels(name).size());
    for (size_t k = 0; k < starts.size(); ++k) {
      const long r = std::lround(starts[k]) + 9;  // the frame that completed the window
      EXPECT_GE(loud(r, start[r]), 3) << name << " start " << k;
      EXPECT_LT(loud(r - 1, start[r - 1]), 3) << name << " start " << k;
      if (k >= ends.size()) continue;
      const long e = std::lround(ends[k]) + 7;  // the frame that completed the time-out
      if (e >= static_cast<long>(energy.size())) continue;  // closed by the flush
      for (long i = e - 20; i <= e; ++i) EXPECT_TRUE(quiet(i)) << name << " end " << k << " frame " << i;
      if (e - 21 > r) {
        EXPECT_FALSE(quiet(e - 21)) << name << " end " << k;
      }
    }
  }
}

TEST(VadCommand, SpeechStillOpenAtTheEndThroughTheCInterface) {
  // Cut the recording inside the last sentence: the C interface never ends it.
  TempDir dir;
  const Audio audio = Audio::Read(SamplePath("forecast_16000"));
  const size_t keep = static_cast<size_t>(6.5 * audio.GetRateHz());
  Audio(std::vector<short>(audio.GetSamples().begin(), audio.GetSamples().begin() + keep), audio.GetRateHz(), 1)
      .Write(dir / "cut.wav");
  const Result c = RunCli("vad --api c " + (dir / "cut.wav"));
  const Result classes = RunCli("vad " + (dir / "cut.wav"));
  ASSERT_EQ(c.GetStatus(), 0);
  const std::string last = c.GetOut().substr(c.GetOut().rfind('\n', c.GetOut().size() - 2) + 1);
  EXPECT_EQ(last, "5.320 6.500 open\n");
  // The classes flush: the same segment closes at the end of the audio, not marked open.
  EXPECT_NE(classes.GetOut().find(" 6.500\n"), std::string::npos) << classes.GetOut();
  EXPECT_EQ(classes.GetOut().find("open"), std::string::npos);
}

TEST(VadCommand, ParametersChangeTheDecisions) {
  const std::string path = SamplePath("directions_11025");
  const Result defaults = RunCli("vad " + path);
  const Result longTimeout = RunCli("vad --params 'EOSTimeoutMs=1500' " + path);
  ASSERT_EQ(longTimeout.GetStatus(), 0) << longTimeout.GetErr();
  // A time-out longer than the 1.2 s pause joins the last two sentences.
  EXPECT_EQ(ParseSegments(defaults.GetOut()).size(), 3u);
  EXPECT_EQ(ParseSegments(longTimeout.GetOut()).size(), 1u);
  const Result misspelt = RunCli("vad --params 'EOSTimeoutMS=1500' " + path);
  EXPECT_EQ(misspelt.GetStatus(), 0);
  EXPECT_NE(misspelt.GetErr().find("warning: the speech analyzer reads no key \"EOSTimeoutMS\""),
            std::string::npos);
}

TEST(VadCommand, ReadsOtherFormatsAndRawStandardInput) {
  TempDir dir;
  const Audio audio = Audio::Read(SamplePath("message_8000"));
  audio.Write(dir / "message.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
  audio.Write(dir / "message.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
  const std::string expected = RunCli("vad " + SamplePath("message_8000")).GetOut();
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(RunCli("vad " + (dir / "message.flac")).GetOut(), expected);
  EXPECT_EQ(RunCli("vad " + (dir / "message.aiff")).GetOut(), expected);

  std::ofstream raw(dir / "message.raw", std::ios::binary);
  for (const short s : audio.GetSamples()) {
    raw.put(static_cast<char>(s & 0xff)).put(static_cast<char>((s >> 8) & 0xff));
  }
  raw.close();
  const Result fromStdin = RunCli("vad --rate 8000 -", dir / "message.raw");
  ASSERT_EQ(fromStdin.GetStatus(), 0) << fromStdin.GetErr();
  EXPECT_EQ(fromStdin.GetOut(), expected);
  EXPECT_NE(fromStdin.GetErr().find("standard input: 8000 Hz"), std::string::npos);
}

TEST(VadCommand, ResamplesAndMixesA44100HzStereoFile) {
  TempDir dir;
  const Audio audio = Audio::Read(SamplePath("forecast_16000"));
  // Linear interpolation to 44100 Hz; the right channel at half level.
  const std::vector<short>& in = audio.GetSamples();
  const size_t frames = in.size() * 44100 / 16000;
  std::vector<short> stereo;
  for (size_t i = 0; i < frames; ++i) {
    const double pos = i * 16000.0 / 44100.0;
    const size_t j = std::min(static_cast<size_t>(pos), in.size() - 2);
    const double v = in[j] + (pos - j) * (in[j + 1] - in[j]);
    stereo.push_back(static_cast<short>(std::lround(v)));
    stereo.push_back(static_cast<short>(std::lround(v / 2)));
  }
  Audio(stereo, 44100, 2).Write(dir / "stereo.wav");
  const Result result = RunCli("vad " + (dir / "stereo.wav"));
  ASSERT_EQ(result.GetStatus(), 0) << result.GetErr();
  EXPECT_NE(result.GetErr().find("16000 Hz, resampled from 44100 Hz, 2 channels mixed to mono"),
            std::string::npos)
      << result.GetErr();
  ExpectEveryLabelOverlapped(ReadLabels("forecast_16000"), ParseSegments(result.GetOut()), "44100 Hz stereo");

  // Split keeps the recording's own rate and channels.
  const Result split = RunCli("split " + (dir / "stereo.wav") + " -o " + (dir / "parts"));
  ASSERT_EQ(split.GetStatus(), 0) << split.GetErr();
  const Audio part = Audio::Read(dir / "parts/0001.wav");
  EXPECT_EQ(part.GetRateHz(), 44100);
  EXPECT_EQ(part.GetChannels(), 2);
}

// ---------------------------------------------------------------------------------------
// split

TEST(SplitCommand, WritesOneFilePerSegment) {
  for (const std::string& name : kSamples) {
    TempDir dir;
    // The JSON start times are exact; the plain ones are rounded to the millisecond.
    std::vector<Interval> segments;
    std::istringstream lines(RunCli("vad --json " + SamplePath(name)).GetOut());
    std::string line;
    while (std::getline(lines, line)) {
      const nlohmann::json record = nlohmann::json::parse(line);
      if (record.at("type") == "segment") segments.emplace_back(record.at("start"), record.at("end"));
    }
    const Result result = RunCli("split " + SamplePath(name) + " -o " + (dir / "out"));
    ASSERT_EQ(result.GetStatus(), 0) << result.GetErr();
    size_t files = 0;
    for (const auto& entry : fs::directory_iterator(dir / "out")) {
      ++files;
      EXPECT_EQ(entry.path().extension(), ".wav");
    }
    ASSERT_EQ(files, segments.size()) << name;
    const Audio source = Audio::Read(SamplePath(name));
    for (size_t i = 0; i < segments.size(); ++i) {
      char file[32];
      std::snprintf(file, sizeof file, "%04zu.wav", i + 1);
      const Audio part = Audio::Read(dir / ("out/" + std::string(file)));
      EXPECT_EQ(part.GetRateHz(), source.GetRateHz());
      EXPECT_NEAR(part.GetDurationS(), segments[i].second - segments[i].first, 0.001) << file;
      // The first samples are the recording's own at the segment's start.
      const size_t offset = static_cast<size_t>(std::lround(segments[i].first * source.GetRateHz()));
      EXPECT_TRUE(std::equal(part.GetSamples().begin(), part.GetSamples().begin() + 100,
                             source.GetSamples().begin() + offset));
      EXPECT_NE(result.GetOut().find(file), std::string::npos);
    }
  }
}

// ---------------------------------------------------------------------------------------
// agc

class AgcTrajectory {
 public:
  explicit AgcTrajectory(const std::string& out) {
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
      std::istringstream fields(line);
      double time = 0.0;
      double gain = 0.0;
      std::string decision;
      fields >> time >> gain >> decision;
      _gains.push_back(gain);
      _decisions.push_back(decision);
    }
  }
  double GetLastGain(double otherwise) const { return _gains.empty() ? otherwise : _gains.back(); }
  bool Has(const std::string& decision) const {
    return std::find(_decisions.begin(), _decisions.end(), decision) != _decisions.end();
  }

 private:
  std::vector<double> _gains;
  std::vector<std::string> _decisions;
};

TEST(AgcCommand, RaisesTheGainOfAQuietRecordingAndLowersAClippedOne) {
  TempDir dir;
  const Audio audio = Audio::Read(SamplePath("forecast_16000"));
  audio.Scaled(0.02).Write(dir / "quiet.wav");
  audio.Scaled(16.0).Write(dir / "clipped.wav");

  const Result quiet = RunCli("agc " + (dir / "quiet.wav"));
  ASSERT_EQ(quiet.GetStatus(), 0) << quiet.GetErr();
  EXPECT_GT(AgcTrajectory(quiet.GetOut()).GetLastGain(0.5), 0.5);
  EXPECT_TRUE(AgcTrajectory(quiet.GetOut()).Has("toolow"));

  const Result clipped = RunCli("agc " + (dir / "clipped.wav"));
  ASSERT_EQ(clipped.GetStatus(), 0) << clipped.GetErr();
  EXPECT_LT(AgcTrajectory(clipped.GetOut()).GetLastGain(0.5), 0.5);
  EXPECT_TRUE(AgcTrajectory(clipped.GetOut()).Has("toohigh"));

  // The C interface on its volume scale moves the same way.
  const Result quietC = RunCli("agc --api c --bound 1000 " + (dir / "quiet.wav"));
  const Result clippedC = RunCli("agc --api c --bound 1000 " + (dir / "clipped.wav"));
  ASSERT_EQ(quietC.GetStatus(), 0) << quietC.GetErr();
  EXPECT_GT(AgcTrajectory(quietC.GetOut()).GetLastGain(0.5), 0.5);
  EXPECT_LT(AgcTrajectory(clippedC.GetOut()).GetLastGain(0.5), 0.5);
}

TEST(AgcCommand, WritesTheScaledRecordingAndTheDiagnosticLog) {
  TempDir dir;
  const Result result = RunCli("agc --start-gain 0.25 --json -o " + (dir / "scaled.wav") + " --log " +
                            (dir / "agc.log") + " " + SamplePath("message_8000"));
  ASSERT_EQ(result.GetStatus(), 0) << result.GetErr();
  const Audio source = Audio::Read(SamplePath("message_8000"));
  const Audio scaled = Audio::Read(dir / "scaled.wav");
  ASSERT_EQ(scaled.GetSamples().size(), source.GetSamples().size());
  // Until the first update the start gain is in force.
  for (size_t i = 0; i < 400; ++i) {
    EXPECT_EQ(scaled.GetSamples()[i], std::lround(source.GetSamples()[i] * 0.25));
  }
  std::ifstream log(dir / "agc.log");
  std::string line;
  size_t logLines = 0;
  while (std::getline(log, line)) ++logLines;
  std::istringstream updates(result.GetOut());
  size_t jsonLines = 0;
  while (std::getline(updates, line)) {
    const nlohmann::json update = nlohmann::json::parse(line);
    EXPECT_TRUE(update.contains("gain") && update.contains("decision") && update.contains("b2"));
    ++jsonLines;
  }
  EXPECT_GT(logLines, 10u);
  EXPECT_EQ(jsonLines, logLines);
}

// ---------------------------------------------------------------------------------------
// plot

TEST(PlotCommand, WritesSvgAndPng) {
  TempDir dir;
  const Result result = RunCli("plot --agc --from 1 --to 5 --labels " + SamplePath("forecast_16000", ".labels") + " -o " +
                            (dir / "p.svg") + " -o " + (dir / "p.png") + " " + SamplePath("forecast_16000"));
  ASSERT_EQ(result.GetStatus(), 0) << result.GetErr();
  std::ifstream svg(dir / "p.svg");
  std::stringstream svgText;
  svgText << svg.rdbuf();
  EXPECT_NE(svgText.str().find("<svg"), std::string::npos);
  std::ifstream png(dir / "p.png", std::ios::binary);
  char signature[8] = {};
  png.read(signature, 8);
  EXPECT_EQ(std::string(signature + 1, 3), "PNG");
  EXPECT_EQ(dir.CountEntries(), 2u);
}

// ---------------------------------------------------------------------------------------
// errors: one line naming the problem, the exit status, and no file left behind

class ErrorCase {
 public:
  ErrorCase(std::string args, int status, std::string message)
      : _args(std::move(args)), _status(status), _message(std::move(message)) {}
  const std::string& GetArgs() const { return _args; }
  int GetStatus() const { return _status; }
  const std::string& GetMessage() const { return _message; }

 private:
  std::string _args;
  int _status;
  std::string _message;
};

TEST(Errors, EachNamesTheProblemAndLeavesNoFile) {
  TempDir dir;
  const Audio audio = Audio::Read(SamplePath("message_8000"));
  Audio(audio.GetSamples(), 7000, 1).Write(dir / "slow.wav");
  std::ofstream(dir / "notes.txt") << "not audio at all\n";
  const std::string out = dir / "out";
  fs::create_directory(out);
  const std::string sample = SamplePath("message_8000");

  const std::vector<ErrorCase> cases = {
      {"vad " + (dir / "missing.wav"), 1, "cannot read " + (dir / "missing.wav")},
      {"plot " + (dir / "missing.wav") + " -o " + out + "/p.svg", 1, "cannot read"},
      {"vad " + (dir / "notes.txt"), 1, "cannot read " + (dir / "notes.txt")},
      {"split " + (dir / "slow.wav") + " -o " + out + "/parts", 1, "unsupported sampling rate 7000 Hz"},
      {"agc " + (dir / "slow.wav") + " -o " + out + "/a.wav", 1, "unsupported sampling rate 7000 Hz"},
      {"vad --params 'a=1=2' " + sample, 1, "invalid parameter string \"a=1=2\": Invalid format"},
      {"plot --params 'EOSTimeoutMs=x' -o " + out + "/p.png " + sample, 1, "Invalid format"},
      {"agc --params 'LeastGain=2' --log " + out + "/l.txt " + sample, 1, "Value out of range"},
      {"vad --no-such-option " + sample, 2, "--no-such-option"},
      {"vad --api c --params 'EOSTimeoutMs=900' " + sample, 2, "--params cannot be used with --api c"},
      {"vad --api c --frames " + sample, 2, "--frames needs --api classes"},
      {"agc --api c --log " + out + "/l.txt " + sample, 2, "--log needs --api classes"},
      {"vad --block-ms 0 " + sample, 2, "--block-ms"},
      {"plot -o " + out + "/p.pdf " + sample, 2, "must be .svg or .png"},
      {"plot --from 3 --to 2 -o " + out + "/p.svg " + sample, 2, "--to 2.000 is not after --from 3.000"},
      {"vad -", 1, "raw audio needs --rate"},
      {"agc -o /nonexistent-dir/a.wav " + sample, 1, "cannot write /nonexistent-dir/a.wav"},
      {"frobnicate " + sample, 2, "frobnicate"},
  };
  for (const ErrorCase& error : cases) {
    const Result result = RunCli(error.GetArgs(), "/dev/null");
    EXPECT_EQ(result.GetStatus(), error.GetStatus()) << error.GetArgs();
    EXPECT_NE(result.GetErr().find(error.GetMessage()), std::string::npos) << error.GetArgs() << "\n" << result.GetErr();
    EXPECT_EQ(std::count(result.GetErr().begin(), result.GetErr().end(), '\n'), 1) << result.GetErr();
    EXPECT_EQ(result.GetOut(), "") << error.GetArgs();
    EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 0) << error.GetArgs();
  }
}

TEST(Errors, HelpOnEverySubcommand) {
  for (const std::string command : {"vad", "split", "agc", "plot"}) {
    const Result result = RunCli(command + " --help");
    EXPECT_EQ(result.GetStatus(), 0) << command;
    EXPECT_NE(result.GetOut().find("--block-ms"), std::string::npos) << command;
    EXPECT_NE(result.GetOut().find(command), std::string::npos) << command;
  }
  const Result top = RunCli("--help");
  EXPECT_EQ(top.GetStatus(), 0);
  for (const std::string command : {"vad", "split", "agc", "plot"}) {
    EXPECT_NE(top.GetOut().find(command), std::string::npos);
  }
}

}  // namespace
