// qomm ingest: every URL of a camera list as its own video input node, with
// a live table of the nodes' counters and, on request, the same counters for
// Prometheus over HTTP.
#include <libsoup/soup.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/qo_task_queue.h"
#include "node/qo_video_in_node.h"
#include "qomm.h"

namespace qomm {

extern const char kIngestUsage[];
const char kIngestUsage[] =
    "usage: qomm ingest FILE [--metrics HOST:PORT] [--seconds N] [--tcp]\n"
    "\n"
    "Runs every URL listed in FILE (one a line; empty lines and lines starting\n"
    "with # are skipped) as its own video input node, until Ctrl-C or SIGTERM.\n"
    "On a terminal a table of each stream's counters is redrawn every second;\n"
    "otherwise one line of totals is printed every 10 s.\n"
    "  --metrics HOST:PORT  serve the counters at http://HOST:PORT/metrics in\n"
    "                       Prometheus' text format (HOST: 127.0.0.1 or ::1)\n"
    "  --seconds N          stop after N seconds\n"
    "  --tcp                RTP over the RTSP connection instead of UDP\n"
    "Exit status: 0, or 1 when a stream could not be opened.\n";

// The soft descriptor limit up to the hard one: a stream holds about 14
// descriptors, and Debian's default soft limit of 1024 stops at about 70
// cameras. qomm uses poll(), never select(), so a high limit is safe.
void RaiseDescriptorLimit() {
  rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur >= files.rlim_max) return;
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
}

namespace {

struct Camera {
  std::string url, shown;  // shown: the password masked
  std::unique_ptr<qo::HostNode> node;
  bool opened = false;
  std::string open_error;
  uint64_t frames_before = 0;  // for the table's frame rate
};

// Counters of one stream, read from its node.
struct Reading {
  qo_StreamStats s{};
  uint64_t timeout_tasks = 0;
};

Reading Read(const Camera& c) {
  Reading r;
  static_cast<const qo::mm::VideoInput*>(c.node->handle())->Stats(&r.s, &r.timeout_tasks);
  if (!c.open_error.empty() && r.s.reason_text[0] == '\0')
    snprintf(r.s.reason_text, sizeof(r.s.reason_text), "%s", c.open_error.c_str());
  return r;
}

std::vector<std::string> ReadList(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw UsageError("cannot read " + path);
  std::vector<std::string> urls;
  for (std::string line; std::getline(in, line);) {
    const size_t a = line.find_first_not_of(" \t\r");
    if (a == std::string::npos || line[a] == '#') continue;
    const size_t b = line.find_last_not_of(" \t\r");
    urls.push_back(line.substr(a, b - a + 1));
  }
  if (urls.empty()) throw UsageError(path + " lists no URL");
  return urls;
}

// A label value in the exposition format: backslash, quote and newline
// escaped.
std::string Label(const std::string& v) {
  std::string out;
  for (char c : v) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out;
}

std::string Seconds(int64_t ns) {
  if (ns == -1) return "NaN";
  char buf[32];
  snprintf(buf, sizeof(buf), "%.6f", static_cast<double>(ns) / 1e9);
  return buf;
}

// The counters of every stream in Prometheus' text exposition format.
std::string Exposition(const std::vector<Camera>& cams) {
  std::vector<Reading> rs;
  rs.reserve(cams.size());
  for (const Camera& c : cams) rs.push_back(Read(c));
  struct Family {
    const char *name, *type, *help;
    std::string (*value)(const Reading&);
  };
  static const Family kFamilies[] = {
      {"qomm_stream_frames_total", "counter", "Frames the stream delivered.",
       [](const Reading& r) { return std::to_string(r.s.frames); }},
      {"qomm_stream_bytes_total", "counter", "Payload bytes of those frames.",
       [](const Reading& r) { return std::to_string(r.s.bytes); }},
      {"qomm_stream_timeouts_total", "counter", "Frame pulls that waited out their time-out.",
       [](const Reading& r) { return std::to_string(r.s.timeouts); }},
      {"qomm_stream_timeout_tasks_total", "counter",
       "Time-out tasks the node sent after its retry budget ran out.",
       [](const Reading& r) { return std::to_string(r.timeout_tasks); }},
      {"qomm_stream_reconnects_total", "counter", "Reconnection attempts of the RTSP source.",
       [](const Reading& r) { return std::to_string(r.s.reconnects); }},
      {"qomm_stream_last_frame_age_seconds", "gauge",
       "Age of the last frame against the sender's clock (NaN: not known).",
       [](const Reading& r) { return Seconds(r.s.last_age_ns); }},
      {"qomm_stream_median_frame_age_seconds", "gauge",
       "Median age of the last 32 frames against the sender's clock (NaN: not known).",
       [](const Reading& r) { return Seconds(r.s.median_age_ns); }},
      {"qomm_stream_reason_code", "gauge",
       "Why the stream delivers no frames: 0 nothing wrong, else a qo_StreamError.",
       [](const Reading& r) { return std::to_string(r.s.reason); }},
  };
  std::string out;
  for (const Family& f : kFamilies) {
    out +=
        std::string("# HELP ") + f.name + " " + f.help + "\n# TYPE " + f.name + " " + f.type + "\n";
    for (size_t i = 0; i < cams.size(); ++i) {
      out += std::string(f.name) + "{stream=\"" + std::to_string(i) + "\",url=\"" +
             Label(cams[i].shown) + "\"} " + f.value(rs[i]) + "\n";
    }
  }
  out +=
      "# HELP qomm_stream_reason The last failure's text, as a label (1 while there is one).\n"
      "# TYPE qomm_stream_reason gauge\n";
  for (size_t i = 0; i < cams.size(); ++i) {
    if (rs[i].s.reason_text[0] == '\0') continue;
    out += "qomm_stream_reason{stream=\"" + std::to_string(i) + "\",reason=\"" +
           Label(MaskPasswords(rs[i].s.reason_text)) + "\"} 1\n";
  }
  return out;
}

// /metrics on HOST:PORT, served by libsoup on a thread of its own with its
// own main context.
class MetricsServer {
 public:
  MetricsServer(const std::string& where, const std::vector<Camera>* cams) : cams_(cams) {
    const size_t colon = where.rfind(':');
    if (colon == std::string::npos) throw UsageError("--metrics needs HOST:PORT");
    std::string host = where.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
      host = host.substr(1, host.size() - 2);
    port_ = std::atoi(where.c_str() + colon + 1);
    if (port_ <= 0 || port_ > 65535) throw UsageError("--metrics: bad port in " + where);
    addr_ = g_inet_socket_address_new_from_string(host.c_str(), static_cast<guint>(port_));
    if (addr_ == nullptr) throw UsageError("--metrics: " + host + " is not an IP address");
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    std::string error;
    thread_ = std::thread([this, &error] {
      pthread_setname_np(pthread_self(), "ingest_http");
      g_main_context_push_thread_default(context_);
      server_ = soup_server_new("server-header", "qomm", nullptr);
      soup_server_add_handler(server_, "/metrics", Handle, this, nullptr);
      GError* err = nullptr;
      if (!soup_server_listen(server_, addr_, static_cast<SoupServerListenOptions>(0), &err)) {
        error = err->message;
        g_error_free(err);
      }
      {
        std::lock_guard<std::mutex> lock(ready_lock_);
        ready_ = true;
      }
      ready_cv_.notify_one();
      if (error.empty()) g_main_loop_run(loop_);
      soup_server_disconnect(server_);
      g_object_unref(server_);
      g_main_context_pop_thread_default(context_);
    });
    std::unique_lock<std::mutex> lock(ready_lock_);
    ready_cv_.wait(lock, [this] { return ready_; });
    lock.unlock();
    if (!error.empty()) {
      thread_.join();
      Release();
      throw std::runtime_error("cannot serve metrics on " + where + ": " + error);
    }
  }
  ~MetricsServer() {
    g_main_loop_quit(loop_);
    thread_.join();
    Release();
  }
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

 private:
  static void Handle(SoupServer*, SoupServerMessage* msg, const char*, GHashTable*, gpointer self) {
    if (g_strcmp0(soup_server_message_get_method(msg), "GET") != 0) {
      soup_server_message_set_status(msg, SOUP_STATUS_METHOD_NOT_ALLOWED, nullptr);
      return;
    }
    const std::string body = Exposition(*static_cast<MetricsServer*>(self)->cams_);
    soup_server_message_set_status(msg, SOUP_STATUS_OK, nullptr);
    soup_server_message_set_response(msg, "text/plain; version=0.0.4; charset=utf-8",
                                     SOUP_MEMORY_COPY, body.data(), body.size());
  }
  void Release() {
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
    g_object_unref(addr_);
  }

  const std::vector<Camera>* cams_;
  int port_ = 0;
  GSocketAddress* addr_ = nullptr;
  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  SoupServer* server_ = nullptr;
  std::thread thread_;
  std::mutex ready_lock_;
  std::condition_variable ready_cv_;
  bool ready_ = false;
};

std::string Ms(int64_t ns) {
  if (ns == -1) return "-";
  char buf[32];
  snprintf(buf, sizeof(buf), "%.1f", static_cast<double>(ns) / 1e6);
  return buf;
}

// Redraws the table in place, as many rows as the terminal has room for.
void DrawTable(std::vector<Camera>* cams, double secs) {
  winsize ws{};
  const int rows = ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_row > 4 ? ws.ws_row - 3 : 20;
  std::string out = "\033[H\033[2J";
  char line[512];
  snprintf(line, sizeof(line), "%4s %-40s %8s %6s %9s %5s %5s %9s %s\n", "#", "url", "frames",
           "fps", "MiB", "t/o", "recon", "age ms", "reason");
  out += line;
  uint64_t frames = 0, failing = 0;
  for (size_t i = 0; i < cams->size(); ++i) {
    Camera& c = (*cams)[i];
    const Reading r = Read(c);
    const double fps = static_cast<double>(r.s.frames - c.frames_before) / secs;
    c.frames_before = r.s.frames;
    frames += r.s.frames;
    failing += r.s.reason != 0;
    if (static_cast<int>(i) >= rows - 1) continue;
    std::string shown = c.shown.size() > 40 ? "..." + c.shown.substr(c.shown.size() - 37) : c.shown;
    snprintf(line, sizeof(line), "%4zu %-40s %8llu %6.1f %9.1f %5llu %5llu %9s %s\n", i,
             shown.c_str(), static_cast<unsigned long long>(r.s.frames), fps,
             static_cast<double>(r.s.bytes) / 1048576.0,
             static_cast<unsigned long long>(r.s.timeouts),
             static_cast<unsigned long long>(r.s.reconnects), Ms(r.s.median_age_ns).c_str(),
             MaskPasswords(r.s.reason_text).c_str());
    out += line;
  }
  snprintf(line, sizeof(line), "%zu streams, %llu frames, %llu with a failure reason\n",
           cams->size(), static_cast<unsigned long long>(frames),
           static_cast<unsigned long long>(failing));
  out += line;
  fputs(out.c_str(), stdout);
  fflush(stdout);
}

void PrintTotals(const std::vector<Camera>& cams) {
  uint64_t frames = 0, delivering = 0, failing = 0;
  for (const Camera& c : cams) {
    const Reading r = Read(c);
    frames += r.s.frames;
    delivering += r.s.frames > 0;
    failing += r.s.reason != 0;
  }
  printf("%zu streams: %llu delivering, %llu frames, %llu with a failure reason\n", cams.size(),
         static_cast<unsigned long long>(delivering), static_cast<unsigned long long>(frames),
         static_cast<unsigned long long>(failing));
  fflush(stdout);
}

// Closes every node; closes take tens of milliseconds each, so a few
// threads share them.
void CloseAll(std::vector<Camera>* cams) {
  constexpr size_t kClosers = 8;
  std::vector<std::thread> closers;
  for (size_t t = 0; t < kClosers; ++t) {
    closers.emplace_back([cams, t] {
      pthread_setname_np(pthread_self(), "ingest_close");
      for (size_t i = t; i < cams->size(); i += kClosers) (*cams)[i].node.reset();
    });
  }
  for (std::thread& t : closers) t.join();
}

}  // namespace

int RunIngest(ArgReader& args) {
  std::string list, metrics;
  int seconds = 0, transport = RTSP_TRANS_UDP;
  while (!args.done()) {
    const std::string a = args.Next();
    if (a == "--metrics") {
      metrics = args.Value(a);
    } else if (a == "--seconds") {
      seconds = args.IntValue(a, 1, 1 << 30);
    } else if (a == "--tcp") {
      args.NoValue(a);
      transport = RTSP_TRANS_TCP;
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("unknown option " + a);
    } else if (list.empty()) {
      list = a;
    } else {
      throw UsageError("ingest takes one FILE");
    }
  }
  if (list.empty()) throw UsageError("ingest needs a FILE of URLs");
  RaiseDescriptorLimit();
  std::vector<Camera> cams;
  for (const std::string& url : ReadList(list)) {
    cams.emplace_back();
    cams.back().url = url;
    cams.back().shown = MaskPasswords(url);
  }
  // Frames are counted by the nodes themselves: the host only drains.
  qo::TaskQueue queue(1024);
  std::thread drain([&queue] {
    pthread_setname_np(pthread_self(), "ingest_drain");
    for (qo::TaskQueue::Task t; queue.Pop(&t); t = qo::TaskQueue::Task()) {
      qo::TaskQueue::Dispose(t);
    }
  });
  int failed = 0;
  for (size_t i = 0; i < cams.size(); ++i) {
    Camera& c = cams[i];
    c.node.reset(new qo::HostNode("qo.mm.video.in"));
    c.node->SetString("uri", c.url);
    c.node->SetInt("stream-id", static_cast<int>(i));
    c.node->SetInt("lower-trans-type", transport);
    c.node->Attach(&queue, 0);
    try {
      c.node->Open();
      c.opened = true;
    } catch (const std::exception& e) {
      c.open_error = ErrorMessage(e.what());
      std::string why;
      static_cast<const qo::mm::VideoInput*>(c.node->handle())->LastError(&why);
      fprintf(stderr, "qomm: stream %zu (%s) did not open: %s\n", i, c.shown.c_str(),
              MaskPasswords(why.empty() ? c.open_error : why).c_str());
      failed++;
    }
  }
  std::unique_ptr<MetricsServer> server;
  if (!metrics.empty()) {
    server.reset(new MetricsServer(metrics, &cams));
    fprintf(stderr, "qomm: metrics at http://%s/metrics\n", metrics.c_str());
  }
  const bool tty = isatty(STDOUT_FILENO) != 0;
  const auto start = std::chrono::steady_clock::now();
  auto last = start;
  for (int tick = 1; !StopRequested(); ++tick) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto now = std::chrono::steady_clock::now();
    if (seconds > 0 && now - start >= std::chrono::seconds(seconds)) break;
    if (tick % 10 != 0) continue;
    if (tty) DrawTable(&cams, std::chrono::duration<double>(now - last).count());
    if (!tty && tick % 100 == 0) PrintTotals(cams);
    last = now;
  }
  PrintTotals(cams);
  server.reset();
  CloseAll(&cams);
  queue.Close();
  drain.join();
  return failed > 0 ? 1 : 0;
}

}  // namespace qomm
