#include <unistd.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <memory>
#include <utility>

#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "hal_mm_video_in.h"
#include "node/qo_file_in_node.h"
#include "node/qo_media_facts.h"
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

bool IsPermanent(int code) {
  return code == QO_STREAM_UNAUTHORIZED || code == QO_STREAM_NOT_FOUND ||
         code == QO_STREAM_UNSUPPORTED_TRANSPORT || code == QO_STREAM_NO_VIDEO;
}

bool StartsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

bool HasScheme(const std::string& s) {
  size_t sep = s.find("://");
  if (sep == std::string::npos || sep == 0) return false;
  for (size_t i = 0; i < sep; ++i) {
    if (!isalnum(static_cast<unsigned char>(s[i]))) return false;
  }
  return true;
}

const char* StatusText(int status) {
  static const char* const kTexts[] = {"frame", "end of stream", "time-out"};
  return status >= 0 && status <= 2 ? kTexts[status] : "unknown";
}

void PrintJson(FILE* out, long index, const FrameInfo& f, double t_ms) {
  std::string pts = f.status == 0 && f.pts != UINT64_MAX ? std::to_string(f.pts) : "null";
  std::string age = "null";
  if (std::optional<double> age_ms = f.status == 0 ? WallClockAgeMs(f.pts) : std::nullopt) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%.1f", *age_ms);
    age = buf;
  }
  fprintf(out,
          "{\"index\":%ld,\"status\":%d,\"status_text\":\"%s\",\"source_id\":%d,"
          "\"format\":%d,\"codec\":\"%s\",\"kind\":%d,\"width\":%d,\"height\":%d,"
          "\"bytes\":%zu,\"pts\":%s,\"ntp_age_ms\":%s,\"t_ms\":%.1f}\n",
          index, f.status, StatusText(f.status), f.source_id, f.format,
          f.status == 0 ? TypeName(f.format).c_str() : "", f.kind, f.width, f.height, f.bytes,
          pts.c_str(), age.c_str(), t_ms);
  fflush(out);
}

void Describe(const qo::NDArray& array, FrameInfo* info) {
  info->array = array;
  if (const qo::ExtInfo* ext = array.GetExtInfo()) {
    info->format = ext->format;
    info->kind = ext->kind;
    info->width = ext->width;
    info->height = ext->height;
  }
  info->bytes = array.GetTensorDataSize();
  info->data = static_cast<const uint8_t*>(array.GetTensorData());
}

// The video input node's reason for delivering no frames: its stream error
// code (-1 without a stream) and text.
int LastError(const qo::HostNode& node, std::string* text) {
  return static_cast<const qo::mm::VideoInput*>(node.thread())->LastError(text);
}

// The whole-number option name of o with its range, or null.
std::optional<int>* IntOption(PlayOptions* o, const std::string& name, long* low, long* high) {
  constexpr long kMin = -2147483647L - 1, kMax = 2147483647L;
  const struct {
    const char* name;
    std::optional<int> PlayOptions::*field;
    long low, high;
  } kOptions[] = {{"--loop", &PlayOptions::loop, kMin, kMax},
                  {"--start-index", &PlayOptions::start_index, -1, kMax},
                  {"--stop-index", &PlayOptions::stop_index, -1, kMax},
                  {"--timeout", &PlayOptions::timeout, kMin, kMax},
                  {"--width", &PlayOptions::width, 0, 4096},
                  {"--height", &PlayOptions::height, 0, 4096},
                  {"--packet-size", &PlayOptions::packet_size, 1, kMax},
                  {"--stream-id", &PlayOptions::stream_id, kMin, kMax}};
  for (const auto& opt : kOptions) {
    if (name == opt.name) return *low = opt.low, *high = opt.high, &(o->*opt.field);
  }
  return nullptr;
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

PlayOptions ParsePlayOptions(ArgReader& args) {
  PlayOptions o;
  long low = 0, high = 0;
  bool have_source = false;
  while (!args.done()) {
    std::string a = args.Next();
    if (a == "--type") {
      std::string v = args.Value(a);
      int type = 0;
      if (!ParseType(v, &type)) throw UsageError("unknown stream type \"" + v + "\"");
      o.type = type;
    } else if (a == "--tcp" || a == "--udp") {
      args.NoValue(a);
      o.transport = a == "--tcp" ? RTSP_TRANS_TCP : RTSP_TRANS_UDP;
    } else if (std::optional<int>* v = IntOption(&o, a, &low, &high)) {
      *v = args.IntValue(a, low, high);
    } else if (a == "--framerate") {
      o.framerate = args.DoubleValue(a, 0.0, 120.0);
    } else if (a == "--sync" || a == "--record") {
      args.NoValue(a);
      (a == "--sync" ? o.sync : o.record) = true;
    } else if (a == "--frames") {
      o.frames = args.IntValue(a, 1, 2147483647L);
    } else if (a == "--duration") {
      o.duration = args.DoubleValue(a, 0.001, 1e9);
    } else if (a == "--json") {
      args.NoValue(a);
      o.json = true;
    } else if (a == "--snapshot") {
      o.snapshot = args.Value(a);
      if (o.snapshot.empty()) throw UsageError("--snapshot needs a file name");
    } else if (a == "--list") {
      if (have_source) throw UsageError("give either a SOURCE or --list FILE");
      o.source = args.Value(a);
      o.list = true;
      have_source = true;
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("unknown option " + a);
    } else if (have_source) {
      throw UsageError("only one SOURCE, not also \"" + a + "\"");
    } else {
      o.source = a;
      have_source = true;
    }
  }
  if (!have_source || o.source.empty()) throw UsageError("play needs a SOURCE");

  const bool video = !o.list && HasScheme(o.source);
  const bool camera = video && StartsWith(o.source, "v4l2://");
  if (video && !StartsWith(o.source, "rtsp://") && !camera && !StartsWith(o.source, "file://")) {
    throw UsageError("unsupported source " + o.source + " (rtsp://, v4l2://, file:// or a path)");
  }
  if (video && o.type) {
    // The live-stream layer builds pipelines for these types only.
    const qo::mm::StreamTypeFact* t = qo::mm::FindStreamType(*o.type);
    if (t == nullptr || (t->raw_format != nullptr && !camera)) {
      throw UsageError("--type " + TypeName(*o.type) + " does not apply to " +
                       o.source.substr(0, o.source.find("://") + 3) + " sources (" +
                       (camera ? "h264, h265, mjpeg, nv12, nv21, yuyv, uyvy, nv16 or i420"
                               : "h264, h265 or mjpeg") +
                       ")");
    }
  }
  if (video && (o.loop || o.start_index || o.stop_index || o.packet_size)) {
    throw UsageError(
        "--loop, --start-index, --stop-index and --packet-size apply to files given by path");
  }
  if (camera && o.framerate && *o.framerate > 0 && *o.framerate < 1) {
    throw UsageError("--framerate of a camera is a whole number of frames per second");
  }
  if (!video && (o.transport || o.record)) {
    throw UsageError("--tcp, --udp and --record apply to rtsp://, v4l2:// and file:// sources");
  }
  if ((o.start_index || o.stop_index) && !o.list) {
    throw UsageError("--start-index and --stop-index apply to --list");
  }
  return o;
}

PlaySession::PlaySession(PlayOptions options) : options_(std::move(options)) {}

int ProbeStreamType(const std::string& uri, std::optional<int> transport, std::string* why) {
  LibraryOutput::Hold();
  *why = "";
  int code = 0;
  if (StartsWith(uri, "rtsp://")) {
    // The type probe keeps the stream's reason to itself and waits out its
    // limit on any refusal: a short run of the node learns the reason first.
    try {
      qo::HostNode watch(kVideoNode);
      watch.SetString("uri", uri);
      watch.SetInt("stream-type", QO_PIX_FMT_H264);
      if (transport) watch.SetInt("lower-trans-type", *transport);
      watch.AttachQueue(0);
      watch.Open();
      qo::TaskQueue::Task task;
      for (int waited = 0; waited < kExplainMs && !watch.Pop(&task, kReasonPollMs);
           waited += kReasonPollMs) {
        if ((code = LastError(watch, why)) > 0) break;
      }
      qo::TaskQueue::Dispose(task);
    } catch (const qo::Error& e) {
      *why = ErrorMessage(e.what());
    }
  }
  const int type = IsPermanent(code) ? QO_PIX_FMT_NONE : qo::mm::VideoInput::StreamType(uri);
  if (why->empty()) *why = "no H.264, H.265 or JPEG video found";
  LibraryOutput::Release(type != QO_PIX_FMT_NONE);
  return type;
}

std::string PlaySession::Prepare() {
  const std::string& src = options_.source;
  const bool file_input = options_.list || !HasScheme(src);
  node_ = file_input ? kFileNode : kVideoNode;
  path_ = file_input ? src : src.substr(7);
  if (!StartsWith(src, "rtsp://")) {
    const std::string why = CheckReadable(path_);
    if (!why.empty()) return "cannot open " + src + ": " + why;
  }
  if (options_.type) {
    type_ = *options_.type;
    return "";
  }
  if (file_input || StartsWith(src, "file://")) {
    const std::string media = options_.list ? FirstListedFile(path_) : path_;
    if (media.empty()) return "cannot play " + path_ + ": the list names no file";
    std::string error;
    type_ = DetectFileType(media, &error);
    if (type_ != QO_PIX_FMT_NONE) return "";
    return "cannot tell the stream type of " + media + ": " +
           (error.empty() ? "give it with --type" : error);
  }
  std::string why;
  type_ = ProbeStreamType(src, options_.transport, &why);
  if (type_ == QO_PIX_FMT_NONE && StartsWith(src, "v4l2://")) {
    // Cameras are probed for JPEG only: anything else is taken for YUYV.
    fprintf(stderr, "qomm: %s sends no JPEG; trying yuyv (see --type)\n", src.c_str());
    type_ = QO_PIX_FMT_YUV422_YUYV;
  }
  return type_ == QO_PIX_FMT_NONE ? "cannot open " + src + ": " + why : "";
}

void PlaySession::Configure(qo::HostNode* player) const {
  const PlayOptions& o = options_;
  if (o.sync) player->SetInt("sync-mode", 1);
  player->SetInt("stream-type", type_);
  if (o.stream_id) player->SetInt("stream-id", *o.stream_id);
  if (o.timeout) player->SetInt("timeout", *o.timeout);
  if (o.framerate) player->SetDouble("framerate", *o.framerate);
  if (o.width) player->SetInt("width", *o.width);
  if (o.height) player->SetInt("height", *o.height);
  if (node_ == kFileNode) {
    player->SetString(o.list ? "file-list" : "file", path_);
    if (o.loop) player->SetInt("loop", *o.loop);
    if (o.start_index) player->SetInt("start-index", *o.start_index);
    if (o.stop_index) player->SetInt("stop-index", *o.stop_index);
    if (o.packet_size) player->SetInt("size", *o.packet_size);
  } else {
    player->SetString("uri", o.source);
    if (o.transport) player->SetInt("lower-trans-type", *o.transport);
    if (o.record) player->SetInt("save_stream", 1);
  }
}

bool PlaySession::Next(qo::HostNode* node, FrameInfo* info) {
  *info = FrameInfo();
  if (!options_.sync) {
    qo::TaskQueue::Task task;
    if (!node->Pop(&task, kSliceMs)) return false;
    if (const auto* media = static_cast<const qo::MediaTask*>(task.data)) {
      info->status = media->flag;
      info->source_id = media->source_id;
      info->pts = static_cast<uint64_t>(media->time_stamp);
      Describe(media->data, info);
    }
    qo::TaskQueue::Dispose(task);
    return true;
  }
  qo::NDArray frame;
  qo::Thread* t = node->thread();
  const int r = node_ == kFileNode
                    ? static_cast<qo::mm::FileInput*>(t)->GetFrame(frame, kSyncPullSeconds)
                    : static_cast<qo::mm::VideoInput*>(t)->GetFrame(frame, kSyncPullSeconds);
  if (r < 0) throw qo::Error("the node refused the pull: it is not running in sync mode");
  info->source_id = options_.stream_id.value_or(0);
  // As the node's own output thread allows; a non-positive time-out waits
  // without end, as the node's does.
  if (r == 2 && (Timeout() <= 0 || ++empty_pulls_ < Timeout() * kRetries)) return false;
  empty_pulls_ = 0;
  info->status = r;
  if (r == 0) {
    Describe(frame, info);
    if (const qo::ExtInfo* ext = frame.GetExtInfo()) info->pts = ext->time_stamp;
  }
  return true;
}

int PlaySession::Run() {
  const PlayOptions& o = options_;
  std::string why = Prepare();
  if (!why.empty()) return Fail(why);

  const char* node_name = node_ == kFileNode ? "file input" : "video input";
  std::string title = MaskPasswords(o.title.empty() ? "play " + o.source : o.title);
  title += " (" + std::string(node_name) + ", " + TypeName(type_) + (o.sync ? ", sync" : "") + ")";
  PlayReport::Progress progress = PlayReport::Progress::kPeriodic;
  if (o.quiet || qo::g_log_level >= 5) {
    progress = PlayReport::Progress::kNone;
  } else if (isatty(STDERR_FILENO)) {
    progress = PlayReport::Progress::kLine;
  }
  PlayReport report(title, progress);
  FILE* out = stdout;
  std::unique_ptr<Snapshot> snapshot;
  if (!o.snapshot.empty()) snapshot.reset(new Snapshot(o.snapshot));
  const bool stop_at_snapshot = snapshot && o.frames < 0 && o.duration < 0;

  std::string end;
  std::string failure;
  // The stream's reason, for the one line a failed source gets.
  auto failed = [&](const std::string& reason) {
    failure = (report.frames() == 0 ? "cannot open " : "lost ") + o.source + ": " + reason;
    end = "failed";
  };
  try {
    qo::HostNode player(node_);
    Configure(&player);
    if (!o.sync) player.AttachQueue(0);
    LibraryOutput::Hold();
    try {
      player.Open();
    } catch (const qo::Error& e) {
      LibraryOutput::Release(false);
      return Fail("cannot open " + o.source + ": " + ErrorMessage(e.what()));
    }
    report.Begin();
    long index = 0;
    double last_check_s = 0;
    for (;;) {
      if (StopRequested()) {
        end = "interrupted";
        break;
      }
      if (o.duration > 0 && report.SecondsSinceBegin() >= o.duration) {
        char buf[64];
        snprintf(buf, sizeof(buf), "stopped after %g s", o.duration);
        end = buf;
        break;
      }
      FrameInfo frame;
      if (Next(&player, &frame)) {
        LibraryOutput::Release(true);
        if (o.json) PrintJson(out, index, frame, report.SecondsSinceBegin() * 1000);
        index++;
        report.Add(frame);
        if (frame.status == 1) {
          end = "end of stream";
          break;
        }
        if (frame.status == 2) {
          std::string reason;
          if (node_ != kVideoNode || LastError(player, &reason) <= 0) {
            reason = "no frame for " + std::to_string(kRetries * Timeout()) + " s";
          }
          failed(reason);
          end = "time-out";
          break;
        }
        if (frame.status != 0) {
          failure = o.source + ": unexpected task status " + std::to_string(frame.status);
          end = "failed";
          break;
        }
        if (snapshot && snapshot->Feed(frame) && stop_at_snapshot) {
          end = "snapshot taken";
          break;
        }
        if (o.frames > 0 && report.frames() >= o.frames) {
          end = "stopped after " + std::to_string(o.frames) + " frames";
          break;
        }
      } else if (report.SecondsSinceBegin() - last_check_s >= kReasonPollMs / 1000.0) {
        // A refusal the next attempt meets again ends the run now, not
        // after the node's time-out.
        last_check_s = report.SecondsSinceBegin();
        std::string reason;
        if (node_ == kVideoNode && IsPermanent(LastError(player, &reason))) {
          failed(reason);
          break;
        }
      }
      report.Tick();
    }
    player.Close();
  } catch (const qo::Error& e) {
    LibraryOutput::Release(false);
    report.End("failed");
    return Fail(o.source + ": " + ErrorMessage(e.what()));
  }
  // On failure qomm's one line replaces what the library said (-v shows it).
  LibraryOutput::Release(failure.empty());
  report.End(end);

  FILE* summary = o.json ? stderr : out;
  if (failure.empty() || report.frames() > 0) report.PrintSummary(summary);
  if (o.record && report.frames() > 0) {
    const unsigned id = static_cast<unsigned>(o.stream_id ? *o.stream_id : 0);
    char first[64], second[64];
    snprintf(first, sizeof(first), qo::mm::kRecordingPathPattern, id, 0u);
    snprintf(second, sizeof(second), qo::mm::kRecordingPathPattern, id, 1u);
    fprintf(summary, "  recorded:    %s and %s (raw frames)\n", first, second);
    fflush(summary);
  }
  if (!failure.empty()) return Fail(failure);
  if (snapshot) {
    if (!snapshot->Finish()) {
      return Fail("no snapshot for " + o.snapshot + ": " + snapshot->error());
    }
    fprintf(summary, "  snapshot:    %s (%dx%d)\n", o.snapshot.c_str(), snapshot->width(),
            snapshot->height());
    fflush(summary);
  }
  return 0;
}

}  // namespace qomm
