// Many cameras in one process: what happens when descriptors run out.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hal_mm_video_in.h"
#include "test_host.h"
#include "test_media.h"
#include "test_rtsp_server.h"

namespace qo {
namespace reliability {
namespace {

// At a soft descriptor limit of 1024, the first node that cannot open fails
// at once saying why; every stream opened before it keeps its frame rate.
constexpr int kMaxStreams = 200;  // far more than 1024 descriptors hold (about 14 each)
constexpr int kMeasureSeconds = 3;
#ifdef QO_SANITIZER_BUILD
// Instrumented code on a shared machine: seventy streams start and run slower.
constexpr int kStartMs = 60000;
constexpr double kMinFps = 10;
#else
constexpr int kStartMs = 15000;
constexpr double kMinFps = 25;
#endif

size_t FramesOf(const std::vector<testhost::ReceivedTask>& tasks, int stream) {
  size_t n = 0;
  for (const testhost::ReceivedTask& t : tasks) n += t.flag == 0 && t.source_id == stream;
  return n;
}

TEST(DescriptorCeilingTest, TheFirstStreamThatCannotOpenFailsClearlyAndTheOthersKeepDelivering) {
  ASSERT_EQ(testhost::LoadSdk(), "");
  qo_VideoStreamSetLogSink([](const char*, void*) {}, nullptr);  // seventy streams' lines
  testmedia::StreamParams p;
  p.width = 160, p.height = 120, p.frames = 60, p.key_int = 5;
  const std::string clip = testmedia::GenerateStream(p);
  ASSERT_FALSE(clip.empty());
  qo::test::TestRtspServer server(
      qo::test::TestRtspServer::Options{{"cam=h264,size=160x120,fps=30,file=" + clip}, "", ""});
  ASSERT_TRUE(server.Start()) << server.error();
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max < 1024) GTEST_SKIP() << "the hard descriptor limit is below 1024";
  struct Restore {
    rlimit saved;
    ~Restore() { setrlimit(RLIMIT_NOFILE, &saved); }
  } restore{limit};
  limit.rlim_cur = 1024;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);

  const PackedFunc& code_of = testhost::Func("qo.mm.video.in.last.error.code");
  const PackedFunc& text_of = testhost::Func("qo.mm.video.in.last.error");
  const PackedFunc& stats_of = testhost::Func("qo.mm.video.in.stats");
  testhost::TaskCollector out(4096);
  std::vector<std::unique_ptr<testhost::HostNode>> nodes;
  int failed_at = -1;
  std::string failure;
  for (int i = 0; i < kMaxStreams && failed_at < 0; ++i) {
    nodes.emplace_back(new testhost::HostNode("qo.mm.video.in"));
    testhost::HostNode& node = *nodes.back();
    node.SetString("uri", server.Url("cam"));
    node.SetInt("stream-id", i);
    node.thread()->SetTxQue(out.queue(), 0);
    const auto t0 = std::chrono::steady_clock::now();
    try {
      node.Open();
    } catch (const std::exception& e) {
      failure = e.what();
      failed_at = i;
      // Refused before anything was built: at once.
      EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    }
  }
  ASSERT_GE(failed_at, 10) << "too few streams before the limit: " << failure;
  ASSERT_LT(failed_at, kMaxStreams) << "the limit was never reached";
  void* failed = nodes.back()->handle();
  EXPECT_EQ(static_cast<int>(code_of(failed)), QO_STREAM_TOO_MANY_FILES) << failure;
  EXPECT_NE(text_of(failed).AsString().find("too many open files"), std::string::npos);
  const std::string failed_stats = stats_of(failed).AsString();
  EXPECT_NE(failed_stats.find("\"frames\":0,"), std::string::npos) << failed_stats;
  EXPECT_NE(failed_stats.find("\"reason_code\":10,"), std::string::npos) << failed_stats;

  // The streams opened before all deliver, and keep their rate.
  EXPECT_TRUE(out.WaitFor(
      [failed_at](const auto& t) {
        for (int i = 0; i < failed_at; ++i) {
          if (FramesOf(t, i) == 0) return false;
        }
        return true;
      },
      kStartMs));
  std::vector<size_t> before(failed_at);
  const std::vector<testhost::ReceivedTask> tasks0 = out.Tasks();
  for (int i = 0; i < failed_at; ++i) before[i] = FramesOf(tasks0, i);
  std::this_thread::sleep_for(std::chrono::seconds(kMeasureSeconds));
  const std::vector<testhost::ReceivedTask> tasks1 = out.Tasks();
  for (int i = 0; i < failed_at; ++i) {
    const double fps = static_cast<double>(FramesOf(tasks1, i) - before[i]) / kMeasureSeconds;
    EXPECT_GE(fps, kMinFps) << "stream " << i << " of " << failed_at;
    const std::string stats = stats_of(nodes[i]->handle()).AsString();
    EXPECT_EQ(stats.find("\"frames\":0,"), std::string::npos) << stats;
    EXPECT_NE(stats.find("\"reason_code\":0,"), std::string::npos) << stats;
    EXPECT_EQ(stats.find("\"median_age_ms\":null"), std::string::npos) << stats;
  }
  const auto t0 = std::chrono::steady_clock::now();
  nodes.clear();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(30));
}

}  // namespace
}  // namespace reliability
}  // namespace qo
