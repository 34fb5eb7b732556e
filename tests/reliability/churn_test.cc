// Open/close churn of both nodes through their global functions: after a
// warm-up, threads, open descriptors and resident memory stay flat over
// many cycles (the benchmark runs the long version).
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "process_stats.h"
#include "test_host.h"
#include "test_media.h"
#include "test_rtsp_server.h"

namespace qo {
namespace reliability {
namespace {

using testhost::HostNode;
using testhost::ReceivedTask;
using testhost::TaskCollector;

constexpr int kWarmUp = 10;

struct Snapshot {
  int threads;
  int fds;
  int64_t rss;
};

Snapshot Take() {
  // Streaming threads of a closed pipeline return to GLib's pool a little
  // after the close; the pool keeps at most a few.
  Snapshot s{ThreadCount(), OpenFdCount(), ResidentBytes()};
  return s;
}

// Runs `cycle` kWarmUp times, then `n` times, and checks that nothing grew.
void ExpectFlat(int n, const std::function<void(int)>& cycle) {
  for (int i = 0; i < kWarmUp; ++i) cycle(i);
  const Snapshot before = Take();
  const int64_t t0 = MonotonicMs();
  for (int i = 0; i < n; ++i) cycle(kWarmUp + i);
  const int64_t ms = MonotonicMs() - t0;
  Snapshot after = Take();
  WaitUntil(
      [&] {
        after = Take();
        return after.threads <= before.threads + 2 && after.fds <= before.fds;
      },
      5000);
  printf(
      "%d cycles in %lld ms (%.1f ms each): threads %d -> %d, fds %d -> %d, rss %.1f -> %.1f MiB\n",
      n, static_cast<long long>(ms), static_cast<double>(ms) / n, before.threads, after.threads,
      before.fds, after.fds, before.rss / 1048576.0, after.rss / 1048576.0);
  EXPECT_LE(after.threads, before.threads + 2) << ThreadNames();
  EXPECT_LE(after.fds, before.fds);
  EXPECT_EQ(ThreadCount("strm_out"), 0);
  EXPECT_EQ(ThreadCount("strm_in"), 0);
  EXPECT_EQ(ThreadCount("Gstloop"), 0);
  EXPECT_EQ(ThreadCount("live555src"), 0);
#ifndef QO_SANITIZER_BUILD
  // (Under the sanitizers freed memory sits in quarantine; the leak checker
  // covers that build instead.)
  EXPECT_LT(after.rss - before.rss, 8 * 1048576) << "resident memory grew";
#endif
}

bool WaitFrames(TaskCollector* out, size_t n, int timeout_ms) {
  return out->WaitFor(
      [&](const std::vector<ReceivedTask>& t) {
        size_t frames = 0;
        for (const auto& x : t) frames += x.flag == 0 ? 1 : 0;
        return frames >= n;
      },
      timeout_ms);
}

TEST(ChurnTest, VideoInputOverRtspOpenAndClose) {
  ASSERT_EQ(testhost::LoadSdk(), "");
  test::TestRtspServer::Options opts;
  opts.streams = {"h264=h264,key-int=5"};
  test::TestRtspServer server(opts);
  ASSERT_TRUE(server.Start()) << server.error();
  const std::string url = server.Url("h264");
  ExpectFlat(100, [&](int i) {
    TaskCollector out(16);
    HostNode node("qo.mm.video.in");
    node.thread()->SetTxQue(out.queue(), 0);
    node.SetString("uri", url);
    node.SetInt("lower-trans-type", i % 2 ? 4 : 1);
    node.Open();
    ASSERT_TRUE(WaitFrames(&out, 1, 10000)) << "cycle " << i;
    node.Close();
  });
}

TEST(ChurnTest, FileInputOpenAndClose) {
  ASSERT_EQ(testhost::LoadSdk(), "");
  testmedia::StreamParams p;
  p.width = 96;
  p.height = 64;
  p.frames = 10;
  const std::string file = testmedia::GenerateStream(p);
  ASSERT_FALSE(file.empty());
  ExpectFlat(200, [&](int i) {
    TaskCollector out(16);
    HostNode node("qo.mm.file.in");
    node.thread()->SetTxQue(out.queue(), 0);
    node.SetString("file", file);
    node.SetDouble("framerate", 0.0);
    node.Open();
    ASSERT_TRUE(out.WaitForFlag(1, 10000)) << "cycle " << i;
    EXPECT_GT(out.Count(0), 0u) << "cycle " << i;
    node.Close();
  });
}

}  // namespace
}  // namespace reliability
}  // namespace qo
