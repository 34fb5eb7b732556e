// qomm: the command-line host of the media-input library.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "core/qo_logging.h"
#include "core/qo_registry.h"
#include "qomm.h"

namespace qomm {

namespace {
std::atomic<bool> g_stop_requested{false};
void OnStopSignal(int) { g_stop_requested.store(true, std::memory_order_relaxed); }
}  // namespace

void InstallStopSignal() {
  struct sigaction sa;
  std::memset(&sa, 0, sizeof(sa));
  sa.sa_handler = OnStopSignal;
  sigemptyset(&sa.sa_mask);
  // The handler is one-shot: the next signal takes its default action.
  sa.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

bool StopRequested() { return g_stop_requested.load(std::memory_order_relaxed); }

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

constexpr char kListUsage[] =
    "usage: qomm list\n"
    "\n"
    "Lists the global functions and node classes the media-input library registers.\n";

int RunList(ArgReader& args) {
  if (!args.done()) throw UsageError("list takes no arguments");
  for (const auto& [title, names] :
       {std::make_pair("global functions", qo::Registry::ListNames()),
        std::make_pair("node classes", qo::NodeClassRegistry::ListNames())}) {
    printf("%s (%zu):\n", title, names.size());
    for (const std::string& name : names) printf("  %s\n", name.c_str());
  }
  return 0;
}

int RunPlay(ArgReader& args) { return PlaySession(ParsePlayOptions(args)).Run(); }

// ingest_command.cc
extern const char kIngestUsage[];
int RunIngest(ArgReader& args);
void RaiseDescriptorLimit();

struct Command {
  const char* name;
  int (*run)(ArgReader&);
  const char* usage;
};

constexpr Command kDemo = {"", RunDemo, kDemoUsage};
constexpr Command kCommands[] = {{"play", RunPlay, kPlayUsage},
                                 {"probe", RunProbe, kProbeUsage},
                                 {"serve", RunServe, kServeUsage},
                                 {"list", RunList, kListUsage},
                                 {"ingest", RunIngest, kIngestUsage}};

const Command* FindCommand(const std::string& name) {
  for (const Command& c : kCommands) {
    if (name == c.name) return &c;
  }
  return nullptr;
}

int Main(int argc, char** argv) {
  RaiseDescriptorLimit();
  const Command* command = &kDemo;
  int status = 0;
  try {
    GlobalOptions global;
    std::vector<std::string> rest = TakeGlobalOptions({argv + 1, argv + argc}, &global);
    // "qomm help [COMMAND]" is "qomm [COMMAND] --help".
    bool help = !rest.empty() && rest[0] == "help";
    if (help) rest.erase(rest.begin());
    if (const Command* named = rest.empty() ? nullptr : FindCommand(rest[0])) {
      command = named;
      rest.erase(rest.begin());
    }
    for (const std::string& w : rest) help = help || w == "--help" || w == "-h";

    qo::g_log_level =
        global.quiet ? kQuietLogLevel : std::max(0, kDefaultLogLevel - global.verbosity);
    LibraryOutput::Start(global.verbosity);
    InstallStopSignal();
    ArgReader args(rest);
    if (help) {
      fputs(command->usage, stdout);
    } else {
      status = command->run(args);
    }
  } catch (const UsageError& e) {
    fprintf(stderr, "qomm: %s\nRun \"qomm %s%s--help\" for usage.\n", e.what(), command->name,
            *command->name != '\0' ? " " : "");
    status = 2;
  } catch (const qo::Error& e) {
    status = Fail(ErrorMessage(e.what()));
  } catch (const std::exception& e) {
    status = Fail(e.what());  // whatever else a node lets escape still ends in one line
  }
  LibraryOutput::Release(true);
  return status;
}

}  // namespace qomm

int main(int argc, char** argv) { return qomm::Main(argc, argv); }
