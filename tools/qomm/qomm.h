// qomm, the command-line host of the media-input library: what its commands
// share.
#ifndef QO_TOOLS_QOMM_QOMM_H_
#define QO_TOOLS_QOMM_QOMM_H_

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/qo_c_type.h"
#include "core/qo_host.h"
#include "node/qo_media_facts.h"

namespace qo::tools {
class RtspServer;
}

namespace qomm {

// Bad usage: qomm prints the message and exits with status 2.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& what) : std::runtime_error(what) {}
};

// One command's command line as GOption read it (main.cc): the words that
// are no options, and each option given ("--json") with its last value (""
// for one that takes none).
struct Args {
  std::vector<std::string> words;
  std::map<std::string, std::string> options;
  int verbosity = 0;  // -v, repeatable

  bool Has(const std::string& name) const { return options.count(name) != 0; }
  // The option's value, checked against its range; throws UsageError.
  std::optional<int> Int(const std::string& name, int64_t low, int64_t high) const;
  std::optional<double> Double(const std::string& name, double low, double high) const;
};

// The commands of qomm and their --help texts. Each reads its own options
// (throwing UsageError) and returns the exit status.
int RunDemo(Args& args);
int RunIngest(Args& args);
int RunProbe(Args& args);
int RunServe(Args& args);
extern const char kDemoUsage[], kIngestUsage[], kPlayUsage[], kProbeUsage[], kServeUsage[];

// Ctrl-C and SIGTERM end a run cleanly; a second Ctrl-C ends it at once.
bool StopRequested();

// Prints "qomm: <message>" (passwords masked) on standard error; returns 1,
// the exit status of a failed run.
int Fail(const std::string& message);

// Everything the media-input library says on its own, the two layers'
// diagnostics and the framework's log lines, is taken through their sinks
// and kept away from qomm's own output (summaries, JSON lines). With
// verbosity 0 the log lines go to standard error and the diagnostics
// nowhere; above 0 both go to standard error as they come.
void StartLibraryOutput(int verbosity);
// Keeps log lines back while a source starts: they are shown when it works
// (Release(true)) and replaced by qomm's one-line reason when it does not
// (Release(false)). Verbose runs show them at once anyway.
void HoldLibraryOutput();
void ReleaseLibraryOutput(bool show);

// The text with the password of every "scheme://user:password@" replaced by
// "***", for everything qomm prints.
std::string MaskPasswords(std::string text);

// The message of a framework error without its location, stack trace and
// trailing marks: "Stream Open failed".
std::string ErrorMessage(const std::string& what);

// Opens the node; "" when it runs, else why not: a video input node's
// reason (its last.error), or the error's message.
std::string Open(qo::HostNode* node);
// The video input node's reason for delivering no frames, as its
// last.error.code (-1 without a stream) and last.error.
int LastError(const qo::HostNode& node, std::string* text);

// "rtsp" for "rtsp://...", "" for a path.
std::string Scheme(const std::string& source);

// The stream type of an rtsp:// or v4l2:// source as the video input node
// probes it, or QO_PIX_FMT_NONE with the stream's reason in *why.
int ProbeStreamType(const std::string& uri, std::optional<int> transport, std::string* why);

// Stream types (the nodes' "stream-type" codes) on the command line: the
// facts table's name, "jpeg", the number itself for other codes, or
// "unknown" for QO_PIX_FMT_NONE.
std::string TypeName(int type);
// Parses a --type value: a name TypeName gives, "hevc"/"jpeg", or a number.
bool ParseType(const std::string& text, int* type);

// H.264, H.265 or MJPEG from the first bytes of the file (GStreamer's type
// finders), else QO_PIX_FMT_NONE; *error says why on a read error.
int TypeFromContent(const std::string& path, std::string* error);
// The same, from the file name's extension first.
int DetectFileType(const std::string& path, std::string* error);

// Why a local file or device cannot be read, "" when it can.
std::string CheckReadable(const std::string& path);

// Serves the files (H.264, H.265 or MJPEG, told as DetectFileType does) on
// 127.0.0.1:port (0: a free port), each replayed at fps and looped at
// /<file name>. Throws std::runtime_error when one cannot be served.
std::unique_ptr<qo::tools::RtspServer> ServeFiles(const std::vector<std::string>& files, int port,
                                                  int fps);

// Plays a source through its node as "qomm play" does, under the title
// given (default "play SOURCE"); the exit status.
int Play(const Args& args, const std::string& title = "");

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_QOMM_H_
