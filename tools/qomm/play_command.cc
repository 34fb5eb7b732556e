// qomm play: one source through its node, with a progress display, JSON
// lines, a PNG snapshot and a summary.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <memory>
#include <utility>

#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "node/qo_file_in_node.h"
#include "node/qo_video_in_node.h"
#include "qomm.h"

namespace qomm {

namespace {

constexpr int kSliceMs = 100;
constexpr int kReasonPollMs = 250;
// Pulls of one second keep a sync-mode host responsive to Ctrl-C and to the
// stream's reasons.
constexpr int kSyncPullSeconds = 1;
// How long a failed type probe watches the stream for its reason.
constexpr int kExplainMs = 3000;
constexpr int kRetries = qo::mm::VideoInput::kRetryBudget;
constexpr int64_t kIntMax = 2147483647;
constexpr int64_t kNsPerSecond = 1000000000;
constexpr uint64_t kNoTime = UINT64_MAX;

// The source nodes, by their registered function prefixes.
constexpr char kFileNode[] = "qo.mm.file.in";
constexpr char kVideoNode[] = "qo.mm.video.in";

// The options that set the node parameter of their name, with their ranges.
const struct {
  const char* option;
  const char* key;
  int64_t low, high;
} kNodeInts[] = {{"--loop", "loop", -kIntMax - 1, kIntMax},
                 {"--start-index", "start-index", -1, kIntMax},
                 {"--stop-index", "stop-index", -1, kIntMax},
                 {"--timeout", "timeout", -kIntMax - 1, kIntMax},
                 {"--width", "width", 0, 4096},
                 {"--height", "height", 0, 4096},
                 {"--packet-size", "size", 1, kIntMax},
                 {"--stream-id", "stream-id", -kIntMax - 1, kIntMax}};

bool IsPermanent(int code) {
  return code == QO_STREAM_UNAUTHORIZED || code == QO_STREAM_NOT_FOUND ||
         code == QO_STREAM_UNSUPPORTED_TRANSPORT || code == QO_STREAM_NO_VIDEO;
}

// The description of a task's frame; zeros without one.
qo::ExtInfo Ext(const qo::MediaTask& task) {
  const qo::ExtInfo* ext = task.data.GetExtInfo();
  return ext != nullptr ? *ext : qo::ExtInfo();
}

// How many milliseconds ago ts was, when it reads as Unix-epoch nanoseconds
// within a day of now: RTSP frames carry such times once the sender's RTCP
// reports arrived.
std::optional<double> WallClockAgeMs(uint64_t ts) {
  if (ts == kNoTime || ts > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const int64_t age_ns =
      static_cast<int64_t>(now.tv_sec) * kNsPerSecond + now.tv_nsec - static_cast<int64_t>(ts);
  if (age_ns >= 24 * 3600 * kNsPerSecond || age_ns <= -24 * 3600 * kNsPerSecond) {
    return std::nullopt;
  }
  return age_ns / 1e6;
}

// "1769862896789000000 (2026-01-31 12:34:56.789 UTC)".
std::string Stamp(uint64_t ts) {
  if (ts == kNoTime) return "none";
  std::string text = std::to_string(ts);
  if (!WallClockAgeMs(ts)) return text;
  const time_t secs = static_cast<time_t>(ts / kNsPerSecond);
  struct tm utc;
  char buf[64];
  const size_t n = strftime(buf, sizeof(buf), "%F %T", gmtime_r(&secs, &utc));
  snprintf(buf + n, sizeof(buf) - n, ".%03d UTC", static_cast<int>(ts % kNsPerSecond / 1000000));
  return text + " (" + buf + ")";
}

void PrintJson(long index, const qo::MediaTask& t, double t_ms) {
  static const char* const kStatusTexts[] = {"frame", "end of stream", "time-out"};
  const uint64_t ts = static_cast<uint64_t>(t.time_stamp);
  const qo::ExtInfo e = Ext(t);
  std::string pts = t.flag == 0 && ts != kNoTime ? std::to_string(ts) : "null";
  std::string age = "null";
  if (std::optional<double> age_ms = t.flag == 0 ? WallClockAgeMs(ts) : std::nullopt) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%.1f", *age_ms);
    age = buf;
  }
  printf(
      "{\"index\":%ld,\"status\":%d,\"status_text\":\"%s\",\"source_id\":%d,"
      "\"format\":%d,\"codec\":\"%s\",\"kind\":%d,\"width\":%d,\"height\":%d,"
      "\"bytes\":%zu,\"pts\":%s,\"ntp_age_ms\":%s,\"t_ms\":%.1f}\n",
      index, t.flag, t.flag >= 0 && t.flag <= 2 ? kStatusTexts[t.flag] : "unknown", t.source_id,
      e.format, t.flag == 0 ? TypeName(e.format).c_str() : "", e.kind, e.width, e.height,
      t.data.GetTensorDataSize(), pts.c_str(), age.c_str(), t_ms);
  fflush(stdout);
}

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

// The first non-empty line of a list file, as the node reads it.
std::string FirstListedFile(const std::string& list) {
  std::ifstream in(list);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty()) return line;
  }
  return "";
}

// Decodes the first picture of a source with GStreamer's decoders and writes
// it as a PNG file, so a user can see what the camera sees.
class Snapshot {
 public:
  explicit Snapshot(std::string path) : path_(std::move(path)) {}
  ~Snapshot() { Stop(); }
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  // Feeds the next frame; true once the PNG file has been written.
  bool Feed(const qo::NDArray& frame) {
    const qo::ExtInfo* ext = frame.GetExtInfo();
    if (done_ || !error.empty() || ext == nullptr || frame.GetTensorDataSize() == 0 ||
        fed_ >= kMaxFedFrames) {
      return done_;
    }
    if (pipeline_ == nullptr && !Start(*ext)) return false;
    fed_++;
    GstBuffer* buffer = gst_buffer_new_memdup(frame.GetTensorData(), frame.GetTensorDataSize());
    if (gst_app_src_push_buffer(GST_APP_SRC(src_), buffer) != GST_FLOW_OK) {
      return Failed("the decoder refused the stream");
    }
    return Take(kPullPerFrame);
  }

  // No more frames: drains the decoder. True when the file was written,
  // else error says why.
  bool Finish() {
    if (done_ || !error.empty()) return done_;
    if (pipeline_ == nullptr) return Failed("no frame arrived");
    gst_app_src_end_of_stream(GST_APP_SRC(src_));
    if (Take(kDrainWait) || !error.empty()) return done_;
    return Failed("no picture could be decoded from the first " + std::to_string(fed_) + " frames");
  }

  std::string error;
  int width = 0;
  int height = 0;

 private:
  bool Start(const qo::ExtInfo& frame) {
    std::string caps;
    std::string decode;
    // One decoding thread: a picture comes out as soon as it can be decoded;
    // pictures decoded without their reference frames (a stream joined
    // between key frames) are dropped.
    if (frame.format == QO_PIX_FMT_H264 || frame.format == QO_PIX_FMT_H265) {
      const std::string codec = TypeName(frame.format);
      caps = "video/x-" + codec + ",stream-format=byte-stream,alignment=au";
      decode = codec + "parse ! avdec_" + codec + " max-threads=1 output-corrupt=false";
    } else if (frame.format == QO_PIX_FMT_MJPEG) {
      caps = "image/jpeg,parsed=true";
      decode = "jpegdec";
    } else {
      const qo::mm::StreamTypeFact* fact = qo::mm::FindStreamType(frame.format);
      if (fact == nullptr || fact->raw_format == nullptr || frame.width <= 0 || frame.height <= 0) {
        return Failed("cannot decode pictures of type " + TypeName(frame.format));
      }
      caps = std::string("video/x-raw,format=") + fact->raw_format +
             ",width=" + std::to_string(frame.width) + ",height=" + std::to_string(frame.height) +
             ",framerate=0/1";
      decode = "identity";
    }
    const std::string launch = "appsrc name=src format=time caps=\"" + caps + "\" ! " + decode +
                               " ! videoconvert ! video/x-raw,format=RGB ! pngenc ! "
                               "appsink name=sink sync=false";
    g_autoptr(GError) err = nullptr;
    gst_init(nullptr, nullptr);
    pipeline_ = gst_parse_launch(launch.c_str(), &err);
    if (err != nullptr) return Failed(std::string("cannot build the decoder: ") + err->message);
    // The pipeline keeps the elements alive.
    src_ = gst_bin_get_by_name(GST_BIN(pipeline_), "src");
    sink_ = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
    gst_object_unref(src_);
    gst_object_unref(sink_);
    if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
      return Failed("cannot start the decoder");
    }
    return true;
  }

  bool Take(GstClockTime wait) {
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink_), wait);
    if (sample == nullptr) return false;
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstMapInfo map;
    if (buffer != nullptr && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
      done_ = g_file_set_contents(path_.c_str(), reinterpret_cast<const gchar*>(map.data),
                                  static_cast<gssize>(map.size), nullptr);
      gst_buffer_unmap(buffer, &map);
    }
    const GstStructure* s = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
    gst_structure_get_int(s, "width", &width);
    gst_structure_get_int(s, "height", &height);
    gst_sample_unref(sample);
    if (!done_) return Failed("cannot write " + path_);
    Stop();
    return true;
  }

  bool Failed(const std::string& why) {
    error = why;
    Stop();
    return false;
  }

  void Stop() {
    if (pipeline_ == nullptr) return;
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
    pipeline_ = src_ = sink_ = nullptr;
  }

  // A decoder needs a key frame; a camera sends one at least every few seconds.
  static constexpr int kMaxFedFrames = 600;
  static constexpr GstClockTime kPullPerFrame = 20 * GST_MSECOND;
  static constexpr GstClockTime kDrainWait = 5 * GST_SECOND;

  std::string path_;
  GstElement* pipeline_ = nullptr;
  GstElement* src_ = nullptr;   // owned by the pipeline
  GstElement* sink_ = nullptr;  // owned by the pipeline
  int fed_ = 0;
  bool done_ = false;
};

// Counts what a source delivered from its opening on, shows it while it
// plays (one updating line on a terminal, a line every few seconds
// otherwise) and sums it up.
class Report {
 public:
  enum Progress { kNone, kLine, kPeriodic };

  Report(std::string title, Progress progress) : title_(std::move(title)), progress_(progress) {}

  double Seconds() const { return SecondsSince(begin_); }
  int frames() const { return frames_; }

  void Add(const qo::MediaTask& frame) {
    if (frame.flag != 0) return;
    last_at_ = Clock::now();
    last_pts_ = static_cast<uint64_t>(frame.time_stamp);
    if (frames_++ == 0) {
      first_ = Ext(frame);
      first_pts_ = last_pts_;
      first_at_ = last_at_;
    }
    last_age_ms_ = WallClockAgeMs(last_pts_);
    bytes_ += frame.data.GetTensorDataSize();
  }

  // Shows progress when it is time to.
  void Tick() {
    const double since = SecondsSince(shown_at_);
    if (progress_ == kNone || since < (progress_ == kLine ? 0.5 : 5.0)) return;
    char text[256];
    int n = snprintf(text, sizeof(text), "%d frames  %.1f fps  %.2f Mbit/s", frames_,
                     (frames_ - shown_frames_) / since,
                     static_cast<double>(bytes_ - shown_bytes_) * 8 / since / 1e6);
    if (frames_ > 0) n += snprintf(text + n, sizeof(text) - n, "  pts %" PRIu64, last_pts_);
    if (frames_ > 0 && last_age_ms_) {
      snprintf(text + n, sizeof(text) - n, "  age %.0f ms", *last_age_ms_);
    }
    // Carriage return and erase-to-end keep it one line on the terminal.
    fprintf(stderr, progress_ == kLine ? "\r\033[K%s" : "qomm: %s\n", text);
    shown_at_ = Clock::now();
    shown_frames_ = frames_;
    shown_bytes_ = bytes_;
  }

  // Ends the progress display; `end` says why playing ended.
  void End(const std::string& end) {
    end_ = end;
    if (progress_ == kLine) fputs("\r\033[K", stderr);
  }

  void PrintSummary(FILE* out) const {
    const double span = std::chrono::duration<double>(last_at_ - first_at_).count();
    fprintf(out, "%s\n", title_.c_str());
    fprintf(out, "  frames:      %d, %.1f fps over %.2f s\n", frames_,
            span > 0 ? (frames_ - 1) / span : 0.0, span);
    fprintf(out, "  bytes:       %" PRIu64 ", %.2f Mbit/s\n", bytes_,
            span > 0 ? static_cast<double>(bytes_) * 8 / span / 1e6 : 0.0);
    if (frames_ > 0) {
      fprintf(out, "  picture:     %s %dx%d, %s\n", TypeName(first_.format).c_str(), first_.width,
              first_.height, first_.kind == 2 ? "raw" : "encoded");
      fprintf(out, "  time stamps: first %s, last %s\n", Stamp(first_pts_).c_str(),
              Stamp(last_pts_).c_str());
      if (last_age_ms_) {
        fprintf(out, "  frame age:   %.0f ms behind its sender's clock at arrival\n",
                *last_age_ms_);
      }
    }
    fprintf(out, "  end:         %s\n", end_.c_str());
    fflush(out);
  }

 private:
  std::string title_;
  Progress progress_;
  std::string end_;
  Clock::time_point begin_ = Clock::now(), first_at_, last_at_, shown_at_ = begin_;
  int frames_ = 0;
  int shown_frames_ = 0;
  uint64_t bytes_ = 0;
  uint64_t shown_bytes_ = 0;
  qo::ExtInfo first_;
  uint64_t first_pts_ = 0;
  uint64_t last_pts_ = 0;
  std::optional<double> last_age_ms_;
};

// One run of a source through its node: checks the source, picks the node
// and the stream type, sets the parameters, consumes the tasks (progress,
// JSON lines, snapshot) and reports.
class PlaySession {
 public:
  // Reads the options of "qomm play"; throws UsageError.
  PlaySession(const Args& args, std::string title);

  // Exit status: 0 clean end, 1 the source failed.
  int Run() {
    qo::HostNode player(node_);
    if (std::string why = FindType(); !why.empty()) return Fail(why);
    Configure(&player);
    if (!sync_) player.AttachQueue(0);
    HoldLibraryOutput();
    if (std::string why = Open(&player); !why.empty()) {
      ReleaseLibraryOutput(false);
      return Fail("cannot open " + source_ + ": " + why);
    }
    Report report(MaskPasswords(title_) + " (" +
                      (node_ == kFileNode ? "file input" : "video input") + ", " + TypeName(type_) +
                      (sync_ ? ", sync" : "") + ")",
                  qo::g_log_level >= 5         ? Report::kNone
                  : isatty(STDERR_FILENO) != 0 ? Report::kLine
                                               : Report::kPeriodic);
    try {
      report.End(Play(&player, &report));
      player.Close();
    } catch (const qo::Error& e) {
      ReleaseLibraryOutput(false);
      report.End("failed");
      return Fail(source_ + ": " + ErrorMessage(e.what()));
    }
    // On failure qomm's one line replaces what the library said (-v shows it).
    ReleaseLibraryOutput(failure_.empty());

    FILE* summary = args_.Has("--json") ? stderr : stdout;
    if (failure_.empty() || report.frames() > 0) report.PrintSummary(summary);
    if (args_.Has("--record") && report.frames() > 0) {
      char first[64], second[64];
      snprintf(first, sizeof(first), qo::mm::kRecordingPathPattern, unsigned(stream_id_), 0u);
      snprintf(second, sizeof(second), qo::mm::kRecordingPathPattern, unsigned(stream_id_), 1u);
      fprintf(summary, "  recorded:    %s and %s (raw frames)\n", first, second);
    }
    if (!failure_.empty()) return Fail(failure_);
    if (snapshot_ && !snapshot_->Finish()) {
      return Fail("no snapshot for " + args_.options.at("--snapshot") + ": " + snapshot_->error);
    }
    if (snapshot_) {
      fprintf(summary, "  snapshot:    %s (%dx%d)\n", args_.options.at("--snapshot").c_str(),
              snapshot_->width, snapshot_->height);
    }
    fflush(summary);
    return 0;
  }

 private:
  // Sets type_; "" or the reason there is none.
  std::string FindType() {
    if (scheme_ != "rtsp") {
      const std::string why = CheckReadable(path_);
      if (!why.empty()) return "cannot open " + source_ + ": " + why;
    }
    if (args_.Has("--type")) return "";
    if (node_ == kFileNode || scheme_ == "file") {
      const std::string media = list_ ? FirstListedFile(path_) : path_;
      if (media.empty()) return "cannot play " + path_ + ": the list names no file";
      std::string error;
      type_ = DetectFileType(media, &error);
      if (type_ != QO_PIX_FMT_NONE) return "";
      return "cannot tell the stream type of " + media + ": " +
             (error.empty() ? "give it with --type" : error);
    }
    std::string why;
    type_ = ProbeStreamType(source_, transport_, &why);
    if (type_ == QO_PIX_FMT_NONE && scheme_ == "v4l2") {
      // Cameras are probed for JPEG only: anything else is taken for YUYV.
      fprintf(stderr, "qomm: %s sends no JPEG; trying yuyv (see --type)\n", source_.c_str());
      type_ = QO_PIX_FMT_YUV422_YUYV;
    }
    return type_ == QO_PIX_FMT_NONE ? "cannot open " + source_ + ": " + why : "";
  }

  void Configure(qo::HostNode* player) const {
    if (sync_) player->SetInt("sync-mode", 1);
    player->SetInt("stream-type", type_);
    for (const auto& [key, value] : ints_) player->SetInt(key, value);
    if (framerate_) player->SetDouble("framerate", *framerate_);
    if (node_ == kFileNode) {
      player->SetString(list_ ? "file-list" : "file", path_);
    } else {
      player->SetString("uri", source_);
      if (transport_) player->SetInt("lower-trans-type", *transport_);
      if (args_.Has("--record")) player->SetInt("save_stream", 1);
    }
  }

  // Waits up to a slice for the next task, or pulls in sync mode; false when
  // none came.
  bool Next(qo::HostNode* node, qo::MediaTask* frame) {
    if (!sync_) {
      qo::TaskQueue::Task task;
      if (!node->Pop(&task, kSliceMs)) return false;
      if (task.data != nullptr) *frame = *static_cast<const qo::MediaTask*>(task.data);
      qo::TaskQueue::Dispose(task);
      return true;
    }
    qo::Thread* t = node->thread();
    const int r =
        node_ == kFileNode
            ? static_cast<qo::mm::FileInput*>(t)->GetFrame(frame->data, kSyncPullSeconds)
            : static_cast<qo::mm::VideoInput*>(t)->GetFrame(frame->data, kSyncPullSeconds);
    if (r < 0) throw qo::Error("the node refused the pull: it is not running in sync mode");
    // As the node's own output thread allows; a non-positive time-out waits
    // without end, as the node's does.
    if (r == 2 && (timeout_ <= 0 || ++empty_pulls_ < timeout_ * kRetries)) return false;
    empty_pulls_ = 0;
    frame->flag = r;
    frame->source_id = stream_id_;
    frame->time_stamp = r == 0 ? static_cast<int64_t>(Ext(*frame).time_stamp) : 0;
    return true;
  }

  // Plays until the end; the end's text, with failure_ set when it failed.
  std::string Play(qo::HostNode* player, Report* report) {
    const bool stop_at_snapshot = snapshot_ && frames_ < 0 && duration_ < 0;
    // The stream's reason, for the one line a failed source gets.
    auto failed = [&](const std::string& reason, const char* end) {
      failure_ = (report->frames() == 0 ? "cannot open " : "lost ") + source_ + ": " + reason;
      return end;
    };
    long index = 0;
    for (double checked_s = 0;; report->Tick()) {
      if (StopRequested()) return "interrupted";
      if (duration_ > 0 && report->Seconds() >= duration_) {
        char buf[64];
        snprintf(buf, sizeof(buf), "stopped after %g s", duration_);
        return buf;
      }
      qo::MediaTask frame;
      if (!Next(player, &frame)) {
        // A refusal the next attempt meets again ends the run now, not after
        // the node's time-out.
        if (node_ != kVideoNode || report->Seconds() - checked_s < kReasonPollMs / 1000.0) {
          continue;
        }
        checked_s = report->Seconds();
        std::string reason;
        if (IsPermanent(LastError(*player, &reason))) return failed(reason, "failed");
        continue;
      }
      ReleaseLibraryOutput(true);
      if (args_.Has("--json")) PrintJson(index++, frame, report->Seconds() * 1000);
      report->Add(frame);
      if (frame.flag == 1) return "end of stream";
      if (frame.flag == 2) {
        std::string reason;
        if (node_ != kVideoNode || LastError(*player, &reason) <= 0) {
          reason = "no frame for " + std::to_string(kRetries * timeout_) + " s";
        }
        return failed(reason, "time-out");
      }
      if (snapshot_ && snapshot_->Feed(frame.data) && stop_at_snapshot) return "snapshot taken";
      if (frames_ > 0 && report->frames() >= frames_) {
        return "stopped after " + std::to_string(frames_) + " frames";
      }
    }
  }

  const Args& args_;
  std::string title_;
  std::string source_;
  std::string scheme_;  // "" for a path or a list
  std::string path_;    // file or device behind the source
  bool list_ = false;
  const char* node_ = nullptr;  // kFileNode or kVideoNode
  int type_ = QO_PIX_FMT_NONE;
  std::optional<int> transport_;  // "lower-trans-type"
  std::optional<double> framerate_;
  std::vector<std::pair<const char*, int>> ints_;  // from kNodeInts
  int timeout_ = qo::mm::kDefaultPullTimeoutSeconds;
  int stream_id_ = 0;
  bool sync_ = false;
  long frames_ = -1;      // stop after this many frames
  double duration_ = -1;  // stop after this many seconds
  std::unique_ptr<Snapshot> snapshot_;
  int empty_pulls_ = 0;  // sync mode: time-outs in a row
  std::string failure_;  // why the source failed
};

PlaySession::PlaySession(const Args& args, std::string title)
    : args_(args), title_(std::move(title)) {
  list_ = args.Has("--list");
  if (list_ && !args.words.empty()) throw UsageError("give either a SOURCE or --list FILE");
  if (args.words.size() > 1)
    throw UsageError("only one SOURCE, not also \"" + args.words[1] + "\"");
  source_ = list_ ? args.options.at("--list") : args.words.empty() ? "" : args.words[0];
  if (source_.empty()) throw UsageError("play needs a SOURCE");
  if (title_.empty()) title_ = "play " + source_;

  scheme_ = list_ ? "" : Scheme(source_);
  const bool camera = scheme_ == "v4l2";
  node_ = scheme_.empty() ? kFileNode : kVideoNode;
  path_ = scheme_.empty() ? source_ : source_.substr(scheme_.size() + 3);
  if (!scheme_.empty() && scheme_ != "rtsp" && !camera && scheme_ != "file") {
    throw UsageError("unsupported source " + source_ + " (rtsp://, v4l2://, file:// or a path)");
  }
  if (args.Has("--type") && !ParseType(args.options.at("--type"), &type_)) {
    throw UsageError("unknown stream type \"" + args.options.at("--type") + "\"");
  }
  // The live-stream layer builds pipelines for these types only.
  const qo::mm::StreamTypeFact* fact = qo::mm::FindStreamType(type_);
  if (!scheme_.empty() && args.Has("--type") &&
      (fact == nullptr || (fact->raw_format != nullptr && !camera))) {
    throw UsageError("--type " + TypeName(type_) + " does not apply to " + scheme_ +
                     ":// sources (" +
                     (camera ? "h264, h265, mjpeg, nv12, nv21, yuyv, uyvy, nv16 or i420"
                             : "h264, h265 or mjpeg") +
                     ")");
  }
  for (const auto& p : kNodeInts) {
    if (std::optional<int> v = args.Int(p.option, p.low, p.high)) ints_.emplace_back(p.key, *v);
  }
  timeout_ = args.Int("--timeout", -kIntMax - 1, kIntMax).value_or(timeout_);
  stream_id_ = args.Int("--stream-id", -kIntMax - 1, kIntMax).value_or(0);
  framerate_ = args.Double("--framerate", 0.0, 120.0);
  frames_ = args.Int("--frames", 1, kIntMax).value_or(-1);
  duration_ = args.Double("--duration", 0.001, 1e9).value_or(-1);
  sync_ = args.Has("--sync");
  if (args.Has("--tcp") || args.Has("--udp")) {
    transport_ = args.Has("--tcp") ? RTSP_TRANS_TCP : RTSP_TRANS_UDP;
  }
  if (args.Has("--snapshot") && args.options.at("--snapshot").empty()) {
    throw UsageError("--snapshot needs a file name");
  }
  if (args.Has("--snapshot")) snapshot_.reset(new Snapshot(args.options.at("--snapshot")));
  if (!scheme_.empty() && (args.Has("--loop") || args.Has("--start-index") ||
                           args.Has("--stop-index") || args.Has("--packet-size"))) {
    throw UsageError(
        "--loop, --start-index, --stop-index and --packet-size apply to files given by path");
  }
  if (camera && framerate_ && *framerate_ > 0 && *framerate_ < 1) {
    throw UsageError("--framerate of a camera is a whole number of frames per second");
  }
  if (scheme_.empty() && (transport_ || args.Has("--record"))) {
    throw UsageError("--tcp, --udp and --record apply to rtsp://, v4l2:// and file:// sources");
  }
  if ((args.Has("--start-index") || args.Has("--stop-index")) && !list_) {
    throw UsageError("--start-index and --stop-index apply to --list");
  }
}

}  // namespace

const char kPlayUsage[] =
    "usage: qomm play SOURCE [options]\n"
    "       qomm play --list FILE [options]\n"
    "\n"
    "Plays a source through its node and reports what arrives.\n"
    "  SOURCE  rtsp://[user:password@]host[:port]/path   network camera (video input node)\n"
    "          v4l2:///dev/videoN                         local camera (video input node)\n"
    "          file:///path/clip.h264                     file through the live-stream layer\n"
    "          path/clip.h264                             elementary-stream file (file input "
    "node)\n"
    "  --list FILE        play the files listed in FILE, one path a line (file input node)\n"
    "\n"
    "Source options:\n"
    "  --type T           h264, h265, mjpeg, nv12, nv21, yuyv, uyvy, nv16 or a format number;\n"
    "                     default: probed for rtsp:// and v4l2://, from the file name or\n"
    "                     content for files\n"
    "  --tcp | --udp      RTSP transport (default udp)\n"
    "  --loop N           files: N passes (0 one pass, the default; negative: endless)\n"
    "  --start-index I    --stop-index I   first and last list entry (default all)\n"
    "  --framerate F      pace files at F frames per second (0: as fast as they decode;\n"
    "                     node default 25); capture rate of v4l2:// cameras\n"
    "  --timeout S        seconds a pull waits for a frame (default 3); three empty pulls\n"
    "                     in a row end the source with a time-out\n"
    "  --width W --height H   v4l2:// capture size; picture size of raw files\n"
    "  --packet-size N    bytes per read for files of other types than h264/h265/mjpeg\n"
    "  --stream-id N      number stamped on every task\n"
    "  --sync             pull frames with the node's GetFrame instead of its output thread\n"
    "  --record           video input: also write raw frames to /tmp/strm_<id>_0 and _1\n"
    "\n"
    "Output options:\n"
    "  --frames N         stop after N frames\n"
    "  --duration S       stop after S seconds\n"
    "  --snapshot F.png   decode the first picture into a PNG file (and stop then, unless\n"
    "                     --frames or --duration is given)\n"
    "  --json             one JSON object per task on standard output (the summary then\n"
    "                     goes to standard error) with index, status (0 frame, 1 end of\n"
    "                     stream, 2 time-out), status_text, source_id, format (the type's\n"
    "                     code), codec, kind (2 raw picture, 3 encoded), width, height, bytes,\n"
    "                     pts (as the node stamps it; RTSP: Unix-epoch ns from the sender's\n"
    "                     reports), ntp_age_ms (how old the frame was on arrival when pts is\n"
    "                     such a wall-clock time, else null) and t_ms (since open)\n"
    "\n"
    "Exit status: 0 at the end of the stream, after --frames/--duration/--snapshot or\n"
    "Ctrl-C; 1 when the source failed; 2 for bad usage.\n";

std::string Scheme(const std::string& source) {
  const char* scheme = g_uri_peek_scheme(source.c_str());
  return scheme != nullptr && source.find("://") != std::string::npos ? scheme : "";
}

int ProbeStreamType(const std::string& uri, std::optional<int> transport, std::string* why) {
  HoldLibraryOutput();
  int code = 0;
  if (Scheme(uri) == "rtsp") {
    // The type probe keeps the stream's reason to itself and waits out its
    // limit on any refusal: a short run of the node learns the reason first.
    qo::HostNode watch(kVideoNode);
    watch.SetString("uri", uri);
    watch.SetInt("stream-type", QO_PIX_FMT_H264);
    if (transport) watch.SetInt("lower-trans-type", *transport);
    watch.AttachQueue(0);
    *why = Open(&watch);
    qo::TaskQueue::Task task;
    for (int waited = 0; why->empty() && waited < kExplainMs && !watch.Pop(&task, kReasonPollMs);
         waited += kReasonPollMs) {
      if ((code = LastError(watch, why)) > 0) break;
    }
    qo::TaskQueue::Dispose(task);
  }
  const int type = IsPermanent(code) ? QO_PIX_FMT_NONE : qo::mm::VideoInput::StreamType(uri);
  if (why->empty()) *why = "no H.264, H.265 or JPEG video found";
  ReleaseLibraryOutput(type != QO_PIX_FMT_NONE);
  return type;
}

int Play(const Args& args, const std::string& title) { return PlaySession(args, title).Run(); }

}  // namespace qomm
