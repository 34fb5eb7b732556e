// The video input node, driven through its registered global functions,
// against RTSP servers that fail. A camera back within the node's time-out
// budget costs no restart: frames resume on the same node without any host
// action and no end task goes out. One gone for good ends the stream with
// a single status-2 task, and with reconnection off a lost server ends it
// as before. Close is prompt and leaves no thread behind.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "bye_rtsp_server.h"
#include "process_stats.h"
#include "test_host.h"
#include "test_rtsp_server.h"

namespace qo {
namespace reliability {
namespace {

using qo::test::TestRtspServer;
using testhost::HostNode;
using testhost::ReceivedTask;
using testhost::TaskCollector;

#ifdef QO_SANITIZER_BUILD
constexpr int64_t kPromptMs = 3000;
#else
constexpr int64_t kPromptMs = 1000;
#endif
// The layer's stop waits up to 4 s for a puller that is no longer there.
constexpr int64_t kUnpulledStopMs = 4000 + kPromptMs;
constexpr int kUdp = 1, kTcp = 4;

size_t EndTasks(const std::vector<ReceivedTask>& tasks) {
  size_t n = 0;
  for (const auto& t : tasks) n += t.flag != 0 ? 1 : 0;
  return n;
}

// A video input node on port 0 of a collector; closed and destroyed at the
// end of the scope.
struct Node {
  Node(const std::string& uri, int trans, int timeout_s) : node("qo.mm.video.in") {
    node.thread()->SetTxQue(out.queue(), 0);
    node.SetString("uri", uri);
    node.SetInt("lower-trans-type", trans);
    node.SetInt("stream-type", 31);
    node.SetInt("timeout", timeout_s);
  }
  bool WaitFrames(size_t n, int timeout_ms) {
    return out.WaitFor(
        [&](const std::vector<ReceivedTask>& t) { return t.size() - EndTasks(t) >= n; },
        timeout_ms);
  }
  bool WaitEnd(int timeout_ms) {
    return out.WaitFor([](const std::vector<ReceivedTask>& t) { return EndTasks(t) > 0; },
                       timeout_ms);
  }
  // Closes the node; returns how long it took.
  int64_t Close() {
    const int64_t t0 = MonotonicMs();
    node.Close();
    return MonotonicMs() - t0;
  }
  TaskCollector out{64};  // declared before the node, which feeds it
  HostNode node;
};

class VideoInputFaultTest : public ::testing::TestWithParam<int> {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(testhost::LoadSdk(), "");
    // GLib's and GStreamer's process-wide threads (settings, proxy lookup)
    // start with the first connection: before counting.
    TestRtspServer server;
    ASSERT_TRUE(server.Start()) << server.error();
    Node n(server.Url("h264"), kTcp, 3);
    n.node.Open();
    n.WaitFrames(1, 15000);
  }
  void SetUp() override {
    threads_before_ = ThreadCount();
    TestRtspServer::Options opts;
    opts.streams = {"h264=h264,key-int=15"};
    server_ = std::make_unique<TestRtspServer>(opts);
    ASSERT_TRUE(server_->Start()) << server_->error();
  }
  void TearDown() override {
    if (server_->running()) server_->Thaw();
    server_.reset();
    EXPECT_EQ(ThreadCount("strm_out"), 0);
    EXPECT_EQ(ThreadCount("Gstloop"), 0);
    EXPECT_EQ(ThreadCount("live555src"), 0);
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= threads_before_ + 2; }, 5000))
        << "before " << threads_before_ << ", now " << ThreadCount() << ": " << ThreadNames();
  }

  // Frames resume on the same node after `fault`, no end task goes out,
  // and the close while the node still pulls is prompt.
  void ExpectResumeAfter(Node* n, const std::function<void()>& fault) {
    n->node.Open();
    ASSERT_TRUE(n->WaitFrames(10, 15000));
    fault();
    const size_t before = n->out.Count(0);
    EXPECT_TRUE(n->WaitFrames(before + 10, 15000)) << "frames did not resume";
    EXPECT_EQ(EndTasks(n->out.Tasks()), 0u) << "the outage ended the stream";
    EXPECT_LT(n->Close(), kPromptMs) << "close";
    n->out.Stop();
    EXPECT_EQ(EndTasks(n->out.Tasks()), 1u) << "one final task at close";
  }

  std::unique_ptr<TestRtspServer> server_;
  int threads_before_ = 0;
};

// The camera reboots: killed, and back on the same port three seconds
// later. The node (default time-out, 3 x 3 s budget) streams on by itself.
TEST_P(VideoInputFaultTest, ServerRestartedThreeSecondsLaterResumesOnTheSameNode) {
  Node n(server_->Url("h264"), GetParam(), 3);
  ExpectResumeAfter(&n, [&] {
    server_->Kill();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    ASSERT_TRUE(server_->Start()) << server_->error();
  });
}

TEST_P(VideoInputFaultTest, ServerClosingTheConnectionCostsNoRestart) {
  Node n(server_->Url("h264"), GetParam(), 3);
  ExpectResumeAfter(&n, [&] { ASSERT_TRUE(server_->Drop()); });
}

TEST_P(VideoInputFaultTest, ServerRefusingForTwoSecondsCostsNoRestart) {
  Node n(server_->Url("h264"), GetParam(), 3);
  ExpectResumeAfter(&n, [&] {
    ASSERT_TRUE(server_->Refuse());
    ASSERT_TRUE(server_->Drop());
    std::this_thread::sleep_for(std::chrono::seconds(2));
    ASSERT_TRUE(server_->Accept()) << server_->error();
  });
}

TEST_P(VideoInputFaultTest, ServerFrozenForThreeSecondsCostsNoRestart) {
  Node n(server_->Url("h264"), GetParam(), 3);
  ExpectResumeAfter(&n, [&] {
    server_->Freeze();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    server_->Thaw();
  });
}

TEST_P(VideoInputFaultTest, SenderByeCostsNoRestart) {
  ByeRtspServer bye;
  std::string error;
  ASSERT_TRUE(bye.Start(&error)) << error;
  {
    Node n(bye.Url(), GetParam(), 3);
    ExpectResumeAfter(&n, [&] { EXPECT_EQ(bye.SendBye(), 1); });
  }
  bye.Stop();
}

// Gone for good: the source keeps retrying, the node's budget runs out and
// one status-2 task ends the stream, as it always did.
TEST_P(VideoInputFaultTest, ServerGoneForGoodEndsWithOneTimeoutTask) {
  Node n(server_->Url("h264"), GetParam(), 1);
  n.node.Open();
  ASSERT_TRUE(n.WaitFrames(5, 15000));
  server_->Kill();
  ASSERT_TRUE(n.WaitEnd(15000));
  EXPECT_TRUE(WaitUntil([] { return ThreadCount("strm_out") == 0; }, 2000));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  auto tasks = n.out.Tasks();
  EXPECT_EQ(EndTasks(tasks), 1u);
  EXPECT_EQ(tasks.back().flag, 2);
  EXPECT_LT(n.Close(), kUnpulledStopMs);
  n.out.Stop();
  EXPECT_EQ(n.out.Tasks().size(), tasks.size()) << "nothing after the last task";
}

// Reconnection off (the source property after the URL): the node ends with
// one task as before, and a server that comes back is not used.
TEST_P(VideoInputFaultTest, WithoutReconnectionALostServerEndsTheNodeWithOneTask) {
  Node n(server_->Url("h264") + " reconnect=false", GetParam(), 1);
  n.node.Open();
  ASSERT_TRUE(n.WaitFrames(5, 15000));
  server_->Kill();
  ASSERT_TRUE(n.WaitEnd(15000));
  ASSERT_TRUE(server_->Start()) << server_->error();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  auto tasks = n.out.Tasks();
  EXPECT_EQ(EndTasks(tasks), 1u);
  const int32_t last = tasks.back().flag;
  EXPECT_TRUE(last == 1 || last == 2) << last;
  const int64_t close_ms = n.Close();
  // After an end-of-stream the layer's stop has seen the end already.
  EXPECT_LT(close_ms, last == 1 ? kPromptMs : kUnpulledStopMs);
  printf("%s without reconnection: status-%d task, close %lld ms\n",
         GetParam() == kTcp ? "tcp" : "udp", last, static_cast<long long>(close_ms));
  n.out.Stop();
  EXPECT_EQ(n.out.Tasks().size(), tasks.size());
}

INSTANTIATE_TEST_SUITE_P(Transports, VideoInputFaultTest, ::testing::Values(kUdp, kTcp),
                         [](const auto& p) { return p.param == kTcp ? "tcp" : "udp"; });

}  // namespace
}  // namespace reliability
}  // namespace qo
