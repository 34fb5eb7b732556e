// The owning parts of the return slot.
#include <string>
#include <utility>

#include "core/qo_logging.h"
#include "core/qo_ndarray.h"
#include "core/qo_packed_func.h"
#include "core/qo_registry.h"

namespace qo {

QORetValue& QORetValue::operator=(NDArray array) {
  Clear();
  // The slot keeps the array's reference.
  value_.v_handle = array.data_;
  array.data_ = nullptr;
  type_code_ = value_.v_handle == nullptr ? kNull : kNDArrayContainer;
  return *this;
}

QORetValue& QORetValue::operator=(PackedFunc f) {
  Clear();
  value_.v_handle = new PackedFunc(std::move(f));
  type_code_ = kFuncHandle;
  return *this;
}

void QORetValue::SetModule(ModuleNode* module) {
  Clear();
  value_.v_handle = module;
  type_code_ = module == nullptr ? kNull : kModuleHandle;
}

void QORetValue::SetExt(int type_code, void* handle) {
  CHECK_GT(type_code, kExtBegin) << "extension type codes start above " << kExtBegin;
  CHECK(ExtTypeVTable::Get(type_code) != nullptr)
      << "extension type " << type_code << " is not registered";
  Clear();
  value_.v_handle = handle;
  type_code_ = type_code;
}

NDArray QORetValue::AsNDArray() const {
  if (type_code_ == kNull) return NDArray();
  QO_CHECK_TYPE_CODE(type_code_, kNDArrayContainer);
  return NDArray(static_cast<NDArray::Container*>(value_.v_handle));
}

const PackedFunc* QORetValue::AsFunc() const {
  if (type_code_ == kNull) return nullptr;
  QO_CHECK_TYPE_CODE(type_code_, kFuncHandle);
  return static_cast<const PackedFunc*>(value_.v_handle);
}

void QORetValue::Clear() {
  switch (type_code_) {
    case kStr:
    case kBytes:
      delete static_cast<std::string*>(value_.v_handle);
      break;
    case kFuncHandle:
      delete static_cast<PackedFunc*>(value_.v_handle);
      break;
    case kModuleHandle:
      delete static_cast<ModuleNode*>(value_.v_handle);
      break;
    case kNDArrayContainer:
      if (value_.v_handle != nullptr) {
        NDArray::DecRef(static_cast<NDArray::Container*>(value_.v_handle));
      }
      break;
    default:
      if (type_code_ > kExtBegin && value_.v_handle != nullptr) {
        ExtTypeVTable* vtable = ExtTypeVTable::Get(type_code_);
        if (vtable != nullptr && vtable->destroy != nullptr) vtable->destroy(value_.v_handle);
      }
      break;
  }
  type_code_ = kNull;
  value_.v_int64 = 0;
}

}  // namespace qo
