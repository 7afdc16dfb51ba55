// ktfront live against a real PulseAudio daemon of its own: a pipe source fed from a FIFO
// in real time, whose volume the server applies to the samples.
#include <fcntl.h>
#include <pthread.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

std::string Shell(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  for (int c; (c = fgetc(pipe)) != EOF;) out += static_cast<char>(c);
  pclose(pipe);
  return out;
}

std::vector<short> ReadSample(const std::string& name, double scale = 1.0) {
  SF_INFO info{};
  SNDFILE* file = sf_open((std::string(KTFRONT_SAMPLES_DIR) + "/" + name + ".wav").c_str(), SFM_READ, &info);
  std::vector<short> samples(static_cast<size_t>(info.frames));
  sf_readf_short(file, samples.data(), info.frames);
  sf_close(file);
  for (short& s : samples) s = static_cast<short>(std::clamp(s * scale, -32768.0, 32767.0));
  return samples;
}

// A daemon in a directory of its own, with no system services, and a source "mic" that
// plays what is written into DIR/mic.fifo.
class Server {
 public:
  Server(int rateHz = 16000, int channels = 1) : _rateHz(rateHz), _channels(channels) {
    for (const char* sub : {"home", "run"}) fs::create_directories(_dir / sub);
    setenv("HOME", (_dir / "home").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (_dir / "run").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (_dir / "home").c_str(), 1);
    setenv("PULSE_RUNTIME_PATH", (_dir / "run/pulse").c_str(), 1);
    setenv("PULSE_STATE_PATH", (_dir / "state").c_str(), 1);
    setenv("PULSE_SERVER", ("unix:" + (_dir / "run/pulse/native").string()).c_str(), 1);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    _pid = fork();
    if (_pid == 0) {
      freopen((_dir / "daemon.log").c_str(), "w", stderr);
      // Root is warned against, not refused: the tests run as root in CI.
      execlp(KTFRONT_PULSEAUDIO, "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1",
             "-L", "module-native-protocol-unix", "-L", "module-null-sink", nullptr);
      _exit(127);
    }
    for (int i = 0; i < 100 && Shell("pactl info 2>/dev/null").empty(); ++i) usleep(50000);
    LoadSource();
  }
  ~Server() {
    Kill();
    fs::remove_all(_dir);
  }
  void LoadSource() {
    _module = Shell("pactl load-module module-pipe-source source_name=mic file=" + Fifo() + " format=s16le rate=" +
                  std::to_string(_rateHz) + " channels=" + std::to_string(_channels));
    EXPECT_FALSE(_module.empty()) << std::ifstream(_dir / "daemon.log").rdbuf();
  }
  void UnloadSource() { Shell("pactl unload-module " + _module); }
  void Kill() {
    if (_pid <= 0) return;
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
    _pid = 0;
  }
  void SetVolume(const std::string& percent) { Shell("pactl set-source-volume mic " + percent); }
  long Volume() {
    const std::string text = Shell("pactl get-source-volume mic");
    const size_t at = text.find(':', text.find(':') + 1);
    return at == std::string::npos ? -1 : std::stol(text.substr(at + 1));
  }
  std::string Fifo() const { return (_dir / "mic.fifo").string(); }
  std::string Dir() const { return _dir.string(); }

 private:
  fs::path _dir = fs::path(mkdtemp((fs::temp_directory_path() / "ktfront_live_XXXXXX").string().data()));
  int _rateHz;
  int _channels;
  pid_t _pid = 0;
  std::string _module;
};

// Plays samples into the server's FIFO at the source's pace, 20 ms at a time, from a thread.
class Player {
 public:
  Player(const Server& server, std::vector<short> samples, int rateHz, int channels)
      : _thread([this, fifo = server.Fifo(), samples = std::move(samples), rateHz, channels] {
          // A server killed mid-run leaves the FIFO without a reader: EPIPE, not a signal that ends the test.
          sigset_t pipe;
          sigemptyset(&pipe);
          sigaddset(&pipe, SIGPIPE);
          pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
          const int fd = open(fifo.c_str(), O_WRONLY);
          const size_t step = static_cast<size_t>(rateHz / 50 * channels);
          const Clock::time_point start = Clock::now();
          for (size_t at = 0; at < samples.size() && !_stop; at += step) {
            const size_t n = std::min(step, samples.size() - at);
            if (write(fd, samples.data() + at, n * sizeof(short)) < 0) break;
            std::this_thread::sleep_until(start + std::chrono::microseconds(1000000 * (at + n) / channels / rateHz));
          }
          close(fd);
          _done = true;
        }) {}
  ~Player() {
    _stop = true;
    if (_thread.joinable()) _thread.join();
  }
  bool Done() const { return _done; }
  void Wait() { _thread.join(); }

 private:
  std::atomic<bool> _stop{false};
  std::atomic<bool> _done{false};
  std::thread _thread;
};

// ktfront live running, its output lines gathered as they come.
class Live {
 public:
  explicit Live(const std::string& args, const std::string& errPath) {
    int out[2];
    EXPECT_EQ(pipe(out), 0);
    _pid = fork();
    if (_pid == 0) {
      dup2(out[1], 1), close(out[0]);
      execl("/bin/sh", "sh", "-c", (std::string("exec ") + KTFRONT_CLI + " live " + args + " 2>" + errPath).c_str(),
            nullptr);
      _exit(127);
    }
    close(out[1]);
    _reader = std::thread([this, fd = out[0]] {
      FILE* in = fdopen(fd, "r");
      char line[4096];
      while (fgets(line, sizeof line, in)) {
        std::lock_guard<std::mutex> lock(_mutex);
        _lines.push_back(line);
      }
      fclose(in);
    });
  }
  ~Live() {
    if (_pid > 0) Finish();
  }
  // Waits up to seconds for a line after line `after` containing text; returns its index or -1.
  int WaitFor(const std::string& text, double seconds, int after = -1) {
    const Clock::time_point until = Clock::now() + std::chrono::milliseconds(static_cast<int>(seconds * 1000));
    for (size_t seen = static_cast<size_t>(after + 1); Clock::now() < until;
         std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
      std::lock_guard<std::mutex> lock(_mutex);
      for (; seen < _lines.size(); ++seen) {
        if (_lines[seen].find(text) != std::string::npos) return static_cast<int>(seen);
      }
    }
    return -1;
  }
  void Signal(int signal) { kill(_pid, signal); }
  // Waits for the end; the exit status, -1 if killed by a signal.
  int Finish() {
    int status = 0;
    waitpid(_pid, &status, 0);
    _pid = 0;
    _reader.join();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _lines;
  }

 private:
  pid_t _pid = 0;
  std::thread _reader;
  std::mutex _mutex;
  std::vector<std::string> _lines;
};

std::string ReadFile(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// forecast_16000 speaks from 1.20 to 4.43 s and from 5.33 to 7.31 s.
TEST(Live, QuietSpeechRaisesTheVolumeAndSegmentsArriveWhileItPlays) {
  Server server;
  server.SetVolume("20%");
  const std::string err = server.Dir() + "/err";
  Live live("--source mic --agc --json", err);
  ASSERT_GE(live.WaitFor("\"stream\"", 5.0), 0) << ReadFile(err);
  {
    Player player(server, ReadSample("forecast_16000"), 16000, 1);
    const int first = live.WaitFor("\"segment\"", 7.0);
    ASSERT_GE(first, 0);
    EXPECT_FALSE(player.Done()) << "the first segment came only after the recording had played";
    // Ctrl-C in the middle of the second stretch of speech.
    ASSERT_GE(live.WaitFor("SpeechStart", 3.0, first), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    live.Signal(SIGINT);
    EXPECT_EQ(live.Finish(), 0);
  }
  std::vector<Json> segments, gains;
  Json record;
  for (const std::string& line : live.Lines()) {
    record = Json::parse(line);
    if (record.value("type", "") == "segment") segments.push_back(record);
    if (record.contains("gain")) gains.push_back(record);
  }
  ASSERT_EQ(segments.size(), 2u);
  EXPECT_NEAR(segments[0]["start"].get<double>(), 1.2, 0.3);
  EXPECT_NEAR(segments[0]["end"].get<double>(), 4.43, 0.3);
  EXPECT_FALSE(segments[0]["open"].get<bool>());
  EXPECT_NEAR(segments[1]["start"].get<double>(), 5.33, 0.3);
  EXPECT_TRUE(segments[1]["open"].get<bool>());
  EXPECT_TRUE(record["interrupted"].get<bool>());  // the last

  // The gains as the server's volumes: 65536 is 100 %, a new gain truncated onto that scale.
  ASSERT_GE(gains.size(), 3u);
  EXPECT_EQ(gains.front()["currentGain"].get<float>(), 13107.0f / 65536.0f);
  long volume = 13107;
  for (const Json& record : gains) {
    const float gain = record["gain"].get<float>();
    if (gain != record["currentGain"].get<float>()) volume = static_cast<long>(static_cast<double>(gain) * 65536.0);
    EXPECT_EQ(record["volume"].get<long>(), volume) << record;
    EXPECT_EQ(record["bound"].get<long>(), 65536);
  }
  EXPECT_GT(volume, 2 * 13107);
  EXPECT_EQ(server.Volume(), volume);  // left where the gain control put it: no --restore
}

TEST(Live, LoudSpeechLowersTheVolumeOfAStereoSourceAndRestorePutsItBack) {
  Server server(48000, 2);
  // Four times as loud, then three times the frames and both channels, for 48 kHz stereo.
  std::vector<short> stereo;
  for (const short s : ReadSample("forecast_16000", 4.0)) stereo.insert(stereo.end(), 6, s);
  const std::string err = server.Dir() + "/err";
  Live live("--source mic --agc --restore", err);
  for (int i = 0; i < 100 && ReadFile(err).empty(); ++i) usleep(20000);
  EXPECT_EQ(ReadFile(err), "ktfront: source \"mic\": 16000 Hz, resampled from 48000 Hz, 2 channels mixed to mono\n");
  long lowered = 65536;
  {
    Player player(server, stereo, 48000, 2);
    ASSERT_GE(live.WaitFor("/65536", 9.0), 0);
    player.Wait();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    lowered = server.Volume();
    live.Signal(SIGINT);
    EXPECT_EQ(live.Finish(), 0);
  }
  EXPECT_LT(lowered, 65536);
  EXPECT_EQ(server.Volume(), 65536);
  // Plain lines: the segments as vad prints them, and each change of volume as "TIME GAIN VOLUME/BOUND".
  std::vector<std::string> segments;
  std::vector<std::string> gains;
  for (const std::string& line : live.Lines()) (line.find("/65536") != std::string::npos ? gains : segments).push_back(line);
  ASSERT_FALSE(gains.empty());
  EXPECT_NE(gains.back().find(" " + std::to_string(lowered) + "/65536\n"), std::string::npos) << gains.back();
  // The first step down, from 100 %: the gain times 65536, truncated (0.7225 gives 47349.76).
  double time = 0.0, gain = 0.0;
  long volume = 0;
  ASSERT_EQ(std::sscanf(gains[0].c_str(), "%lf %lf %ld/65536", &time, &gain, &volume), 3) << gains[0];
  EXPECT_EQ(gain, 0.7225) << gains[0];
  EXPECT_EQ(volume, static_cast<long>(gain * 65536));
  ASSERT_EQ(segments.size(), 2u);
  double start = 0.0, end = 0.0;
  EXPECT_EQ(std::sscanf(segments[1].c_str(), "%lf %lf\n", &start, &end), 2);
  EXPECT_NEAR(start, 5.33, 0.3);
  EXPECT_NEAR(end, 7.31, 0.3);
}

TEST(Live, AServerOrSourceGoneEndsTheRunWithAnError) {
  Server server;
  const std::string err = server.Dir() + "/err";
  const std::vector<short> speech = ReadSample("forecast_16000");
  {
    Live live("--source mic", err);
    Player player(server, speech, 16000, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    server.UnloadSource();
    EXPECT_EQ(live.Finish(), 1);
    EXPECT_EQ(ReadFile(err).substr(ReadFile(err).find('\n') + 1),
              "ktfront: error: source \"mic\" was removed from the audio server\n");
    // The speech going on when the source went is kept, open.
    const auto lines = live.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" open"), std::string::npos);
  }
  server.LoadSource();
  Live unknown("--source nosuch", err);
  EXPECT_EQ(unknown.Finish(), 1);
  EXPECT_EQ(ReadFile(err), "ktfront: error: the audio server has no source \"nosuch\" (sources: null.monitor, mic)\n");
  {
    Live live("--source mic", err);
    Player player(server, speech, 16000, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    server.Kill();
    EXPECT_EQ(live.Finish(), 1);
    EXPECT_NE(ReadFile(err).find("ktfront: error: lost the audio server: "), std::string::npos) << ReadFile(err);
  }
  Live none("--source mic", err);
  EXPECT_EQ(none.Finish(), 1);
  EXPECT_EQ(ReadFile(err).rfind("ktfront: error: cannot connect to the audio server: ", 0), 0u) << ReadFile(err);
}

// Lines of a terminal that hold a segment, "start end"; end is the last one's.
long SegmentLines(const std::string& pane, double& end) {
  std::istringstream lines(pane);
  long count = 0;
  double start = 0.0;
  for (std::string line; std::getline(lines, line);) {
    count += line.find('/') == std::string::npos && std::sscanf(line.c_str(), "%lf %lf", &start, &end) == 2;
  }
  return count;
}

// The meter in a terminal: one line redrawn, the segment printed above it.
TEST(Live, MeterIsOneLineRedrawnUnderTheSegments) {
  Server server;
  server.SetVolume("50%");
  const std::string tmux = std::string(KTFRONT_TMUX) + " -S " + server.Dir() + "/tmux.sock ";
  Shell(tmux + "new-session -d -x 160 -y 40 '" + KTFRONT_CLI + " live --source mic --agc 2>/dev/null'");
  for (int i = 0; i < 100 && Shell(tmux + "capture-pane -p").find("waiting") == std::string::npos; ++i) usleep(20000);
  std::string pane;
  {
    Player player(server, ReadSample("forecast_16000"), 16000, 1);
    double end = 0.0;
    for (int i = 0; i < 150 && SegmentLines(pane, end) == 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      pane = Shell(tmux + "capture-pane -p");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // a redraw after the segment
    pane = Shell(tmux + "capture-pane -p");
  }
  Shell(tmux + "kill-server");
  // The meter as the last line, nothing printed over it; the segment above it.
  std::vector<std::string> lines;
  std::istringstream text(pane);
  for (std::string line; std::getline(text, line);) {
    if (!line.empty()) lines.push_back(line);
  }
  ASSERT_GE(lines.size(), 2u) << pane;
  const std::string meter = lines.back();
  double end = 0.0;
  EXPECT_EQ(SegmentLines(pane, end), 1) << pane;
  EXPECT_NEAR(end, 4.43, 0.3);
  // level -23.4 dBFS [#############       ] SNR  45.0 % OK       speech  gain 0.412 (volume 41 %)
  double level = 0.0, snr = 0.0, gain = 0.0;
  char info[16] = {}, state[16] = {};
  int percent = 0;
  const int fields = std::sscanf(meter.c_str(), "level %lf dBFS [%*[# ]] SNR %lf %% %15s %15s gain %lf (volume %d %%)",
                                 &level, &snr, info, state, &gain, &percent);
  EXPECT_EQ(fields, 6) << pane;
  EXPECT_TRUE(std::string(info) == "OK" || std::string(info) == "TooSoft") << meter;
  EXPECT_LT(level, 0.0);
  EXPECT_TRUE(std::string(state) == "speech" || std::string(state) == "pause") << meter;
  EXPECT_NEAR(percent, gain * 100, 1.0) << meter;
  EXPECT_EQ(pane.find("dBFS", pane.find("dBFS") + 1), std::string::npos) << "more than one meter line:" << pane;
}

}  // namespace
