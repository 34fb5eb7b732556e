// The task type the source nodes send downstream, and its serialiser.
#ifndef QO_CORE_QO_MEDIA_TASK_H_
#define QO_CORE_QO_MEDIA_TASK_H_

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/qo_ndarray.h"

namespace qo {

struct MediaTask {
  NDArray data;
  int32_t source_id = 0;
  int64_t time_stamp = 0;
  int32_t reserved = 0;
  int32_t flag = 0;
  std::vector<uint8_t> extra;
};

// Turns a heap task of type T into an array, taking ownership of the task.
template <typename T>
NDArray TaskSerializeCustom(void* task);

namespace detail {
inline void PutLittleEndian(uint8_t* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}
}  // namespace detail

// Writes the 20-byte little-endian header (source_id, time_stamp, reserved,
// flag) and as much of extra as fits into the array's side buffer, then
// returns a new reference to the array. Extra bytes that do not fit are
// dropped.
template <>
inline NDArray TaskSerializeCustom<MediaTask>(void* p) {
  MediaTask* task = static_cast<MediaTask*>(p);
  constexpr size_t kHeaderBytes = 20;
  uint8_t* bear = static_cast<uint8_t*>(task->data.GetBearData());
  size_t cap = task->data.GetBearDataCap();
  if (bear != nullptr && cap >= kHeaderBytes) {
    detail::PutLittleEndian(bear, static_cast<uint32_t>(task->source_id), 4);
    detail::PutLittleEndian(bear + 4, static_cast<uint64_t>(task->time_stamp), 8);
    detail::PutLittleEndian(bear + 12, static_cast<uint32_t>(task->reserved), 4);
    detail::PutLittleEndian(bear + 16, static_cast<uint32_t>(task->flag), 4);
    size_t used = kHeaderBytes;
    int32_t room = static_cast<int32_t>(cap) - static_cast<int32_t>(kHeaderBytes);
    if (room > 0 && !task->extra.empty()) {
      size_t copied = std::min(static_cast<size_t>(room), task->extra.size());
      std::memcpy(bear + kHeaderBytes, task->extra.data(), copied);
      used += copied;
    }
    std::vector<int64_t> shape;
    task->data.Shrink(shape, used);
  }
  NDArray ret = task->data;
  delete task;
  return ret;
}

}  // namespace qo

#endif  // QO_CORE_QO_MEDIA_TASK_H_
