// qomm: the command-line host of the media-input library.
#include <glib.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cmath>
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

// The soft descriptor limit up to the hard one: a stream holds about 14
// descriptors, and Debian's default soft limit of 1024 stops at about 70
// cameras. qomm uses poll(), never select(), so a high limit is safe.
void RaiseDescriptorLimit() {
  rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur >= files.rlim_max) return;
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
}

// Warnings and up: the nodes' information lines would flood the terminal.
constexpr int kDefaultLogLevel = 3;
// Fatal messages stay on: they are how a node reports a failed start.
constexpr int kQuietLogLevel = 5;

constexpr char kListUsage[] =
    "usage: qomm list\n"
    "\n"
    "Lists the global functions and node classes the media-input library registers.\n";

int RunList(Args& args) {
  if (!args.words.empty()) throw UsageError("list takes no arguments");
  for (const auto& [title, names] :
       {std::make_pair("global functions", qo::Registry::ListNames()),
        std::make_pair("node classes", qo::NodeClassRegistry::ListNames())}) {
    printf("%s (%zu):\n", title, names.size());
    for (const std::string& name : names) printf("  %s\n", name.c_str());
  }
  return 0;
}

struct Command {
  const char* name;
  int (*run)(Args&);
  const char* usage;
  const char* options;  // "name=" takes a value
};

constexpr Command kDemo = {"", RunDemo, kDemoUsage, ""};
constexpr Command kCommands[] = {
    {"play", [](Args& args) { return Play(args); }, kPlayUsage,
     "type= tcp udp loop= start-index= stop-index= framerate= timeout= width= height= "
     "packet-size= stream-id= sync record frames= duration= json snapshot= list="},
    {"probe", RunProbe, kProbeUsage, ""},
    {"serve", RunServe, kServeUsage, "port= fps="},
    {"list", RunList, kListUsage, ""},
    {"ingest", RunIngest, kIngestUsage, "metrics= seconds= tcp"}};

// Every option GOption meets lands in the Args.
gboolean TakeOption(const gchar* name, const gchar* value, gpointer args_pointer, GError**) {
  Args* args = static_cast<Args*>(args_pointer);
  const std::string option = name;
  if (option == "-v" || option == "--verbose") {
    args->verbosity++;
  } else {
    args->options[option == "-q"   ? "--quiet"
                  : option == "-h" ? "--help"
                                   : option] = value != nullptr ? value : "";
  }
  return TRUE;
}

// Reads -v, -q and --help and the command's options wherever they stand.
Args ReadCommandLine(const std::vector<std::string>& words, const Command& command) {
  Args args;
  std::vector<GOptionEntry> entries;
  auto add = [&entries](const char* name, char short_name, bool takes_value) {
    entries.push_back({name, short_name, takes_value ? 0 : G_OPTION_FLAG_NO_ARG,
                       G_OPTION_ARG_CALLBACK, reinterpret_cast<gpointer>(TakeOption), nullptr,
                       nullptr});
  };
  add("verbose", 'v', false);
  add("quiet", 'q', false);
  add("help", 'h', false);
  g_auto(GStrv) names = g_strsplit(command.options, " ", -1);
  for (gchar** name = names; *name != nullptr && **name != '\0'; ++name) {
    gchar* eq = std::strchr(*name, '=');
    if (eq != nullptr) *eq = '\0';
    add(*name, 0, eq != nullptr);
  }
  entries.push_back(GOptionEntry{});
  g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
  g_option_context_set_help_enabled(context, FALSE);
  GOptionGroup* group = g_option_group_new("qomm", "", "", &args, nullptr);
  g_option_group_add_entries(group, entries.data());
  g_option_context_set_main_group(context, group);
  // GOption takes the options out of argv; the strings stay the words'.
  std::vector<char*> argv = {const_cast<char*>("qomm")};
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  int argc = static_cast<int>(argv.size());
  char** rest = argv.data();
  g_autoptr(GError) error = nullptr;
  if (!g_option_context_parse(context, &argc, &rest, &error)) throw UsageError(error->message);
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(rest[i], "--") != 0) args.words.push_back(rest[i]);
  }
  return args;
}

}  // namespace

std::optional<int> Args::Int(const std::string& name, int64_t low, int64_t high) const {
  if (!Has(name)) return std::nullopt;
  gint64 value = 0;
  g_autoptr(GError) error = nullptr;
  if (!g_ascii_string_to_signed(options.at(name).c_str(), 10, low, high, &value, &error)) {
    throw UsageError(name + ": " + error->message);
  }
  return static_cast<int>(value);
}

std::optional<double> Args::Double(const std::string& name, double low, double high) const {
  if (!Has(name)) return std::nullopt;
  const std::string& text = options.at(name);
  char* end = nullptr;
  const double value = g_ascii_strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(value) || value < low || value > high) {
    char range[64];
    snprintf(range, sizeof(range), "%g to %g", low, high);
    throw UsageError(name + " takes a number from " + range + ", not \"" + text + "\"");
  }
  return value;
}

bool StopRequested() { return g_stop_requested.load(std::memory_order_relaxed); }

int Main(int argc, char** argv) {
  RaiseDescriptorLimit();
  const Command* command = &kDemo;
  int status = 0;
  try {
    // The command is the first word that is no option; "qomm help [COMMAND]"
    // is "qomm [COMMAND] --help".
    std::vector<std::string> words(argv + 1, argv + argc);
    auto is_word = [](const std::string& w) { return w.empty() || w[0] != '-'; };
    auto first = std::find_if(words.begin(), words.end(), is_word);
    const bool help = first != words.end() && *first == "help";
    if (help) first = std::find_if(words.erase(first), words.end(), is_word);
    for (const Command& c : kCommands) {
      if (first != words.end() && *first == c.name) command = &c;
    }
    if (command != &kDemo) words.erase(first);
    Args args = ReadCommandLine(words, *command);
    if (args.Has("--quiet") && args.verbosity > 0) {
      throw UsageError("-q and -v contradict each other");
    }
    qo::g_log_level =
        args.Has("--quiet") ? kQuietLogLevel : std::max(0, kDefaultLogLevel - args.verbosity);
    StartLibraryOutput(args.verbosity);
    InstallStopSignal();
    if (help || args.Has("--help")) {
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
  ReleaseLibraryOutput(true);
  return status;
}

}  // namespace qomm

int main(int argc, char** argv) { return qomm::Main(argc, argv); }
