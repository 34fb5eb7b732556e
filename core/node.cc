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
  // Short waits, so that a release (or a new queue) is seen while full.
  constexpr int kWaitSliceMs = 20;
  TaskQueue::Task t;
  t.data = task;
  t.info = GetTypeInfo();
  for (TaskQueue* que = GetTxQue(); que != nullptr; que = GetTxQue()) {
    const bool released = released_.load(std::memory_order_acquire);
    if (que->Push(t, released ? 0 : kWaitSliceMs)) return true;
    if (released || que->closed()) break;
  }
  TaskQueue::Dispose(t);
  return false;
}

void POUT::SetTxQue(TaskQueue* que) {
  tx_que_.store(que, std::memory_order_release);
  enabled_.store(que != nullptr, std::memory_order_release);
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
