// Everything the media-input library says on its own: the two layers'
// diagnostics and the framework's log lines, taken through their sinks. They
// are kept away from qomm's own output (summaries, JSON lines); -v shows them.
#ifndef QO_TOOLS_QOMM_LIBRARY_OUTPUT_H_
#define QO_TOOLS_QOMM_LIBRARY_OUTPUT_H_

#include <string>

namespace qomm {

class LibraryOutput {
 public:
  // verbosity 0: log lines go to standard error, the layers' diagnostics
  // nowhere; above 0 both go to standard error as they come.
  static void Start(int verbosity);

  // Keeps log lines back while a source starts: they are shown when it
  // works (Release(true)) and replaced by qomm's one-line reason when it
  // does not (Release(false)). Verbose runs show them at once anyway.
  static void Hold();
  static void Release(bool show);
};

// The text with the password of every "scheme://user:password@" replaced by
// "***", for everything qomm prints.
std::string MaskPasswords(std::string text);

// The message of a framework error without its location, stack trace and
// trailing marks: "Stream Open failed".
std::string ErrorMessage(const std::string& what);

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_LIBRARY_OUTPUT_H_
