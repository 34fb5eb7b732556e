// qo-bench: what ingest costs per stream and how fresh its frames are, next
// to the tools users would otherwise pick, on the same input in the same run.
//
//   qo-bench AREA --out DIR [--key value ...]
//
// AREA is throughput, latency, scale, startstop or churn; scripts/bench.sh
// (make bench) generates the inputs, starts the RTSP server and runs them
// all. Each area writes DIR/AREA.md (its section of the results) and the
// data files of its plot.
#include <fcntl.h>
#include <gst/gst.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>

#include "bench_util.h"
#include "core/qo_logging.h"

int main(int argc, char** argv) {
  qo::bench::Options options(argc, argv);
  const std::string& area = options.area();
  int (*run)(const qo::bench::Options&) = area == "throughput"  ? qo::bench::RunThroughput
                                          : area == "latency"   ? qo::bench::RunLatency
                                          : area == "scale"     ? qo::bench::RunScale
                                          : area == "startstop" ? qo::bench::RunStartStop
                                          : area == "churn"     ? qo::bench::RunChurn
                                                                : nullptr;
  if (run == nullptr || options.Str("out").empty()) {
    std::fprintf(stderr,
                 "usage: qo-bench throughput|latency|scale|startstop|churn --out DIR "
                 "[--key value ...]\n");
    return 2;
  }
  // The layers report on standard output frame by frame; keep only warnings
  // of the node log, on standard error.
  std::fflush(stdout);
  int null_fd = open("/dev/null", O_WRONLY);
  if (null_fd >= 0) {
    dup2(null_fd, STDOUT_FILENO);
    close(null_fd);
  }
  qo::g_log_level = 4;
  gst_init(nullptr, nullptr);
  try {
    return run(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qo-bench %s: %s\n", area.c_str(), e.what());
    return 1;
  }
}
