// Live-stream layer: URL parsing, properties, launch strings, type detection
// refusals, and the failure paths of a camera that is not there. The launch
// string is checked in the "full string" line that every start prints before
// it builds the pipeline.
//
// Streams whose start fails stay allocated by design; they are parked (see
// ParkHandle), and this binary never expects the main loop to stop.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "hal_mm_video_in.h"
#include "video_in_test_util.h"

namespace qo {
namespace videoin_test {
namespace {

constexpr char kAbsentCamera[] = "v4l2:///dev/qo-absent-video0";
constexpr char kAppSink[] = " ! appsink name=appsink async=false sync=false";
constexpr char kH264Stage[] =
    "h264parse ! video/x-h264,stream-format=byte-stream,alignment=(string) au";
constexpr char kH265Stage[] =
    "h265parse ! video/x-h265,stream-format=byte-stream,alignment=(string) au";

using Props = std::vector<std::pair<const char*, int>>;

struct StartResult {
  int ret = 0;
  std::string full;    // the composed launch string, "" when none was printed
  std::string output;  // everything printed by configuration and start
};

// Opens uri, applies props, starts, and returns what start printed; the
// stream is closed when it runs and parked otherwise.
StartResult StartWith(const std::string& uri, const Props& props) {
  StartResult r;
  StdoutCapture cap;
  qo_StrmHandle h = qo_VideoStreamOpen(uri.c_str());
  if (!h) {
    ADD_FAILURE() << "open " << uri;
    return r;
  }
  for (const auto& p : props) qo_VideoStreamCfg(h, p.first, p.second);
  r.ret = qo_VideoStreamStart(h);
  r.output = cap.Text();
  std::smatch m;
  static const std::regex full_re("\\$\\$\\$\\$>p#\\d+ full string=(.*)\n");
  if (std::regex_search(r.output, m, full_re)) r.full = m[1];
  if (r.ret == 0)
    qo_VideoStreamClose(h);
  else
    ParkHandle(h);
  return r;
}

std::string CameraString(const std::string& controls, const std::string& caps) {
  return std::string("v4l2src name=src device=/dev/qo-absent-video0 extra-controls=controls") +
         controls + " ! " + caps + kAppSink;
}

TEST(VideoInComposeTest, CameraFormatsGetTheirCapsWithSizeAndRate) {
  const std::vector<std::pair<int, std::string>> formats = {
      {QO_PIX_FMT_NV12, "video/x-raw,format=(string)NV12"},
      {QO_PIX_FMT_NV21, "video/x-raw,format=(string)NV21"},
      {QO_PIX_FMT_YUV422_YUYV, "video/x-raw,format=(string)YUY2"},
      {QO_PIX_FMT_YUV422_UYVY, "video/x-raw,format=(string)UYVY"},
      {QO_PIX_FMT_NV16, "video/x-raw,format=(string)NV16"},
      {QO_PIX_FMT_YUV420P, "video/x-raw,format=(string)I420"},
      {QO_PIX_FMT_H264, kH264Stage},
      {QO_PIX_FMT_H265, kH265Stage},
      {QO_PIX_FMT_MJPEG, "image/jpeg"},
  };
  for (const auto& f : formats) {
    StartResult r =
        StartWith(kAbsentCamera,
                  {{"stream-type", f.first}, {"width", 640}, {"height", 480}, {"framerate", 30}});
    EXPECT_EQ(r.full, CameraString("", f.second + ",width=640,height=480,framerate=30/1"))
        << "format " << f.first;
    // No device: the pipeline does not come up, and start says so.
    EXPECT_EQ(r.ret, -1);
    EXPECT_NE(r.output.find("state changed is failure return:0...\n"), std::string::npos);
    EXPECT_NE(r.output.find("$$$$>pl set state changed is failure return:-1...\n"),
              std::string::npos);
  }
}

TEST(VideoInComposeTest, CameraControlsAndSizesAppearOnlyWhenSet) {
  const std::string nv12 = "video/x-raw,format=(string)NV12";
  struct Case {
    Props props;
    std::string controls;
    std::string caps_suffix;
  };
  const std::vector<Case> cases = {
      {{}, "", ""},
      {{{"exposure", 100}}, "", ""},  // exposure alone does nothing
      {{{"exposure-auto", 3}}, ",exposure_auto=3", ""},
      {{{"exposure-auto", 1}, {"exposure", 100}}, ",exposure_auto=1,exposure=100", ""},
      {{{"exposure-auto", 1}, {"exposure", 0}}, ",exposure_auto=1", ""},
      {{{"exposure-auto", 0}, {"exposure", 100}}, "", ""},
      {{{"gain", 20}}, ",gain=20", ""},
      {{{"gain", 0}}, "", ""},
      {{{"exposure-auto", 1}, {"exposure", 250}, {"gain", 8}},
       ",exposure_auto=1,exposure=250,gain=8",
       ""},
      {{{"width", 1280}}, "", ",width=1280"},
      {{{"height", 720}, {"framerate", 15}}, "", ",height=720,framerate=15/1"},
  };
  for (const auto& c : cases) {
    Props props = c.props;
    props.insert(props.begin(), {"stream-type", QO_PIX_FMT_NV12});
    StartResult r = StartWith(kAbsentCamera, props);
    EXPECT_EQ(r.full, CameraString(c.controls, nv12 + c.caps_suffix)) << r.output;
  }
}

TEST(VideoInComposeTest, RefusedPropertiesLeaveTheLaunchStringAlone) {
  StartResult r = StartWith(kAbsentCamera, {{"stream-type", QO_PIX_FMT_NV12},
                                            {"test-pattern", 1},
                                            {"mode", 1},
                                            {"mode", 0},
                                            {"brightness", 5}});
  EXPECT_NE(r.output.find("#>qo_VideoStreamCfg():warn,unable to set property \"test-pattern\"=1 "
                          "to v4l2 pipeline!\n"),
            std::string::npos);
  EXPECT_NE(r.output.find("#>qo_VideoStreamCfg():warn,unable to set property \"mode\"=1 to v4l2 "
                          "pipeline!\n"),
            std::string::npos);
  EXPECT_NE(r.output.find("property \"mode\"=0 success!\n"), std::string::npos);
  EXPECT_NE(r.output.find("#>qo_VideoStreamCfg():warn,unable to set property \"brightness\"=5 "
                          "to v4l2 pipeline!\n"),
            std::string::npos);
  // Neither the test pattern nor the special (doubled-width UYVY) mode shows.
  EXPECT_EQ(r.full, CameraString("", "video/x-raw,format=(string)NV12"));

  // The camera mode exists for cameras only.
  std::string file = MakeFillerFile(16);
  r = StartWith("file://" + file, {{"mode", 0}, {"stream-type", QO_PIX_FMT_H264}});
  EXPECT_NE(r.output.find("#>qo_VideoStreamCfg():warn,unable to set property \"mode\"=0 to file "
                          "pipeline!\n"),
            std::string::npos);
  unlink(file.c_str());
}

TEST(VideoInComposeTest, UnsupportedStreamTypesFailBeforeAnyPipeline) {
  StartResult r = StartWith(kAbsentCamera, {{"stream-type", 2}});
  EXPECT_EQ(r.ret, -1);
  EXPECT_NE(r.output.find("#>ComposeV4L2():invalid or unsupport stream type 2 for v4l2 "
                          "pipeline!\n"),
            std::string::npos);
  EXPECT_EQ(r.full, "");

  // Without "stream-type" the default (-1) is refused too.
  r = StartWith(kAbsentCamera, {});
  EXPECT_NE(r.output.find("invalid or unsupport stream type -1 for v4l2 pipeline!\n"),
            std::string::npos);

  r = StartWith("rtsp://127.0.0.1:9/cam", {{"stream-type", QO_PIX_FMT_NV12}});
  EXPECT_EQ(r.ret, -1);
  EXPECT_NE(r.output.find("#>ComposeRTSP():invalid or unsupport stream type 0 for rtsp "
                          "pipeline!\n"),
            std::string::npos);

  std::string file = MakeFillerFile(16);
  r = StartWith("file://" + file, {{"stream-type", QO_PIX_FMT_JPEG}});
  EXPECT_NE(r.output.find("#>ComposeLocalFile():invalid or unsupport stream type 34 for file "
                          "pipeline!\n"),
            std::string::npos);
  unlink(file.c_str());
}

TEST(VideoInComposeTest, FileStreamsUseTheParserOrJpegCaps) {
  std::string file = MakeFillerFile(16);
  const std::string src = "filesrc name=src location=" + file;
  const Props size = {{"width", 320}, {"height", 240}, {"framerate", 25}};

  Props props = size;
  props.push_back({"stream-type", QO_PIX_FMT_H264});
  StartResult r = StartWith("file://" + file, props);
  EXPECT_EQ(r.ret, 0);
  // Sizes only follow caps in the source stage; a parser stage ignores them.
  EXPECT_EQ(r.full, src + " ! " + kH264Stage + kAppSink);

  props = size;
  props.push_back({"stream-type", QO_PIX_FMT_H265});
  r = StartWith("file://" + file, props);
  EXPECT_EQ(r.full, src + " ! " + kH265Stage + kAppSink);

  props = size;
  props.push_back({"stream-type", QO_PIX_FMT_MJPEG});
  r = StartWith("file://" + file, props);
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.full, src + " ! image/jpeg,width=320,height=240,framerate=25/1" + kAppSink);
  unlink(file.c_str());
}

TEST(VideoInComposeTest, OpenRefusesBadUrls) {
  struct Case {
    std::string uri;
    std::string line;
  };
  const std::string long_rtsp = "rtsp://127.0.0.1/" + std::string(512 - 17, 'a');
  const std::string long_file = "file:///" + std::string(511, 'f');
  const std::string long_v4l2 = "v4l2:///dev/" + std::string(507, 'v');
  const std::vector<Case> cases = {
      {"http://127.0.0.1/cam",
       "#>PipelineParamParse():current input url:http://127.0.0.1/cam "
       "is no support or error!!!\n"},
      {"file:///qo/no/such/file.h264",
       "#>PipelineParamParse():file /qo/no/such/file.h264 is not exist!\n"},
      {"RTSP://127.0.0.1/cam", "is no support or error!!!\n"},
      {long_rtsp, "#>PipelineParamParse():input url is too long (512 bytes, at most 511)!\n"},
      {long_file, "#>PipelineParamParse():input url is too long (512 bytes, at most 511)!\n"},
      {long_v4l2, "#>PipelineParamParse():input url is too long (512 bytes, at most 511)!\n"},
  };
  for (const auto& c : cases) {
    StdoutCapture cap;
    EXPECT_EQ(qo_VideoStreamOpen(c.uri.c_str()), nullptr) << c.uri;
    std::string text = cap.Finish();
    EXPECT_NE(text.find(c.line), std::string::npos) << c.uri;
    EXPECT_NE(text.find("#>qo_VideoStreamOpen():input url is error!\n"), std::string::npos);
  }
  {
    StdoutCapture cap;
    EXPECT_EQ(qo_VideoStreamOpen(nullptr), nullptr);
    EXPECT_NE(cap.Finish().find("#>PipelineParamParse():uri string is null!\n"), std::string::npos);
  }
  // One byte less fits, and the whole URL becomes the location.
  const std::string rtsp511 = long_rtsp.substr(0, 511);
  StartResult r = StartWith(rtsp511, {{"stream-type", QO_PIX_FMT_H264}});
  EXPECT_EQ(r.full.rfind("live555src name=src location=" + rtsp511 + " ! h264parse", 0), 0u)
      << r.full;
}

TEST(VideoInComposeTest, CameraThatIsNotThereFailsStartAndLaterCallsReport) {
  StdoutCapture cap;
  qo_StrmHandle h = qo_VideoStreamOpen(kAbsentCamera);
  ASSERT_NE(h, nullptr);
  ParkHandle(h);

  // Pulling before any start reports the state instead of touching GStreamer.
  qo_StreamInfo info{};
  qo_VideoStreamGetFrame(h, &info, 1);
  EXPECT_EQ(info.data, nullptr);
  EXPECT_EQ(info.eos, 1);
  EXPECT_NE(cap.Text().find("#>qo_VideoStreamGetFrame():video stream state is error\n"),
            std::string::npos);

  qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_YUV422_YUYV);
  EXPECT_EQ(qo_VideoStreamStart(h), -1);
  // The camera's error comes through the bus watch and changes nothing.
  EXPECT_TRUE(cap.WaitFor("GStreamer ERROR: "));

  // Properties may still be set after a failed start.
  qo_VideoStreamCfg(h, "width", 320);
  EXPECT_NE(cap.Text().find("property \"width\"=320 success!\n"), std::string::npos);

  EXPECT_EQ(qo_VideoStreamStop(h), -1);
  EXPECT_NE(cap.Text().find("#>qo_VideoStreamStop():video stream state is error\n"),
            std::string::npos);
  qo_VideoStreamClose(h);
  std::string text = cap.Finish();
  EXPECT_NE(text.find("#>qo_VideoStreamClose():video stream state is error\n"), std::string::npos);
  EXPECT_EQ(text.find("spent time"), std::string::npos);
}

TEST(VideoInComposeTest, TypeDetectionRefusesWhatItCannotProbe) {
  struct Case {
    std::string uri;
    std::string line;
  };
  const std::string path63 = "/dev/" + std::string(58, 'v');
  const std::vector<Case> cases = {
      {"file:///tmp/clip.h264", "#>qo_VideoStreamType()warn: file:// is not support typefind!\n"},
      {"http://127.0.0.1/cam",
       "#>qo_VideoStreamType()error: url is not support typefind "
       "protocol!\n"},
      {"v4l2://" + path63 + "v",
       "#>qo_VideoStreamType()error: v4l2 device path is longer than 63 bytes!\n"},
      {"rtsp://127.0.0.1/" + std::string(420, 'r'),
       "#>qo_VideoStreamType()error: typefind string is longer than 511 bytes!\n"},
      // No such camera: the probe pipeline does not start.
      {kAbsentCamera, "$$$$>qo_VideoStreamType state changed is failure return:0...\n"},
      {"v4l2://" + path63, "$$$$>qo_VideoStreamType state changed is failure return:0...\n"},
  };
  for (const auto& c : cases) {
    StdoutCapture cap;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(qo_VideoStreamType(c.uri.c_str()), -1) << c.uri;
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5)) << c.uri;
    EXPECT_NE(cap.Finish().find(c.line), std::string::npos) << c.uri;
  }
  StdoutCapture cap;
  EXPECT_EQ(qo_VideoStreamType(nullptr), -1);
  EXPECT_NE(cap.Finish().find("#>qo_VideoStreamType()error:url is null!\n"), std::string::npos);
}

}  // namespace
}  // namespace videoin_test
}  // namespace qo
