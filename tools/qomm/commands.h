// The commands of qomm. Each reads its own options (throwing UsageError) and
// returns the exit status.
#ifndef QO_TOOLS_QOMM_COMMANDS_H_
#define QO_TOOLS_QOMM_COMMANDS_H_

#include "arg_reader.h"

namespace qomm {

// Ctrl-C and SIGTERM end a run cleanly; a second Ctrl-C ends it at once.
class StopSignal {
 public:
  static void Install();
  static bool Requested();
};

int RunDemo(ArgReader& args);
int RunPlay(ArgReader& args);
int RunProbe(ArgReader& args);
int RunServe(ArgReader& args);
int RunList(ArgReader& args);

const char* DemoUsage();
const char* ProbeUsage();
const char* ServeUsage();
const char* ListUsage();

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_COMMANDS_H_
