// Access units per second through the file decoder layer (a feeder reading
// 256 KiB packets as the file node does, a puller copying every frame out),
// side by side with GStreamer parsing the same file on its own:
//   filesrc location=F ! h264parse ! <au caps> ! fakesink
// in this process and as a gst-launch-1.0 child process.
//
//   bench_file_in [--frames=N] [benchmark flags]
// N pictures of 1080p30 H.264 at 8 Mbit/s (default 300, i.e. 10 s).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <gst/gst.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "hal_mm_file_in.h"
#include "test_media.h"

extern char** environ;

namespace {

constexpr size_t kPacketBytes = 262144;  // the file node's default read size

std::string g_path;
int64_t g_access_units = 0;
double g_layer_rate = 0;
double g_gst_rate = 0;
double g_gst_process_rate = 0;

const char* const kGstDescription =
    "filesrc location=\"%s\" ! h264parse ! "
    "video/x-h264,stream-format=byte-stream,alignment=au ! fakesink";

struct Packet {
  qo_VideoStream vs{};
  uint8_t* bytes = nullptr;
  static void Free(void* priv) {
    auto* p = static_cast<Packet*>(priv);
    delete[] p->bytes;
    delete p;
  }
};

// Reads the file in fresh packets and pushes them, then end of stream.
void Feed(qo_VideoFileHandle h) {
  pthread_setname_np(pthread_self(), "bench_feeder");
  FILE* f = std::fopen(g_path.c_str(), "rb");
  if (f == nullptr) return;
  for (;;) {
    auto* p = new Packet;
    p->bytes = new uint8_t[kPacketBytes];
    size_t n = std::fread(p->bytes, 1, kPacketBytes, f);
    p->vs.stream.data = p->bytes;
    p->vs.stream.size = static_cast<int32_t>(n);
    p->vs.stream.eos = n == 0 ? 1 : 0;
    p->vs.priv = p;
    p->vs.free_func = &Packet::Free;
    int r;
    while ((r = qo_VideoFilePutStream(h, &p->vs, 60)) > 0) {
    }
    if (r < 0 || n == 0) break;
  }
  std::fclose(f);
}

int64_t RunLayerOnce() {
  qo_VideoFileHandle h = qo_VideoFileOpen();
  if (h == nullptr) return -1;
  qo_VideoFileCfg(h, "stream-type", 31);
  if (qo_VideoFileStart(h) != 0) {
    qo_VideoFileClose(h);
    return -1;
  }
  std::thread feeder(Feed, h);
  int64_t frames = 0;
  for (;;) {
    qo_StreamInfo info{};
    qo_VideoFileGetFrame(h, &info, 10);
    if (info.data == nullptr) {
      if (info.eos == 0) frames = -1;  // timed out
      break;
    }
    benchmark::DoNotOptimize(info.data[0]);
    qo_VideoFileFrameFree(&info);
    ++frames;
  }
  feeder.join();
  qo_VideoFileStop(h);
  qo_VideoFileClose(h);
  return frames;
}

bool RunGstOnce() {
  std::vector<char> desc(g_path.size() + std::strlen(kGstDescription) + 1);
  std::snprintf(desc.data(), desc.size(), kGstDescription, g_path.c_str());
  GstElement* pipeline = gst_parse_launch(desc.data(), nullptr);
  if (pipeline == nullptr) return false;
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* msg = gst_bus_timed_pop_filtered(
      bus, 120 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  bool ok = msg != nullptr && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
  if (msg != nullptr) gst_message_unref(msg);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return ok;
}

bool RunGstProcessOnce() {
  std::string location = "location=" + g_path;
  const char* argv[] = {"gst-launch-1.0",
                        "-q",
                        "filesrc",
                        location.c_str(),
                        "!",
                        "h264parse",
                        "!",
                        "video/x-h264,stream-format=byte-stream,alignment=au",
                        "!",
                        "fakesink",
                        nullptr};
  pid_t pid;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
    return false;
  }
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_FileLayer(benchmark::State& state) {
  int64_t total = 0;
  for (auto _ : state) {
    int64_t frames = RunLayerOnce();
    if (frames != g_access_units) {
      state.SkipWithError("the layer lost or added access units");
      return;
    }
    total += frames;
  }
  state.counters["AU/s"] =
      benchmark::Counter(static_cast<double>(total), benchmark::Counter::kIsRate);
}

void BM_GstParseInProcess(benchmark::State& state) {
  int64_t total = 0;
  for (auto _ : state) {
    if (!RunGstOnce()) {
      state.SkipWithError("pipeline failed");
      return;
    }
    total += g_access_units;
  }
  state.counters["AU/s"] =
      benchmark::Counter(static_cast<double>(total), benchmark::Counter::kIsRate);
}

void BM_GstLaunchProcess(benchmark::State& state) {
  int64_t total = 0;
  for (auto _ : state) {
    if (!RunGstProcessOnce()) {
      state.SkipWithError("gst-launch-1.0 failed");
      return;
    }
    total += g_access_units;
  }
  state.counters["AU/s"] =
      benchmark::Counter(static_cast<double>(total), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_FileLayer)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_GstParseInProcess)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_GstLaunchProcess)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

// Keeps the console output and remembers each benchmark's rate.
class RateReporter : public benchmark::ConsoleReporter {
 public:
  RateReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      auto it = run.counters.find("AU/s");
      if (it == run.counters.end()) continue;
      std::string name = run.benchmark_name();
      if (name.rfind("BM_FileLayer", 0) == 0) g_layer_rate = it->second;
      if (name.rfind("BM_GstParseInProcess", 0) == 0) g_gst_rate = it->second;
      if (name.rfind("BM_GstLaunchProcess", 0) == 0) g_gst_process_rate = it->second;
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  qo::testmedia::StreamParams params;
  params.width = 1920;
  params.height = 1080;
  params.frames = 300;
  params.key_int = 60;
  params.pattern = 1;  // snow: every picture costs its full share of bits
  params.bitrate_kbps = 8000;
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--frames=", 9) == 0) {
      params.frames = std::atoi(argv[i] + 9);
    } else {
      args.push_back(argv[i]);
    }
  }
  int args_count = static_cast<int>(args.size());

  gst_init(nullptr, nullptr);
  std::fprintf(stderr, "bench_file_in: preparing %d pictures of 1080p H.264...\n", params.frames);
  g_path = qo::testmedia::GenerateStream(params);
  if (g_path.empty()) return 1;
  g_access_units =
      static_cast<int64_t>(qo::testmedia::ReferenceAccessUnits(g_path, params.codec).size());
  std::fprintf(stderr, "bench_file_in: %s, %lld access units\n", g_path.c_str(),
               static_cast<long long>(g_access_units));
  if (g_access_units == 0) return 1;

  benchmark::Initialize(&args_count, args.data());
  // The layer prints its end-of-stream lines on standard output every run:
  // send them to /dev/null and the results to the original stdout.
  std::fflush(stdout);
  int results_fd = dup(STDOUT_FILENO);
  int null_fd = open("/dev/null", O_WRONLY);
  if (results_fd < 0 || null_fd < 0) return 1;
  dup2(null_fd, STDOUT_FILENO);
  close(null_fd);
  std::ofstream results("/proc/self/fd/" + std::to_string(results_fd));
  RateReporter reporter;
  reporter.SetOutputStream(&results);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  char line[160];
  if (g_layer_rate > 0 && g_gst_rate > 0) {
    std::snprintf(line, sizeof line, "file layer / GStreamer in process: %.0f / %.0f AU/s = %.2f\n",
                  g_layer_rate, g_gst_rate, g_layer_rate / g_gst_rate);
    results << line;
  }
  if (g_layer_rate > 0 && g_gst_process_rate > 0) {
    std::snprintf(line, sizeof line,
                  "file layer / gst-launch-1.0 process: %.0f / %.0f AU/s = %.2f\n", g_layer_rate,
                  g_gst_process_rate, g_layer_rate / g_gst_process_rate);
    results << line;
  }
  return 0;
}
