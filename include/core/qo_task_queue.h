// The bounded queue between nodes and the type information that travels
// with each task.
#ifndef QO_CORE_QO_TASK_QUEUE_H_
#define QO_CORE_QO_TASK_QUEUE_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "core/qo_export.h"
#include "core/qo_ndarray.h"

namespace qo {

struct TaskTypeInfo;

// Bounded multi-producer, multi-consumer queue of tasks.
class QO_EXPORT TaskQueue {
 public:
  // A task: an opaque pointer and the type that knows how to serialise and
  // free it. The shared type info outlives the port that sent the task.
  struct Task {
    void* data = nullptr;
    std::shared_ptr<const TaskTypeInfo> info;
  };

  explicit TaskQueue(size_t capacity = 16);
  // Disposes of the tasks still queued.
  ~TaskQueue();
  TaskQueue(const TaskQueue&) = delete;
  TaskQueue& operator=(const TaskQueue&) = delete;

  // Waits while the queue is full (timeout_ms < 0: without limit). Returns
  // false on close or time-out; the caller then still owns the task.
  bool Push(const Task& task, int timeout_ms = -1);
  // Waits while the queue is empty. Returns false on time-out, or when the
  // queue is closed and drained.
  bool Pop(Task* task, int timeout_ms = -1);
  // Refuses further pushes and wakes every waiter; queued tasks can still be
  // popped.
  void Close();

  size_t size() const;
  size_t capacity() const { return capacity_; }
  bool closed() const;

  // Frees a task through its type's free function or, when that is empty,
  // through its serialiser (which takes ownership) with the result dropped.
  static void Dispose(Task& task);

 private:
  friend class POUT;
  // Push that also gives up (false) once give_up() holds; whoever makes it
  // hold calls WakeSenders, so a full queue costs its senders no wake-ups.
  bool PushUnless(const Task& task, const std::function<bool()>& give_up, int timeout_ms = -1);
  void WakeSenders();

  const size_t capacity_;
  mutable std::mutex mutex_;
  std::condition_variable not_full_;
  std::condition_variable not_empty_;
  std::deque<Task> tasks_;
  bool closed_ = false;
};

struct TaskTypeInfo {
  std::string type_name;
  // Turns a task into an array; takes ownership of the task.
  std::function<NDArray(void*)> serialise;
  std::function<void(TaskQueue::Task)> free;
};

}  // namespace qo

#endif  // QO_CORE_QO_TASK_QUEUE_H_
