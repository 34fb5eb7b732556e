// What the two source nodes share: parameter bounds, sending one frame to
// every connected port, returning a frame to its layer, and the pacing
// sleep. Internal to the library.
#ifndef FML_VIDEO_IN_NODE_COMMON_H_
#define FML_VIDEO_IN_NODE_COMMON_H_

#include <time.h>

#include <cstdint>

#include "core/qo_media_task.h"
#include "core/qo_ndarray.h"
#include "core/qo_node.h"
#include "hal_mm_video_common.h"

namespace qo {
namespace mm {

constexpr int kIntMin = -2147483647 - 1;
constexpr int kIntMax = 2147483647;
// Both nodes send their frames through their first four ports.
constexpr int kFramePorts = 4;

// One task per connected port, each with its own reference to the frame.
inline void SendToPorts(POUT* const* ports, const NDArray& frame, int32_t source_id,
                        unsigned int status) {
  const ExtInfo* ext = frame.GetExtInfo();
  for (int i = 0; i < kFramePorts; ++i) {
    if (!ports[i]->enabled()) continue;
    MediaTask* task = new MediaTask();
    task->data = frame;
    task->source_id = source_id;
    task->time_stamp = ext != nullptr ? static_cast<int64_t>(ext->time_stamp) : 0;
    task->reserved = 0;
    task->flag = static_cast<int32_t>(status);
    ports[i]->Send(task);
  }
}

// The deleter of a frame array: the frame memory goes back to the layer that
// filled it, with the frame record and the container.
inline void ReleaseFrame(NDArray::Container* container, void (*layer_free)(qo_StreamInfo*)) {
  auto* record = static_cast<qo_StreamInfo*>(container->manager_ctx);
  if (record != nullptr) {
    layer_free(record);
    delete record;
  }
  delete container;
}

// Sleeps one frame interval, whole milliseconds; framerate 0 or less: none.
inline void PaceFrame(double framerate) {
  if (framerate <= 0) return;
  const int64_t ms = static_cast<int64_t>(1000.0 / framerate);
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(ms / 1000);
  ts.tv_nsec = static_cast<long>((ms % 1000) * 1000000);
  nanosleep(&ts, nullptr);
}

}  // namespace mm
}  // namespace qo

#endif  // FML_VIDEO_IN_NODE_COMMON_H_
