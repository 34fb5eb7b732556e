// Video input node without a network: fatal start failures, frame arrays by
// format, "file://" streams paced at "framerate", the recorder's ring of two
// files with a restart, and the settings handed to a camera (last: its
// failed start leaves a stream of the live-stream layer behind, by design).
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "core/qo_c_runtime_api.h"
#include "node/qo_media_facts.h"
#include "node_test_util.h"
#include "test_layer_capture.h"
#include "test_media.h"

namespace qo {
namespace nodetest {
namespace {

TEST(VideoInputApi, FatalStartsAndFrameArrays) {
  LogCapture log(0);
  {
    HostNode g("qo.mm.video.in");
    EXPECT_NE(ErrorText([&] { g.Open(); }).find("uri is NULL !!!\nStack trace:\n"),
              std::string::npos);
    g.SetString("uri", "file:///tmp/qo-video-in-no-such-file");
    EXPECT_NE(ErrorText([&] { g.Open(); }).find(": Stream Open failed !!!\nStack trace:\n"),
              std::string::npos);
  }
  // "stream.type" gives -1 for what it cannot probe, as a 64-bit integer.
  QORetValue rv = testhost::Func("qo.mm.video.in.stream.type")("file:///tmp/x.h264");
  ASSERT_EQ(rv.type_code(), kDLInt);
  EXPECT_EQ(rv.AsInt64(), -1);
  EXPECT_EQ(log.Count(": get stream type failed !!!\n"), 1u);
  const struct {
    int32_t format, width, height, size;
    Shape shape;
    int32_t kind;  // 0: no layout, fatal
  } cases[] = {
      {QO_PIX_FMT_NV12, 1920, 1080, 1920 * 1620, {1620, 1920}, 2},
      {QO_PIX_FMT_NV21, 6, 5, 42, {7, 6}, 2},  // 5 * 3 / 2 rows, truncated
      {QO_PIX_FMT_YUV422_UYVY, 8, 4, 64, {8, 8}, 2},
      {QO_PIX_FMT_H264, 320, 240, 5000, {5000}, 3},
      {QO_PIX_FMT_MJPEG, 320, 240, 900, {900}, 3},
      {QO_PIX_FMT_NV12, 64, 64, 100, {100}, 2},  // picture larger than its buffer
      {QO_PIX_FMT_GRAY8, 16, 16, 256, {}, 0},
  };
  for (const auto& c : cases) {
    auto* rec =
        new qo_StreamInfo{0x1122334455667788ULL, nullptr, c.format, c.size, c.width, c.height, 0};
    rec->data = static_cast<uint8_t*>(QOMemAlloc(static_cast<size_t>(c.size), 64));
    if (c.kind == 0) {  // released before the fatal message
      EXPECT_NE(ErrorText([&] {
                  VideoInputProbe::WrapFrame(rec);
                }).find("unsupported yuv format:" + std::to_string(c.format) + "!!!\n"),
                std::string::npos);
      continue;
    }
    // The frame goes back to the stream layer with the last reference (the
    // leak checker holds the deleter to that).
    NDArray a = VideoInputProbe::WrapFrame(rec);
    EXPECT_EQ(a.Shape(), c.shape) << c.format;
    EXPECT_EQ(a.GetTensorData(), rec->data);
    EXPECT_EQ(ExtFields(a), std::vector<int32_t>({c.format, c.kind, 0, 0, c.width, c.height, 0}));
    EXPECT_EQ(a.GetExtInfo()->time_stamp, 0x1122334455667788ULL);
  }
}

// A null node is logged by every function, at 3 or 4 by function, and
// otherwise ignored; it has no reason to give (-1).
TEST(VideoInputApi, NullHandlesLogAtThreeOrFour) {
  ExpectNullHandleSeverities(
      "qo.mm.video.in", "VideoInput", [](const std::string& verb, const PackedFunc& f) {
        // Arguments are converted before the null test: each of its kind.
        verb == "set.attr.string" ? f(nullptr, "uri", "x") : f(nullptr, "width", 1);
      });
  EXPECT_EQ(testhost::Func("qo.mm.video.in.last.error.code")(nullptr).operator int(), -1);
}

// After each sent frame of a file the thread sleeps 1000 / "framerate" ms;
// 0 means no pacing. Every access unit as the parser sees it, with its
// decoding time, then one status-1 task. In sync mode the host pulls them
// and nothing is sent.
TEST(VideoInputFile, PacedAtTheFrameRateThenTheEnd) {
  testmedia::StreamParams p;
  p.b_frames = 2, p.slices = 4;
  const std::string path = testmedia::GenerateStream(p);
  const auto ref = testmedia::ReferenceAccessUnits(path, testmedia::Codec::kH264);
  ASSERT_EQ(ref.size(), 30u);
  for (int run = 0; run < 3; ++run) {  // 30 frames/s, unpaced, sync mode
    const double framerate = run == 0 ? 30.0 : 0.0;
    SCOPED_TRACE(run);
    TaskCollector port(16, /*keep_arrays=*/true);
    HostNode g("qo.mm.video.in");
    g.SetString("uri", "file://" + path);
    g.SetInt("stream-id", 3);
    g.SetDouble("framerate", framerate);
    g.SetInt("sync-mode", run == 2);
    g.thread()->SetTxQue(port.queue(), 1);
    g.Open();
    if (run == 2) {
      EXPECT_EQ(testutil::ThreadCount("strm_out"), 0);
      NDArray frame;
      size_t n = 0;
      int r;
      while ((r = static_cast<mm::VideoInput*>(g.handle())->GetFrame(frame, 5)) == 0 &&
             n < ref.size())
        EXPECT_EQ(Bytes(frame), ref[n++].data);
      EXPECT_EQ(std::make_pair(r, n), std::make_pair(1, ref.size()));
      frame.reset();
      g.Close();
      port.Stop();
      EXPECT_TRUE(port.Tasks().empty());
      break;
    }
    ASSERT_TRUE(port.WaitFor([](const Tasks& t) { return !t.empty(); }, 10000));
    const int64_t t0 = testutil::MonotonicNs();
    ASSERT_TRUE(port.WaitForFlag(1, 15000));
    const double seconds = (testutil::MonotonicNs() - t0) / 1e9;
    EXPECT_GE(seconds, framerate > 0 ? 29 * 0.033 : 0);  // 33 ms after each frame but the last
    EXPECT_LE(seconds, framerate > 0 ? 6.0 : 1.0);
    const Tasks tasks = port.Tasks();
    ASSERT_EQ(tasks.size(), ref.size() + 1);
    for (size_t i = 0; i < ref.size(); ++i) {
      EXPECT_EQ(std::vector<int64_t>({tasks[i].flag, tasks[i].source_id, tasks[i].time_stamp}),
                std::vector<int64_t>({0, 3, static_cast<int64_t>(ref[i].dts)}))
          << i;
      EXPECT_EQ(Bytes(tasks[i].data), ref[i].data) << i;
    }
    EXPECT_EQ(tasks.back().flag, 1);
    EXPECT_EQ(tasks.back().data.Shape(), Shape{0});
    const int64_t c0 = testutil::MonotonicNs();
    g.Close();
    EXPECT_LT(testutil::MonotonicNs() - c0, 1000e6) << "the end was already seen";
  }
}

// Frames 1-251 go to the file ending in _0, the next ones to _1, raw and
// back to back. Started again after a stop, the node sends no frame task,
// only the end; and as the recorder still counts the file the ending thread
// closed as open, it records nothing more.
TEST(VideoInputFile, RecorderRingOfTwoFilesAndARestartThatSendsNoFrame) {
  const unsigned id = 0x6000u + static_cast<unsigned>(getpid() % 0x1000);  // per process
  std::string paths[mm::kRecordingFiles];
  for (unsigned i = 0; i < mm::kRecordingFiles; ++i) {
    char path[64];
    snprintf(path, sizeof(path), mm::kRecordingPathPattern, id, i);
    paths[i] = path;
  }
  for (const std::string& p : paths) unlink(p.c_str());
  TaskCollector port(64, /*keep_arrays=*/true);
  HostNode g("qo.mm.video.in");
  testmedia::StreamParams params;
  params.width = 64, params.height = 48, params.frames = 300;
  g.SetString("uri", "file://" + testmedia::GenerateStream(params));
  g.SetInt("stream-id", static_cast<int>(id));
  g.SetInt("save_stream", 1);
  g.SetDouble("framerate", 0.0);
  g.thread()->SetTxQue(port.queue(), 0);
  g.Open();
  ASSERT_TRUE(port.WaitForFlag(1, 60000));
  g.Close();
  const Tasks tasks = port.Tasks();
  ASSERT_EQ(tasks.size(), 301u);
  std::vector<uint8_t> expected[2];
  for (size_t i = 0; i < 300; ++i) {
    const std::vector<uint8_t> bytes = Bytes(tasks[i].data);
    std::vector<uint8_t>& file = expected[i >= mm::kFramesPerRecordingFile];
    file.insert(file.end(), bytes.begin(), bytes.end());
  }
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_TRUE(testmedia::ReadFile(paths[0]) == expected[0] &&
                testmedia::ReadFile(paths[1]) == expected[1]);
    if (pass == 1) break;
    g.Open();
    ASSERT_TRUE(port.WaitFor([](const Tasks& t) { return t.size() == 302; }, 60000));
    g.Close();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(port.Tasks().size(), 302u);
    EXPECT_EQ(port.Tasks().back().flag, 1);
  }
  for (const std::string& p : paths) unlink(p.c_str());
}

// A camera gets its settings after type and transport, with the mode kept
// by SetMode and never the kept gain. No such device exists, so the start
// fails and the live-stream layer keeps that stream.
TEST(VideoInputV4l2, CameraGetsItsSettingsInOrderAndNeverAKeptGain) {
  testutil::LayerCapture out;
  VideoInputProbe node;
  node.SetMode(9);
  node.SetGain(50);
  Prop& prop = node.GetProp();
  prop.Set("uri", "v4l2:///dev/qo-no-such-video-device");
  prop.Set("stream-type", QO_PIX_FMT_NV12);
  prop.Set("framerate", 29.97);
  prop.Set("test-pattern", 1);
  EXPECT_NE(ErrorText([&] { node.Start(); }).find("Stream start failed !!!"), std::string::npos);
  const std::string text = out.Finish();
  size_t pos = 0;
  for (const char* e :
       {"\"stream-type\"=0 success", "\"lower-trans-type\"=1 success", "\"width\"=1920 success",
        "\"height\"=1080 success", "\"framerate\"=29 success", "\"test-pattern\"=1 to v4l2",
        "\"mode\"=3 to v4l2"}) {
    pos = text.find(e, pos);
    ASSERT_NE(pos, std::string::npos) << "missing or out of order: " << e;
  }
  EXPECT_EQ(text.find("\"gain\""), std::string::npos);
}

}  // namespace
}  // namespace nodetest
}  // namespace qo
