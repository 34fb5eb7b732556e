// The framework's host (core/qo_host.h) for node tests, with libqosdkmm of
// the build tree loaded first, and a collector of the tasks a node sends.
// Link `qotesthost`.
#ifndef QO_TESTS_SUPPORT_HOST_TEST_HOST_H_
#define QO_TESTS_SUPPORT_HOST_TEST_HOST_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/qo_host.h"
#include "core/qo_media_task.h"
#include "core/qo_node.h"
#include "core/qo_registry.h"
#include "core/qo_task_queue.h"

namespace qo {
namespace testhost {

// Loads the build tree's library once per process: "" or the loader's message.
std::string LoadSdk();
// The global function `name`, the library loaded first; throws qo::Error.
const PackedFunc& Func(const std::string& name);
// `name`, once the library is loaded; throws qo::Error when it cannot be.
const std::string& Loaded(const std::string& name);

// qo::HostNode with the library of the build tree loaded first.
class HostNode : public qo::HostNode {
 public:
  explicit HostNode(const std::string& name) : qo::HostNode(Loaded(name)) {}
};

// A MediaTask as it arrived.
struct ReceivedTask {
  int32_t source_id = 0, reserved = 0, flag = 0;
  int64_t time_stamp = 0;
  size_t extra_size = 0;
  NDArray data;  // only when the collector keeps arrays
  std::chrono::steady_clock::time_point arrival;
};

// A TaskQueue drained by its own thread; each task is recorded (with a
// reference to its array if keep_arrays) and disposed of as the framework does.
class TaskCollector {
 public:
  explicit TaskCollector(size_t capacity = 8, bool keep_arrays = false);
  ~TaskCollector() { Stop(); }
  TaskQueue* queue() { return &queue_; }
  // Waits until pred holds for the tasks so far; false on time-out.
  bool WaitFor(const std::function<bool(const std::vector<ReceivedTask>&)>& pred, int timeout_ms);
  bool WaitForFlag(int32_t flag, int timeout_ms);
  std::vector<ReceivedTask> Tasks() const;
  size_t Count(int32_t flag) const;
  static size_t Count(const std::vector<ReceivedTask>& tasks, int32_t flag);
  // Refuses further tasks and joins the drain thread once the queue is empty.
  void Stop();

 private:
  const bool keep_arrays_;
  TaskQueue queue_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<ReceivedTask> tasks_;
  std::thread thread_;
};

}  // namespace testhost
}  // namespace qo

#endif  // QO_TESTS_SUPPORT_HOST_TEST_HOST_H_
