#pragma once
// Standard output written line by line and flushed at once, and the interruption that
// SIGINT or SIGTERM asks for.
#include <functional>
#include <stdexcept>
#include <string>

namespace ktcli {

// The reader of standard output has gone: the run ends without a word.
class ClosedPipe : public std::runtime_error {
 public:
  ClosedPipe() : std::runtime_error("standard output closed") {}
};

// Writes text and flushes it; throws ClosedPipe, or std::runtime_error for another failure.
void WriteOut(const std::string& text);
// WriteOut to standard output itself, whatever CaptureOut says.
void WriteStandardOut(const std::string& text);
// From here on this thread's WriteOut hands its text to take instead (empty: standard output).
void CaptureOut(std::function<void(const std::string&)> take);

// From here on SIGINT and SIGTERM end the input instead of the process (a second one
// ends the process), and a closed output pipe is an error instead of a signal.
void InstallSignalHandlers();
bool Interrupted();

}  // namespace ktcli
