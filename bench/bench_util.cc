#include "bench_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <gst/app/gstappsink.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

extern char** environ;

namespace qo {
namespace bench {

Options::Options(int argc, char** argv) {
  command_ = "build/release/bench/qo-bench";
  for (int i = 1; i < argc; ++i) {
    argv_.push_back(argv[i]);
    command_ += std::string(" ") + argv[i];
  }
  if (argc > 1) area_ = argv[1];
  for (int i = 2; i + 1 < argc; i += 2) {
    std::string key = argv[i];
    if (key.rfind("--", 0) == 0) values_[key.substr(2)] = argv[i + 1];
  }
}

std::string Options::Str(const std::string& key, const std::string& def) const {
  auto it = values_.find(key);
  return it == values_.end() ? def : it->second;
}

int Options::Int(const std::string& key, int def) const {
  return values_.count(key) ? std::atoi(values_.at(key).c_str()) : def;
}

double Options::Num(const std::string& key, double def) const {
  return values_.count(key) ? std::atof(values_.at(key).c_str()) : def;
}

static int64_t ClockNs(clockid_t id) {
  timespec ts;
  clock_gettime(id, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int64_t MonoNs() { return ClockNs(CLOCK_MONOTONIC); }
int64_t WallNs() { return ClockNs(CLOCK_REALTIME); }

double Median(std::vector<double> v) { return Percentile(std::move(v), 50); }

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(v.size())));
  return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

std::string Fmt(const char* fmt, ...) {
  va_list ap, again;
  va_start(ap, fmt);
  va_copy(again, ap);
  std::string out(static_cast<size_t>(std::max(0, vsnprintf(nullptr, 0, fmt, ap))), '\0');
  va_end(ap);
  vsnprintf(&out[0], out.size() + 1, fmt, again);
  va_end(again);
  return out;
}

std::string MdTable(const std::vector<std::string>& header,
                    const std::vector<std::vector<std::string>>& rows) {
  std::string out;
  auto line = [&out](const std::vector<std::string>& cells) {
    for (const std::string& c : cells) out += "| " + c + " ";
    out += "|\n";
  };
  line(header);
  line(std::vector<std::string>(header.size(), "---"));
  for (const auto& r : rows) line(r);
  return out + "\n";
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream f(path);
  f << text;
  if (!f) std::fprintf(stderr, "qo-bench: cannot write %s\n", path.c_str());
}

std::string Verdict(bool met, const std::string& detail) {
  return (met ? "**met** (" : "**MISSED** (") + detail + ")";
}

ProcSample SampleProc(pid_t pid) {
  ProcSample s;
  const std::string dir = pid == 0 ? "/proc/self" : "/proc/" + std::to_string(pid);
  std::ifstream status(dir + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) s.rss_mib = std::atof(line.c_str() + 6) / 1024.0;
    if (line.rfind("Threads:", 0) == 0) s.threads = std::atoi(line.c_str() + 8);
  }
  if (DIR* d = opendir((dir + "/fd").c_str())) {
    while (dirent* e = readdir(d)) s.fds += e->d_name[0] != '.' ? 1 : 0;
    closedir(d);
    if (pid == 0) s.fds -= 1;  // the directory being read
  }
  std::ifstream statf(dir + "/stat");
  std::string stat((std::istreambuf_iterator<char>(statf)), std::istreambuf_iterator<char>());
  size_t paren = stat.rfind(')');
  if (paren != std::string::npos) {
    std::istringstream rest(stat.substr(paren + 2));
    std::string field;
    double utime = 0, stime = 0;
    // After the name: state is field 3; utime and stime are fields 14 and 15.
    for (int i = 3; i <= 15 && rest >> field; ++i) {
      if (i == 14) utime = std::atof(field.c_str());
      if (i == 15) stime = std::atof(field.c_str());
    }
    s.cpu_s = (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  return s;
}

double TimeProcess(const std::vector<std::string>& argv, bool keep_stderr) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  if (!keep_stderr) posix_spawn_file_actions_adddup2(&actions, 1, 2);
  int64_t t0 = MonoNs();
  pid_t pid;
  int err = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (err != 0) return -1;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return -1;
  }
  return static_cast<double>(MonoNs() - t0) / 1e9;
}

void Event::Set() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (set_at_ == 0) set_at_ = MonoNs();
  cv_.notify_all();
}

bool Event::Wait(int timeout_ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return is_set(); });
}

Sink::Sink(Fn fn, size_t capacity)
    : fn_(std::move(fn)), queue_(capacity), thread_([this] { Drain(); }) {}

void Sink::Stop() {
  queue_.Close();
  if (thread_.joinable()) thread_.join();
}

void Sink::Drain() {
  pthread_setname_np(pthread_self(), "bench_sink");
  TaskQueue::Task task;
  while (queue_.Pop(&task)) {
    const int64_t now = WallNs();
    if (task.data != nullptr && task.info != nullptr && task.info->type_name == "qo::MediaTask") {
      fn_(*static_cast<const MediaTask*>(task.data), now);
    }
    TaskQueue::Dispose(task);
    task = TaskQueue::Task();
  }
}

NodeCycle RunNodeCycle(const std::string& prefix,
                       const std::function<void(testhost::HostNode&)>& configure, int timeout_ms) {
  NodeCycle c;
  Event first;
  Sink sink([&first](const MediaTask& t, int64_t) {
    if (t.flag == 0) first.Set();
  });
  testhost::HostNode node(prefix);
  configure(node);
  node.thread()->SetTxQue(sink.queue(), 0);
  const int64_t t0 = MonoNs();
  node.Open();
  c.open_ms = static_cast<double>(MonoNs() - t0) / 1e6;
  if (first.Wait(timeout_ms)) c.first_ms = static_cast<double>(first.set_at() - t0) / 1e6;
  const int64_t t1 = MonoNs();
  node.Close();
  c.close_ms = static_cast<double>(MonoNs() - t1) / 1e6;
  return c;
}

GstElement* Launch(const std::string& desc) {
  GError* err = nullptr;
  GstElement* p = gst_parse_launch(desc.c_str(), &err);
  if (p == nullptr || err != nullptr) {
    std::fprintf(stderr, "qo-bench: cannot build \"%s\": %s\n", desc.c_str(),
                 err != nullptr ? err->message : "?");
    std::exit(1);
  }
  return p;
}

bool PlayToEos(GstElement* pipeline, int timeout_s) {
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* msg =
      gst_bus_timed_pop_filtered(bus, timeout_s * GST_SECOND,
                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  bool ok = msg != nullptr && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
  if (msg != nullptr) gst_message_unref(msg);
  gst_object_unref(bus);
  return ok;
}

GstSample* PullSample(GstElement* pipeline, int timeout_ms) {
  GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  GstSample* s = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), timeout_ms * GST_MSECOND);
  gst_object_unref(sink);
  return s;
}

void StopPipeline(GstElement* pipeline) {
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
}

std::string ParserStage(const std::string& codec) {
  if (codec == "h265") return "h265parse ! video/x-h265,stream-format=byte-stream,alignment=au";
  if (codec == "mjpeg") return "jpegparse ! image/jpeg";
  return "h264parse ! video/x-h264,stream-format=byte-stream,alignment=au";
}

}  // namespace bench
}  // namespace qo
