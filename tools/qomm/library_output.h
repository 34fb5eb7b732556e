// Everything the media-input library says on its own: the hal layers'
// diagnostics on standard output and the framework's log lines. Both are
// kept away from qomm's own output (summaries, JSON lines) and remembered, so
// a failure can be explained in one line; -v shows them as they come.
#ifndef QO_TOOLS_QOMM_LIBRARY_OUTPUT_H_
#define QO_TOOLS_QOMM_LIBRARY_OUTPUT_H_

#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qomm {

class LibraryOutput {
 public:
  // verbosity 0: log lines go to standard error, diagnostics are only
  // remembered; above 0 both go to standard error as they come.
  static void Start(int verbosity);
  // Restores standard output and joins the reader thread.
  static void Finish();

  // qomm's own standard output.
  static FILE* Out();

  // Keeps log lines back while a source starts: they are shown when it
  // works (Release(true)) and replaced by qomm's one-line reason when it
  // does not (Release(false)). Verbose runs show them at once anyway.
  static void Hold();
  static void Release(bool show);

  // The message of the last GStreamer error the library reported ("" when
  // none), with its debug details when `with_debug`.
  static std::string LastGstError(bool with_debug = false);
  // Forgets what was seen so far (before a new source starts).
  static void Forget();

 private:
  LibraryOutput() = default;
  static LibraryOutput& Get();
  void ReadLoop(int fd);
  void OnLogLine(const std::string& line);

  std::mutex mutex_;
  int verbosity_ = 0;
  int saved_stdout_ = -1;
  FILE* out_ = nullptr;
  std::thread reader_;
  bool holding_ = false;
  std::vector<std::string> held_;
  // Tail of the diagnostics; lines there are not always ended by newlines.
  std::string tail_;
};

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_LIBRARY_OUTPUT_H_
