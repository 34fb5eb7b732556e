// The host side of the framework in one place: load a node library, create a
// node by class name or by registered function prefix, set its parameters,
// attach queues to its ports, take its tasks, and close and destroy it.
//
//   qo::LoadNodeLibrary("libqosdkmm.so.0");    // its nodes register at load
//   qo::HostNode node("qo.mm.file.in");        // or a class: "qo::FileInput"
//   node.SetString("file", "clip.h264");
//   node.AttachQueue(0);                       // a queue of the node's own
//   node.Open();
//   for (qo::TaskQueue::Task t; node.Pop(&t, 5000);) { ...; qo::TaskQueue::Dispose(t); }
//
// Failures of the node arrive as qo::Error from the call that met them.
#ifndef QO_CORE_QO_HOST_H_
#define QO_CORE_QO_HOST_H_

#include <memory>
#include <string>
#include <utility>

#include "core/qo_export.h"
#include "core/qo_node.h"
#include "core/qo_registry.h"
#include "core/qo_task_queue.h"

namespace qo {

// Loads the shared library at path with dlopen; its nodes register while it
// loads. Libraries stay loaded (the registries keep their functions), so a
// second call for the same path does nothing. "" on success, else the
// loader's message.
QO_EXPORT std::string LoadNodeLibrary(const std::string& path);

// The global function registered as name; throws qo::Error when none is.
QO_EXPORT const PackedFunc& HostFunction(const std::string& name);

// One node, closed (if open), detached from its queues and destroyed at the
// end of its scope.
class QO_EXPORT HostNode {
 public:
  // name: a function prefix with a registered "<name>.create"
  // ("qo.mm.video.in"), else a node class ("qo::VideoInput"). Throws
  // qo::Error when it is neither.
  explicit HostNode(const std::string& name);
  ~HostNode();
  HostNode(const HostNode&) = delete;
  HostNode& operator=(const HostNode&) = delete;

  void* handle() const { return handle_; }
  Thread* thread() const { return static_cast<Thread*>(handle_); }

  // Calls "<prefix>.<verb>" with the node as argument 0 (prefix nodes only).
  template <typename... Args>
  QORetValue Call(const std::string& verb, Args&&... args) const {
    return HostFunction(Verb(verb))(handle_, std::forward<Args>(args)...);
  }

  // Through "set.attr.int"/"set.attr.string" for prefix nodes, the property
  // store otherwise; doubles always go to the property store.
  void SetInt(const std::string& key, int value);
  void SetString(const std::string& key, const std::string& value);
  void SetDouble(const std::string& key, double value);

  // Attaches queue (not owned; null detaches) to an output port.
  void Attach(TaskQueue* queue, int port = 0);
  // Attaches a queue of the node's own to port, replacing one attached before.
  void AttachQueue(int port = 0, size_t capacity = 16);
  // Takes the next task from port's own queue, waiting up to timeout_ms
  // (negative: without end); false when none came or there is no such queue.
  bool Pop(TaskQueue::Task* task, int timeout_ms, int port = 0);

  // Starts the node ("<prefix>.open" or Thread::Start).
  void Open();
  // Stops the node. Its own queues are closed first, so that its sends fail
  // instead of waiting for room, and emptied after; they stay closed. Does
  // nothing when the node is not open.
  void Close();
  bool opened() const { return opened_; }

 private:
  std::string Verb(const std::string& verb) const { return name_ + "." + verb; }

  std::string name_;
  bool by_prefix_ = false;
  void* handle_ = nullptr;
  bool opened_ = false;
  std::unique_ptr<TaskQueue> queues_[Thread::kMaxPorts];
};

}  // namespace qo

#endif  // QO_CORE_QO_HOST_H_
