// qomm, the command-line host of the media-input library: its parts.
#ifndef QO_TOOLS_QOMM_QOMM_H_
#define QO_TOOLS_QOMM_QOMM_H_

#include <gst/gst.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/qo_c_type.h"
#include "core/qo_host.h"
#include "core/qo_ndarray.h"
#include "node/qo_media_facts.h"
#include "node/qo_video_in_node.h"

namespace qo::tools {
class RtspServer;
}

namespace qomm {

// Bad usage: qomm prints the message and exits with status 2.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& what) : std::runtime_error(what) {}
};

// Command-line words, read one after another.
class ArgReader {
 public:
  explicit ArgReader(std::vector<std::string> args);

  bool done() const { return next_ >= args_.size(); }
  // The next word; "--name=value" comes as "--name" with a pending value.
  std::string Next();
  // The value of option `name`: the pending "=value" or the next word.
  std::string Value(const std::string& name);
  int IntValue(const std::string& name, long low, long high) {
    return static_cast<int>(Number(name, low, high, true));
  }
  double DoubleValue(const std::string& name, double low, double high) {
    return Number(name, low, high, false);
  }
  // Throws when an "=value" was given to an option that takes none.
  void NoValue(const std::string& name);

 private:
  double Number(const std::string& name, double low, double high, bool whole);
  std::vector<std::string> args_;
  size_t next_ = 0;
  bool has_pending_ = false;
  std::string pending_;
};

// Ctrl-C and SIGTERM end a run cleanly; a second Ctrl-C ends it at once.
void InstallStopSignal();
bool StopRequested();

// The commands of qomm and their --help texts. Each reads its own options
// (throwing UsageError) and returns the exit status.
int RunDemo(ArgReader& args);
int RunProbe(ArgReader& args);
int RunServe(ArgReader& args);
extern const char kDemoUsage[], kPlayUsage[], kProbeUsage[], kServeUsage[];

// Prints "qomm: <message>" (passwords masked) on standard error; returns 1,
// the exit status of a failed run.
int Fail(const std::string& message);

// Everything the media-input library says on its own: the two layers'
// diagnostics and the framework's log lines, taken through their sinks. They
// are kept away from qomm's own output (summaries, JSON lines); -v shows them.
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
// /<file name>. Null with the reason in *error when one cannot be served.
std::unique_ptr<qo::tools::RtspServer> ServeFiles(const std::vector<std::string>& files, int port,
                                                  int fps, std::string* error);

// What one task (or sync pull) carried.
struct FrameInfo {
  int status = 0;  // 0 frame, 1 end of stream, 2 time-out
  int source_id = 0;
  int format = 0;
  int kind = 0;  // 2 raw picture, 3 encoded
  int width = 0;
  int height = 0;
  size_t bytes = 0;
  uint64_t pts = 0;
  const uint8_t* data = nullptr;
  qo::NDArray array;  // keeps data alive
};

// How many milliseconds ago ts was, when it reads as Unix-epoch nanoseconds
// within a day of now: RTSP frames carry such times once the sender's RTCP
// reports arrived.
std::optional<double> WallClockAgeMs(uint64_t ts);

// Counts what a source delivered, shows it while it plays (one updating line
// on a terminal, a line every few seconds otherwise) and sums it up.
class PlayReport {
 public:
  enum class Progress { kNone, kLine, kPeriodic };

  PlayReport(std::string title, Progress progress);

  // Call when the source has been opened.
  void Begin();
  void Add(const FrameInfo& frame);
  // Shows progress when it is time to.
  void Tick();
  // Ends the progress display; `end` says why playing ended.
  void End(const std::string& end);

  void PrintSummary(FILE* out) const;

  int frames() const { return frames_; }
  double SecondsSinceBegin() const;

 private:
  using Clock = std::chrono::steady_clock;
  std::string ProgressText(double fps, double mbps) const;

  std::string title_;
  Progress progress_;
  std::string end_;
  Clock::time_point begin_;
  Clock::time_point first_arrival_;
  Clock::time_point last_arrival_;
  Clock::time_point last_shown_;
  int shown_frames_ = 0;
  uint64_t shown_bytes_ = 0;
  bool line_open_ = false;

  int frames_ = 0;
  uint64_t bytes_ = 0;
  int format_ = -1;
  int kind_ = 0;
  int width_ = 0;
  int height_ = 0;
  uint64_t first_pts_ = 0;
  uint64_t last_pts_ = 0;
  std::optional<double> last_age_ms_;
};

// Decodes the first picture of a source with GStreamer's decoders and writes
// it as a PNG file, so a user can see what the camera sees.
class Snapshot {
 public:
  explicit Snapshot(std::string path);
  ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  // Feeds one frame (from the first one on, until a picture comes out).
  // True once the PNG file has been written.
  bool Feed(const FrameInfo& frame);
  // No more frames: drains the decoder. True when the file was written.
  bool Finish();

  bool done() const { return done_; }
  // Why there is no picture (after a false Finish).
  const std::string& error() const { return error_; }
  int width() const { return width_; }
  int height() const { return height_; }

 private:
  bool Build(const FrameInfo& frame);
  bool TakePicture(GstClockTime wait);
  void Fail(const std::string& why);
  void Teardown();

  std::string path_;
  GstElement* pipeline_ = nullptr;
  GstElement* src_ = nullptr;
  GstElement* sink_ = nullptr;
  int fed_ = 0;
  bool done_ = false;
  bool failed_ = false;
  int width_ = 0;
  int height_ = 0;
  std::string error_;
};

// The source nodes, by their registered function prefixes.
constexpr char kFileNode[] = "qo.mm.file.in";
constexpr char kVideoNode[] = "qo.mm.video.in";

struct PlayOptions {
  std::string source;
  bool list = false;  // source is a list file
  std::optional<int> type;
  std::optional<int> transport;  // "lower-trans-type"
  std::optional<int> loop;
  std::optional<int> start_index;
  std::optional<int> stop_index;
  std::optional<double> framerate;
  std::optional<int> timeout;
  bool sync = false;
  bool record = false;
  std::optional<int> width;
  std::optional<int> height;
  std::optional<int> packet_size;
  std::optional<int> stream_id;
  long frames = -1;      // stop after this many frames
  double duration = -1;  // stop after this many seconds
  bool json = false;
  std::string snapshot;
  // Set by hosts that show their own title (the demo).
  std::string title;
  bool quiet = false;  // no progress display
};

// The stream type of an rtsp:// or v4l2:// source as the video input node
// probes it, or QO_PIX_FMT_NONE with the stream's reason in *why.
int ProbeStreamType(const std::string& uri, std::optional<int> transport, std::string* why);

// Reads the options of "qomm play"; throws UsageError.
PlayOptions ParsePlayOptions(ArgReader& args);

// One run of a source through its node: checks the source, picks the node
// and the stream type, sets the parameters, consumes the tasks (progress,
// JSON lines, snapshot) and reports.
class PlaySession {
 public:
  explicit PlaySession(PlayOptions options);
  // Exit status: 0 clean end, 1 the source failed.
  int Run();

 private:
  // Fills node_kind_, type_ and the URI/path; "" or the reason it cannot.
  std::string Prepare();
  void Configure(qo::HostNode* player) const;
  // Waits up to a slice for the next task or sync pull; false when none came.
  bool Next(qo::HostNode* node, FrameInfo* info);
  int Timeout() const { return options_.timeout.value_or(qo::mm::kDefaultPullTimeoutSeconds); }

  static constexpr int kRetries = qo::mm::VideoInput::kRetryBudget;
  PlayOptions options_;
  const char* node_ = nullptr;  // kFileNode or kVideoNode
  int empty_pulls_ = 0;         // sync mode: time-outs in a row
  int type_ = -1;
  std::string path_;  // file or device behind the source
};

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_QOMM_H_
