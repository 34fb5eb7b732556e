// What the library registers for the file input node, the checked setters,
// null handles and the life-cycle messages.
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "file_in_test_util.h"

namespace qo {
namespace filein_node_test {
namespace {

const char* const kVerbs[] = {"destroy",     "open",         "close",
                              "update.para", "set.attr.int", "set.attr.string"};

TEST(FileInApiTest, RegisteredFunctionsAndNodeClass) {
  ASSERT_EQ(testhost::LoadSdk(), "");
  EXPECT_NE(Registry::Get("qo.mm.file.in.create"), nullptr);
  for (const char* verb : kVerbs) {
    EXPECT_NE(Registry::Get(std::string(kPrefix) + "." + verb), nullptr) << verb;
  }
  LogCapture logs(1);
  auto* node = static_cast<Thread*>(NodeClassRegistry::Create("qo::FileInput"));
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->name(), "file_in");
  // Only the first four ports carry the task type.
  for (int port = 0; port < 5; ++port) {
    auto info = node->GetPOUT(port)->GetTypeInfo();
    EXPECT_EQ(info != nullptr && info->type_name == "qo::MediaTask", port < 4) << port;
  }
  NodeClassRegistry::Destroy("qo::FileInput", node);
  EXPECT_EQ(CountLines(logs.lines(), ": class FileInput instance destoryed !!!\n"), 1u);
}

TEST(FileInApiTest, SettersUseThePropertyStoreChecks) {
  HostNode node(kPrefix);
  Prop& prop = node.thread()->GetProp();
  node.SetInt("sync-mode", 1);
  node.SetString("file", "a.h264");
  EXPECT_EQ(prop.int_paras_.at("sync-mode").value, 1);
  EXPECT_EQ(prop.string_paras_.at("file"), "a.h264");

  LogCapture silent(6);  // failed checks are not filtered by the level
  const std::pair<std::function<void()>, std::string> bad[] = {
      {[&] { node.SetInt("sync-mode", 2); },
       "Check failed: (vs.low <= _val) && (vs.upper >= _val): sync-mode:2 exceeds range [0, 1]"},
      {[&] { node.SetInt("size", -3); }, "size:-3 exceeds range [0, 2147483647]"},
      // framerate is a double, unknown to the integer setter
      {[&] { node.SetInt("framerate", 30); },
       "Check failed: int_paras_.count(_key) > 0: key framerate not exist! Call SetDefault "
       "before Set."},
      {[&] { node.SetString("files", "x"); },
       "Check failed: string_paras_.count(_key) > 0: key files not exist!"},
      {[] { testhost::Func("qo.mm.file.in.open")(7); }, "Check failed:"},  // not a handle
  };
  for (const auto& [call, message] : bad) {
    std::string text = ErrorText(call);
    EXPECT_NE(text.find(message), std::string::npos) << text;
  }
  EXPECT_EQ(prop.int_paras_.at("sync-mode").value, 1);
  EXPECT_EQ(prop.string_paras_.count("files"), 0u);
}

// open, update.para and the setters report a null node as an error (4),
// destroy and close only as a warning (3).
TEST(FileInApiTest, NullNodeIsLoggedWithTwoSeverities) {
  for (int level : {3, 4}) {
    LogCapture logs(level);
    for (const std::string verb : kVerbs) {
      size_t before = logs.lines().size();
      testhost::Func(std::string(kPrefix) + "." + verb)(nullptr, "stream-id", 1);
      std::vector<std::string> lines = logs.lines();
      bool warning = verb == "destroy" || verb == "close";
      ASSERT_EQ(lines.size() - before, level == 3 || !warning ? 1u : 0u) << verb << " " << level;
      if (lines.size() > before) {
        EXPECT_NE(lines.back().find("fml_file_in.cc:"), std::string::npos);
        EXPECT_NE(lines.back().find(": FileInput is NULL !!!\n"), std::string::npos);
      }
    }
  }
}

TEST(FileInApiTest, LifeCycleMessages) {
  Media m = H264(3);
  LogCapture logs(1);
  {
    HostNode idle(kPrefix);
    idle.Close();  // never started
    idle.thread()->Proc(nullptr, 0, kPOutTask);
    idle.Open();  // neither "file" nor "file-list": nothing is started
    idle.Close();
  }
  TaskCollector out;
  {
    HostNode node(kPrefix);
    node.thread()->SetTxQue(out.queue(), 0);
    node.SetDouble("framerate", 0.0);
    node.SetString("file", m.path);
    node.Open();
    node.Open();
    EXPECT_TRUE(out.WaitForFlag(1, kWaitMs));
    node.Close();
  }
  EXPECT_EQ(out.Count(0), m.units);
  const std::pair<const char*, size_t> expected[] = {
      {": stream obj is NULL !!!\n", 2},
      {": video file operator does not need rx queue  !!!\n", 1},
      {": file is NULL !!!\n", 1},
      {": restart video_in !!!\n", 1},
      {": created a stream in thread!!!\n", 1},
      {": created a stream out thread!!!\n", 1},
      {": >>> Enter stream out thread\n", 1},
      {": end of stream !!!\n", 1},
      {": Getted EOS, StreamIn exit\n", 1},
      {": <<< Exit stream out thread\n", 1},
      {") stopped !!!\n", 1},
      {": class FileInput instance destoryed !!!\n", 2},
  };
  std::vector<std::string> lines = logs.lines();
  for (const auto& [text, n] : expected) EXPECT_EQ(CountLines(lines, text), n) << text;
}

}  // namespace
}  // namespace filein_node_test
}  // namespace qo
