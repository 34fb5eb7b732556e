// Which files the node plays and how often: single file, lists with ranges,
// looping, and the odd list files it must survive.
#include <string>
#include <vector>

#include "file_in_test_util.h"

namespace qo {
namespace filein_node_test {
namespace {

using Paths = std::vector<std::string>;

std::string WriteList(const std::string& path, const std::vector<Media>& media) {
  std::string text;
  for (const Media& m : media) text += m.path + "\n";
  return WriteText(path, text);
}

TEST(FileInSequenceTest, SingleFileOnceTwiceAndEndless) {
  Media m = H264(5);
  RunResult once = RunNode([&](HostNode& n) { n.SetString("file", m.path); });
  ASSERT_EQ(once.tasks.size(), m.units + 1);
  EXPECT_EQ(once.frames, m.units);
  EXPECT_EQ(Opened(once.logs), Paths{m.path});

  // "loop" 2 plays two passes; a "file://" prefix is dropped.
  RunResult twice = RunNode([&](HostNode& n) {
    n.SetString("file", "file://" + m.path);
    n.SetInt("loop", 2);
  });
  ASSERT_EQ(twice.tasks.size(), 2 * m.units + 1);
  EXPECT_EQ(twice.frames, 2 * m.units);
  EXPECT_EQ(twice.tasks.back().flag, 1);
  EXPECT_EQ(Opened(twice.logs), (Paths{m.path, m.path}));

  // Negative: no end until closed.
  RunResult endless = RunNode(
      [&](HostNode& n) {
        n.SetString("file", m.path);
        n.SetInt("loop", -1);
      },
      4 * m.units);
  EXPECT_GE(Opened(endless.logs).size(), 4u);
  EXPECT_EQ(CountFlag(endless.tasks, 2), 0u);
}

// Three files, "loop" 2: every file twice, in order, then one end of stream.
TEST(FileInSequenceTest, ListOfThreeLoopedTwice) {
  std::vector<Media> m = {H264(3), H264(5), H264(7)};
  std::string list = WriteList(ScratchDir() + "/list.txt", m);
  RunResult r = RunNode([&](HostNode& n) {
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
  std::string list = WriteList(ScratchDir() + "/list.txt", m);
  struct Case {
    int start, stop, loop;
    std::vector<int> played;
  };
  const Case cases[] = {
      {1, 3, 0, {1, 2, 3}},
      {1, 9, 0, {1, 2, 3, 4}},   // stop clamped to the last entry
      {9, -1, 0, {4}},           // start clamped to the last entry
      {-1, 1, 2, {0, 1, 0, 1}},  // whole passes
      {3, 1, 3, {3, 3}},         // wrapped: the start entry repeats, each time a restart
      {3, 1, 0, {}},             // wrapped without restarts plays nothing
      {4, 1, 2, {4, 0, 1}},      // wrapped past the end of the list
      {3, 1, -1, {3, 3, 3, 3}},  // endless: stopped after four passes
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.start << ".." << c.stop << " loop " << c.loop);
    Paths want;
    size_t units = 0;
    for (int i : c.played) {
      want.push_back(m[i].path);
      units += m[i].units;
    }
    RunResult r = RunNode(
        [&](HostNode& n) {
          n.SetString("file-list", list);
          n.SetInt("start-index", c.start);
          n.SetInt("stop-index", c.stop);
          n.SetInt("loop", c.loop);
        },
        c.loop < 0 ? units : 0);
    if (c.loop < 0) {
      Paths opened = Opened(r.logs);
      ASSERT_GE(opened.size(), want.size());
      EXPECT_EQ(Paths(opened.begin(), opened.begin() + want.size()), want);
      continue;
    }
    EXPECT_EQ(Opened(r.logs), want);
    EXPECT_EQ(r.frames, units);
    EXPECT_EQ(r.tasks.back().flag, 1);
  }
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
  RunResult r = RunNode([&](HostNode& n) { n.SetString("file-list", blanks); });
  EXPECT_EQ(Opened(r.logs), (Paths{a.path, b.path}));
  EXPECT_EQ(r.frames, a.units + b.units);
  EXPECT_EQ(CountLines(r.logs, ": open " + missing + " failed\n"), 1u);
  EXPECT_EQ(CountLines(r.logs, "open  failed"), 0u);

  std::string crlf = WriteText(dir + "/crlf.txt", a.path + "\r\n" + b.path + "\r\n");
  r = RunNode([&](HostNode& n) { n.SetString("file-list", crlf); });
  EXPECT_EQ(CountLines(r.logs, ": open " + a.path + "\r failed\n"), 1u);
  EXPECT_EQ(CountLines(r.logs, ": open " + b.path + "\r failed\n"), 1u);
  ASSERT_EQ(r.tasks.size(), 1u);
  EXPECT_EQ(r.tasks[0].flag, 1);

  // Neither a missing nor an empty list is ever indexed, whatever "loop" says.
  std::string empty = WriteText(dir + "/empty.txt", "\n\n");
  for (const std::string& list : {dir + "/no-such-list.txt", empty}) {
    for (int loop : {0, 2, -1}) {
      SCOPED_TRACE(list + " loop " + std::to_string(loop));
      r = RunNode([&](HostNode& n) {
        n.SetString("file-list", list);
        n.SetInt("loop", loop);
      });
      EXPECT_EQ(CountLines(r.logs, ": open  faild\n\n"), list == empty ? 0u : 1u);
      ASSERT_EQ(r.tasks.size(), 1u);
      EXPECT_EQ(r.tasks[0].flag, 1);
    }
  }
}

}  // namespace
}  // namespace filein_node_test
}  // namespace qo
