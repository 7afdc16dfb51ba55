#include "jobs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "subcommand.h"
#include "output.h"
#include "writers.h"

namespace ktcli {
namespace {

// Standard error shared by worker threads: each thread's text goes out a whole line at a
// time, so two files' messages never mix within a line.
class LineAtomicBuffer : public std::streambuf {
 protected:
  int overflow(int c) override {
    if (c == traits_type::eof()) return 0;
    const char ch = static_cast<char>(c);
    xsputn(&ch, 1);
    return c;
  }
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    std::string& pending = Pending();
    pending.append(text, static_cast<size_t>(count));
    const size_t end = pending.rfind('\n');
    if (end != std::string::npos) {
      std::lock_guard<std::mutex> lock(_mutex);
      for (size_t at = 0; at <= end;) {
        const ssize_t written = ::write(STDERR_FILENO, pending.data() + at, end + 1 - at);
        if (written <= 0 && errno != EINTR) break;
        if (written > 0) at += static_cast<size_t>(written);
      }
      pending.erase(0, end + 1);
    }
    return count;
  }

 private:
  static std::string& Pending() {
    thread_local std::string pending;
    return pending;
  }
  std::mutex _mutex;
};

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

}  // namespace

int DefaultJobs() {
  const unsigned cores = std::thread::hardware_concurrency();
  return cores == 0 ? 1 : static_cast<int>(cores);
}

std::vector<std::string> ExpandManifests(const std::vector<std::string>& arguments) {
  std::vector<std::string> files;
  for (const std::string& argument : arguments) {
    if (argument.size() < 2 || argument[0] != '@') {
      files.push_back(argument);
      continue;
    }
    const std::string path = argument.substr(1);
    std::ifstream stream(path);
    if (!stream) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    for (std::string line; std::getline(stream, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      const size_t first = line.find_first_not_of(" \t");
      if (first == std::string::npos || line[first] == '#') continue;
      line = line.substr(first, line.find_last_not_of(" \t") + 1 - first);
      files.push_back(line[0] == '/' || line == "-" ? line : DirectoryOf(path) + line);
    }
  }
  if (files.empty()) throw UsageError("no recordings given");
  // Standard input can be read once only: a second reader would find it consumed.
  if (std::count(files.begin(), files.end(), "-") > 1) throw UsageError("- (standard input) can be given once only");
  return files;
}

std::vector<std::string> ParallelFor(size_t count, int jobs, const std::function<void(size_t)>& task) {
  std::vector<std::string> errors(count);
  std::atomic<size_t> next{0};
  auto work = [&]() {
    for (size_t i = next++; i < count; i = next++) {
      try {
        task(i);
      } catch (const std::exception& e) {
        errors[i] = e.what();
        if (errors[i].empty()) errors[i] = "failed";
      }
    }
  };
  const size_t threads = std::min(count, static_cast<size_t>(jobs <= 0 ? DefaultJobs() : jobs));
  if (threads <= 1) {
    work();
    return errors;
  }
  std::vector<std::thread> pool;
  for (size_t t = 0; t < threads; ++t) pool.emplace_back(work);
  for (std::thread& thread : pool) thread.join();
  return errors;
}

int RunEach(const std::vector<std::string>& files, int jobs, const std::function<int(const std::string&)>& run,
            const Framing& framing) {
  if (files.size() == 1) return run(files[0]);
  LineAtomicBuffer errorLines;
  std::streambuf* const previous = std::cerr.rdbuf(&errorLines);
  std::vector<std::string> held(files.size());
  std::vector<char> done(files.size(), 0);
  std::vector<int> status(files.size(), 0);
  std::mutex mutex;
  std::condition_variable turn;
  size_t head = 0;  // the file whose output goes out as it comes
  bool closed = false;
  // Called with the lock held: writes what the head holds, and moves past finished files.
  auto advance = [&]() {
    for (;;) {
      try {
        if (!closed) WriteStandardOut(held[head]);
      } catch (const ClosedPipe&) {
        closed = true;
      }
      std::string().swap(held[head]);
      if (!done[head] || ++head == files.size()) break;
    }
    turn.notify_all();
  };
  auto take = [&](size_t i, const std::string& text) {
    std::unique_lock<std::mutex> lock(mutex);
    held[i] += text;
    if (i != head && held[i].size() > kHeldBytes) turn.wait(lock, [&] { return i == head || closed; });
    if (closed) throw ClosedPipe();
    if (i == head) advance();
  };
  const std::vector<std::string> errors = ParallelFor(files.size(), jobs, [&](size_t i) {
    CaptureOut([&, i](const std::string& text) { take(i, text); });
    std::string why;
    try {
      if (framing.header) WriteOut(framing.header(files[i]));
      status[i] = run(files[i]);
    } catch (const ClosedPipe&) {
    } catch (const UsageError& e) {
      why = e.what();
      status[i] = 2;
    } catch (const std::exception& e) {
      why = e.what();
      status[i] = 1;
    }
    CaptureOut(nullptr);
    std::lock_guard<std::mutex> lock(mutex);
    if (!why.empty()) {
      // Most messages name the file already.
      std::cerr << "ktfront: error: " << (why.find(files[i]) == std::string::npos ? files[i] + ": " : "") << why << "\n";
      if (framing.failure) held[i] += framing.failure(files[i], why);
    }
    done[i] = 1;
    if (i == head) advance();
  });
  std::cerr.rdbuf(previous);
  if (closed) throw ClosedPipe();
  int worst = 0;
  for (size_t i = 0; i < files.size(); ++i) worst = std::max(worst, errors[i].empty() ? status[i] : 1);
  return worst;
}

Framing PlainFraming() {
  return {[](const std::string& file) { return "==> " + file + " <==\n"; },
          [](const std::string&, const std::string& why) { return "error: " + why + "\n"; }};
}

Framing JsonFraming() { return {nullptr, JsonLinesWriter::Failure}; }

Framing RttmFraming() {
  return {nullptr, [](const std::string& file, const std::string& why) { return ";; error: " + file + ": " + why + "\n"; }};
}

void MakeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
  }
}

}  // namespace ktcli
