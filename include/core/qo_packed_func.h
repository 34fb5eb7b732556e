// Calling convention of registered functions: type codes, the 8-byte value
// cell, the argument pack with its typed conversions, and the owning return
// slot.
#ifndef QO_CORE_QO_PACKED_FUNC_H_
#define QO_CORE_QO_PACKED_FUNC_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string>

#include "core/qo_dlpack.h"
#include "core/qo_export.h"
#include "core/qo_logging.h"
#include "core/qo_ndarray.h"

namespace qo {

// Codes 0-2 are DLPack's kDLInt, kDLUInt and kDLFloat.
enum QOTypeCode : int32_t {
  kHandle = 3,
  kNull = 4,
  kQOType = 5,
  kQOContext = 6,
  kArrayHandle = 7,
  kNodeHandle = 8,
  kModuleHandle = 9,
  kFuncHandle = 10,
  kStr = 11,
  kBytes = 12,
  kNDArrayContainer = 13,
  // Codes above this one are extension types (see ExtTypeVTable).
  kExtBegin = 15,
};

inline const char* TypeCode2Str(int type_code) {
  switch (type_code) {
    case kDLInt:
      return "int";
    case kDLUInt:
      return "uint";
    case kDLFloat:
      return "float";
    case kHandle:
      return "handle";
    case kNull:
      return "NULL";
    case kQOType:
      return "QOType";
    case kQOContext:
      return "QOContext";
    case kArrayHandle:
      return "ArrayHandle";
    case kNodeHandle:
      return "NodeHandle";
    case kModuleHandle:
      return "ModuleHandle";
    case kFuncHandle:
      return "FunctionHandle";
    case kStr:
      return "str";
    case kBytes:
      return "bytes";
    case kNDArrayContainer:
      return "NDArrayContainer";
    default:
      LOG(5) << "unknown type_code=" << static_cast<int>(type_code);
      return "";
  }
}

// Byte string passed as a kBytes argument (through v_handle).
struct QOByteArray {
  const char* data;
  size_t size;
};

union QOValue {
  int64_t v_int64;
  double v_float64;
  void* v_handle;
  const char* v_str;
  DLDataType v_type;
  DLContext v_ctx;
};
static_assert(sizeof(QOValue) == 8, "a value cell is 8 bytes");

// Text to data type: "int32", "uint8", "float16x4", "handle", "bool".
inline DLDataType String2QOType(std::string s) {
  DLDataType t;
  if (s.length() == 0) {
    t.code = kHandle;
    t.bits = 0;
    t.lanes = 0;
    return t;
  }
  t.bits = 32;
  t.lanes = 1;
  const char* scan;
  if (s.substr(0, 3) == "int") {
    t.code = kDLInt;
    scan = s.c_str() + 3;
  } else if (s.substr(0, 4) == "uint") {
    t.code = kDLUInt;
    scan = s.c_str() + 4;
  } else if (s.substr(0, 5) == "float") {
    t.code = kDLFloat;
    scan = s.c_str() + 5;
  } else if (s.substr(0, 6) == "handle") {
    t.code = kHandle;
    t.bits = 64;
    scan = s.c_str() + 6;
  } else if (s == "bool") {
    t.code = kDLUInt;
    t.bits = 1;
    t.lanes = 1;
    return t;
  } else {
    // Only reached when fatal messages are silenced.
    t.code = kHandle;
    scan = s.c_str();
    LOG(5) << "unknown type " << s;
  }
  char* xdelim;
  // Truncated to 8 bits first, then an empty width falls back to the default.
  uint8_t bits = static_cast<uint8_t>(strtoul(scan, &xdelim, 10));
  if (bits != 0) t.bits = bits;
  char* endpt = xdelim;
  if (*xdelim == 'x') {
    t.lanes = static_cast<uint16_t>(strtoul(xdelim + 1, &endpt, 10));
  }
  CHECK(endpt == s.c_str() + s.length()) << "unknown type " << s;
  return t;
}

// Data type to text, the inverse of String2QOType.
inline std::string QOType2String(DLDataType t) {
  if (t.bits == 0) return "";
  if (t.bits == 1 && t.lanes == 1 && t.code == kDLUInt) return "bool";
  std::ostringstream os;
  os << TypeCode2Str(t.code);
  if (t.code == kHandle) return os.str();
  os << static_cast<int>(t.bits);
  if (t.lanes != 1) os << 'x' << static_cast<int>(t.lanes);
  return os.str();
}

#define QO_CHECK_TYPE_CODE(CODE, T)                                         \
  CHECK_EQ(CODE, T) << " expected " << ::qo::TypeCode2Str(T) << " but get " \
                    << ::qo::TypeCode2Str(CODE)

// A value cell with its type code and the conversions every value offers.
class QOPODValue_ {
 public:
  operator int() const {
    QO_CHECK_TYPE_CODE(type_code_, kDLInt);
    // No lower bound on purpose: smaller values are truncated.
    CHECK_LE(value_.v_int64, std::numeric_limits<int>::max());
    return static_cast<int>(value_.v_int64);
  }
  operator void*() const {
    if (type_code_ == kNull) return nullptr;
    if (type_code_ == kArrayHandle) return value_.v_handle;
    QO_CHECK_TYPE_CODE(type_code_, kHandle);
    return value_.v_handle;
  }
  int type_code() const { return type_code_; }
  const QOValue& value() const { return value_; }

 protected:
  QOPODValue_() : type_code_(kNull) { value_.v_int64 = 0; }
  QOPODValue_(QOValue value, int type_code) : value_(value), type_code_(type_code) {}

  QOValue value_;
  int type_code_;
};

// One argument of a packed call. Borrows what it points to.
class QOArgValue : public QOPODValue_ {
 public:
  QOArgValue() {}
  QOArgValue(QOValue value, int type_code) : QOPODValue_(value, type_code) {}

  using QOPODValue_::operator int;
  using QOPODValue_::operator void*;

  operator std::string() const {
    if (type_code_ == kQOType) return QOType2String(value_.v_type);
    if (type_code_ == kBytes) {
      const auto* arr = static_cast<const QOByteArray*>(value_.v_handle);
      if (arr == nullptr || arr->data == nullptr) return std::string();
      return std::string(arr->data, arr->size);
    }
    QO_CHECK_TYPE_CODE(type_code_, kStr);
    return value_.v_str == nullptr ? std::string() : std::string(value_.v_str);
  }
  operator DLDataType() const {
    if (type_code_ == kStr) return String2QOType(operator std::string());
    if (type_code_ == kNull) {
      DLDataType t;
      t.code = kHandle;
      t.bits = 0;
      t.lanes = 0;
      return t;
    }
    QO_CHECK_TYPE_CODE(type_code_, kQOType);
    return value_.v_type;
  }
};

// The argument pack; owns nothing.
struct QOArgs {
  const QOValue* values;
  const int32_t* type_codes;
  int32_t num_args;

  QOArgs(const QOValue* values_in, const int32_t* type_codes_in, int32_t num_args_in)
      : values(values_in), type_codes(type_codes_in), num_args(num_args_in) {}
  int size() const { return num_args; }

  // Only the upper bound is checked; a negative index is not an error and
  // reads as a null argument.
  QOArgValue operator[](int i) const {
    CHECK_LT(i, num_args) << "not enough argument passed, " << num_args << " passed"
                          << " but request arg[" << i << "].";
    if (i < 0) return QOArgValue();
    return QOArgValue(values[i], type_codes[i]);
  }
};

class PackedFunc;

// Base of objects returned as kModuleHandle; the slot deletes them.
class ModuleNode {
 public:
  virtual ~ModuleNode() = default;
};

// The return slot. Unlike an argument it owns what it holds: strings and
// bytes (heap std::string), array references, functions, modules and
// extension values (released through their ExtTypeVTable). Move-only.
class QO_EXPORT QORetValue : public QOPODValue_ {
 public:
  QORetValue() {}
  QORetValue(QORetValue&& other) noexcept : QOPODValue_(other.value_, other.type_code_) {
    other.value_.v_handle = nullptr;
    other.type_code_ = kNull;
  }
  QORetValue(const QORetValue&) = delete;
  QORetValue& operator=(const QORetValue&) = delete;
  ~QORetValue() { Clear(); }

  QORetValue& operator=(QORetValue&& other) noexcept {
    if (this != &other) {
      Clear();
      value_ = other.value_;
      type_code_ = other.type_code_;
      other.value_.v_handle = nullptr;
      other.type_code_ = kNull;
    }
    return *this;
  }
  // Stores a handle, releasing what the slot held unless that was a handle
  // or null.
  QORetValue& operator=(void* value) {
    SwitchToPOD(kHandle);
    value_.v_handle = value;
    return *this;
  }
  QORetValue& operator=(std::nullptr_t) {
    SwitchToPOD(kNull);
    value_.v_handle = nullptr;
    return *this;
  }
  QORetValue& operator=(int64_t value) {
    SwitchToPOD(kDLInt);
    value_.v_int64 = value;
    return *this;
  }
  QORetValue& operator=(int value) { return operator=(static_cast<int64_t>(value)); }
  QORetValue& operator=(double value) {
    SwitchToPOD(kDLFloat);
    value_.v_float64 = value;
    return *this;
  }
  QORetValue& operator=(DLDataType t) {
    SwitchToPOD(kQOType);
    value_.v_type = t;
    return *this;
  }
  QORetValue& operator=(const std::string& value) {
    SetString(kStr, value);
    return *this;
  }
  QORetValue& operator=(const char* value) {
    if (value == nullptr) return operator=(nullptr);
    SetString(kStr, value);
    return *this;
  }
  QORetValue& operator=(NDArray array);
  QORetValue& operator=(PackedFunc f);
  void SetBytes(const std::string& value) { SetString(kBytes, value); }
  // Takes ownership of module.
  void SetModule(ModuleNode* module);
  // Takes ownership of an extension value; type_code must be registered.
  void SetExt(int type_code, void* handle);

  // Readers for hosts; a wrong type code fails the type check.
  int64_t AsInt64() const {
    QO_CHECK_TYPE_CODE(type_code_, kDLInt);
    return value_.v_int64;
  }
  double AsDouble() const {
    if (type_code_ == kDLInt) return static_cast<double>(value_.v_int64);
    QO_CHECK_TYPE_CODE(type_code_, kDLFloat);
    return value_.v_float64;
  }
  void* AsHandle() const { return operator void*(); }
  std::string AsString() const {
    if (type_code_ == kQOType) return QOType2String(value_.v_type);
    if (type_code_ == kBytes) return *static_cast<const std::string*>(value_.v_handle);
    QO_CHECK_TYPE_CODE(type_code_, kStr);
    return *static_cast<const std::string*>(value_.v_handle);
  }
  DLDataType AsDataType() const {
    QO_CHECK_TYPE_CODE(type_code_, kQOType);
    return value_.v_type;
  }
  // A new reference; an undefined array for a null slot.
  NDArray AsNDArray() const;
  // The held function (still owned by the slot).
  const PackedFunc* AsFunc() const;

  // Releases what the slot holds and leaves it null.
  void Clear();

 private:
  void SwitchToPOD(int type_code) {
    if (type_code_ != type_code) {
      Clear();
      type_code_ = type_code;
    }
  }
  void SetString(int type_code, const std::string& value) {
    if (type_code_ == type_code) {
      *static_cast<std::string*>(value_.v_handle) = value;
    } else {
      Clear();
      value_.v_handle = new std::string(value);
      type_code_ = type_code;
    }
  }
};

}  // namespace qo

#endif  // QO_CORE_QO_PACKED_FUNC_H_
