// The live-stream layer and the video input node against RTSP servers that
// fail, each fault once per level. With reconnection the frames resume and
// nothing ends the stream; a server gone for good, or any loss with
// reconnection off, ends it with one task. The reason of an outage reaches
// the caller and goes when frames flow again. Close is prompt in every state
// and leaves no thread behind. And many cameras in one process up to the
// descriptor limit.
#include <gst/rtsp-server/rtsp-server.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hal_mm_video_in.h"
#include "test_common.h"
#include "test_host.h"
#include "test_layer_capture.h"
#include "test_media.h"
#include "test_rtsp_server.h"

namespace qo {
namespace reliability {
namespace {

using namespace testutil;  // NOLINT: waits, clocks and thread counts

constexpr int64_t kPromptMs = 1000 + kSlackMs;
// The layer's stop waits up to 4 s for a puller that is no longer there.
constexpr int64_t kUnpulledStopMs = 4000 + kPromptMs;

// An RTSP server in this process whose sender can end its streams with RTCP
// BYE, which qo-rtsp-server cannot do; each connection gets a stream of its own.
class ByeServer {
 public:
  ByeServer() {
    g_object_set(server_, "address", "127.0.0.1", "service", "0", nullptr);
    GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
    gst_rtsp_media_factory_set_launch(
        factory,
        "( videotestsrc is-live=true ! video/x-raw,width=320,height=240,framerate=30/1 ! "
        "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=15 ! "
        "rtph264pay name=pay0 pt=96 config-interval=1 )");
    g_signal_connect(factory, "media-configure",
                     G_CALLBACK(+[](GstRTSPMediaFactory*, GstRTSPMedia* m, ByeServer* self) {
                       std::lock_guard<std::mutex> lock(self->mu_);
                       self->medias_.push_back(GST_RTSP_MEDIA(g_object_ref(m)));
                     }),
                     this);  // not shared: one media per connection
    GstRTSPMountPoints* mounts = gst_rtsp_server_get_mount_points(server_);
    gst_rtsp_mount_points_add_factory(mounts, "/h264", factory);
    g_object_unref(mounts);
    source_ = gst_rtsp_server_attach(server_, context_);
    url = "rtsp://127.0.0.1:" + std::to_string(gst_rtsp_server_get_bound_port(server_)) + "/h264";
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "bye-rtsp-srv");
      g_main_context_push_thread_default(context_);
      g_main_loop_run(loop_);
      // Sessions, clients and streams end on this thread, in their context.
      GstRTSPSessionPool* pool = gst_rtsp_server_get_session_pool(server_);
      gst_rtsp_session_pool_filter(
          pool, [](auto, auto, auto) { return GST_RTSP_FILTER_REMOVE; }, nullptr);
      g_object_unref(pool);
      gst_rtsp_server_client_filter(
          server_, [](auto, auto, auto) { return GST_RTSP_FILTER_REMOVE; }, nullptr);
      g_source_destroy(g_main_context_find_source_by_id(context_, source_));
      while (g_main_context_iteration(context_, FALSE)) continue;
      for (GstRTSPMedia* m : medias_) gst_rtsp_media_unprepare(m), g_object_unref(m);
      while (g_main_context_iteration(context_, FALSE)) continue;
      g_main_context_pop_thread_default(context_);
    });
  }
  ~ByeServer() {
    g_main_loop_quit(loop_);
    thread_.join();
    g_object_unref(server_);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  std::string url;

  // The end of a stream makes its RTP session send BYE. Returns how many.
  int SendBye() {
    std::lock_guard<std::mutex> lock(mu_);
    int n = 0;
    for (GstRTSPMedia* m : medias_) {
      GstElement* e = gst_rtsp_media_get_element(m);
      n += gst_element_send_event(e, gst_event_new_eos()) ? 1 : 0;
      gst_object_unref(e);
    }
    return n;
  }

 private:
  GMainContext* context_ = g_main_context_new();
  GMainLoop* loop_ = g_main_loop_new(context_, FALSE);
  GstRTSPServer* server_ = gst_rtsp_server_new();
  guint source_ = 0;
  std::mutex mu_;
  std::vector<GstRTSPMedia*> medias_;
  std::thread thread_;
};

enum Level { kLayer, kNode };
// What the server does mid-stream. Up to kBye the frames must resume.
enum Fault {
  kRestart,
  kDrop,
  kRefuse,
  kFreeze,
  kBye,
  kAwayRefusing,
  kAwayFrozen,
  kNoReconnect,
  kGone
};
const char* const kFaultNames[] = {"restart",       "drop",        "refuse",       "freeze", "bye",
                                   "away_refusing", "away_frozen", "no_reconnect", "gone"};
const int kOutageMs[] = {3000, 0, 2000, 3000, 0, 1500, 2500, 0, 0};

// One H.264 stream: the video input node, or the layer pulled on a thread
// with a 1 s time-out as the node's output thread does; no pull may take
// much longer than its time-out.
class Stream {
 public:
  Stream(Level level, int trans, const std::string& url, int timeout_s = 3) : url_(url) {
    if (level == kNode) {
      node_ = std::make_unique<testhost::HostNode>("qo.mm.video.in");
      node_->thread()->SetTxQue(out_.queue(), 0);
      node_->SetString("uri", url);
      node_->SetInt("lower-trans-type", trans);
      node_->SetInt("stream-type", QO_PIX_FMT_H264);
      node_->SetInt("timeout", timeout_s);
      node_->Open();
      return;
    }
    h_ = StartStream(url_.c_str(), QO_PIX_FMT_H264, trans);
    puller_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "test-puller");
      while (!quit_ && !eos_) {
        qo_StreamInfo f = {};
        const int64_t t0 = MonotonicMs();
        qo_VideoStreamGetFrame(h_, &f, 1);
        worst_pull_ms_ = std::max<int64_t>(worst_pull_ms_, MonotonicMs() - t0);
        if (f.data) frames_++, qo_VideoStreamFrameFree(&f);
        eos_ = f.eos != 0;
      }
    });
  }
  ~Stream() {
    if (h_ || node_) Close();
  }
  size_t frames() { return node_ ? out_.Count(0) : frames_.load(); }
  // The node's end task (one at most), or 1 after the layer's end of stream.
  int status() {
    if (!node_) return eos_ ? 1 : 0;
    auto tasks = out_.Tasks();
    EXPECT_LE(tasks.size() - out_.Count(0), 1u) << "more than one end task";
    return tasks.empty() ? 0 : tasks.back().flag;
  }
  // The reason code (and text) the node's "last.error" or the layer gives.
  int LastError(std::string* text = nullptr) {
    if (node_) {
      if (text) *text = node_->Call("last.error").AsString();
      return node_->Call("last.error.code").operator int();
    }
    char buf[256] = "";
    const int code = qo_VideoStreamLastError(h_, buf, sizeof(buf));
    if (text) *text = buf;
    return code;
  }
  // Closes the node, or stops the layer while the puller pulls and closes
  // it; returns how long that took.
  int64_t Close() {
    const int64_t t0 = MonotonicMs();
    if (node_) node_->Close();
    // A closed node has no stream to explain.
    EXPECT_TRUE(!node_ || LastError() == -1);
    if (h_) {
      EXPECT_EQ(qo_VideoStreamStop(h_), 0);
      quit_ = true;
      puller_.join();
      qo_VideoStreamClose(h_);
    }
    const int64_t ms = MonotonicMs() - t0;
    EXPECT_LT(worst_pull_ms_, 1500 + kSlackMs) << "a 1 s pull took too long";
    out_.Stop();
    node_.reset(), h_ = nullptr;
    return ms;
  }

 private:
  std::string url_;                  // lives as long as the handle
  testhost::TaskCollector out_{64};  // declared before the node, which feeds it
  std::unique_ptr<testhost::HostNode> node_;
  qo_StrmHandle h_ = nullptr;
  std::thread puller_;
  std::atomic<bool> quit_{false}, eos_{false};
  std::atomic<size_t> frames_{0};
  std::atomic<int64_t> worst_pull_ms_{0};
};

class RtspFaultTest : public ::testing::TestWithParam<std::tuple<Level, Fault>> {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(testhost::LoadSdk(), "");
    // GLib's and GStreamer's process-wide threads start with the first
    // connection: before counting.
    qo::test::TestRtspServer server;
    ASSERT_TRUE(server.Start()) << server.error();
    Stream s(kLayer, RTSP_TRANS_TCP, server.Url("h264"));
    WaitUntil([&] { return s.frames() > 0; }, 15000);
  }
  void SetUp() override {
    server_ = std::make_unique<qo::test::TestRtspServer>(
        qo::test::TestRtspServer::Options{{"h264=h264,key-int=15"}, "", ""});
    ASSERT_TRUE(server_->Start()) << server_->error();
  }
  void TearDown() override {
    server_.reset();
    ExpectNoThreadLeft(threads_before_);
  }
  std::unique_ptr<qo::test::TestRtspServer> server_;
  const int threads_before_ = ThreadCount();
};

// Restart, drop, refusal, freeze or BYE: frames resume, no end task, the
// outage's reason is gone once they do, and close is prompt (also while
// retrying against a refusing or frozen server). A refusing server is
// explained as one. Reconnection off (a source property after the URL): the
// stream ends and a returning server is not used. Gone for good: the layer's
// pulls time out (no end) with a reason; the node sends one status-2 task
// after three 1 s time-outs in a row, an allowance a frame in between
// restores.
TEST_P(RtspFaultTest, Outcome) {
  const Level level = std::get<0>(GetParam());
  const Fault fault = std::get<1>(GetParam());
  std::unique_ptr<ByeServer> bye(fault == kBye ? new ByeServer : nullptr);
  LogCapture log(1);
  // The remaining budgets the node's time-outs logged.
  auto budgets = [&] { return log.NumbersAfter("get stream timeout:"); };
  // Each fault over TCP at one level and over UDP at the other.
  Stream s(
      level, (level + fault) % 2 ? RTSP_TRANS_TCP : RTSP_TRANS_UDP,
      (bye ? bye->url : server_->Url("h264")) + (fault == kNoReconnect ? " reconnect=false" : ""),
      fault >= kNoReconnect ? 1 : 3);
  ASSERT_TRUE(WaitUntil([&] { return s.frames() >= 10; }, 15000));
  if (fault == kGone && level == kNode) {  // one time-out, then frames again
    server_->Freeze();
    ASSERT_TRUE(log.WaitFor("get stream timeout:", 3000));
    server_->Thaw();
    const size_t frames = s.frames();
    ASSERT_TRUE(WaitUntil([&] { return s.frames() >= frames + 10; }, 10000));
    ASSERT_EQ(budgets(), std::vector<int>{2});
  }
  const int64_t fault_at = MonotonicMs();
  if (fault == kRestart || fault == kNoReconnect || fault == kGone) server_->Kill();
  ASSERT_TRUE(fault != kDrop || server_->Drop());
  ASSERT_TRUE((fault != kRefuse && fault != kAwayRefusing) ||
              (server_->Refuse() && server_->Drop()));
  if (fault == kFreeze || fault == kAwayFrozen) server_->Freeze();
  std::this_thread::sleep_for(std::chrono::milliseconds(kOutageMs[fault]));
  std::string why;
  if (fault == kRefuse || fault == kAwayRefusing) {
    EXPECT_TRUE(WaitUntil([&] { return s.LastError(&why) == QO_STREAM_REFUSED; }, 2000 + kSlackMs))
        << s.LastError() << " " << why;
    EXPECT_GT(why.size(), 10u);
  }
  ASSERT_TRUE((fault != kRestart && fault != kNoReconnect) || server_->Start()) << server_->error();
  ASSERT_TRUE(fault != kRefuse || server_->Accept()) << server_->error();
  if (fault == kFreeze) server_->Thaw();
  EXPECT_TRUE(fault != kBye || bye->SendBye() == 1) << "BYE to one receiver";

  const size_t before = s.frames();
  if (fault <= kBye) {
    EXPECT_TRUE(WaitUntil([&] { return s.frames() >= before + 10; }, 15000)) << "no frames after";
    EXPECT_TRUE(WaitUntil([&] { return s.LastError() == QO_STREAM_OK; }, 2000 + kSlackMs))
        << "reason kept";
    EXPECT_EQ(s.status(), 0) << "the outage ended the stream";
  }
  if (fault == kNoReconnect) {
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_LE(s.frames(), before + 2) << "frames resumed without reconnection";
    EXPECT_TRUE(level == kLayer || s.status() != 0) << "no end task";
  }
  if (fault == kGone && level == kLayer) {
    EXPECT_TRUE(WaitUntil([&] { return s.LastError() != QO_STREAM_OK; }, 5000)) << "no reason";
    std::this_thread::sleep_for(std::chrono::seconds(3));  // pulls that time out
    EXPECT_EQ(s.status(), 0) << "the layer ended a stream that may come back";
  }
  if (fault == kGone && level == kNode) {
    EXPECT_TRUE(WaitUntil([&] { return s.status() == 2; }, 15000));
    // Three pulls of 1 s, the first partly waited out.
    const int64_t end_ms = MonotonicMs() - fault_at;
    EXPECT_TRUE(end_ms >= 2000 && end_ms <= 6000) << end_ms;
    EXPECT_EQ(budgets(), (std::vector<int>{2, 2, 1, 0}));
    // The line comes just before the thread ends, on its own.
    EXPECT_TRUE(log.WaitFor("<<< Exit stream out thread", 2000));
    EXPECT_TRUE(WaitUntil([] { return ThreadCount("strm_out") == 0; }, 2000));
  }
  // After an end-of-stream the layer's stop has seen the end already; it
  // waits up to 4 s for a puller that has gone after a time-out.
  const int status = s.status();
  EXPECT_LT(s.Close(), status == 2 ? kUnpulledStopMs : kPromptMs) << "close";
}

INSTANTIATE_TEST_SUITE_P(EachFaultAtEachLevel, RtspFaultTest,
                         ::testing::Combine(::testing::Values(kLayer, kNode),
                                            ::testing::Values(kRestart, kDrop, kRefuse, kFreeze,
                                                              kBye, kAwayRefusing, kAwayFrozen,
                                                              kNoReconnect, kGone)),
                         [](const auto& p) {
                           return std::string(std::get<0>(p.param) == kLayer ? "layer_" : "node_") +
                                  kFaultNames[std::get<1>(p.param)];
                         });

}  // namespace
}  // namespace reliability
}  // namespace qo
