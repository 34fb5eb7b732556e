// Live-stream layer on "file://" sources: every access unit of generated
// streams (compared with the parser's own output), then end of stream;
// time-outs and blocking pulls on a stalled source; stop with and without a
// thread pulling.
#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "test_media.h"
#include "video_in_test_util.h"

namespace qo {
namespace videoin_test {
namespace {

namespace media = qo::testmedia;

qo_StrmHandle StartFile(const std::string& path, int type) {
  qo_StrmHandle h = qo_VideoStreamOpen(("file://" + path).c_str());
  qo_VideoStreamCfg(h, "stream-type", type);
  EXPECT_EQ(qo_VideoStreamStart(h), 0);
  return h;
}

std::string Generate(media::Codec codec, int frames, int b_frames = 0, int slices = 1) {
  media::StreamParams p;
  p.codec = codec;
  p.frames = frames;
  p.b_frames = b_frames;
  p.slices = slices;
  return media::GenerateStream(p);
}

TEST(VideoInFileTest, StreamsDeliverEveryAccessUnitThenEnd) {
  const struct {
    media::Codec codec;
    int type, b_frames, slices;
  } cases[] = {{media::Codec::kH264, 31, 2, 4},
               {media::Codec::kH265, 32, 2, 1},
               {media::Codec::kMjpeg, 33, 0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    const std::string path = Generate(c.codec, 20, c.b_frames, c.slices);
    const auto ref = media::ReferenceAccessUnits(path, c.codec);
    ASSERT_EQ(ref.size(), 20u);
    qo_StrmHandle h = StartFile(path, c.type);
    std::vector<Frame> got;
    EXPECT_TRUE(Drain(h, 5, &got));
    Frame f;
    bool eos = false;
    EXPECT_FALSE(PullFrame(h, 1, &f, &eos));  // the end stays the end
    EXPECT_TRUE(eos);
    qo_VideoStreamClose(h);
    if (c.type == QO_PIX_FMT_MJPEG) {
      // No parser on this path: the source's blocks pass with bare caps.
      std::vector<uint8_t> all, want = media::ReadFile(path);
      for (const auto& g : got) {
        EXPECT_EQ(g.format, c.type);
        EXPECT_EQ(g.width, 0);
        all.insert(all.end(), g.data.begin(), g.data.end());
      }
      EXPECT_EQ(all, want);
      continue;
    }
    ASSERT_EQ(got.size(), ref.size());
    const uint64_t now_us = g_get_monotonic_time();
    for (size_t i = 0; i < ref.size(); i++) {
      EXPECT_EQ(got[i].data, ref[i].data) << i;
      EXPECT_EQ(got[i].format, c.type);
      EXPECT_EQ(got[i].width, 320);
      EXPECT_EQ(got[i].height, 240);
      // Decoding time, else presentation time, else the monotonic clock (us).
      const uint64_t want = ref[i].dts != UINT64_MAX ? ref[i].dts : ref[i].pts;
      if (want != UINT64_MAX)
        EXPECT_EQ(got[i].time_stamp, want) << i;
      else
        EXPECT_NEAR(static_cast<double>(got[i].time_stamp), now_us, 10e6) << i;
    }
  }
}

TEST(VideoInFileTest, TimeOutsRetryAndBlockingPullsWaitForData) {
  const std::string path = Generate(media::Codec::kH264, 10);
  const auto ref = media::ReferenceAccessUnits(path, media::Codec::kH264);
  const std::vector<uint8_t> bytes = media::ReadFile(path);
  // A named pipe as the file: nothing arrives until we write.
  char dir[] = "/tmp/qo-video-in-fifo-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string fifo = std::string(dir) + "/s.h264";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  int writer = open(fifo.c_str(), O_RDWR);  // so that no open blocks
  StdoutCapture cap;
  qo_StrmHandle h = StartFile(fifo, QO_PIX_FMT_H264);
  Frame f;
  bool eos = true;
  int64_t t0 = MonotonicNs();
  EXPECT_FALSE(PullFrame(h, 1, &f, &eos));
  EXPECT_FALSE(eos);
  EXPECT_GT(MonotonicNs() - t0, 900e6);
  EXPECT_TRUE(cap.Has("########> retry timeout:1S!\n"));
  std::thread feed([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(write(writer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  });
  t0 = MonotonicNs();
  EXPECT_TRUE(PullFrame(h, 0, &f, &eos));  // 0: waits as long as it takes
  EXPECT_GT(MonotonicNs() - t0, 1400e6);
  EXPECT_EQ(f.data, ref[0].data);
  feed.join();
  close(writer);  // no writer left: the source reaches its end
  std::vector<Frame> rest;
  EXPECT_TRUE(Drain(h, -1, &rest));  // negative: the same
  EXPECT_EQ(rest.size() + 1, ref.size());
  EXPECT_EQ(Count(cap.Text(), "retry timeout"), 1u);
  qo_VideoStreamClose(h);
  unlink(fifo.c_str());
  rmdir(dir);
}

TEST(VideoInFileTest, StopEndsAPullingThreadEarlyAndWaitsFourSecondsForNobody) {
  const std::string path = Generate(media::Codec::kH264, 600);
  StdoutCapture cap;
  qo_StrmHandle h = StartFile(path, QO_PIX_FMT_H264);
  int64_t stop_ns;
  {
    Puller puller(h, 3, 3);  // 3 ms per frame: the file would last 2 s
    while (puller.frames < 10) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const int64_t t0 = MonotonicNs();
    EXPECT_EQ(qo_VideoStreamStop(h), 0);
    stop_ns = MonotonicNs() - t0;
    puller.Join();
    EXPECT_TRUE(puller.saw_eos);
    EXPECT_LT(puller.frames, 600);
  }
  // The end arrives once the parser has used up the block it has read.
  EXPECT_LT(stop_ns, 1500e6);
  EXPECT_FALSE(cap.Has("spent time:2000 ms"));
  qo_VideoStreamClose(h);

  h = StartFile(path, QO_PIX_FMT_H264);
  const int64_t t0 = MonotonicNs();
  EXPECT_EQ(qo_VideoStreamStop(h), 0);
  EXPECT_GT(MonotonicNs() - t0, 4000e6);
  EXPECT_TRUE(cap.Has(" spent time:2000 ms or wait eos\n"));  // half the time slept, as ever
  EXPECT_EQ(qo_VideoStreamStop(h), -1);                       // paused now
  qo_VideoStreamClose(h);
  printf("file stop while pulling: %.1f ms\n", stop_ns / 1e6);
}

}  // namespace
}  // namespace videoin_test
}  // namespace qo
