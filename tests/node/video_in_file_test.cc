// Video input node on "file://" sources: the parsed frames and their time
// stamps, pacing at "framerate", the final end-of-stream task, and the
// recorder's ring of two files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "test_media.h"
#include "video_in_node_util.h"

namespace qo {
namespace node_test {
namespace {

std::string H264File(int width, int height, int frames) {
  testmedia::StreamParams p;
  p.width = width;
  p.height = height;
  p.frames = frames;
  return testmedia::GenerateStream(p);
}

// After each sent frame of a file the thread sleeps 1000 / "framerate" ms;
// 0 means no pacing.
TEST(VideoInputFile, FramesArePacedAtTheFrameRateThenTheStreamEnds) {
  const std::string path = H264File(160, 120, 30);
  ASSERT_FALSE(path.empty());
  const auto ref = testmedia::ReferenceAccessUnits(path, testmedia::Codec::kH264);
  ASSERT_EQ(ref.size(), 30u);
  for (double framerate : {20.0, 0.0}) {
    SCOPED_TRACE(framerate);
    PortSink port(true);
    VideoInNode g;
    g.SetString("uri", "file://" + path);
    g.SetInt("stream-id", 3);
    g.SetDouble("framerate", framerate);
    g.node()->SetTxQue(port.queue(), 1);
    g.Open();
    ASSERT_TRUE(port.WaitForFrames(1, 10000));
    const int64_t t0 = MonotonicNs();
    ASSERT_TRUE(port.WaitForEnd(15000));
    const double seconds = (MonotonicNs() - t0) / 1e9;
    printf("file source at framerate %.0f: 30 frames in %.3f s\n", framerate, seconds);
    if (framerate > 0) {
      EXPECT_GE(seconds, 29 * 0.050);  // 50 ms after each frame but the last
      EXPECT_LE(seconds, 6.0);
    } else {
      EXPECT_LT(seconds, 1.0);
    }
    const std::vector<TaskRecord> tasks = port.Tasks();
    ASSERT_EQ(tasks.size(), ref.size() + 1);
    for (size_t i = 0; i < ref.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(tasks[i].flag, 0);
      EXPECT_EQ(tasks[i].source_id, 3);
      EXPECT_TRUE(tasks[i].bytes == ref[i].data);
      EXPECT_EQ(tasks[i].shape, std::vector<int64_t>{static_cast<int64_t>(ref[i].data.size())});
      EXPECT_EQ(tasks[i].ext.width, 160);
      EXPECT_EQ(tasks[i].ext.height, 120);
      // A file frame carries its decoding time, else its presentation time.
      const uint64_t want = ref[i].dts != UINT64_MAX ? ref[i].dts : ref[i].pts;
      EXPECT_EQ(static_cast<uint64_t>(tasks[i].time_stamp), want);
    }
    EXPECT_EQ(tasks.back().flag, 1);
    EXPECT_EQ(tasks.back().shape, std::vector<int64_t>{0});
    const int64_t c0 = MonotonicNs();
    g.Close();
    EXPECT_LT(MonotonicNs() - c0, 1000000000LL) << "the end was already seen";
  }
}

// Frames 1-251 go to the file ending in _0, the next ones to _1, raw and
// back to back. The recorder still counts the file the ending thread closed
// as open, so the node started again records nothing more.
TEST(VideoInputFile, RecorderRingOfTwoFilesHoldsTheRawFrames) {
  const unsigned id = 0x6000u + static_cast<unsigned>(getpid() % 0x1000);  // per process
  std::string paths[2];
  for (int i = 0; i < 2; ++i) {
    char buf[64];
    snprintf(buf, sizeof(buf), "/tmp/strm_%02x_%d", id, i);
    paths[i] = buf;
    unlink(buf);
  }
  const std::string path = H264File(64, 48, 300);
  ASSERT_FALSE(path.empty());
  PortSink port(true, 64);
  VideoInNode g;
  g.SetString("uri", "file://" + path);
  g.SetInt("stream-id", static_cast<int>(id));
  g.SetInt("save_stream", 1);
  g.SetDouble("framerate", 0.0);
  g.node()->SetTxQue(port.queue(), 0);
  g.Open();
  ASSERT_TRUE(port.WaitForEnd(60000));
  const std::vector<TaskRecord> tasks = port.Tasks();
  ASSERT_EQ(tasks.size(), 301u);
  std::vector<uint8_t> expected[2];
  for (size_t i = 0; i < 300; ++i) {
    expected[i < 251 ? 0 : 1].insert(expected[i < 251 ? 0 : 1].end(), tasks[i].bytes.begin(),
                                     tasks[i].bytes.end());
  }
  g.Close();
  EXPECT_TRUE(ReadAll(paths[0]) == expected[0]);
  EXPECT_TRUE(ReadAll(paths[1]) == expected[1]);

  g.Open();
  ASSERT_TRUE(
      port.WaitUntil([](const std::vector<TaskRecord>& t) { return t.size() == 302; }, 60000));
  g.Close();
  EXPECT_EQ(port.Tasks().back().flag, 1);
  EXPECT_TRUE(ReadAll(paths[0]) == expected[0]);
  EXPECT_TRUE(ReadAll(paths[1]) == expected[1]);
  for (const std::string& p : paths) unlink(p.c_str());
}

}  // namespace
}  // namespace node_test
}  // namespace qo
