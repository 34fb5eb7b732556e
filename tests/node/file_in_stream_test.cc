// Frames the file input node delivers: contents, shapes and ExtInfo, zero
// copy, arrays outliving the node, pacing, bad input, sync mode and pull
// time-outs.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "file_in_test_util.h"
#include "hal_mm_video_common.h"
#include "node/qo_file_in_node.h"

namespace qo {
namespace filein_node_test {
namespace {

using Shape = std::vector<int64_t>;
using Ints = std::vector<int32_t>;

Ints ExtFields(const ExtInfo& e) {
  return {e.format, e.kind, e.zero0, e.zero1, e.width, e.height, e.zero2};
}

mm::FileInput* FileInputOf(HostNode& node) { return dynamic_cast<mm::FileInput*>(node.thread()); }

bool ThreadNamed(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    if (comm == name) return true;
  }
  return false;
}

// Each frame goes to every enabled port among the first four as the
// decoder's own buffer; the arrays stay valid after the node is gone and may
// be freed on any thread.
TEST(FileInStreamTest, H264FramesAreAccessUnitsSharedWithoutCopy) {
  testmedia::StreamParams p;
  p.width = 160;
  p.height = 96;
  p.frames = 8;
  p.b_frames = 2;
  std::string path = testmedia::GenerateStream(p);
  std::vector<testmedia::AccessUnit> ref = testmedia::ReferenceAccessUnits(path, p.codec);
  ASSERT_FALSE(ref.empty());

  TaskCollector out(8, /*keep_arrays=*/true);
  TaskCollector port4;
  std::atomic<int> copied{0};
  out.SetInspector([&](const MediaTask& t) {
    auto* record = static_cast<qo_StreamInfo*>(t.data.get()->manager_ctx);
    if (t.flag == 0 && (record == nullptr || record->data != t.data.GetTensorData())) ++copied;
  });
  {
    HostNode node(kPrefix);
    node.thread()->SetTxQue(out.queue(), 0);
    node.thread()->SetTxQue(out.queue(), 3);
    node.thread()->SetTxQue(port4.queue(), 4);
    node.SetDouble("framerate", 0.0);
    node.SetInt("stream-id", 7);
    node.SetString("file", path);
    node.Open();
    EXPECT_TRUE(out.WaitFor([](const Tasks& t) { return CountFlag(t, 1) == 2; }, kWaitMs));
    node.Close();
  }
  out.Stop();
  port4.Stop();
  EXPECT_EQ(copied.load(), 0);
  EXPECT_TRUE(port4.Tasks().empty());

  Tasks tasks = out.Tasks();
  ASSERT_EQ(tasks.size(), 2 * (ref.size() + 1));
  for (size_t k = 0; k < ref.size(); ++k) {
    SCOPED_TRACE(k);
    const ReceivedTask& t = tasks[2 * k];
    EXPECT_EQ(t.data.get(), tasks[2 * k + 1].data.get());  // one array, two ports
    EXPECT_EQ(Ints({t.flag, t.source_id, t.reserved}), Ints({0, 7, 0}));
    // Read after the node is gone.
    ASSERT_EQ(t.tensor_size, ref[k].data.size());
    EXPECT_EQ(std::memcmp(t.tensor_data, ref[k].data.data(), t.tensor_size), 0);
    EXPECT_EQ(t.shape, Shape{static_cast<int64_t>(ref[k].data.size())});
    EXPECT_EQ(ExtFields(t.ext), Ints({31, 3, 0, 0, 160, 96, 0}));
    EXPECT_EQ(t.ext.time_stamp, ref[k].dts);
    EXPECT_EQ(static_cast<uint64_t>(t.time_stamp), t.ext.time_stamp);
  }
  EXPECT_EQ(tasks.back().flag, 1);
  EXPECT_EQ(tasks.back().tensor_size, 0u);
  std::vector<NDArray> arrays = out.TakeArrays();
  tasks.clear();
  ASSERT_EQ(arrays.size(), 2 * (ref.size() + 1));
  EXPECT_EQ(arrays[0].use_count(), 2);
  std::thread([a = std::move(arrays)]() mutable { a.clear(); }).join();
}

TEST(FileInStreamTest, ShapesAndExtInfoByStreamType) {
  for (auto [codec, type] : {std::make_pair(testmedia::Codec::kH265, 32),
                             std::make_pair(testmedia::Codec::kMjpeg, 33)}) {
    SCOPED_TRACE(type);
    testmedia::StreamParams p;
    p.codec = codec;
    p.width = 128;
    p.height = 64;
    p.frames = 4;
    std::string path = testmedia::GenerateStream(p);
    std::vector<testmedia::AccessUnit> ref = testmedia::ReferenceAccessUnits(path, codec);
    RunResult r = RunNode([&](HostNode& n) {
      n.SetInt("stream-type", type);
      n.SetString("file", path);
    });
    ASSERT_EQ(r.frames, ref.size());
    for (size_t k = 0; k < ref.size(); ++k) {
      EXPECT_EQ(r.tasks[k].shape, Shape{static_cast<int64_t>(ref[k].data.size())});
      EXPECT_EQ(ExtFields(r.tasks[k].ext), Ints({type, 3, 0, 0, 128, 64, 0}));
    }
  }

  // Other types pass through in packets of "size" bytes with the configured
  // picture size, shaped by pixel format.
  const int w = 8;
  const int h = 4;
  const struct {
    int format, bytes;
    Shape shape;
    int kind;
  } raw[] = {
      {0, w * h * 3 / 2, {h * 3 / 2, w}, 2}, {10, w * h * 3 / 2, {h * 3 / 2, w}, 2},
      {3, 2 * w * h, {2 * h, w}, 2},         {42, 2 * w * h, {2 * h, w}, 2},
      {6, 3 * w * h, {3 * h, w}, 2},         {8, w * h, {h, w}, 2},
      {41, 3 * w * h, {h, 3 * w}, 2},        {34, 100, {100}, 3},
  };
  for (const auto& c : raw) {
    SCOPED_TRACE(c.format);
    std::string path = testmedia::GenerateRawBytes(3 * c.bytes, 7);
    RunResult r = RunNode([&](HostNode& n) {
      n.SetInt("stream-type", c.format);
      n.SetInt("size", c.bytes);
      n.SetInt("width", w);
      n.SetInt("height", h);
      n.SetString("file", path);
    });
    ASSERT_EQ(r.frames, 3u);
    for (int k = 0; k < 3; ++k) {
      EXPECT_EQ(r.tasks[k].shape, c.shape);
      EXPECT_EQ(ExtFields(r.tasks[k].ext), Ints({c.format, c.kind, 0, 0, w, h, 0}));
    }
  }
}

TEST(FileInStreamTest, FramerateSpacesTheFrames) {
  Media m = H264(15);
  auto run_seconds = [&](double framerate) {
    TaskCollector out;
    HostNode node(kPrefix);
    node.thread()->SetTxQue(out.queue(), 0);
    node.SetDouble("framerate", framerate);
    node.SetString("file", m.path);
    auto start = std::chrono::steady_clock::now();
    node.Open();
    if (framerate > 0) {
      // Named before its first pull.
      EXPECT_TRUE(out.WaitFor([](const Tasks& t) { return !t.empty(); }, kWaitMs));
      EXPECT_TRUE(ThreadNamed("strm_out"));
    }
    EXPECT_TRUE(out.WaitForFlag(1, kWaitMs));
    std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    node.Close();
    EXPECT_EQ(out.Count(0), m.units);
    return elapsed.count();
  };
  double paced = run_seconds(30.0);
  // Every frame is followed by a 33 ms sleep before the next pull.
  EXPECT_GE(paced, m.units * 0.033);
  EXPECT_LT(run_seconds(0.0), paced);
}

TEST(FileInStreamTest, RandomBytesEndCleanly) {
  std::string garbage = testmedia::GenerateRawBytes(300000, 3);
  for (int type : {31, 32, 33}) {
    RunResult r = RunNode([&](HostNode& n) {
      n.SetInt("stream-type", type);
      n.SetInt("timeout", 1);
      n.SetString("file", garbage);
    });
    ASSERT_FALSE(r.tasks.empty()) << type;
    EXPECT_NE(r.tasks.back().flag, 0) << type;
  }
}

TEST(FileInStreamTest, SyncModeHandsFramesToTheOwner) {
  Media m = H264(6);
  LogCapture logs(1);
  TaskCollector out;
  HostNode node(kPrefix);
  NDArray frame;
  EXPECT_EQ(FileInputOf(node)->GetFrame(frame, 1), -1);  // not started
  node.thread()->SetTxQue(out.queue(), 0);
  node.SetString("file", m.path);
  node.SetInt("sync-mode", 1);
  node.Open();
  size_t frames = 0;
  int r;
  while ((r = FileInputOf(node)->GetFrame(frame, 10)) == 0) {
    ++frames;
    EXPECT_EQ(frame.GetExtInfo()->format, 31);
  }
  EXPECT_EQ(r, 1);
  EXPECT_EQ(frame.GetTensorDataSize(), 0u);
  EXPECT_EQ(frames, m.units);
  node.Close();
  out.Stop();
  EXPECT_TRUE(out.Tasks().empty());

  TaskCollector pushed_out;
  HostNode pushed(kPrefix);
  pushed.thread()->SetTxQue(pushed_out.queue(), 0);
  pushed.SetString("file", m.path);
  pushed.Open();
  EXPECT_EQ(FileInputOf(pushed)->GetFrame(frame, 1), -1);
  EXPECT_TRUE(pushed_out.WaitForFlag(1, kWaitMs));
  std::vector<std::string> lines = logs.lines();
  EXPECT_EQ(CountLines(lines, ": stream obj is NULL !!!\n"), 1u);
  EXPECT_EQ(CountLines(lines, ": sync mode error !!!\n"), 1u);
  EXPECT_EQ(CountLines(lines, ": created a stream in thread!!!\n"), 2u);
  EXPECT_EQ(CountLines(lines, ": created a stream out thread!!!\n"), 1u);
}

// A file that never delivers (a FIFO without a writer) starves the decoder:
// the output thread gives up after three time-outs in a row with a status-2
// task; in sync mode each pull reports the time-out.
TEST(FileInStreamTest, PullTimeoutsUseTheAllowance) {
  std::string fifo = ScratchDir() + "/stalled.h264";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  auto release_reader = [&] { close(open(fifo.c_str(), O_WRONLY)); };
  LogCapture logs(2);
  TaskCollector out;
  HostNode node(kPrefix);
  node.thread()->SetTxQue(out.queue(), 0);
  node.SetString("file", fifo);
  node.SetInt("timeout", 1);
  node.Open();
  ASSERT_TRUE(out.WaitForFlag(2, kWaitMs));
  Tasks tasks = out.Tasks();
  ASSERT_EQ(tasks.size(), 1u);
  EXPECT_EQ(tasks[0].tensor_size, 0u);
  for (int left : {2, 1, 0}) {
    EXPECT_EQ(CountLines(logs.lines(), ": get stream timeout:" + std::to_string(left) + "\n"), 1u);
  }
  release_reader();
  node.Close();

  HostNode sync(kPrefix);
  sync.SetString("file", fifo);
  sync.SetInt("sync-mode", 1);
  sync.Open();
  NDArray frame;
  EXPECT_EQ(FileInputOf(sync)->GetFrame(frame, 1), 2);
  EXPECT_EQ(CountLines(logs.lines(), ": get stream timeout !!!\n"), 1u);
  release_reader();
  sync.Close();
}

}  // namespace
}  // namespace filein_node_test
}  // namespace qo
