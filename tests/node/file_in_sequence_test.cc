// Which files the node plays and how often: single file, lists with ranges,
// looping, and the odd list files it must survive.
#include <string>
#include <vector>

#include "file_in_test_util.h"

namespace qo {
namespace filein_node_test {
namespace {

using Paths = std::vector<std::string>;

TEST(FileInSequenceTest, SingleFilePlaysOnceOrLoopTimes) {
  Media m = H264(5);
  RunResult once = RunToEnd([&](HostNode& n) { n.SetString("file", m.path); });
  EXPECT_EQ(once.frames, m.units);
  ASSERT_EQ(once.tasks.size(), m.units + 1);
  EXPECT_EQ(once.tasks.back().flag, 1);
  EXPECT_EQ(Opened(once.logs), Paths{m.path});

  // A "file://" prefix is dropped.
  RunResult twice = RunToEnd([&](HostNode& n) {
    n.SetString("file", "file://" + m.path);
    n.SetInt("loop", 2);
  });
  EXPECT_EQ(twice.frames, 2 * m.units);
  ASSERT_EQ(twice.tasks.size(), 2 * m.units + 1);
  EXPECT_EQ(twice.tasks.back().flag, 1);
  EXPECT_EQ(Opened(twice.logs), (Paths{m.path, m.path}));
  EXPECT_TRUE(HasLine(twice.logs, "single file: loop=2 loop_cnt=2"));
}

TEST(FileInSequenceTest, EndlessLoopRunsUntilClosed) {
  Media m = H264(4);
  LogCapture logs(4);
  TaskCollector out;
  HostNode node(kPrefix);
  node.thread()->SetTxQue(out.queue(), 0);
  node.SetDouble("framerate", 0.0);
  node.SetString("file", m.path);
  node.SetInt("loop", -1);
  node.Open();
  EXPECT_TRUE(out.WaitFor(
      [&](const std::vector<ReceivedTask>& t) { return CountFlag(t, 0) >= 3 * m.units; }, kWaitMs));
  EXPECT_EQ(out.Count(1), 0u);
  node.Close();
  node.Destroy();
  EXPECT_EQ(out.Count(2), 0u);
}

// Three files, "loop" 2: every file twice, in order, then one end of stream.
TEST(FileInSequenceTest, ListOfThreeLoopedTwice) {
  std::vector<Media> m = {H264(3), H264(5), H264(7)};
  std::string dir = ScratchDir();
  std::string list =
      WriteText(dir + "/list.txt", m[0].path + "\n" + m[1].path + "\n" + m[2].path + "\n");
  RunResult r = RunToEnd([&](HostNode& n) {
    n.SetString("file-list", list);
    n.SetInt("loop", 2);
  });
  EXPECT_EQ(r.frames, 2 * (m[0].units + m[1].units + m[2].units));
  ASSERT_EQ(r.tasks.size(), r.frames + 1);
  EXPECT_EQ(r.tasks.back().flag, 1);
  EXPECT_EQ(r.tasks.back().tensor_data, nullptr);
  EXPECT_EQ(Opened(r.logs),
            (Paths{m[0].path, m[1].path, m[2].path, m[0].path, m[1].path, m[2].path}));
}

TEST(FileInSequenceTest, ListRangesClampAndWrap) {
  std::vector<Media> m = {H264(2), H264(3), H264(4), H264(5), H264(6)};
  std::string dir = ScratchDir();
  std::string text;
  for (const Media& x : m) text += x.path + "\n";
  std::string list = WriteText(dir + "/list.txt", text);

  struct Case {
    int start, stop, loop;
    std::vector<int> played;
  };
  const Case cases[] = {
      {1, 3, 0, {1, 2, 3}},     // plain range
      {1, 9, 0, {1, 2, 3, 4}},  // stop clamped to the last entry
      {9, -1, 0, {4}},          // start clamped to the last entry
      {-1, 1, 2, {0, 1, 0, 1}},
      {3, 1, 3, {3, 3}},     // wrapped: the start entry repeats, each time a restart
      {3, 1, 0, {}},         // wrapped without restarts plays nothing
      {4, 1, 2, {4, 0, 1}},  // wrapped past the end of the list
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.start << ".." << c.stop << " loop " << c.loop);
    RunResult r = RunToEnd([&](HostNode& n) {
      n.SetString("file-list", list);
      n.SetInt("start-index", c.start);
      n.SetInt("stop-index", c.stop);
      n.SetInt("loop", c.loop);
    });
    Paths want;
    size_t units = 0;
    for (int i : c.played) {
      want.push_back(m[i].path);
      units += m[i].units;
    }
    EXPECT_EQ(Opened(r.logs), want);
    EXPECT_EQ(r.frames, units);
    ASSERT_FALSE(r.tasks.empty());
    EXPECT_EQ(r.tasks.back().flag, 1);
  }
}

TEST(FileInSequenceTest, WrappedRangeRepeatsStartEntryWithoutEnd) {
  std::vector<Media> m = {H264(2), H264(3), H264(4), H264(5), H264(6)};
  std::string dir = ScratchDir();
  std::string text;
  for (const Media& x : m) text += x.path + "\n";
  std::string list = WriteText(dir + "/list.txt", text);
  LogCapture logs(1);
  TaskCollector out;
  HostNode node(kPrefix);
  node.thread()->SetTxQue(out.queue(), 0);
  node.SetDouble("framerate", 0.0);
  node.SetString("file-list", list);
  node.SetInt("start-index", 3);
  node.SetInt("stop-index", 1);
  node.SetInt("loop", -1);
  node.Open();
  EXPECT_TRUE(out.WaitFor(
      [&](const std::vector<ReceivedTask>& t) { return CountFlag(t, 0) >= 3 * m[3].units; },
      kWaitMs));
  node.Close();
  node.Destroy();
  Paths opened = Opened(logs.lines());
  ASSERT_GE(opened.size(), 3u);
  for (const std::string& p : opened) EXPECT_EQ(p, m[3].path);
}

// Blank lines, CRLF line ends, missing entries, a missing or empty list: bad
// entries are skipped with their log line and the input still ends cleanly.
TEST(FileInSequenceTest, OddListFilesEndCleanly) {
  Media a = H264(3);
  Media b = H264(4);
  std::string dir = ScratchDir();
  std::string missing = dir + "/missing.h264";

  std::string blanks =
      WriteText(dir + "/blanks.txt", "\n" + a.path + "\n\n" + missing + "\n" + b.path + "\n\n");
  RunResult r = RunToEnd([&](HostNode& n) { n.SetString("file-list", blanks); });
  EXPECT_EQ(Opened(r.logs), (Paths{a.path, b.path}));
  EXPECT_EQ(r.frames, a.units + b.units);
  EXPECT_TRUE(HasLine(r.logs, ": open " + missing + " failed\n"));
  EXPECT_FALSE(HasLine(r.logs, "open  failed"));

  std::string crlf = WriteText(dir + "/crlf.txt", a.path + "\r\n" + b.path + "\r\n");
  r = RunToEnd([&](HostNode& n) { n.SetString("file-list", crlf); });
  EXPECT_TRUE(Opened(r.logs).empty());
  EXPECT_TRUE(HasLine(r.logs, ": open " + a.path + "\r failed\n"));
  EXPECT_TRUE(HasLine(r.logs, ": open " + b.path + "\r failed\n"));
  EXPECT_EQ(r.frames, 0u);
  ASSERT_EQ(r.tasks.size(), 1u);
  EXPECT_EQ(r.tasks[0].flag, 1);

  // Neither a missing nor an empty list is ever indexed, whatever "loop" says.
  std::string empty = WriteText(dir + "/empty.txt", "\n\n");
  for (const std::string& list : {dir + "/no-such-list.txt", empty}) {
    for (int loop : {0, 2, -1}) {
      SCOPED_TRACE(list + " loop " + std::to_string(loop));
      r = RunToEnd([&](HostNode& n) {
        n.SetString("file-list", list);
        n.SetInt("loop", loop);
      });
      EXPECT_EQ(HasLine(r.logs, ": open  faild\n\n"), list != empty);
      ASSERT_EQ(r.tasks.size(), 1u);
      EXPECT_EQ(r.tasks[0].flag, 1);
    }
  }
}

}  // namespace
}  // namespace filein_node_test
}  // namespace qo
