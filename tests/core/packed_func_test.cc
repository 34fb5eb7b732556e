// Argument conversions and packing, and the owning return slot.
#include <gtest/gtest.h>

#include <type_traits>

#include "core/qo_packed_func.h"
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

}  // namespace
