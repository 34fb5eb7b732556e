// Live-stream layer without a network: the shared "Gstloop" thread, the
// lines a stream prints, and the launch strings and failures of cameras
// that are not there.
// Streams whose start fails stay allocated by design; the tests that make
// them come last, as they keep the main loop running.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "hal_mm_video_in.h"
#include "test_common.h"
#include "test_layer_capture.h"
#include "test_media.h"

namespace qo {
namespace {

namespace media = testmedia;
using testutil::LayerCapture;
using testutil::ThreadCount;
using Props = std::vector<std::pair<const char*, int>>;

// The stream id is the first byte of the record behind a handle.
int Id(qo_StrmHandle h) { return *static_cast<const uint8_t*>(h); }

// Each step of a stream's life and the lines it prints ("{id}" and
// "{path}" stand for the first stream's id and file); the bus watch prints
// from its own thread, so lines are waited for.
TEST(LiveStreamLifecycle, MainLoopComesAndGoesAndEachStepPrintsItsLines) {
  const std::string path = media::GenerateRawBytes(4096), uri = "file://" + path;
  ASSERT_EQ(ThreadCount("Gstloop"), 0);
  LayerCapture cap;
  qo_StrmHandle a = nullptr, b = nullptr;
  const std::string pl = "#########pl#{id} state change:old: ";
  const struct {
    std::function<void()> act;
    std::vector<std::string> lines;
    int loops = 1;  // "Gstloop" threads afterwards
  } steps[] = {
      {[&] { a = qo_VideoStreamOpen(uri.c_str()); }, {"------->task: running main loop!"}},
      {[&] { qo_VideoStreamCfg(a, "stream-type", QO_PIX_FMT_H265); },
       {"$>qo_VideoStreamCfg():set pipeline[{id}] property \"stream-type\"=32 success!\n"}},
      {[&] { EXPECT_EQ(qo_VideoStreamStart(a), 0); },
       {"$$$$>p#{id} full string=filesrc name=src location={path} ! h265parse ! "
        "video/x-h265,stream-format=byte-stream,alignment=(string) au ! appsink name=appsink "
        "async=false sync=false\n",
        pl + "NULL,current: READY,pending: PLAYING #########\n",
        pl + "PAUSED,current: PLAYING,pending: VOID_PENDING #########\n",
        "############# pl#{id} switch state[4] #############\n"}},
      {[&] { qo_VideoStreamCfg(a, "width", 640); },
       {"#>qo_VideoStreamCfg():warn,unable to set property \"width\"=640 to file pipeline!\n"}},
      {[&] { b = testutil::StartStream(uri.c_str(), QO_PIX_FMT_H264); },
       {"$>qo_VideoStreamInit():gst_init is already inited!\n"}},
      // The parser finds nothing in random bytes: its error is only
      // reported, and the end of the stream still arrives.
      {[&] {
         qo_StreamInfo info{};
         qo_VideoStreamGetFrame(a, &info, 5);
         EXPECT_TRUE(info.data == nullptr && info.eos == 1);
       },
       {"GStreamer ERROR: No valid frames found before end of stream",
        "$$$$>pl#{id} receive EOS msg!\n", "--------->video in recived eos from stream !!!!"}},
      {[&] { EXPECT_EQ(qo_VideoStreamStop(a), 0); },
       {"----->pl{id} spent time:0 ms or wait eos\n"}},
      // Close's own state changes may go unprinted: the bus watch goes with the stream.
      {[&] { qo_VideoStreamClose(a); }, {"#>qo_VideoStreamDeinit():warn ! 1 pipelines active!\n"}},
      {[&] { qo_VideoStreamClose(b); }, {"------->task: exit main loop!"}, 0},
      // A new loop and thread; GStreamer is not set up again.
      {[&] { qo_VideoStreamClose(testutil::StartStream(uri.c_str(), QO_PIX_FMT_H264)); }, {}, 0},
  };
  int id = -1;
  for (const auto& step : steps) {
    step.act();
    if (id < 0 && a != nullptr) id = Id(a);
    for (std::string line : step.lines) {
      for (auto [key, value] :
           {std::make_pair("{id}", std::to_string(id)), std::make_pair("{path}", path)})
        for (size_t at; (at = line.find(key)) != std::string::npos;)
          line.replace(at, strlen(key), value);
      EXPECT_TRUE(cap.WaitFor(line, 5000)) << line;
    }
    EXPECT_EQ(ThreadCount("Gstloop"), step.loops);
  }
  const std::string text = cap.Finish();
  for (const char* line : {"------->task: running main loop!", "------->task: exit main loop!",
                           "gst_init is already inited!"})
    EXPECT_EQ(testutil::CountOf(text, line), 2u) << line;
}

constexpr char kCamera[] = "v4l2:///dev/qo-absent-video0";

// A recording whose picture size changes midway (two encodings, one after
// the other): every frame reports the size it was coded at.
TEST(LiveStreamFrames, PictureSizeFollowsTheStream) {
  media::StreamParams big, small;
  big.frames = small.frames = 20;
  small.width = 176, small.height = 144;
  std::vector<uint8_t> bytes = media::ReadFile(media::GenerateStream(big));
  const std::vector<uint8_t> tail = media::ReadFile(media::GenerateStream(small));
  ASSERT_FALSE(bytes.empty() || tail.empty());
  bytes.insert(bytes.end(), tail.begin(), tail.end());
  const std::string uri = "file://" + testutil::WriteText(testutil::ScratchDir() + "/two.h264",
                                                          std::string(bytes.begin(), bytes.end()));
  qo_StrmHandle h = testutil::StartStream(uri.c_str(), QO_PIX_FMT_H264);
  std::vector<std::pair<int, int>> sizes;
  for (qo_StreamInfo info{}; qo_VideoStreamGetFrame(h, &info, 3), info.data != nullptr; info = {}) {
    if (sizes.empty() || sizes.back().first != info.width * 1000 + info.height)
      sizes.push_back({info.width * 1000 + info.height, 0});
    sizes.back().second++;
    qo_VideoStreamFrameFree(&info);
  }
  qo_VideoStreamStop(h);
  qo_VideoStreamClose(h);
  const std::vector<std::pair<int, int>> expected{{320240, 20}, {176144, 20}};
  EXPECT_EQ(sizes, expected);
}

// Opens, configures and starts; returns the launch string it printed.
std::string LaunchString(const std::string& uri, const Props& props,
                         std::string* printed = nullptr) {
  LayerCapture cap;
  qo_StrmHandle h = qo_VideoStreamOpen(uri.c_str());
  for (const auto& p : props) qo_VideoStreamCfg(h, p.first, p.second);
  qo_VideoStreamStart(h) == 0 ? qo_VideoStreamClose(h) : testutil::KeepStream(h);
  const std::string text = cap.Finish();
  if (printed != nullptr) *printed = text;
  const size_t at = text.find("full string=");
  return at == std::string::npos ? "" : text.substr(at + 12, text.find('\n', at) - at - 12);
}

std::string Camera(const std::string& controls, const std::string& caps) {
  return "v4l2src name=src device=/dev/qo-absent-video0 extra-controls=controls" + controls +
         " ! " + caps + " ! appsink name=appsink async=false sync=false";
}

TEST(LiveStreamCompose, CameraStringsCarryFormatSizeRateAndControls) {
  const std::string au = ",stream-format=byte-stream,alignment=(string) au";
  const std::pair<int, std::string> formats[] = {{QO_PIX_FMT_NV12, "NV12"},
                                                 {QO_PIX_FMT_YUV422_YUYV, "YUY2"},
                                                 {QO_PIX_FMT_H264, "h264parse ! video/x-h264" + au},
                                                 {QO_PIX_FMT_MJPEG, "image/jpeg"}};
  for (const auto& [type, stage] : formats) {
    std::string printed;  // no device: the start fails after the string was built
    const std::string caps = type < QO_PIX_FMT_H264 ? "video/x-raw,format=(string)" + stage : stage;
    const Props props = {{"stream-type", type}, {"width", 640}, {"height", 480}, {"framerate", 30}};
    EXPECT_EQ(LaunchString(kCamera, props, &printed),
              Camera("", caps + ",width=640,height=480,framerate=30/1"));
    EXPECT_EQ(testutil::CountOf(printed, "$$$$>pl set state changed is failure return:-1...\n"),
              1u);
  }
  const std::pair<Props, std::string> controls[] = {
      {{{"exposure", 100}}, ""},  // exposure alone does nothing
      {{{"exposure-auto", 3}}, ",exposure_auto=3"},
      {{{"exposure-auto", 1}, {"exposure", 0}, {"gain", 0}}, ",exposure_auto=1"},
      {{{"exposure-auto", 1}, {"exposure", 9}, {"gain", 8}}, ",exposure_auto=1,exposure=9,gain=8"},
      // Refused: the test pattern and the special mode never reach the string.
      {{{"test-pattern", 1}, {"mode", 1}, {"mode", 0}}, ""}};
  for (auto [props, expected] : controls) {
    props.push_back({"stream-type", QO_PIX_FMT_NV12});
    EXPECT_EQ(LaunchString(kCamera, props), Camera(expected, "video/x-raw,format=(string)NV12"));
  }
}

TEST(LiveStreamCompose, RefusesWhatItCannotBuildAndReportsLaterCalls) {
  const std::string file = "file://" + media::GenerateRawBytes(16);
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
      {'s',
       "rtsp://h/x",
       {{"stream-type", QO_PIX_FMT_NV12}},
       "#>ComposeRTSP():invalid or unsupport stream"},
      {'s',
       file,
       {{"stream-type", QO_PIX_FMT_JPEG}},
       "unsupport stream type 34 for file pipeline!\n"},
      {'s', file, {{"mode", 0}}, "warn,unable to set property \"mode\"=0 to file pipeline!\n"},
      {'o', "http://h/x", {}, "#>PipelineParamParse():current input url:http://h/x is no"},
      {'o', "file:///qo/a", {}, "#>PipelineParamParse():file /qo/a is not exist!\n"},
      {'o', url511 + "/", {}, "input url is too long (512 bytes, at most 511)!\n"},
      {'t', "file:///a.h264", {}, "#>qo_VideoStreamType()warn: file:// is not support typefind"},
      {'t', dev63 + "v", {}, "error: v4l2 device path is longer than 63 bytes!\n"},
      {'t', "rtsp://h/" + std::string(430, 'r'), {}, "error: typefind string is longer"},
      {'t', dev63, {}, "$$$$>qo_VideoStreamType state changed is failure return:0...\n"}};
  for (const auto& c : cases) {
    std::string text;
    bool refused = true;
    if (c.op == 's') {
      LaunchString(c.uri, c.props, &text);
    } else {
      LayerCapture cap;
      if (c.op == 'o')
        refused = qo_VideoStreamOpen(c.uri.c_str()) == nullptr &&
                  cap.Has("#>qo_VideoStreamOpen():input url is error!\n");
      if (c.op == 't') refused = qo_VideoStreamType(c.uri.c_str()) == -1;
      text = cap.Finish();
    }
    EXPECT_TRUE(refused && text.find(c.line) != std::string::npos) << c.line;
  }
  // One byte less fits, whole.
  EXPECT_EQ(LaunchString(url511, {{"stream-type", QO_PIX_FMT_H264}}).find(url511 + " ! "), 29u);

  LayerCapture cap;
  qo_StrmHandle h = qo_VideoStreamOpen(kCamera);
  qo_StreamInfo info{};
  qo_VideoStreamGetFrame(h, &info, 1);  // before start: nothing to pull from
  EXPECT_EQ(info.eos, 1);
  qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_YUV422_YUYV);
  EXPECT_EQ(qo_VideoStreamStart(h), -1);
  EXPECT_TRUE(cap.WaitFor("GStreamer ERROR: ", 10000));  // reported by the bus watch
  qo_VideoStreamCfg(h, "width", 320);                    // still allowed after a failed start
  EXPECT_EQ(qo_VideoStreamStop(h), -1);
  qo_VideoStreamClose(h);  // never played: the record stays
  testutil::KeepStream(h);
  for (const char* line :
       {"#>qo_VideoStreamGetFrame():video stream state is error\n",
        "property \"width\"=320 success!\n", "#>qo_VideoStreamStop():video stream state is error\n",
        "#>qo_VideoStreamClose():video stream state is error\n"})
    EXPECT_TRUE(cap.Has(line)) << line;
}

}  // namespace
}  // namespace qo
