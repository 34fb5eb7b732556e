#include <dlfcn.h>

#include <map>
#include <mutex>

#include "core/qo_host.h"
#include "core/qo_logging.h"

namespace qo {

std::string LoadNodeLibrary(const std::string& path) {
  static std::mutex mutex;
  static auto* errors = new std::map<std::string, std::string>();  // kept past exit
  std::lock_guard<std::mutex> lock(mutex);
  auto it = errors->find(path);
  if (it != errors->end()) return it->second;
  std::string error;
  if (dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL) == nullptr) {
    const char* text = dlerror();
    error = text != nullptr ? text : "cannot load " + path;
  }
  return (*errors)[path] = error;
}

const PackedFunc& HostFunction(const std::string& name) {
  const PackedFunc* f = Registry::Get(name);
  if (f == nullptr) throw Error("no global function " + name);
  return *f;
}

HostNode::HostNode(const std::string& name) : name_(name) {
  by_prefix_ = Registry::Get(Verb("create")) != nullptr;
  if (by_prefix_) {
    QORetValue rv = Call("create");
    handle_ = rv.type_code() == kHandle ? rv.AsHandle() : nullptr;
  } else {
    handle_ = NodeClassRegistry::Create(name_);
  }
  if (handle_ == nullptr) throw Error("no node " + name_ + " could be created");
}

HostNode::~HostNode() {
  try {
    Close();
  } catch (const std::exception& e) {
    LOG(3) << name_ << " did not stop: " << e.what();
  }
  for (int port = 0; port < Thread::kMaxPorts; ++port) {
    if (thread()->GetPOUT(port)->GetTxQue() != nullptr) thread()->SetTxQue(nullptr, port);
  }
  if (by_prefix_) {
    Call("destroy");
  } else {
    NodeClassRegistry::Destroy(name_, handle_);
  }
}

void HostNode::SetInt(const std::string& key, int value) {
  if (by_prefix_) {
    Call("set.attr.int", key, value);
  } else {
    thread()->GetProp().Set(key, value);
  }
}

void HostNode::SetString(const std::string& key, const std::string& value) {
  if (by_prefix_) {
    Call("set.attr.string", key, value);
  } else {
    thread()->GetProp().Set(key, value);
  }
}

void HostNode::SetDouble(const std::string& key, double value) {
  thread()->GetProp().Set(key, value);
}

void HostNode::Attach(TaskQueue* queue, int port) {
  if (port < 0 || port >= Thread::kMaxPorts) throw Error("no output port " + std::to_string(port));
  thread()->SetTxQue(queue, port);
  queues_[port].reset();  // an own queue it replaces is no longer attached
}

void HostNode::AttachQueue(int port, size_t capacity) {
  std::unique_ptr<TaskQueue> queue(new TaskQueue(capacity));
  Attach(queue.get(), port);
  queues_[port] = std::move(queue);
}

bool HostNode::Pop(TaskQueue::Task* task, int timeout_ms, int port) {
  if (port < 0 || port >= Thread::kMaxPorts || !queues_[port]) return false;
  return queues_[port]->Pop(task, timeout_ms);
}

void HostNode::Open() {
  opened_ = true;  // a start that failed half-way still needs its stop
  if (by_prefix_) {
    Call("open");
  } else {
    thread()->Start();
  }
}

void HostNode::Close() {
  if (!opened_) return;
  opened_ = false;
  for (auto& queue : queues_) {
    if (queue) queue->Close();
  }
  if (by_prefix_) {
    Call("close");
  } else {
    thread()->Stop();
  }
  for (auto& queue : queues_) {
    for (TaskQueue::Task task; queue && queue->Pop(&task, 0); task = TaskQueue::Task()) {
      TaskQueue::Dispose(task);
    }
  }
}

}  // namespace qo
