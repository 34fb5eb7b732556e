// File throughput: access units per second and MB/s through the file decoder
// layer and the file input node (sync mode, and async without pacing), next
// to GStreamer's parser chain (in this process, and as gst-launch-1.0) and
// ffmpeg's stream copy, on the same file. Runs are interleaved; medians.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <thread>

#include "bench_util.h"
#include "hal_mm_file_in.h"
#include "node/qo_file_in_node.h"
#include "test_host.h"

namespace qo {
namespace bench {
namespace {

constexpr size_t kPacketBytes = 262144;  // the file node's read size

struct Input {
  const char* codec;  // option name and ParserStage key
  const char* title;
  int type;
  const char* ffmpeg_format;
};
const Input kInputs[] = {{"h264", "H.264 1080p30", 31, "h264"},
                         {"h265", "H.265 1080p30", 32, "hevc"},
                         {"mjpeg", "MJPEG 720p30", 33, "mjpeg"}};

enum { kGst, kGstLaunch, kFfmpeg, kLayer, kNodeSync, kNodeAsync, kCandidates };
const char* const kNames[kCandidates] = {"GStreamer parser chain, in process (baseline)",
                                         "gst-launch-1.0 process",
                                         "ffmpeg -c copy process",
                                         "file decoder layer",
                                         "FileInput, sync mode",
                                         "FileInput, async, framerate 0"};

struct Packet {
  qo_VideoStream vs{};
  uint8_t bytes[kPacketBytes];
  static void Free(void* p) { delete static_cast<Packet*>(p); }
};

// Feeds the file in fresh packets, as the file node does, then end of stream.
void Feed(qo_VideoFileHandle h, const std::string& path) {
  pthread_setname_np(pthread_self(), "bench_feed");
  FILE* f = std::fopen(path.c_str(), "rb");
  for (bool last = false; f != nullptr && !last;) {
    auto* p = new Packet;
    size_t n = std::fread(p->bytes, 1, kPacketBytes, f);
    last = n == 0;
    p->vs.stream.data = p->bytes;
    p->vs.stream.size = static_cast<int32_t>(n);
    p->vs.stream.eos = last ? 1 : 0;
    p->vs.priv = p;
    p->vs.free_func = &Packet::Free;
    int r;
    while ((r = qo_VideoFilePutStream(h, &p->vs, 60)) > 0) {
    }
    if (r < 0) break;
  }
  if (f != nullptr) std::fclose(f);
}

int64_t RunLayer(const Input& in, const std::string& path) {
  qo_VideoFileHandle h = qo_VideoFileOpen();
  qo_VideoFileCfg(h, "stream-type", in.type);
  if (qo_VideoFileStart(h) != 0) {
    qo_VideoFileClose(h);
    return -1;
  }
  std::thread feeder(Feed, h, path);
  int64_t frames = 0;
  for (;;) {
    qo_StreamInfo info{};
    qo_VideoFileGetFrame(h, &info, 10);
    if (info.data == nullptr) {
      if (info.eos == 0) frames = -1;
      break;
    }
    qo_VideoFileFrameFree(&info);
    ++frames;
  }
  feeder.join();
  qo_VideoFileStop(h);
  qo_VideoFileClose(h);
  return frames;
}

int64_t RunNode(const Input& in, const std::string& path, bool sync) {
  int64_t frames = 0;
  Event end;
  Sink sink([&](const MediaTask& t, int64_t) { t.flag == 0 ? (void)++frames : end.Set(); }, 16);
  testhost::HostNode node("qo.mm.file.in");
  node.SetString("file", path);
  node.SetInt("stream-type", in.type);
  node.SetInt("sync-mode", sync ? 1 : 0);
  node.SetDouble("framerate", 0);
  node.thread()->SetTxQue(sink.queue(), 0);
  node.Open();
  if (sync) {
    auto* fi = dynamic_cast<mm::FileInput*>(node.thread());
    NDArray frame;
    int r;
    while ((r = fi->GetFrame(frame, 10)) == 0) ++frames;
    if (r != 1) frames = -1;
  } else if (!end.Wait(60000)) {
    frames = -1;
  }
  node.Close();
  return frames;
}

int64_t RunGst(const Input& in, const std::string& path, bool count) {
  std::string desc = "filesrc location=\"" + path + "\" ! " + ParserStage(in.codec) +
                     " ! fakesink name=sink" + (count ? " signal-handoffs=true" : "");
  GstElement* p = Launch(desc);
  int64_t n = 0;
  if (count) {
    GstElement* sink = gst_bin_get_by_name(GST_BIN(p), "sink");
    g_signal_connect(sink, "handoff", G_CALLBACK(+[](GstElement*, GstBuffer*, GstPad*, gpointer d) {
                       ++*static_cast<int64_t*>(d);
                     }),
                     &n);
    gst_object_unref(sink);
  }
  bool ok = PlayToEos(p, 120);
  StopPipeline(p);
  return ok ? n : -1;
}

// Seconds for one run of candidate c, or -1 when it failed or lost or added
// access units.
double TimeOne(int c, const Input& in, const std::string& path, int64_t aus) {
  const int64_t t0 = MonoNs();
  int64_t got = aus;
  switch (c) {
    case kGst:
      got = RunGst(in, path, false) < 0 ? -1 : aus;
      break;
    case kGstLaunch: {
      // One argument per word: gst-launch-1.0 quotes arguments with blanks.
      std::vector<std::string> argv = {"gst-launch-1.0", "-q", "filesrc", "location=" + path, "!"};
      std::istringstream words(ParserStage(in.codec) + " ! fakesink");
      for (std::string w; words >> w;) argv.push_back(w);
      return TimeProcess(argv);
    }
    case kFfmpeg:
      return TimeProcess({"ffmpeg", "-v", "error", "-f", in.ffmpeg_format, "-i", path, "-c", "copy",
                          "-f", "null", "-"});
    case kLayer:
      got = RunLayer(in, path);
      break;
    default:
      got = RunNode(in, path, c == kNodeSync);
  }
  return got == aus ? static_cast<double>(MonoNs() - t0) / 1e9 : -1;
}

}  // namespace

int RunThroughput(const Options& o) {
  const int runs = o.Int("runs", 5);
  const std::string out = o.Str("out");
  std::string md = "## File throughput\n\n";
  std::string dat = "codec";
  for (const char* n : kNames) dat += Fmt("\t%s", n);
  dat += "\n";
  bool all_met = true;
  std::string verdicts;
  for (const Input& in : kInputs) {
    const std::string path = o.Str(in.codec);
    struct stat st;
    if (path.empty() || stat(path.c_str(), &st) != 0) continue;
    const int64_t aus = RunGst(in, path, true);
    if (aus <= 0) {
      std::fprintf(stderr, "qo-bench: GStreamer cannot parse %s\n", path.c_str());
      return 1;
    }
    std::fprintf(stderr, "qo-bench throughput: %s, %lld access units\n", in.title,
                 static_cast<long long>(aus));
    std::vector<double> secs[kCandidates];
    for (int r = 0; r < runs; ++r) {
      for (int c = 0; c < kCandidates; ++c) {
        // --only N: that reader alone, e.g. under a profiler.
        if (o.Int("only", c) == c) secs[c].push_back(TimeOne(c, in, path, aus));
      }
    }
    const double mb = static_cast<double>(st.st_size) / 1e6;
    std::vector<std::vector<std::string>> rows;
    double base = 0;
    dat += in.title;
    for (int c = 0; c < kCandidates; ++c) {
      bool failed = std::count(secs[c].begin(), secs[c].end(), -1.0) > 0;
      const double t = Median(secs[c]);
      if (c == kGst) base = t;
      if (failed || t <= 0) {
        rows.push_back({kNames[c], "failed", "", "", ""});
        dat += "\t0";
        all_met &= c < kLayer;
        continue;
      }
      const double ratio = base / t;  // rate ratio against the baseline
      rows.push_back({kNames[c], Fmt("%.1f", t * 1e3), Fmt("%.0f", aus / t), Fmt("%.0f", mb / t),
                      Fmt("%.2f", ratio)});
      dat += Fmt("\t%.3f", ratio);
      if (c >= kLayer && ratio < 0.8) {
        all_met = false;
        verdicts += Fmt("- %s, %s: %.3f of GStreamer's rate, %.1f %% short of 0.8\n", in.title,
                        kNames[c], ratio, (0.8 - ratio) / 0.8 * 100);
      }
    }
    dat += "\n";
    md += Fmt("### %s: %s, %.1f MB, %lld access units\n\n", in.title, path.c_str(), mb,
              static_cast<long long>(aus));
    md += MdTable({"Reader", "median time (ms)", "AU/s", "MB/s", "rate / baseline"}, rows);
  }
  md += "Target: every reader of ours at least 0.8 of the in-process GStreamer rate: " +
        Verdict(all_met, all_met ? "all codecs" : "see below") + "\n\n" + verdicts + "\n";
  md += Fmt(
      "Median of %d interleaved runs per reader. Times run from opening the reader until it is "
      "closed after its last access unit (processes: from spawn to exit, start-up included).\n\n",
      runs);
  md += "Command: `" + o.command() + "`\n\n";
  WriteFile(out + "/throughput.md", md);
  WriteFile(out + "/throughput.dat", dat);
  return 0;
}

}  // namespace bench
}  // namespace qo
