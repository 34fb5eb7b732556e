// The file input node, driven through its registered global functions, on
// files that go wrong: deleted or truncated while they are read, lists that
// name unreadable files, random bytes, zero-length files. Each run ends
// cleanly (one final task), never hangs, leaves no thread behind and, under
// the sanitizers, no memory.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "process_stats.h"
#include "test_common.h"
#include "test_host.h"
#include "test_media.h"

namespace qo {
namespace reliability {
namespace {

using testhost::HostNode;
using testhost::ReceivedTask;
using testhost::TaskCollector;
using Tasks = std::vector<ReceivedTask>;

#ifdef QO_SANITIZER_BUILD
constexpr int64_t kSlackMs = 2000;
#else
constexpr int64_t kSlackMs = 0;
#endif
// The decoder's stop waits up to 2 s for an end that nobody pulls any more.
constexpr int64_t kCloseMs = 3000 + kSlackMs;

size_t Frames(const Tasks& t) {
  size_t n = 0;
  for (const auto& x : t) n += x.flag == 0 ? 1 : 0;
  return n;
}
size_t Ends(const Tasks& t) { return t.size() - Frames(t); }

// A stream of large frames: 320x240 snow at a high rate.
std::string BigH264(int frames) {
  testmedia::StreamParams p;
  p.frames = frames;
  p.pattern = 1;
  p.bitrate_kbps = 4000;
  p.key_int = 30;
  return testmedia::GenerateStream(p);
}

std::string SmallH264() {
  testmedia::StreamParams p;
  p.width = 96;
  p.height = 64;
  p.frames = 12;
  return testmedia::GenerateStream(p);
}

double CpuSeconds() {
  rusage u;
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// One file input node on port 0 of a collector. The output pulls with a
// 1 s time-out, so three pulls without a frame end it after about 3 s.
struct FileNode {
  explicit FileNode(double framerate = 0.0) : node("qo.mm.file.in") {
    node.thread()->SetTxQue(out.queue(), 0);
    node.SetDouble("framerate", framerate);
    node.SetInt("timeout", 1);
  }
  bool WaitEnd(int timeout_ms) {
    return out.WaitFor([](const Tasks& t) { return Ends(t) > 0; }, timeout_ms);
  }
  bool WaitFrames(size_t n, int timeout_ms) {
    return out.WaitFor([&](const Tasks& t) { return Frames(t) >= n; }, timeout_ms);
  }
  // Closes, checks the close was prompt and the run ended with exactly one
  // final task; returns the tasks.
  Tasks CloseAndCheck() {
    const int64_t t0 = MonotonicMs();
    node.Close();
    EXPECT_LT(MonotonicMs() - t0, kCloseMs) << "close";
    out.Stop();
    Tasks tasks = out.Tasks();
    EXPECT_EQ(Ends(tasks), 1u) << "one final task";
    if (!tasks.empty()) {
      EXPECT_NE(tasks.back().flag, 0) << "the final task comes last";
    }
    return tasks;
  }
  TaskCollector out{64};
  HostNode node;
};

class FileInputFaultTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(testhost::LoadSdk(), "");
    // GStreamer's one-time set-up before threads are counted.
    std::string small = SmallH264();
    ASSERT_FALSE(small.empty());
    FileNode n;
    n.node.SetString("file", small);
    n.node.Open();
    n.WaitEnd(20000);
  }
  void SetUp() override {
    dir_ = testutil::ScratchDir();
    threads_before_ = ThreadCount();
  }
  void TearDown() override {
    EXPECT_EQ(ThreadCount("strm_out"), 0);
    EXPECT_EQ(ThreadCount("strm_in"), 0);
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= threads_before_ + 2; }, 5000))
        << "before " << threads_before_ << ", now " << ThreadCount() << ": " << ThreadNames();
  }
  // A copy of `src` in the scratch directory.
  std::string Copy(const std::string& src, const std::string& name) {
    std::string dst = dir_ + "/" + name;
    std::filesystem::copy_file(src, dst, std::filesystem::copy_options::overwrite_existing);
    return dst;
  }
  std::string dir_;
  int threads_before_ = 0;
};

// Deleted while read: the open file stays readable to its end; the next
// pass finds no file and the run ends.
TEST_F(FileInputFaultTest, FileDeletedWhileRead) {
  std::string big = BigH264(150);
  ASSERT_FALSE(big.empty());
  const size_t total = testmedia::ReferenceAccessUnits(big, testmedia::Codec::kH264).size();
  std::string path = Copy(big, "deleted.h264");
  FileNode n(60.0);
  n.node.SetString("file", path);
  n.node.SetInt("loop", 2);  // a second pass would reopen the file
  n.node.Open();
  ASSERT_TRUE(n.WaitFrames(5, 20000));
  ASSERT_TRUE(std::filesystem::remove(path));
  ASSERT_TRUE(n.WaitEnd(30000));
  Tasks tasks = n.CloseAndCheck();
  EXPECT_EQ(Frames(tasks), total) << "the first pass read to its end";
  EXPECT_EQ(tasks.back().flag, 1);
}

// Truncated while read (the reader is held back by the decoder's full
// input): the read ends where the file now ends, and so does the run.
TEST_F(FileInputFaultTest, FileTruncatedWhileRead) {
  std::string big = BigH264(150);
  ASSERT_FALSE(big.empty());
  const auto size = std::filesystem::file_size(big);
  // The reader runs ahead of the output by the decoder's input queue (1 MiB)
  // and one packet (256 KiB): the cut must lie beyond that.
  ASSERT_GT(size, 2u * 1024 * 1024) << "the reader must not get to the end before the cut";
  const size_t total = testmedia::ReferenceAccessUnits(big, testmedia::Codec::kH264).size();
  std::string path = Copy(big, "truncated.h264");
  FileNode n(30.0);
  n.node.SetString("file", path);
  n.node.Open();
  ASSERT_TRUE(n.WaitFrames(3, 20000));
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(size * 3 / 4)), 0);
  ASSERT_TRUE(n.WaitEnd(30000));
  Tasks tasks = n.CloseAndCheck();
  EXPECT_EQ(tasks.back().flag, 1);
  EXPECT_GT(Frames(tasks), 3u);
  EXPECT_LT(Frames(tasks), total) << "frames past the cut";
}

// A list whose entries are missing, a directory, empty, garbage, and one
// good file: the good file's frames come through and the run ends.
TEST_F(FileInputFaultTest, ListNamingUnreadableFiles) {
  std::string good = SmallH264();
  ASSERT_FALSE(good.empty());
  const size_t units = testmedia::ReferenceAccessUnits(good, testmedia::Codec::kH264).size();
  std::string empty = testutil::WriteText(dir_ + "/empty.h264", "");
  std::string sub = dir_ + "/a-directory";
  std::filesystem::create_directories(sub);
  std::string list =
      testutil::WriteText(dir_ + "/list.txt", dir_ + "/missing.h264\n" + sub + "\n" + empty + "\n" +
                                                  good + "\n" + dir_ + "/gone.h264\n");
  FileNode n;
  n.node.SetString("file-list", list);
  n.node.Open();
  ASSERT_TRUE(n.WaitEnd(20000));
  Tasks tasks = n.CloseAndCheck();
  EXPECT_EQ(Frames(tasks), units);
  EXPECT_EQ(tasks.back().flag, 1);
}

// Random bytes for each parsed type: whatever the parser makes of them,
// the run ends; as a pass-through type they come back in packets.
TEST_F(FileInputFaultTest, RandomBytes) {
  std::string noise = testmedia::GenerateRawBytes(512 * 1024, 7);
  ASSERT_FALSE(noise.empty());
  for (int type : {31, 32, 33}) {
    SCOPED_TRACE(type);
    FileNode n;
    n.node.SetString("file", noise);
    n.node.SetInt("stream-type", type);
    n.node.Open();
    ASSERT_TRUE(n.WaitEnd(20000));
    n.CloseAndCheck();
  }
  {
    SCOPED_TRACE("pass-through");
    FileNode n;
    n.node.SetString("file", noise);
    n.node.SetInt("stream-type", 8);
    n.node.SetInt("size", 64 * 1024);
    n.node.SetInt("width", 256);
    n.node.SetInt("height", 256);
    n.node.Open();
    ASSERT_TRUE(n.WaitEnd(20000));
    Tasks tasks = n.CloseAndCheck();
    EXPECT_EQ(Frames(tasks), 8u);
    EXPECT_EQ(tasks.back().flag, 1);
  }
}

// A zero-length file, once and in a list: no frame, a clean end.
TEST_F(FileInputFaultTest, ZeroLengthFiles) {
  std::string empty = testutil::WriteText(dir_ + "/zero.h264", "");
  {
    FileNode n;
    n.node.SetString("file", empty);
    n.node.Open();
    ASSERT_TRUE(n.WaitEnd(20000));
    Tasks tasks = n.CloseAndCheck();
    EXPECT_EQ(Frames(tasks), 0u);
    EXPECT_EQ(tasks.back().flag, 1);
  }
  {
    std::string list = testutil::WriteText(dir_ + "/zeros.txt", empty + "\n" + empty + "\n");
    FileNode n;
    n.node.SetString("file-list", list);
    n.node.SetInt("loop", 3);
    n.node.Open();
    ASSERT_TRUE(n.WaitEnd(20000));
    Tasks tasks = n.CloseAndCheck();
    EXPECT_EQ(Frames(tasks), 0u);
    EXPECT_EQ(tasks.back().flag, 1);
  }
}

// Closed while decoded frames still wait for the paced output, after the
// reader has already handed over its end of stream: the decoder's stop
// sees that end at once and stops the pipeline, dropping the queued frames
// and the end with them; the output thread must still end at once (a pull
// on a stopped decoder is the end) instead of running out its time-outs.
TEST_F(FileInputFaultTest, CloseWithFramesStillQueuedIsPrompt) {
  std::string good = SmallH264();
  ASSERT_FALSE(good.empty());
  FileNode n(10.0);  // 100 ms per frame: most frames are still queued
  n.node.SetString("file", good);
  n.node.SetInt("timeout", 3);
  n.node.Open();
  ASSERT_TRUE(n.WaitFrames(1, 20000));
  const int64_t t0 = MonotonicMs();
  n.node.Close();
  const int64_t close_ms = MonotonicMs() - t0;
  EXPECT_LT(close_ms, 1000 + kSlackMs) << "close waited for the output's pull time-outs";
  n.out.Stop();
  EXPECT_EQ(Ends(n.out.Tasks()), 1u);
}

// Endless looping over files that cannot be read (deleted, or empty):
// the output ends after its time-outs and close ends the reader. Reported
// too: how busy the reader is meanwhile.
TEST_F(FileInputFaultTest, EndlessLoopOverAFileThatIsGone) {
  std::string good = SmallH264();
  ASSERT_FALSE(good.empty());
  std::string path = Copy(good, "looped.h264");
  std::string empty = testutil::WriteText(dir_ + "/looped-empty.h264", "");
  for (const std::string& file : {path, empty}) {
    SCOPED_TRACE(file);
    FileNode n;
    n.node.SetString("file", file);
    n.node.SetInt("loop", -1);
    n.node.Open();
    if (file == path) {
      ASSERT_TRUE(n.WaitFrames(3, 20000));
      std::filesystem::remove(path);
    }
    const double cpu0 = CpuSeconds();
    const int64_t t0 = MonotonicMs();
    ASSERT_TRUE(n.WaitEnd(20000));
    const double busy = (CpuSeconds() - cpu0) / ((MonotonicMs() - t0) / 1000.0);
    printf("endless loop over %s: reader busy %.0f%% of one core until the output ended\n",
           file == path ? "a deleted file" : "an empty file", busy * 100);
    Tasks tasks = n.CloseAndCheck();
    EXPECT_EQ(tasks.back().flag, 2) << "no end of input: the output times out";
  }
}

}  // namespace
}  // namespace reliability
}  // namespace qo
