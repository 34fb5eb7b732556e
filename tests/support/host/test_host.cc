// Library loading, node driving and task collection for node tests.
#include "test_host.h"

#include <dlfcn.h>
#include <pthread.h>

#include <stdexcept>

#ifndef QO_SDKMM_PATH
#error "QO_SDKMM_PATH must be defined by the build"
#endif

namespace qo {
namespace testhost {

std::string LoadSdk() {
  static const std::string error = [] {
    // Never closed: the registries hold functions that live in the library.
    void* handle = dlopen(QO_SDKMM_PATH, RTLD_NOW | RTLD_GLOBAL);
    if (handle != nullptr) return std::string();
    const char* err = dlerror();
    return std::string(err != nullptr ? err : "dlopen failed: " QO_SDKMM_PATH);
  }();
  return error;
}

const PackedFunc& Func(const std::string& name) {
  std::string error = LoadSdk();
  if (!error.empty()) throw std::runtime_error(error);
  const PackedFunc* f = Registry::Get(name);
  if (f == nullptr) throw std::runtime_error("no global function " + name);
  return *f;
}

HostNode::HostNode(std::string prefix) : prefix_(std::move(prefix)) {
  QORetValue rv = Func(prefix_ + ".create")();
  if (rv.type_code() != kHandle || rv.AsHandle() == nullptr) {
    throw std::runtime_error(prefix_ + ".create returned no handle");
  }
  handle_ = rv.AsHandle();
}

HostNode::~HostNode() {
  // A started node must be closed before it is destroyed.
  if (open_) Close();
  Destroy();
}

void HostNode::Open() {
  open_ = true;
  Call("open");
}

void HostNode::Close() {
  open_ = false;
  Call("close");
}

void HostNode::Destroy() {
  if (handle_ == nullptr) return;
  Call("destroy");
  handle_ = nullptr;
}

TaskCollector::TaskCollector(size_t capacity, bool keep_arrays)
    : keep_arrays_(keep_arrays), queue_(capacity), thread_([this] { Drain(); }) {}

TaskCollector::~TaskCollector() { Stop(); }

void TaskCollector::SetInspector(std::function<void(const MediaTask&)> inspector) {
  std::lock_guard<std::mutex> lock(mutex_);
  inspector_ = std::move(inspector);
}

void TaskCollector::Drain() {
  pthread_setname_np(pthread_self(), "test_collect");
  TaskQueue::Task task;
  while (queue_.Pop(&task)) {
    ReceivedTask r;
    r.arrival = std::chrono::steady_clock::now();
    if (task.info != nullptr) r.type_name = task.info->type_name;
    std::function<void(const MediaTask&)> inspector;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      inspector = inspector_;
    }
    if (r.type_name == "qo::MediaTask" && task.data != nullptr) {
      const MediaTask& m = *static_cast<const MediaTask*>(task.data);
      r.source_id = m.source_id;
      r.time_stamp = m.time_stamp;
      r.reserved = m.reserved;
      r.flag = m.flag;
      r.extra_size = m.extra.size();
      r.shape = m.data.Shape();
      if (m.data.GetExtInfo() != nullptr) r.ext = *m.data.GetExtInfo();
      r.tensor_data = m.data.GetTensorData();
      r.tensor_size = m.data.GetTensorDataSize();
      if (keep_arrays_) r.data = m.data;
      if (inspector) inspector(m);
    }
    TaskQueue::Dispose(task);
    task = TaskQueue::Task();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      tasks_.push_back(std::move(r));
    }
    changed_.notify_all();
  }
}

bool TaskCollector::WaitFor(const std::function<bool(const std::vector<ReceivedTask>&)>& pred,
                            int timeout_ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [&] { return pred(tasks_); });
}

bool TaskCollector::WaitForFlag(int32_t flag, int timeout_ms) {
  return WaitFor(
      [flag](const std::vector<ReceivedTask>& tasks) {
        for (const ReceivedTask& t : tasks) {
          if (t.flag == flag) return true;
        }
        return false;
      },
      timeout_ms);
}

std::vector<ReceivedTask> TaskCollector::Tasks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return tasks_;
}

size_t TaskCollector::Count(int32_t flag) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (const ReceivedTask& t : tasks_) n += t.flag == flag ? 1 : 0;
  return n;
}

std::vector<NDArray> TaskCollector::TakeArrays() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<NDArray> arrays;
  for (ReceivedTask& t : tasks_) {
    if (t.data.defined()) arrays.push_back(std::move(t.data));
  }
  return arrays;
}

void TaskCollector::Stop() {
  queue_.Close();
  if (thread_.joinable()) thread_.join();
}

}  // namespace testhost
}  // namespace qo
