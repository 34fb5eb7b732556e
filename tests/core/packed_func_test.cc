// Argument conversions and packing, type texts, the owning return slot and
// the parameter store's refusals.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/qo_packed_func.h"
#include "core/qo_prop.h"
#include "core/qo_registry.h"
#include "test_common.h"

namespace {

using qo::QOArgValue;
using qo::testutil::ErrorText;

template <typename T>
QOArgValue Arg(int code, T v) {
  qo::QOValue value;
  if constexpr (std::is_pointer_v<T>) value.v_handle = v;
  if constexpr (!std::is_pointer_v<T>) value.v_int64 = v;
  return QOArgValue(value, code);
}

// The message between the "[time] file:line: " prefix and the stack trace.
std::string Body(const std::string& text) {
  size_t start = text.find(": ", text.find("] ")) + 2;
  return text.substr(start, text.find("\nStack trace:") - start);
}

TEST(PackedFuncTest, ConversionsPackingAndTheirExactFailures) {
  qo::QOValue values[3] = {};
  int32_t codes[3] = {kDLInt, kDLInt, kDLInt};
  qo::QOArgs args(values, codes, 3);
  int x = 0;
  const std::pair<std::function<void()>, std::string> failures[] = {
      {[&] { args[3]; },
       "Check failed: i < num_args (3 vs. 3) : not enough argument passed, 3 passed but "
       "request arg[3]."},
      {[] { static_cast<int>(Arg(kDLInt, 2147483648LL)); },
       "Check failed: value_.v_int64 <= std::numeric_limits<int>::max() "
       "(2147483648 vs. 2147483647) : "},
      {[&] { static_cast<void*>(Arg(qo::kNodeHandle, &x)); },
       "Check failed: type_code_ == kHandle (8 vs. 3) :  expected handle but get NodeHandle"},
      {[&] { static_cast<void*>(Arg(20, &x)); },
       "unknown type_code=20"},  // name lookup fails first
  };
  for (const auto& [convert, message] : failures) EXPECT_EQ(Body(ErrorText(convert)), message);
  EXPECT_EQ(args[-1].type_code(), qo::kNull);  // one-sided check, read safely
  EXPECT_EQ(static_cast<int>(Arg(kDLInt, -5000000000LL)), static_cast<int>(-5000000000LL));
  EXPECT_EQ(static_cast<void*>(Arg(qo::kNull, &x)), nullptr);
  qo::QOValue type_value;
  type_value.v_type = DLDataType{kDLFloat, 16, 4};
  EXPECT_EQ(static_cast<std::string>(QOArgValue(type_value, qo::kQOType)), "float16x4");

  qo::Registry::Register("qo.test.pack").set_body([](qo::QOArgs a, qo::QORetValue* rv) {
    std::string text = static_cast<std::string>(a[3]);  // checked before anything is read
    text += static_cast<std::string>(a[4]) + static_cast<std::string>(a[7]);
    for (int i = 0; i < a.size(); ++i) text += " " + std::to_string(a.type_codes[i]);
    *rv = text + " " + std::to_string(static_cast<int>(a[0]) + a.values[1].v_float64);
  });
  std::string owned = "s";
  qo::QOByteArray bytes{"b\0y", 3};
  EXPECT_EQ((*qo::Registry::Get("qo.test.pack"))(40, 2.5, nullptr, "l", owned, &x,
                                                 DLDataType{kDLFloat, 32, 1}, bytes)
                .AsString(),
            std::string("ls") + std::string("b\0y", 3) + " 0 2 4 11 11 3 5 12 42.500000");
  EXPECT_THROW((*qo::Registry::Get("qo.test.pack"))(1), qo::Error);  // reads arg[3] of 1
}

std::vector<int> Fields(DLDataType t) { return {t.code, t.bits, t.lanes}; }

// Type texts: the width is read as 8 bits and 0 falls back to 32; what the
// parser leaves unread is refused, an unknown name even before that.
TEST(PackedFuncTest, TypeTextsParseAndPrintBack) {
  const struct {
    std::string text;
    std::vector<int> fields;  // code, bits, lanes
    std::string printed;
  } types[] = {
      {"int8", {kDLInt, 8, 1}, "int8"},
      {"int", {kDLInt, 32, 1}, "int32"},
      {"int256", {kDLInt, 32, 1}, "int32"},
      {"uint16", {kDLUInt, 16, 1}, "uint16"},
      {"float32x4", {kDLFloat, 32, 4}, "float32x4"},
      {"handle", {qo::kHandle, 64, 1}, "handle"},
      {"bool", {kDLUInt, 1, 1}, "bool"},
      {"", {qo::kHandle, 0, 0}, ""},
  };
  for (const auto& t : types) {
    const DLDataType type = qo::String2QOType(t.text);
    EXPECT_EQ(Fields(type), t.fields) << t.text;
    EXPECT_EQ(qo::QOType2String(type), t.printed) << t.text;
  }
  const std::string unread = "Check failed: endpt == s.c_str() + s.length(): unknown type ";
  for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
           {"int8y", unread + "int8y"},
           {"float32x4x2", unread + "float32x4x2"},
           {"bool8", "unknown type bool8"},
       })
    EXPECT_EQ(Body(ErrorText([&] { qo::String2QOType(text); })), message);
  qo::testutil::LogCapture silenced(6);  // the unknown name still fails the end check
  EXPECT_EQ(Body(ErrorText([] { qo::String2QOType("double"); })), unread + "double");
}

// Each owned value is released exactly once when the slot is overwritten
// (the leak checker and the counter see both ways of getting it wrong).
TEST(PackedFuncTest, ReturnSlotReleasesWhatItOwns) {
  static int released = 0;
  int node = 0;
  qo::QORetValue rv;
  rv = std::string("owned");
  rv = qo::NDArray::UserEmpty(
      {4}, DLDataType{kDLInt, 8, 1}, DLContext{kDLCPU, 0}, qo::ExtInfo(),
      [](qo::NDArray::Container* c) {
        ++released;
        delete c;
      },
      nullptr, &node);
  EXPECT_EQ(rv.AsNDArray().use_count(), 2);
  rv = &node;
  EXPECT_EQ(released, 1);
  rv = qo::PackedFunc([](qo::QOArgs, qo::QORetValue* out) { *out = 5; });
  qo::QORetValue moved(std::move(rv));
  EXPECT_EQ(rv.type_code(), qo::kNull);
  EXPECT_EQ((*moved.AsFunc())().AsInt64(), 5);
  moved = 2.5;
  EXPECT_THROW(moved.AsInt64(), qo::Error);
}

// Only declared names of the right kind are set, within inclusive ranges;
// a refused value leaves the old one. Reads of unknown names warn.
TEST(PropTest, RefusalsAndWarningsNameKeyAndRange) {
  qo::Prop p;
  p.SetDefault("size", 0, 0, 10);
  p.SetDefault("framerate", 25.0, 0.0, 120.0);
  p.SetDefault("file", std::string("a"));
  const std::string unknown = " not exist! Call SetDefault before Set.",
                    range = "Check failed: (vs.low <= _val) && (vs.upper >= _val): ";
  const std::pair<std::function<void()>, std::string> refusals[] = {
      {[&] { p.Set("nope", 1); }, "Check failed: int_paras_.count(_key) > 0: key nope" + unknown},
      {[&] { p.Set("size", 11); }, range + "size:11 exceeds range [0, 10]"},
      {[&] { p.Set("size", -1); }, range + "size:-1 exceeds range [0, 10]"},
      {[&] { p.Set("framerate", 120.5); }, range + "framerate:120.5 exceeds range [0, 120]"},
      {[&] { p.Set("framerate", -0.25); }, range + "framerate:-0.25 exceeds range [0, 120]"},
      {[&] { p.Set("size", 2.0); },
       "Check failed: double_paras_.count(_key) > 0: key size" + unknown},
      {[&] { p.Set("file", 1); }, "Check failed: int_paras_.count(_key) > 0: key file" + unknown},
      {[&] { p.Set("size", "3"); },
       "Check failed: string_paras_.count(_key) > 0: key size" + unknown},
  };
  for (const auto& [set, message] : refusals) EXPECT_EQ(Body(ErrorText(set)), message);
  int size = -1;
  double rate = -1;
  std::string file = "?";
  EXPECT_TRUE(p.Get("size", size) && p.Get("framerate", rate) && p.Get("file", file));
  EXPECT_EQ(std::make_tuple(size, rate, file), std::make_tuple(0, 25.0, std::string("a")));
  for (int v : {0, 10}) p.Set("size", v);  // both bounds are in range
  for (double v : {120.0, 0.0}) p.Set("framerate", v);
  p.Set("file", static_cast<const char*>(nullptr));
  EXPECT_TRUE(p.Get("size", size) && p.Get("framerate", rate) && p.Get("file", file));
  EXPECT_EQ(std::make_tuple(size, rate, file), std::make_tuple(10, 0.0, std::string()));

  for (int level : {3, 4}) {  // warnings of severity 3; the output is left alone
    qo::testutil::LogCapture logs(level);
    EXPECT_FALSE(p.Get("framerate", size) || p.Get("size", rate) || p.Get("size", file));
    EXPECT_EQ(std::make_tuple(size, rate, file), std::make_tuple(10, 0.0, std::string()));
    for (const char* line :
         {": int_paras has no attribute framerate\n", ": double_paras has no attribute size\n",
          ": string_paras has no attribute size\n"})
      EXPECT_EQ(logs.Count(line), level == 3 ? 1u : 0u) << line;
  }
}

}  // namespace
