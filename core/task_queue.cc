// Bounded queue between nodes.
#include <chrono>
#include <mutex>

#include "core/qo_logging.h"
#include "core/qo_task_queue.h"

namespace qo {

namespace {

// Waits on cv until ready() holds; timeout_ms < 0 waits without limit.
template <typename Ready>
bool WaitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, int timeout_ms,
             Ready ready) {
  if (timeout_ms < 0) {
    cv.wait(lock, ready);
    return true;
  }
  return cv.wait_for(lock, std::chrono::milliseconds(timeout_ms), ready);
}

}  // namespace

TaskQueue::TaskQueue(size_t capacity) : capacity_(capacity == 0 ? 1 : capacity) {}

TaskQueue::~TaskQueue() {
  for (Task& task : tasks_) Dispose(task);
}

bool TaskQueue::Push(const Task& task, int timeout_ms) {
  return PushUnless(task, nullptr, timeout_ms);
}

bool TaskQueue::PushUnless(const Task& task, const std::function<bool()>& give_up, int timeout_ms) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool ready = WaitFor(not_full_, lock, timeout_ms, [&] {
      return closed_ || tasks_.size() < capacity_ || (give_up && give_up());
    });
    if (!ready || closed_ || tasks_.size() >= capacity_) return false;
    tasks_.push_back(task);
  }
  not_empty_.notify_one();
  return true;
}

void TaskQueue::WakeSenders() {
  // Taking the lock orders this after a sender's last look at give_up(): it
  // is then either waiting, and woken here, or has yet to look.
  { std::lock_guard<std::mutex> lock(mutex_); }
  not_full_.notify_all();
}

bool TaskQueue::Pop(Task* task, int timeout_ms) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    bool ready =
        WaitFor(not_empty_, lock, timeout_ms, [this] { return closed_ || !tasks_.empty(); });
    if (!ready || tasks_.empty()) return false;
    *task = std::move(tasks_.front());
    tasks_.pop_front();
  }
  not_full_.notify_one();
  return true;
}

void TaskQueue::Close() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }
  not_full_.notify_all();
  not_empty_.notify_all();
}

size_t TaskQueue::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return tasks_.size();
}

bool TaskQueue::closed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

void TaskQueue::Dispose(Task& task) {
  if (task.data != nullptr) {
    if (task.info && task.info->free) {
      task.info->free(task);
    } else if (task.info && task.info->serialise) {
      // The serialiser takes the task over; dropping its array frees the rest.
      // A frame sent to several ports shares one array, and every serialiser
      // writes its header into that array's side buffer: one at a time.
      static std::mutex serialise_mutex;
      std::lock_guard<std::mutex> lock(serialise_mutex);
      task.info->serialise(task.data);
    } else {
      LOG(4) << "task without type information cannot be freed";
    }
  }
  task.data = nullptr;
  task.info.reset();
}

}  // namespace qo
