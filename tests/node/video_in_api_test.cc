// Video input node without a running stream: null handles, start failures,
// mode and gain, frame arrays, and the settings handed to a v4l2 stream.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/qo_c_runtime_api.h"
#include "video_in_node_util.h"

namespace qo {
namespace node_test {
namespace {

TEST(VideoInputApi, NullHandlesAreLoggedAtTheirSeverityAndIgnored) {
  const std::vector<std::pair<std::string, int>> cases = {
      {"destroy", 3},     {"close", 3},        {"open", 4},
      {"update.para", 4}, {"set.attr.int", 4}, {"set.attr.string", 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    for (int level : {c.second, c.second + 1}) {
      LogCapture log(level);
      const std::string name = "qo.mm.video.in." + c.first;
      QORetValue rv = c.first == "set.attr.int"      ? Call(name, nullptr, "width", 5)
                      : c.first == "set.attr.string" ? Call(name, nullptr, "uri", "file:///x")
                                                     : Call(name, nullptr);
      EXPECT_EQ(rv.type_code(), kNull);
      EXPECT_EQ(log.Count("fml_video_in.cc:"), level == c.second ? 1u : 0u);
      EXPECT_EQ(log.Count(": VideoInput is NULL !!!\n"), level == c.second ? 1u : 0u);
    }
  }
  // Arguments are converted before the handle is looked at.
  EXPECT_NE(ErrorText([] { Call("qo.mm.video.in.set.attr.int", nullptr, "width", "x"); }), "");
}

TEST(VideoInputApi, StartFailuresAreFatalAndLeaveTheNodeStopped) {
  VideoInNode g;
  LogCapture log(0);
  EXPECT_NE(ErrorText([&] { g.Open(); }).find("uri is NULL !!!\nStack trace:\n"),
            std::string::npos);
  for (const char* uri : {"http://127.0.0.1/stream", "file:///tmp/qo-video-in-no-such-file"}) {
    SCOPED_TRACE(uri);
    g.SetString("uri", uri);
    const std::string text = ErrorText([&] { g.Open(); });
    EXPECT_EQ(text.rfind("[", 0), 0u) << text;
    EXPECT_NE(text.find("fml_video_in.cc:"), std::string::npos) << text;
    EXPECT_NE(text.find("Stream Open failed !!!\nStack trace:\n"), std::string::npos) << text;
  }
  g.Close();
  EXPECT_EQ(log.Count("stream obj is NULL !!!"), 1u);
  // The store's checks guard the parameters.
  EXPECT_NE(ErrorText([&] { g.SetInt("width", 4097); }).find("width:4097 exceeds range [0, 4096]"),
            std::string::npos);
  EXPECT_NE(ErrorText([&] { g.SetInt("framerate", 30); }).find("key framerate not exist!"),
            std::string::npos);
}

TEST(VideoInputApi, IdleNodeKeepsModeAndGainAndRefusesPullsAndTasks) {
  LogCapture log(0);
  {
    VideoInputProbe node;
    NDArray frame;
    EXPECT_EQ(node.GetFrame(frame, 1), -1);
    node.Stop();
    node.Proc(nullptr, 0, kPOutTask);
    EXPECT_EQ(log.Count(": video input operator does not need rx queue  !!!\n\n"), 1u);
    EXPECT_EQ(node.gain(), 32);
    node.SetMode(7);
    EXPECT_EQ(node.mode(), 3);
    node.SetMode(2);
    EXPECT_EQ(node.mode(), 2);
    node.SetGain(100);
    EXPECT_EQ(node.gain(), 63);
    EXPECT_EQ(log.Count(": stream obj is NULL !!!\n"), 5u);
  }
  EXPECT_EQ(log.Count("qo_video_in_node.h:"), 1u);
  EXPECT_EQ(log.Count("class VideoInput instance destoryed !!!\n\n"), 1u);
  // "stream.type" gives -1 for what it cannot probe, as a 64-bit integer.
  QORetValue rv = Call("qo.mm.video.in.stream.type", "file:///tmp/x.h264");
  ASSERT_EQ(rv.type_code(), kDLInt);
  EXPECT_EQ(rv.AsInt64(), -1);
  EXPECT_EQ(log.Count(": get stream type failed !!!\n"), 1u);
}

TEST(VideoInputApi, FrameArraysTakeTheirShapeAndKindFromTheFormat) {
  struct Case {
    int32_t format, width, height, size;
    std::vector<int64_t> shape;
    int32_t kind;
  };
  const std::vector<Case> cases = {
      {QO_PIX_FMT_NV12, 1920, 1080, 1920 * 1620, {1620, 1920}, 2},
      {QO_PIX_FMT_NV21, 6, 5, 42, {7, 6}, 2},  // 5 * 3 / 2 rows, truncated
      {QO_PIX_FMT_YUV422_YUYV, 1920, 1080, 1920 * 2160, {2160, 1920}, 2},
      {QO_PIX_FMT_YUV422_UYVY, 8, 4, 64, {8, 8}, 2},
      {QO_PIX_FMT_NV16, 8, 4, 64, {8, 8}, 2},
      {QO_PIX_FMT_H264, 320, 240, 5000, {5000}, 3},
      {QO_PIX_FMT_MJPEG, 320, 240, 900, {900}, 3},
      {QO_PIX_FMT_NV12, 64, 64, 100, {100}, 2},  // picture larger than its buffer
      {QO_PIX_FMT_JPEG, 16, 16, 64, {}, 0},
      {QO_PIX_FMT_YUV420P, 16, 16, 384, {}, 0},
      {QO_PIX_FMT_GRAY8, 16, 16, 256, {}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.format);
    auto* rec =
        new qo_StreamInfo{0x1122334455667788ULL, nullptr, c.format, c.size, c.width, c.height, 0};
    rec->data = static_cast<uint8_t*>(QOMemAlloc(static_cast<size_t>(c.size), 64));
    if (c.kind == 0) {
      EXPECT_NE(ErrorText([&] {
                  VideoInputProbe::WrapFrame(rec);
                }).find("unsupported yuv format:" + std::to_string(c.format) + "!!!\n"),
                std::string::npos);
      continue;
    }
    NDArray a = VideoInputProbe::WrapFrame(rec);
    EXPECT_EQ(a.Shape(), c.shape);
    EXPECT_EQ(a.GetTensorData(), rec->data);
    EXPECT_EQ(a.get()->manager_ctx, rec);
    EXPECT_EQ(a.get()->dtype.bits, 8);
    EXPECT_EQ(a.get()->ctx.device_type, kDLCPU);
    const ExtInfo& e = *a.GetExtInfo();
    EXPECT_EQ(
        std::vector<int32_t>({e.format, e.kind, e.zero0, e.zero1, e.width, e.height, e.zero2}),
        std::vector<int32_t>({c.format, c.kind, 0, 0, c.width, c.height, 0}));
    EXPECT_EQ(e.time_stamp, 0x1122334455667788ULL);
    // The frame goes back to the stream layer with the last reference (the
    // leak checker holds the deleter to that).
  }
}

// v4l2 sources get the camera settings after type and transport, with the
// mode kept by SetMode and never the kept gain. No such device exists, so
// the start fails and the layer keeps that stream: the last test here.
TEST(VideoInputApi, V4l2SourceGetsCameraSettingsInOrder) {
  StdoutCapture out;
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
}  // namespace node_test
}  // namespace qo
