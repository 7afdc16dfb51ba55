#pragma once
// ktfront live: the speech analyzer, and with --agc the gain control, on a source of the
// audio server as it records, the gain control setting the source's volume.
#include <functional>

namespace CLI {
class App;
}

namespace ktcli {

// Declares the subcommand on app (see subcommand.h).
std::function<int()> DeclareLive(CLI::App& app);

}  // namespace ktcli
