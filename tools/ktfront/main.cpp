// ktfront: runs the speech analyzer and the gain control of libktfront over recordings.
#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <string>

#include "subcommand.h"
#include "ktfront/version.h"
#ifdef KTFRONT_HAVE_PULSE
#include "live.h"
#endif
#include "output.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// In the order --help lists them.
const std::pair<const char*, ktcli::Declare> kCommands[] = {
    {"vad", ktcli::DeclareVad},   {"split", ktcli::DeclareSplit}, {"agc", ktcli::DeclareAgc},
    {"plot", ktcli::DeclarePlot}, {"eval", ktcli::DeclareEval},   {"tune", ktcli::DeclareTune}};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"ktfront: speech activity detection and gain control over recordings", "ktfront"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "ktfront " KTFRONT_VERSION_STRING);
  std::map<std::string, ktcli::Runner> runners;
  std::string names;
  for (const auto& [name, declare] : kCommands) {
    runners[name] = declare(app);
    names += (names.empty() ? "" : ", ") + std::string(name);
  }
#ifdef KTFRONT_HAVE_PULSE
  runners["live"] = ktcli::DeclareLive(app);
  names += ", live";
#else
  app.footer("This ktfront was built without libpulse, so it has no live command.");
  if (argc > 1 && std::string(argv[1]) == "live") {
    std::cerr << "ktfront: error: this ktfront was built without libpulse, so it has no live command\n";
    return kExitUsage;
  }
#endif

  // CLI11 would take an unknown command for a stray argument; name it instead.
  const std::string first = argc > 1 ? argv[1] : "-";
  if (first[0] != '-' && !runners.count(first)) {
    std::cerr << "ktfront: error: unknown command \"" << first << "\" (commands: " << names
              << "; see ktfront --help)\n";
    return kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "ktfront: error: " << e.what() << " (see ktfront --help)\n";
    return kExitUsage;
  }

  try {
    return runners.at(app.get_subcommands().front()->get_name())();
  } catch (const ktcli::ClosedPipe&) {
    return kExitFailure;  // the reader has gone; nothing to tell it
  } catch (const ktcli::UsageError& e) {
    std::cerr << "ktfront: error: " << e.what() << "\n";
    return kExitUsage;
  } catch (const std::exception& e) {
    std::cerr << "ktfront: error: " << e.what() << "\n";
    return kExitFailure;
  }
}
