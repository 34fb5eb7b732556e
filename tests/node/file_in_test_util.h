// Shared pieces of the file input node tests: generated streams, scratch
// files, log capture and a run of the node through the host.
#ifndef QO_TESTS_NODE_FILE_IN_TEST_UTIL_H_
#define QO_TESTS_NODE_FILE_IN_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "../core/log_capture.h"
#include "test_host.h"
#include "test_media.h"

namespace qo {
namespace filein_node_test {

using testhost::HostNode;
using testhost::ReceivedTask;
using testhost::TaskCollector;
using Tasks = std::vector<ReceivedTask>;

constexpr char kPrefix[] = "qo.mm.file.in";
constexpr int kWaitMs = 60000;

struct Media {
  std::string path;
  size_t units = 0;  // access units as the parser sees them
};

// A small H.264 stream; distinct frame counts give distinct files.
inline Media H264(int frames) {
  testmedia::StreamParams p;
  p.width = 96;
  p.height = 64;
  p.frames = frames;
  Media m{testmedia::GenerateStream(p), 0};
  m.units = testmedia::ReferenceAccessUnits(m.path, p.codec).size();
  EXPECT_GT(m.units, 0u) << m.path;
  return m;
}

// A per-test scratch directory in the build tree.
inline std::string ScratchDir() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string dir = std::string(QO_TEST_BINARY_DIR) + "/node-file-in/" + info->test_suite_name() +
                    "." + info->name();
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

inline std::string WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

inline size_t CountFlag(const Tasks& tasks, int32_t flag) {
  size_t n = 0;
  for (const ReceivedTask& t : tasks) n += t.flag == flag ? 1 : 0;
  return n;
}

inline size_t CountLines(const std::vector<std::string>& lines, const std::string& text) {
  size_t n = 0;
  for (const std::string& l : lines) n += l.find(text) != std::string::npos ? 1 : 0;
  return n;
}

// The files the node opened, in order (from its "<path> opened" lines).
inline std::vector<std::string> Opened(const std::vector<std::string>& lines) {
  std::vector<std::string> paths;
  for (const std::string& l : lines) {
    size_t end = l.find(" opened\n");
    if (end == std::string::npos) continue;
    size_t begin = l.rfind(": ", end);
    paths.push_back(l.substr(begin + 2, end - begin - 2));
  }
  return paths;
}

struct RunResult {
  Tasks tasks;
  std::vector<std::string> logs;  // severity 1 and up
  size_t frames = 0;
};

// Configures a node (unpaced, port 0) and opens it; waits for its final task
// or, with stop_after, for that many frames; then closes and destroys it.
inline RunResult RunNode(const std::function<void(HostNode&)>& configure, size_t stop_after = 0) {
  RunResult r;
  LogCapture logs(1);
  TaskCollector out;
  {
    HostNode node(kPrefix);
    node.thread()->SetTxQue(out.queue(), 0);
    node.SetDouble("framerate", 0.0);
    // A close before the output has drained can leave the output thread to
    // end through its pull time-outs: keep them short.
    if (stop_after > 0) node.SetInt("timeout", 1);
    configure(node);
    node.Open();
    EXPECT_TRUE(out.WaitFor(
        [&](const Tasks& t) {
          return stop_after > 0 ? CountFlag(t, 0) >= stop_after : !t.empty() && t.back().flag;
        },
        kWaitMs));
    node.Close();
  }
  out.Stop();
  r.tasks = out.Tasks();
  r.logs = logs.lines();
  r.frames = CountFlag(r.tasks, 0);
  return r;
}

}  // namespace filein_node_test
}  // namespace qo

#endif  // QO_TESTS_NODE_FILE_IN_TEST_UTIL_H_
