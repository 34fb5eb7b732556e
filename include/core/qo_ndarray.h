// The framework's reference-counted array. Besides its tensor view it
// carries a side buffer (the "bear" data, used for serialised task headers)
// and an extension record describing the frame it holds.
#ifndef QO_CORE_QO_NDARRAY_H_
#define QO_CORE_QO_NDARRAY_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "core/qo_c_runtime_api.h"
#include "core/qo_dlpack.h"
#include "core/qo_export.h"

namespace qo {

// Frame description as the source nodes fill it. kind: 2 raw picture,
// 3 encoded bitstream. Consumers read the time stamp as the fifth 8-byte word.
struct ExtInfo {
  int32_t format = 0;
  int32_t kind = 0;
  int32_t zero0 = 0;
  int32_t zero1 = 0;
  int32_t width = 0;
  int32_t height = 0;
  int32_t zero2 = 0;
  uint64_t time_stamp = 0;
};
static_assert(sizeof(ExtInfo) == 40, "ExtInfo layout is shared with consumers");
static_assert(offsetof(ExtInfo, time_stamp) == 32, "time stamp is the fifth 8-byte word");

class QORetValue;

class QO_EXPORT NDArray {
 public:
  // Smallest side buffer; a serialised task header needs 20 bytes of it.
  static constexpr size_t kMinBearBytes = 64;

  struct Container {
    // DLTensor-like view of the tensor.
    void* data = nullptr;
    DLContext ctx{kDLCPU, 0};
    int ndim = 0;
    DLDataType dtype{kDLInt, 8, 1};
    int64_t* shape = nullptr;
    int64_t* strides = nullptr;
    uint64_t byte_offset = 0;

    // Whatever the creator needs to release data; its deleter runs once, when
    // the last reference drops, and ends with "delete container".
    void* manager_ctx = nullptr;
    void (*deleter)(Container* self) = nullptr;
    std::atomic<int32_t> ref_counter{0};
    std::vector<int64_t> shape_;
    ExtInfo ext;

    // Side buffer from QOMemAlloc: capacity and used length in bytes.
    void* bear_data = nullptr;
    size_t bear_cap = 0;
    size_t bear_size = 0;

    Container() = default;
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;
    // Releases only what the container itself owns (side buffer, shape).
    ~Container() {
      if (bear_data != nullptr) QOMemFree(bear_data);
    }
  };

  NDArray() noexcept : data_(nullptr) {}
  // Adds a reference to an existing container.
  explicit NDArray(Container* c) noexcept : data_(c) {
    if (data_ != nullptr) IncRef(data_);
  }
  NDArray(const NDArray& other) noexcept : data_(other.data_) {
    if (data_ != nullptr) IncRef(data_);
  }
  NDArray(NDArray&& other) noexcept : data_(other.data_) { other.data_ = nullptr; }
  NDArray& operator=(const NDArray& other) noexcept {
    NDArray(other).swap(*this);
    return *this;
  }
  NDArray& operator=(NDArray&& other) noexcept {
    NDArray(std::move(other)).swap(*this);
    return *this;
  }
  ~NDArray() { reset(); }

  void swap(NDArray& other) noexcept { std::swap(data_, other.data_); }
  // Drops this handle's reference.
  void reset() noexcept {
    if (data_ != nullptr) {
      DecRef(data_);
      data_ = nullptr;
    }
  }

  // Wraps memory owned by the caller. The deleter must release data (through
  // manager_ctx) and then "delete" the container; a null deleter just deletes
  // the container.
  static NDArray UserEmpty(std::vector<int64_t> shape, DLDataType dtype, DLContext ctx, ExtInfo ext,
                           void (*deleter)(Container*), void* manager_ctx, void* data);
  // An array of data_bytes tensor bytes (shape {data_bytes}, 8-bit elements)
  // and a side buffer of at least kMinBearBytes; both are freed with it.
  static NDArray Empty(size_t data_bytes, size_t bear_bytes);

  bool defined() const { return data_ != nullptr; }
  int use_count() const {
    return data_ == nullptr ? 0 : data_->ref_counter.load(std::memory_order_relaxed);
  }
  Container* get() const { return data_; }

  void* GetBearData() const { return data_ == nullptr ? nullptr : data_->bear_data; }
  size_t GetBearDataCap() const { return data_ == nullptr ? 0 : data_->bear_cap; }
  size_t GetBearDataSize() const { return data_ == nullptr ? 0 : data_->bear_size; }
  // Replaces the shape (an empty shape keeps the current one; a shape with
  // more bytes than the current one is a failed check) and sets the used
  // length of the side buffer (clamped to its capacity).
  void Shrink(std::vector<int64_t>& shape, size_t bear_size);
  ExtInfo* GetExtInfo() const { return data_ == nullptr ? nullptr : &data_->ext; }
  void* GetTensorData() const;
  // Product of the shape times the element size; 0 without data or shape.
  size_t GetTensorDataSize() const;
  std::vector<int64_t> Shape() const;

 private:
  friend class QORetValue;
  static void IncRef(Container* c) { c->ref_counter.fetch_add(1, std::memory_order_relaxed); }
  static void DecRef(Container* c);

  Container* data_;
};

}  // namespace qo

#endif  // QO_CORE_QO_NDARRAY_H_
