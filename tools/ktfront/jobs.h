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

// Runs one file after another, or several at once: each file's standard output is held
// until the files before it are printed, and a failing file is reported on standard error
// ("ktfront: error: FILE: why") without stopping the others. Returns 1 if any failed.
// A single file runs as it always did, failures reaching the caller.
int RunEach(const std::vector<std::string>& files, int jobs, const std::function<int(const std::string&)>& run);

// Creates the directory unless it exists; throws std::runtime_error.
void MakeDirectory(const std::string& path);

}  // namespace ktcli
