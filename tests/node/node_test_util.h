// Host side shared by the node tests: the test host's node and collector,
// and what a test reads back from a collected task.
#ifndef QO_TESTS_NODE_NODE_TEST_UTIL_H_
#define QO_TESTS_NODE_NODE_TEST_UTIL_H_

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "node/qo_video_in_node.h"
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

// Every global function of `prefix` given a null node logs "<node> is NULL
// !!!" at its own severity (3 for destroy and close, 4 for the rest) and no
// higher; call(function) makes the call with arguments of the right kinds.
template <typename Call>
void ExpectNullHandleSeverities(const std::string& prefix, const std::string& node, Call call) {
  const struct {
    const char* verb;
    int severity;
  } verbs[] = {{"destroy", 3},     {"open", 4},         {"close", 3},
               {"update.para", 4}, {"set.attr.int", 4}, {"set.attr.string", 4}};
  for (const auto& v : verbs) {
    for (int level : {v.severity, v.severity + 1}) {
      LogCapture logs(level);
      call(std::string(v.verb), testhost::Func(prefix + "." + v.verb));
      EXPECT_EQ(logs.Count(": " + node + " is NULL !!!\n"), level == v.severity ? 1u : 0u)
          << v.verb << " at level " << level;
    }
  }
}

inline size_t CountFlag(const Tasks& tasks, int32_t flag) {
  return TaskCollector::Count(tasks, flag);
}

// The frame bytes of an array (of a task whose array the collector kept).
inline std::vector<uint8_t> Bytes(const NDArray& a) {
  const auto* p = static_cast<const uint8_t*>(a.GetTensorData());
  return p == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(p, p + a.GetTensorDataSize());
}

// Format, kind, zeros and picture size of an array's ExtInfo.
inline std::vector<int32_t> ExtFields(const NDArray& a) {
  const ExtInfo& e = *a.GetExtInfo();
  return {e.format, e.kind, e.zero0, e.zero1, e.width, e.height, e.zero2};
}

// The video input node as a class, for its frame wrapping.
class VideoInputProbe : public mm::VideoInput {
 public:
  using mm::VideoInput::WrapFrame;
};

}  // namespace nodetest
}  // namespace qo

#endif  // QO_TESTS_NODE_NODE_TEST_UTIL_H_
