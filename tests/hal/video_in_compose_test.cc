// Live-stream layer: launch strings (read from the "full string" line every
// start prints), refused properties and URLs, type detection refusals, and a
// camera that is not there. Streams whose start fails stay allocated by
// design: they are parked, and this binary never expects the loop to stop.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "test_media.h"
#include "video_in_test_util.h"

namespace qo {
namespace videoin_test {
namespace {

constexpr char kCamera[] = "v4l2:///dev/qo-absent-video0";
constexpr char kSink[] = " ! appsink name=appsink async=false sync=false";
using Props = std::vector<std::pair<const char*, int>>;

// Opens, configures and starts; returns everything printed.
std::string StartWith(const std::string& uri, const Props& props) {
  StdoutCapture cap;
  qo_StrmHandle h = qo_VideoStreamOpen(uri.c_str());
  for (const auto& p : props) qo_VideoStreamCfg(h, p.first, p.second);
  qo_VideoStreamStart(h) == 0 ? qo_VideoStreamClose(h) : Park(h);
  return cap.Finish();
}

std::string FullString(const std::string& printed) {
  std::smatch m;
  return std::regex_search(printed, m, std::regex("full string=(.*)\n")) ? m[1].str() : "";
}

std::string Camera(const std::string& controls, const std::string& caps) {
  return "v4l2src name=src device=/dev/qo-absent-video0 extra-controls=controls" + controls +
         " ! " + caps + kSink;
}

TEST(VideoInComposeTest, CameraStringsCarryFormatSizeRateAndControls) {
  const std::string au = ",stream-format=byte-stream,alignment=(string) au";
  const std::vector<std::pair<int, std::string>> formats = {{0, "NV12"},
                                                            {1, "NV21"},
                                                            {3, "YUY2"},
                                                            {4, "UYVY"},
                                                            {9, "NV16"},
                                                            {10, "I420"},
                                                            {31, "h264parse ! video/x-h264" + au},
                                                            {32, "h265parse ! video/x-h265" + au},
                                                            {33, "image/jpeg"}};
  for (const auto& f : formats) {
    const std::string out = StartWith(
        kCamera, {{"stream-type", f.first}, {"width", 640}, {"height", 480}, {"framerate", 30}});
    const std::string caps = f.first < 31 ? "video/x-raw,format=(string)" + f.second : f.second;
    EXPECT_EQ(FullString(out), Camera("", caps + ",width=640,height=480,framerate=30/1"));
    // No device: the start fails after the string was built.
    EXPECT_NE(out.find("$$$$>pl set state changed is failure return:-1...\n"), std::string::npos);
  }
  const std::vector<std::pair<Props, std::string>> controls = {
      {{{"exposure", 100}}, ""},  // exposure alone does nothing
      {{{"exposure-auto", 3}}, ",exposure_auto=3"},
      {{{"exposure-auto", 1}, {"exposure", 0}, {"gain", 0}}, ",exposure_auto=1"},
      {{{"exposure-auto", 1}, {"exposure", 9}, {"gain", 8}}, ",exposure_auto=1,exposure=9,gain=8"},
      // Refused: the test pattern and the special mode never reach the string.
      {{{"test-pattern", 1}, {"mode", 1}, {"mode", 0}}, ""}};
  for (auto c : controls) {
    c.first.push_back({"stream-type", 0});
    EXPECT_EQ(FullString(StartWith(kCamera, c.first)),
              Camera(c.second, "video/x-raw,format=(string)NV12"));
  }
}

TEST(VideoInComposeTest, RefusesWhatItCannotBuildAndReportsLaterCalls) {
  const std::string file = "file://" + qo::testmedia::GenerateRawBytes(16);
  const std::string url511 = "rtsp://127.0.0.1/" + std::string(494, 'a');
  const std::string dev63 = "v4l2:///dev/" + std::string(58, 'v');
  // 's': start with props, 'o': open, 't': type detection.
  const struct {
    char op;
    std::string uri;
    Props props;
    std::string line;
  } cases[] = {
      {'s', kCamera, {{"stream-type", 2}}, "#>ComposeV4L2():invalid or unsupport stream type 2"},
      {'s', "rtsp://h/x", {{"stream-type", 0}}, "#>ComposeRTSP():invalid or unsupport stream"},
      {'s', file, {{"stream-type", 34}}, "unsupport stream type 34 for file pipeline!\n"},
      {'s', file, {{"mode", 0}}, "warn,unable to set property \"mode\"=0 to file pipeline!\n"},
      {'o', "http://h/x", {}, "#>PipelineParamParse():current input url:http://h/x is no"},
      {'o', "file:///qo/a", {}, "#>PipelineParamParse():file /qo/a is not exist!\n"},
      {'o', url511 + "/", {}, "input url is too long (512 bytes, at most 511)!\n"},
      {'t', "file:///a.h264", {}, "#>qo_VideoStreamType()warn: file:// is not support typefind"},
      {'t', dev63 + "v", {}, "error: v4l2 device path is longer than 63 bytes!\n"},
      {'t', "rtsp://h/" + std::string(430, 'r'), {}, "error: typefind string is longer"},
      {'t', dev63, {}, "$$$$>qo_VideoStreamType state changed is failure return:0...\n"}};
  for (const auto& c : cases) {
    StdoutCapture cap;
    bool refused = true;
    if (c.op == 's') StartWith(c.uri, c.props);
    if (c.op == 'o')
      refused = qo_VideoStreamOpen(c.uri.c_str()) == nullptr &&
                cap.Has("#>qo_VideoStreamOpen():input url is error!\n");
    if (c.op == 't') refused = qo_VideoStreamType(c.uri.c_str()) == -1;
    EXPECT_TRUE(refused && cap.Has(c.line)) << c.line;
  }
  // One byte less fits, whole.
  EXPECT_EQ(FullString(StartWith(url511, {{"stream-type", 31}})).find(url511 + " ! "), 29u);

  StdoutCapture cap;
  qo_StrmHandle h = qo_VideoStreamOpen(kCamera);
  Park(h);
  qo_StreamInfo info{};
  qo_VideoStreamGetFrame(h, &info, 1);  // before start: nothing to pull from
  EXPECT_EQ(info.eos, 1);
  qo_VideoStreamCfg(h, "stream-type", 3);
  EXPECT_EQ(qo_VideoStreamStart(h), -1);
  EXPECT_TRUE(cap.WaitFor("GStreamer ERROR: "));  // reported by the bus watch
  qo_VideoStreamCfg(h, "width", 320);             // still allowed after a failed start
  EXPECT_EQ(qo_VideoStreamStop(h), -1);
  qo_VideoStreamClose(h);
  for (const char* line :
       {"#>qo_VideoStreamGetFrame():video stream state is error\n",
        "property \"width\"=320 success!\n", "#>qo_VideoStreamStop():video stream state is error\n",
        "#>qo_VideoStreamClose():video stream state is error\n"})
    EXPECT_TRUE(cap.Has(line)) << line;
}

}  // namespace
}  // namespace videoin_test
}  // namespace qo
