// Host side shared by the node tests: the test host's node and collector,
// and what a test reads back from a collected task.
#ifndef QO_TESTS_NODE_NODE_TEST_UTIL_H_
#define QO_TESTS_NODE_NODE_TEST_UTIL_H_

#include <chrono>
#include <cstdint>
#include <vector>

#include "test_common.h"
#include "test_host.h"

namespace qo {
namespace nodetest {

using testhost::HostNode;
using testhost::ReceivedTask;
using testhost::TaskCollector;
using testutil::ErrorText;
using testutil::LogCapture;
using Tasks = std::vector<ReceivedTask>;
using Shape = std::vector<int64_t>;

inline size_t CountFlag(const Tasks& tasks, int32_t flag) {
  size_t n = 0;
  for (const ReceivedTask& t : tasks) n += t.flag == flag ? 1 : 0;
  return n;
}

// The frame bytes of an array (of a task whose array the collector kept).
inline std::vector<uint8_t> Bytes(const NDArray& a) {
  const auto* p = static_cast<const uint8_t*>(a.GetTensorData());
  return p == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(p, p + a.GetTensorDataSize());
}
inline std::vector<uint8_t> Bytes(const ReceivedTask& t) { return Bytes(t.data); }

// The wall-clock time (CLOCK_REALTIME, ns) at which a task arrived.
inline int64_t WallNs(const ReceivedTask& t) {
  return testutil::RealtimeNs() - std::chrono::duration_cast<std::chrono::nanoseconds>(
                                      std::chrono::steady_clock::now() - t.arrival)
                                      .count();
}

// The fields of an ExtInfo before its time stamp.
inline std::vector<int32_t> ExtFields(const ExtInfo& e) {
  return {e.format, e.kind, e.zero0, e.zero1, e.width, e.height, e.zero2};
}

}  // namespace nodetest
}  // namespace qo

#endif  // QO_TESTS_NODE_NODE_TEST_UTIL_H_
