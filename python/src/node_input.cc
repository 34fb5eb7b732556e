#include "node_input.h"

#include <utility>

#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "core/qo_node.h"
#include "core/qo_registry.h"

namespace qopy {

namespace {

// Enough for bursts of a fast camera while Python is busy; the node waits
// when it is full, as it would behind any slow consumer.
constexpr size_t kQueueCapacity = 16;

const qo::PackedFunc& Function(const std::string& name) {
  const qo::PackedFunc* f = qo::Registry::Get(name);
  if (f == nullptr) throw qo::Error("libqosdkmm registered no function " + name);
  return *f;
}

}  // namespace

NodeInput::NodeInput(const std::string& node) : queue_(kQueueCapacity) {
  if (node != "file" && node != "video") throw qo::Error("unknown node kind " + node);
  prefix_ = "qo.mm." + node + ".in.";
  node_ = Function(prefix_ + "create")().AsHandle();
  if (node_ == nullptr) throw qo::Error(prefix_ + "create made no node");
}

NodeInput::~NodeInput() { Close(); }

ParamKind NodeInput::Lookup(const std::string& key, std::string* name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (node_ == nullptr) return ParamKind::kUnknown;
  const qo::Prop& prop = static_cast<qo::Thread*>(node_)->GetProp();
  std::string dashed = key;
  for (char& c : dashed) c = c == '_' ? '-' : c;
  for (const std::string& k : {dashed, key}) {
    *name = k;
    if (prop.int_paras_.count(k) > 0) return ParamKind::kInt;
    if (prop.double_paras_.count(k) > 0) return ParamKind::kDouble;
    if (prop.string_paras_.count(k) > 0) return ParamKind::kString;
  }
  return ParamKind::kUnknown;
}

void NodeInput::Set(const std::string& name, int value) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (node_ != nullptr) Function(prefix_ + "set.attr.int")(node_, name, value);
}

void NodeInput::Set(const std::string& name, double value) {
  // No registered setter takes a double: the store is the node's own.
  std::lock_guard<std::mutex> lock(mutex_);
  if (node_ != nullptr) static_cast<qo::Thread*>(node_)->GetProp().Set(name, value);
}

void NodeInput::Set(const std::string& name, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (node_ != nullptr) Function(prefix_ + "set.attr.string")(node_, name, value);
}

void NodeInput::Open() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (node_ == nullptr) throw qo::Error("the input is closed");
  if (started_) return;
  static_cast<qo::Thread*>(node_)->SetTxQue(&queue_, 0);
  Function(prefix_ + "open")(node_);
  started_ = true;
}

NodeTask NodeInput::Next(int timeout_ms) {
  NodeTask out;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (node_ == nullptr) return out.kind = NodeTask::kClosed, out;
    if (finished_) return out.kind = NodeTask::kEnd, out;
  }
  qo::TaskQueue::Task task;
  if (!queue_.Pop(&task, timeout_ms)) {
    out.kind = queue_.closed() ? NodeTask::kClosed : NodeTask::kNothing;
    return out;
  }
  const auto* media = static_cast<const qo::MediaTask*>(task.data);
  const int flag = media != nullptr ? media->flag : 1;
  if (media != nullptr) {
    out.data = media->data;
    out.source_id = media->source_id;
    out.time_stamp = media->time_stamp;
  }
  qo::TaskQueue::Dispose(task);
  if (flag == 0) return out.kind = NodeTask::kFrame, out;
  std::lock_guard<std::mutex> lock(mutex_);
  finished_ = true;
  out.data.reset();
  out.kind = flag == 2 ? NodeTask::kTimeout : NodeTask::kEnd;
  // The reason lives in the stream, which close ends: read it now.
  if (out.kind == NodeTask::kTimeout) out.error_code = LastErrorLocked(&out.error_text);
  return out;
}

void NodeInput::Close() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (node_ == nullptr) return;
  // A closed queue fails the node's sends at once instead of waiting for
  // room, so its output thread ends while it stops; it also wakes Next.
  queue_.Close();
  try {
    if (started_) Function(prefix_ + "close")(node_);
  } catch (const std::exception& e) {
    LOG(3) << "closing " << prefix_ << " node: " << e.what();
  }
  static_cast<qo::Thread*>(node_)->SetTxQue(nullptr, 0);
  Function(prefix_ + "destroy")(node_);
  node_ = nullptr;
  qo::TaskQueue::Task task;
  while (queue_.Pop(&task, 0)) qo::TaskQueue::Dispose(task);
}

int NodeInput::LastError(std::string* text) {
  std::lock_guard<std::mutex> lock(mutex_);
  return LastErrorLocked(text);
}

int NodeInput::LastErrorLocked(std::string* text) {
  text->clear();
  if (node_ == nullptr || prefix_ != "qo.mm.video.in.") return -1;
  *text = Function(prefix_ + "last.error")(node_).AsString();
  return static_cast<int>(Function(prefix_ + "last.error.code")(node_).AsInt64());
}

std::string NodeInput::StatsJson() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (node_ == nullptr || prefix_ != "qo.mm.video.in.") return "";
  return Function(prefix_ + "stats")(node_).AsString();
}

bool NodeInput::closed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return node_ == nullptr;
}

}  // namespace qopy
