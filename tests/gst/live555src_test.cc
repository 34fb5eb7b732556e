// live555src in real pipelines against qo-rtsp-server on 127.0.0.1: each codec
// over each transport, terse descriptions, refusals, credentials, "eos",
// reconnection and silence; and its registration next to the plugin module.
// Recovery from each kind of server fault at the layer and the node is
// tests/reliability/rtsp_fault_test.cc's; packet loss ("recover-at-key",
// "gaps") is met through the live-stream layer in its RTSP tests.
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gstlive555src.h"
#include "test_common.h"
#include "test_rtsp_server.h"

namespace qo {
namespace test {
namespace {

constexpr int64_t kPromptMs = 1000 + testutil::kSlackMs;
const char kH264[] = "h264parse ! video/x-h264,stream-format=byte-stream,alignment=(string) au";
using testutil::MonotonicMs;

struct Sample {
  std::string caps;
  bool delta = false, other_ts = false;
  int64_t sender_ns = -1, arrival_ns = 0;  // wall clock; -1: no sender time
};
struct State {  // one "live555src-state" element message
  std::string state, reason, reason_code;
  unsigned attempt = 0, delay_ms = 0;
  int64_t at_ms = 0;
  size_t samples_before = 0;  // samples taken when the message was
};

// "live555src name=src <props> ! <stage> ! appsink". The test's thread pulls
// the samples (noting when each arrived) and the bus messages as they come.
class Receiver {
 public:
  explicit Receiver(const std::string& props, const std::string& stage = kH264)
      : pipeline_(gst_parse_launch(("live555src name=src " + props + " ! " + stage +
                                    " ! appsink name=sink async=false sync=false")
                                       .c_str(),
                                   nullptr)),
        src(gst_bin_get_by_name(GST_BIN(pipeline_), "src")),
        sink(GST_APP_SINK(gst_bin_get_by_name(GST_BIN(pipeline_), "sink"))),
        bus_(gst_element_get_bus(pipeline_)) {}
  ~Receiver() {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    for (GstElement* e : {src, GST_ELEMENT(sink), pipeline_}) gst_object_unref(e);
    gst_object_unref(bus_);
  }
  GstStateChangeReturn Set(GstState state) { return gst_element_set_state(pipeline_, state); }
  // NULL must be prompt whatever the connection is doing.
  void ExpectPromptNull() {
    const int64_t t0 = MonotonicMs();
    EXPECT_EQ(Set(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_LT(MonotonicMs() - t0, kPromptMs) << "NULL took too long";
  }
  // "eos" must bring end-of-stream to the appsink at once.
  void ExpectPromptEos() {
    const int64_t t0 = MonotonicMs();
    g_object_set(src, "eos", TRUE, nullptr);
    EXPECT_TRUE(WaitEos(1000));
    EXPECT_LT(MonotonicMs() - t0, 500);
  }
  // Takes what comes for up to `ms`, until `done` holds.
  template <typename F>
  bool Run(int ms, F done) {
    for (const int64_t end = MonotonicMs() + ms; !done();) {
      if (MonotonicMs() >= end) return false;
      if (GstSample* s = gst_app_sink_try_pull_sample(sink, 5 * GST_MSECOND)) Record(s);
      while (GstMessage* m = gst_bus_pop(bus_)) Record(m);
    }
    return true;
  }
  bool WaitSamples(size_t n, int ms) {
    return Run(ms, [&] { return samples.size() >= n; });
  }
  bool WaitEos(int ms) {
    return Run(ms, [&] { return gst_app_sink_is_eos(sink); });
  }
  // Index of the first message `state` at or after `from`, or -1.
  int WaitState(const std::string& state, int ms, size_t from = 0) {
    size_t i = from;
    Run(ms, [&] {
      while (i < states.size() && states[i].state != state) ++i;
      return i < states.size();
    });
    return i < states.size() ? static_cast<int>(i) : -1;
  }

  std::vector<Sample> samples;
  std::vector<State> states;
  size_t errors = 0;
  GstElement* pipeline_;
  GstElement* src;
  GstAppSink* sink;

 private:
  void Record(GstSample* sample) {
    Sample r;
    r.arrival_ns = testutil::RealtimeNs();
    gchar* caps = gst_caps_to_string(gst_sample_get_caps(sample));
    r.caps = caps;
    g_free(caps);
    GstBuffer* buf = gst_sample_get_buffer(sample);
    r.delta = GST_BUFFER_FLAG_IS_SET(buf, GST_BUFFER_FLAG_DELTA_UNIT);
    static GstCaps* const kUnix = gst_caps_new_empty_simple("timestamp/x-unix");
    GstReferenceTimestampMeta* meta = gst_buffer_get_reference_timestamp_meta(buf, kUnix);
    if (meta) r.sender_ns = static_cast<int64_t>(meta->timestamp);
    r.other_ts = gst_buffer_get_n_meta(buf, GST_REFERENCE_TIMESTAMP_META_API_TYPE) > (meta ? 1 : 0);
    gst_sample_unref(sample);
    samples.push_back(r);
  }
  void Record(GstMessage* m) {
    const GstStructure* s = gst_message_get_structure(m);
    errors += GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR ? 1 : 0;
    if (GST_MESSAGE_TYPE(m) == GST_MESSAGE_ELEMENT &&
        gst_structure_has_name(s, "live555src-state")) {
      State st;
      st.state = gst_structure_get_string(s, "state");
      st.at_ms = MonotonicMs();
      st.samples_before = samples.size();
      if (const char* v = gst_structure_get_string(s, "reason")) st.reason = v;
      if (const char* v = gst_structure_get_string(s, "reason-code")) st.reason_code = v;
      gst_structure_get_uint(s, "attempt", &st.attempt);
      gst_structure_get_uint(s, "delay-ms", &st.delay_ms);
      states.push_back(st);
    }
    gst_message_unref(m);
  }
  GstBus* bus_;
};

class Live555SrcTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    gst_init(nullptr, nullptr);
    qo_live555src_register_static();
  }
  // An H.264 server and the source's properties to reach it over TCP.
  std::string Serve(const std::string& extra_props) {
    EXPECT_TRUE(server_.Start()) << server_.error();
    return "protocols=4 location=" + server_.Url("h264") + " " + extra_props;
  }
  TestRtspServer server_{{{"h264=h264,key-int=15"}, "", ""}};
};

// Frames with the codec's caps without an asynchronous state change, over
// the transport asked for; the sender's wall-clock time comes with the first
// RTCP report and stays on every later frame; a receiver that joins the
// running stream starts at a key frame. Running elements share one watch
// thread, which ends with the last of them.
TEST_F(Live555SrcTest, EachCodecOverEachTransport) {
  TestRtspServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  const struct {
    const char *mount, *stage, *caps;
  } codecs[] = {{"h264", kH264, "video/x-h264"},
                {"h265", "h265parse ! video/x-h265,stream-format=byte-stream,alignment=(string) au",
                 "video/x-h265"},
                {"mjpeg", "image/jpeg", "image/jpeg"}};
  for (const auto& c : codecs) {
    for (int protocols : {1, 4}) {
      SCOPED_TRACE(std::string(c.mount) + (protocols == 4 ? " over TCP" : " over UDP"));
      const std::string props = "max-bytes=5242880 protocols=" + std::to_string(protocols) +
                                " location=" + server.Url(c.mount);
      Receiver rx(props, c.stage);
      GstStateChangeReturn ret = rx.Set(GST_STATE_PLAYING);
      EXPECT_TRUE(ret == GST_STATE_CHANGE_SUCCESS || ret == GST_STATE_CHANGE_NO_PREROLL) << ret;
      ASSERT_TRUE(rx.WaitSamples(60, 10000));
      Receiver late(props, c.stage);
      late.Set(GST_STATE_PLAYING);
      ASSERT_TRUE(late.WaitSamples(3, 10000));
      EXPECT_FALSE(late.samples.front().delta) << "joined on a delta unit";
      EXPECT_EQ(testutil::ThreadCount("live555src"), 1);
      if (protocols == 4) {  // interleaved in TCP: nothing can go missing
        guint64 gaps = 1;
        g_object_get(rx.src, "gaps", &gaps, nullptr);
        EXPECT_EQ(gaps, 0u) << "a connection's first unit or a lossless stream counted as a gap";
      }

      const Sample* first = nullptr;
      size_t judged = 0, close = 0;
      for (const Sample& r : rx.samples) {
        EXPECT_EQ(r.caps.rfind(c.caps, 0), 0u) << r.caps;
        EXPECT_FALSE(r.other_ts) << "NTP-epoch meta left on the buffer";
        if (!first && r.sender_ns < 0) continue;
        first = first ? first : &r;
        ASSERT_GE(r.sender_ns, 0) << "a frame lost its sender time";
        const int64_t diff = std::llabs(r.arrival_ns - r.sender_ns);
        EXPECT_LT(diff, 1000 * GST_MSECOND) << "sender time far off the wall clock";
        // The first report's mapping is coarse: judge once later ones arrived.
        if (r.arrival_ns - first->arrival_ns > 700 * GST_MSECOND) ++judged, close += diff < 50e6;
      }
      ASSERT_NE(first, nullptr) << "no sender time";
      EXPECT_GE(close * 2, judged) << "sender time mostly off by 50 ms or more";
      // UDP: the RTP socket's receive buffer is the one "max-bytes" sizes.
      int udp = 0, sized = 0;
      GstIterator* it = gst_bin_iterate_all_by_element_factory_name(GST_BIN(rx.src), "udpsrc");
      for (GValue v = G_VALUE_INIT; gst_iterator_next(it, &v) == GST_ITERATOR_OK;
           g_value_unset(&v)) {
        int size = 0;
        g_object_get(g_value_get_object(&v), "buffer-size", &size, nullptr);
        ++udp, sized += size == 5 << 20;
      }
      gst_iterator_free(it);
      EXPECT_EQ(udp == 0, protocols == 4) << "UDP sockets: " << udp;
      EXPECT_EQ(sized > 0, protocols == 1) << "max-bytes not on the RTP socket";
    }
  }
  EXPECT_EQ(testutil::ThreadCount("live555src"), 0);
}

// Everything the element logs in its own debug category, at every level.
struct DebugLines {
  DebugLines() {
    gst_debug_set_active(TRUE);
    gst_debug_set_threshold_for_name("live555src", GST_LEVEL_MEMDUMP);
    gst_debug_add_log_function(&DebugLines::Log, this, nullptr);
  }
  ~DebugLines() {
    gst_debug_remove_log_function(&DebugLines::Log);
    gst_debug_set_threshold_for_name("live555src", GST_LEVEL_NONE);
  }
  static void Log(GstDebugCategory* category, GstDebugLevel, const gchar*, const gchar*, gint,
                  GObject*, GstDebugMessage* message, gpointer self) {
    if (g_strcmp0(gst_debug_category_get_name(category), "live555src") != 0) return;
    auto* d = static_cast<DebugLines*>(self);
    std::lock_guard<std::mutex> lock(d->mu);
    (d->text += gst_debug_message_get(message)) += '\n';
  }
  std::mutex mu;
  std::string text;
};

// Servers as cameras are: a JPEG stream announced without a=rtpmap plays;
// refusals that a retry meets again (401, 404, 461) say why and are retried
// at the longest delay only, and "eos" ends the stream at once meanwhile.
// No password in any of the element's debug lines.
TEST_F(Live555SrcTest, TerseDescriptionsPlayAndRefusalsSayWhy) {
  DebugLines debug;
  TestRtspServer server({{"mjpeg=mjpeg,terse-sdp", "udp=h264,udp-only"}, "", ""});
  ASSERT_TRUE(server.Start()) << server.error();
  TestRtspServer locked({{"h264=h264"}, "user", "secret"});
  ASSERT_TRUE(locked.Start()) << locked.error();
  {
    Receiver rx("protocols=1 location=" + server.Url("mjpeg"), "image/jpeg");
    rx.Set(GST_STATE_PLAYING);
    ASSERT_TRUE(rx.WaitSamples(10, 10000)) << "terse JPEG stream did not play";
    EXPECT_EQ(rx.samples.front().caps.rfind("image/jpeg", 0), 0u);
  }
  const struct {
    std::string location, code, text;
  } refusals[] = {
      {server.Url("udp"), "unsupported-transport", "461"},
      {server.Url("nothing-here"), "not-found", "404"},
      {locked.Url("h264"), "unauthorized", "401"},
      {locked.UrlWithCredentials("h264", "user", "wr0ngpw"), "unauthorized", "401"},
  };
  for (const auto& r : refusals) {
    SCOPED_TRACE(r.code + " " + r.location);
    Receiver rx("protocols=4 retry-delay-min=50 retry-delay-max=900 location=" + r.location);
    rx.Set(GST_STATE_PLAYING);
    const int lost = rx.WaitState("lost", 2000);
    ASSERT_GE(lost, 0) << "no loss reported within 2 s";
    EXPECT_EQ(rx.states[lost].reason_code, r.code);
    EXPECT_NE(rx.states[lost].reason.find(r.text), std::string::npos) << rx.states[lost].reason;
    EXPECT_EQ(rx.states[lost].reason.find("wr0ngpw"), std::string::npos);
    const int retry = rx.WaitState("retrying", 2000, lost);
    ASSERT_GE(retry, 0);
    EXPECT_EQ(rx.states[retry].delay_ms, 900u);
    EXPECT_EQ(rx.states[retry].reason_code, r.code);
    rx.ExpectPromptEos();
    rx.ExpectPromptNull();
  }
  {  // the right password plays
    Receiver rx("protocols=4 location=" + locked.UrlWithCredentials("h264", "user", "secret"));
    rx.Set(GST_STATE_PLAYING);
    ASSERT_TRUE(rx.WaitSamples(5, 10000));
  }
  std::lock_guard<std::mutex> lock(debug.mu);
  const std::string& text = debug.text;
  EXPECT_NE(text.find("connection"), std::string::npos) << "no debug lines captured";
  EXPECT_EQ(text.find("secret"), std::string::npos);
  EXPECT_EQ(text.find("wr0ngpw"), std::string::npos);
}

// "eos" before PLAYING ends the stream at once and a new run from READY
// streams again. A server that refuses for 2.5 s: "lost", then "retrying"
// with delays that double within their jitter and bounds, "connecting",
// and frames on the same pad from a key frame on; no error, no end. "eos"
// while retrying ends the stream at once and no attempt follows.
TEST_F(Live555SrcTest, EosAndReconnectionWithBackoff) {
  Receiver rx(Serve("retry-delay-min=50 retry-delay-max=400"));
  g_object_set(rx.src, "eos", TRUE, nullptr);
  rx.Set(GST_STATE_PLAYING);
  EXPECT_TRUE(rx.WaitEos(1000));
  EXPECT_FALSE(rx.WaitSamples(1, 300));
  rx.Set(GST_STATE_READY);
  gst_element_set_state(GST_ELEMENT(rx.sink), GST_STATE_NULL);  // appsink's end is kept until then
  GstPad* pad = gst_element_get_static_pad(rx.src, "src");
  rx.Set(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(10, 10000)) << "no frames in the second run";

  const size_t before = rx.samples.size(), from = rx.states.size();
  ASSERT_TRUE(server_.Refuse() && server_.Drop());
  rx.Run(2500, [] { return false; });
  ASSERT_TRUE(server_.Accept()) << server_.error();
  const int back = rx.WaitState("streaming", 15000, from);
  ASSERT_GT(back, 0);
  ASSERT_TRUE(rx.WaitSamples(before + 15, 15000));
  const auto& states = rx.states;
  const int lost = rx.WaitState("lost", 0, from);
  ASSERT_GE(lost, 0);
  EXPECT_FALSE(states[lost].reason.empty());
  EXPECT_EQ(states[lost + 1].state, "retrying");
  EXPECT_EQ(states[back - 1].state, "connecting");
  unsigned retries = 0;
  for (int i = lost; i < back; ++i) {
    if (states[i].state != "retrying") continue;
    EXPECT_EQ(states[i].attempt, ++retries);
    const unsigned step = std::min(50u << std::min(states[i].attempt - 1, 4u), 400u);
    EXPECT_GE(states[i].delay_ms, std::max(50u, step / 2)) << "attempt " << retries;
    EXPECT_LE(states[i].delay_ms, step) << "attempt " << retries;
  }
  // Five attempts or more on an idle machine; each builds a new RTSP client,
  // and a loaded or sanitised run gets through fewer.
  EXPECT_GE(retries, 2u);
  // The lost connection's data is dropped while retrying, so the first
  // frame taken after the successful attempt began is the new one's first.
  const size_t first = states[back - 1].samples_before;
  ASSERT_LT(first, rx.samples.size());
  EXPECT_FALSE(rx.samples[first].delta) << "resumed on a delta unit";
  GstPad* now = gst_element_get_static_pad(rx.src, "src");
  EXPECT_EQ(now, pad) << "the source pad was replaced";
  gst_object_unref(now);
  gst_object_unref(pad);
  EXPECT_EQ(rx.errors, 0u);
  EXPECT_FALSE(rx.WaitEos(0));

  ASSERT_TRUE(server_.Refuse() && server_.Drop());
  ASSERT_GE(rx.WaitState("retrying", 5000, rx.states.size()), 0);
  rx.ExpectPromptEos();
  EXPECT_EQ(rx.WaitState("connecting", 1000, rx.states.size()), -1) << "attempt after eos";
  rx.ExpectPromptNull();
}

// Each attempt against a server that has stopped listening is lost as a
// refusal at once, also when the refusal comes while the attempt is still
// being set up (it used to be dropped then, and the attempt waited out
// "connect-timeout" as if the server were silent).
TEST_F(Live555SrcTest, EveryAttemptAgainstAClosedPortIsRefused) {
  Receiver rx(Serve("retry-delay-min=1 retry-delay-max=5 connect-timeout=1000"));
  ASSERT_TRUE(server_.Refuse());
  rx.Set(GST_STATE_PLAYING);
  rx.Run(3000, [] { return false; });
  int losses = 0;
  for (const State& s : rx.states) {
    if (s.state != "lost") continue;
    ++losses;
    EXPECT_EQ(s.reason_code, "refused") << "attempt " << s.attempt << ": " << s.reason;
  }
  EXPECT_GE(losses, 5);
  rx.ExpectPromptNull();
}

// A server that sends nothing is lost after "timeout" and each attempt
// against it gives up after "connect-timeout"; frames resume after the thaw.
// A consumer that holds a buffer longer than "timeout" is no silent server.
// "eos" while connecting to a frozen server ends the stream at once.
TEST_F(Live555SrcTest, SilentServerIsLostAfterTheTimeout) {
  Receiver rx(Serve("timeout=500 connect-timeout=700"));
  g_object_set(rx.sink, "max-buffers", 1, nullptr);  // a consumer that stops takes no more
  rx.Set(GST_STATE_PLAYING);
  ASSERT_TRUE(rx.WaitSamples(5, 10000));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // not taking any
  ASSERT_TRUE(rx.WaitSamples(rx.samples.size() + 5, 5000));
  EXPECT_EQ(rx.WaitState("lost", 0), -1);

  server_.Freeze();
  const int64_t frozen_at = MonotonicMs();
  const int lost = rx.WaitState("lost", 5000);
  ASSERT_GE(lost, 0);
  const State st = rx.states[lost];
  EXPECT_GE(st.at_ms - frozen_at, 350) << "lost before the time-out";
  EXPECT_LE(st.at_ms - frozen_at, 2000) << "lost long after the time-out";
  EXPECT_NE(st.reason.find("timeout"), std::string::npos) << st.reason;
  EXPECT_GE(rx.WaitState("lost", 5000, lost + 1), 0) << "connect-timeout";
  server_.Thaw();
  EXPECT_TRUE(rx.WaitSamples(rx.samples.size() + 10, 15000));
  EXPECT_EQ(rx.errors, 0u);

  server_.Freeze();
  ASSERT_GE(rx.WaitState("connecting", 5000, rx.states.size()), 0);
  rx.ExpectPromptEos();
  rx.ExpectPromptNull();
}

// With the plugin module in GStreamer's path: registered first, the built-in
// element is the one gst_parse_launch gives and the module is never loaded;
// where the module was loaded first, registering uses its element (the same
// code) instead of clashing with its type, which would be critical. Each runs
// in a fresh process with a fresh registry.
[[noreturn]] void WithThePluginModule(bool module_first) {
  const std::string dir = QO_TEST_BINARY_DIR, plugins = dir + "/gst-plugins";
  const std::string empty = dir + "/gst-no-system-plugins";
  mkdir(empty.c_str(), 0755);  // never a copy installed on this machine
  setenv("GST_PLUGIN_SYSTEM_PATH_1_0", empty.c_str(), 1);
  setenv("GST_REGISTRY", (dir + "/gst-registry-live555src.bin").c_str(), 1);
  setenv("GST_PLUGIN_PATH", plugins.c_str(), 1);
  setenv("G_DEBUG", "fatal-criticals", 1);
  gst_init(nullptr, nullptr);
  GstPlugin* module = gst_registry_find_plugin(gst_registry_get(), "live555src");
  if (!module) _exit(10);
  if (module_first) {
    GstElement* theirs = gst_element_factory_make("live555src", nullptr);
    if (!theirs || !gst_plugin_is_loaded(module)) _exit(11);
    gst_object_unref(theirs);
  }
  if (!qo_live555src_register_static() || !qo_live555src_register_static()) _exit(12);
  GstElement* e = gst_element_factory_make("live555src", nullptr);
  if (!e) _exit(13);
  if (module_first) _exit(G_OBJECT_TYPE(e) == g_type_from_name("GstLive555Src") ? 0 : 14);
  _exit(G_OBJECT_TYPE(e) == GST_TYPE_LIVE555_SRC && !gst_plugin_is_loaded(module) ? 0 : 15);
}

TEST(Live555SrcRegisterTest, BuiltInElementAndThePluginModule) {
#ifdef QO_SANITIZER_BUILD
  GTEST_SKIP() << "sanitizer builds have no plugin module";
#endif
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(WithThePluginModule(false), ::testing::ExitedWithCode(0), "") << "built in first";
  EXPECT_EXIT(WithThePluginModule(true), ::testing::ExitedWithCode(0), "") << "module first";
}

}  // namespace
}  // namespace test
}  // namespace qo
