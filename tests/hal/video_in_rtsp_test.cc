// Live-stream layer on "rtsp://" sources from the loopback test server: time
// stamps from the monotonic clock until the first sender report and from the
// sender's wall clock after it, the frame rate, a prompt stop while a thread
// pulls, type detection, and a server that goes away. Every codec over
// every transport is run end to end by the video input node's tests.
#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "hal_mm_video_in.h"
#include "test_common.h"
#include "test_rtsp_server.h"

namespace qo {
namespace {

using testutil::MonotonicNs;
using testutil::StdoutCapture;

// Unix-epoch nanoseconds are above this; monotonic microseconds far below.
constexpr uint64_t kWallFloorNs = 1000000000ULL * 1000000000ULL;
// Right after the first sender report the mapping can be off by the
// sender's latency (about 60 ms here) until the next reports correct it.
constexpr int64_t kSettleNs = 500000000, kToleranceNs = 50000000, kSettlingToleranceNs = 150000000;

qo_StrmHandle StartRtsp(const std::string& url, int type, int trans) {
  qo_StrmHandle h = qo_VideoStreamOpen(url.c_str());
  qo_VideoStreamCfg(h, "stream-type", type);
  qo_VideoStreamCfg(h, "lower-trans-type", trans);
  EXPECT_EQ(qo_VideoStreamStart(h), 0);
  return h;
}

bool Pull(qo_StrmHandle h, int timeout_s, testutil::Frame* frame = nullptr) {
  qo_StreamInfo info{};
  qo_VideoStreamGetFrame(h, &info, timeout_s);
  if (info.data == nullptr) return false;
  if (frame != nullptr) *frame = testutil::CopyFrame(info);
  qo_VideoStreamFrameFree(&info);
  return true;
}

// Stops while another thread pulls, as the node's output thread does; with
// a live server the end must be seen at once, not after the stop's 4 s limit.
void StopWhilePulling(qo_StrmHandle h, bool prompt) {
  std::atomic<bool> saw_eos{false};
  std::thread puller([&] {
    std::vector<testutil::Frame> frames;
    saw_eos = testutil::DrainFrames<qo_StreamInfo>(
        [&](qo_StreamInfo* info) { qo_VideoStreamGetFrame(h, info, 3); }, qo_VideoStreamFrameFree,
        &frames);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const int64_t t0 = MonotonicNs();
  EXPECT_EQ(qo_VideoStreamStop(h), 0);
  const int64_t stop_ns = MonotonicNs() - t0;
  puller.join();
  if (prompt) {
    EXPECT_LT(stop_ns, 1000e6);
    EXPECT_TRUE(saw_eos);
  }
}

class LiveStreamRtsp : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Start()) << server_.error(); }
  test::TestRtspServer server_;
};

TEST_F(LiveStreamRtsp, TimeStampSourceSwitchesAtTheSenderReportRateAndPromptStop) {
  const struct {
    const char* mount;
    int type, trans;
  } cases[] = {{"h264", QO_PIX_FMT_H264, RTSP_TRANS_TCP},
               {"h265", QO_PIX_FMT_H265, RTSP_TRANS_UDP}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mount);
    StdoutCapture cap;
    qo_StrmHandle h = StartRtsp(server_.Url(c.mount), c.type, c.trans);
    int before = 0, stamped = 0;
    int64_t first_ns = 0, last_ns = 0, worst = 0, worst_settling = 0;
    while (first_ns == 0 || last_ns - first_ns < 2000e6) {
      testutil::Frame f;
      const uint64_t mono_us = g_get_monotonic_time();
      ASSERT_TRUE(Pull(h, 5, &f));
      EXPECT_EQ(f.format, c.type);
      EXPECT_EQ(f.width * 1000 + f.height, 320240);
      if (f.time_stamp < kWallFloorNs) {  // monotonic microseconds until the first report
        ASSERT_EQ(first_ns, 0) << "lost the sender's time";
        ASSERT_LT(++before, 150) << "no sender report";
        EXPECT_GE(f.time_stamp, mono_us);
        EXPECT_LE(f.time_stamp, static_cast<uint64_t>(g_get_monotonic_time()));
        continue;
      }
      last_ns = MonotonicNs();
      if (first_ns == 0) first_ns = last_ns;
      stamped++;
      int64_t& w = last_ns - first_ns < kSettleNs ? worst_settling : worst;
      w = std::max<int64_t>(w, std::llabs(static_cast<int64_t>(f.time_stamp) - f.wall_ns));
    }
    const double fps = (stamped - 1) / ((last_ns - first_ns) / 1e9);
    if (c.trans == RTSP_TRANS_TCP) {
      EXPECT_GE(fps, 29.0);
    }
    EXPECT_LT(worst, kToleranceNs);
    EXPECT_LT(worst_settling, kSettlingToleranceNs);
    EXPECT_EQ(testutil::CountOf(cap.Text(),
                                "########>SampleGetFrame():gst_buffer_get_reference_timestamp_meta "
                                "get timestamp is failed!\n"),
              static_cast<size_t>(before));
    StopWhilePulling(h, true);
    qo_VideoStreamClose(h);
    cap.Finish();
    printf("%s: %.2f frames/s, worst skew %.1f ms (%.1f ms settling)\n", c.mount, fps, worst / 1e6,
           worst_settling / 1e6);
  }
}

TEST_F(LiveStreamRtsp, TypeDetectionAndAServerThatGoesAway) {
  StdoutCapture cap;
  EXPECT_EQ(qo_VideoStreamType(server_.Url("h264").c_str()), QO_PIX_FMT_H264);
  EXPECT_EQ(qo_VideoStreamType(server_.Url("h265").c_str()), QO_PIX_FMT_H265);
  EXPECT_EQ(qo_VideoStreamType(server_.Url("mjpeg").c_str()), QO_PIX_FMT_MJPEG);
  EXPECT_EQ(testutil::CountOf(cap.Text(), "------>Media typed is found consum time:"), 3u);
  for (bool stop_first : {false, true}) {
    if (!server_.running()) {
      ASSERT_TRUE(server_.Restart()) << server_.error();
    }
    qo_StrmHandle h = StartRtsp(server_.Url("h264"), QO_PIX_FMT_H264, RTSP_TRANS_UDP);
    for (int i = 0; i < 5; i++) ASSERT_TRUE(Pull(h, 5));
    server_.Kill();
    const int64_t t0 = MonotonicNs();
    if (stop_first) StopWhilePulling(h, false);
    qo_VideoStreamClose(h);
    EXPECT_LT(MonotonicNs() - t0, 5000e6);
  }
  EXPECT_EQ(testutil::ThreadCount("Gstloop"), 0);
  // Nobody answers: unknown after the time limit.
  EXPECT_EQ(qo_VideoStreamType(server_.Url("h264").c_str()), -1);
  EXPECT_TRUE(cap.Has("----->typefind connect timout 10s and exit"));
}

}  // namespace
}  // namespace qo
