#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace ktcli {
namespace {

volatile std::sig_atomic_t gInterrupted = 0;
int gNullFd = -1;
thread_local std::function<void(const std::string&)> tCapture;

// Standard input becomes /dev/null: a read blocked on a live pipe ends as at its end.
void OnInterrupt(int) {
  gInterrupted = 1;
  if (gNullFd >= 0) dup2(gNullFd, STDIN_FILENO);
}

}  // namespace

void CaptureOut(std::function<void(const std::string&)> take) { tCapture = std::move(take); }

void WriteOut(const std::string& text) {
  if (tCapture) {
    tCapture(text);
    return;
  }
  WriteStandardOut(text);
}

void WriteStandardOut(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    if (errno == EPIPE) throw ClosedPipe();
    throw std::runtime_error(std::string("cannot write standard output: ") + std::strerror(errno));
  }
}

void InstallSignalHandlers() {
  if (gNullFd < 0) gNullFd = open("/dev/null", O_RDONLY | O_CLOEXEC);  // once, however many files
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESETHAND;  // no SA_RESTART: a blocked read returns
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

bool Interrupted() { return gInterrupted != 0; }

}  // namespace ktcli
