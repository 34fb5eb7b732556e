// Start and stop (open to first frame, close to return) of the nodes on RTSP
// and files next to the same GStreamer chains, and churn: many
// create/open/first frame/close/destroy cycles with resident memory, open
// descriptors and threads sampled along the way.
#include <algorithm>
#include <cstdio>
#include <functional>

#include "bench_util.h"

namespace qo {
namespace bench {
namespace {

using Configure = std::function<void(testhost::HostNode&)>;

Configure Uri(const std::string& url, int transport) {
  return [url, transport](testhost::HostNode& n) {
    n.SetString("uri", url);
    n.SetInt("lower-trans-type", transport);
  };
}

// framerate < 0: the node's default pacing.
Configure FileNode(const std::string& path, double framerate) {
  return [path, framerate](testhost::HostNode& n) {
    n.SetString("file", path);
    n.SetInt("stream-type", 31);
    if (framerate >= 0) n.SetDouble("framerate", framerate);
  };
}

// The same life for a GStreamer pipeline ending in appsink "sink": launch
// and play, first sample, set to NULL.
NodeCycle GstCycle(const std::string& desc) {
  NodeCycle c;
  const int64_t t0 = MonoNs();
  GstElement* p = Launch(desc);
  gst_element_set_state(p, GST_STATE_PLAYING);
  c.open_ms = static_cast<double>(MonoNs() - t0) / 1e6;
  if (GstSample* s = PullSample(p, 10000)) {
    c.first_ms = static_cast<double>(MonoNs() - t0) / 1e6;
    gst_sample_unref(s);
  }
  const int64_t t1 = MonoNs();
  StopPipeline(p);
  c.close_ms = static_cast<double>(MonoNs() - t1) / 1e6;
  return c;
}

}  // namespace

int RunStartStop(const Options& o) {
  const std::string url = o.Str("url"), file = o.Str("h264"), out = o.Str("out");
  const int runs = o.Int("runs", 10);
  const std::string rtspsrc = "rtspsrc location=" + url + " protocols=";
  const std::string chain =
      " ! rtph264depay ! " + ParserStage("h264") + " ! appsink name=sink sync=false";
  const std::string filesrc = "filesrc location=\"" + file + "\" ! " + ParserStage("h264") +
                              " ! appsink name=sink sync=false";
  struct Row {
    const char* name;
    int baseline;  // row index; a baseline row names itself
    std::function<NodeCycle()> cycle;
  };
  const std::vector<Row> table = {
      {"VideoInput, RTSP over UDP", 2, [&] { return RunNodeCycle("qo.mm.video.in", Uri(url, 1)); }},
      {"VideoInput, RTSP over TCP", 3, [&] { return RunNodeCycle("qo.mm.video.in", Uri(url, 4)); }},
      {"GStreamer rtspsrc, UDP (baseline)", 2, [&] { return GstCycle(rtspsrc + "udp" + chain); }},
      {"GStreamer rtspsrc, TCP (baseline)", 3, [&] { return GstCycle(rtspsrc + "tcp" + chain); }},
      {"FileInput, H.264 file", 7,
       [&] { return RunNodeCycle("qo.mm.file.in", FileNode(file, -1)); }},
      {"FileInput, H.264 file, framerate 0", 7,
       [&] { return RunNodeCycle("qo.mm.file.in", FileNode(file, 0)); }},
      {"VideoInput, file:// H.264 file", 7,
       [&] { return RunNodeCycle("qo.mm.video.in", Uri("file://" + file, 1)); }},
      {"GStreamer filesrc ! h264parse ! appsink (baseline)", 7, [&] { return GstCycle(filesrc); }}};
  std::vector<std::vector<double>> open(table.size()), first(table.size()), close(table.size());
  for (int r = 0; r < runs; ++r) {
    std::fprintf(stderr, "qo-bench startstop: run %d/%d\n", r + 1, runs);
    for (size_t i = 0; i < table.size(); ++i) {
      NodeCycle c = table[i].cycle();
      if (c.first_ms < 0) continue;  // no frame: not a complete life
      open[i].push_back(c.open_ms);
      first[i].push_back(c.first_ms);
      close[i].push_back(c.close_ms);
    }
  }
  std::vector<std::vector<std::string>> rows;
  std::string dat = "reader\topen to first frame\tclose\n", verdicts;
  for (size_t i = 0; i < table.size(); ++i) {
    const size_t b = static_cast<size_t>(table[i].baseline);
    const double f = Median(first[i]), c = Median(close[i]);
    rows.push_back(
        {table[i].name, Fmt("%zu/%d", first[i].size(), runs), Fmt("%.1f", Median(open[i])),
         Fmt("%.1f", f), Fmt("%.1f", c),
         b == i ? "baseline" : Fmt("%.2f / %.2f", f / Median(first[b]), c / Median(close[b]))});
    dat += Fmt("%s\t%.2f\t%.2f\n", table[i].name, f, c);
    if (b != i) {
      verdicts += Fmt("- %s: close %.1f ms: %s\n", table[i].name, c,
                      Verdict(c < 100, Fmt("%+.1f ms against 100", c - 100)).c_str());
    }
  }
  std::string md = "## Start and stop\n\n";
  md += MdTable({"Reader", "complete runs", "open call (ms)", "open to first frame (ms)",
                 "close call (ms)", "first frame / close vs baseline"},
                rows);
  md += "Target: close under 100 ms:\n\n" + verdicts + "\n";
  md +=
      Fmt("Medians of %d interleaved runs. The nodes are created, configured, opened; the "
          "first frame is the first task on the host's queue; close is the node's close call. "
          "The GStreamer rows build the same chain from a launch description, play it, pull "
          "the first sample from an appsink and set it to NULL. Node parameters are the "
          "defaults (file nodes paced at 25 frames/s) unless the row says otherwise.\n\n",
          runs);
  md += "Command: `" + o.command() + "`\n\n";
  WriteFile(out + "/startstop.md", md);
  WriteFile(out + "/startstop.dat", dat);
  return 0;
}

int RunChurn(const Options& o) {
  const std::string url = o.Str("url"), file = o.Str("h264"), out = o.Str("out");
  const int cycles = o.Int("cycles", 1000);
  // Allocator arenas and GStreamer's thread pools settle over the first few
  // dozen cycles; growth is counted from here.
  const int warm_at = std::max(10, cycles / 100 * 10);
  struct Kind {
    const char* name;
    const char* prefix;
    Configure configure;
  };
  const Kind kinds[] = {{"VideoInput, RTSP over UDP", "qo.mm.video.in", Uri(url, 1)},
                        {"FileInput, H.264 file, framerate 0", "qo.mm.file.in", FileNode(file, 0)}};
  std::vector<std::vector<std::string>> rows;
  std::string dat, verdicts;
  for (const Kind& k : kinds) {
    const ProcSample s0 = SampleProc();
    ProcSample warm = s0;
    std::vector<double> ms;
    int no_frame = 0;
    dat += Fmt("\"%s\"\n0\t%.2f\t%d\t%d\n", k.name, s0.rss_mib, s0.fds, s0.threads);
    for (int i = 1; i <= cycles; ++i) {
      const int64_t t0 = MonoNs();
      no_frame += RunNodeCycle(k.prefix, k.configure).first_ms < 0 ? 1 : 0;
      ms.push_back(static_cast<double>(MonoNs() - t0) / 1e6);
      if (i % 10 != 0) continue;
      const ProcSample s = SampleProc();
      if (i == warm_at) warm = s;
      dat += Fmt("%d\t%.2f\t%d\t%d\n", i, s.rss_mib, s.fds, s.threads);
      if (i % 100 == 0) std::fprintf(stderr, "qo-bench churn: %s, %d/%d\n", k.name, i, cycles);
    }
    dat += "\n\n";
    const ProcSample end = SampleProc();
    const double growth = end.rss_mib - warm.rss_mib;
    rows.push_back({k.name, Fmt("%d", cycles), Fmt("%d", no_frame), Fmt("%.1f", Median(ms)),
                    Fmt("%.1f / %.1f / %.1f", s0.rss_mib, warm.rss_mib, end.rss_mib),
                    Fmt("%d / %d / %d", s0.fds, warm.fds, end.fds),
                    Fmt("%d / %d / %d", s0.threads, warm.threads, end.threads)});
    const bool flat = end.fds <= warm.fds && end.threads <= warm.threads && growth < 2;
    verdicts += Fmt("- %s: %s\n", k.name,
                    Verdict(flat, Fmt("RSS %+.2f MiB, fds %+d, threads %+d after cycle %d", growth,
                                      end.fds - warm.fds, end.threads - warm.threads, warm_at))
                        .c_str());
  }
  std::string md = "## Churn\n\n";
  md += MdTable(
      {"Node", "cycles", "cycles without a frame", "median cycle (ms)",
       Fmt("RSS MiB (before / after %d / after all)", warm_at), "fds (same)", "threads (same)"},
      rows);
  md += Fmt("Target: flat from cycle %d on (no descriptor or thread more, RSS growth under 2 "
            "MiB):\n\n",
            warm_at) +
        verdicts + "\n";
  md +=
      "Each cycle: create, configure, open, wait for the first frame task, close, destroy, "
      "one node at a time. The first cycles pay one-time costs (GStreamer registry and "
      "plugins, allocator arenas, thread pools). The file node runs "
      "unpaced: at its default 25 frames/s its close takes seconds (see start and stop).\n\n";
  md += "Command: `" + o.command() + "`\n\n";
  WriteFile(out + "/churn.md", md);
  WriteFile(out + "/churn.dat", dat);
  return 0;
}

}  // namespace bench
}  // namespace qo
