// Video input node against a loopback RTSP server that freezes (SIGSTOP) or
// goes away: the stream-out thread's retry budget, the one task that ends
// the stream, a budget restored by a frame in between, a sync-mode pull that
// times out, and a close that returns.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "test_rtsp_server.h"
#include "video_in_node_util.h"

namespace qo {
namespace node_test {
namespace {

class VideoInputFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::TestRtspServer::Options opts;
    opts.streams = {"h264=h264"};
    server_ = std::make_unique<test::TestRtspServer>(opts);
    ASSERT_TRUE(server_->Start()) << server_->error();
  }
  void TearDown() override {
    if (server_->running()) server_->Thaw();
  }

  // Opens a node with "timeout" 1 feeding port 0 and waits for frames.
  void OpenAndWaitForFrames(VideoInNode* g, PortSink* port, int trans, int sync_mode = 0) {
    g->SetString("uri", server_->Url("h264"));
    g->SetInt("lower-trans-type", trans);
    g->SetInt("timeout", 1);
    g->SetInt("sync-mode", sync_mode);
    g->node()->SetTxQue(port->queue(), 0);
    g->Open();
    if (sync_mode == 0) {
      ASSERT_TRUE(port->WaitForFrames(5, 15000));
    }
  }

  // The remaining budgets that the thread's time-outs logged, in order.
  static std::vector<int> Budgets(const LogCapture& log) {
    std::vector<int> out;
    for (const std::string& line : log.Matching("get stream timeout:")) {
      out.push_back(std::stoi(line.substr(line.find("timeout:") + 8)));
    }
    return out;
  }

  std::unique_ptr<test::TestRtspServer> server_;
};

TEST_F(VideoInputFaultTest, FrozenServerEndsTheThreadWithOneTimeoutTaskAfterThreeTimeouts) {
  for (int trans : {RTSP_TRANS_UDP, RTSP_TRANS_TCP}) {
    SCOPED_TRACE(trans);
    PortSink port;
    VideoInNode g;
    LogCapture log(0);
    OpenAndWaitForFrames(&g, &port, trans);
    server_->Freeze();
    const int64_t t0 = MonotonicNs();
    ASSERT_TRUE(port.WaitForEnd(15000));
    const double end_s = (MonotonicNs() - t0) / 1e9;
    EXPECT_TRUE(log.WaitFor("<<< Exit stream out thread", 2000));
    EXPECT_GE(end_s, 2.0);  // three pulls of 1 s, the first partly waited out
    EXPECT_LE(end_s, 6.0);
    EXPECT_EQ(Budgets(log), (std::vector<int>{2, 1, 0}));
    EXPECT_EQ(port.Count(2), 1u);
    EXPECT_EQ(port.Count(1), 0u);
    EXPECT_EQ(port.Tasks().back().shape, std::vector<int64_t>{0});
    EXPECT_EQ(ThreadCount("strm_out"), 0);
    // Nobody pulls any more: the stop waits out the layer's limit, then the
    // close returns although the server does not answer.
    const int64_t c0 = MonotonicNs();
    g.Close();
    const double close_s = (MonotonicNs() - c0) / 1e9;
    printf("frozen server (%s): status-2 task after %.2f s, close %.2f s\n",
           trans == RTSP_TRANS_TCP ? "tcp" : "udp", end_s, close_s);
    EXPECT_LT(close_s, 10.0);
    EXPECT_EQ(port.Count(0) + 1, port.Tasks().size()) << "nothing after the last task";
    server_->Thaw();
  }
}

TEST_F(VideoInputFaultTest, AFrameInBetweenRestoresTheRetryBudget) {
  PortSink port;
  VideoInNode g;
  LogCapture log(0);
  OpenAndWaitForFrames(&g, &port, RTSP_TRANS_UDP);
  server_->Freeze();  // one time-out, then frames again
  ASSERT_TRUE(log.WaitFor("get stream timeout:", 3000));
  server_->Thaw();
  ASSERT_TRUE(port.WaitForFrames(port.Count(0) + 10, 10000));
  ASSERT_EQ(Budgets(log), std::vector<int>{2});
  server_->Freeze();  // then three in a row, from a full budget
  ASSERT_TRUE(port.WaitForEnd(15000));
  EXPECT_TRUE(log.WaitFor("<<< Exit stream out thread", 2000));
  EXPECT_EQ(Budgets(log), (std::vector<int>{2, 2, 1, 0}));
  EXPECT_EQ(port.Count(2), 1u);
  server_->Thaw();
}

TEST_F(VideoInputFaultTest, ServerGoneEndsTheStreamWithOneTask) {
  for (int trans : {RTSP_TRANS_UDP, RTSP_TRANS_TCP}) {
    SCOPED_TRACE(trans);
    if (!server_->running()) {
      ASSERT_TRUE(server_->Restart()) << server_->error();
    }
    PortSink port;
    VideoInNode g;
    LogCapture log(0);
    OpenAndWaitForFrames(&g, &port, trans);
    server_->Kill();
    ASSERT_TRUE(port.WaitForEnd(15000));
    EXPECT_TRUE(log.WaitFor("<<< Exit stream out thread", 2000));
    EXPECT_EQ(port.Count(0) + 1, port.Tasks().size());
    const int64_t c0 = MonotonicNs();
    g.Close();
    printf("server gone (%s): status-%d task, close %.2f s\n",
           trans == RTSP_TRANS_TCP ? "tcp" : "udp", port.Tasks().back().flag,
           (MonotonicNs() - c0) / 1e9);
    EXPECT_LT(MonotonicNs() - c0, 10000000000LL);
    EXPECT_EQ(port.Count(0) + 1, port.Tasks().size());
  }
}

TEST_F(VideoInputFaultTest, SyncModePullTimesOutWithoutABudget) {
  PortSink port;
  VideoInNode g;
  LogCapture log(0);
  OpenAndWaitForFrames(&g, &port, RTSP_TRANS_UDP, 1);
  mm::VideoInput* node = g.node();
  NDArray frame;
  ASSERT_EQ(node->GetFrame(frame, 5), 0);
  server_->Freeze();
  int r = 0;
  for (int i = 0; i < 30 && r == 0; ++i) r = node->GetFrame(frame, 1);  // drain what was queued
  EXPECT_EQ(r, 2);
  EXPECT_EQ(node->GetFrame(frame, 1), 2);
  EXPECT_EQ(frame.GetTensorDataSize(), 0u);
  EXPECT_EQ(log.Count(": get stream timeout !!!\n"), 2u);
  EXPECT_EQ(log.Count("get stream timeout:"), 0u);
  server_->Thaw();
  std::thread puller([&] {  // the host pulls while the node stops
    NDArray f;
    int last;
    do {
      last = node->GetFrame(f, 1);
    } while (last == 0 || last == 2);
    EXPECT_EQ(last, 1);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  g.Close();
  puller.join();
}

}  // namespace
}  // namespace node_test
}  // namespace qo
