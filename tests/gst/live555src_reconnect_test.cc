// live555src reconnecting by itself: a server that restarts on the same
// port, drops its clients, refuses for a while or freezes; the back-off; the
// key frame each new connection starts with; a slow consumer that is no
// silent server; "eos" and NULL while retrying; reconnection turned off.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "live555src_test_util.h"
#include "test_rtsp_server.h"

namespace qo {
namespace test {
namespace {

// The live-stream layer's RTSP H.264 pipeline, with extra source properties.
std::string Launch(const std::string& url, int protocols, const std::string& props = "") {
  return "live555src name=src location=" + url + " protocols=" + std::to_string(protocols) + " " +
         props +
         " ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=(string) au"
         " ! appsink name=sink async=false sync=false";
}

std::string Sequence(const std::vector<StateMessage>& states) {
  std::string out;
  for (const auto& s : states) out += s.state + "(" + std::to_string(s.attempt) + ") ";
  return out;
}

// The first sample after the longest pause between two samples.
size_t FirstAfterLongestGap(const std::vector<ReceivedSample>& samples) {
  size_t at = 0;
  int64_t longest = -1;
  for (size_t i = 1; i < samples.size(); ++i) {
    int64_t gap = samples[i].arrival - samples[i - 1].arrival;
    if (gap > longest) {
      longest = gap;
      at = i;
    }
  }
  return at;
}

class Live555SrcReconnectTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { InitGstWithLive555Src(); }
  void SetUp() override {
    TestRtspServer::Options opts;
    opts.streams = {"h264=h264,key-int=15"};
    server_ = std::make_unique<TestRtspServer>(opts);
    ASSERT_TRUE(server_->Start()) << server_->error();
  }
  void TearDown() override {
    if (server_->running()) server_->Thaw();
  }
  // Going to NULL must be prompt whatever the connection is doing, and must
  // leave no watch thread behind.
  static void ExpectPromptNull(Receiver* rx) {
    int64_t t0 = MonotonicMs();
    EXPECT_EQ(rx->SetState(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_LT(MonotonicMs() - t0, 1000) << "teardown took too long";
    EXPECT_EQ(ThreadsNamed("live555src"), 0);
  }
  std::unique_ptr<TestRtspServer> server_;
};

// A camera that reboots: the server dies and comes back on the same port a
// second later. Frames resume on the same pipeline, starting at a key frame;
// neither an error nor an end-of-stream reaches the application.
TEST_F(Live555SrcReconnectTest, ResumesAfterTheServerRestartsOnTheSamePort) {
  for (int protocols : {4, 1}) {
    SCOPED_TRACE(protocols == 4 ? "tcp" : "udp");
    if (!server_->running()) {
      ASSERT_TRUE(server_->Start()) << server_->error();
    }
    Receiver rx(Launch(server_->Url("h264"), protocols));
    ASSERT_TRUE(rx.ok()) << rx.parse_error();
    rx.SetState(GST_STATE_PLAYING);
    ASSERT_TRUE(rx.WaitSamples(10, 10000));
    ASSERT_GE(rx.WaitState("streaming", 1000), 0) << Sequence(rx.states());
    EXPECT_EQ(rx.samples().front().delta, false) << "the first connection starts at a key frame";

    server_->Kill();
    const size_t before = rx.samples().size();
    int lost = rx.WaitState("lost", 5000);
    ASSERT_GE(lost, 0) << Sequence(rx.states());
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    ASSERT_TRUE(server_->Start()) << server_->error();
    ASSERT_TRUE(rx.WaitSamples(before + 15, 15000)) << Sequence(rx.states());

    auto states = rx.states();
    int resumed = rx.WaitState("streaming", 0, lost);
    ASSERT_GT(resumed, lost) << Sequence(states);
    EXPECT_EQ(states[resumed - 1].state, "connecting") << Sequence(states);
    EXPECT_GE(states[resumed - 1].attempt, 1u);
    EXPECT_EQ(states[lost + 1].state, "retrying") << Sequence(states);
    EXPECT_EQ(rx.bus_errors(), 0u);
    EXPECT_EQ(rx.bus_eos(), 0u);
    EXPECT_FALSE(rx.WaitEos(0));

    auto samples = rx.samples();
    size_t first = FirstAfterLongestGap(samples);
    ASSERT_GE(first, before - 1);
    EXPECT_FALSE(samples[first].delta) << "resumed on a delta unit";
    for (size_t i = first; i < samples.size(); ++i) {
      EXPECT_EQ(samples[i].caps.rfind("video/x-h264", 0), 0u) << samples[i].caps;
    }
    ExpectPromptNull(&rx);
  }
}

// A connection that joins a running stream between two key frames (here:
// while another client keeps the server's stream going) passes nothing
// before the next key frame, for either codec. Every reconnection starts the
// same way.
TEST_F(Live555SrcReconnectTest, AConnectionStartsAtAKeyFrame) {
  TestRtspServer::Options opts;
  opts.streams = {"h264=h264,key-int=15", "h265=h265,key-int=15"};
  TestRtspServer server(opts);
  ASSERT_TRUE(server.Start()) << server.error();
  for (const char* codec : {"h264", "h265"}) {
    std::string stage = std::string(codec) + "parse ! video/x-" + codec +
                        ",stream-format=byte-stream,alignment=(string) au";
    auto launch = [&](const std::string& url) {
      return "live555src name=src protocols=4 location=" + url + " ! " + stage +
             " ! appsink name=sink async=false sync=false";
    };
    Receiver keeper(launch(server.Url(codec)));
    ASSERT_TRUE(keeper.ok());
    keeper.SetState(GST_STATE_PLAYING);
    ASSERT_TRUE(keeper.WaitSamples(3, 10000));
    for (int i = 0; i < 3; ++i) {
      SCOPED_TRACE(std::string(codec) + " join " + std::to_string(i));
      // Join at different points of the 15-frame group.
      std::this_thread::sleep_for(std::chrono::milliseconds(90 + 110 * i));
      Receiver rx(launch(server.Url(codec)));
      ASSERT_TRUE(rx.ok());
      rx.SetState(GST_STATE_PLAYING);
      ASSERT_TRUE(rx.WaitSamples(20, 10000))
          << rx.samples().size() << " frames; " << Sequence(rx.states());
      auto samples = rx.samples();
      EXPECT_FALSE(samples.front().delta) << "started on a delta unit";
      size_t keys = 0;
      for (const auto& s : samples) keys += s.delta ? 0 : 1;
      EXPECT_LT(keys, samples.size()) << "delta units pass once started";
    }
  }
}

// The server closes every client connection, and later refuses connections
// for a while: both times the stream comes back; the delays between the
// attempts double within their jitter and stay within the bounds.
TEST_F(Live555SrcReconnectTest, RecoversFromDroppedAndRefusedConnectionsWithBoundedBackOff) {
  Receiver rx(Launch(server_->Url("h264"), 4, "retry-delay-min=50 retry-delay-max=400"));
  ASSERT_TRUE(rx.ok());
  rx.SetState(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(5, 10000));

  ASSERT_TRUE(server_->Drop());
  int lost = rx.WaitState("lost", 5000);
  ASSERT_GE(lost, 0) << Sequence(rx.states());
  ASSERT_GE(rx.WaitState("streaming", 10000, lost), 0) << Sequence(rx.states());
  size_t n = rx.samples().size();
  ASSERT_TRUE(rx.WaitSamples(n + 5, 10000));

  ASSERT_TRUE(server_->Refuse());
  ASSERT_TRUE(server_->Drop());
  size_t from = rx.states().size();
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  ASSERT_TRUE(server_->Accept()) << server_->error();
  int back = rx.WaitState("streaming", 10000, from);
  ASSERT_GE(back, 0) << Sequence(rx.states());
  n = rx.samples().size();
  EXPECT_TRUE(rx.WaitSamples(n + 5, 10000));

  auto states = rx.states();
  unsigned retries = 0;
  for (size_t i = from; i < static_cast<size_t>(back); ++i) {
    if (states[i].state != "retrying") continue;
    ++retries;
    EXPECT_EQ(states[i].attempt, retries);
    unsigned step = 50;
    for (unsigned a = 1; a < states[i].attempt && step < 400; ++a) step *= 2;
    step = std::min(step, 400u);
    EXPECT_GE(states[i].delay_ms, std::max(50u, step / 2)) << "attempt " << states[i].attempt;
    EXPECT_LE(states[i].delay_ms, step) << "attempt " << states[i].attempt;
  }
  // 2.5 s of refusals with delays of 50, 100, 200, 400, 400 ms (or half).
  EXPECT_GE(retries, 5u) << Sequence(states);
  EXPECT_LE(retries, 40u) << Sequence(states);
  for (size_t i = from; i < static_cast<size_t>(back); ++i) {
    if (states[i].state == "lost") {
      EXPECT_FALSE(states[i].reason.empty());
    }
  }
  EXPECT_EQ(rx.bus_errors(), 0u) << "refusals stay inside while reconnecting";
  ExpectPromptNull(&rx);
}

// A frozen server sends nothing: after "timeout" ms the connection is lost,
// attempts against the still frozen server give up after "connect-timeout",
// and once the server runs again the stream resumes.
TEST_F(Live555SrcReconnectTest, FrozenServerIsLostAfterTheTimeoutAndResumesAfterThaw) {
  for (int protocols : {1, 4}) {
    SCOPED_TRACE(protocols == 4 ? "tcp" : "udp");
    Receiver rx(Launch(server_->Url("h264"), protocols, "timeout=500 connect-timeout=700"));
    ASSERT_TRUE(rx.ok());
    rx.SetState(GST_STATE_PLAYING);
    ASSERT_TRUE(rx.WaitSamples(5, 10000));

    server_->Freeze();
    int64_t frozen_at = MonotonicMs();
    int lost = rx.WaitState("lost", 5000);
    ASSERT_GE(lost, 0) << Sequence(rx.states());
    auto states = rx.states();
    int64_t after = states[lost].at_ms - frozen_at;
    EXPECT_GE(after, 350) << "lost before the time-out";
    EXPECT_LE(after, 2000) << "lost long after the time-out";
    EXPECT_NE(states[lost].reason.find("timeout"), std::string::npos) << states[lost].reason;

    // At least one attempt against the frozen server gives up by itself.
    int second = rx.WaitState("lost", 5000, lost + 1);
    EXPECT_GE(second, 0) << Sequence(rx.states());
    server_->Thaw();
    size_t n = rx.samples().size();
    EXPECT_TRUE(rx.WaitSamples(n + 10, 15000)) << Sequence(rx.states());
    EXPECT_EQ(rx.bus_errors(), 0u);
    ExpectPromptNull(&rx);
  }
}

// A consumer that holds a buffer longer than "timeout" stops the data, but
// the server is not silent: the connection is kept.
TEST_F(Live555SrcReconnectTest, ASlowConsumerIsNotASilentServer) {
  Receiver rx(Launch(server_->Url("h264"), 4, "timeout=300"));
  ASSERT_TRUE(rx.ok());
  rx.SetState(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(5, 10000));
  rx.HoldNextSample(1500);
  std::this_thread::sleep_for(std::chrono::milliseconds(2000));
  size_t n = rx.samples().size();
  EXPECT_TRUE(rx.WaitSamples(n + 5, 5000));
  EXPECT_EQ(rx.WaitState("lost", 0), -1) << Sequence(rx.states());
  ExpectPromptNull(&rx);
}

// "eos" while the element waits for its next attempt: end-of-stream at once,
// and no further attempt.
TEST_F(Live555SrcReconnectTest, EosWhileRetryingEndsAtOnceAndStopsRetrying) {
  Receiver rx(Launch(server_->Url("h264"), 4, "retry-delay-min=200 retry-delay-max=200"));
  ASSERT_TRUE(rx.ok());
  rx.SetState(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(5, 10000));
  ASSERT_TRUE(server_->Refuse());
  ASSERT_TRUE(server_->Drop());
  ASSERT_GE(rx.WaitState("retrying", 5000), 0);

  int64_t t0 = MonotonicMs();
  g_object_set(rx.src(), "eos", TRUE, nullptr);
  EXPECT_TRUE(rx.WaitEos(1000));
  EXPECT_LT(MonotonicMs() - t0, 500);
  size_t count = rx.states().size();
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  auto states = rx.states();
  for (size_t i = count; i < states.size(); ++i) {
    EXPECT_NE(states[i].state, "connecting") << "attempt after eos: " << Sequence(states);
  }
  EXPECT_EQ(rx.samples_after_eos(), 0u);
  ExpectPromptNull(&rx);
}

// NULL from every connection state: connecting to a frozen server,
// streaming, retrying against a refusing one, lost on a frozen one.
TEST_F(Live555SrcReconnectTest, NullIsPromptInEveryConnectionState) {
  {
    SCOPED_TRACE("connecting to a frozen server");
    server_->Freeze();
    Receiver rx(Launch(server_->Url("h264"), 4));
    rx.SetState(GST_STATE_PLAYING);
    ASSERT_GE(rx.WaitState("connecting", 2000), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ExpectPromptNull(&rx);
    server_->Thaw();
  }
  {
    SCOPED_TRACE("streaming");
    Receiver rx(Launch(server_->Url("h264"), 1));
    rx.SetState(GST_STATE_PLAYING);
    ASSERT_TRUE(rx.WaitSamples(3, 10000));
    ExpectPromptNull(&rx);
  }
  {
    SCOPED_TRACE("retrying against a refusing server");
    ASSERT_TRUE(server_->Refuse());
    Receiver rx(Launch(server_->Url("h264"), 4, "retry-delay-min=2000"));
    rx.SetState(GST_STATE_PLAYING);
    ASSERT_GE(rx.WaitState("retrying", 5000), 0) << Sequence(rx.states());
    ExpectPromptNull(&rx);
    ASSERT_TRUE(server_->Accept());
  }
  {
    SCOPED_TRACE("lost while the consumer holds a buffer");
    Receiver rx(Launch(server_->Url("h264"), 4, "timeout=300"));
    rx.SetState(GST_STATE_PLAYING);
    ASSERT_TRUE(rx.WaitSamples(3, 10000));
    rx.HoldNextSample(800);
    server_->Freeze();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    ExpectPromptNull(&rx);
    server_->Thaw();
  }
}

// With "reconnect" off a lost connection ends the stream the way the RTSP
// client does it: an end-of-stream or an error, and no further attempt.
TEST_F(Live555SrcReconnectTest, WithoutReconnectALostConnectionEndsTheStream) {
  Receiver rx(Launch(server_->Url("h264"), 4, "reconnect=false"));
  ASSERT_TRUE(rx.ok());
  gboolean reconnect = TRUE;
  g_object_get(rx.src(), "reconnect", &reconnect, nullptr);
  EXPECT_FALSE(reconnect);
  rx.SetState(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(5, 10000));
  server_->Kill();
  int64_t t0 = MonotonicMs();
  bool ended = false;
  while (!ended && MonotonicMs() - t0 < 15000) {
    ended = rx.WaitEos(100) || rx.bus_errors() > 0;
  }
  EXPECT_TRUE(ended) << "neither end-of-stream nor error";
  EXPECT_GE(rx.WaitState("lost", 1000), 0) << Sequence(rx.states());
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(rx.WaitState("retrying", 0), -1) << Sequence(rx.states());
  ExpectPromptNull(&rx);
}

}  // namespace
}  // namespace test
}  // namespace qo
