// One source node of libqosdkmm driven as a framework drives it: created and
// opened through its registered functions, its tasks taken from a queue
// attached to output port 0. Nothing here touches Python.
#ifndef QO_PYTHON_NODE_INPUT_H_
#define QO_PYTHON_NODE_INPUT_H_

#include <cstdint>
#include <mutex>
#include <string>

#include "core/qo_ndarray.h"
#include "core/qo_task_queue.h"

namespace qopy {

// Value kinds of a node parameter, as the node declared it.
enum class ParamKind { kUnknown, kInt, kDouble, kString };

struct NodeTask {
  enum Kind { kFrame, kEnd, kTimeout, kClosed, kNothing };
  Kind kind = kNothing;
  qo::NDArray data;
  int32_t source_id = 0;
  int64_t time_stamp = 0;
  // kTimeout: the stream's reason, read while the node still runs.
  int error_code = -1;
  std::string error_text;
};

class NodeInput {
 public:
  // node: "file" (qo.mm.file.in.*) or "video" (qo.mm.video.in.*).
  explicit NodeInput(const std::string& node);
  ~NodeInput();
  NodeInput(const NodeInput&) = delete;
  NodeInput& operator=(const NodeInput&) = delete;

  // The declared name for key ("stream_id" finds "stream-id"; "save_stream"
  // is declared with its underscore) and its kind; kUnknown when neither is.
  ParamKind Lookup(const std::string& key, std::string* name) const;
  // Through the node's parameter store; out of range throws qo::Error.
  void Set(const std::string& name, int value);
  void Set(const std::string& name, double value);
  void Set(const std::string& name, const std::string& value);

  // Attaches the queue and starts the node; its failures throw qo::Error.
  void Open();
  // Waits up to timeout_ms for the next task. After an end of stream or a
  // time-out every call returns kEnd; after Close, kClosed.
  NodeTask Next(int timeout_ms);
  // Stops and destroys the node and wakes a waiting Next. Idempotent, safe
  // from any thread.
  void Close();
  // The video input node's stream error (code, text); -1 without a stream.
  int LastError(std::string* text);
  // The video node's counters as JSON ("" without a stream or for files).
  std::string StatsJson();
  bool closed() const;

 private:
  int LastErrorLocked(std::string* text);

  std::string prefix_;
  void* node_ = nullptr;
  qo::TaskQueue queue_;
  // Guards node_ and the state below against a Close from another thread.
  mutable std::mutex mutex_;
  bool started_ = false;
  bool finished_ = false;
};

}  // namespace qopy

#endif  // QO_PYTHON_NODE_INPUT_H_
