// Shared pieces of qo-bench: options, clocks, order statistics, process
// figures from /proc, child processes, a drained task queue, GStreamer
// pipelines and the report fragments each area writes.
#ifndef QO_BENCH_BENCH_UTIL_H_
#define QO_BENCH_BENCH_UTIL_H_

#include <gst/gst.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/qo_media_task.h"
#include "core/qo_task_queue.h"
#include "test_host.h"

namespace qo {
namespace bench {

// "--key value" pairs after the area name, and the command line itself.
class Options {
 public:
  Options(int argc, char** argv);
  std::string Str(const std::string& key, const std::string& def = "") const;
  int Int(const std::string& key, int def) const;
  double Num(const std::string& key, double def) const;
  const std::string& area() const { return area_; }
  // The command that reproduces this area's numbers.
  const std::string& command() const { return command_; }
  const std::vector<std::string>& argv() const { return argv_; }

 private:
  std::string area_, command_;
  std::vector<std::string> argv_;
  std::map<std::string, std::string> values_;
};

int64_t MonoNs();
int64_t WallNs();  // CLOCK_REALTIME, the clock of the senders' time stamps

// Unix-epoch nanoseconds are above this; monotonic fallbacks far below.
constexpr int64_t kWallFloorNs = 1000000000LL * 1000000000LL;

double Median(std::vector<double> v);
// Nearest-rank percentile, p in (0, 100].
double Percentile(std::vector<double> v, double p);
std::string Fmt(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// A markdown table.
std::string MdTable(const std::vector<std::string>& header,
                    const std::vector<std::vector<std::string>>& rows);
void WriteFile(const std::string& path, const std::string& text);
// "met" or "MISSED", with the margin in words.
std::string Verdict(bool met, const std::string& detail);

struct ProcSample {
  double rss_mib = 0;
  int fds = 0;
  int threads = 0;
  double cpu_s = 0;  // user + system
};
// pid 0: this process.
ProcSample SampleProc(pid_t pid = 0);

// Runs argv to its end with standard output (and, unless keep_stderr,
// standard error) discarded. Returns its wall time in seconds, or -1 when it
// could not run or failed.
double TimeProcess(const std::vector<std::string>& argv, bool keep_stderr = false);

// Set once; remembers when.
class Event {
 public:
  void Set();
  bool Wait(int timeout_ms);
  bool is_set() const { return set_at_ != 0; }
  int64_t set_at() const { return set_at_; }  // MonoNs

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::atomic<int64_t> set_at_{0};
};

// A TaskQueue drained by its own thread, which hands every MediaTask with its
// arrival time (WallNs) to fn and then disposes of it as the framework does.
class Sink {
 public:
  using Fn = std::function<void(const MediaTask& task, int64_t wall_ns)>;
  explicit Sink(Fn fn, size_t capacity = 64);
  ~Sink() { Stop(); }
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;
  TaskQueue* queue() { return &queue_; }
  void Stop();

 private:
  void Drain();
  Fn fn_;
  TaskQueue queue_;
  std::thread thread_;
};

// One node life: create, configure, open, first frame (flag 0 task on port
// 0), close, destroy. Times in ms from the open call; first_ms < 0 when no
// frame came within timeout_ms.
struct NodeCycle {
  double open_ms = 0, first_ms = -1, close_ms = 0;
};
NodeCycle RunNodeCycle(const std::string& prefix,
                       const std::function<void(testhost::HostNode&)>& configure,
                       int timeout_ms = 10000);

// Pipelines from launch descriptions; a description that does not parse
// ends the program.
GstElement* Launch(const std::string& desc);
bool PlayToEos(GstElement* pipeline, int timeout_s);
// Pulls from the appsink named "sink"; null on time-out or end.
GstSample* PullSample(GstElement* pipeline, int timeout_ms);
void StopPipeline(GstElement* pipeline);

// Parser stage of the file layer for "h264", "h265" or "mjpeg":
// "<parser> ! <caps>".
std::string ParserStage(const std::string& codec);

// Areas; each writes <out>/<area>.md and its data files.
int RunThroughput(const Options& o);
int RunLatency(const Options& o);
int RunScale(const Options& o);
int RunStartStop(const Options& o);
int RunChurn(const Options& o);

}  // namespace bench
}  // namespace qo

#endif  // QO_BENCH_BENCH_UTIL_H_
