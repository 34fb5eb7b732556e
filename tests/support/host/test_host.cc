#include "test_host.h"

#include <pthread.h>

namespace qo {
namespace testhost {

std::string LoadSdk() { return LoadNodeLibrary(QO_SDKMM_PATH); }

const std::string& Loaded(const std::string& name) {
  std::string error = LoadSdk();
  if (!error.empty()) throw Error(error);
  return name;
}

const PackedFunc& Func(const std::string& name) { return HostFunction(Loaded(name)); }

TaskCollector::TaskCollector(size_t capacity, bool keep_arrays)
    : keep_arrays_(keep_arrays), queue_(capacity), thread_([this] {
        pthread_setname_np(pthread_self(), "test_collect");
        for (TaskQueue::Task task; queue_.Pop(&task); task = TaskQueue::Task()) {
          ReceivedTask r;
          r.arrival = std::chrono::steady_clock::now();
          if (task.info != nullptr && task.info->type_name == "qo::MediaTask") {
            const MediaTask& m = *static_cast<const MediaTask*>(task.data);
            r.source_id = m.source_id;
            r.reserved = m.reserved;
            r.flag = m.flag;
            r.time_stamp = m.time_stamp;
            r.extra_size = m.extra.size();
            if (keep_arrays_) r.data = m.data;
          }
          TaskQueue::Dispose(task);
          std::lock_guard<std::mutex> lock(mutex_);
          tasks_.push_back(std::move(r));
          changed_.notify_all();
        }
      }) {}

bool TaskCollector::WaitFor(const std::function<bool(const std::vector<ReceivedTask>&)>& pred,
                            int timeout_ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [&] { return pred(tasks_); });
}

bool TaskCollector::WaitForFlag(int32_t flag, int timeout_ms) {
  return WaitFor([flag](const std::vector<ReceivedTask>& tasks) { return Count(tasks, flag) > 0; },
                 timeout_ms);
}

std::vector<ReceivedTask> TaskCollector::Tasks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return tasks_;
}

size_t TaskCollector::Count(int32_t flag) const { return Count(Tasks(), flag); }

size_t TaskCollector::Count(const std::vector<ReceivedTask>& tasks, int32_t flag) {
  size_t n = 0;
  for (const ReceivedTask& t : tasks) n += t.flag == flag;
  return n;
}

void TaskCollector::Stop() {
  queue_.Close();
  if (thread_.joinable()) thread_.join();
}

}  // namespace testhost
}  // namespace qo
