// A host outside the source tree: built against the installed package with
// pkg-config, it calls a node function by its registered name.
#include <cstdio>

#include "core/qo_node.h"
#include "core/qo_registry.h"

int main() {
  const qo::PackedFunc* create = qo::Registry::Get("qo.mm.file.in.create");
  const qo::PackedFunc* destroy = qo::Registry::Get("qo.mm.file.in.destroy");
  if (create == nullptr || destroy == nullptr) return 1;
  void* node = (*create)().AsHandle();
  std::printf("created %s node\n", static_cast<qo::Thread*>(node)->name().c_str());
  (*destroy)(node);
  return 0;
}
