// qomm: the command-line host of the media-input library.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "arg_reader.h"
#include "commands.h"
#include "core/qo_logging.h"
#include "core/qo_registry.h"
#include "library_output.h"
#include "play_session.h"
#include "stop_signal.h"

namespace qomm {

namespace {

// Warnings and up: the nodes' information lines would flood the terminal.
constexpr int kDefaultLogLevel = 3;
// Fatal messages stay on: they are how a node reports a failed start.
constexpr int kQuietLogLevel = 5;

struct GlobalOptions {
  int verbosity = 0;
  bool quiet = false;
};

// Takes -v and -q out of the words, wherever they stand.
std::vector<std::string> TakeGlobalOptions(std::vector<std::string> words, GlobalOptions* g) {
  std::vector<std::string> rest;
  for (const std::string& w : words) {
    if (w.size() >= 2 && w[0] == '-' && w.find_first_not_of('v', 1) == std::string::npos) {
      g->verbosity += static_cast<int>(w.size() - 1);
    } else if (w == "--verbose") {
      g->verbosity++;
    } else if (w == "-q" || w == "--quiet") {
      g->quiet = true;
    } else {
      rest.push_back(w);
    }
  }
  if (g->quiet && g->verbosity > 0) throw UsageError("-q and -v contradict each other");
  return rest;
}

}  // namespace

const char* ListUsage() {
  return "usage: qomm list\n"
         "\n"
         "Lists the global functions and node classes the media-input library registers.\n";
}

int RunList(ArgReader& args) {
  if (!args.done()) throw UsageError("list takes no arguments");
  FILE* out = stdout;
  std::vector<std::string> functions = qo::Registry::ListNames();
  fprintf(out, "global functions (%zu):\n", functions.size());
  for (const std::string& name : functions) fprintf(out, "  %s\n", name.c_str());
  std::vector<std::string> classes = qo::NodeClassRegistry::ListNames();
  fprintf(out, "node classes (%zu):\n", classes.size());
  for (const std::string& name : classes) fprintf(out, "  %s\n", name.c_str());
  return 0;
}

int RunPlay(ArgReader& args) {
  PlayOptions options = ParsePlayOptions(args);
  return PlaySession(options).Run();
}

int Main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  GlobalOptions global;
  std::string command;
  std::vector<std::string> rest;
  try {
    rest = TakeGlobalOptions(words, &global);
  } catch (const UsageError& e) {
    fprintf(stderr, "qomm: %s\nRun \"qomm --help\" for usage.\n", e.what());
    return 2;
  }
  if (!rest.empty() && (rest[0] == "play" || rest[0] == "probe" || rest[0] == "serve" ||
                        rest[0] == "list" || rest[0] == "help")) {
    command = rest[0];
    rest.erase(rest.begin());
  }

  qo::g_log_level =
      global.quiet ? kQuietLogLevel : std::max(0, kDefaultLogLevel - global.verbosity);
  LibraryOutput::Start(global.verbosity);
  StopSignal::Install();

  const char* usage = command == "play"    ? PlayUsage()
                      : command == "probe" ? ProbeUsage()
                      : command == "serve" ? ServeUsage()
                      : command == "list"  ? ListUsage()
                                           : DemoUsage();
  bool help = command == "help";
  for (const std::string& w : rest) help = help || w == "--help" || w == "-h";
  if (command == "help" && !rest.empty()) {
    const std::string& topic = rest[0];
    usage = topic == "play"    ? PlayUsage()
            : topic == "probe" ? ProbeUsage()
            : topic == "serve" ? ServeUsage()
            : topic == "list"  ? ListUsage()
                               : DemoUsage();
  }

  int status = 0;
  try {
    ArgReader args(rest);
    if (help) {
      fputs(usage, stdout);
    } else if (command == "serve") {
      // Serving needs GStreamer only, not the media-input library.
      status = RunServe(args);
    } else if (command == "play") {
      status = RunPlay(args);
    } else if (command == "probe") {
      status = RunProbe(args);
    } else if (command == "list") {
      status = RunList(args);
    } else {
      status = RunDemo(args);
    }
  } catch (const UsageError& e) {
    fprintf(stderr, "qomm: %s\nRun \"qomm %s--help\" for usage.\n", e.what(),
            command.empty() || command == "help" ? "" : (command + " ").c_str());
    status = 2;
  } catch (const qo::Error& e) {
    fprintf(stderr, "qomm: %s\n", ErrorMessage(e.what()).c_str());
    status = 1;
  } catch (const std::exception& e) {
    // Whatever else a node lets escape still ends in one line.
    fprintf(stderr, "qomm: %s\n", MaskPasswords(e.what()).c_str());
    status = 1;
  }
  LibraryOutput::Release(true);
  return status;
}

}  // namespace qomm

int main(int argc, char** argv) { return qomm::Main(argc, argv); }
