// Live-stream layer on an "rtsp://" H.264 source over TCP from the loopback
// test server: time stamps from the monotonic clock until the first sender
// report and from the sender's wall clock after it, the frame rate, a
// prompt stop while a thread pulls, and type detection. The element's own
// tests run every codec over every transport.
#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "hal_mm_video_in.h"
#include "test_common.h"
#include "test_rtsp_server.h"

namespace qo {
namespace {

using testutil::MonotonicNs;

// Unix-epoch nanoseconds are above this; monotonic microseconds far below.
constexpr uint64_t kWallFloorNs = 1000000000ULL * 1000000000ULL;
// Right after the first sender report the mapping can be off by the
// sender's latency (about 60 ms here) until the next reports correct it.
constexpr int64_t kSettleNs = 500000000, kToleranceNs = 50000000, kSettlingToleranceNs = 150000000;

TEST(LiveStreamRtsp, SenderTimeAfterTheFirstReportFullRateAndAPromptStop) {
  test::TestRtspServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  testutil::StdoutCapture cap;
  EXPECT_EQ(qo_VideoStreamType(server.Url("h264").c_str()), QO_PIX_FMT_H264);
  EXPECT_EQ(qo_VideoStreamType(server.Url("h265").c_str()), QO_PIX_FMT_H265);
  EXPECT_EQ(qo_VideoStreamType(server.Url("mjpeg").c_str()), QO_PIX_FMT_MJPEG);
  EXPECT_EQ(testutil::CountOf(cap.Text(), "------>Media typed is found consum time:"), 3u);

  qo_StrmHandle h = qo_VideoStreamOpen(server.Url("h264").c_str());
  qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_H264);
  qo_VideoStreamCfg(h, "lower-trans-type", RTSP_TRANS_TCP);
  ASSERT_EQ(qo_VideoStreamStart(h), 0);
  int before = 0, stamped = 0;
  int64_t first_ns = 0, last_ns = 0, worst = 0, worst_settling = 0;
  while (first_ns == 0 || last_ns - first_ns < 2000e6) {
    const uint64_t mono_us = g_get_monotonic_time();
    qo_StreamInfo info{};
    qo_VideoStreamGetFrame(h, &info, 5);
    ASSERT_NE(info.data, nullptr);
    const int64_t wall_ns = testutil::RealtimeNs();
    const uint64_t ts = info.time_stamp;
    EXPECT_EQ(std::vector<int>({info.format, info.width, info.height}),
              std::vector<int>({QO_PIX_FMT_H264, 320, 240}));
    qo_VideoStreamFrameFree(&info);
    if (ts < kWallFloorNs) {  // monotonic microseconds until the first report
      ASSERT_EQ(first_ns, 0) << "lost the sender's time";
      ASSERT_LT(++before, 150) << "no sender report";
      EXPECT_GE(ts, mono_us);
      EXPECT_LE(ts, static_cast<uint64_t>(g_get_monotonic_time()));
      continue;
    }
    last_ns = MonotonicNs();
    if (first_ns == 0) first_ns = last_ns;
    stamped++;
    int64_t& w = last_ns - first_ns < kSettleNs ? worst_settling : worst;
    w = std::max<int64_t>(w, std::llabs(static_cast<int64_t>(ts) - wall_ns));
  }
  const double fps = (stamped - 1) / ((last_ns - first_ns) / 1e9);
  EXPECT_GE(fps, 29.0);
  EXPECT_LT(worst, kToleranceNs);
  EXPECT_LT(worst_settling, kSettlingToleranceNs);
  EXPECT_EQ(testutil::CountOf(cap.Text(),
                              "########>SampleGetFrame():gst_buffer_get_reference_timestamp_meta "
                              "get timestamp is failed!\n"),
            static_cast<size_t>(before));

  // Stopped while another thread pulls, as the node's output thread does:
  // the end is seen at once, not after the stop's 4 s limit.
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
  EXPECT_LT(stop_ns, 100e6);
  EXPECT_TRUE(saw_eos);
  qo_VideoStreamClose(h);
}

}  // namespace
}  // namespace qo
