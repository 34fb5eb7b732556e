// qo-bench: what ingest costs per stream and how fresh its frames are, next
// to the tools users would otherwise pick, on the same input in the same run.
//
//   qo-bench throughput|latency|scale|startstop|churn --out DIR [--key value ...]
//
// scripts/bench.sh (make bench) makes the inputs, starts the RTSP server and
// runs every area; each writes DIR/AREA.md (table, targets, command) and
// DIR/AREA.dat (its plot's data). bench/method.md says how each is measured.
#include <dirent.h>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "core/qo_host.h"
#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "core/qo_task_queue.h"
#include "hal_mm_file_in.h"
#include "hal_mm_video_in.h"
#include "node/qo_file_in_node.h"

namespace qo {
namespace bench {
namespace {

using Configure = std::function<void(HostNode&)>;
constexpr int64_t kWallFloorNs = 1000000000LL * 1000000000LL;     // Unix-epoch times are above
constexpr uint64_t kNtpToUnixNs = 2208988800ULL * 1000000000ULL;  // 1900 to 1970

// ---- shared measuring code

std::map<std::string, std::string> g_args;  // "--key value" pairs
std::string g_area, g_command;
std::string Arg(const std::string& key) { return g_args.count(key) ? g_args[key] : ""; }
double Num(const std::string& key, double def) {
  return g_args.count(key) ? std::stod(g_args[key]) : def;
}

int64_t Now(clockid_t clock = CLOCK_MONOTONIC) {
  timespec ts;
  clock_gettime(clock, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}
double MsSince(int64_t t0) { return static_cast<double>(Now() - t0) / 1e6; }

// Nearest-rank percentile, p in (0, 100].
double Pct(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const auto rank = static_cast<size_t>(std::ceil(p / 100 * static_cast<double>(v.size())));
  return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}
double Median(std::vector<double> v) { return Pct(std::move(v), 50); }

std::string Fmt(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Fmt(const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof(buf), fmt, ap);
  va_end(ap);
  return buf;
}
std::string Verdict(bool met) { return met ? "**met**" : "**MISSED**"; }

// Writes <out>/<area>.md (the table from "a | b" lines, the targets, the
// command) and <out>/<area>.dat.
void Report(const std::string& title, const std::string& header, const std::string& rows,
            const std::string& targets, const std::string& dat) {
  std::string rule = "|";
  for (char ch : header + "|") rule += ch == '|' ? " --- |" : "";
  std::ofstream(Arg("out") + "/" + g_area + ".md")
      << "## " << title << "\n\n| " << header << " |\n"
      << rule << "\n"
      << rows << "\nTarget: " << targets << "\n\nCommand: `" << g_command << "`\n\n";
  std::ofstream(Arg("out") + "/" + g_area + ".dat") << dat;
}

struct Proc {
  double rss_mib = 0, cpu_s = 0;  // cpu: user + system
  int fds = 0, threads = 0;
};
Proc SampleProc(pid_t pid = 0) {
  Proc s;
  const std::string dir = pid == 0 ? "/proc/self" : "/proc/" + std::to_string(pid);
  if (DIR* d = opendir((dir + "/fd").c_str())) {
    while (dirent* e = readdir(d)) s.fds += e->d_name[0] != '.';
    closedir(d);
    s.fds -= pid == 0;  // the directory being read
  }
  // After the ")" of the name come fields 3 on: utime 14, stime 15,
  // num_threads 20, rss 24 (pages).
  std::ifstream stat(dir + "/stat");
  stat.ignore(1 << 12, ')');
  std::string f[25];
  for (int i = 3; i <= 24; ++i) stat >> f[i];
  s.cpu_s = (std::atof(f[14].c_str()) + std::atof(f[15].c_str())) / sysconf(_SC_CLK_TCK);
  s.threads = std::atoi(f[20].c_str());
  s.rss_mib = std::atof(f[24].c_str()) * sysconf(_SC_PAGESIZE) / 1048576.0;
  return s;
}

// CPU seconds of this process's threads by name (digits dropped, so that
// "udpsrc12:src" and "udpsrc13:src" count together).
std::map<std::string, double> ThreadCpu() {
  std::map<std::string, double> cpu;
  DIR* d = opendir("/proc/self/task");
  if (d == nullptr) return cpu;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    const std::string dir = std::string("/proc/self/task/") + e->d_name;
    std::string name;
    std::getline(std::ifstream(dir + "/comm"), name);
    name.erase(std::remove_if(name.begin(), name.end(), ::isdigit), name.end());
    // schedstat's first field is the time on a CPU in ns; stat's ticks are
    // sampled and miss threads that run briefly between ticks.
    double ns = 0;
    std::ifstream(dir + "/schedstat") >> ns;
    cpu[name] += ns / 1e9;
  }
  closedir(d);
  return cpu;
}

// Runs argv to its end, standard output (and error unless keep_stderr)
// discarded: seconds, or -1 when it failed.
double TimeProcess(const std::vector<std::string>& argv, bool keep_stderr = false) {
  std::vector<char*> args;
  for (const std::string& s : argv) args.push_back(const_cast<char*>(s.c_str()));
  args.push_back(nullptr);
  const int flags = G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL |
                    (keep_stderr ? 0 : G_SPAWN_STDERR_TO_DEV_NULL);
  const int64_t t0 = Now();
  int status = 0;
  const bool ok = g_spawn_sync(nullptr, args.data(), nullptr, static_cast<GSpawnFlags>(flags),
                               nullptr, nullptr, nullptr, nullptr, &status, nullptr) &&
                  g_spawn_check_wait_status(status, nullptr);
  return ok ? MsSince(t0) / 1e3 : -1;
}

bool WaitFor(const std::function<bool()>& pred, int timeout_ms) {
  for (const int64_t end = Now() + timeout_ms * 1000000LL; !pred(); usleep(1000)) {
    if (Now() > end) return false;
  }
  return true;
}

// A TaskQueue drained by its own thread: fn gets every MediaTask with its
// arrival time (CLOCK_REALTIME), then the task is disposed of as the
// framework does.
class Sink {
 public:
  explicit Sink(std::function<void(const MediaTask&, int64_t)> fn, size_t capacity = 64)
      : fn_(std::move(fn)), queue_(capacity), thread_([this] {
          pthread_setname_np(pthread_self(), "bench_sink");
          for (TaskQueue::Task t; queue_.Pop(&t); t = TaskQueue::Task()) {
            const int64_t now = Now(CLOCK_REALTIME);
            if (t.data != nullptr && t.info != nullptr && t.info->type_name == "qo::MediaTask") {
              fn_(*static_cast<const MediaTask*>(t.data), now);
            }
            TaskQueue::Dispose(t);
          }
        }) {}
  ~Sink() { Stop(); }
  void Stop() {
    queue_.Close();
    if (thread_.joinable()) thread_.join();
  }
  TaskQueue* queue() { return &queue_; }

 private:
  std::function<void(const MediaTask&, int64_t)> fn_;
  TaskQueue queue_;
  std::thread thread_;
};

// One life: open (or launch and play), first frame, close; ms from the
// open call, first_ms < 0 when there was none.
struct Cycle {
  double open_ms = 0, first_ms = -1, close_ms = 0;
  int64_t t0 = 0;  // the open call
};

// Opens a node that delivers to fn, waits until done(node) holds (up to
// timeout_ms; first_ms: when it held) and closes it.
Cycle RunNode(const std::string& prefix, const Configure& configure,
              const std::function<void(const MediaTask&, int64_t)>& fn,
              const std::function<bool(HostNode&)>& done, int timeout_ms) {
  Cycle c;
  Sink sink(fn, 16);
  HostNode node(prefix);
  configure(node);
  node.Attach(sink.queue(), 0);
  c.t0 = Now();
  node.Open();
  c.open_ms = MsSince(c.t0);
  if (WaitFor([&] { return done(node); }, timeout_ms)) c.first_ms = MsSince(c.t0);
  const int64_t t1 = Now();
  node.Close();
  c.close_ms = MsSince(t1);
  return c;
}

// first_ms is the first frame task's arrival.
Cycle NodeCycle(const std::string& prefix, const Configure& configure) {
  std::atomic<int64_t> first{0};
  Cycle c = RunNode(
      prefix, configure,
      [&first](const MediaTask& t, int64_t) {
        int64_t none = 0;
        if (t.flag == 0) first.compare_exchange_strong(none, Now());
      },
      [&first](HostNode&) { return first != 0; }, 10000);
  c.first_ms = first != 0 ? static_cast<double>(first - c.t0) / 1e6 : -1;
  return c;
}

Configure Uri(const std::string& url, int transport) {
  return [url, transport](HostNode& n) {
    n.SetString("uri", url);
    n.SetInt("lower-trans-type", transport);
  };
}
// An H.264 file; framerate < 0: the node's default pacing.
Configure File(const std::string& path, double framerate, int type = QO_PIX_FMT_H264,
               bool sync = false) {
  return [=](HostNode& n) {
    n.SetString("file", path);
    n.SetInt("stream-type", type);
    n.SetInt("sync-mode", sync ? 1 : 0);
    if (framerate >= 0) n.SetDouble("framerate", framerate);
  };
}

GstElement* Launch(const std::string& desc) {
  GError* err = nullptr;
  GstElement* p = gst_parse_launch(desc.c_str(), &err);
  if (p == nullptr || err != nullptr) {
    std::fprintf(stderr, "qo-bench: cannot build \"%s\"\n", desc.c_str());
    std::exit(1);
  }
  return p;
}
void Stop(GstElement* pipeline) {
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
}
GstSample* Pull(GstElement* pipeline, GstClockTime timeout) {
  GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  GstSample* s = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), timeout);
  gst_object_unref(sink);
  return s;
}

Cycle GstCycle(const std::string& desc) {
  Cycle c;
  const int64_t t0 = Now();
  GstElement* p = Launch(desc + " ! appsink name=sink sync=false");
  gst_element_set_state(p, GST_STATE_PLAYING);
  c.open_ms = MsSince(t0);
  if (GstSample* s = Pull(p, 10 * GST_SECOND)) c.first_ms = MsSince(t0), gst_sample_unref(s);
  const int64_t t1 = Now();
  Stop(p);
  c.close_ms = MsSince(t1);
  return c;
}

// The file layer's parser stage for "h264", "h265" or "mjpeg".
std::string Parser(const std::string& codec) {
  if (codec == "mjpeg") return "jpegparse ! image/jpeg";
  return codec + "parse ! video/x-" + codec + ",stream-format=byte-stream,alignment=au";
}

// ---- file throughput

struct Input {
  const char *codec, *title;
  int type;
  const char* ffmpeg_format;
};
const char* const kReaders[] = {"GStreamer parser chain, in process (baseline)",
                                "gst-launch-1.0 process",
                                "ffmpeg -c copy process",
                                "file decoder layer",
                                "FileInput, sync mode",
                                "FileInput, async, framerate 0"};

// Access units through the layer, fed fresh 256 KiB packets as the file
// node does; -1 when it did not end with end of stream.
int64_t RunLayer(const Input& in, const std::string& path) {
  struct Packet {
    qo_VideoStream vs{};
    uint8_t bytes[262144];
  };
  qo_VideoFileHandle h = qo_VideoFileOpen();
  qo_VideoFileCfg(h, "stream-type", in.type);
  if (qo_VideoFileStart(h) != 0) return qo_VideoFileClose(h), -1;
  std::thread feeder([h, &path] {
    pthread_setname_np(pthread_self(), "bench_feed");
    FILE* f = std::fopen(path.c_str(), "rb");
    for (int r = 0, n = 1; f != nullptr && n > 0 && r >= 0;) {
      auto* p = new Packet;
      n = static_cast<int>(std::fread(p->bytes, 1, sizeof(p->bytes), f));
      p->vs.stream.data = p->bytes;
      p->vs.stream.size = n;
      p->vs.stream.eos = n == 0 ? 1 : 0;
      p->vs.priv = p;
      p->vs.free_func = [](void* q) { delete static_cast<Packet*>(q); };
      while ((r = qo_VideoFilePutStream(h, &p->vs, 60)) > 0) {
      }
    }
    if (f != nullptr) std::fclose(f);
  });
  int64_t frames = 0;
  qo_StreamInfo info{};
  for (; qo_VideoFileGetFrame(h, &info, 10), info.data != nullptr; info = {}, ++frames) {
    qo_VideoFileFrameFree(&info);
  }
  feeder.join();
  qo_VideoFileStop(h);
  qo_VideoFileClose(h);
  return info.eos != 0 ? frames : -1;
}

int64_t RunFileNode(const Input& in, const std::string& path, bool sync) {
  std::atomic<int64_t> frames{0};
  std::atomic<bool> end{false};
  int r = 1;
  const Cycle c = RunNode(
      "qo.mm.file.in", File(path, 0, in.type, sync),
      [&](const MediaTask& t, int64_t) { t.flag == 0 ? (void)++frames : (void)(end = true); },
      [&](HostNode& node) {
        auto* fi = dynamic_cast<mm::FileInput*>(node.thread());
        for (NDArray frame; sync && (r = fi->GetFrame(frame, 10)) == 0;) ++frames;
        return sync || end;
      },
      60000);
  return c.first_ms >= 0 && r == 1 ? frames.load() : -1;
}

// Access units through filesrc ! parser ! fakesink (counted when count).
int64_t RunGst(const Input& in, const std::string& path, bool count) {
  GstElement* p = Launch("filesrc location=\"" + path + "\" ! " + Parser(in.codec) +
                         " ! fakesink name=sink signal-handoffs=" + (count ? "true" : "false"));
  int64_t n = 0;
  GstElement* sink = gst_bin_get_by_name(GST_BIN(p), "sink");
  g_signal_connect(sink, "handoff", G_CALLBACK(+[](GstElement*, GstBuffer*, GstPad*, gpointer d) {
                     ++*static_cast<int64_t*>(d);
                   }),
                   &n);
  gst_object_unref(sink);
  gst_element_set_state(p, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(p);
  GstMessage* msg = gst_bus_timed_pop_filtered(
      bus, 120 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  const bool ok = msg != nullptr && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
  if (msg != nullptr) gst_message_unref(msg);
  gst_object_unref(bus);
  Stop(p);
  return ok ? n : -1;
}

// Seconds for one run of reader c; -1 when it failed or lost or added units.
double TimeReader(int c, const Input& in, const std::string& path, int64_t aus) {
  if (c == 1) {  // one argument per word: gst-launch-1.0 quotes arguments with blanks
    std::vector<std::string> argv = {"gst-launch-1.0", "-q", "filesrc", "location=" + path, "!"};
    std::istringstream words(Parser(in.codec) + " ! fakesink");
    for (std::string w; words >> w;) argv.push_back(w);
    return TimeProcess(argv);
  }
  if (c == 2) {
    return TimeProcess({"ffmpeg", "-v", "error", "-f", in.ffmpeg_format, "-i", path, "-c", "copy",
                        "-f", "null", "-"});
  }
  const int64_t t0 = Now();
  const int64_t got = c == 0   ? (RunGst(in, path, false) < 0 ? -1 : aus)
                      : c == 3 ? RunLayer(in, path)
                               : RunFileNode(in, path, c == 4);
  return got == aus ? MsSince(t0) / 1e3 : -1;
}

void Throughput() {
  const Input inputs[] = {{"h264", "H.264 1080p30", QO_PIX_FMT_H264, "h264"},
                          {"h265", "H.265 1080p30", QO_PIX_FMT_H265, "hevc"},
                          {"mjpeg", "MJPEG 720p30", QO_PIX_FMT_MJPEG, "mjpeg"}};
  std::string rows, dat = "codec", misses;
  for (const char* n : kReaders) dat += Fmt("\t%s", n);
  for (const Input& in : inputs) {
    const std::string path = Arg(in.codec);
    struct stat st;
    if (stat(path.c_str(), &st) != 0) continue;
    const int64_t aus = RunGst(in, path, true);
    std::fprintf(stderr, "qo-bench throughput: %s, %lld access units\n", in.title,
                 static_cast<long long>(aus));
    std::vector<double> secs[6];
    for (int r = 0; r < Num("runs", 5); ++r) {
      for (int c = 0; c < 6; ++c) {
        // --only N: that reader alone, e.g. under a profiler.
        if (Num("only", c) == c) secs[c].push_back(TimeReader(c, in, path, aus));
      }
    }
    const double mb = static_cast<double>(st.st_size) / 1e6, base = Median(secs[0]);
    rows +=
        Fmt("| **%s**, %.1f MB, %lld AU | | | | |\n", in.title, mb, static_cast<long long>(aus));
    dat += Fmt("\n%s", in.title);
    for (int c = 0; c < 6; ++c) {
      const double t = Median(secs[c]);
      const bool failed = t <= 0 || std::count(secs[c].begin(), secs[c].end(), -1.0) > 0;
      const double ratio = failed ? 0 : base / t;  // rate against the baseline
      rows += failed ? Fmt("| %s | failed | | | |\n", kReaders[c])
                     : Fmt("| %s | %.1f | %.0f | %.0f | %.2f |\n", kReaders[c], t * 1e3, aus / t,
                           mb / t, ratio);
      dat += Fmt("\t%.3f", ratio);
      if (c >= 3 && ratio < 0.8) misses += Fmt("; %s, %s: %.2f", in.title, kReaders[c], ratio);
    }
  }
  Report("File throughput", "Reader | median time (ms) | AU/s | MB/s | rate / baseline", rows,
         "every reader of ours at least 0.8 of the in-process GStreamer rate: " +
             Verdict(misses.empty()) + misses,
         dat + "\n");
}

// ---- RTSP latency and scale

// Latencies (ms) of stamped frames from `settle` after the first one until
// `end` (the first sender report maps coarsely). One thread adds; the rest
// is read once it has ended.
struct LatencyLog {
  int64_t settle_ns, end_ns, first = 0;
  std::vector<double> ms;
  std::atomic<bool> done{false};
  void Add(int64_t stamp_ns, int64_t wall_ns) {
    if (stamp_ns < kWallFloorNs || done) return;
    first = first != 0 ? first : wall_ns;
    done = wall_ns - first >= end_ns;
    if (wall_ns - first >= settle_ns && !done) ms.push_back((wall_ns - stamp_ns) / 1e6);
  }
};

void GstLatency(bool tcp, LatencyLog* log, int timeout_ms) {
  GstElement* p = Launch("rtspsrc location=" + Arg("url") + " protocols=" + (tcp ? "tcp" : "udp") +
                         " add-reference-timestamp-meta=true ! rtph264depay ! " + Parser("h264") +
                         " ! appsink name=sink sync=false");
  GstCaps* ntp = gst_caps_new_empty_simple("timestamp/x-ntp");
  gst_element_set_state(p, GST_STATE_PLAYING);
  for (const int64_t end = Now() + timeout_ms * 1000000LL; !log->done && Now() < end;) {
    GstSample* s = Pull(p, 100 * GST_MSECOND);
    if (s == nullptr) continue;
    const int64_t now = Now(CLOCK_REALTIME);
    auto* m = gst_buffer_get_reference_timestamp_meta(gst_sample_get_buffer(s), ntp);
    if (m != nullptr && m->timestamp > kNtpToUnixNs) log->Add(m->timestamp - kNtpToUnixNs, now);
    gst_sample_unref(s);
  }
  gst_caps_unref(ntp);
  Stop(p);
}

void Latency() {
  const int runs = static_cast<int>(Num("runs", 5));
  const double settle = Num("settle", 1), seconds = Num("seconds", 8);
  const char* const names[] = {"VideoInput, UDP", "GStreamer rtspsrc, UDP", "VideoInput, TCP",
                               "GStreamer rtspsrc, TCP"};
  std::vector<double> medians[4], p99s[4], pooled[4];
  for (int r = 0; r < runs; ++r) {
    for (int c = 0; c < 4; ++c) {
      std::fprintf(stderr, "qo-bench latency: %s, run %d/%d\n", names[c], r + 1, runs);
      LatencyLog log{static_cast<int64_t>(settle * 1e9),
                     static_cast<int64_t>((settle + seconds) * 1e9),
                     0,
                     {}};
      const int timeout_ms = static_cast<int>((settle + seconds + 15) * 1000);
      if (c % 2 == 1) GstLatency(c >= 2, &log, timeout_ms);
      if (c % 2 == 0) {
        RunNode(
            "qo.mm.video.in", Uri(Arg("url"), c >= 2 ? RTSP_TRANS_TCP : RTSP_TRANS_UDP),
            [&log](const MediaTask& t, int64_t now) {
              if (t.flag == 0) log.Add(t.time_stamp, now);
            },
            [&log](HostNode&) { return log.done.load(); }, timeout_ms);
      }
      if (!log.done || log.ms.empty()) continue;
      medians[c].push_back(Median(log.ms));
      p99s[c].push_back(Pct(log.ms, 99));
      pooled[c].insert(pooled[c].end(), log.ms.begin(), log.ms.end());
    }
  }
  std::string rows, targets, cdf;
  for (int c = 0; c < 4; ++c) {
    const double med = Median(medians[c]), p99 = Median(p99s[c]);
    const double base_med = Median(medians[c | 1]), base_p99 = Median(p99s[c | 1]);
    rows += Fmt("| %s | %zu/%d | %.2f | %.2f | %.2f | %.2f / %.2f |\n", names[c], medians[c].size(),
                runs, med, p99, Pct(pooled[c], 100), med / base_med, p99 / base_p99);
    if (c % 2 == 0) {
      targets +=
          Fmt("%s%s median under 5 ms, 99th percentile under 20 ms: ", targets.empty() ? "" : "; ",
              names[c]) +
          Verdict(med > 0 && med < 5 && p99 < 20);
    }
    // Empirical distribution for the plot: latency, fraction of frames below.
    std::sort(pooled[c].begin(), pooled[c].end());
    cdf += Fmt("\"%s\"\n", names[c]);
    for (size_t i = 0; i < pooled[c].size(); ++i) {
      cdf += Fmt("%.3f\t%.5f\n", pooled[c][i], (i + 1.0) / static_cast<double>(pooled[c].size()));
    }
    cdf += "\n\n";
  }
  Report("RTSP latency",
         "Receiver | runs | median (ms) | 99th pct (ms) | max (ms) | median / p99 vs GStreamer",
         rows, targets, cdf);
}

// Scale readers: the node, the live-stream layer under it, and GStreamer's
// own chain, each pulled by a thread per stream.
const char* const kScaleKinds[] = {"gst", "layer", "node"};
const char* ScaleName(const std::string& kind) {
  if (kind == "gst") return "GStreamer rtspsrc chain (baseline)";
  return kind == "layer" ? "live-stream layer" : "VideoInput";
}

// Frames and losses of one stream, touched by one thread at a time.
struct ScaleStream {
  int64_t last = 0, frames = 0, lost = 0;
};

// One scale step, in a fresh process: writes its table row and its plot
// line to --result.
void ScaleStep() {
  const int n = static_cast<int>(Num("streams", 1));
  const std::string kind = Arg("kind").empty() ? "node" : Arg("kind"), url = Arg("url");
  const double seconds = Num("seconds", 10), frame_ns = 1e9 / Num("fps", 30);
  const auto server = static_cast<pid_t>(Num("server-pid", 0));
  rlimit files;  // about 14 descriptors per stream
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  const std::string chain = "rtspsrc location=" + url +
                            " protocols=udp latency=0 add-reference-timestamp-meta=true ! "
                            "rtph264depay ! " +
                            Parser("h264") + " ! appsink name=sink sync=false max-buffers=8";
  // One-time costs (registry, plugins) stay out of the per-stream figures.
  if (kind == "gst")
    GstCycle(chain.substr(0, chain.find(" ! appsink")));
  else
    NodeCycle("qo.mm.video.in", Uri(url, RTSP_TRANS_UDP));
  const Proc base = SampleProc();
  std::vector<ScaleStream> streams(n);
  std::atomic<bool> measuring{false}, quit{false};
  std::atomic<int> stamped{0};
  auto count = [&](int i, int64_t stamp) {
    if (stamp < kWallFloorNs || i < 0 || i >= n) return;
    ScaleStream& s = streams[i];
    if (s.last == 0) ++stamped;
    if (measuring && s.last != 0) {
      ++s.frames;
      s.lost += std::max<int64_t>(0, std::llround((stamp - s.last) / frame_ns) - 1);
    }
    s.last = stamp;
  };
  Sink sink(
      [&](const MediaTask& t, int64_t) { count(t.flag == 0 ? t.source_id : -1, t.time_stamp); },
      256);
  std::vector<std::unique_ptr<HostNode>> nodes;
  std::vector<qo_StrmHandle> layers(n);
  std::vector<GstElement*> chains(n);
  std::vector<std::thread> pullers;
  GstCaps* ntp = gst_caps_new_empty_simple("timestamp/x-ntp");
  int64_t t0 = Now();
  for (int i = 0; i < n; ++i) {
    if (kind == "node") {
      nodes.emplace_back(new HostNode("qo.mm.video.in"));
      Uri(url, RTSP_TRANS_UDP)(*nodes.back());
      nodes.back()->SetInt("stream-id", i);
      nodes.back()->Attach(sink.queue(), 0);
      nodes.back()->Open();
    } else if (kind == "layer") {
      layers[i] = qo_VideoStreamOpen(url.c_str());
      qo_VideoStreamCfg(layers[i], "stream-type", QO_PIX_FMT_H264);
      qo_VideoStreamCfg(layers[i], "lower-trans-type", RTSP_TRANS_UDP);
      qo_VideoStreamStart(layers[i]);
      pullers.emplace_back([&, i] {
        pthread_setname_np(pthread_self(), "bench_pull");
        while (!quit) {
          qo_StreamInfo f{};
          qo_VideoStreamGetFrame(layers[i], &f, 1);
          if (f.data == nullptr && f.eos != 0) break;
          if (f.data == nullptr) continue;
          count(i, static_cast<int64_t>(f.time_stamp));
          qo_VideoStreamFrameFree(&f);
        }
      });
    } else {
      chains[i] = Launch(chain);
      gst_element_set_state(chains[i], GST_STATE_PLAYING);
      pullers.emplace_back([&, i] {
        pthread_setname_np(pthread_self(), "bench_pull");
        GstElement* appsink = gst_bin_get_by_name(GST_BIN(chains[i]), "sink");
        while (!quit) {
          GstSample* s = gst_app_sink_try_pull_sample(GST_APP_SINK(appsink), GST_SECOND);
          if (s == nullptr) continue;
          auto* m = gst_buffer_get_reference_timestamp_meta(gst_sample_get_buffer(s), ntp);
          if (m != nullptr && m->timestamp > kNtpToUnixNs)
            count(i, static_cast<int64_t>(m->timestamp - kNtpToUnixNs));
          gst_sample_unref(s);
        }
        gst_object_unref(appsink);
      });
    }
  }
  const double open_s = MsSince(t0) / 1e3;
  WaitFor([&] { return stamped == n; }, 60000);
  usleep(2000000);
  const Proc a0 = SampleProc(), s0 = server > 0 ? SampleProc(server) : Proc();
  const std::map<std::string, double> threads0 = ThreadCpu();
  t0 = Now();
  measuring = true;
  usleep(static_cast<useconds_t>(seconds * 1e6));
  measuring = false;
  const double secs = MsSince(t0) / 1e3;
  const Proc a1 = SampleProc(), s1 = server > 0 ? SampleProc(server) : Proc();
  {
    // Where the CPU went, per thread name and stream (% of a core), beside
    // the result: the breakdown behind the ratios in results.md.
    std::ofstream by_thread(Arg("result") + ".threads");
    for (const auto& kv : ThreadCpu()) {
      const auto before = threads0.find(kv.first);
      const double used = kv.second - (before != threads0.end() ? before->second : 0);
      if (used > 0) by_thread << Fmt("%s\t%.4f\n", kv.first.c_str(), used / secs * 100 / n);
    }
  }
  t0 = Now();
  // The layer's streams are closed without a stop: a stop waits for the
  // puller to see the end, one stream after the other.
  quit = true;
  for (std::thread& t : pullers) t.join();
  for (int i = 0; i < n && kind == "layer"; ++i) qo_VideoStreamClose(layers[i]);
  for (int i = 0; i < n && kind == "gst"; ++i) Stop(chains[i]);
  nodes.clear();  // closes and destroys each
  const double close_s = MsSince(t0) / 1e3;
  sink.Stop();
  gst_caps_unref(ntp);
  std::vector<double> fps;
  int64_t lost = 0;
  for (const ScaleStream& s : streams) fps.push_back(s.frames / secs), lost += s.lost;
  const double med = Median(fps), min = *std::min_element(fps.begin(), fps.end()),
               cpu = (a1.cpu_s - a0.cpu_s) / secs * 100 / n,
               srv = (s1.cpu_s - s0.cpu_s) / secs * 100, rss = (a1.rss_mib - base.rss_mib) / n,
               threads = static_cast<double>(a1.threads - base.threads) / n,
               fds = static_cast<double>(a1.fds - base.fds) / n;
  // Fields: N, kind, streams with frames, fps median, fps min, lost, CPU per
  // stream, RSS per stream, threads per stream, fds per stream, server CPU,
  // open s, close s, threads, fds.
  std::ofstream(Arg("result")) << Fmt(
      "%d\t%s\t%d\t%.2f\t%.2f\t%lld\t%.3f\t%.3f\t%.2f\t%.2f\t%.0f\t%.1f\t%.1f\t%d\t%d\n", n,
      kind.c_str(), stamped.load(), med, min, static_cast<long long>(lost), cpu, rss, threads, fds,
      srv, open_s, close_s, a1.threads, a1.fds);
}

struct ScaleRow {
  int n = 0, with_frames = 0, threads = 0, fds = 0;
  std::string kind;
  double fps_med = 0, fps_min = 0, cpu = 0, rss = 0, threads_per = 0, fds_per = 0, srv = 0,
         open_s = 0, close_s = 0;
  long long lost = 0;
  bool ok = false;
};

ScaleRow ReadScaleRow(const std::string& path) {
  ScaleRow r;
  std::ifstream f(path);
  r.ok = static_cast<bool>(f >> r.n >> r.kind >> r.with_frames >> r.fps_med >> r.fps_min >>
                           r.lost >> r.cpu >> r.rss >> r.threads_per >> r.fds_per >> r.srv >>
                           r.open_s >> r.close_s >> r.threads >> r.fds);
  return r;
}

// Each N runs the baseline chain first, then our readers (--kinds), each in
// a fresh process, so that their ratios come from the same minutes.
void Scale() {
  if (g_args.count("result")) return ScaleStep();
  const std::string label = Arg("label").empty() ? "1080p30" : Arg("label");
  std::vector<std::string> kinds;
  std::istringstream kind_list(Arg("kinds").empty() ? "gst,layer,node" : Arg("kinds"));
  for (std::string k; std::getline(kind_list, k, ',');) kinds.push_back(k);
  std::string rows, dat, misses, where;
  const double target_at = Num("target-at", 64);
  std::istringstream list(Arg("streams"));
  // Rounds interleave the kinds (chain, layer, node, chain, ...); each kind's
  // row is its round with the median CPU, so that one disturbed minute on a
  // shared machine does not decide a ratio.
  const int rounds = std::max(1, static_cast<int>(Num("rounds", 1)));
  for (std::string n; std::getline(list, n, ',');) {
    std::map<std::string, std::vector<std::pair<ScaleRow, std::string>>> runs;
    for (int round = 0; round < rounds; ++round) {
      for (const std::string& kind : kinds) {
        std::fprintf(stderr, "qo-bench scale: %s, %s streams, %s, round %d\n", label.c_str(),
                     n.c_str(), kind.c_str(), round + 1);
        // A fresh process each: memory freed by a larger run cannot flatter a smaller one.
        const std::string result = Arg("out") + "/scale_" + label + "_" + n + "_" + kind + "_" +
                                   std::to_string(round) + ".txt";
        std::vector<std::string> argv = {"/proc/self/exe", "scale",  "--result",
                                         result,           "--kind", kind};
        for (const auto& kv : g_args) {
          if (kv.first == "kinds" || kv.first == "rounds") continue;
          argv.insert(argv.end(), {"--" + kv.first, kv.first == "streams" ? n : kv.second});
        }
        unlink(result.c_str());
        TimeProcess(argv, true);
        const ScaleRow r = ReadScaleRow(result);
        if (r.ok) runs[kind].emplace_back(r, result);
      }
    }
    ScaleRow base;
    for (const std::string& kind : kinds) {
      auto& mine = runs[kind];
      if (mine.empty()) {
        rows += "| " + n + " | " + ScaleName(kind) + " | failed |\n";
        continue;
      }
      std::sort(mine.begin(), mine.end(),
                [](const auto& a, const auto& b) { return a.first.cpu < b.first.cpu; });
      const ScaleRow& r = mine[mine.size() / 2].first;
      const std::string& result = mine[mine.size() / 2].second;
      if (kind == "gst") base = r;
      const bool has_base = base.ok && kind != "gst";
      const double cpu_ratio = has_base ? r.cpu / base.cpu : 1,
                   rss_ratio = has_base ? r.rss / base.rss : 1;
      rows +=
          Fmt("| %d | %s | %d | %.2f / %.2f | %lld | %.3f | %s | %.2f | %s | %.2f | %.2f | %.0f | "
              "%d / %d |\n",
              r.n, ScaleName(kind), r.with_frames, r.fps_med, r.fps_min, r.lost, r.cpu,
              has_base ? Fmt("%.2f", cpu_ratio).c_str() : "1", r.rss,
              has_base ? Fmt("%.2f", rss_ratio).c_str() : "1", r.threads_per, r.fds_per, r.srv,
              r.threads, r.fds);
      dat += Fmt("%d\t%s\t%.4f\t%.3f\t%.3f\t%.3f\n", r.n, kind.c_str(), r.cpu, r.threads_per, r.rss,
                 r.fds_per);
      if (r.n == static_cast<int>(target_at)) {
        std::string cpus;
        for (const auto& run : mine) cpus += Fmt(" %.3f", run.first.cpu);
        // The threads that use at least 0.001 % of a core per stream.
        std::string by_thread;
        std::ifstream f(result + ".threads");
        std::string name;
        for (double pct; f >> name >> pct;)
          if (pct >= 0.001) by_thread += Fmt(", %s %.3f", name.c_str(), pct);
        where += Fmt("- %s (CPU per stream in each round:%s):%s\n", ScaleName(kind), cpus.c_str(),
                     by_thread.empty() ? "" : by_thread.c_str() + 1);
      }
      // Any round that lost frames or streams counts, not only the median one.
      long long lost = 0;
      int fewest = r.n;
      for (const auto& run : mine) lost += run.first.lost, fewest = std::min(fewest, run.first.with_frames);
      if (has_base && r.n == static_cast<int>(target_at) &&
          (cpu_ratio > 1.05 || rss_ratio > 1.05 || lost > 0 || fewest < r.n)) {
        misses += Fmt("; %s at %d: CPU %.2f, RSS %.2f, lost %lld", ScaleName(kind), r.n, cpu_ratio,
                      rss_ratio, lost);
      }
    }
  }
  g_area = "scale_" + label;
  Report("Scale: concurrent RTSP streams, " + label,
         "N | reader | streams with frames | fps per stream (median / min) | frames lost | CPU "
         "per stream (% of a core) | CPU / baseline | RSS per stream (MiB) | RSS / baseline | "
         "threads per stream | fds per stream | server CPU (%) | threads / fds in all",
         rows,
         Fmt("at %d streams, CPU and RSS per stream of the layer and the node at most 1.05x the "
             "baseline, no frame lost: ",
             static_cast<int>(target_at)) +
             Verdict(misses.empty()) + misses +
             (where.empty() ? "" : Fmt("\n\nCPU per stream by thread name at %d streams (%% of a core):\n\n",
                                       static_cast<int>(target_at)) + where),
         dat);
}

// ---- start/stop and churn

void StartStop() {
  const std::string url = Arg("url"), rtsp = "rtspsrc location=" + url + " protocols=",
                    h264 = " ! rtph264depay ! " + Parser("h264");
  struct Row {
    const char* name;
    size_t baseline;  // the row to compare with; itself for a baseline
    std::function<Cycle()> cycle;
  };
  const std::vector<Row> table = {
      {"VideoInput, RTSP over UDP", 2,
       [&] { return NodeCycle("qo.mm.video.in", Uri(url, RTSP_TRANS_UDP)); }},
      {"VideoInput, RTSP over TCP", 3,
       [&] { return NodeCycle("qo.mm.video.in", Uri(url, RTSP_TRANS_TCP)); }},
      {"GStreamer rtspsrc, UDP (baseline)", 2, [&] { return GstCycle(rtsp + "udp" + h264); }},
      {"GStreamer rtspsrc, TCP (baseline)", 3, [&] { return GstCycle(rtsp + "tcp" + h264); }},
      {"FileInput, H.264 file", 7,
       [] { return NodeCycle("qo.mm.file.in", File(Arg("h264"), -1)); }},
      {"FileInput, H.264 file, framerate 0", 7,
       [] { return NodeCycle("qo.mm.file.in", File(Arg("h264"), 0)); }},
      {"VideoInput, file:// H.264 file", 7,
       [] { return NodeCycle("qo.mm.video.in", Uri("file://" + Arg("h264"), RTSP_TRANS_UDP)); }},
      {"GStreamer filesrc ! h264parse ! appsink (baseline)", 7,
       [] { return GstCycle("filesrc location=\"" + Arg("h264") + "\" ! " + Parser("h264")); }}};
  const int runs = static_cast<int>(Num("runs", 10));
  std::vector<std::vector<double>> open(8), first(8), close(8);
  for (int r = 0; r < runs; ++r) {
    std::fprintf(stderr, "qo-bench startstop: run %d/%d\n", r + 1, runs);
    for (size_t i = 0; i < table.size(); ++i) {
      const Cycle c = table[i].cycle();
      if (c.first_ms < 0) continue;  // no frame: not a complete life
      open[i].push_back(c.open_ms);
      first[i].push_back(c.first_ms);
      close[i].push_back(c.close_ms);
    }
  }
  std::string rows, dat = "reader\topen to first frame\tclose\n", slow;
  for (size_t i = 0; i < table.size(); ++i) {
    const size_t b = table[i].baseline;
    const double f = Median(first[i]), c = Median(close[i]);
    rows += Fmt("| %s | %zu/%d | %.1f | %.1f | %.1f | %s |\n", table[i].name, first[i].size(), runs,
                Median(open[i]), f, c,
                b == i ? "baseline"
                       : Fmt("%.2f / %.2f", f / Median(first[b]), c / Median(close[b])).c_str());
    dat += Fmt("%s\t%.2f\t%.2f\n", table[i].name, f, c);
    if (b != i && !(c < 100)) slow += Fmt("; %s: %.0f ms", table[i].name, c);
  }
  Report("Start and stop",
         "Reader | complete runs | open call (ms) | open to first frame (ms) | close call (ms) | "
         "first frame / close vs baseline",
         rows, "every node's close under 100 ms: " + Verdict(slow.empty()) + slow, dat);
}

void Churn() {
  const int cycles = static_cast<int>(Num("cycles", 1000));
  // Allocator arenas and GStreamer's thread pools settle over the first few
  // dozen cycles; growth counts from here.
  const int warm_at = std::max(10, cycles / 100 * 10);
  const std::vector<std::pair<std::string, Configure>> kinds = {
      {"VideoInput, RTSP over UDP", Uri(Arg("url"), RTSP_TRANS_UDP)},
      {"FileInput, H.264 file, framerate 0", File(Arg("h264"), 0)}};
  std::string rows, dat, target;
  for (const auto& k : kinds) {
    const char* name = k.first.c_str();
    const Proc s0 = SampleProc();
    Proc warm = s0;
    std::vector<double> ms;
    int no_frame = 0;
    dat += Fmt("\"%s\"\n0\t%.2f\t%d\t%d\n", name, s0.rss_mib, s0.fds, s0.threads);
    for (int i = 1; i <= cycles; ++i) {
      const int64_t t0 = Now();
      no_frame +=
          NodeCycle(name[0] == 'V' ? "qo.mm.video.in" : "qo.mm.file.in", k.second).first_ms < 0;
      ms.push_back(MsSince(t0));
      if (i % 10 != 0) continue;
      const Proc s = SampleProc();
      warm = i == warm_at ? s : warm;
      dat += Fmt("%d\t%.2f\t%d\t%d\n", i, s.rss_mib, s.fds, s.threads);
      if (i % 100 == 0) std::fprintf(stderr, "qo-bench churn: %s, %d/%d\n", name, i, cycles);
    }
    dat += "\n\n";
    const Proc end = SampleProc();
    rows += Fmt("| %s | %d | %d | %.1f | %.1f / %.1f / %.1f | %d / %d / %d | %d / %d / %d |\n",
                name, cycles, no_frame, Median(ms), s0.rss_mib, warm.rss_mib, end.rss_mib, s0.fds,
                warm.fds, end.fds, s0.threads, warm.threads, end.threads);
    target += Fmt("; %s: ", name) + Verdict(end.fds <= warm.fds && end.threads <= warm.threads &&
                                            end.rss_mib - warm.rss_mib < 2);
  }
  Report(
      "Churn",
      Fmt("Node | cycles | cycles without a frame | median cycle (ms) | RSS MiB (before / after "
          "%d / after all) | fds (same) | threads (same)",
          warm_at),
      rows,
      Fmt("flat from cycle %d on (no descriptor or thread more, RSS growth under 2 MiB)", warm_at) +
          target,
      dat);
}

}  // namespace
}  // namespace bench
}  // namespace qo

int main(int argc, char** argv) {
  using namespace qo::bench;
  g_command = "build/release/bench/qo-bench";
  for (int i = 1; i < argc; ++i) g_command += std::string(" ") + argv[i];
  g_area = argc > 1 ? argv[1] : "";
  for (int i = 2; i + 1 < argc; i += 2) g_args[argv[i] + 2] = argv[i + 1];
  const std::map<std::string, void (*)()> areas = {{"throughput", Throughput},
                                                   {"latency", Latency},
                                                   {"scale", Scale},
                                                   {"startstop", StartStop},
                                                   {"churn", Churn}};
  if (!areas.count(g_area) || Arg("out").empty()) {
    std::fprintf(stderr,
                 "usage: qo-bench throughput|latency|scale|startstop|churn --out DIR "
                 "[--key value ...]\n");
    return 2;
  }
  // The layers report frame by frame: their sinks drop it. The node log
  // keeps its warnings, on standard error.
  qo_VideoStreamSetLogSink([](const char*, void*) {}, nullptr);
  qo_VideoFileSetLogSink([](const char*, void*) {}, nullptr);
  qo::g_log_level = 4;
  gst_init(nullptr, nullptr);
  areas.at(g_area)();
  return 0;
}
