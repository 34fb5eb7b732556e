// File input node driven through the library's registered functions: which
// files it plays, the tasks it sends (zero copy, shapes by format), its
// time-out allowance, repeated starts, sync mode, and files that go wrong
// while read. Access-unit contents are proven at the decoder layer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "core/qo_c_type.h"
#include "hal_mm_video_common.h"
#include "node/qo_file_in_node.h"
#include "node_test_util.h"
#include "test_media.h"

namespace qo {
namespace nodetest {
namespace {

constexpr char kPrefix[] = "qo.mm.file.in";
using Paths = std::vector<std::string>;

struct Media {
  std::string path;
  std::vector<testmedia::AccessUnit> units;
};

// A small H.264 stream; distinct frame counts give distinct files.
Media H264(int frames) {
  testmedia::StreamParams p;
  p.width = 96, p.height = 64, p.frames = frames;
  Media m{testmedia::GenerateStream(p), {}};
  m.units = testmedia::ReferenceAccessUnits(m.path, p.codec);
  EXPECT_FALSE(m.units.empty()) << m.path;
  return m;
}

// The files the node opened, in order (from its "<path> opened" lines).
Paths Opened(const LogCapture& logs) {
  Paths paths;
  for (const std::string& l : logs.Lines()) {
    const size_t end = l.find(" opened\n"), begin = l.rfind(": ", end) + 2;
    if (end != std::string::npos) paths.push_back(l.substr(begin, end - begin));
  }
  return paths;
}

// An unpaced node (unless configured otherwise) on `ports` of one collector.
// Its output pulls with a 1 s time-out: three pulls without a frame end it.
struct FileNode {
  explicit FileNode(const std::function<void(HostNode&)>& configure,
                    const std::vector<int>& ports = {0})
      : port_count(ports.size()) {
    for (int port : ports) node.thread()->SetTxQue(out.queue(), port);
    node.SetDouble("framerate", 0.0);
    node.SetInt("timeout", 1);
    configure(node);
    node.Open();
  }
  FileNode(const std::string& key, const std::string& file, int loop = 0, double framerate = 0,
           int type = 0)
      : FileNode([&](HostNode& n) {
          n.SetString(key, file);
          n.SetInt("loop", loop);
          n.SetDouble("framerate", framerate);
          if (type != 0) n.SetInt("stream-type", type);
        }) {}
  bool WaitFrames(size_t n) {
    return out.WaitFor([&](const Tasks& t) { return CountFlag(t, 0) >= n; }, 20000);
  }
  // Waits for `frames` frames, or else for the end tasks (one per port),
  // and closes; the close is prompt (the decoder's stop waits up to 2 s for
  // an end nobody pulls any more). The arrays outlive the node.
  Tasks Finish(size_t frames = 0) {
    EXPECT_TRUE(out.WaitFor(
        [&](const Tasks& t) {
          return frames > 0 ? CountFlag(t, 0) >= frames : t.size() - CountFlag(t, 0) >= port_count;
        },
        60000));
    const int64_t t0 = testutil::MonotonicMs();
    node.Close();
    EXPECT_LT(testutil::MonotonicMs() - t0, 3000 + testutil::kSlackMs) << "close";
    out.Stop();
    return out.Tasks();
  }
  // The status of the one final task, which comes last.
  int RunToEnd() {
    const Tasks tasks = Finish();
    EXPECT_EQ(tasks.size() - CountFlag(tasks, 0), 1u) << "one final task";
    return tasks.empty() ? -1 : tasks.back().flag;
  }
  const size_t port_count;
  TaskCollector out{64, /*keep_arrays=*/true};
  HostNode node{kPrefix};
};

// Three files, "loop" 2: every access unit twice, in order, as the decoder's
// own buffer on ports 0 and 3 (port 4 is beyond the node's ports), then one
// end task. The arrays outlive the node.
TEST(FileInputStream, ListOfThreeLoopedTwiceSendsEveryAccessUnitWithoutCopy) {
  const std::vector<Media> m = {H264(3), H264(5), H264(7)};
  const std::string list = testutil::WriteText(
      testutil::ScratchDir() + "/list.txt", m[0].path + "\n" + m[1].path + "\n" + m[2].path + "\n");
  std::vector<testmedia::AccessUnit> ref;
  for (int pass = 0; pass < 2; ++pass)
    for (const Media& media : m) ref.insert(ref.end(), media.units.begin(), media.units.end());
  TaskCollector port4;
  LogCapture logs(1);
  const Tasks tasks = FileNode(
                          [&](HostNode& n) {
                            n.thread()->SetTxQue(port4.queue(), 4);
                            n.SetInt("stream-id", 7);
                            n.SetString("file-list", list);
                            n.SetInt("loop", 2);
                          },
                          {0, 3})
                          .Finish();
  port4.Stop();
  EXPECT_TRUE(port4.Tasks().empty());
  EXPECT_EQ(Opened(logs),
            (Paths{m[0].path, m[1].path, m[2].path, m[0].path, m[1].path, m[2].path}));
  for (const char* line : {"created a stream in thread!!!\n", "created a stream out thread!!!\n",
                           ">>> Enter stream out thread\n", ": end of stream !!!\n",
                           "Getted EOS, StreamIn exit\n", "<<< Exit stream out thread\n",
                           ") stopped !!!\n", "class FileInput instance destoryed !!!\n"})
    EXPECT_EQ(logs.Count(line), 1u) << line;
  ASSERT_EQ(tasks.size(), 2 * (ref.size() + 1));
  for (size_t k = 0; k < ref.size(); ++k) {
    const NDArray& a = tasks[2 * k].data;
    EXPECT_EQ(a.get(), tasks[2 * k + 1].data.get()) << k;  // one array, two ports
    EXPECT_EQ(static_cast<qo_StreamInfo*>(a.get()->manager_ctx)->data, a.GetTensorData()) << k;
    EXPECT_EQ(std::vector<int32_t>({tasks[2 * k].flag, tasks[2 * k].source_id}),
              std::vector<int32_t>({0, 7}));
    ASSERT_EQ(Bytes(a), ref[k].data) << k;  // read after the node is gone
    EXPECT_EQ(ExtFields(a), std::vector<int32_t>({31, 3, 0, 0, 96, 64, 0}));
    EXPECT_EQ(static_cast<uint64_t>(tasks[2 * k].time_stamp), a.GetExtInfo()->time_stamp);
    if (k < m[0].units.size()) {
      EXPECT_EQ(a.GetExtInfo()->time_stamp, ref[k].dts);
    }
  }
  EXPECT_EQ(tasks.back().flag, 1);
  EXPECT_EQ(tasks.back().data.GetTensorDataSize(), 0u);
}

// Which files the node plays, and how often, for one file and for lists
// with ranges, loops and odd lines. Bad entries are skipped with their
// line; the input still ends.
TEST(FileInputSequence, FilesListsRangesAndLoops) {
  const std::vector<Media> m = {H264(2), H264(3), H264(4), H264(5), H264(6)};
  const std::string dir = testutil::ScratchDir(), missing = dir + "/missing.h264";
  std::string all_text;
  for (const Media& media : m) all_text += media.path + "\n";
  const std::string all = testutil::WriteText(dir + "/all.txt", all_text);
  const std::string odd = testutil::WriteText(
      dir + "/odd.txt", "\n" + m[0].path + "\n\n" + missing + "\n" + m[1].path + "\r\n\n");
  const std::string empty = testutil::WriteText(dir + "/empty.txt", "\n\n");
  const struct {
    std::string file, list;
    int start, stop, loop;
    std::vector<int> played;  // indexes into m; with loop < 0 the first ones
    std::string line;         // a line logged once
  } cases[] = {
      {m[0].path, "", -1, -1, 0, {0}, "single file: loop=0 loop_cnt=0"},
      {"file://" + m[0].path, "", -1, -1, 2, {0, 0}, "single file: loop=2 loop_cnt=2"},
      {m[0].path, "", -1, -1, -1, {0, 0, 0, 0}, ""},
      {"", all, 1, 3, 0, {1, 2, 3}, "file list: loop=0 index=3 loop_cnt=0"},
      {"", all, 1, 9, 0, {1, 2, 3, 4}, ""},   // stop clamped to the last entry
      {"", all, -1, 1, 2, {0, 1, 0, 1}, ""},  // whole passes
      {"", all, 3, 1, 3, {3, 3}, ""},     // wrapped: the start entry repeats, each time a restart
      {"", all, 3, 1, 0, {}, ""},         // wrapped without restarts plays nothing
      {"", all, 4, 1, 2, {4, 0, 1}, ""},  // wrapped past the end of the list
      {"", all, 3, 1, -1, {3, 3, 3, 3}, ""},
      {"", odd, -1, -1, 0, {0}, ": open " + m[1].path + "\r failed\n"},
      // Neither a missing nor an empty list is ever indexed, whatever "loop" says.
      {"", empty, -1, -1, -1, {}, ""},
      {"", dir + "/no-such-list.txt", -1, -1, -1, {}, ": open  faild\n\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file + c.list + " " + std::to_string(c.start) + ".." + std::to_string(c.stop) +
                 " loop " + std::to_string(c.loop));
    Paths want;
    size_t units = 0;
    for (int i : c.played) want.push_back(m[i].path), units += m[i].units.size();
    LogCapture logs(1);
    const Tasks tasks = FileNode([&](HostNode& n) {
                          n.SetString(c.file.empty() ? "file-list" : "file", c.file + c.list);
                          n.SetInt("start-index", c.start);
                          n.SetInt("stop-index", c.stop);
                          n.SetInt("loop", c.loop);
                        }).Finish(c.loop < 0 ? units : 0);
    EXPECT_TRUE(c.line.empty() || logs.Count(c.line) == 1) << c.line;
    Paths opened = Opened(logs);
    const bool endless = c.loop < 0 && !want.empty();
    if (endless) opened.resize(std::min(opened.size(), want.size()));
    EXPECT_EQ(opened, want);
    if (endless) continue;
    EXPECT_EQ(CountFlag(tasks, 0), units);
    ASSERT_FALSE(tasks.empty());
    EXPECT_EQ(tasks.back().flag, 1);
  }
}

// Types without a parser pass through in packets of "size" bytes with the
// configured picture size, shaped by pixel format.
TEST(FileInputStream, PassThroughShapesByPixelFormat) {
  const int w = 8, h = 4;
  const struct {
    int format, bytes;
    Shape shape;
  } raw[] = {
      {QO_PIX_FMT_NV12, w * h * 3 / 2, {h * 3 / 2, w}}, {QO_PIX_FMT_YUV422P, 2 * w * h, {2 * h, w}},
      {QO_PIX_FMT_BGR888_PLANE, 3 * w * h, {3 * h, w}}, {QO_PIX_FMT_GRAY8, w * h, {h, w}},
      {QO_PIX_FMT_BGR888, 3 * w * h, {h, 3 * w}},       {QO_PIX_FMT_JPEG, 100, {100}}};
  for (const auto& c : raw) {
    SCOPED_TRACE(c.format);
    const std::string path = testmedia::GenerateRawBytes(3 * c.bytes, 7);
    const Tasks tasks = FileNode([&](HostNode& n) {
                          n.SetInt("stream-type", c.format);
                          n.SetInt("size", c.bytes);
                          n.SetInt("width", w);
                          n.SetInt("height", h);
                          n.SetString("file", path);
                        }).Finish();
    ASSERT_EQ(CountFlag(tasks, 0), 3u);
    for (int k = 0; k < 3; ++k) {
      EXPECT_EQ(tasks[k].data.Shape(), c.shape);
      EXPECT_EQ(
          ExtFields(tasks[k].data),
          std::vector<int32_t>({c.format, c.format == QO_PIX_FMT_JPEG ? 3 : 2, 0, 0, w, h, 0}));
    }
  }
}

// Three empty pulls in a row send the one time-out task (status 2) and end
// the output; a frame restores the allowance. A FIFO holds the feeder between
// pass-through packets (one packet, one frame).
TEST(FileInputStream, ThreeEmptyPullsInARowEndTheOutputAndAFrameRestoresThem) {
  const std::string fifo = testutil::ScratchDir() + "/feed";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  LogCapture logs(2);
  FileNode n([&](HostNode& node) {
    node.SetInt("stream-type", QO_PIX_FMT_JPEG);
    node.SetInt("size", 4);
    node.SetString("file", fifo);
  });
  struct Writer {  // closed before the node: the feeder waits for it
    int fd = -1;
    ~Writer() {
      if (fd >= 0) close(fd);
    }
  } w;
  // Without blocking: there is no reader if the start failed.
  ASSERT_TRUE(testutil::WaitUntil(
      [&] { return (w.fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; }, 20000));
  const auto timeouts = [&] { return logs.NumbersAfter("get stream timeout:"); };
  for (size_t frames = 1; frames <= 2; ++frames) {
    const size_t seen = timeouts().size();
    ASSERT_EQ(write(w.fd, "abcd", 4), 4);
    ASSERT_TRUE(n.out.WaitFor([&](const Tasks& t) { return t.size() == frames; }, 20000));
    ASSERT_TRUE(testutil::WaitUntil([&] { return timeouts().size() > seen; }, 20000));
  }
  ASSERT_TRUE(n.out.WaitForFlag(2, 20000));
  close(w.fd);  // ends the feeder
  w.fd = -1;
  std::vector<int32_t> flags;
  for (const ReceivedTask& t : n.Finish()) flags.push_back(t.flag);
  EXPECT_EQ(flags, (std::vector<int32_t>{0, 0, 2}));
  // A loaded machine may let one more pull time out before a frame arrives.
  const std::vector<int> left = timeouts();
  ASSERT_GE(left.size(), 4u);
  EXPECT_EQ(std::vector<int>(left.end() - 3, left.end()), (std::vector<int>{2, 1, 0}));
  for (size_t k = 0; k < left.size(); ++k)
    EXPECT_TRUE(left[k] == 2 || (k > 0 && left[k] == left[k - 1] - 1)) << k;
}

// A null handle is only logged: severity 3 from destroy and close, 4 from
// the rest. A second open of a started node only logs. A node stopped and
// opened again plays the file of its first start, whatever "file" says by
// then: its file list is kept, an old behaviour hosts rely on.
TEST(FileInputApi, NullHandlesSecondOpenAndRestart) {
  ExpectNullHandleSeverities(
      kPrefix, "FileInput", [](const std::string&, const PackedFunc& f) { f(nullptr, "loop", 1); });

  const Media first = H264(3), second = H264(4);
  LogCapture logs(1);
  FileNode n([&](HostNode& node) { node.SetString("file", first.path); });
  n.node.SetString("file", second.path);
  n.node.Open();
  ASSERT_TRUE(n.out.WaitForFlag(1, 60000));
  n.node.Close();
  n.node.Open();
  ASSERT_TRUE(n.out.WaitFor([](const Tasks& t) { return CountFlag(t, 1) == 2; }, 60000));
  EXPECT_EQ(CountFlag(n.Finish(), 0), 2 * first.units.size());
  EXPECT_EQ(logs.Count(": restart video_in !!!\n"), 1u);
  EXPECT_EQ(Opened(logs), (Paths{first.path, first.path}));
}

TEST(FileInputStream, SyncModeHandsFramesToTheOwner) {
  const Media m = H264(6);
  LogCapture logs(1);
  TaskCollector out;
  HostNode node(kPrefix);
  auto* input = dynamic_cast<mm::FileInput*>(node.thread());
  NDArray frame;
  EXPECT_EQ(input->GetFrame(frame, 1), -1);  // not started
  EXPECT_EQ(logs.Count(": stream obj is NULL !!!\n"), 1u);
  node.thread()->SetTxQue(out.queue(), 0);
  node.SetString("file", m.path);
  node.SetInt("sync-mode", 1);
  node.Open();
  EXPECT_EQ(testutil::ThreadCount("strm_out"), 0);
  size_t frames = 0;
  int r;
  while ((r = input->GetFrame(frame, 10)) == 0 && frames < m.units.size())
    EXPECT_EQ(Bytes(frame), m.units[frames++].data);
  EXPECT_EQ(std::vector<size_t>({size_t(r), frame.GetTensorDataSize(), frames}),
            std::vector<size_t>({1, 0, m.units.size()}));
  node.Close();
  out.Stop();
  EXPECT_TRUE(out.Tasks().empty());  // nothing is sent in sync mode
}

// Each run ends with one final task, never hangs and leaves no thread behind.
class FileInputFaultTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    FileNode("file", H264(12).path).RunToEnd();
  }  // GStreamer's set-up
  void TearDown() override { testutil::ExpectNoThreadLeft(threads_before_); }
  std::string Copy(const std::string& src, const std::string& name) {
    std::filesystem::copy_file(src, dir_ + name, std::filesystem::copy_options::overwrite_existing);
    return dir_ + name;
  }
  const std::string dir_ = testutil::ScratchDir() + "/";
  const int threads_before_ = testutil::ThreadCount();
};

// Deleted while read: the open file reads to its end, the next pass finds
// nothing (endless loops time out). Truncated beyond what the reader has
// taken (1 MiB input, 256 KiB packet): the run ends at the new end.
TEST_F(FileInputFaultTest, FileDeletedOrTruncatedWhileRead) {
  testmedia::StreamParams p;  // 320x240 snow at a high rate: large frames
  p.frames = 150;
  p.pattern = 1;
  p.bitrate_kbps = 4000;
  p.key_int = 30;
  const std::string big = testmedia::GenerateStream(p);
  const size_t total = testmedia::ReferenceAccessUnits(big, testmedia::Codec::kH264).size();
  {
    FileNode n("file", Copy(big, "deleted.h264"), 2, 60.0);
    ASSERT_TRUE(n.WaitFrames(5));
    ASSERT_TRUE(std::filesystem::remove(dir_ + "deleted.h264"));
    EXPECT_EQ(n.RunToEnd(), 1);
    EXPECT_EQ(n.out.Count(0), total) << "the first pass read to its end";
  }
  {
    FileNode n("file", Copy(H264(12).path, "looped.h264"), -1);
    ASSERT_TRUE(n.WaitFrames(3));
    std::filesystem::remove(dir_ + "looped.h264");
    EXPECT_EQ(n.RunToEnd(), 2) << "no end of input: the output times out";
  }
  FileNode n("file", Copy(big, "truncated.h264"), 0, 30.0);
  ASSERT_TRUE(n.WaitFrames(3));
  ASSERT_EQ(truncate((dir_ + "truncated.h264").c_str(), std::filesystem::file_size(big) * 3 / 4),
            0);
  EXPECT_EQ(n.RunToEnd(), 1);
  EXPECT_LT(n.out.Count(0), total) << "frames past the cut";
}

// A list naming a missing file, a directory, an empty file, a good one and
// a vanished one passes the good file's frames and ends; a zero-length file
// gives no frame and a clean end; random bytes end the run whatever the
// parser makes of them.
TEST_F(FileInputFaultTest, UnreadableInput) {
  const Media good = H264(12);
  const std::string empty = testutil::WriteText(dir_ + "empty.h264", "");
  std::filesystem::create_directories(dir_ + "a-directory");
  const std::string list = testutil::WriteText(
      dir_ + "list.txt", dir_ + "missing.h264\n" + dir_ + "a-directory\n" + empty + "\n" +
                             good.path + "\n" + dir_ + "gone.h264\n");
  {
    FileNode n("file-list", list);
    EXPECT_EQ(n.RunToEnd(), 1);
    EXPECT_EQ(n.out.Count(0), good.units.size());
  }
  for (int loop : {0, -1}) {  // endless: the output times out
    FileNode n("file", empty, loop);
    EXPECT_EQ(n.RunToEnd(), loop ? 2 : 1) << "loop " << loop;
    EXPECT_EQ(n.out.Count(0), 0u);
  }
  const std::string noise = testmedia::GenerateRawBytes(512 * 1024, 7);
  for (int type : {QO_PIX_FMT_H264, QO_PIX_FMT_H265, QO_PIX_FMT_MJPEG}) {
    SCOPED_TRACE(type);
    FileNode("file", noise, 0, 0, type).RunToEnd();
  }
}

}  // namespace
}  // namespace nodetest
}  // namespace qo
