// qomm ingest: every URL of a camera list as its own video input node, with
// a live table of the nodes' counters and, on request, the same counters for
// Prometheus over HTTP.
#include <libsoup/soup.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "node/qo_video_in_node.h"
#include "qomm.h"

namespace qomm {

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

namespace {

struct Camera {
  std::string shown;  // the URL with its password masked
  std::unique_ptr<qo::HostNode> node;
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
  static_cast<const qo::mm::VideoInput*>(c.node->thread())->Stats(&r.s, &r.timeout_tasks);
  if (r.s.reason_text[0] == '\0') {
    snprintf(r.s.reason_text, sizeof(r.s.reason_text), "%s", c.open_error.c_str());
  }
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
    out += c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return out;
}

// An age in ns (-1: not known) in the unit given, as text.
std::string Age(int64_t ns, double unit, const char* format, const char* unknown) {
  if (ns == -1) return unknown;
  char buf[32];
  snprintf(buf, sizeof(buf), format, static_cast<double>(ns) / unit);
  return buf;
}

// The metric families of every stream: name, type, help.
const char* const kFamilies[][3] = {
    {"qomm_stream_frames_total", "counter", "Frames the stream delivered."},
    {"qomm_stream_bytes_total", "counter", "Payload bytes of those frames."},
    {"qomm_stream_timeouts_total", "counter", "Frame pulls that waited out their time-out."},
    {"qomm_stream_timeout_tasks_total", "counter",
     "Time-out tasks the node sent after its retry budget ran out."},
    {"qomm_stream_reconnects_total", "counter", "Reconnection attempts of the RTSP source."},
    {"qomm_stream_gaps_total", "counter",
     "Losses of data inside a connection (each run of lost packets once)."},
    {"qomm_stream_last_frame_age_seconds", "gauge",
     "Age of the last frame against the sender's clock (NaN: not known)."},
    {"qomm_stream_median_frame_age_seconds", "gauge",
     "Median age of the last 32 frames against the sender's clock (NaN: not known)."},
    {"qomm_stream_reason_code", "gauge",
     "Why the stream delivers no frames: 0 nothing wrong, else a qo_StreamError."},
};

// The counters of every stream in Prometheus' text exposition format.
GString* Exposition(const std::vector<Camera>& cams) {
  // By stream: the values in the order of kFamilies, then the reason.
  std::vector<std::vector<std::string>> values;
  for (const Camera& c : cams) {
    const Reading r = Read(c);
    values.push_back({std::to_string(r.s.frames), std::to_string(r.s.bytes),
                      std::to_string(r.s.timeouts), std::to_string(r.timeout_tasks),
                      std::to_string(r.s.reconnects), std::to_string(r.s.gaps), Age(r.s.last_age_ns, 1e9, "%.6f", "NaN"),
                      Age(r.s.median_age_ns, 1e9, "%.6f", "NaN"), std::to_string(r.s.reason),
                      MaskPasswords(r.s.reason_text)});
  }
  GString* out = g_string_new(nullptr);
  for (size_t f = 0; f < std::size(kFamilies); ++f) {
    const char* name = kFamilies[f][0];
    g_string_append_printf(out, "# HELP %s %s\n# TYPE %s %s\n", name, kFamilies[f][2], name,
                           kFamilies[f][1]);
    for (size_t i = 0; i < cams.size(); ++i) {
      g_string_append_printf(out, "%s{stream=\"%zu\",url=\"%s\"} %s\n", name, i,
                             Label(cams[i].shown).c_str(), values[i][f].c_str());
    }
  }
  g_string_append(out,
                  "# HELP qomm_stream_reason The last failure's text, as a label (1 while there "
                  "is one).\n# TYPE qomm_stream_reason gauge\n");
  for (size_t i = 0; i < cams.size(); ++i) {
    if (values[i].back().empty()) continue;
    g_string_append_printf(out, "qomm_stream_reason{stream=\"%zu\",reason=\"%s\"} 1\n", i,
                           Label(values[i].back()).c_str());
  }
  return out;
}

void HandleMetrics(SoupServer*, SoupServerMessage* msg, const char*, GHashTable*, gpointer cams) {
  if (g_strcmp0(soup_server_message_get_method(msg), "GET") != 0) {
    soup_server_message_set_status(msg, SOUP_STATUS_METHOD_NOT_ALLOWED, nullptr);
    return;
  }
  GString* body = Exposition(*static_cast<const std::vector<Camera>*>(cams));
  const gsize length = body->len;
  soup_server_message_set_status(msg, SOUP_STATUS_OK, nullptr);
  soup_server_message_set_response(msg, "text/plain; version=0.0.4; charset=utf-8",
                                   SOUP_MEMORY_TAKE, g_string_free(body, FALSE), length);
}

// /metrics on HOST:PORT, served by libsoup from the calling thread's own
// main context (the library's streams run GLib's default one).
SoupServer* ServeMetrics(const std::string& where, std::vector<Camera>* cams) {
  const size_t colon = where.rfind(':');
  if (colon == std::string::npos) throw UsageError("--metrics needs HOST:PORT");
  std::string host = where.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  const int port = std::atoi(where.c_str() + colon + 1);
  if (port <= 0 || port > 65535) throw UsageError("--metrics: bad port in " + where);
  g_autoptr(GSocketAddress) addr = g_inet_socket_address_new_from_string(host.c_str(), port);
  if (addr == nullptr) throw UsageError("--metrics: " + host + " is not an IP address");
  g_autoptr(SoupServer) server = soup_server_new("server-header", "qomm", nullptr);
  soup_server_add_handler(server, "/metrics", HandleMetrics, cams, nullptr);
  g_autoptr(GError) error = nullptr;
  if (soup_server_listen(server, addr, SoupServerListenOptions(0), &error)) {
    return static_cast<SoupServer*>(g_steal_pointer(&server));
  }
  throw std::runtime_error("cannot serve metrics on " + where + ": " + error->message);
}

// On a terminal, the table redrawn in place with as many rows as fit, then
// the totals; otherwise the totals only.
void Show(std::vector<Camera>* cams, double secs, bool table) {
  winsize ws{};
  const int rows = ioctl(fileno(stdout), TIOCGWINSZ, &ws) == 0 && ws.ws_row > 4 ? ws.ws_row - 3 : 20;
  char line[512];
  snprintf(line, sizeof(line), "\033[H\033[2J%4s %-40s %8s %6s %9s %5s %5s %9s %s\n", "#", "url",
           "frames", "fps", "MiB", "t/o", "recon", "age ms", "reason");
  std::string out = table ? line : "";
  unsigned long long frames = 0, delivering = 0, failing = 0, gaps = 0;
  for (size_t i = 0; i < cams->size(); ++i) {
    Camera& c = (*cams)[i];
    const Reading r = Read(c);
    const double fps = static_cast<double>(r.s.frames - c.frames_before) / secs;
    c.frames_before = r.s.frames;
    frames += r.s.frames;
    delivering += r.s.frames > 0;
    failing += r.s.reason != 0;
    gaps += r.s.gaps;
    if (!table || static_cast<int>(i) >= rows - 1) continue;
    std::string shown = c.shown.size() > 40 ? "..." + c.shown.substr(c.shown.size() - 37) : c.shown;
    snprintf(line, sizeof(line),
             "%4zu %-40s %8" PRIu64 " %6.1f %9.1f %5" PRIu64 " %5" PRIu64 " %9s %s\n", i,
             shown.c_str(), r.s.frames, fps, static_cast<double>(r.s.bytes) / 1048576.0,
             r.s.timeouts, r.s.reconnects, Age(r.s.median_age_ns, 1e6, "%.1f", "-").c_str(),
             MaskPasswords(r.s.reason_text).c_str());
    out += line;
  }
  snprintf(line, sizeof(line),
           "%zu streams: %llu delivering, %llu frames, %llu gaps, %llu with a failure reason\n",
           cams->size(), delivering, frames, gaps, failing);
  fputs((out + line).c_str(), stdout);
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

int RunIngest(Args& args) {
  if (args.words.size() != 1) {
    throw UsageError(args.words.empty() ? "ingest needs a FILE of URLs" : "ingest takes one FILE");
  }
  const int seconds = args.Int("--seconds", 1, 1 << 30).value_or(0);
  std::vector<Camera> cams;
  int failed = 0;
  for (const std::string& url : ReadList(args.words[0])) {
    Camera& c = cams.emplace_back();
    c.shown = MaskPasswords(url);
    // No queue on the output port: the node drops its tasks, and counts
    // the frames itself.
    c.node.reset(new qo::HostNode("qo.mm.video.in"));
    c.node->SetString("uri", url);
    c.node->SetInt("stream-id", static_cast<int>(cams.size() - 1));
    c.node->SetInt("lower-trans-type", args.Has("--tcp") ? RTSP_TRANS_TCP : RTSP_TRANS_UDP);
    c.open_error = Open(c.node.get());
    if (c.open_error.empty()) continue;
    fprintf(stderr, "qomm: stream %zu (%s) did not open: %s\n", cams.size() - 1, c.shown.c_str(),
            c.open_error.c_str());
    failed++;
  }
  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);
  SoupServer* server = nullptr;
  if (args.Has("--metrics")) {
    server = ServeMetrics(args.options.at("--metrics"), &cams);
    fprintf(stderr, "qomm: metrics at http://%s/metrics\n", args.options.at("--metrics").c_str());
  }
  // Wakes the loop below at least every 100 ms; the context owns it.
  GSource* timer = g_timeout_source_new(100);
  g_source_set_callback(
      timer, [](gpointer) { return gboolean(G_SOURCE_CONTINUE); }, nullptr, nullptr);
  g_source_attach(timer, context);
  g_source_unref(timer);
  const bool tty = isatty(fileno(stdout)) != 0;
  const auto start = std::chrono::steady_clock::now();
  for (auto last = start; !StopRequested();) {
    g_main_context_iteration(context, TRUE);
    const auto now = std::chrono::steady_clock::now();
    if (seconds > 0 && now - start >= std::chrono::seconds(seconds)) break;
    if (now - last < std::chrono::seconds(tty ? 1 : 10)) continue;
    Show(&cams, std::chrono::duration<double>(now - last).count(), tty);
    last = now;
  }
  Show(&cams, 1, false);
  if (server != nullptr) {
    soup_server_disconnect(server);
    g_object_unref(server);
  }
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
  CloseAll(&cams);
  return failed > 0 ? 1 : 0;
}

}  // namespace qomm
