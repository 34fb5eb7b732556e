// A small host for node tests: loads libqosdkmm the way the framework does,
// drives a node through its registered global functions and collects the
// tasks it sends.
//
//   qo::testhost::HostNode node("qo.mm.file.in");   // calls "<prefix>.create"
//   qo::testhost::TaskCollector out;                 // a drained TaskQueue
//   node.thread()->SetTxQue(out.queue(), 0);
//   node.SetString("file", path);
//   node.Open();
//   out.WaitForFlag(1, 20000);
//   node.Close();
//
// Link the static library `qotesthost`.
#ifndef QO_TESTS_SUPPORT_HOST_TEST_HOST_H_
#define QO_TESTS_SUPPORT_HOST_TEST_HOST_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/qo_media_task.h"
#include "core/qo_ndarray.h"
#include "core/qo_node.h"
#include "core/qo_registry.h"
#include "core/qo_task_queue.h"

namespace qo {
namespace testhost {

// Loads the media-input library from the build tree (once per process; it is
// never unloaded because the registries keep its functions). Returns "" on
// success, else the loader's message.
std::string LoadSdk();

// The global function registered as name; throws std::runtime_error when it
// is missing (after loading the library).
const PackedFunc& Func(const std::string& name);

// One node created through "<prefix>.create" and driven by name.
class HostNode {
 public:
  // prefix: e.g. "qo.mm.file.in". Throws std::runtime_error when the library
  // cannot be loaded or create returns no handle.
  explicit HostNode(std::string prefix);
  // Closes the node if it was opened and not closed, then destroys it.
  ~HostNode();
  HostNode(const HostNode&) = delete;
  HostNode& operator=(const HostNode&) = delete;

  void* handle() const { return handle_; }
  Thread* thread() const { return static_cast<Thread*>(handle_); }

  // Calls "<prefix>.<verb>" with the node as argument 0.
  template <typename... Args>
  QORetValue Call(const std::string& verb, Args&&... args) {
    return Func(prefix_ + "." + verb)(handle_, std::forward<Args>(args)...);
  }

  void SetInt(const std::string& key, int value) { Call("set.attr.int", key, value); }
  void SetString(const std::string& key, const std::string& value) {
    Call("set.attr.string", key, value);
  }
  // Doubles have no global function; hosts write the property store.
  void SetDouble(const std::string& key, double value) { thread()->GetProp().Set(key, value); }
  void Open();
  void Close();
  void Destroy();

 private:
  std::string prefix_;
  void* handle_ = nullptr;
  bool open_ = false;
};

// What arrived for one task.
struct ReceivedTask {
  std::string type_name;
  // MediaTask fields (zero for other task types).
  int32_t source_id = 0;
  int64_t time_stamp = 0;
  int32_t reserved = 0;
  int32_t flag = 0;
  size_t extra_size = 0;
  // The frame as it arrived (before the serialiser reshaped the side buffer).
  std::vector<int64_t> shape;
  ExtInfo ext;
  const void* tensor_data = nullptr;
  size_t tensor_size = 0;
  // The array itself, only when the collector keeps arrays.
  NDArray data;
  std::chrono::steady_clock::time_point arrival;
};

// A TaskQueue drained by its own thread. Each task is recorded, optionally
// inspected, and then disposed of through its type's functions, as the
// framework does.
class TaskCollector {
 public:
  // keep_arrays: hold a reference to every task's array until TakeArrays or
  // destruction.
  explicit TaskCollector(size_t capacity = 8, bool keep_arrays = false);
  // Closes the queue and joins the drain thread (after detaching the queue
  // from every port that still sends to it is the caller's business).
  ~TaskCollector();
  TaskCollector(const TaskCollector&) = delete;
  TaskCollector& operator=(const TaskCollector&) = delete;

  TaskQueue* queue() { return &queue_; }

  // Runs on the drain thread for every MediaTask before it is disposed of.
  void SetInspector(std::function<void(const MediaTask&)> inspector);

  // Waits until pred holds for the tasks received so far; false on time-out.
  bool WaitFor(const std::function<bool(const std::vector<ReceivedTask>&)>& pred, int timeout_ms);
  // Waits for a task with this flag.
  bool WaitForFlag(int32_t flag, int timeout_ms);

  std::vector<ReceivedTask> Tasks() const;
  size_t Count(int32_t flag) const;
  // Hands over the kept arrays (and drops them from the records).
  std::vector<NDArray> TakeArrays();

  // Refuses further tasks and joins the drain thread once the queue is empty.
  void Stop();

 private:
  void Drain();

  const bool keep_arrays_;
  TaskQueue queue_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<ReceivedTask> tasks_;
  std::function<void(const MediaTask&)> inspector_;
  std::thread thread_;
};

}  // namespace testhost
}  // namespace qo

#endif  // QO_TESTS_SUPPORT_HOST_TEST_HOST_H_
