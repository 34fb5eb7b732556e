// A node module built as a shared library and loaded with dlopen: its
// functions and node class are found and called by name; duplicate names
// and argument packing.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "core/qo_node.h"
#include "core/qo_registry.h"
#include "test_common.h"

namespace {

bool Contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

TEST(RegistryTest, LoadedModuleIsDrivenByName) {
  // Kept loaded: the registries hold functions that live in the module.
  ASSERT_NE(dlopen(QO_CORE_TEST_MODULE, RTLD_NOW), nullptr) << dlerror();
  std::vector<std::string> names = qo::Registry::ListNames();
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_TRUE(Contains(names, "qo.test.echo.open"));
  EXPECT_TRUE(Contains(qo::NodeClassRegistry::ListNames(), "qo::EchoNode"));
  EXPECT_EQ(qo::Registry::Get("qo.test.missing"), nullptr);
  EXPECT_EQ((*qo::Registry::Get("qo.test.registrations"))().AsString(),
            "qo.test.echo.create,qo.test.echo.set.attr.int,qo.test.echo.open,qo::EchoNode");

  qo::QORetValue rv = (*qo::Registry::Get("qo.test.echo.create"))();
  ASSERT_EQ(rv.type_code(), qo::kHandle);
  auto* node = static_cast<qo::Thread*>(rv.AsHandle());
  qo::TaskQueue q(4);
  ASSERT_TRUE(node->SetTxQue(&q, 0));
  (*qo::Registry::Get("qo.test.echo.set.attr.int"))(node, "stream-id", 42);
  // A failed check inside the module reaches the host as qo::Error.
  EXPECT_THROW((*qo::Registry::Get("qo.test.echo.set.attr.int"))(node, "nope", 1), qo::Error);
  (*qo::Registry::Get("qo.test.echo.open"))(node);
  qo::TaskQueue::Task task;
  ASSERT_TRUE(q.Pop(&task, 0));
  qo::NDArray array = task.info->serialise(task.data);
  EXPECT_EQ(static_cast<const uint8_t*>(array.GetBearData())[0], 42);
  qo::NodeClassRegistry::Destroy("qo::EchoNode", node);

  void* by_class = qo::NodeClassRegistry::Create("qo::EchoNode");
  ASSERT_NE(by_class, nullptr);
  EXPECT_EQ(static_cast<qo::Thread*>(by_class)->name(), "echo");
  qo::NodeClassRegistry::Destroy("qo::EchoNode", by_class);
  EXPECT_EQ(qo::NodeClassRegistry::Create("qo::Missing"), nullptr);

  qo::testutil::LogCapture silent(6);  // duplicates are fatal at any level
  EXPECT_NE(qo::testutil::ErrorText([] {
              qo::Registry::Register("qo.test.echo.open");
            }).find("global function qo.test.echo.open is already registered"),
            std::string::npos);
  EXPECT_EQ(qo::Registry::Register("qo.test.echo.open", true).name(), "qo.test.echo.open");
  EXPECT_THROW(qo::NodeClassRegistry::Register("qo::EchoNode", nullptr, nullptr), qo::Error);
  EXPECT_THROW(qo::ExtTypeVTable::Register(qo::kExtBegin), qo::Error);
}

TEST(RegistryTest, CallsPackEveryArgumentKind) {
  qo::Registry::Register("qo.test.pack").set_body([](qo::QOArgs args, qo::QORetValue* rv) {
    std::string text = static_cast<std::string>(args[3]);  // checked before anything is read
    text += static_cast<std::string>(args[4]) + static_cast<std::string>(args[7]);
    for (int i = 0; i < args.size(); ++i) text += " " + std::to_string(args.type_codes[i]);
    *rv = text + " " + std::to_string(static_cast<int>(args[0]) + args.values[1].v_float64);
  });
  int x = 0;
  std::string owned = "s";
  qo::QOByteArray bytes{"b\0y", 3};
  EXPECT_EQ((*qo::Registry::Get("qo.test.pack"))(40, 2.5, nullptr, "l", owned, &x,
                                                 DLDataType{kDLFloat, 32, 1}, bytes)
                .AsString(),
            std::string("ls") + std::string("b\0y", 3) + " 0 2 4 11 11 3 5 12 42.500000");
  EXPECT_THROW((*qo::Registry::Get("qo.test.pack"))(1), qo::Error);  // reads arg[3] of 1
}

}  // namespace
