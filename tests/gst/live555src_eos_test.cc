// live555src ending and failing: the "eos" property, servers that refuse,
// freeze or vanish, and teardown that must not hang.
#include <gtest/gtest.h>

#include <string>

#include "live555src_test_util.h"
#include "test_rtsp_server.h"

namespace qo {
namespace test {
namespace {

// The live-stream layer's RTSP H.264 pipeline.
std::string HalLaunch(const std::string& url) {
  return "live555src name=src location=" + url +
         " protocols=4 ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=(string) au"
         " ! appsink name=sink async=false sync=false";
}

class Live555SrcEosTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { InitGstWithLive555Src(); }
  void SetUp() override {
    TestRtspServer::Options opts;
    opts.streams = {"h264=h264"};
    server_ = std::make_unique<TestRtspServer>(opts);
    ASSERT_TRUE(server_->Start()) << server_->error();
  }
  // Setting "eos" must bring end-of-stream to the appsink at once.
  static void ExpectPromptEos(Receiver* rx) {
    int64_t t0 = MonotonicMs();
    g_object_set(rx->src(), "eos", TRUE, nullptr);
    EXPECT_TRUE(rx->WaitEos(1000));
    EXPECT_LT(MonotonicMs() - t0, 500) << "end-of-stream took too long";
  }
  // Going to NULL must return promptly whatever the server does.
  static void ExpectPromptNull(Receiver* rx) {
    int64_t t0 = MonotonicMs();
    EXPECT_EQ(rx->SetState(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_LT(MonotonicMs() - t0, 3000) << "teardown hung";
  }
  std::unique_ptr<TestRtspServer> server_;
};

TEST_F(Live555SrcEosTest, EosWhileStreamingStopsTheFlow) {
  Receiver rx(HalLaunch(server_->Url("h264")));
  ASSERT_TRUE(rx.ok());
  rx.SetState(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(10, 10000));
  ExpectPromptEos(&rx);
  gboolean eos = FALSE;
  g_object_get(rx.src(), "eos", &eos, nullptr);
  EXPECT_TRUE(eos);
  // The server keeps sending; nothing of it may come after the end.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(rx.samples_after_eos(), 0u);
  EXPECT_EQ(rx.WaitError(0), "");
  ExpectPromptNull(&rx);
}

TEST_F(Live555SrcEosTest, EosBeforeAnyStreamWhileServerIsFrozen) {
  server_->Freeze();  // connects are accepted by the kernel, never answered
  Receiver rx(HalLaunch(server_->Url("h264")));
  ASSERT_TRUE(rx.ok());
  GstStateChangeReturn ret = rx.SetState(GST_STATE_PLAYING);
  EXPECT_TRUE(ret == GST_STATE_CHANGE_SUCCESS || ret == GST_STATE_CHANGE_NO_PREROLL) << ret;
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ExpectPromptEos(&rx);
  EXPECT_EQ(rx.samples().size(), 0u);
  ExpectPromptNull(&rx);
  server_->Thaw();
}

TEST_F(Live555SrcEosTest, EosRequestedBeforePlayingIsSentOnStart) {
  Receiver rx(HalLaunch(server_->Url("h264")));
  ASSERT_TRUE(rx.ok());
  g_object_set(rx.src(), "eos", TRUE, nullptr);
  rx.SetState(GST_STATE_PLAYING);
  EXPECT_TRUE(rx.WaitEos(1000));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(rx.samples().size(), 0u);
  // Back to READY and PLAYING again: a new run streams normally.
  rx.SetState(GST_STATE_READY);
  gboolean eos = TRUE;
  g_object_get(rx.src(), "eos", &eos, nullptr);
  EXPECT_FALSE(eos);
  const size_t from = rx.states().size();
  rx.SetState(GST_STATE_PLAYING);
  EXPECT_TRUE(rx.WaitSamples(5, 10000)) << "no frames in the second run";
  EXPECT_FALSE(rx.WaitEos(0));
  EXPECT_EQ(rx.WaitState("lost", 0, from), -1) << "the second run's first connection failed";
}

// Without reconnection a refused connection ends in an error, as the RTSP
// client reports it (with reconnection it is retried, see the reconnect test).
TEST_F(Live555SrcEosTest, RefusedConnectionPostsAnErrorWithoutReconnect) {
  ASSERT_TRUE(server_->Refuse());
  Receiver rx(HalLaunch(server_->Url("h264") + " reconnect=false"));
  ASSERT_TRUE(rx.ok());
  GstStateChangeReturn ret = rx.SetState(GST_STATE_PLAYING);
  EXPECT_TRUE(ret == GST_STATE_CHANGE_SUCCESS || ret == GST_STATE_CHANGE_NO_PREROLL) << ret;
  EXPECT_NE(rx.WaitError(5000), "");
  EXPECT_EQ(rx.samples().size(), 0u);
  ExpectPromptEos(&rx);
  ExpectPromptNull(&rx);
  // Listening again, the same element plays after a restart from NULL.
  ASSERT_TRUE(server_->Accept()) << server_->error();
  rx.SetState(GST_STATE_PLAYING);
  EXPECT_TRUE(rx.WaitSamples(5, 10000));
}

TEST_F(Live555SrcEosTest, TeardownAfterServerFrozeMidStream) {
  for (int protocols : {1, 4}) {
    SCOPED_TRACE(protocols);
    std::string launch = HalLaunch(server_->Url("h264"));
    launch.replace(launch.find("protocols=4"), 11, "protocols=" + std::to_string(protocols));
    Receiver rx(launch);
    ASSERT_TRUE(rx.ok());
    rx.SetState(GST_STATE_PLAYING);
    ASSERT_TRUE(rx.WaitSamples(5, 10000));
    server_->Freeze();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ExpectPromptNull(&rx);
    server_->Thaw();
  }
}

TEST_F(Live555SrcEosTest, TeardownAfterServerVanishedMidStream) {
  Receiver rx(HalLaunch(server_->Url("h264")));
  ASSERT_TRUE(rx.ok());
  rx.SetState(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(5, 10000));
  server_->Kill();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ExpectPromptEos(&rx);
  ExpectPromptNull(&rx);
}

}  // namespace
}  // namespace test
}  // namespace qo
