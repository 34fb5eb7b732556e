// live555src and a sender that ends its stream with RTCP BYE: with
// reconnection the loss is noticed at once (not after the silence
// time-out) and a new connection streams on; without it the end-of-stream
// reaches the application, as the RTSP client delivers it.
#include <gtest/gtest.h>

#include <string>

#include "bye_rtsp_server.h"
#include "live555src_test_util.h"

namespace qo {
namespace reliability {
namespace {

using test::Receiver;

std::string Launch(const std::string& url, int protocols, const std::string& props) {
  return "live555src name=src location=" + url + " protocols=" + std::to_string(protocols) + " " +
         props +
         " ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=(string) au"
         " ! appsink name=sink async=false sync=false";
}

class Live555SrcByeTest : public ::testing::TestWithParam<int> {
 protected:
  static void SetUpTestSuite() { test::InitGstWithLive555Src(); }
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(server_.Start(&error)) << error;
  }
  ByeRtspServer server_;
};

TEST_P(Live555SrcByeTest, ByeIsALostConnectionThatIsReestablished) {
  // A long silence time-out: only the BYE can explain a prompt loss.
  Receiver rx(Launch(server_.Url(), GetParam(), "timeout=10000"));
  ASSERT_TRUE(rx.ok());
  rx.SetState(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(10, 10000));
  const int64_t t0 = test::MonotonicMs();
  ASSERT_EQ(server_.SendBye(), 1);
  int lost = rx.WaitState("lost", 3000);
  ASSERT_GE(lost, 0);
  auto states = rx.states();
  EXPECT_EQ(states[lost].reason, "the server ended the stream");
  EXPECT_LT(states[lost].at_ms - t0, 2000);
  ASSERT_GE(rx.WaitState("streaming", 10000, lost), 0);
  size_t n = rx.samples().size();
  EXPECT_TRUE(rx.WaitSamples(n + 10, 10000));
  EXPECT_EQ(rx.bus_eos(), 0u);
  EXPECT_EQ(rx.bus_errors(), 0u);
  EXPECT_EQ(rx.samples_after_eos(), 0u);
  EXPECT_FALSE(rx.WaitEos(0));
}

TEST_P(Live555SrcByeTest, WithoutReconnectByeEndsTheStream) {
  Receiver rx(Launch(server_.Url(), GetParam(), "reconnect=false"));
  ASSERT_TRUE(rx.ok());
  rx.SetState(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(10, 10000));
  ASSERT_EQ(server_.SendBye(), 1);
  EXPECT_TRUE(rx.WaitEos(3000));
  EXPECT_GE(rx.WaitState("lost", 1000), 0);
  EXPECT_EQ(rx.WaitState("retrying", 500), -1);
}

INSTANTIATE_TEST_SUITE_P(Transports, Live555SrcByeTest, ::testing::Values(1, 4),
                         [](const auto& p) { return p.param == 4 ? "tcp" : "udp"; });

}  // namespace
}  // namespace reliability
}  // namespace qo
