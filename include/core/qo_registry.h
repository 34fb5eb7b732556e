// Registered functions, node classes and extension types. A node module
// registers itself from its static initialisation with the macros below; the
// host finds what it registered by name.
#ifndef QO_CORE_QO_REGISTRY_H_
#define QO_CORE_QO_REGISTRY_H_

#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/qo_export.h"
#include "core/qo_packed_func.h"

namespace qo {

namespace detail {

// Fills one argument cell. Strings are borrowed: the caller's arguments
// outlive the call.
struct QOArgsSetter {
  QOValue* values;
  int32_t* type_codes;

  template <typename T, typename = std::enable_if_t<std::is_integral<T>::value>>
  void operator()(int i, T value) const {
    values[i].v_int64 = static_cast<int64_t>(value);
    type_codes[i] = kDLInt;
  }
  void operator()(int i, double value) const {
    values[i].v_float64 = value;
    type_codes[i] = kDLFloat;
  }
  void operator()(int i, float value) const { operator()(i, static_cast<double>(value)); }
  void operator()(int i, std::nullptr_t) const {
    values[i].v_handle = nullptr;
    type_codes[i] = kNull;
  }
  void operator()(int i, const char* value) const {
    values[i].v_str = value;
    type_codes[i] = kStr;
  }
  void operator()(int i, char* value) const { operator()(i, static_cast<const char*>(value)); }
  void operator()(int i, const std::string& value) const { operator()(i, value.c_str()); }
  void operator()(int i, DLDataType value) const {
    values[i].v_type = value;
    type_codes[i] = kQOType;
  }
  void operator()(int i, const QOByteArray& value) const {
    values[i].v_handle = const_cast<QOByteArray*>(&value);
    type_codes[i] = kBytes;
  }
  template <typename T>
  void operator()(int i, T* value) const {
    values[i].v_handle = const_cast<void*>(static_cast<const void*>(value));
    type_codes[i] = kHandle;
  }
};

}  // namespace detail

// A registered function: one body taking the argument pack and the slot.
class PackedFunc {
 public:
  using FType = std::function<void(QOArgs args, QORetValue* rv)>;

  PackedFunc() {}
  explicit PackedFunc(FType body) : body_(std::move(body)) {}

  void CallPacked(QOArgs args, QORetValue* rv) const { body_(args, rv); }

  // Packs integers (kDLInt), floating point (kDLFloat), pointers (kHandle),
  // nullptr (kNull), strings (kStr), data types (kQOType) and QOByteArray
  // (kBytes), then calls the body.
  template <typename... Args>
  QORetValue operator()(Args&&... args) const {
    constexpr int kNumArgs = static_cast<int>(sizeof...(Args));
    constexpr int kArraySize = kNumArgs > 0 ? kNumArgs : 1;
    QOValue values[kArraySize];
    int32_t type_codes[kArraySize];
    detail::QOArgsSetter setter{values, type_codes};
    int i = 0;
    (void)setter;
    (void)i;
    (setter(i++, std::forward<Args>(args)), ...);
    QORetValue rv;
    CallPacked(QOArgs(values, type_codes, kNumArgs), &rv);
    return rv;
  }

  const FType& body() const { return body_; }
  explicit operator bool() const { return static_cast<bool>(body_); }

 private:
  FType body_;
};

// The global-function table.
class QO_EXPORT Registry {
 public:
  // Creates the entry name. An existing name is a fatal error unless
  // override is set.
  static Registry& Register(const std::string& name, bool override = false);
  Registry& set_body(PackedFunc f);
  Registry& set_body(PackedFunc::FType f) { return set_body(PackedFunc(f)); }
  const std::string& name() const { return name_; }

  // Host side: the function registered as name, or null.
  static const PackedFunc* Get(const std::string& name);
  // All registered names, sorted.
  static std::vector<std::string> ListNames();

  explicit Registry(const std::string& name) : name_(name) {}
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;

 private:
  std::string name_;
  PackedFunc func_;
};

// Node classes creatable by name.
class QO_EXPORT NodeClassRegistry {
 public:
  // A second registration of class_name is a fatal error.
  static NodeClassRegistry& Register(const std::string& class_name,
                                     const std::function<void*()>& create,
                                     const std::function<void(void*)>& destroy);
  // Host side: a new node, or null for an unknown class.
  static void* Create(const std::string& class_name);
  // Host side: destroys a node made by Create; unknown classes are ignored.
  static void Destroy(const std::string& class_name, void* node);
  static std::vector<std::string> ListNames();

  const std::string& name() const { return name_; }

  NodeClassRegistry(const std::string& name, const std::function<void*()>& create,
                    const std::function<void(void*)>& destroy)
      : name_(name), create_(create), destroy_(destroy) {}
  NodeClassRegistry(const NodeClassRegistry&) = delete;
  NodeClassRegistry& operator=(const NodeClassRegistry&) = delete;

 private:
  std::string name_;
  std::function<void*()> create_;
  std::function<void(void*)> destroy_;
};

// Function table of an extension type (type codes above kExtBegin).
struct QO_EXPORT ExtTypeVTable {
  void (*destroy)(void* handle) = nullptr;
  void* (*clone)(void* handle) = nullptr;

  // The table of type_code, or null when none was registered.
  static ExtTypeVTable* Get(int type_code);
  // The table of type_code, created empty on first use; fill in its entries.
  static ExtTypeVTable* Register(int type_code);
};

}  // namespace qo

#define QO_STR_CONCAT_(a, b) a##b
#define QO_STR_CONCAT(a, b) QO_STR_CONCAT_(a, b)

// Each registration keeps its result in a file-static __mk_QO<n>; n counts
// the registrations of the source file from 0.
#define QO_REGISTER_GLOBAL(name)                                                       \
  static __attribute__((unused)) ::qo::Registry& QO_STR_CONCAT(__mk_QO, __COUNTER__) = \
      ::qo::Registry::Register(name)

#define QO_REGISTER_NODE_CLASS(class_name, create, destroy)                                     \
  static __attribute__((unused)) ::qo::NodeClassRegistry& QO_STR_CONCAT(__mk_QO, __COUNTER__) = \
      ::qo::NodeClassRegistry::Register(class_name, create, destroy)

#endif  // QO_CORE_QO_REGISTRY_H_
