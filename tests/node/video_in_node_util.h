// Host side of the video input node tests: calls by name through the shared
// test host, a port sink that records each MediaTask with its arrival time,
// log and standard-output capture, and a probe into the node's state.
#ifndef QO_TESTS_NODE_VIDEO_IN_NODE_UTIL_H_
#define QO_TESTS_NODE_VIDEO_IN_NODE_UTIL_H_

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "node/qo_video_in_node.h"
#include "test_host.h"

namespace qo {
namespace node_test {

template <typename... Args>
QORetValue Call(const std::string& name, Args&&... args) {
  return testhost::Func(name)(std::forward<Args>(args)...);
}

// The text of the qo::Error that f throws ("" if none).
template <typename F>
std::string ErrorText(F f) {
  try {
    f();
  } catch (const Error& e) {
    return e.what();
  }
  return "";
}

// Log lines through the core's sink, at the given level.
class LogCapture {
 public:
  explicit LogCapture(int level = 0);
  ~LogCapture();
  std::vector<std::string> Matching(const std::string& needle) const;
  size_t Count(const std::string& needle) const { return Matching(needle).size(); }
  bool WaitFor(const std::string& needle, int timeout_ms) const;

 private:
  int saved_level_;
  std::vector<std::string> lines_;  // guarded by LogMessage::mutex_
};

// File descriptor 1 (where the stream layer reports) goes to a temporary
// file while this lives; the text is echoed at the end.
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture() { Finish(); }
  std::string Text() const;
  std::string Finish();

 private:
  int saved_fd_ = -1;
  int file_fd_ = -1;
  std::string text_;
};

struct TaskRecord {
  int32_t flag, source_id, reserved;
  int64_t time_stamp;
  size_t extra_size;
  const void* tensor_data;
  std::vector<int64_t> shape;
  ExtInfo ext;
  std::vector<uint8_t> bytes;  // only when the sink keeps them
  int64_t wall_ns;             // CLOCK_REALTIME on arrival
};

// One output port's tasks, drained by the test host's collector. Stop the
// node before the sink goes.
class PortSink {
 public:
  explicit PortSink(bool keep_bytes = false, size_t capacity = 16);
  TaskQueue* queue() { return collector_.queue(); }
  std::vector<TaskRecord> Tasks() const;
  size_t Count(int32_t flag) const;
  bool WaitUntil(const std::function<bool(const std::vector<TaskRecord>&)>& pred, int timeout_ms);
  bool WaitForFrames(size_t n, int timeout_ms) {
    return WaitUntil([&](const std::vector<TaskRecord>&) { return CountLocked(0) >= n; },
                     timeout_ms);
  }
  // A task with a non-zero flag.
  bool WaitForEnd(int timeout_ms) {
    return WaitUntil([&](const std::vector<TaskRecord>& t) { return CountLocked(0) < t.size(); },
                     timeout_ms);
  }

 private:
  size_t CountLocked(int32_t flag) const;

  const bool keep_bytes_;
  mutable std::mutex mutex_;
  std::vector<TaskRecord> records_;
  testhost::TaskCollector collector_;  // last: its thread uses the above
};

class VideoInNode : public testhost::HostNode {
 public:
  VideoInNode() : testhost::HostNode("qo.mm.video.in") {}
  mm::VideoInput* node() const { return static_cast<mm::VideoInput*>(handle()); }
};

class VideoInputProbe : public mm::VideoInput {
 public:
  using mm::VideoInput::WrapFrame;
  int32_t mode() const { return mode_; }
  uint8_t gain() const { return gain_; }
};

int64_t RealtimeNs();
int64_t MonotonicNs();
int ThreadCount(const std::string& name);
std::vector<uint8_t> ReadAll(const std::string& path);

}  // namespace node_test
}  // namespace qo

#endif  // QO_TESTS_NODE_VIDEO_IN_NODE_UTIL_H_
