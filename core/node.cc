// Output ports and the node base.
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "core/qo_logging.h"
#include "core/qo_node.h"

namespace qo {

POUT::~POUT() = default;

bool POUT::Send(void* task) {
  TaskQueue::Task t;
  t.data = task;
  t.info = GetTypeInfo();
  // Counted before the queue is read, so that a release or a new queue either
  // is seen here or wakes this sender (both are sequentially consistent).
  senders_.fetch_add(1);
  bool sent = false;
  for (TaskQueue* que = GetTxQue(); que != nullptr; que = GetTxQue()) {
    if (released_.load()) {
      sent = que->Push(t, 0);
      break;
    }
    sent = que->PushUnless(t, [this, que] { return released_.load() || tx_que_.load() != que; });
    if (sent || que->closed()) break;
  }
  senders_.fetch_sub(1);
  if (!sent) TaskQueue::Dispose(t);
  return sent;
}

void POUT::SetReleased(bool released) {
  released_.store(released);
  if (!released || senders_.load() == 0) return;
  if (TaskQueue* que = GetTxQue()) que->WakeSenders();
}

void POUT::SetTxQue(TaskQueue* que) {
  TaskQueue* old = tx_que_.exchange(que);
  enabled_.store(que != nullptr, std::memory_order_release);
  // Only touched while a sender may be waiting on it, when it must be alive.
  if (old != nullptr && old != que && senders_.load() != 0) old->WakeSenders();
}

void POUT::SetTypeInfo(const std::string& type_name, std::function<NDArray(void*)> serialise,
                       std::function<void(TaskQueue::Task)> free) {
  auto info = std::make_shared<TaskTypeInfo>();
  info->type_name = type_name;
  info->serialise = std::move(serialise);
  info->free = std::move(free);
  std::lock_guard<std::mutex> lock(info_mutex_);
  info_ = std::move(info);
}

std::shared_ptr<const TaskTypeInfo> POUT::GetTypeInfo() const {
  std::lock_guard<std::mutex> lock(info_mutex_);
  return info_;
}

Thread::Thread() {
  for (int i = 0; i < kMaxPorts; ++i) pout_[i] = nullptr;
  try {
    for (int i = 0; i < kMaxPorts; ++i) pout_[i] = new POUT();
  } catch (...) {
    for (POUT* p : pout_) delete p;
    throw;
  }
}

Thread::~Thread() {
  for (POUT*& p : pout_) {
    delete p;
    p = nullptr;
  }
}

void Thread::UpdatePara() {}

void Thread::SetOutput(void* task, int port) {
  if (port >= 0 && port < kMaxPorts) {
    pout_[port]->Send(task);
    return;
  }
  // No such port: free the task as the node's first port would have.
  TaskQueue::Task t;
  t.data = task;
  t.info = pout_[0]->GetTypeInfo();
  TaskQueue::Dispose(t);
}

void Thread::SetOutputsReleased(bool released) {
  for (POUT* port : pout_) port->SetReleased(released);
}

}  // namespace qo
