// Parameter store: checked sets and warning reads.
#include <gtest/gtest.h>

#include "core/qo_prop.h"
#include "test_common.h"

namespace {

using qo::testutil::ErrorText;

std::string Message(const std::string& error) {
  size_t start = error.find("Check failed: ");
  return error.substr(start, error.find('\n') - start);
}

TEST(PropTest, SetChecksNameAndRange) {
  qo::Prop prop;
  prop.SetDefault("size", 0, 0, 2147483647);
  prop.SetDefault("framerate", 25.0, 0.0, 120.0);
  const std::pair<std::function<void()>, std::string> refused[] = {
      {[&] { prop.Set("loop", 5); },
       "Check failed: int_paras_.count(_key) > 0: key loop not exist! Call SetDefault before Set."},
      {[&] { prop.Set("uri", "x"); },
       "Check failed: string_paras_.count(_key) > 0: key uri not exist! Call SetDefault before "
       "Set."},
      {[&] { prop.Set("size", -3); },
       "Check failed: (vs.low <= _val) && (vs.upper >= _val): size:-3 exceeds range [0, "
       "2147483647]"},
      {[&] { prop.Set("framerate", 30); },  // ints do not reach doubles
       "Check failed: int_paras_.count(_key) > 0: key framerate not exist! Call SetDefault "
       "before Set."},
  };
  prop.Set("size", 2147483647);
  prop.Set("size", 7);
  for (const auto& [set, message] : refused) EXPECT_EQ(Message(ErrorText(set)), message);
  EXPECT_THROW(prop.Set("framerate", 120.5), qo::Error);
  int v = -1;
  ASSERT_TRUE(prop.Get("size", v));
  EXPECT_EQ(v, 7);                  // the failed set kept the old value
  prop.SetDefault("odd", 9, 0, 1);  // a default is stored unchecked
  ASSERT_TRUE(prop.Get("odd", v));
  EXPECT_EQ(v, 9);
}

TEST(PropTest, GetOfUnknownNameWarnsAndKeepsTheOutput) {
  qo::testutil::LogCapture capture(3);
  qo::Prop prop;
  prop.SetDefault("uri", std::string("file:///a"));
  prop.SetDefault("uri", 4, 0, 10);  // same name, independent tables
  int v = 42;
  double d = 1.5;
  std::string s = "keep";
  EXPECT_FALSE(prop.Get("loop", v));
  EXPECT_FALSE(prop.Get("framerate", d));
  EXPECT_FALSE(prop.Get("file", s));
  EXPECT_EQ(v, 42);
  EXPECT_EQ(d, 1.5);
  EXPECT_EQ(s, "keep");
  std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find(": int_paras has no attribute loop\n"), std::string::npos);
  EXPECT_NE(lines[1].find(": double_paras has no attribute framerate\n"), std::string::npos);
  EXPECT_NE(lines[2].find(": string_paras has no attribute file\n"), std::string::npos);
  ASSERT_TRUE(prop.Get("uri", v) && prop.Get("uri", s));
  EXPECT_EQ(v, 4);
  EXPECT_EQ(s, "file:///a");
}

}  // namespace
