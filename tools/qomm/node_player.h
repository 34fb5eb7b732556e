// One source node driven the way a framework drives it: set up through its
// property store, started, its tasks taken from a queue on output port 0 (or,
// in sync mode, pulled with the node's GetFrame), then stopped.
#ifndef QO_TOOLS_QOMM_NODE_PLAYER_H_
#define QO_TOOLS_QOMM_NODE_PLAYER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "core/qo_ndarray.h"
#include "core/qo_node.h"
#include "core/qo_task_queue.h"

namespace qomm {

enum class NodeKind { kFileInput, kVideoInput };

// What one task carried.
struct FrameInfo {
  int status = 0;  // 0 frame, 1 end of stream, 2 time-out
  int source_id = 0;
  int format = 0;
  int kind = 0;  // 2 raw picture, 3 encoded
  int width = 0;
  int height = 0;
  size_t bytes = 0;
  uint64_t pts = 0;
  const uint8_t* data = nullptr;
  qo::NDArray array;  // keeps data alive
};

class NodePlayer {
 public:
  NodePlayer(NodeKind kind, bool sync);
  // Stops the node when it was started.
  ~NodePlayer();
  NodePlayer(const NodePlayer&) = delete;
  NodePlayer& operator=(const NodePlayer&) = delete;

  void SetInt(const std::string& key, int value);
  void SetString(const std::string& key, const std::string& value);
  void SetDouble(const std::string& key, double value);

  // Attaches the queue and starts the node. Failures of the node arrive as
  // qo::Error.
  void Open();
  // Waits up to about slice_ms for the next task; false when none came.
  bool Next(FrameInfo* info, int slice_ms);
  // Stops the node and disposes of the tasks it still sends. Idempotent.
  void Close();
  // The video input node's reason for delivering no frames: its stream
  // error code (0 none, -1 no stream or a file input node) and text.
  int LastError(std::string* text) const;

  NodeKind kind() const { return kind_; }

 private:
  bool PullSync(FrameInfo* info);

  NodeKind kind_;
  bool sync_;
  std::unique_ptr<qo::Thread> node_;
  bool opened_ = false;
  qo::TaskQueue queue_;
  // Sync mode: seconds without a frame before the source counts as stalled
  // (three pulls' worth, as the node's own output thread allows).
  int timeout_s_ = 3;
  int empty_pulls_ = 0;
  int stream_id_ = 0;
};

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_NODE_PLAYER_H_
