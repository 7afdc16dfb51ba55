#pragma once
// Many recordings at once: @manifests, a work queue over threads, and each file's output
// kept together and in the given order.
#include <functional>
#include <string>
#include <vector>

namespace ktcli {

// The number of cores; jobs <= 0 means this.
int DefaultJobs();

// Replaces every "@list.txt" by the paths it lists, one a line (blank lines and "#"
// comments skipped; relative paths are taken from the list's own directory). Refuses "-"
// more than once.
std::vector<std::string> ExpandManifests(const std::vector<std::string>& arguments);

// Runs task(i) for every i below count on up to jobs threads, in index order as workers
// free up. An exception ends only its own index; its message is returned there.
std::vector<std::string> ParallelFor(size_t count, int jobs, const std::function<void(size_t)>& task);

// How the output of several files names them: text before a file's output, and in its
// place the line of a file that failed.
struct Framing {
  std::function<std::string(const std::string& file)> header;
  std::function<std::string(const std::string& file, const std::string& why)> failure;
};

// The framings of the tool's formats: plain lines under a "==> FILE <==" header, with an
// "error: WHY" line for a failure; JSON Lines, whose records name their file, with an error
// record; RTTM, whose lines name their recording, with a ";; error: FILE: WHY" comment.
Framing PlainFraming();
Framing JsonFraming();
Framing RttmFraming();

// Runs one file after another, or several at once, the output in the order of the files:
// the earliest unfinished file writes through, the others hold up to kHeldBytes each and
// then wait for their turn, so memory stays bounded whatever the lengths and jobs. A
// failing file is reported on standard error ("ktfront: error: FILE: why") and by
// framing.failure in the output, without stopping the others. Returns 1 if any failed.
// A single file runs as it always did, failures reaching the caller.
constexpr size_t kHeldBytes = 256 * 1024;
int RunEach(const std::vector<std::string>& files, int jobs, const std::function<int(const std::string&)>& run,
            const Framing& framing = {});

// Creates the directory unless it exists; throws std::runtime_error.
void MakeDirectory(const std::string& path);

}  // namespace ktcli
