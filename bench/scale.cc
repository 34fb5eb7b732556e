// Scale: N concurrent video input nodes on one RTSP stream replayed by a
// server in another process. Each N runs in a fresh process (this program
// again, with --child 1), so memory freed by a larger run cannot flatter a
// smaller one: frames per second per stream, frames lost (gaps in the
// senders' time stamps), CPU of this process and of the server, resident
// memory per stream.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>

#include "bench_util.h"

namespace qo {
namespace bench {
namespace {

// Result line of one child: N stamped fps_median fps_min lost cpu% server_cpu%
// rss_mib_per_stream threads fds open_s close_s
int ScaleChild(const Options& o) {
  const int n = o.Int("streams", 1);
  const double seconds = o.Num("seconds", 10), frame_ns = 1e9 / o.Num("fps", 30);
  const std::string url = o.Str("url");
  const pid_t server = o.Int("server-pid", 0);
  auto configure = [&url](testhost::HostNode& node) { node.SetString("uri", url); };
  // About 14 descriptors per stream: more than the usual soft limit of 1024.
  rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  // One-time costs (GStreamer registry, plugins, main loop) stay out of the
  // per-stream figures.
  RunNodeCycle("qo.mm.video.in", configure);
  const ProcSample base = SampleProc();

  struct Stream {
    int64_t last = 0, frames = 0, lost = 0;
  };
  std::vector<Stream> streams(n);
  std::mutex mutex;
  bool measuring = false;
  int stamped = 0;
  Event all_stamped;
  Sink sink(
      [&](const MediaTask& t, int64_t) {
        if (t.flag != 0 || t.time_stamp < kWallFloorNs || t.source_id < 0 || t.source_id >= n) {
          return;
        }
        std::lock_guard<std::mutex> lock(mutex);
        Stream& s = streams[t.source_id];
        if (s.last == 0 && ++stamped == n) all_stamped.Set();
        if (measuring && s.last != 0) {
          ++s.frames;
          const double gap = static_cast<double>(t.time_stamp - s.last);
          s.lost += std::max<int64_t>(0, std::llround(gap / frame_ns) - 1);
        }
        s.last = t.time_stamp;
      },
      256);
  std::vector<std::unique_ptr<testhost::HostNode>> nodes;
  int64_t t0 = MonoNs();
  for (int i = 0; i < n; ++i) {
    nodes.emplace_back(new testhost::HostNode("qo.mm.video.in"));
    configure(*nodes.back());
    nodes.back()->SetInt("stream-id", i);
    nodes.back()->thread()->SetTxQue(sink.queue(), 0);
    nodes.back()->Open();
  }
  const double open_s = static_cast<double>(MonoNs() - t0) / 1e9;
  all_stamped.Wait(30000);
  usleep(2000000);
  auto window = [&](bool on) {
    std::lock_guard<std::mutex> lock(mutex);
    measuring = on;
  };
  auto server_sample = [server] { return server > 0 ? SampleProc(server) : ProcSample(); };
  const ProcSample a = SampleProc(), sa = server_sample();
  t0 = MonoNs();
  window(true);
  usleep(static_cast<useconds_t>(seconds * 1e6));
  window(false);
  const double secs = static_cast<double>(MonoNs() - t0) / 1e9;
  const ProcSample b = SampleProc(), sb = server_sample();
  t0 = MonoNs();
  for (auto& node : nodes) node->Close();
  const double close_s = static_cast<double>(MonoNs() - t0) / 1e9;
  nodes.clear();
  sink.Stop();

  std::vector<double> fps;
  int64_t lost = 0;
  for (const Stream& s : streams) {
    fps.push_back(static_cast<double>(s.frames) / secs);
    lost += s.lost;
  }
  WriteFile(
      o.Str("out") + "/scale_" + std::to_string(n) + ".tsv",
      Fmt("%d\t%d\t%.2f\t%.2f\t%lld\t%.0f\t%.0f\t%.2f\t%d\t%d\t%.2f\t%.2f\n", n, stamped,
          Median(fps), *std::min_element(fps.begin(), fps.end()), static_cast<long long>(lost),
          (b.cpu_s - a.cpu_s) / secs * 100, server > 0 ? (sb.cpu_s - sa.cpu_s) / secs * 100 : 0.0,
          (b.rss_mib - base.rss_mib) / n, b.threads, b.fds, open_s, close_s));
  return 0;
}

}  // namespace

int RunScale(const Options& o) {
  if (o.Int("child", 0) == 1) return ScaleChild(o);
  const std::string out = o.Str("out");
  std::vector<std::vector<std::string>> rows;
  std::string dat = "N\tfps_median\tfps_min\tlost\tcpu\tserver_cpu\trss_per_stream\n", verdict;
  std::istringstream list(o.Str("streams", "1,8,32,64,128"));
  for (std::string item; std::getline(list, item, ',');) {
    const int n = std::atoi(item.c_str());
    std::fprintf(stderr, "qo-bench scale: %d streams\n", n);
    const std::string result = out + "/scale_" + std::to_string(n) + ".tsv";
    unlink(result.c_str());
    std::vector<std::string> argv = {"/proc/self/exe", "scale"};
    for (size_t i = 1; i + 1 < o.argv().size(); i += 2) {
      if (o.argv()[i] != "--streams") argv.insert(argv.end(), {o.argv()[i], o.argv()[i + 1]});
    }
    argv.insert(argv.end(), {"--streams", std::to_string(n), "--child", "1"});
    TimeProcess(argv, true);
    std::ifstream f(result);
    int got_n = 0, stamped = 0, threads = 0, fds = 0;
    double med = 0, min = 0, cpu = 0, srv = 0, rss = 0, open_s = 0, close_s = 0;
    long long lost = 0;
    if (!(f >> got_n >> stamped >> med >> min >> lost >> cpu >> srv >> rss >> threads >> fds >>
          open_s >> close_s)) {
      rows.push_back({std::to_string(n), "failed"});
      continue;
    }
    rows.push_back({std::to_string(n), Fmt("%d", stamped), Fmt("%.2f / %.2f", med, min),
                    Fmt("%lld", lost), Fmt("%.0f", cpu), Fmt("%.0f", srv), Fmt("%.2f", rss),
                    Fmt("%d", threads), Fmt("%d", fds), Fmt("%.1f / %.1f", open_s, close_s)});
    dat += Fmt("%d\t%.2f\t%.2f\t%lld\t%.0f\t%.0f\t%.3f\n", n, med, min, lost, cpu, srv, rss);
    if (n == 64) {
      verdict =
          Fmt("64 streams: %lld frames lost (target 0): %s; %.2f MiB per stream (target "
              "under 4): %s\n",
              lost, Verdict(lost == 0, Fmt("%lld lost", lost)).c_str(), rss,
              Verdict(rss < 4, Fmt("%+.2f MiB", rss - 4)).c_str());
    }
  }
  std::string md = "## Scale: concurrent RTSP streams\n\n";
  md += MdTable({"N", "streams with frames", "fps per stream (median / min)", "frames lost",
                 "host CPU (% of a core)", "server CPU (%)", "RSS per stream (MiB)", "threads",
                 "fds", "open / close all (s)"},
                rows);
  md += "Target: " + (verdict.empty() ? std::string("64 streams not measured\n") : verdict) + "\n";
  md +=
      Fmt("One 1080p30 H.264 stream replayed by %s, N video input nodes over UDP, each "
          "delivering to the host's queue. After all streams deliver and 2 s more, a %.0f s "
          "window: frames per stream, frames lost (gaps between consecutive senders' time "
          "stamps, in frame intervals), CPU (user + system) of this process and of the server, "
          "resident memory per stream (growth over the process after one warm-up stream, "
          "divided by N). Each N in a fresh process.\n\n",
          o.Str("server-name", "the loopback server").c_str(), o.Num("seconds", 10));
  md += "Command: `" + o.command() + "`\n\n";
  WriteFile(out + "/scale.md", md);
  WriteFile(out + "/scale.dat", dat);
  return 0;
}

}  // namespace bench
}  // namespace qo
