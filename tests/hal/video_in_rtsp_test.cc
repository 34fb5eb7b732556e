// Live-stream layer on "rtsp://" sources from the loopback test server:
// H.264, H.265 and MJPEG over UDP and TCP with formats, sizes and time
// stamps (monotonic before the first RTCP sender report, the sender's wall
// clock after it); type detection; stop while a thread pulls; a server that
// goes away.
#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>

#include "test_rtsp_server.h"
#include "video_in_test_util.h"

namespace qo {
namespace videoin_test {
namespace {

using qo::test::TestRtspServer;

// Unix-epoch nanoseconds are above this; monotonic microseconds far below.
constexpr uint64_t kWallFloorNs = 1000000000ULL * 1000000000ULL;
constexpr int64_t kToleranceNs = 50000000;
// Right after the first sender report the mapping can be off by the
// sender's latency (about 60 ms here) until the next reports correct it.
constexpr int64_t kSettleNs = 500000000, kSettlingToleranceNs = 150000000;

qo_StrmHandle StartRtsp(const std::string& url, int type, int trans) {
  qo_StrmHandle h = qo_VideoStreamOpen(url.c_str());
  qo_VideoStreamCfg(h, "stream-type", type);
  qo_VideoStreamCfg(h, "lower-trans-type", trans);
  EXPECT_EQ(qo_VideoStreamStart(h), 0);
  return h;
}

// Stops while a thread pulls; returns the time stop took.
int64_t StopWhilePulling(qo_StrmHandle h) {
  Puller puller(h, 3);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const int64_t t0 = MonotonicNs();
  EXPECT_EQ(qo_VideoStreamStop(h), 0);
  const int64_t spent = MonotonicNs() - t0;
  puller.Join();
  EXPECT_TRUE(puller.saw_eos);
  EXPECT_LT(spent, 1000e6);  // the end is seen at once, not after 4 s
  return spent;
}

class VideoInRtspTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Start()) << server_.error(); }
  TestRtspServer server_;
};

// Also the measure of record: 30 frames per second pulled, every frame after
// the first sender report stamped with the sender's clock.
TEST_F(VideoInRtspTest, StreamsArriveOverUdpAndTcpWithFormatSizeRateAndTimeStamps) {
  const struct {
    const char* mount;
    int type;
    const char* stage;
  } codecs[] = {
      {"h264", 31, "h264parse ! video/x-h264,stream-format=byte-stream,alignment=(string) au"},
      {"h265", 32, "h265parse ! video/x-h265,stream-format=byte-stream,alignment=(string) au"},
      {"mjpeg", 33, "image/jpeg"}};
  for (const auto& c : codecs) {
    for (int trans : {RTSP_TRANS_UDP, RTSP_TRANS_TCP}) {
      const std::string name = std::string(c.mount) + (trans == RTSP_TRANS_TCP ? "/tcp" : "/udp");
      SCOPED_TRACE(name);
      StdoutCapture cap;
      qo_StrmHandle h = StartRtsp(server_.Url(c.mount), c.type, trans);
      EXPECT_TRUE(cap.Has(" full string=live555src name=src location=" + server_.Url(c.mount) +
                          " ! " + c.stage + " ! appsink name=appsink async=false sync=false\n"));
      int before = 0, stamped = 0;
      int64_t first_ns = 0, worst = 0, worst_settling = 0;
      while (first_ns == 0 || MonotonicNs() - first_ns < 2000e6) {
        Frame f;
        bool eos = false;
        const uint64_t mono_us = g_get_monotonic_time();
        ASSERT_TRUE(PullFrame(h, 5, &f, &eos));
        EXPECT_EQ(f.format, c.type);
        EXPECT_EQ(f.width, 320);
        EXPECT_EQ(f.height, 240);
        // Whole pictures: a JPEG's markers, or an Annex B start code.
        const auto& d = f.data;
        EXPECT_TRUE(c.type == 33 ? d[0] == 0xff && d[1] == 0xd8 && d[d.size() - 1] == 0xd9
                                 : d[0] == 0 && d[1] == 0 && (d[2] == 1 || d[3] == 1));
        if (f.time_stamp < kWallFloorNs) {
          ASSERT_EQ(first_ns, 0) << "lost the sender's time";
          ASSERT_LT(++before, 150) << "no sender report";
          EXPECT_GE(f.time_stamp, mono_us);
          EXPECT_LE(f.time_stamp, static_cast<uint64_t>(g_get_monotonic_time()));
          continue;
        }
        if (first_ns == 0) first_ns = MonotonicNs();
        stamped++;
        int64_t& w = MonotonicNs() - first_ns < kSettleNs ? worst_settling : worst;
        w = std::max<int64_t>(w, std::llabs(static_cast<int64_t>(f.time_stamp) - f.wall_ns));
      }
      const double fps = stamped / ((MonotonicNs() - first_ns) / 1e9);
      EXPECT_GE(fps, 27.0);
      EXPECT_LT(worst, kToleranceNs);
      EXPECT_LT(worst_settling, kSettlingToleranceNs);
      EXPECT_EQ(Count(cap.Text(),
                      "########>SampleGetFrame():gst_buffer_get_reference_timestamp_"
                      "meta get timestamp is failed!\n"),
                static_cast<size_t>(before));
      const int64_t stop_ns = StopWhilePulling(h);
      qo_VideoStreamClose(h);
      cap.Finish();
      printf("%s: %.2f frames/s, worst skew %.1f ms (%.1f ms settling), stop %.1f ms\n",
             name.c_str(), fps, worst / 1e6, worst_settling / 1e6, stop_ns / 1e6);
    }
  }
}

TEST_F(VideoInRtspTest, TypeDetectionNamesEachCodecAndNotARefusedServer) {
  EXPECT_EQ(qo_VideoStreamType(server_.Url("h264").c_str()), 31);
  EXPECT_EQ(qo_VideoStreamType(server_.Url("h265").c_str()), 32);
  StdoutCapture cap;
  EXPECT_EQ(qo_VideoStreamType(server_.Url("mjpeg").c_str()), 33);
  EXPECT_TRUE(cap.Has("------>Media typed is found consum time:"));
  ASSERT_TRUE(server_.Refuse());
  EXPECT_EQ(qo_VideoStreamType(server_.Url("h264").c_str()), -1);  // after the 10 s limit
  EXPECT_TRUE(cap.Has("----->typefind connect timout 10s and exit"));
}

TEST_F(VideoInRtspTest, CloseAfterTheServerWasKilledReturns) {
  for (bool stop_first : {false, true}) {
    if (!server_.running()) {
      ASSERT_TRUE(server_.Restart()) << server_.error();
    }
    qo_StrmHandle h = StartRtsp(server_.Url("h264"), QO_PIX_FMT_H264, RTSP_TRANS_UDP);
    for (int i = 0; i < 5; i++) {
      Frame f;
      bool eos = false;
      ASSERT_TRUE(PullFrame(h, 5, &f, &eos));
    }
    server_.Kill();
    const int64_t t0 = MonotonicNs();
    if (stop_first) {
      Puller puller(h, 1);
      EXPECT_EQ(qo_VideoStreamStop(h), 0);
    }
    qo_VideoStreamClose(h);
    EXPECT_LT(MonotonicNs() - t0, 5000e6);
  }
  EXPECT_EQ(GstloopThreads(), 0);
}

}  // namespace
}  // namespace videoin_test
}  // namespace qo
