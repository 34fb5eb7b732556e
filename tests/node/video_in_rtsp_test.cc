// Video input node on the loopback RTSP server: H.264 over TCP end to end,
// a server that freezes, a refusal, and a fatal frame format on the output
// thread. The element's own tests run every codec over every transport.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "node_test_util.h"
#include "test_rtsp_server.h"

// Fault injection at the layer's boundary: from the fifth frame on, the
// frames the node pulls claim a format it cannot describe. The node calls
// the exported function, so this definition stands in for the library's.
std::atomic<bool> g_force_jpeg{false};

extern "C" void qo_VideoStreamGetFrame(qo_StrmHandle handle, qo_StreamInfo* frame, int timeout) {
  using Pull = void (*)(qo_StrmHandle, qo_StreamInfo*, int);
  static const Pull real = reinterpret_cast<Pull>(dlsym(RTLD_NEXT, "qo_VideoStreamGetFrame"));
  static std::atomic<int> frames{0};
  real(handle, frame, timeout);
  if (g_force_jpeg && frame->data != nullptr && ++frames > 4) frame->format = QO_PIX_FMT_JPEG;
}

namespace qo {
namespace nodetest {
namespace {

using testutil::MonotonicNs;
using testutil::ThreadCount;

// Unix-epoch nanoseconds are above this; monotonic microseconds far below.
constexpr int64_t kWallClockFloorNs = 1000000000LL * 1000000000LL;

class VideoInputRtsp : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Start()) << server_.error(); }
  void Configure(HostNode* g, const std::string& mount, int type, int trans) {
    g->SetString("uri", server_.Url(mount));
    g->SetInt("stream-type", type);
    g->SetInt("lower-trans-type", trans);
  }
  test::TestRtspServer server_;
};

TEST_F(VideoInputRtsp, H264OverTcpEndToEnd) {
  LogCapture log(0);
  TaskCollector port0(16, /*keep_arrays=*/true), port2(16, /*keep_arrays=*/true);
  HostNode g("qo.mm.video.in");
  Configure(&g, "h264", QO_PIX_FMT_H264, RTSP_TRANS_TCP);
  g.SetInt("stream-id", 77);
  g.thread()->SetTxQue(port0.queue(), 0);
  g.thread()->SetTxQue(port2.queue(), 2);
  g.Open();
  EXPECT_EQ(ThreadCount("strm_out"), 1);
  ASSERT_TRUE(port0.WaitFor(
      [](const Tasks& t) { return !t.empty() && t.back().time_stamp >= kWallClockFloorNs; },
      15000));
  g.Open();  // a second open only logs; the host may not pull beside the thread
  NDArray frame;
  EXPECT_EQ(static_cast<mm::VideoInput*>(g.handle())->GetFrame(frame, 1), -1);
  g.Close();
  EXPECT_EQ(ThreadCount("strm_out"), 0);
  ASSERT_TRUE(port0.WaitForFlag(1, 2000));
  ASSERT_TRUE(port2.WaitForFlag(1, 2000));
  // The sender's wall clock from its first report on (its accuracy is the
  // layer's business).
  const Tasks tasks = port0.Tasks(), tasks2 = port2.Tasks();
  ASSERT_EQ(tasks2.size(), tasks.size());
  bool stamped = false;
  for (size_t i = 0; i + 1 < tasks.size(); ++i) {
    const ReceivedTask& r = tasks[i];
    EXPECT_EQ(r.data.get(), tasks2[i].data.get()) << i;  // the same frame on every port
    EXPECT_EQ(std::vector<int64_t>({r.flag, r.source_id, r.reserved, int64_t(r.extra_size)}),
              std::vector<int64_t>({0, 77, 0, 0}));
    EXPECT_EQ(ExtFields(r.data), std::vector<int32_t>({QO_PIX_FMT_H264, 3, 0, 0, 320, 240, 0}));
    EXPECT_EQ(static_cast<uint64_t>(r.time_stamp), r.data.GetExtInfo()->time_stamp);
    const std::vector<uint8_t> d = Bytes(r.data);
    EXPECT_TRUE(d.size() > 4 && d[0] == 0 && d[1] == 0 && (d[2] == 1 || d[3] == 1)) << i;
    const int64_t arrival =
        testutil::RealtimeNs() - (std::chrono::steady_clock::now() - r.arrival).count();
    EXPECT_TRUE(r.time_stamp < kWallClockFloorNs ? !stamped
                                                 : std::llabs(r.time_stamp - arrival) < 1000000000)
        << i;
    stamped |= r.time_stamp >= kWallClockFloorNs;
  }
  // The stop ends the stream: one empty end-of-stream task per port.
  EXPECT_EQ(tasks.back().data.Shape(), Shape{0});
  EXPECT_EQ(tasks.back().source_id, 77);
  for (const char* line :
       {"created a stream out thread!!!\n", "restart video_in !!!\n", "sync mode error !!!\n\n",
        ">>> Enter stream out thread\n", "end of stream !!!\n", "<<< Exit stream out thread\n",
        ") stopped !!!\n"})
    EXPECT_EQ(log.Count(line), 1u) << line;
}

// "timeout" 1 and a server frozen with SIGSTOP: one time-out, then frames
// again, and the budget is whole again; then three time-outs in a row end
// the thread with exactly one status-2 task.
TEST_F(VideoInputRtsp, FrozenServerEndsTheThreadAfterThreeTimeoutsInARow) {
  TaskCollector port;
  HostNode g("qo.mm.video.in");
  LogCapture log(0);
  Configure(&g, "h264", QO_PIX_FMT_H264, RTSP_TRANS_UDP);
  g.SetInt("timeout", 1);
  g.thread()->SetTxQue(port.queue(), 0);
  g.Open();
  ASSERT_TRUE(port.WaitFor([](const Tasks& t) { return CountFlag(t, 0) >= 5; }, 15000));
  auto budgets = [&] {  // the remaining budgets the time-outs logged
    std::vector<int> out;
    for (const std::string& line : log.Lines()) {
      const size_t at = line.find("get stream timeout:");
      if (at != std::string::npos) out.push_back(std::stoi(line.substr(at + 19)));
    }
    return out;
  };
  server_.Freeze();
  ASSERT_TRUE(log.WaitFor("get stream timeout:", 3000));
  server_.Thaw();
  const size_t frames = port.Count(0);
  ASSERT_TRUE(port.WaitFor([&](const Tasks& t) { return CountFlag(t, 0) >= frames + 10; }, 10000));
  ASSERT_EQ(budgets(), std::vector<int>{2});
  server_.Freeze();
  const int64_t t0 = MonotonicNs();
  ASSERT_TRUE(port.WaitFor([](const Tasks& t) { return t.back().flag != 0; }, 15000));
  const int64_t end_ns = MonotonicNs() - t0;
  EXPECT_TRUE(log.WaitFor("<<< Exit stream out thread", 2000));
  // The line comes just before the thread ends.
  EXPECT_TRUE(testutil::WaitUntil([] { return ThreadCount("strm_out") == 0; }, 2000));
  // Three pulls of 1 s, the first partly waited out.
  EXPECT_TRUE(end_ns >= 2000e6 && end_ns <= 6000e6) << end_ns;
  EXPECT_EQ(budgets(), (std::vector<int>{2, 2, 1, 0}));
  g.Close();
  server_.Thaw();
  EXPECT_EQ(port.Count(2), 1u);
  EXPECT_EQ(port.Count(0) + 1, port.Tasks().size()) << "nothing after the last task";
}

// A refusal reaches the host through "last.error" within 2 s, long before
// the node's time-out task, and goes with the stream at close.
TEST_F(VideoInputRtsp, ARefusalIsExplainedThroughLastError) {
  TaskCollector port;
  HostNode g("qo.mm.video.in");
  g.SetString("uri", server_.Url("nothing-here"));
  g.SetInt("lower-trans-type", RTSP_TRANS_TCP);
  g.thread()->SetTxQue(port.queue(), 0);
  g.Open();
  auto code = [&] { return g.Call("last.error.code").operator int(); };
  ASSERT_TRUE(testutil::WaitUntil([&] { return code() != QO_STREAM_OK; }, 2000));
  EXPECT_EQ(code(), QO_STREAM_NOT_FOUND);
  EXPECT_NE(g.Call("last.error").AsString().find("404"), std::string::npos);
  EXPECT_EQ(port.Tasks().size(), 0u);
  g.Close();
  EXPECT_EQ(code(), -1);
  EXPECT_EQ(testhost::Func("qo.mm.video.in.last.error.code")(nullptr).operator int(), -1);
}

// An unsupported frame format is fatal and is not swallowed by the output
// thread: the process ends with the message instead of leaving downstream
// waiting for a task that never comes.
TEST(VideoInputRtspDeathTest, FatalFormatOnTheOutputThreadEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  test::TestRtspServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  const std::string url = server.Url("h264");
  EXPECT_DEATH(
      {
        g_force_jpeg = true;
        TaskCollector port;
        HostNode g("qo.mm.video.in");
        g.SetString("uri", url);
        g.thread()->SetTxQue(port.queue(), 0);
        g.Open();
        std::this_thread::sleep_for(std::chrono::seconds(20));
      },
      "unsupported yuv format:34!!!");
}

}  // namespace
}  // namespace nodetest
}  // namespace qo
