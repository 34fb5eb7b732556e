// The video input node as the tests drive it: by name through the test host,
// or as the class itself for the operations no global function reaches.
#ifndef QO_TESTS_NODE_VIDEO_IN_NODE_H_
#define QO_TESTS_NODE_VIDEO_IN_NODE_H_

#include "node/qo_video_in_node.h"
#include "node_test_util.h"

namespace qo {
namespace nodetest {

class VideoInNode : public HostNode {
 public:
  VideoInNode() : HostNode("qo.mm.video.in") {}
  mm::VideoInput* node() const { return static_cast<mm::VideoInput*>(handle()); }
};

// Shows the kept mode and gain and the frame wrapping.
class VideoInputProbe : public mm::VideoInput {
 public:
  using mm::VideoInput::WrapFrame;
  int32_t mode() const { return mode_; }
  uint8_t gain() const { return gain_; }
};

}  // namespace nodetest
}  // namespace qo

#endif  // QO_TESTS_NODE_VIDEO_IN_NODE_H_
