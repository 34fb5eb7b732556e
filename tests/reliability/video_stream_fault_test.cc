// The live-stream layer (qo_VideoStream*) against RTSP servers that fail:
// restarted on the same port, closing, refusing, frozen, ending the stream
// with RTCP BYE. With the source reconnecting, the puller sees the outage as
// time-outs and frames resume; stop and close stay prompt in every state and
// leave no thread behind. Without reconnection the stream ends.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "bye_rtsp_server.h"
#include "hal_mm_video_in.h"
#include "process_stats.h"
#include "test_rtsp_server.h"

namespace qo {
namespace reliability {
namespace {

using qo::test::TestRtspServer;

#ifdef QO_SANITIZER_BUILD
constexpr int64_t kPromptMs = 3000;
#else
constexpr int64_t kPromptMs = 1000;
#endif

// Pulls frames on its own thread with a 1 s time-out, as the video input
// node's output thread does, until end of stream or Join().
class Puller {
 public:
  explicit Puller(qo_StrmHandle h) : thread_([this, h] { Run(h); }) {}
  ~Puller() { Join(); }
  void Join() {
    quit_ = true;
    if (thread_.joinable()) thread_.join();
  }
  size_t frames() const { return frames_; }
  size_t timeouts() const { return timeouts_; }
  bool eos() const { return eos_; }
  bool WaitFrames(size_t n, int timeout_ms) const {
    return WaitUntil([&] { return frames_ >= n || eos_; }, timeout_ms) && frames_ >= n;
  }

 private:
  void Run(qo_StrmHandle h) {
    while (!quit_ && !eos_) {
      qo_StreamInfo f = {};
      qo_VideoStreamGetFrame(h, &f, 1);
      if (f.data != nullptr) {
        ++frames_;
        qo_VideoStreamFrameFree(&f);
      } else if (f.eos != 0) {
        eos_ = true;
      } else {
        ++timeouts_;
      }
    }
  }
  std::atomic<bool> quit_{false};
  std::atomic<size_t> frames_{0};
  std::atomic<size_t> timeouts_{0};
  std::atomic<bool> eos_{false};
  std::thread thread_;
};

// One started H.264 stream; the URL lives as long as the handle.
struct Stream {
  Stream(const std::string& u, int trans) : url(u) {
    h = qo_VideoStreamOpen(url.c_str());
    qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_H264);
    qo_VideoStreamCfg(h, "lower-trans-type", trans);
    started = qo_VideoStreamStart(h) == 0;
  }
  std::string url;
  qo_StrmHandle h = nullptr;
  bool started = false;
};

class VideoStreamFaultTest : public ::testing::TestWithParam<int> {
 protected:
  static void SetUpTestSuite() {
    // GStreamer's one-time set-up (registry, type system) before counting.
    TestRtspServer server;
    ASSERT_TRUE(server.Start()) << server.error();
    Stream s(server.Url("h264"), RTSP_TRANS_TCP);
    ASSERT_TRUE(s.started);
    {
      Puller p(s.h);
      p.WaitFrames(1, 10000);
      qo_VideoStreamStop(s.h);
    }
    qo_VideoStreamClose(s.h);
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
    // Every thread the stream started is gone (GStreamer's pooled streaming
    // threads may idle for a moment).
    EXPECT_EQ(ThreadCount("Gstloop"), 0);
    EXPECT_EQ(ThreadCount("live555src"), 0);
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= threads_before_ + 2; }, 5000))
        << "before " << threads_before_ << ", now " << ThreadCount() << ": " << ThreadNames();
  }
  const char* Trans() const { return GetParam() == RTSP_TRANS_TCP ? "tcp" : "udp"; }

  // Stop while the puller pulls, then close: both prompt; the puller saw the
  // end.
  static void StopAndClose(Stream* s, Puller* p) {
    const int64_t t0 = MonotonicMs();
    EXPECT_EQ(qo_VideoStreamStop(s->h), 0);
    p->Join();
    qo_VideoStreamClose(s->h);
    const int64_t spent = MonotonicMs() - t0;
    EXPECT_LT(spent, kPromptMs) << "stop and close";
    EXPECT_TRUE(p->eos());
  }

  // Frames resume after `fault` without any action of the caller; the
  // outage showed only as time-outs.
  void ExpectResumeAfter(Stream* s, Puller* p, const std::function<void()>& fault) {
    ASSERT_TRUE(p->WaitFrames(10, 10000));
    const size_t before = p->frames();
    const size_t timeouts = p->timeouts();
    fault();
    EXPECT_TRUE(p->WaitFrames(before + 10, 15000)) << "no frames after the fault";
    EXPECT_FALSE(p->eos()) << "the outage ended the stream";
    printf("%s: %zu time-outs during the outage\n", Trans(), p->timeouts() - timeouts);
    StopAndClose(s, p);
  }

  std::unique_ptr<TestRtspServer> server_;
  int threads_before_ = 0;
};

TEST_P(VideoStreamFaultTest, ServerRestartedOnTheSamePortThreeSecondsLater) {
  Stream s(server_->Url("h264"), GetParam());
  ASSERT_TRUE(s.started);
  Puller p(s.h);
  size_t timeouts = 0;
  ExpectResumeAfter(&s, &p, [&] {
    server_->Kill();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    timeouts = p.timeouts();
    ASSERT_TRUE(server_->Start()) << server_->error();
  });
  EXPECT_GE(timeouts, 1u) << "three seconds without frames are pull time-outs";
}

TEST_P(VideoStreamFaultTest, ServerClosesTheConnection) {
  Stream s(server_->Url("h264"), GetParam());
  ASSERT_TRUE(s.started);
  Puller p(s.h);
  ExpectResumeAfter(&s, &p, [&] { ASSERT_TRUE(server_->Drop()); });
}

TEST_P(VideoStreamFaultTest, ServerRefusesForTwoSeconds) {
  Stream s(server_->Url("h264"), GetParam());
  ASSERT_TRUE(s.started);
  Puller p(s.h);
  ExpectResumeAfter(&s, &p, [&] {
    ASSERT_TRUE(server_->Refuse());
    ASSERT_TRUE(server_->Drop());
    std::this_thread::sleep_for(std::chrono::seconds(2));
    ASSERT_TRUE(server_->Accept()) << server_->error();
  });
}

TEST_P(VideoStreamFaultTest, ServerFrozenForThreeSeconds) {
  Stream s(server_->Url("h264"), GetParam());
  ASSERT_TRUE(s.started);
  Puller p(s.h);
  ExpectResumeAfter(&s, &p, [&] {
    server_->Freeze();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    server_->Thaw();
  });
}

TEST_P(VideoStreamFaultTest, SenderEndsTheStreamWithBye) {
  ByeRtspServer bye;
  std::string error;
  ASSERT_TRUE(bye.Start(&error)) << error;
  {
    Stream s(bye.Url(), GetParam());
    ASSERT_TRUE(s.started);
    Puller p(s.h);
    ExpectResumeAfter(&s, &p, [&] { EXPECT_EQ(bye.SendBye(), 1); });
  }
  bye.Stop();
}

// Stop and close while the source retries against a refusing server, and
// while it waits for a frozen one: prompt, and nothing left behind.
TEST_P(VideoStreamFaultTest, StopAndCloseArePromptWhileTheServerIsAway) {
  {
    SCOPED_TRACE("refusing");
    ASSERT_TRUE(server_->Refuse());
    Stream s(server_->Url("h264"), GetParam());
    ASSERT_TRUE(s.started);
    Puller p(s.h);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(p.frames(), 0u);
    StopAndClose(&s, &p);
    ASSERT_TRUE(server_->Accept());
  }
  {
    SCOPED_TRACE("frozen");
    Stream s(server_->Url("h264"), GetParam());
    ASSERT_TRUE(s.started);
    Puller p(s.h);
    ASSERT_TRUE(p.WaitFrames(3, 10000));
    server_->Freeze();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    StopAndClose(&s, &p);
    server_->Thaw();
  }
}

// Reconnection off (a source property, given after the URL): a server that
// goes away ends the stream, and a server that comes back is not used.
TEST_P(VideoStreamFaultTest, WithoutReconnectionTheStreamDoesNotResume) {
  Stream s(server_->Url("h264") + " reconnect=false", GetParam());
  ASSERT_TRUE(s.started);
  Puller p(s.h);
  ASSERT_TRUE(p.WaitFrames(5, 10000));
  server_->Kill();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ASSERT_TRUE(server_->Start()) << server_->error();
  const size_t after_kill = p.frames();
  std::this_thread::sleep_for(std::chrono::seconds(4));
  EXPECT_LE(p.frames(), after_kill + 2) << "frames resumed without reconnection";
  EXPECT_TRUE(p.eos() || p.timeouts() >= 3);
  const int64_t t0 = MonotonicMs();
  qo_VideoStreamStop(s.h);
  p.Join();
  qo_VideoStreamClose(s.h);
  EXPECT_LT(MonotonicMs() - t0, kPromptMs) << "stop and close";
}

INSTANTIATE_TEST_SUITE_P(Transports, VideoStreamFaultTest,
                         ::testing::Values(RTSP_TRANS_UDP, RTSP_TRANS_TCP),
                         [](const auto& p) { return p.param == RTSP_TRANS_TCP ? "tcp" : "udp"; });

}  // namespace
}  // namespace reliability
}  // namespace qo
