// One run of a source through its node: checks the source, picks the node
// and the stream type, sets the parameters, consumes the tasks (progress,
// JSON lines, snapshot) and reports.
#ifndef QO_TOOLS_QOMM_PLAY_SESSION_H_
#define QO_TOOLS_QOMM_PLAY_SESSION_H_

#include <optional>
#include <string>

#include "arg_reader.h"
#include "node_player.h"

namespace qomm {

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
// probes it, or kTypeUnknown with the stream's reason in *why.
int ProbeStreamType(const std::string& uri, std::optional<int> transport, std::string* why);

// Reads the options of "qomm play"; throws UsageError.
PlayOptions ParsePlayOptions(ArgReader& args);
const char* PlayUsage();

class PlaySession {
 public:
  explicit PlaySession(PlayOptions options);
  // Exit status: 0 clean end, 1 the source failed.
  int Run();

  int frames() const { return frames_; }

 private:
  // Fills node_kind_, type_ and the URI/path; "" or the reason it cannot.
  std::string Prepare();
  void Configure(NodePlayer* player) const;
  int Fail(const std::string& message) const;

  PlayOptions options_;
  NodeKind node_kind_ = NodeKind::kFileInput;
  int type_ = -1;
  std::string path_;  // file or device behind the source
  int frames_ = 0;
};

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_PLAY_SESSION_H_
