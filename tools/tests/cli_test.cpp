// End-to-end tests: run the built ktfront on the bundled samples and on streams made from them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "chart.h"

namespace {

namespace fs = std::filesystem;
using Interval = std::pair<double, double>;
const std::vector<std::string> kSamples = {"message_8000", "directions_11025", "forecast_16000"};

std::string Sample(const std::string& name, const char* extension = ".wav") {
  return std::string(KTFRONT_SAMPLES_DIR) + "/" + name + extension;
}

struct Dir {
  fs::path path = fs::path(mkdtemp((fs::temp_directory_path() / "ktfront_XXXXXX").string().data()));
  ~Dir() { fs::remove_all(path); }
  std::string operator/(const std::string& name) const { return (path / name).string(); }
};

// ktfront run by the shell: stdout, stderr and exit status.
struct Cli {
  std::string out, err;
  int status = -1;
  explicit Cli(const std::string& args) {
    Dir dir;
    FILE* pipe = popen(("bash -c '" + std::string(KTFRONT_CLI) + " " + args + "' 2>" + (dir / "err")).c_str(), "r");
    for (int c; (c = fgetc(pipe)) != EOF;) out += static_cast<char>(c);
    status = WEXITSTATUS(pclose(pipe));
    std::stringstream text;
    text << std::ifstream(dir / "err").rdbuf();
    err = text.str();
  }
};

// ktfront reading a pipe that the test writes into; ends with its status and peak memory.
class Child {
 public:
  explicit Child(const std::string& args) {
    int in[2], out[2];
    EXPECT_EQ(pipe(in) | pipe(out), 0);
    _pid = fork();
    if (_pid == 0) {
      dup2(in[0], 0), dup2(out[1], 1), close(in[1]), close(out[0]);
      execl("/bin/sh", "sh", "-c", (std::string("exec ") + KTFRONT_CLI + " " + args + " 2>/dev/null").c_str(), nullptr);
      _exit(127);
    }
    close(in[0]), close(out[1]);
    _in = in[1];
    _out = fdopen(out[0], "r");
  }
  void Write(const std::vector<short>& samples) {
    const char* data = reinterpret_cast<const char*>(samples.data());
    for (size_t done = 0, n = samples.size() * 2; done < n;) done += std::max<ssize_t>(0, write(_in, data + done, n - done));
  }
  std::string ReadLine() {
    char line[512] = {};
    return fgets(line, sizeof line, _out) ? line : "";
  }
  void Signal(int signal) { kill(_pid, signal); }
  // Closes its input, reads the rest of its output and waits for it.
  std::string Finish(int& status, long& maxRssKb) {
    close(_in);
    std::string rest;
    for (std::string line; !(line = ReadLine()).empty();) rest += line;
    fclose(_out);
    rusage usage{};
    wait4(_pid, &status, 0, &usage);
    status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    maxRssKb = usage.ru_maxrss;
    return rest;
  }

 private:
  pid_t _pid;
  int _in;
  FILE* _out;
};

std::vector<short> ReadAudio(const std::string& path, int& rateHz, int& channels) {
  SF_INFO info{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  std::vector<short> samples(static_cast<size_t>(info.frames * info.channels));
  sf_readf_short(file, samples.data(), info.frames);
  sf_close(file);
  rateHz = info.samplerate, channels = info.channels;
  return samples;
}

void WriteAudio(const std::string& path, const std::vector<short>& samples, int rateHz, int channels, int format) {
  SF_INFO info{0, rateHz, channels, format, 0, 0};
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr) << path << ": " << sf_strerror(nullptr);
  sf_writef_short(file, samples.data(), static_cast<sf_count_t>(samples.size() / channels));
  sf_close(file);
}

// Full scale is 1.0 in float files: -1..1 reaches the 16-bit scale through x32768.
void WriteFloats(const std::string& path, const std::vector<float>& samples, int rateHz, int format) {
  SF_INFO info{0, rateHz, 1, format, 0, 0};
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr) << path << ": " << sf_strerror(nullptr);
  sf_writef_float(file, samples.data(), static_cast<sf_count_t>(samples.size()));
  sf_close(file);
}

std::string Slurp(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::vector<Interval> Intervals(std::istream&& lines) {
  std::vector<Interval> intervals;
  for (std::string line; std::getline(lines, line);) {
    const size_t file = line.find(".wav ");  // split names its file first
    std::istringstream fields(file == std::string::npos ? line : line.substr(file + 5));
    double start = 0.0, end = 0.0;
    if (fields >> start >> end) intervals.emplace_back(start, end);
  }
  return intervals;
}

void ExpectEveryLabelFound(const std::string& name, const std::vector<Interval>& segments, const std::string& how) {
  const std::vector<Interval> labels = Intervals(std::ifstream(Sample(name, ".labels")));
  EXPECT_EQ(segments.size(), labels.size()) << name << " " << how;
  for (const Interval& l : labels) {
    EXPECT_TRUE(std::any_of(segments.begin(), segments.end(), [&](const Interval& s) { return s.first < l.second && l.first < s.second; }))
        << name << " " << how << ": " << l.first;
  }
}

TEST(Vad, FindsEveryLabelledRegionThroughBothInterfacesAndAtSourceRatesOf44100And48000) {
  Dir dir;
  for (const std::string& name : kSamples) {
    for (const std::string api : {"classes", "c"}) ExpectEveryLabelFound(name, Intervals(std::istringstream(Cli("vad --api " + api + " " + Sample(name)).out)), api);
    int rate = 0, channels = 0;
    const std::vector<short> in = ReadAudio(Sample(name), rate, channels);
    for (const int to : {44100, 48000}) {
      // Linear interpolation, and at 44100 Hz a second channel at half level.
      std::vector<short> out;
      for (size_t i = 0; i < in.size() * to / rate; ++i) {
        const double at = static_cast<double>(i) * rate / to, v = in[static_cast<size_t>(at)] + (at - std::floor(at)) * (in[std::min(in.size() - 1, static_cast<size_t>(at) + 1)] - in[static_cast<size_t>(at)]);
        out.push_back(static_cast<short>(std::lround(v)));
        if (to == 44100) out.push_back(static_cast<short>(std::lround(v / 2)));
      }
      WriteAudio(dir / "x.flac", out, to, to == 44100 ? 2 : 1, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
      const Cli run("vad " + (dir / "x.flac"));
      ExpectEveryLabelFound(name, Intervals(std::istringstream(run.out)), std::to_string(to));
      EXPECT_NE(run.err.find("16000 Hz, resampled from " + std::to_string(to)), std::string::npos) << run.err;
    }
  }
}

// Each start has 3 of the 10 frames ending at its deciding frame at the start threshold; each end
// follows 21 smoothed energies below the end threshold, and keeps 7 of them.
TEST(Vad, JsonFramesExplainEveryDecisionAndTheStreamIsFramedByItsRecords) {
  for (const std::string& name : kSamples) {
    const Cli run("vad --json " + Sample(name));
    std::vector<nlohmann::json> records;
    std::istringstream lines(run.out);
    for (std::string line; std::getline(lines, line);) records.push_back(nlohmann::json::parse(line));
    ASSERT_GT(records.size(), 2u);
    int rate = 0, channels = 0;
    EXPECT_EQ(records.back().at("samples"), ReadAudio(Sample(name), rate, channels).size());
    EXPECT_EQ(records.front().at("type"), "stream");
    std::vector<double> energy, start, end, starts, ends;
    for (const nlohmann::json& r : records) {
      if (r.at("type") == "frame" && r.contains("energyDb")) {
        EXPECT_EQ(r.at("frameIndex"), energy.size());
        energy.push_back(r.at("energyDb")), start.push_back(r.at("startThresholdDb")), end.push_back(r.at("endThresholdDb"));
      }
      if (r.at("type") == "event" && r.at("tag") == "SpeechStart") starts.push_back(std::lround(r.at("timeMs").get<double>() * rate / 1000 / (rate / 50)));
      if (r.at("type") == "event" && r.at("tag") == "SpeechEnd") ends.push_back(std::lround(r.at("timeMs").get<double>() * rate / 1000 / (rate / 50)));
    }
    auto loud = [&](long r) { return std::count_if(energy.begin() + std::max(0L, r - 9), energy.begin() + r + 1, [&](double e) { return e >= start[r]; }); };
    auto quiet = [&](long i) { return (energy[i - 1] + energy[i]) / 2 < end[i]; };
    ASSERT_EQ(starts.size(), ends.size());
    for (size_t k = 0; k < starts.size(); ++k) {
      const long r = static_cast<long>(starts[k]) + 9, e = static_cast<long>(ends[k]) + 7;
      EXPECT_GE(loud(r), 3) << name << k;
      EXPECT_LT(loud(r - 1), 3) << name << k;
      for (long i = e - 20; i <= e && e < static_cast<long>(energy.size()); ++i) EXPECT_TRUE(quiet(i)) << name << k << " " << i;
    }
  }
}

std::vector<short> Forecast(double seconds) {
  int rate = 0, channels = 0;
  std::vector<short> samples = ReadAudio(Sample("forecast_16000"), rate, channels);
  samples.resize(static_cast<size_t>(seconds * rate));
  return samples;
}

// Fed at its own pace through a pipe left open, a segment is printed before the input ends; an
// interruption in the next sentence closes that one where the input stopped, marked open.
TEST(Vad, PrintsSegmentsLiveAndClosesTheOpenOneOnInterrupt) {
  Child child("vad --rate 16000 -");
  child.Write(Forecast(6.5));
  const std::vector<Interval> first = Intervals(std::istringstream(child.ReadLine()));
  ASSERT_EQ(first.size(), 1u);
  EXPECT_NEAR(first[0].second, 4.4, 0.3);
  usleep(300000);  // lets it take in the rest of what was written before it is interrupted
  child.Signal(SIGINT);
  int status = 0;
  long rss = 0;
  const std::string rest = child.Finish(status, rss);
  EXPECT_EQ(status, 0);
  const std::vector<Interval> open = Intervals(std::istringstream(rest));
  ASSERT_EQ(open.size(), 1u) << rest;
  EXPECT_NEAR(open[0].first, 5.3, 0.3);
  EXPECT_NEAR(open[0].second, 6.5, 0.001) << rest;
  EXPECT_NE(rest.find(" open\n"), std::string::npos);
}

// Peak memory counted by the kernel is the same for 1 and 15 minutes of 44.1 kHz input.
TEST(Vad, MemoryDoesNotGrowWithTheInput) {
  // Under AddressSanitizer freed blocks wait in a quarantine that grows with the run.
  const char* asan = std::getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", (std::string(asan ? asan : "") + ":quarantine_size_mb=0").c_str(), 1);
  long peakKb[2] = {};
  for (int minutes : {1, 15}) {
    Child child("vad --rate 44100 -");
    std::vector<short> block(44100);
    for (int s = 0; s < minutes * 60; ++s) {
      for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<short>((s % 4 ? 3000 : 30) * std::sin(i * 0.3));
      child.Write(block);
    }
    int status = 0;
    child.Finish(status, peakKb[minutes > 1]);
    EXPECT_EQ(status, 0);
  }
  // 15 minutes held in memory would be 79 MB; the sanitizer's allocator alone drifts by up to 3 MB.
  EXPECT_LT(peakKb[1], peakKb[0] + 4096) << peakKb[0] << " kB for 1 min";
}

TEST(Split, WritesEachSegmentLiveAndKeepsThemWhenTheFileTurnsOutTruncated) {
  Dir dir;
  std::ifstream source(Sample("directions_11025"), std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(source)), std::istreambuf_iterator<char>());
  std::ofstream(dir / "cut.wav", std::ios::binary) << bytes.substr(0, 44 + 2 * 11025 * 7);  // cut in the 3rd sentence
  const Cli run("split " + (dir / "cut.wav") + " -o " + (dir / "out"));
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("cut.wav: the file is truncated after 77175 frames"), std::string::npos) << run.err;
  const std::vector<Interval> segments = Intervals(std::istringstream(run.out));
  ASSERT_EQ(segments.size(), 2u) << run.out;
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / "out"), fs::directory_iterator()), 2);
  int rate = 0, channels = 0;
  const std::vector<short> all = ReadAudio(dir / "cut.wav", rate, channels);
  for (size_t i = 0; i < 2; ++i) {
    const std::vector<short> part = ReadAudio(dir / ("out/000" + std::to_string(i + 1) + ".wav"), rate, channels);
    // The printed times are rounded to the millisecond, about 11 samples.
    EXPECT_NEAR(part.size(), (segments[i].second - segments[i].first) * rate, 23.0);
    bool found = false;
    for (long at = std::lround(segments[i].first * rate) - 12, n = 0; n < 25 && !found; ++at, ++n) {
      found = std::equal(part.begin(), part.end(), all.begin() + at);
    }
    EXPECT_TRUE(found) << i;
  }
}

// A window is either end alone or both, within the recording, and draws only its frames.
TEST(Plot, WindowsLieWithinTheRecordingAndDrawOnlyTheirFrames) {
  Dir dir;
  int rate = 0, channels = 0;
  std::vector<short> long_ = ReadAudio(Sample("forecast_16000"), rate, channels), one = long_;
  for (int i = 0; i < 20; ++i) long_.insert(long_.end(), one.begin(), one.end());
  WriteAudio(dir / "long.wav", long_, rate, channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  fs::create_directory(dir / "short");
  WriteAudio(dir / "short/long.wav", one, rate, channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  auto svgBytes = [&](const std::string& window, const std::string& input = "long.wav") {
    const Cli run("plot " + window + " -o " + (dir / "p.svg") + " " + (dir / input));
    EXPECT_EQ(run.status, 0) << window << run.err;
    return fs::file_size(dir / "p.svg");
  };
  const auto whole = svgBytes(""), late = svgBytes("--from 150"), early = svgBytes("--to 5"), mid = svgBytes("--from 60 --to 65");
  // Axes, legends and glyphs cost the same in any window; what is drawn over it follows its length.
  const auto fixed = svgBytes("--from 1 --to 1.02", "short/long.wav");
  EXPECT_LT((early - fixed) * 8, whole - fixed);
  EXPECT_LT((mid - fixed) * 8, whole - fixed);
  EXPECT_LT((late - fixed) * 2, whole - fixed) << "--from alone is a window to the end";
  EXPECT_GT(late, mid) << "--from alone is more than a short window";
  for (const std::string window : {"--from 185", "--to 190", "--from 9 --to 8", "--from 181 --to 182", "--from 180.2"}) {
    fs::remove(dir / "p.svg");
    const Cli run("plot " + window + " -o " + (dir / "p.svg") + " " + (dir / "long.wav"));
    EXPECT_EQ(run.status, 2) << window;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_FALSE(fs::exists(dir / "p.svg")) << window;
  }
  EXPECT_NE(Cli("plot --from 185 -o " + (dir / "p.svg") + " " + (dir / "long.wav")).err.find("recording lasts 180.151 s"), std::string::npos);
}

// Recordings sharing a stem get directories of their own, even beside one named like the
// first free one; every printed path is a file of its own.
TEST(Split, NeverWritesTwoSegmentsToOnePath) {
  Dir dir;
  for (const char* sub : {"a", "b", "c"}) fs::create_directory(dir / sub);
  for (const char* copy : {"a/x.wav", "b/x.wav", "c/x-1.wav"}) fs::copy_file(Sample("message_8000"), dir / copy);
  const Cli run("split " + (dir / "a/x.wav") + " " + (dir / "b/x.wav") + " " + (dir / "c/x-1.wav") + " -o " + (dir / "out"));
  EXPECT_EQ(run.status, 0) << run.err;
  std::istringstream lines(run.out);
  std::vector<std::string> paths;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("==> ", 0) != 0) paths.push_back(line.substr(0, line.find(' ')));
  }
  size_t files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(dir / "out")) files += entry.is_regular_file();
  EXPECT_EQ(files, paths.size()) << run.out;
  EXPECT_EQ(std::set<std::string>(paths.begin(), paths.end()).size(), paths.size());
  EXPECT_EQ(paths.size() % 3, 0u);
  EXPECT_EQ(paths.front(), dir / "out/x-2/0001.wav") << "x-1 belongs to c/x-1.wav";
  EXPECT_EQ(paths.back().find(dir / "out/x-1/"), 0u) << run.out;
  const Cli twice("split " + (dir / "a/x.wav") + " " + (dir / "a/x.wav") + " -o " + (dir / "again"));
  EXPECT_EQ(twice.status, 2);
  EXPECT_NE(twice.err.find("is given twice"), std::string::npos) << twice.err;
  EXPECT_FALSE(fs::exists(dir / "again"));
}

TEST(Agc, RaisesAQuietRecordingLowersAClippedOneAndReportsEachLoggedDecision) {
  Dir dir;
  int rate = 0, channels = 0;
  const std::vector<short> in = ReadAudio(Sample("forecast_16000"), rate, channels);
  for (const double factor : {0.02, 16.0}) {
    std::vector<short> scaled;
    for (short s : in) scaled.push_back(static_cast<short>(std::clamp(std::round(s * factor), -32768.0, 32767.0)));
    WriteAudio(dir / "x.wav", scaled, rate, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    for (const std::string api : {"classes", "c"}) {
      const Cli run("agc --api " + api + " " + (dir / "x.wav"));
      const double last = std::stod(run.out.substr(run.out.rfind('\n', run.out.size() - 2) + 1).substr(6));
      EXPECT_EQ(last > 0.5, factor < 1) << api << factor;
      if (api == "classes") {
        EXPECT_NE(run.out.find(factor < 1 ? "toolow" : "toohigh"), std::string::npos);
      }
    }
  }
  const Cli json("agc --json --log " + (dir / "log") + " -o " + (dir / "o.wav") + " " + Sample("message_8000"));
  std::ifstream log(dir / "log");
  std::istringstream records(json.out);
  std::string logLine, record;
  size_t n = 0;
  for (; std::getline(log, logLine) && std::getline(records, record); ++n) {
    const nlohmann::json r = nlohmann::json::parse(record);
    EXPECT_EQ(logLine.substr(0, logLine.find('\t')), std::to_string(r.at("logTimeMs").get<int>()));
    EXPECT_NE(logLine.find(r.at("decision").get<std::string>() + ":"), std::string::npos) << logLine;
  }
  EXPECT_GT(n, 10u);
  EXPECT_FALSE(std::getline(records, record) || std::getline(log, logLine));
  EXPECT_EQ(ReadAudio(dir / "o.wav", rate, channels).size(), ReadAudio(Sample("message_8000"), rate, channels).size());
}

// A window's frames widen into spans (pairs merging) past 4096, each keeping every value's
// extremes; frames outside the window are not kept, levels not yet learnt stay NaN. So a
// picture's size follows its width, not the recording's length.
TEST(Plot, FrameSpansKeepTheWindowsExtremes) {
  ktcli::PlotData::FrameSpans spans(1000);
  const float nan = std::nanf("");
  for (int i = 0; i < 10000; ++i) {
    const float noise = i < 3000 ? nan : 20.0f + i % 3;
    spans.Add({i == 5000 ? 99.0f : 10.0f, 1, 2, noise, 3, static_cast<int16_t>(i == 123 ? -500 : -1), 1});
  }
  ASSERT_EQ(spans.GetFramesPerSpan(), 4u);
  const auto& s = spans.GetSpans();
  ASSERT_EQ(s.size(), 2250u);
  EXPECT_EQ(s[1000].high.energy, 99.0f);
  EXPECT_EQ(s[1000].low.energy, 10.0f);
  EXPECT_EQ(s[999].high.energy, 10.0f);
  EXPECT_TRUE(std::isnan(s[499].high.noiseLevel));
  EXPECT_EQ(s[500].low.noiseLevel, 20.0f);
  EXPECT_EQ(s[500].high.noiseLevel, 22.0f);
  EXPECT_TRUE(std::all_of(s.begin(), s.end(), [](const auto& span) { return span.low.low == -1; }));
  // End to end, at a fixed width the SVG of 12 minutes of noise is that of 6 minutes.
  Dir dir;
  std::vector<short> noise(8000 * 720);
  unsigned seed = 1;
  for (short& s : noise) s = static_cast<short>(((seed = seed * 1103515245u + 12345u) >> 16) % 3000) - 1500;
  WriteAudio(dir / "n12.wav", noise, 8000, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  noise.resize(noise.size() / 2);
  WriteAudio(dir / "n6.wav", noise, 8000, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  ASSERT_EQ(Cli("plot -o " + (dir / "n6.svg") + " " + (dir / "n6.wav")).status, 0);
  ASSERT_EQ(Cli("plot -o " + (dir / "n12.svg") + " " + (dir / "n12.wav")).status, 0);
  EXPECT_LT(fs::file_size(dir / "n12.svg"), fs::file_size(dir / "n6.svg") * 21 / 20);
  ktcli::PlotData::FrameSpans window(3, 10);
  for (int i = 0; i < 20; ++i) window.Add({static_cast<float>(i), 0, 0, 0, 0, 0, 0});
  ASSERT_EQ(window.GetSpans().size(), 7u);
  EXPECT_EQ(window.GetSpans().front().low.energy, 3.0f);
  EXPECT_EQ(window.GetSpans().back().high.energy, 9.0f);
}

// An hour of volume readings, gain updates and segments is held in bounded summaries that keep
// a lone extreme, a rare decision and a long pause.
TEST(Plot, ReadingsUpdatesAndSegmentsAreSummarisedWithinABound) {
  using Data = ktcli::PlotData;
  using Meter = kt::AnalyzerVolumeMeter;
  Data::Spans<Data::Volume> volumes;
  Data::Spans<Data::Gain> gains;
  float gain = 0.5f;
  for (int i = 0; i < 180000; ++i) {  // 20 ms readings, 1 hour
    const float at = i * 0.02f;
    volumes.Add(Data::Volume::Of(at, at + 0.02f, i == 90001 ? 97.0f : 40.0f + i % 2, i % 4 ? Meter::TooSoft : Meter::OK));
    if (i % 5) continue;
    const float next = i == 50035 ? 0.25f : 0.5f;
    gains.Add(Data::Gain::Of(at, gain, next, i == 50035 ? kt::GainDecision::TooHigh : kt::GainDecision::Nil));
    gain = next;
  }
  const auto& v = volumes.Get();
  EXPECT_LE(v.size(), 4096u);
  EXPECT_GT(v.size(), 2048u);
  EXPECT_EQ(std::count_if(v.begin(), v.end(), [](const Data::Volume& s) { return s.high == 97.0f; }), 1);
  EXPECT_TRUE(std::all_of(v.begin(), v.end(), [](const Data::Volume& s) { return s.low == 40.0f && s.Verdict() == Meter::TooSoft; }));
  EXPECT_NEAR(v.back().endS - v.front().startS, 3600.0, 0.01);
  EXPECT_NEAR(std::accumulate(v.begin(), v.end(), 0.0, [](double sum, const Data::Volume& s) { return sum + s.seconds[Meter::OK]; }), 900.0, 2.0);
  const auto& g = gains.Get();
  EXPECT_LE(g.size(), 4096u);
  const auto high = std::find_if(g.begin(), g.end(), [](const Data::Gain& s) { return !std::isnan(s.markS[kt::GainDecision::TooHigh]); });
  ASSERT_NE(high, g.end());
  EXPECT_FLOAT_EQ(high->markS[kt::GainDecision::TooHigh], 1000.7f);
  EXPECT_EQ(high->low, 0.25f);
  EXPECT_EQ(std::count_if(g.begin(), g.end(), [](const Data::Gain& s) { return !std::isnan(s.markS[kt::GainDecision::Nil]); }), 1)
      << "the step back up is marked, the updates that only waited are not";
  // 12000 segments of 0.1 s every 0.3 s, a 100 s pause after the 6000th: the short pauses,
  // under a pixel of any picture of so many, are joined; the long one stays.
  Data::Segments segments;
  for (int i = 0; i < 12000; ++i) {
    const double at = i * 0.3 + (i >= 6000 ? 100.0 : 0.0);
    segments.Add(at, at + 0.1);
  }
  const auto& r = segments.Get();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0].startS, 0.0);
  EXPECT_DOUBLE_EQ(r[0].endS, 5999 * 0.3 + 0.1);
  EXPECT_DOUBLE_EQ(r[1].startS, 6000 * 0.3 + 100.0);
  EXPECT_DOUBLE_EQ(r[1].endS, 11999 * 0.3 + 100.1);
}

TEST(Plot, WritesSvgAndPng) {
  Dir dir;
  const Cli run("plot --agc --from 1 --to 5 --labels " + Sample("forecast_16000", ".labels") + " -o " + (dir / "p.svg") + " -o " + (dir / "p.png") + " " + Sample("forecast_16000"));
  ASSERT_EQ(run.status, 0) << run.err;
  std::stringstream svg, png;
  svg << std::ifstream(dir / "p.svg").rdbuf();
  png << std::ifstream(dir / "p.png").rdbuf();
  EXPECT_NE(svg.str().find("<svg"), std::string::npos);
  EXPECT_EQ(png.str().substr(1, 3), "PNG");
}

// A quiet recording (-40 dB) stored as 16-bit, float and double WAV reads as the same samples;
// Vorbis and Opus keep its level within a decibel; a file and a pipe read alike.
TEST(Input, FloatAndLossyFormatsKeepTheirTrueLevelThroughFilesAndPipes) {
  Dir dir;
  int rate = 0, channels = 0;
  const std::vector<short> loud = ReadAudio(Sample("forecast_16000"), rate, channels);
  std::vector<short> quiet;
  std::vector<float> floats;
  for (short s : loud) {
    quiet.push_back(static_cast<short>(std::lround(s * 0.01)));
    floats.push_back(quiet.back() / 32768.0f);
  }
  WriteAudio(dir / "q16.wav", quiet, rate, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  WriteFloats(dir / "q32.wav", floats, rate, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
  WriteFloats(dir / "q64.wav", floats, rate, SF_FORMAT_WAV | SF_FORMAT_DOUBLE);
  WriteFloats(dir / "q.ogg", floats, rate, SF_FORMAT_OGG | SF_FORMAT_VORBIS);
  std::vector<float> floats48;  // Opus runs at 48 kHz
  for (size_t i = 0; i < floats.size() * 3; ++i) floats48.push_back(floats[i / 3]);
  WriteFloats(dir / "q.opus", floats48, 48000, SF_FORMAT_OGG | SF_FORMAT_OPUS);
  const std::string reference = Cli("vad --json " + (dir / "q16.wav")).out;
  auto loudest = [](const std::string& jsonLines) {  // the highest peak in dBFS
    double top = 0;
    std::istringstream lines(jsonLines);
    for (std::string line; std::getline(lines, line);) {
      const nlohmann::json r = nlohmann::json::parse(line);
      if (r.at("type") == "volume") top = std::max(top, r.at("volume").get<double>());
    }
    return 20 * std::log10(top / 32768);
  };
  const double level = loudest(reference);
  int peak = 0;
  for (short s : quiet) peak = std::max(peak, std::abs(static_cast<int>(s)));
  EXPECT_NEAR(level, 20 * std::log10(peak / 32768.0), 0.01);  // about -46 dBFS
  for (const char* name : {"q32.wav", "q64.wav", "q.ogg", "q.opus"}) {
    const Cli file("vad --json " + (dir / name)), redirected("vad --json - < " + (dir / name)), pipe("vad --json - < <(cat " + (dir / name) + ")");
    EXPECT_EQ(file.status, 0) << name << file.err;
    if (std::string(name).find(".wav") != std::string::npos) { EXPECT_TRUE(file.out == reference) << name; }
    EXPECT_NEAR(loudest(file.out), level, 1.0) << name;
    EXPECT_TRUE(redirected.out == file.out) << name;
    EXPECT_TRUE(pipe.out == file.out) << name;
  }
}

// Formats are known by their headers: MPEG audio without a tag is found by its frames, while
// headerless samples, which a decoder would take for MPEG, are refused from a file and a pipe.
TEST(Input, FormatsAreRecognisedByTheirHeadersAndHeaderlessInputIsRefused) {
  Dir dir;
  int rate = 0, channels = 0;
  const std::vector<short> samples = ReadAudio(Sample("forecast_16000"), rate, channels);
  WriteAudio(dir / "x.mp3", samples, rate, 1, SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III);
  ExpectEveryLabelFound("forecast_16000", Intervals(std::istringstream(Cli("vad - < " + (dir / "x.mp3")).out)), "mp3");
  // Starting with what reads as one MPEG frame header (FF FB 90 64), a decoder's cue to try.
  std::vector<short> raw = {static_cast<short>(0xFBFF), static_cast<short>(0x6490)};
  raw.insert(raw.end(), samples.begin(), samples.end());
  WriteAudio(dir / "x.raw", raw, rate, 1, SF_FORMAT_RAW | SF_FORMAT_PCM_16);
  for (const std::string& args : {"vad " + (dir / "x.raw"), "vad - < " + (dir / "x.raw"), "vad - < <(cat " + (dir / "x.raw") + ")"}) {
    const Cli run(args);
    EXPECT_EQ(run.status, 1) << args;
    EXPECT_EQ(run.out, "") << args;
    EXPECT_NE(run.err.find("no audio file header recognised (raw audio needs --rate)"), std::string::npos) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
  ExpectEveryLabelFound("forecast_16000", Intervals(std::istringstream(Cli("vad --rate 16000 - < " + (dir / "x.raw")).out)), "raw");
}

// FLAC, CAF and VOC go back to their start once their header is read, which a pipe cannot:
// made by libsndfile, sox and ffmpeg they read through a pipe as the WAV they came from, and
// so does a CAF streamed with its length unknown, from a pipe or a file. A CAF whose header
// gives no length at all, as sox writes one to a pipe, is refused in one line naming it.
TEST(Input, FormatsThatRereadTheirStartReadThroughPipes) {
  Dir dir;
  int rate = 0, channels = 0;
  const std::string sample = Sample("forecast_16000");
  const std::vector<short> samples = ReadAudio(sample, rate, channels);
  const std::string reference = Cli("vad --json " + sample).out;
  ExpectEveryLabelFound("forecast_16000", Intervals(std::istringstream(Cli("vad " + sample).out)), "wav");
  const std::string ffmpeg = "ffmpeg -loglevel quiet -i " + sample;
  ASSERT_EQ(std::system((ffmpeg + " -f caf - | cat > " + (dir / "streamed.caf")).c_str()), 0);
  std::vector<std::string> sources = {"sox " + sample + " -t flac -", ffmpeg + " -f flac -", ffmpeg + " -f caf -",
                                      "cat " + (dir / "streamed.caf")};
  for (const std::pair<const char*, int>& format : {std::pair<const char*, int>{"x.flac", SF_FORMAT_FLAC},
                                                    {"x.caf", SF_FORMAT_CAF}, {"x.voc", SF_FORMAT_VOC}}) {
    WriteAudio(dir / format.first, samples, rate, 1, format.second | SF_FORMAT_PCM_16);
    sources.push_back("cat " + (dir / format.first));
  }
  for (const std::string& source : sources) {
    const Cli piped("vad --json - < <(" + source + ")");
    EXPECT_EQ(piped.status, 0) << source << ": " << piped.err;
    EXPECT_TRUE(piped.out == reference) << source << ": " << piped.out;
  }
  for (const std::string& path : {"<(cat " + (dir / "x.flac") + ")", dir / "streamed.caf"}) {  // a pipe not on standard input; a file
    const Cli run("vad --json " + path);
    EXPECT_TRUE(run.status == 0 && run.out == reference) << path << ": " << run.err;
  }
  const Cli noLength("vad - < <(sox " + sample + " -t caf -)");
  EXPECT_EQ(noLength.status, 1);
  EXPECT_EQ(noLength.err, "ktfront: error: cannot read standard input: a CAF whose header gives no length, as libsndfile "
                          "writes one to a pipe, is not supported (give a CAF file or WAV)\n");
}

// A symlink's target is replaced and keeps its mode; devices, FIFOs and standard output are
// written in place.
TEST(Output, GoesWhereItWasAskedFor) {
  Dir dir;
  const std::string sample = Sample("message_8000");
  Cli("agc " + sample + " -o " + (dir / "plain.wav") + " --log " + (dir / "plain.log"));
  const std::string wav = Slurp(dir / "plain.wav"), log = Slurp(dir / "plain.log");
  ASSERT_GT(wav.size(), 44u);
  EXPECT_EQ(wav.substr(0, 4) + wav.substr(8, 8) + wav.substr(36, 4), "RIFFWAVEfmt data");
  uint32_t riffBytes = 0, dataBytes = 0;
  std::memcpy(&riffBytes, &wav[4], 4), std::memcpy(&dataBytes, &wav[40], 4);
  EXPECT_TRUE(riffBytes == wav.size() - 8 && dataBytes == wav.size() - 44) << riffBytes << " " << dataBytes;
  std::ofstream(dir / "target.wav") << "old";
  chmod((dir / "target.wav").c_str(), 0640);
  fs::create_symlink("target.wav", dir / "link.wav");
  fs::create_symlink("new.log", dir / "dangling.log");
  EXPECT_EQ(Cli("agc " + sample + " -o " + (dir / "link.wav") + " --log " + (dir / "dangling.log")).status, 0);
  EXPECT_TRUE(fs::is_symlink(dir / "link.wav") && fs::is_symlink(dir / "dangling.log"));
  EXPECT_EQ(Slurp(dir / "target.wav"), wav);
  EXPECT_EQ(Slurp(dir / "new.log"), log);
  EXPECT_EQ(fs::status(dir / "target.wav").permissions(), fs::perms(0640));
  EXPECT_EQ(Cli("agc " + sample + " -o /dev/null --log /dev/null").status, 0);
  const Cli full("agc " + sample + " -o /dev/full");
  EXPECT_EQ(full.status, 1);
  EXPECT_NE(full.err.find("cannot write /dev/full: No space left on device"), std::string::npos) << full.err;
  EXPECT_TRUE(fs::is_character_file("/dev/full"));
  // Through a FIFO and standard output the sizes cannot be filled in: readers take the stream to its end.
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  const Cli throughFifo("agc " + sample + " -o " + (dir / "fifo") + " >/dev/null & timeout 20 cat " + (dir / "fifo") + "; wait $!");
  EXPECT_EQ(throughFifo.status, 0);
  const std::string fromFifo = throughFifo.out;
  ASSERT_EQ(fromFifo.size(), wav.size());
  EXPECT_EQ(fromFifo.substr(44), wav.substr(44));
  EXPECT_EQ(fromFifo.substr(40, 4), "\xFF\xFF\xFF\xFF");
  EXPECT_EQ(Cli("agc " + sample + " -o - | cat").out.substr(44), wav.substr(44));
  EXPECT_EQ(Cli("agc " + sample + " --log -").out, log);
  ExpectEveryLabelFound("message_8000", Intervals(std::istringstream(Cli("agc " + sample + " -o - | " + KTFRONT_CLI + " vad -").out)), "agc -o -");
}

// Stopping a live input is the only way to end it: what was heard stays, as a complete WAV and
// log, and as split's open segment up to where it stopped.
TEST(Interrupt, ALiveInputKeepsWhatWasHeard) {
  Dir dir;
  Child child("agc --rate 16000 - -o " + (dir / "live.wav") + " --log " + (dir / "live.log"));
  child.Write(Forecast(3.0));
  usleep(500000);
  child.Signal(SIGINT);
  int status = 0;
  long rss = 0;
  child.Finish(status, rss);
  EXPECT_EQ(status, 0);
  int rate = 0, channels = 0;
  EXPECT_EQ(ReadAudio(dir / "live.wav", rate, channels).size(), 48000u);
  EXPECT_EQ(fs::file_size(dir / "live.wav"), 44u + 96000u);
  EXPECT_GT(fs::file_size(dir / "live.log"), 100u);
  Child split("split --rate 16000 - -o " + (dir / "parts"));
  split.Write(Forecast(3.0));  // in the first sentence
  usleep(500000);
  split.Signal(SIGINT);
  const std::string line = split.Finish(status, rss);
  EXPECT_EQ(status, 0);
  const std::vector<Interval> open = Intervals(std::istringstream(line));
  ASSERT_EQ(open.size(), 1u) << line;
  EXPECT_EQ(line.substr(0, line.find(' ')), dir / "parts/0001.wav");
  EXPECT_EQ(line.substr(line.size() - 12), " 3.000 open\n");
  EXPECT_NEAR(ReadAudio(dir / "parts/0001.wav", rate, channels).size(), (3.0 - open[0].first) * 16000, 8.0);
}

// One line naming the problem, the exit status, no output and no file left behind.
TEST(Errors, EachNamesTheProblemAndLeavesNoFile) {
  Dir dir;
  std::ofstream(dir / "notes.txt") << "not audio\n";
  WriteAudio(dir / "slow.wav", std::vector<short>(7000), 7000, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  const std::string out = dir / "out/", sample = Sample("message_8000");
  fs::create_directory(out);
  std::ofstream(dir / "space.txt") << "ThresholdOffsetPause 0 30 0.5\nEOSTimeoutMs 100 500 12.5\n";
  const std::vector<std::tuple<std::string, int, std::string>> cases = {
      {"vad " + (dir / "missing.wav"), 1, "cannot read " + (dir / "missing.wav")},
      {"vad " + (dir / "notes.txt"), 1, "cannot read " + (dir / "notes.txt")},
      {"split " + (dir / "slow.wav") + " -o " + out + "p", 1, "unsupported sampling rate 7000 Hz"},
      {"vad --params a=1=2 " + sample, 1, "invalid parameter string \"a=1=2\": Invalid format"},
      {"agc --params LeastGain=2 --log " + out + "l " + sample, 1, "Value out of range"},
      {"vad --api c --frames " + sample, 2, "--frames needs --api classes"},
      {"plot -o " + out + "p.pdf " + sample, 2, "must be .svg or .png"},
      {"vad - </dev/null", 1, "raw audio needs --rate"},
      {"vad - < <(sleep 1) & sleep 0.3; kill -TERM $!; wait $!", 1, "standard input: interrupted before its format was known"},
      {"tune --space " + (dir / "space.txt") + " " + sample, 1, "space.txt:2: EOSTimeoutMs is read as a whole number"},
      {"frobnicate " + sample, 2, "frobnicate"},
      {"vad --params EOSTimeoutMS=1 " + sample + " >/dev/null", 0, "reads no key \"EOSTimeoutMS\""},
      {"vad --json " + sample + " | head -c 1 >/dev/null; exit ${PIPESTATUS[0]}", 1, ""}};
  for (const auto& [args, status, message] : cases) {
    const Cli run(args);
    EXPECT_EQ(run.status, status) << args;
    EXPECT_NE(run.err.find(message), std::string::npos) << args << "\n" << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), status == 0 ? 2 : !message.empty()) << run.err;
    EXPECT_EQ(run.out, "") << args;
    EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 0) << args;
  }  // eval checks the string as vad does, at the recording's rate, and warns of unknown keys.
  const Cli eval("eval --params EOSTimeoutMS=1 " + sample);
  EXPECT_EQ(eval.status, 0);
  EXPECT_NE(eval.err.find("reads no key \"EOSTimeoutMS\""), std::string::npos) << eval.err;
}

// Several files: in command-line order whatever the jobs, each named in every format, and a
// file that fails says so where its output would be.
TEST(ManyFiles, OutputIsOrderedAndNamesEachFileAndEachFailure) {
  Dir dir;
  int rate = 0, channels = 0;
  std::vector<short> long_ = ReadAudio(Sample("forecast_16000"), rate, channels), one = long_;
  for (int i = 0; i < 40; ++i) long_.insert(long_.end(), one.begin(), one.end());  // 5 minutes, held back
  WriteAudio(dir / "long.wav", long_, rate, channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  const std::string files = (dir / "long.wav") + " " + (dir / "missing.wav") + " " + Sample("message_8000");
  const Cli plain("vad -j 3 " + files);
  EXPECT_EQ(plain.status, 1);
  const std::string alone = Cli("vad " + Sample("message_8000")).out, first = Cli("vad " + (dir / "long.wav")).out;
  EXPECT_EQ(plain.out, "==> " + (dir / "long.wav") + " <==\n" + first + "==> " + (dir / "missing.wav") +
                           " <==\nerror: cannot read " + (dir / "missing.wav") + ": No such file or directory\n==> " +
                           Sample("message_8000") + " <==\n" + alone);
  const Cli json("vad --json -j 3 " + files);
  std::istringstream lines(json.out);
  std::vector<std::string> order;
  size_t records = 0;
  for (std::string line; std::getline(lines, line); ++records) {
    const nlohmann::json record = nlohmann::json::parse(line);
    const std::string file = record.at("file");
    if (order.empty() || order.back() != file) order.push_back(file);
    if (record["type"] == "error") {
      EXPECT_NE(record["message"].get<std::string>().find("No such file"), std::string::npos);
    }
  }
  EXPECT_GT(records, 10000u);
  EXPECT_EQ(order, (std::vector<std::string>{dir / "long.wav", dir / "missing.wav", Sample("message_8000")}));
  const Cli rttm("vad --format rttm " + files);
  EXPECT_NE(rttm.out.find("\n;; error: " + (dir / "missing.wav") + ": cannot read"), std::string::npos) << rttm.out;
  EXPECT_NE(rttm.out.find("SPEAKER message_8000 1 1.060 3.460"), std::string::npos) << rttm.out;
  // An RTTM ID is one field: standard input is "stdin", a blank in a stem becomes "_", and
  // eval finds the recording by that ID; so do tune and plot, which take the same label options.
  fs::copy_file(Sample("message_8000"), dir / "my take.wav");
  const Cli ids("vad --format rttm - " + (dir / "my\\ take.wav") + " <" + Sample("forecast_16000"));
  std::istringstream rttmLines(ids.out);
  std::set<std::string> named;
  for (std::string line, word; std::getline(rttmLines, line);) {
    std::istringstream words(line);
    std::vector<std::string> fields;
    while (words >> word) fields.push_back(word);
    ASSERT_EQ(fields.size(), 10u) << line;
    named.insert(fields[1]);
  }
  EXPECT_EQ(named, (std::set<std::string>{"stdin", "my_take"})) << ids.err;
  std::ofstream(dir / "all.rttm") << ids.out;
  const Cli scored("eval --labels " + (dir / "all.rttm") + " " + (dir / "my\\ take.wav"));
  EXPECT_EQ(scored.status, 0) << scored.err;
  EXPECT_NE(scored.out.find("    0.0       2/2       2/2\n"), std::string::npos) << scored.out;
  for (const std::string& command : {std::string("eval"), std::string("tune"), "plot -o " + (dir / "p.svg")}) {
    const Cli other(command + " --labels " + (dir / "all.rttm") + " --labels-id nosuch " + Sample("message_8000"));
    EXPECT_EQ(other.status, 1) << command;
    EXPECT_NE(other.err.find("no SPEAKER line for recording \"nosuch\""), std::string::npos) << command << other.err;
  }
  const Cli audacity("vad --format audacity " + files);
  EXPECT_EQ(audacity.status, 2);
  EXPECT_NE(audacity.err.find("holds one recording"), std::string::npos) << audacity.err;
}

// Numbers that are not finite or out of range, stdin twice and options that would be dropped
// are usage errors of one line that echo at most 200 characters of what was given.
TEST(Options, BadValuesAndConflictsAreRefusedBeforeAnyWork) {
  const std::string sample = Sample("message_8000"), labels = Sample("message_8000", ".labels");
  const std::string huge = "EOSTimeoutMs=" + std::string(5000, '7') + "x=";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"agc --start-gain nan " + sample, "--start-gain: \"nan\" is not a number from 0 to 1"},
      {"agc --start-gain 1.5 " + sample, "not a number from 0 to 1"},
      {"plot --start-gain -inf -o x.svg " + sample, "not a number from 0 to 1"},
      {"eval --collar nan --labels " + labels + " " + sample, "--collar: \"nan\""},
      {"tune --time nan --labels " + labels + " " + sample, "--time: \"nan\""},
      {"plot --from nan -o x.svg " + sample, "--from: \"nan\""},
      {"vad --rate 0 " + sample, "--rate: \"0\" is not a whole number from 1 to 10000000"},
      {"vad --block-ms 2.5 " + sample, "not a whole number from 1 to 60000"},
      {"vad --jobs 1e400 " + sample + " " + sample, "--jobs"},
      {"vad - " + sample + " - <" + sample, "- (standard input) can be given once only"},
      {"vad --format audacity --json " + sample, "--format audacity writes segments only"},
      {"vad --format rttm --volume " + sample, "takes no --json, --volume or --frames"},
      {"agc --bound 5 " + sample, "--bound needs --api c"},
      {"vad --rate " + std::string(300, '9') + " " + sample, "... (300 characters)"}};
  for (const auto& [args, message] : cases) {
    const Cli run(args);
    EXPECT_EQ(run.status, 2) << args;
    EXPECT_NE(run.err.find(message), std::string::npos) << args << "\n" << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_LT(run.err.size(), 330u) << args;
    EXPECT_EQ(run.out, "") << args;
  }
  const Cli refused("vad --params \"" + huge + "\" " + sample);
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("invalid parameter string \"EOSTimeoutMs=777"), std::string::npos) << refused.err;
  EXPECT_NE(refused.err.find("... (5015 characters)\": Invalid format"), std::string::npos) << refused.err;
  EXPECT_LT(refused.err.size(), 330u);
}

// Unknown keys and values read only in part are named once per key, in every subcommand, and
// the library still reads what it always read: EOSTimeoutMs=3e2 behaves as EOSTimeoutMs=3.
TEST(Options, ParameterValuesReadOnlyInPartAreNamedOncePerKey) {
  const std::string sample = Sample("message_8000"), labels = Sample("message_8000", ".labels");
  const std::string vad = "\"EOSTimeoutMs=3e2;SpeechWindowFraction= 0.25x ;Foo=1;Foo=2;FullScaleSNR=24\"";
  const std::vector<std::string> commands = {
      "vad --params " + vad + " " + sample + " " + sample, "split -o /dev/null --params " + vad + " " + sample,
      "eval --params " + vad + " --labels " + labels + " " + sample, "plot -o /dev/null.svg --params " + vad + " " + sample};
  for (const std::string& command : commands) {
    const std::string err = Cli(command).err;
    for (const char* warning : {"warning: EOSTimeoutMs=3e2 is read as 3\n", "warning: SpeechWindowFraction=0.25x is read as 0.25\n",
                                "warning: the speech analyzer reads no key \"Foo\""}) {
      const size_t at = err.find(warning);
      EXPECT_NE(at, std::string::npos) << command << "\n" << err;
      EXPECT_EQ(err.find(warning, at + 1), std::string::npos) << command << "\n" << err;
    }
    EXPECT_EQ(err.find("FullScaleSNR"), std::string::npos) << err;
  }
  EXPECT_EQ(Cli("vad --params EOSTimeoutMs=3e2 " + sample).out, Cli("vad --params EOSTimeoutMs=3 " + sample).out);
  EXPECT_NE(Cli("vad --params EOSTimeoutMs=3 " + sample).out, Cli("vad --params EOSTimeoutMs=300 " + sample).out);
  const std::string agc = Cli("agc --params \"LeastGain=1e-2junk;RelativeGain=true\" " + sample).err;
  EXPECT_NE(agc.find("warning: LeastGain=1e-2junk is read as 1e-2\n"), std::string::npos) << agc;
  EXPECT_EQ(agc.find("RelativeGain"), std::string::npos) << agc;
}

}  // namespace
