// Output ports and the node base class that every node derives from.
#ifndef QO_CORE_QO_NODE_H_
#define QO_CORE_QO_NODE_H_

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "core/qo_export.h"
#include "core/qo_ndarray.h"
#include "core/qo_prop.h"
#include "core/qo_task_queue.h"

namespace qo {

// What a node hands to Proc: a task pointer or an array.
enum POutType {
  kPOutTask = 0,
  kPOutNDArray = 1,
};

// One output port: its transmit queue and the type of the tasks it sends.
class QO_EXPORT POUT {
 public:
  POUT() = default;
  virtual ~POUT();
  // Takes ownership of task and queues it, waiting while the queue is full.
  // Without a queue, or when the queue is closed, the task is disposed of
  // and the result is false. A released port does not wait: a task that
  // finds the queue full is disposed of (false).
  virtual bool Send(void* task);
  // Releases (or holds again) a sender waiting on a full queue: a stopping
  // node must not wait for a consumer that may never come back.
  void SetReleased(bool released);
  bool released() const { return released_.load(); }

  // Attaches (non-null) or detaches (null) the transmit queue.
  void SetTxQue(TaskQueue* que);
  TaskQueue* GetTxQue() const { return tx_que_.load(std::memory_order_acquire); }
  bool enabled() const { return enabled_.load(std::memory_order_acquire); }

  void SetTypeInfo(const std::string& type_name, std::function<NDArray(void*)> serialise,
                   std::function<void(TaskQueue::Task)> free);
  std::shared_ptr<const TaskTypeInfo> GetTypeInfo() const;

  POUT(const POUT&) = delete;
  POUT& operator=(const POUT&) = delete;

 private:
  std::atomic<TaskQueue*> tx_que_{nullptr};
  std::atomic<bool> enabled_{false};
  std::atomic<bool> released_{false};
  std::atomic<int> senders_{0};  // threads inside Send
  mutable std::mutex info_mutex_;
  std::shared_ptr<const TaskTypeInfo> info_;
};

// Base of every node: 15 output ports, a receive queue, a parameter store
// and the node-kind name.
class QO_EXPORT Thread {
 public:
  static constexpr int kMaxPorts = 15;

  Thread();
  virtual ~Thread();
  virtual void Start() = 0;
  virtual void Stop() = 0;
  // Only the upper bound is checked: a negative port returns true and
  // changes nothing.
  virtual bool SetTxQue(TaskQueue* que, int port) {
    if (port > 14) return false;
    if (port >= 0) pout_[port]->SetTxQue(que);
    return true;
  }
  virtual void SetRxQue(TaskQueue* que) { rx_que_ = que; }
  virtual void UpdatePara();
  virtual void Proc(void* task, int port, POutType type) = 0;
  // Sends task through output port port (taking ownership); a port out of
  // range disposes of the task.
  virtual void SetOutput(void* task, int port);
  // POUT::SetReleased on every output port.
  void SetOutputsReleased(bool released);

  Prop& GetProp() { return prop_; }
  const Prop& GetProp() const { return prop_; }
  const std::string& name() const { return name_; }
  POUT* GetPOUT(int port) const { return port >= 0 && port < kMaxPorts ? pout_[port] : nullptr; }
  TaskQueue* GetRxQue() const { return rx_que_; }

  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

 protected:
  POUT* pout_[kMaxPorts];
  TaskQueue* rx_que_ = nullptr;
  std::string name_;
  Prop prop_;
};

}  // namespace qo

#endif  // QO_CORE_QO_NODE_H_
