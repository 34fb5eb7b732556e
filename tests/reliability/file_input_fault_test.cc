// The file input node, driven through its registered global functions, on
// files that go wrong: deleted or truncated while read, lists naming
// unreadable files, random bytes, zero-length files. Each run ends with one
// final task, never hangs, leaves no thread behind and, under the
// sanitizers, no memory.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "core/qo_c_type.h"
#include "process_stats.h"
#include "test_common.h"
#include "test_host.h"
#include "test_media.h"

namespace qo {
namespace reliability {
namespace {

std::string SmallH264() {
  testmedia::StreamParams p;
  p.width = 96;
  p.height = 64;
  p.frames = 12;
  return testmedia::GenerateStream(p);
}

// A file input node on port 0 of a collector. Its output pulls with a 1 s
// time-out, so three pulls without a frame end it after about 3 s.
struct FileNode {
  FileNode(const std::string& key, const std::string& file, int loop = 0, double framerate = 0,
           std::initializer_list<std::pair<const char*, int>> ints = {})
      : node("qo.mm.file.in") {
    node.thread()->SetTxQue(out.queue(), 0);
    node.SetString(key, file);
    node.SetInt("loop", loop);
    node.SetDouble("framerate", framerate);
    node.SetInt("timeout", 1);
    for (const auto& kv : ints) node.SetInt(kv.first, kv.second);
    node.Open();
  }
  bool WaitFrames(size_t n) {
    return WaitUntil([&] { return out.Count(0) >= n; }, 20000);
  }
  // Waits for the end (unless `close_ms` is below the default); close takes
  // less than `close_ms` (the decoder's stop waits up to 2 s for an end
  // nobody pulls any more) and the one final task comes last. Returns its
  // status.
  int RunToEnd(int64_t close_ms = 3000) {
    EXPECT_TRUE(close_ms < 3000 ||
                WaitUntil([&] { return out.Tasks().size() > out.Count(0); }, 30000));
    const int64_t t0 = MonotonicMs();
    node.Close();
    EXPECT_LT(MonotonicMs() - t0, close_ms + kSlackMs) << "close";
    out.Stop();
    auto tasks = out.Tasks();
    EXPECT_EQ(tasks.size() - out.Count(0), 1u) << "one final task";
    return tasks.empty() ? -1 : tasks.back().flag;
  }
  testhost::TaskCollector out{64};
  testhost::HostNode node;
};

class FileInputFaultTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(testhost::LoadSdk(), "");
    FileNode warm_up("file", SmallH264());  // GStreamer's one-time set-up
    warm_up.RunToEnd();
  }
  void TearDown() override { ExpectNoThreadLeft(threads_before_); }
  // A copy of `src` in the scratch directory.
  std::string Copy(const std::string& src, const std::string& name) {
    std::filesystem::copy_file(src, dir_ + name, std::filesystem::copy_options::overwrite_existing);
    return dir_ + name;
  }
  const std::string dir_ = testutil::ScratchDir() + "/";
  const int threads_before_ = ThreadCount();
};

// Deleted while read, the open file stays readable to its end and the next
// pass finds nothing; looping endlessly, the output ends after its
// time-outs. Truncated while read (the reader runs ahead of the output by
// the decoder's 1 MiB input queue and a 256 KiB packet, so the cut lies
// beyond that), the run ends where the file now ends.
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
    FileNode n("file", Copy(SmallH264(), "looped.h264"), -1);
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

// Closed while decoded frames still wait for the paced output, after the
// reader has handed over its end of stream: the output thread ends at once
// (a pull on a stopped decoder is the end) instead of running out its
// time-outs.
TEST_F(FileInputFaultTest, CloseWithFramesStillQueuedIsPrompt) {
  FileNode n("file", SmallH264(), 0, 10.0, {{"timeout", 3}});  // 100 ms a frame: most queued
  ASSERT_TRUE(n.WaitFrames(1));
  n.RunToEnd(1000);  // closed at once
}

// A list naming a missing file, a directory, an empty file, a good one and
// a vanished one passes the good file's frames and ends; a zero-length file
// gives no frame and a clean end; random bytes end the run whatever the
// parser makes of them, and come back in packets as a pass-through type.
TEST_F(FileInputFaultTest, UnreadableInput) {
  const std::string good = SmallH264();
  const std::string empty = testutil::WriteText(dir_ + "empty.h264", "");
  std::filesystem::create_directories(dir_ + "a-directory");
  const std::string list =
      testutil::WriteText(dir_ + "list.txt", dir_ + "missing.h264\n" + dir_ + "a-directory\n" +
                                                 empty + "\n" + good + "\n" + dir_ + "gone.h264\n");
  {
    FileNode n("file-list", list);
    EXPECT_EQ(n.RunToEnd(), 1);
    EXPECT_EQ(n.out.Count(0),
              testmedia::ReferenceAccessUnits(good, testmedia::Codec::kH264).size());
  }
  for (int loop : {0, -1}) {  // endless: the output times out
    FileNode n("file", empty, loop);
    EXPECT_EQ(n.RunToEnd(), loop ? 2 : 1) << "loop " << loop;
    EXPECT_EQ(n.out.Count(0), 0u);
  }
  const std::string noise = testmedia::GenerateRawBytes(512 * 1024, 7);
  for (int type : {QO_PIX_FMT_H264, QO_PIX_FMT_H265, QO_PIX_FMT_MJPEG, QO_PIX_FMT_GRAY8}) {
    SCOPED_TRACE(type);
    // "size", "width" and "height" count for the pass-through type (gray8) only.
    FileNode n("file", noise, 0, 0,
               {{"stream-type", type}, {"size", 64 * 1024}, {"width", 256}, {"height", 256}});
    const int status = n.RunToEnd();
    EXPECT_TRUE(type != 8 || (status == 1 && n.out.Count(0) == 8)) << n.out.Count(0);
  }
}

}  // namespace
}  // namespace reliability
}  // namespace qo
