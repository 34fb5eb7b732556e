// Every public call of both C layers and both nodes in every state a host can
// reach: never started, failed to start, starting (a server that accepts but
// never answers), running with and without a puller (the queue full),
// stopped, closed with frames still held (a server gone is
// rtsp_fault_test.cc's); and open/close cycles that
// must leave nothing behind. Each call comes back within its bound (below);
// the sanitizer runs of this file find what leaks or races.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "core/qo_c_type.h"
#include "hal_mm_file_in.h"
#include "hal_mm_video_in.h"
#include "node/qo_video_in_node.h"
#include "test_common.h"
#include "test_host.h"
#include "test_layer_capture.h"
#include "test_media.h"
#include "test_rtsp_server.h"

namespace qo {
namespace reliability {
namespace {

using testhost::HostNode;
using namespace testutil;  // NOLINT: clocks, waits and process counts

// How long each call may take, in milliseconds (sanitizer builds add
// kSlackMs). Stop waits up to 100 x 40 ms for a puller to see the end.
constexpr int64_t kAtOnceMs = 100;
constexpr int64_t kStartMs = 3000;
constexpr int64_t kStopMs = 4500;
constexpr int64_t kCloseMs = 1000;
constexpr int64_t kFileStopMs = 2500;  // the file decoder waits up to 40 x 50 ms
constexpr int kPullS = 1;              // GetFrame's time-out in these cases
constexpr int64_t kPullMs = kPullS * 1000 + 500;

// Runs one call and checks its bound; `what` names the call and the state.
template <typename F>
auto Timed(const std::string& what, int64_t bound_ms, F&& call) -> decltype(call()) {
  struct Check {
    const std::string& what;
    int64_t bound, t0 = MonotonicMs();
    ~Check() { EXPECT_LE(MonotonicMs() - t0, bound + kSlackMs) << what << " took too long"; }
  } check{what, bound_ms};
  return call();
}

// An RTSP stream of `server` (started here), or a freshly encoded file:
// its URL, and the file's path in *path.
std::string StartSource(bool rtsp, test::TestRtspServer* server, std::string* path) {
  if (rtsp) {
    EXPECT_TRUE(server->Start()) << server->error();
    return server->Url("h264");
  }
  // Snow at 4 Mbit/s: some 5 MB, more than the file decoder's feed queue
  // holds, so that a close comes before the feeder has read the whole file.
  testmedia::StreamParams p;
  p.frames = 300, p.pattern = 1, p.bitrate_kbps = 4000;
  *path = testmedia::GenerateStream(p);
  EXPECT_FALSE(path->empty());
  return "file://" + *path;
}

// Live-stream layer.
struct Source {
  const char* name;
  int transport;  // RTSP only
  bool rtsp;
};
void PrintTo(const Source& s, std::ostream* os) { *os << s.name; }
const Source kSources[] = {
    {"RtspTcp", RTSP_TRANS_TCP, true}, {"RtspUdp", RTSP_TRANS_UDP, true}, {"File", 0, false}};

class LayerLifecycle : public testing::TestWithParam<Source> {
 protected:
  void SetUp() override {
    std::string path;
    url_ = StartSource(GetParam().rtsp, &server_, &path);
  }
  qo_StrmHandle Open() {
    qo_StrmHandle h = Timed("Open", kAtOnceMs, [&] { return qo_VideoStreamOpen(url_.c_str()); });
    EXPECT_NE(h, nullptr);
    qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_H264);
    if (GetParam().rtsp) qo_VideoStreamCfg(h, "lower-trans-type", GetParam().transport);
    return h;
  }
  // GetFrame in `state`: a frame, the end, or a time-out, within its bound.
  qo_StreamInfo Pull(qo_StrmHandle h, const std::string& state) {
    qo_StreamInfo info{};
    Timed("GetFrame " + state, kPullMs, [&] { qo_VideoStreamGetFrame(h, &info, kPullS); });
    return info;
  }

  test::TestRtspServer server_;
  std::string url_;
};

// Opened, started, pulled, left unpulled until the queue is full, stopped,
// closed with frames held, and the calls that do not belong in each state.
TEST_P(LayerLifecycle, EveryCallInEveryState) {
  qo_StrmHandle h = Open();
  // Never started: no frame ever comes, stop and close only report.
  const qo_StreamInfo none = Pull(h, "never started");
  EXPECT_TRUE(none.data == nullptr && none.eos == 1);
  EXPECT_EQ(Timed("Stop never started", kAtOnceMs, [&] { return qo_VideoStreamStop(h); }), -1);
  EXPECT_EQ(qo_VideoStreamLastError(h, nullptr, 0), QO_STREAM_OK);
  ASSERT_EQ(Timed("Start", kStartMs, [&] { return qo_VideoStreamStart(h); }), 0);
  EXPECT_EQ(Timed("Start twice", kAtOnceMs, [&] { return qo_VideoStreamStart(h); }), -1);
  Timed("Cfg while running", kAtOnceMs,
        [&] { qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_H265); });

  // Running with a puller; three frames stay with the host.
  std::vector<qo_StreamInfo> held;
  for (int i = 0; i < 20 && held.size() < 3; ++i) {
    qo_StreamInfo f = Pull(h, "running");
    if (f.data != nullptr) held.push_back(f);
  }
  ASSERT_EQ(held.size(), 3u);
  EXPECT_EQ(held[0].format, QO_PIX_FMT_H264);  // the Cfg after start changed nothing
  // Nobody pulls: the queue fills and holds the streaming thread.
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  EXPECT_EQ(Timed("Stop with a full queue", kStopMs, [&] { return qo_VideoStreamStop(h); }), 0);
  // Stopped: what is still queued may come out, then nothing; no hang.
  for (int i = 0; i < 12; ++i) {
    qo_StreamInfo f = Pull(h, "stopped");
    if (f.data == nullptr) break;
    qo_VideoStreamFrameFree(&f);
  }
  EXPECT_EQ(Timed("Stop twice", kAtOnceMs, [&] { return qo_VideoStreamStop(h); }), -1);
  Timed("Close with frames held", kCloseMs, [&] { qo_VideoStreamClose(h); });
  // The host's frames outlive the stream.
  for (qo_StreamInfo& f : held) {
    EXPECT_GT(f.size, 0);
    EXPECT_EQ(f.data[0] | f.data[1], 0);  // a start code, still readable
    Timed("FrameFree after close", kAtOnceMs, [&] { qo_VideoStreamFrameFree(&f); });
  }
}

// A start that fails before a pipeline exists, then the calls after it; and
// a stream closed right after its start, before any data (still connecting).
TEST_P(LayerLifecycle, FailedStartAndCloseWhileStarting) {
  qo_StrmHandle failed = Open();
  qo_VideoStreamCfg(failed, "stream-type", QO_PIX_FMT_JPEG);  // no pipeline for it
  EXPECT_EQ(Timed("Start refused", kAtOnceMs, [&] { return qo_VideoStreamStart(failed); }), -1);
  EXPECT_EQ(Pull(failed, "after a failed start").data, nullptr);
  EXPECT_EQ(qo_VideoStreamStop(failed), -1);
  // Kept as it always was: the record of a never-started stream stays.
  Timed("Close after a failed start", kAtOnceMs, [&] { qo_VideoStreamClose(failed); });
  KeepStream(failed);

  if (GetParam().rtsp) server_.Freeze();  // accepts, never answers
  qo_StrmHandle h = Open();
  ASSERT_EQ(Timed("Start", kStartMs, [&] { return qo_VideoStreamStart(h); }), 0);
  EXPECT_EQ(Timed("Stop while starting", kStopMs, [&] { return qo_VideoStreamStop(h); }), 0);
  Timed("Close while starting", kCloseMs, [&] { qo_VideoStreamClose(h); });
  server_.Thaw();
}

INSTANTIATE_TEST_SUITE_P(Sources, LayerLifecycle, testing::ValuesIn(kSources),
                         [](const testing::TestParamInfo<Source>& p) { return p.param.name; });

// File decoder layer.
// Packets made and released: each exactly once.
int g_sent = 0;
std::atomic<int> g_freed{0};

struct Packet {
  qo_VideoStream stream{};
  std::vector<uint8_t> bytes;
};

// A heap packet that the layer frees through free_func.
qo_VideoStream* NewPacket(const std::vector<uint8_t>& bytes) {
  auto* p = new Packet{{}, bytes};
  p->stream.stream.data = p->bytes.data();
  p->stream.stream.size = static_cast<int32_t>(p->bytes.size());
  p->stream.priv = p;
  p->stream.free_func = [](void* priv) { g_freed++, delete static_cast<Packet*>(priv); };
  ++g_sent;
  return &p->stream;
}

int Put(qo_VideoFileHandle h, const std::vector<uint8_t>& bytes, const std::string& state) {
  qo_VideoStream* s = NewPacket(bytes);
  const int r =
      Timed("PutStream " + state, kPullMs, [&] { return qo_VideoFilePutStream(h, s, kPullS); });
  if (r == 1) s->free_func(s->priv);  // a time-out leaves the packet with us
  return r;
}

qo_StreamInfo PullFile(qo_VideoFileHandle h, const std::string& state, int64_t bound = kPullMs) {
  static uint8_t junk;
  qo_StreamInfo info{7, &junk, 99, 5, 0, 0, 1};  // every field the pull sets is wrong
  Timed("GetFrame " + state, bound, [&] { qo_VideoFileGetFrame(h, &info, kPullS); });
  return info;
}

TEST(FileDecoderLifecycle, EveryCallInEveryState) {
  testmedia::StreamParams params;  // large frames: the input fills
  params.frames = 120, params.width = 640, params.height = 480, params.pattern = 1;
  const std::vector<testmedia::AccessUnit> units =
      testmedia::ReferenceAccessUnits(testmedia::GenerateStream(params), params.codec);
  ASSERT_EQ(units.size(), 120u);
  LayerCapture cap;

  // Never started: a pull brings nothing and the configured type, a packet
  // waits in the input until close, and a stop ends what never began.
  qo_VideoFileHandle idle = Timed("Open", kAtOnceMs, [] { return qo_VideoFileOpen(); });
  ASSERT_NE(idle, nullptr);
  const qo_StreamInfo none = PullFile(idle, "never started", kAtOnceMs);
  EXPECT_TRUE(none.data == nullptr && none.size == 0 && none.eos == 0 && none.time_stamp == 0);
  EXPECT_EQ(none.format, QO_PIX_FMT_H264);
  EXPECT_EQ(Put(idle, units[0].data, "never started"), 0);
  EXPECT_EQ(Timed("Stop never started", kFileStopMs, [&] { return qo_VideoFileStop(idle); }), 0);
  Timed("Close never started", kCloseMs, [&] { qo_VideoFileClose(idle); });

  // A start that cannot link its chain (an element already named "parser";
  // the record starts with the pipeline) drops the pipeline; the handle stays
  // safe to use and refuses packets, releasing them.
  qo_VideoFileHandle failed = qo_VideoFileOpen();
  GstElement*& pipeline = static_cast<GstElement**>(failed)[0];
  ASSERT_TRUE(gst_bin_add(GST_BIN(pipeline), gst_element_factory_make("identity", "parser")));
  EXPECT_EQ(Timed("Start refused", kAtOnceMs, [&] { return qo_VideoFileStart(failed); }), -1);
  EXPECT_EQ(pipeline, nullptr);
  EXPECT_EQ(PullFile(failed, "after a failed start", kAtOnceMs).data, nullptr);
  EXPECT_EQ(Put(failed, units[0].data, "after a failed start"), -1);
  EXPECT_EQ(qo_VideoFileStop(failed), -1);
  Timed("Close after a failed start", kCloseMs, [&] { qo_VideoFileClose(failed); });

  qo_VideoFileHandle h = qo_VideoFileOpen();
  qo_VideoFileCfg(h, "size", 4096);
  ASSERT_EQ(Timed("Start", kStartMs, [&] { return qo_VideoFileStart(h); }), 0);
  // Nobody pulls: the pipeline fills up and a push times out with the packet
  // still the caller's. A puller takes three frames, which stay with the
  // host, and the input fills again.
  std::vector<qo_StreamInfo> held;
  for (int round = 0; round < 2; ++round) {
    int timeouts = 0;
    for (size_t i = 0; i < units.size() && timeouts == 0; ++i)
      timeouts += Put(h, units[i].data, "queue filling") == 1;
    EXPECT_EQ(timeouts, 1) << "the input never filled up";
    if (round > 0) break;
    gst_element_get_state(static_cast<GstElement**>(h)[0], nullptr, nullptr, 10 * GST_SECOND);
    Timed("Cfg while running", kAtOnceMs,
          [&] { qo_VideoFileCfg(h, "stream-type", QO_PIX_FMT_MJPEG); });
    for (int i = 0; i < 3; ++i) held.push_back(PullFile(h, "running"));
  }
  for (const auto& f : held) ASSERT_NE(f.data, nullptr);
  EXPECT_EQ(held[0].format, QO_PIX_FMT_H264);  // the Cfg while running changed nothing
  // Without a limit a put waits for room until the stop wakes it; the push
  // then fails and releases the packet.
  std::atomic<int> blocked_result{99};
  qo_VideoStream* waiting = NewPacket(units[1].data);
  std::thread blocked([&] { blocked_result = qo_VideoFilePutStream(h, waiting, 0); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(blocked_result, 99) << "a put without a limit did not wait";
  EXPECT_EQ(Timed("Stop with frames queued", kFileStopMs, [&] { return qo_VideoFileStop(h); }), 0);
  blocked.join();
  EXPECT_EQ(blocked_result, -1);
  // A stopped decoder ends a pull at once instead of waiting out its limit.
  const qo_StreamInfo end = PullFile(h, "stopped", kAtOnceMs);
  EXPECT_TRUE(end.data == nullptr && end.eos == 1);
  EXPECT_EQ(Put(h, units[0].data, "stopped"), -1);
  Timed("Close with frames held", kCloseMs, [&] { qo_VideoFileClose(h); });
  for (qo_StreamInfo& f : held) {
    EXPECT_GT(f.size, 4);
    qo_VideoFileFrameFree(&f);
  }
  EXPECT_EQ(g_freed.load(), g_sent) << "a packet was not released exactly once";
  const std::string text = cap.Finish();
  // Stops that nobody's pull ended report 800 ms, whatever they waited.
  EXPECT_EQ(CountOf(text, "KvVideoFile getting EOS costs:800 ms \n"), 2u);
  for (const char* line :
       {"KvVideoFile: video decoder does not start yet !!!", "Elements could not be linked  !!!",
        "unable to set property stream-type after pipeline has been launched!!!\n",
        "KvVideoFile: send packet timeout !!!", "internal qin is full"})
    EXPECT_NE(text.find(line), std::string::npos) << line;
}

// Nodes, driven through their registered functions.
// A queue nobody empties: the node's output blocks on it.
struct FullQueue {
  TaskQueue queue{2};
  ~FullQueue() {
    queue.Close();
    for (TaskQueue::Task t; queue.Pop(&t, 0);) TaskQueue::Dispose(t);
  }
};

struct NodeCase {
  const char* name;
  const char* prefix;
  bool rtsp;
};
void PrintTo(const NodeCase& n, std::ostream* os) { *os << n.name; }
const NodeCase kNodes[] = {{"VideoInputRtsp", "qo.mm.video.in", true},
                           {"VideoInputFile", "qo.mm.video.in", false},
                           {"FileInput", "qo.mm.file.in", false}};

class NodeLifecycle : public testing::TestWithParam<NodeCase> {
 protected:
  void SetUp() override {
    ASSERT_EQ(testhost::LoadSdk(), "");
    uri_ = StartSource(GetParam().rtsp, &server_, &path_);
  }
  void Configure(HostNode* node) {
    if (std::string(GetParam().prefix) == "qo.mm.file.in") {
      node->SetString("file", path_);
    } else {
      node->SetString("uri", uri_);
      node->SetInt("lower-trans-type", RTSP_TRANS_TCP);
    }
    node->SetInt("timeout", 1);
  }
  test::TestRtspServer server_;
  std::string uri_, path_;
};

// Created and never opened; opened without a source (fatal) and again with
// one; running with a consumer, with a full queue, twice opened and
// reconfigured; closed twice; destroyed while the host still holds frames.
TEST_P(NodeLifecycle, EveryCallInEveryState) {
  const std::string prefix = GetParam().prefix;
  std::vector<NDArray> held;
  {
    HostNode node(prefix);
    Timed("close never opened", kAtOnceMs, [&] { node.Call("close"); });
    Timed("update.para never opened", kAtOnceMs, [&] { node.Call("update.para"); });
    // Opening without a source: fatal for the video node, only logged by
    // the file node; either way the node stays usable.
    const std::string fatal = ErrorText([&] { node.Call("open"); });
    EXPECT_EQ(fatal.empty(), prefix == "qo.mm.file.in") << fatal;
    Configure(&node);
    testhost::TaskCollector out(64, /*keep_arrays=*/true);
    node.thread()->SetTxQue(out.queue(), 0);
    Timed("open", kStartMs, [&] { node.Open(); });
    ASSERT_TRUE(out.WaitFor([](const auto& t) { return t.size() >= 3; }, 10000));
    Timed("open twice", kAtOnceMs, [&] { node.Call("open"); });
    Timed("set.attr while running", kAtOnceMs, [&] { node.SetInt("stream-id", 9); });
    for (const auto& t : out.Tasks()) {
      if (t.flag == 0 && held.size() < 3) held.push_back(t.data);
    }
    // The consumer goes away: the next tasks wait in a full queue.
    FullQueue full;
    node.thread()->SetTxQue(&full.queue, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    // The outputs are released and what is left drains unpaced, so a node
    // closes promptly even mid-file and with nobody reading.
    Timed("close with a full queue", kCloseMs, [&] { node.Close(); });
    Timed("close twice", kAtOnceMs, [&] { node.Call("close"); });
  }  // destroyed here
  ASSERT_EQ(held.size(), 3u);
  for (const NDArray& a : held) {
    ASSERT_GT(a.GetTensorDataSize(), 4u);
    const auto* d = static_cast<const uint8_t*>(a.GetTensorData());
    EXPECT_EQ(d[0] | d[1], 0);  // still readable after the node is gone
  }
  held.clear();  // the frames go back to their layer only now
  Timed("null handle", kAtOnceMs, [&] { testhost::Func(prefix + ".close")(nullptr); });
}

// Open/close cycles: after a warm-up, threads, descriptors and resident
// memory stay flat (the benchmark runs a thousand cycles).
TEST_P(NodeLifecycle, OpenCloseCyclesLeaveNothingBehind) {
  int threads = 0, fds = 0;
  [[maybe_unused]] int64_t rss = 0;  // not judged under the sanitizers (quarantine)
  for (int i = -5; i < 40; ++i) {
    if (i == 0) threads = ThreadCount(), fds = OpenFdCount(), rss = ResidentBytes();
    testhost::TaskCollector out(16);
    HostNode node(GetParam().prefix);
    node.thread()->SetTxQue(out.queue(), 0);
    Configure(&node);
    if (GetParam().rtsp) node.SetInt("lower-trans-type", i % 2 ? RTSP_TRANS_TCP : RTSP_TRANS_UDP);
    node.Open();
    ASSERT_TRUE(out.WaitForFlag(0, 10000)) << "cycle " << i;
    node.Close();
  }
  ExpectNoThreadLeft(threads);
  EXPECT_TRUE(WaitUntil([&] { return OpenFdCount() <= fds; }, 5000)) << fds << " descriptors";
#ifndef QO_SANITIZER_BUILD
  EXPECT_LT(ResidentBytes() - rss, 8 << 20) << "resident memory grew";
#endif
}

INSTANTIATE_TEST_SUITE_P(Nodes, NodeLifecycle, testing::ValuesIn(kNodes),
                         [](const testing::TestParamInfo<NodeCase>& p) { return p.param.name; });

}  // namespace
}  // namespace reliability
}  // namespace qo
