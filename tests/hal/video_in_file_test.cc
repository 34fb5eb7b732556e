// Live-stream layer on "file://" sources: every access unit of generated
// streams arrives (compared with the parser's own output), then end of
// stream; time-outs and blocking pulls on a stalled source; stop while a
// thread pulls, and stop with nobody pulling.
#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "hal_mm_video_in.h"
#include "test_media.h"
#include "video_in_test_util.h"

namespace qo {
namespace videoin_test {
namespace {

namespace media = qo::testmedia;

constexpr uint64_t kNone = UINT64_MAX;

int TypeOf(media::Codec codec) {
  switch (codec) {
    case media::Codec::kH264:
      return QO_PIX_FMT_H264;
    case media::Codec::kH265:
      return QO_PIX_FMT_H265;
    default:
      return QO_PIX_FMT_MJPEG;
  }
}

qo_StrmHandle StartFile(const std::string& path, int type) {
  qo_StrmHandle h = qo_VideoStreamOpen(("file://" + path).c_str());
  if (!h) return nullptr;
  qo_VideoStreamCfg(h, "stream-type", type);
  if (qo_VideoStreamStart(h) != 0) {
    ParkHandle(h);
    return nullptr;
  }
  return h;
}

struct EncodedCase {
  const char* name;
  media::StreamParams params;
};

std::vector<EncodedCase> EncodedCases() {
  std::vector<EncodedCase> cases;
  media::StreamParams p;
  p.frames = 20;
  cases.push_back({"h264", p});
  p.b_frames = 2;
  p.slices = 4;
  cases.push_back({"h264 b-frames slices", p});
  media::StreamParams q;
  q.codec = media::Codec::kH265;
  q.frames = 20;
  q.b_frames = 2;
  cases.push_back({"h265 b-frames", q});
  return cases;
}

TEST(VideoInFileTest, EncodedStreamsDeliverEveryAccessUnitThenEnd) {
  for (const auto& c : EncodedCases()) {
    SCOPED_TRACE(c.name);
    const std::string path = media::GenerateStream(c.params);
    ASSERT_FALSE(path.empty());
    const auto ref = media::ReferenceAccessUnits(path, c.params.codec);
    ASSERT_EQ(ref.size(), static_cast<size_t>(c.params.frames));

    StdoutCapture cap;
    qo_StrmHandle h = StartFile(path, TypeOf(c.params.codec));
    ASSERT_NE(h, nullptr);
    const int64_t mono_before = g_get_monotonic_time();
    DrainResult r = Drain(h, 5);
    const int64_t mono_after = g_get_monotonic_time();
    EXPECT_TRUE(r.eos);
    ASSERT_EQ(r.frames.size(), ref.size());
    for (size_t i = 0; i < ref.size(); i++) {
      const Frame& f = r.frames[i];
      EXPECT_EQ(f.data, ref[i].data) << "unit " << i;
      EXPECT_EQ(f.format, TypeOf(c.params.codec));
      EXPECT_EQ(f.width, c.params.width);
      EXPECT_EQ(f.height, c.params.height);
      // Decoding time first, then presentation time, then the monotonic
      // clock in microseconds.
      uint64_t want = ref[i].dts != kNone ? ref[i].dts : ref[i].pts;
      if (want != kNone) {
        EXPECT_EQ(f.time_stamp, want) << "unit " << i;
      } else {
        EXPECT_GE(f.time_stamp, static_cast<uint64_t>(mono_before) - 10 * G_USEC_PER_SEC);
        EXPECT_LE(f.time_stamp, static_cast<uint64_t>(mono_after));
      }
    }
    // The end stays the end.
    Frame extra;
    bool eos = false;
    EXPECT_FALSE(PullFrame(h, 1, &extra, &eos));
    EXPECT_TRUE(eos);
    EXPECT_EQ(qo_VideoStreamStop(h), 0);
    qo_VideoStreamClose(h);
    std::string text = cap.Finish();
    EXPECT_EQ(CountOccurrences(text, "--------->video in recived eos from stream !!!!"), 2u);
    EXPECT_NE(text.find(" spent time:0 ms or wait eos\n"), std::string::npos);
  }
}

TEST(VideoInFileTest, MjpegBytesArriveAsTheyAreInTheFile) {
  media::StreamParams p;
  p.codec = media::Codec::kMjpeg;
  p.frames = 10;
  const std::string path = media::GenerateStream(p);
  ASSERT_FALSE(path.empty());
  const auto ref = media::ReferenceAccessUnits(path, p.codec);
  ASSERT_EQ(ref.size(), 10u);
  std::vector<uint8_t> pictures;
  for (const auto& au : ref) pictures.insert(pictures.end(), au.data.begin(), au.data.end());

  qo_StrmHandle h = StartFile(path, QO_PIX_FMT_MJPEG);
  ASSERT_NE(h, nullptr);
  DrainResult r = Drain(h, 5);
  EXPECT_TRUE(r.eos);
  // No parser on this path: the source's blocks come through with bare
  // "image/jpeg" caps, byte for byte.
  std::vector<uint8_t> got;
  for (const auto& f : r.frames) {
    EXPECT_EQ(f.format, QO_PIX_FMT_MJPEG);
    EXPECT_EQ(f.width, 0);
    EXPECT_EQ(f.height, 0);
    got.insert(got.end(), f.data.begin(), f.data.end());
  }
  EXPECT_EQ(got, pictures);
  EXPECT_EQ(got, media::ReadFile(path));
  qo_VideoStreamClose(h);
}

// A named pipe as the file: nothing arrives until the test writes.
class VideoInStalledFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/qo-video-in-fifo-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    fifo_ = dir_ + "/stream.h264";
    ASSERT_EQ(mkfifo(fifo_.c_str(), 0600), 0);
    // Read-write, so that neither side's open blocks.
    writer_ = open(fifo_.c_str(), O_RDWR);
    ASSERT_GE(writer_, 0);
  }
  void TearDown() override {
    if (writer_ >= 0) close(writer_);
    unlink(fifo_.c_str());
    rmdir(dir_.c_str());
  }

  std::string dir_;
  std::string fifo_;
  int writer_ = -1;
};

TEST_F(VideoInStalledFileTest, TimeOutsRetryAndBlockingPullsWaitForData) {
  media::StreamParams p;
  p.frames = 10;
  const std::string path = media::GenerateStream(p);
  ASSERT_FALSE(path.empty());
  const auto ref = media::ReferenceAccessUnits(path, p.codec);
  const std::vector<uint8_t> bytes = media::ReadFile(path);
  ASSERT_FALSE(bytes.empty());

  StdoutCapture cap;
  qo_StrmHandle h = StartFile(fifo_, QO_PIX_FMT_H264);
  ASSERT_NE(h, nullptr);

  auto t0 = std::chrono::steady_clock::now();
  Frame f;
  bool eos = true;
  EXPECT_FALSE(PullFrame(h, 1, &f, &eos));
  EXPECT_FALSE(eos);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(900));
  EXPECT_NE(cap.Text().find("########> retry timeout:1S!\n"), std::string::npos);

  // Timeout 0 waits for as long as it takes.
  std::thread writer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    size_t off = 0;
    while (off < bytes.size()) {
      ssize_t n = write(writer_, bytes.data() + off, bytes.size() - off);
      if (n <= 0) break;
      off += static_cast<size_t>(n);
    }
    close(writer_);  // no writer left: the source reaches its end
    writer_ = -1;
  });
  t0 = std::chrono::steady_clock::now();
  bool got = PullFrame(h, 0, &f, &eos);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1400));
  EXPECT_TRUE(got);
  EXPECT_EQ(f.data, ref[0].data);
  // A negative timeout waits too, here until the end of the stream.
  DrainResult r = Drain(h, -1);
  writer.join();
  EXPECT_TRUE(r.eos);
  EXPECT_EQ(r.frames.size() + 1, ref.size());
  EXPECT_EQ(CountOccurrences(cap.Text(), "retry timeout"), 1u);
  EXPECT_EQ(qo_VideoStreamStop(h), 0);
  qo_VideoStreamClose(h);
}

TEST(VideoInFileTest, StopWhileAThreadPullsEndsWithoutTheWholeWait) {
  media::StreamParams p;
  p.frames = 600;
  const std::string path = media::GenerateStream(p);
  ASSERT_FALSE(path.empty());

  StdoutCapture cap;
  qo_StrmHandle h = StartFile(path, QO_PIX_FMT_H264);
  ASSERT_NE(h, nullptr);
  // About 3 ms of work per frame: the whole file would take about 2 s.
  Puller puller(h, 3, 3);
  while (puller.frames() < 10) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const int64_t t0 = MonotonicNs();
  EXPECT_EQ(qo_VideoStreamStop(h), 0);
  const int64_t stop_ns = MonotonicNs() - t0;
  puller.Join();
  EXPECT_TRUE(puller.saw_eos());
  EXPECT_LT(puller.frames(), 600);  // ended by the stop, not by the file
  // The end reaches the puller once the parser has used up the block it
  // already read from the file; the 4-second limit is never reached.
  EXPECT_LT(stop_ns, 1500 * 1000000LL);
  std::string text = cap.Finish();
  EXPECT_EQ(text.find("spent time:2000 ms"), std::string::npos);
  printf("file stop while pulling: %.1f ms, %d frames pulled\n", stop_ns / 1e6, puller.frames());
  qo_VideoStreamClose(h);
}

TEST(VideoInFileTest, StopWithNobodyPullingWaitsTheWholeLimit) {
  media::StreamParams p;
  p.frames = 150;
  const std::string path = media::GenerateStream(p);
  ASSERT_FALSE(path.empty());

  StdoutCapture cap;
  qo_StrmHandle h = StartFile(path, QO_PIX_FMT_H264);
  ASSERT_NE(h, nullptr);
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(qo_VideoStreamStop(h), 0);
  auto spent = std::chrono::steady_clock::now() - t0;
  EXPECT_GE(spent, std::chrono::milliseconds(4000));
  EXPECT_LT(spent, std::chrono::milliseconds(8000));
  // The figure printed is half the time slept, as it has always been.
  EXPECT_NE(cap.Text().find(" spent time:2000 ms or wait eos\n"), std::string::npos);
  // Paused now: a second stop is refused.
  EXPECT_EQ(qo_VideoStreamStop(h), -1);
  qo_VideoStreamClose(h);
}

}  // namespace
}  // namespace videoin_test
}  // namespace qo
