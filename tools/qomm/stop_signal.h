// Ctrl-C and SIGTERM end a run cleanly; a second Ctrl-C ends it at once.
#ifndef QO_TOOLS_QOMM_STOP_SIGNAL_H_
#define QO_TOOLS_QOMM_STOP_SIGNAL_H_

namespace qomm {

class StopSignal {
 public:
  static void Install();
  static bool Requested();
};

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_STOP_SIGNAL_H_
