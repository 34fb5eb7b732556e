// live555src against the loopback RTSP server: what reaches an appsink for
// each codec and transport, the sender's wall-clock time, stream typing,
// file replays and credentials.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "live555src_test_util.h"
#include "test_media.h"
#include "test_rtsp_server.h"

namespace qo {
namespace test {
namespace {

struct CodecCase {
  const char* mount;
  const char* stage;  // what the live-stream layer puts after the source
  const char* caps_prefix;
};

const CodecCase kH264 = {"h264",
                         "h264parse ! video/x-h264,stream-format=byte-stream,alignment=(string) au",
                         "video/x-h264"};
const CodecCase kH265 = {"h265",
                         "h265parse ! video/x-h265,stream-format=byte-stream,alignment=(string) au",
                         "video/x-h265"};
const CodecCase kMjpeg = {"mjpeg", "image/jpeg", "image/jpeg"};

std::string Launch(const std::string& url, const CodecCase& c, int protocols) {
  return "live555src name=src location=" + url + " protocols=" + std::to_string(protocols) + " ! " +
         c.stage + " ! appsink name=sink async=false sync=false";
}

// Elements of the given factory anywhere inside `bin`.
int CountInside(GstElement* bin, const char* factory) {
  int n = 0;
  GstIterator* it = gst_bin_iterate_recurse(GST_BIN(bin));
  GValue v = G_VALUE_INIT;
  while (gst_iterator_next(it, &v) == GST_ITERATOR_OK) {
    GstElement* e = GST_ELEMENT(g_value_get_object(&v));
    GstElementFactory* f = gst_element_get_factory(e);
    if (f && g_strcmp0(GST_OBJECT_NAME(f), factory) == 0) ++n;
    g_value_reset(&v);
  }
  g_value_unset(&v);
  gst_iterator_free(it);
  return n;
}

class Live555SrcStreamTest : public ::testing::TestWithParam<std::tuple<CodecCase, int>> {
 protected:
  static void SetUpTestSuite() {
    InitGstWithLive555Src();
    server_ = new TestRtspServer();
    ASSERT_TRUE(server_->Start()) << server_->error();
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  static TestRtspServer* server_;
};
TestRtspServer* Live555SrcStreamTest::server_ = nullptr;

// Frames with the right caps; the state change never goes asynchronous; the
// transport is the one asked for; sender time arrives with the first RTCP
// report, stays on every later frame and matches our own wall clock.
TEST_P(Live555SrcStreamTest, DeliversFramesWithSenderWallClock) {
  const CodecCase& c = std::get<0>(GetParam());
  const int protocols = std::get<1>(GetParam());
  Receiver rx(Launch(server_->Url(c.mount), c, protocols));
  ASSERT_TRUE(rx.ok()) << rx.parse_error();
  g_object_set(rx.src(), "max-bytes", 5 * 1024 * 1024, nullptr);

  GstStateChangeReturn ret = rx.SetState(GST_STATE_PLAYING);
  EXPECT_TRUE(ret == GST_STATE_CHANGE_SUCCESS || ret == GST_STATE_CHANGE_NO_PREROLL) << ret;
  ASSERT_TRUE(rx.WaitSamples(60, 10000)) << "frames: " << rx.samples().size();

  auto samples = rx.samples();
  for (const auto& s : samples) {
    EXPECT_EQ(s.caps.rfind(c.caps_prefix, 0), 0u) << s.caps;
    EXPECT_GT(s.size, 0u);
    EXPECT_FALSE(s.has_other_ts) << "NTP-epoch meta left on the buffer";
  }
  auto first = std::find_if(samples.begin(), samples.end(),
                            [](const ReceivedSample& s) { return s.has_unix_ts; });
  ASSERT_NE(first, samples.end()) << "no sender time within " << samples.size() << " frames";
  std::vector<int64_t> late_diffs;
  for (auto it = first; it != samples.end(); ++it) {
    ASSERT_TRUE(it->has_unix_ts) << "frame " << (it - samples.begin()) << " lost its sender time";
    int64_t diff = it->arrival - it->unix_ts;
    EXPECT_LT(std::llabs(diff), 1000 * GST_MSECOND) << "sender time far off the wall clock";
    // The first report's mapping is coarse; judge once later ones arrived.
    if (it->arrival - first->arrival > 700 * GST_MSECOND) late_diffs.push_back(std::llabs(diff));
  }
  if (!late_diffs.empty()) {
    std::sort(late_diffs.begin(), late_diffs.end());
    EXPECT_LT(late_diffs[late_diffs.size() / 2], 50 * GST_MSECOND);
  }

  int udp_sources = CountInside(rx.src(), "udpsrc");
  if (protocols == 4) {
    EXPECT_EQ(udp_sources, 0) << "TCP asked for, but UDP sockets were set up";
  } else {
    ASSERT_GT(udp_sources, 0);
    // The RTP socket's receive buffer is the one sized by "max-bytes".
    bool sized = false;
    GstIterator* it = gst_bin_iterate_recurse(GST_BIN(rx.src()));
    GValue v = G_VALUE_INIT;
    while (gst_iterator_next(it, &v) == GST_ITERATOR_OK) {
      GstElement* e = GST_ELEMENT(g_value_get_object(&v));
      GstElementFactory* f = gst_element_get_factory(e);
      if (f && g_strcmp0(GST_OBJECT_NAME(f), "udpsrc") == 0) {
        int size = 0;
        g_object_get(e, "buffer-size", &size, nullptr);
        sized |= size == 5 * 1024 * 1024;
      }
      g_value_reset(&v);
    }
    g_value_unset(&v);
    gst_iterator_free(it);
    EXPECT_TRUE(sized) << "max-bytes not applied to the UDP receive buffer";
  }
}

INSTANTIATE_TEST_SUITE_P(CodecsAndTransports, Live555SrcStreamTest,
                         ::testing::Combine(::testing::Values(kH264, kH265, kMjpeg),
                                            ::testing::Values(1, 4)),
                         [](const auto& p) {
                           return std::string(std::get<0>(p.param).mount) +
                                  (std::get<1>(p.param) == 4 ? "_tcp" : "_udp");
                         });

// The detection pipeline of the live-stream layer: the source links to
// typefind at parse time and the found type names the codec.
TEST(Live555SrcTypefindTest, ReportsTheServedCodec) {
  InitGstWithLive555Src();
  TestRtspServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  for (const CodecCase* c : {&kH264, &kH265, &kMjpeg}) {
    std::string launch = "live555src name=src location=" + server.Url(c->mount) +
                         " ! typefind name=type ! fakesink async=false sync=false";
    GError* err = nullptr;
    GstElement* pipeline = gst_parse_launch(launch.c_str(), &err);
    ASSERT_EQ(err, nullptr) << err->message;
    GstElement* type = gst_bin_get_by_name(GST_BIN(pipeline), "type");
    struct Found {
      std::mutex mu;
      std::condition_variable cv;
      std::string caps;
    } found;
    g_signal_connect(type, "have-type",
                     G_CALLBACK(+[](GstElement*, guint, GstCaps* caps, Found* f) {
                       gchar* s = gst_caps_to_string(caps);
                       std::lock_guard<std::mutex> lock(f->mu);
                       f->caps = s;
                       g_free(s);
                       f->cv.notify_all();
                     }),
                     &found);
    GstStateChangeReturn ret = gst_element_set_state(pipeline, GST_STATE_PLAYING);
    EXPECT_TRUE(ret == GST_STATE_CHANGE_SUCCESS || ret == GST_STATE_CHANGE_NO_PREROLL) << ret;
    {
      std::unique_lock<std::mutex> lock(found.mu);
      found.cv.wait_for(lock, std::chrono::seconds(10), [&] { return !found.caps.empty(); });
      EXPECT_EQ(found.caps.rfind(c->caps_prefix, 0), 0u) << c->mount << ": " << found.caps;
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(type);
    gst_object_unref(pipeline);
  }
}

// Looped elementary-stream files from the server reach the appsink, also
// across the end of the file.
TEST(Live555SrcFileReplayTest, ReplaysFilesInALoop) {
  InitGstWithLive555Src();
  struct {
    testmedia::Codec codec;
    const char* name;
    CodecCase c;
  } cases[] = {{testmedia::Codec::kH264, "h264", kH264},
               {testmedia::Codec::kH265, "h265", kH265},
               {testmedia::Codec::kMjpeg, "mjpeg", kMjpeg}};
  TestRtspServer::Options opts;
  for (const auto& k : cases) {
    testmedia::StreamParams p;
    p.codec = k.codec;
    p.frames = 10;  // ~0.3 s at 30 fps: the run below crosses the loop point
    p.key_int = 5;
    std::string path = testmedia::GenerateStream(p);
    ASSERT_FALSE(path.empty());
    opts.streams.push_back(std::string("clip-") + k.name + "=" + k.name + ",fps=30,file=" + path);
  }
  TestRtspServer server(opts);
  ASSERT_TRUE(server.Start()) << server.error();
  for (const auto& k : cases) {
    Receiver rx(Launch(server.Url(std::string("clip-") + k.name), k.c, 4));
    ASSERT_TRUE(rx.ok()) << rx.parse_error();
    rx.SetState(GST_STATE_PLAYING);
    EXPECT_TRUE(rx.WaitSamples(25, 10000)) << k.name << ": " << rx.samples().size() << " frames";
    for (const auto& s : rx.samples()) EXPECT_EQ(s.caps.rfind(k.c.caps_prefix, 0), 0u) << s.caps;
  }
}

// Credentials given in the URL satisfy a server that requires them; without
// them the server refuses: the error reaches the bus without reconnection,
// and is the reason of each lost attempt with it.
TEST(Live555SrcAuthTest, CredentialsInTheUrl) {
  InitGstWithLive555Src();
  TestRtspServer::Options opts;
  opts.streams = {"h264=h264"};
  opts.user = "viewer";
  opts.password = "s3cret";
  TestRtspServer server(opts);
  ASSERT_TRUE(server.Start()) << server.error();
  {
    Receiver rx(Launch(server.UrlWithCredentials("h264", "viewer", "s3cret"), kH264, 4));
    ASSERT_TRUE(rx.ok());
    rx.SetState(GST_STATE_PLAYING);
    EXPECT_TRUE(rx.WaitSamples(5, 10000));
  }
  {
    Receiver rx(Launch(server.Url("h264") + " reconnect=false", kH264, 4));
    ASSERT_TRUE(rx.ok());
    rx.SetState(GST_STATE_PLAYING);
    EXPECT_NE(rx.WaitError(10000), "");
    EXPECT_EQ(rx.samples().size(), 0u);
  }
  {
    Receiver rx(Launch(server.Url("h264"), kH264, 4));
    ASSERT_TRUE(rx.ok());
    rx.SetState(GST_STATE_PLAYING);
    int lost = rx.WaitState("lost", 10000);
    ASSERT_GE(lost, 0);
    EXPECT_FALSE(rx.states()[lost].reason.empty());
    EXPECT_GE(rx.WaitState("lost", 10000, lost + 1), 0) << "refused again after a retry";
    EXPECT_EQ(rx.WaitError(0), "");
    EXPECT_EQ(rx.samples().size(), 0u);
  }
}

}  // namespace
}  // namespace test
}  // namespace qo
