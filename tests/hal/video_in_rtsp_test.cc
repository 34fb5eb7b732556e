// Live-stream layer on "rtsp://" sources from the loopback test server:
// H.264, H.265 and MJPEG over UDP and TCP with formats, sizes and time
// stamps (monotonic before the first RTCP sender report, the sender's wall
// clock after it); type detection; stop while a thread pulls; and a server
// that goes away.
#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hal_mm_video_in.h"
#include "test_rtsp_server.h"
#include "video_in_test_util.h"

namespace qo {
namespace videoin_test {
namespace {

using qo::test::TestRtspServer;

// Unix-epoch nanoseconds are above this; monotonic microseconds far below.
constexpr uint64_t kWallClockFloorNs = 1000000000ULL * 1000000000ULL;
constexpr int64_t kWallClockToleranceNs = 50 * 1000000LL;
// Right after the first sender report the mapping can be off by the
// sender's pipeline latency (about 60 ms here) until the next reports.
constexpr int64_t kSettleNs = 500 * 1000000LL;
constexpr int64_t kSettlingToleranceNs = 150 * 1000000LL;

class VideoInRtspTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new TestRtspServer();
    if (!server_->Start()) {
      std::string error = server_->error();
      delete server_;
      server_ = nullptr;
      FAIL() << "test server: " << error;
    }
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override { ASSERT_NE(server_, nullptr); }

  static qo_StrmHandle StartRtsp(const std::string& url, int type, int trans) {
    qo_StrmHandle h = qo_VideoStreamOpen(url.c_str());
    if (!h) return nullptr;
    qo_VideoStreamCfg(h, "stream-type", type);
    qo_VideoStreamCfg(h, "lower-trans-type", trans);
    if (qo_VideoStreamStart(h) != 0) {
      ParkHandle(h);
      return nullptr;
    }
    return h;
  }

  static TestRtspServer* server_;
};

TestRtspServer* VideoInRtspTest::server_ = nullptr;

struct StreamCase {
  const char* mount;
  int type;
  int trans;
};

bool LooksLikeUnit(int type, const std::vector<uint8_t>& d) {
  if (d.size() < 4) return false;
  if (type == QO_PIX_FMT_MJPEG)
    return d[0] == 0xff && d[1] == 0xd8 && d[d.size() - 2] == 0xff && d[d.size() - 1] == 0xd9;
  // Annex B start code.
  return d[0] == 0 && d[1] == 0 && (d[2] == 1 || (d[2] == 0 && d[3] == 1));
}

TEST_F(VideoInRtspTest, StreamsArriveOverUdpAndTcpWithFormatSizeAndTimeStamps) {
  const std::vector<StreamCase> cases = {
      {"h264", QO_PIX_FMT_H264, RTSP_TRANS_UDP},   {"h264", QO_PIX_FMT_H264, RTSP_TRANS_TCP},
      {"h265", QO_PIX_FMT_H265, RTSP_TRANS_UDP},   {"h265", QO_PIX_FMT_H265, RTSP_TRANS_TCP},
      {"mjpeg", QO_PIX_FMT_MJPEG, RTSP_TRANS_UDP}, {"mjpeg", QO_PIX_FMT_MJPEG, RTSP_TRANS_TCP},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.mount) + (c.trans == RTSP_TRANS_TCP ? " tcp" : " udp"));
    const std::string url = server_->Url(c.mount);
    StdoutCapture cap;
    qo_StrmHandle h = StartRtsp(url, c.type, c.trans);
    ASSERT_NE(h, nullptr);
    const std::string stage = c.type == QO_PIX_FMT_H264 ? "h264parse ! video/x-h264,stream-format="
                                                          "byte-stream,alignment=(string) au"
                              : c.type == QO_PIX_FMT_H265
                                  ? "h265parse ! video/x-h265,stream-format="
                                    "byte-stream,alignment=(string) au"
                                  : "image/jpeg";
    EXPECT_NE(cap.Text().find(" full string=live555src name=src location=" + url + " ! " + stage +
                              " ! appsink name=appsink async=false sync=false\n"),
              std::string::npos);

    // Pull until frames carry the sender's clock (RTCP every 250 ms), and on
    // until ten of them came after the mapping has settled.
    int before = 0, settled = 0;
    int64_t first_stamped_ns = 0;
    for (int i = 0; i < 200 && settled < 10; i++) {
      Frame f;
      bool eos = false;
      const int64_t mono_us = g_get_monotonic_time();
      ASSERT_TRUE(PullFrame(h, 5, &f, &eos)) << "frame " << i << " eos " << eos;
      EXPECT_EQ(f.format, c.type);
      EXPECT_EQ(f.width, 320);
      EXPECT_EQ(f.height, 240);
      EXPECT_TRUE(LooksLikeUnit(c.type, f.data)) << "frame " << i << " of " << f.data.size();
      if (f.time_stamp >= kWallClockFloorNs) {
        if (first_stamped_ns == 0) first_stamped_ns = MonotonicNs();
        const int64_t skew = static_cast<int64_t>(f.time_stamp) - f.wall_ns;
        if (MonotonicNs() - first_stamped_ns < kSettleNs) {
          EXPECT_LT(std::llabs(skew), kSettlingToleranceNs) << "frame " << i;
        } else {
          settled++;
          EXPECT_LT(std::llabs(skew), kWallClockToleranceNs) << "frame " << i;
        }
      } else {
        // Until then the monotonic clock in microseconds stands in.
        EXPECT_EQ(first_stamped_ns, 0) << "frame " << i << " lost its reference time stamp";
        before++;
        EXPECT_GE(f.time_stamp, static_cast<uint64_t>(mono_us));
        EXPECT_LE(f.time_stamp, static_cast<uint64_t>(g_get_monotonic_time()));
      }
    }
    EXPECT_EQ(settled, 10);
    EXPECT_EQ(CountOccurrences(cap.Text(),
                               "########>SampleGetFrame():gst_buffer_get_reference_timestamp_meta "
                               "get timestamp is failed!\n"),
              static_cast<size_t>(before));

    // Stop with a thread still pulling: the end is seen at once.
    Puller puller(h, 3);
    const int64_t t0 = MonotonicNs();
    EXPECT_EQ(qo_VideoStreamStop(h), 0);
    const int64_t stop_ns = MonotonicNs() - t0;
    puller.Join();
    EXPECT_TRUE(puller.saw_eos());
    EXPECT_LT(stop_ns, 1000 * 1000000LL);
    qo_VideoStreamClose(h);
    std::string text = cap.Finish();
    EXPECT_EQ(text.find("spent time:2000 ms"), std::string::npos);
  }
}

TEST_F(VideoInRtspTest, JpegCapsTakeSizeAndRate) {
  const std::string url = server_->Url("mjpeg");
  StdoutCapture cap;
  qo_StrmHandle h = qo_VideoStreamOpen(url.c_str());
  ASSERT_NE(h, nullptr);
  qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_MJPEG);
  qo_VideoStreamCfg(h, "width", 320);
  qo_VideoStreamCfg(h, "height", 240);
  qo_VideoStreamCfg(h, "framerate", 30);
  ASSERT_EQ(qo_VideoStreamStart(h), 0);
  EXPECT_NE(cap.Text().find(" full string=live555src name=src location=" + url +
                            " ! image/jpeg,width=320,height=240,framerate=30/1 ! appsink "
                            "name=appsink async=false sync=false\n"),
            std::string::npos);
  DrainResult r = Drain(h, 5, 5);
  EXPECT_EQ(r.frames.size(), 5u);
  qo_VideoStreamClose(h);
}

TEST_F(VideoInRtspTest, TypeDetectionNamesEachCodec) {
  const std::vector<std::pair<const char*, int>> cases = {
      {"h264", QO_PIX_FMT_H264}, {"h265", QO_PIX_FMT_H265}, {"mjpeg", QO_PIX_FMT_MJPEG}};
  for (const auto& c : cases) {
    StdoutCapture cap;
    EXPECT_EQ(qo_VideoStreamType(server_->Url(c.first).c_str()), c.second) << c.first;
    EXPECT_NE(cap.Finish().find("------>Media typed is found consum time:"), std::string::npos);
  }
}

TEST_F(VideoInRtspTest, ThirtyFramesPerSecondOverTcpWithSenderTimeStamps) {
  qo_StrmHandle h = StartRtsp(server_->Url("h264"), QO_PIX_FMT_H264, RTSP_TRANS_TCP);
  ASSERT_NE(h, nullptr);
  Frame f;
  bool eos = false;
  // Wait for the first sender report.
  int64_t first_stamped_ns = 0;
  for (int i = 0; i < 150; i++) {
    ASSERT_TRUE(PullFrame(h, 5, &f, &eos));
    if (f.time_stamp >= kWallClockFloorNs) {
      first_stamped_ns = MonotonicNs();
      break;
    }
  }
  ASSERT_NE(first_stamped_ns, 0) << "no sender time stamp within 150 frames";
  // Then count for three seconds; every frame keeps the sender's clock.
  int frames = 0, unstamped = 0;
  int64_t worst_skew = 0, worst_settling_skew = 0;
  const int64_t t0 = MonotonicNs();
  while (MonotonicNs() - t0 < 3000 * 1000000LL) {
    ASSERT_TRUE(PullFrame(h, 5, &f, &eos));
    frames++;
    if (f.time_stamp < kWallClockFloorNs) {
      unstamped++;
      continue;
    }
    int64_t skew = static_cast<int64_t>(f.time_stamp) - f.wall_ns;
    skew = skew < 0 ? -skew : skew;
    if (MonotonicNs() - first_stamped_ns < kSettleNs)
      worst_settling_skew = std::max(worst_settling_skew, skew);
    else
      worst_skew = std::max(worst_skew, skew);
  }
  const double fps = frames / ((MonotonicNs() - t0) / 1e9);
  EXPECT_GE(fps, 27.0);
  EXPECT_EQ(unstamped, 0);
  EXPECT_LT(worst_skew, kWallClockToleranceNs);
  EXPECT_LT(worst_settling_skew, kSettlingToleranceNs);

  Puller puller(h, 3);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const int64_t s0 = MonotonicNs();
  EXPECT_EQ(qo_VideoStreamStop(h), 0);
  const int64_t stop_ns = MonotonicNs() - s0;
  puller.Join();
  EXPECT_TRUE(puller.saw_eos());
  EXPECT_LT(stop_ns, 1000 * 1000000LL);
  qo_VideoStreamClose(h);
  printf(
      "h264/tcp: %.2f frames/s over 3 s, worst time-stamp skew %.1f ms (%.1f ms in the first "
      "0.5 s after the first report), stop %.1f ms\n",
      fps, worst_skew / 1e6, worst_settling_skew / 1e6, stop_ns / 1e6);
}

// Each of these gets its own server, which it takes away.
class VideoInRtspServerGoneTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Start()) << server_.error(); }
  TestRtspServer server_;
};

TEST_F(VideoInRtspServerGoneTest, CloseAfterTheServerWasKilledReturns) {
  for (bool stop_first : {false, true}) {
    SCOPED_TRACE(stop_first ? "stop, then close" : "close only");
    if (!server_.running()) {
      ASSERT_TRUE(server_.Restart()) << server_.error();
    }
    qo_StrmHandle h = qo_VideoStreamOpen(server_.Url("h264").c_str());
    ASSERT_NE(h, nullptr);
    qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_H264);
    ASSERT_EQ(qo_VideoStreamStart(h), 0);
    DrainResult r = Drain(h, 5, 5);
    ASSERT_EQ(r.frames.size(), 5u);
    server_.Kill();
    const int64_t t0 = MonotonicNs();
    if (stop_first) {
      Puller puller(h, 1);
      EXPECT_EQ(qo_VideoStreamStop(h), 0);
      puller.Join();
    }
    qo_VideoStreamClose(h);
    EXPECT_LT(MonotonicNs() - t0, 5000 * 1000000LL);
  }
  EXPECT_EQ(GstloopThreadCount(), 0);
}

TEST_F(VideoInRtspServerGoneTest, TypeDetectionOfARefusedConnectionIsUnknown) {
  const std::string url = server_.Url("h264");
  ASSERT_TRUE(server_.Refuse());
  StdoutCapture cap;
  const int64_t t0 = MonotonicNs();
  EXPECT_EQ(qo_VideoStreamType(url.c_str()), -1);
  printf("refused type detection: %.1f ms\n", (MonotonicNs() - t0) / 1e6);
  EXPECT_EQ(cap.Finish().find("Media typed is found"), std::string::npos);
}

}  // namespace
}  // namespace videoin_test
}  // namespace qo
