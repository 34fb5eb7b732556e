// Argument conversions, data-type text and the owning return slot.
#include <gtest/gtest.h>

#include "core/qo_packed_func.h"
#include "core/qo_registry.h"
#include "test_common.h"

namespace {

using qo::QOArgValue;
using qo::testutil::ErrorText;

QOArgValue Arg(int code, int64_t v) {
  qo::QOValue value;
  value.v_int64 = v;
  return QOArgValue(value, code);
}

QOArgValue Arg(int code, const void* p) {
  qo::QOValue value;
  value.v_handle = const_cast<void*>(p);
  return QOArgValue(value, code);
}

bool Same(DLDataType t, int code, int bits, int lanes) {
  return t.code == code && t.bits == bits && t.lanes == lanes;
}

// The message between the "[time] file:line: " prefix and the stack trace.
std::string Body(const std::string& text) {
  size_t start = text.find(": ", text.find("] ")) + 2;
  return text.substr(start, text.find("\nStack trace:") - start);
}

TEST(PackedFuncTest, ConversionsAndTheirExactFailures) {
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
      {[] { static_cast<int>(Arg(kDLUInt, 1)); },
       "Check failed: type_code_ == kDLInt (1 vs. 0) :  expected int but get uint"},
      {[&] { static_cast<void*>(Arg(qo::kNodeHandle, &x)); },
       "Check failed: type_code_ == kHandle (8 vs. 3) :  expected handle but get NodeHandle"},
      // The printable name of an unknown code is looked up first and fails.
      {[&] { static_cast<void*>(Arg(20, &x)); }, "unknown type_code=20"},
      {[] { static_cast<std::string>(Arg(kDLInt, 1)); },
       "Check failed: type_code_ == kStr (0 vs. 11) :  expected str but get int"},
      {[] { static_cast<DLDataType>(Arg(kDLFloat, int64_t{0})); },
       "Check failed: type_code_ == kQOType (2 vs. 5) :  expected QOType but get float"},
  };
  for (const auto& [convert, message] : failures) EXPECT_EQ(Body(ErrorText(convert)), message);

  EXPECT_EQ(args[-1].type_code(), qo::kNull);  // one-sided check, read safely
  EXPECT_EQ(static_cast<int>(Arg(kDLInt, -5000000000LL)), static_cast<int>(-5000000000LL));
  EXPECT_EQ(static_cast<void*>(Arg(qo::kNull, &x)), nullptr);
  EXPECT_EQ(static_cast<void*>(Arg(qo::kArrayHandle, &x)), &x);
  qo::QOByteArray bytes{"a\0b", 3};
  EXPECT_EQ(static_cast<std::string>(Arg(qo::kBytes, &bytes)), std::string("a\0b", 3));
  qo::QOValue type_value;
  type_value.v_type = DLDataType{kDLFloat, 16, 4};
  EXPECT_EQ(static_cast<std::string>(QOArgValue(type_value, qo::kQOType)), "float16x4");
  EXPECT_TRUE(Same(static_cast<DLDataType>(Arg(qo::kNull, nullptr)), qo::kHandle, 0, 0));
  EXPECT_TRUE(Same(static_cast<DLDataType>(Arg(qo::kStr, "uint8")), kDLUInt, 8, 1));
}

TEST(PackedFuncTest, DataTypeText) {
  struct {
    const char* text;
    int code, bits, lanes;
  } parsed[] = {{"int32", 0, 32, 1},  {"uint8", 1, 8, 1}, {"float16x4", 2, 16, 4},
                {"handle", 3, 64, 1}, {"bool", 1, 1, 1},  {"int32x", 0, 32, 0},
                {"", 3, 0, 0},        {"int0", 0, 32, 1}, {"int256", 0, 32, 1}};
  for (const auto& p : parsed) {
    EXPECT_TRUE(Same(qo::String2QOType(p.text), p.code, p.bits, p.lanes)) << p.text;
  }
  EXPECT_EQ(Body(ErrorText([] { qo::String2QOType("float32x4z"); })),
            "Check failed: endpt == s.c_str() + s.length(): unknown type float32x4z");
  EXPECT_EQ(Body(ErrorText([] { qo::String2QOType("double"); })), "unknown type double");
  EXPECT_EQ(qo::QOType2String(DLDataType{kDLUInt, 1, 1}), "bool");
  EXPECT_EQ(qo::QOType2String(DLDataType{kDLUInt, 1, 4}), "uint1x4");
  EXPECT_EQ(qo::QOType2String(DLDataType{qo::kHandle, 64, 1}), "handle");
  EXPECT_EQ(qo::QOType2String(DLDataType{kDLInt, 0, 1}), "");

  qo::testutil::LogCapture silent(6);  // fatal messages filtered; the end check still fails
  EXPECT_STREQ(qo::TypeCode2Str(14), "");
  EXPECT_EQ(Body(ErrorText([] { qo::String2QOType("double"); })),
            "Check failed: endpt == s.c_str() + s.length(): unknown type double");
}

// Each owned value is released exactly once when the slot is overwritten
// (the leak checker and the counter see both ways of getting it wrong).
TEST(PackedFuncTest, ReturnSlotReleasesWhatItOwns) {
  static int released = 0;
  int node = 0;
  qo::QORetValue rv;
  rv = std::string("owned");
  EXPECT_EQ(rv.AsString(), "owned");
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
  EXPECT_EQ(rv.AsHandle(), &node);
  rv = qo::PackedFunc([](qo::QOArgs, qo::QORetValue* out) { *out = 5; });
  qo::QORetValue moved(std::move(rv));
  EXPECT_EQ(rv.type_code(), qo::kNull);
  EXPECT_EQ((*moved.AsFunc())().AsInt64(), 5);
  moved = 2.5;
  EXPECT_THROW(moved.AsInt64(), qo::Error);
}

}  // namespace
