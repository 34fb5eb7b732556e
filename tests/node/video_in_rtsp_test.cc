// Video input node on the loopback RTSP server: H.264 over TCP end to end
// and a fatal frame format on the output thread. Servers that fail are
// tests/reliability/rtsp_fault_test.cc's; the element's own tests run every
// codec over every transport.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
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

using testutil::ThreadCount;

// Unix-epoch nanoseconds are above this; monotonic microseconds far below.
constexpr int64_t kWallClockFloorNs = 1000000000LL * 1000000000LL;

TEST(VideoInputRtsp, H264OverTcpEndToEnd) {
  test::TestRtspServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  LogCapture log(0);
  TaskCollector port0(16, /*keep_arrays=*/true), port2(16, /*keep_arrays=*/true);
  HostNode g("qo.mm.video.in");
  g.SetString("uri", server.Url("h264"));
  g.SetInt("stream-type", QO_PIX_FMT_H264);
  g.SetInt("lower-trans-type", RTSP_TRANS_TCP);
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
