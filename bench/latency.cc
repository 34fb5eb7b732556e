// RTSP latency: from the sender's NTP time of each frame (its reference time
// stamp, Unix-epoch ns) to the moment the host holds the frame: the video
// input node's task popped from its queue, or GStreamer's rtspsrc (at its
// defaults) sample pulled from an appsink. UDP and TCP, runs interleaved.
#include <gst/app/gstappsink.h>

#include <algorithm>
#include <cstdio>
#include <mutex>

#include "bench_util.h"
#include "test_host.h"

namespace qo {
namespace bench {
namespace {

// Seconds from the NTP epoch (1900) to the Unix epoch.
constexpr uint64_t kNtpToUnixNs = 2208988800ULL * 1000000000ULL;

// Latencies (ms) of frames stamped with the sender's clock, from `settle`
// after the first of them (the first sender report maps coarsely) until
// `seconds` more have passed.
class LatencyLog {
 public:
  LatencyLog(double settle, double seconds)
      : settle_ns_(static_cast<int64_t>(settle * 1e9)),
        end_ns_(static_cast<int64_t>((settle + seconds) * 1e9)) {}
  void Add(int64_t stamp_ns, int64_t wall_ns) {
    if (stamp_ns < kWallFloorNs) return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (first_ == 0) first_ = wall_ns;
    if (wall_ns - first_ >= end_ns_) done_.Set();
    if (wall_ns - first_ >= settle_ns_ && !done_.is_set()) {
      ms_.push_back(static_cast<double>(wall_ns - stamp_ns) / 1e6);
    }
  }
  bool Wait(int timeout_ms) { return done_.Wait(timeout_ms); }
  bool done() const { return done_.is_set(); }
  std::vector<double> Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return done_.is_set() ? ms_ : std::vector<double>();
  }

 private:
  const int64_t settle_ns_, end_ns_;
  std::mutex mutex_;
  int64_t first_ = 0;
  std::vector<double> ms_;
  Event done_;
};

std::vector<double> RunNode(const std::string& url, int transport, LatencyLog* log,
                            int timeout_ms) {
  Sink sink([log](const MediaTask& t, int64_t now) {
    if (t.flag == 0) log->Add(t.time_stamp, now);
  });
  testhost::HostNode node("qo.mm.video.in");
  node.SetString("uri", url);
  node.SetInt("lower-trans-type", transport);
  node.thread()->SetTxQue(sink.queue(), 0);
  node.Open();
  log->Wait(timeout_ms);
  node.Close();
  return log->Take();
}

std::vector<double> RunGst(const std::string& url, const char* protocols, LatencyLog* log,
                           int timeout_ms) {
  GstElement* p = Launch("rtspsrc location=" + url + " protocols=" + protocols +
                         " add-reference-timestamp-meta=true ! rtph264depay ! " +
                         ParserStage("h264") + " ! appsink name=sink sync=false");
  GstCaps* ntp = gst_caps_new_empty_simple("timestamp/x-ntp");
  gst_element_set_state(p, GST_STATE_PLAYING);
  GstElement* sink = gst_bin_get_by_name(GST_BIN(p), "sink");
  for (int64_t end = MonoNs() + timeout_ms * 1000000LL; !log->done() && MonoNs() < end;) {
    GstSample* s = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 100 * GST_MSECOND);
    if (s == nullptr) continue;
    const int64_t now = WallNs();
    GstReferenceTimestampMeta* m =
        gst_buffer_get_reference_timestamp_meta(gst_sample_get_buffer(s), ntp);
    if (m != nullptr && m->timestamp > kNtpToUnixNs) {
      log->Add(static_cast<int64_t>(m->timestamp - kNtpToUnixNs), now);
    }
    gst_sample_unref(s);
  }
  gst_object_unref(sink);
  gst_caps_unref(ntp);
  StopPipeline(p);
  return log->Take();
}

}  // namespace

int RunLatency(const Options& o) {
  const std::string url = o.Str("url"), out = o.Str("out");
  const int runs = o.Int("runs", 5);
  const double settle = o.Num("settle", 1), seconds = o.Num("seconds", 8);
  const int timeout_ms = static_cast<int>((settle + seconds + 15) * 1000);
  struct Config {
    const char* name;
    bool ours;
    int transport;
    const char* protocols;
  };
  const Config configs[] = {{"VideoInput, UDP", true, 1, "udp"},
                            {"GStreamer rtspsrc, UDP", false, 1, "udp"},
                            {"VideoInput, TCP", true, 4, "tcp"},
                            {"GStreamer rtspsrc, TCP", false, 4, "tcp"}};
  constexpr int kConfigs = 4;
  std::vector<double> medians[kConfigs], p99s[kConfigs], pooled[kConfigs];
  for (int r = 0; r < runs; ++r) {
    for (int c = 0; c < kConfigs; ++c) {
      std::fprintf(stderr, "qo-bench latency: %s, run %d/%d\n", configs[c].name, r + 1, runs);
      LatencyLog log(settle, seconds);
      std::vector<double> ms = configs[c].ours
                                   ? RunNode(url, configs[c].transport, &log, timeout_ms)
                                   : RunGst(url, configs[c].protocols, &log, timeout_ms);
      if (ms.empty()) continue;
      medians[c].push_back(Median(ms));
      p99s[c].push_back(Percentile(ms, 99));
      pooled[c].insert(pooled[c].end(), ms.begin(), ms.end());
    }
  }
  std::vector<std::vector<std::string>> rows;
  std::string verdicts, cdf;
  for (int c = 0; c < kConfigs; ++c) {
    if (medians[c].empty()) {
      rows.push_back({configs[c].name, "failed", "", "", "", ""});
      continue;
    }
    const double med = Median(medians[c]), p99 = Median(p99s[c]);
    const int base = c | 1;  // the GStreamer row of the same transport
    const double base_med = Median(medians[base]), base_p99 = Median(p99s[base]);
    rows.push_back({configs[c].name, Fmt("%zu/%d", medians[c].size(), runs), Fmt("%.2f", med),
                    Fmt("%.2f", p99), Fmt("%.2f", Percentile(pooled[c], 100)),
                    base_med > 0 ? Fmt("%.2f / %.2f", med / base_med, p99 / base_p99) : "-"});
    if (configs[c].ours) {
      verdicts +=
          Fmt("- %s: median %.2f ms (target 5): %s; 99th percentile %.2f ms (target 20): "
              "%s\n",
              configs[c].name, med, Verdict(med < 5, Fmt("%+.2f ms", med - 5)).c_str(), p99,
              Verdict(p99 < 20, Fmt("%+.2f ms", p99 - 20)).c_str());
    }
    // Empirical distribution for the plot: latency, fraction below.
    std::vector<double>& v = pooled[c];
    std::sort(v.begin(), v.end());
    cdf += Fmt("\"%s\"\n", configs[c].name);
    for (size_t i = 0; i < v.size(); ++i) {
      cdf += Fmt("%.3f\t%.5f\n", v[i], static_cast<double>(i + 1) / static_cast<double>(v.size()));
    }
    cdf += "\n\n";
  }
  std::string md = "## RTSP latency\n\n";
  md += MdTable(
      {"Receiver", "runs", "median (ms)", "99th pct (ms)", "max (ms)", "median / p99 vs GStreamer"},
      rows);
  md += "Targets:\n\n" + verdicts + "\n";
  md +=
      Fmt("1080p30 H.264 replayed by the loopback server. Latency = host wall clock when the "
          "frame is in the host's hands minus the sender's NTP time of the frame (its RTCP "
          "sender-report mapping, Unix epoch). Each run: %.0f s of frames after a %.0f s "
          "settling time; median and 99th percentile per run, then the median over %d "
          "interleaved runs; max over all runs. rtspsrc keeps its defaults (latency 2000 ms, "
          "which in-order packets pass at once) with add-reference-timestamp-meta=true, then "
          "rtph264depay ! h264parse ! appsink sync=false, the chain the node uses.\n\n",
          seconds, settle, runs);
  md += "Command: `" + o.command() + "`\n\n";
  WriteFile(out + "/latency.md", md);
  WriteFile(out + "/latency.dat", cdf);
  return 0;
}

}  // namespace bench
}  // namespace qo
