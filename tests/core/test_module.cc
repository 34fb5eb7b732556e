// A small node module registered the way the media nodes register
// themselves; loaded with dlopen by the registry test.
#include <string>

#include "core/qo_media_task.h"
#include "core/qo_node.h"
#include "core/qo_registry.h"

namespace qo {
namespace coretest {

// Start sends one MediaTask (source_id = "stream-id") to port 0.
class EchoNode : public Thread {
 public:
  EchoNode() {
    pout_[0]->SetTypeInfo("qo::MediaTask", TaskSerializeCustom<MediaTask>, nullptr);
    prop_.SetDefault("stream-id", 0, -2147483647 - 1, 2147483647);
    name_ = "echo";
  }
  void Start() override {
    auto* task = new MediaTask();
    task->data = NDArray::Empty(0, 0);
    prop_.Get("stream-id", task->source_id);
    pout_[0]->Send(task);
  }
  void Stop() override {}
  void Proc(void*, int, POutType) override {}
};

void* Create() { return static_cast<Thread*>(new EchoNode()); }
Thread* NodeOf(QOArgs args) { return static_cast<Thread*>(static_cast<void*>(args[0])); }

}  // namespace coretest

namespace mm {

QO_REGISTER_GLOBAL("qo.test.echo.create").set_body([](QOArgs, QORetValue* rv) {
  *rv = coretest::Create();
});
QO_REGISTER_GLOBAL("qo.test.echo.set.attr.int").set_body([](QOArgs args, QORetValue*) {
  coretest::NodeOf(args)->GetProp().Set(args[1], static_cast<int>(args[2]));
});
QO_REGISTER_GLOBAL("qo.test.echo.open").set_body([](QOArgs args, QORetValue*) {
  coretest::NodeOf(args)->Start();
});

}  // namespace mm

QO_REGISTER_NODE_CLASS("qo::EchoNode", coretest::Create,
                       [](void* node) { delete static_cast<Thread*>(node); });

// Names each registration's variable: the counter scheme is checked by this
// file compiling at all.
namespace mm {
QO_REGISTER_GLOBAL("qo.test.registrations").set_body([](QOArgs, QORetValue* rv) {
  *rv = __mk_QO0.name() + "," + __mk_QO1.name() + "," + __mk_QO2.name() + "," + qo::__mk_QO3.name();
});
}  // namespace mm

}  // namespace qo
