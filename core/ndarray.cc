// Reference-counted arrays.
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "core/qo_c_runtime_api.h"
#include "core/qo_logging.h"
#include "core/qo_ndarray.h"

namespace qo {

namespace {

void AllocBear(NDArray::Container* c, size_t bear_bytes) {
  if (bear_bytes < NDArray::kMinBearBytes) bear_bytes = NDArray::kMinBearBytes;
  c->bear_data = QOMemAlloc(bear_bytes, 64);
  if (c->bear_data == nullptr) throw std::bad_alloc();
  std::memset(c->bear_data, 0, bear_bytes);
  c->bear_cap = bear_bytes;
  c->bear_size = 0;
}

void SetShape(NDArray::Container* c, std::vector<int64_t> shape) {
  c->shape_ = std::move(shape);
  c->shape = c->shape_.empty() ? nullptr : c->shape_.data();
  c->ndim = static_cast<int>(c->shape_.size());
}

// Deleter of arrays made by Empty: the tensor bytes are ours too.
void EmptyDeleter(NDArray::Container* c) {
  QOMemFree(c->data);
  delete c;
}

size_t ByteSize(const std::vector<int64_t>& shape, DLDataType dtype) {
  if (shape.empty()) return 0;
  size_t count = 1;
  for (int64_t d : shape) count *= d > 0 ? static_cast<size_t>(d) : 0;
  return count * ((static_cast<size_t>(dtype.bits) * dtype.lanes + 7) / 8);
}

}  // namespace

void NDArray::DecRef(Container* c) {
  if (c->ref_counter.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    if (c->deleter != nullptr) {
      c->deleter(c);
    } else {
      delete c;
    }
  }
}

NDArray NDArray::UserEmpty(std::vector<int64_t> shape, DLDataType dtype, DLContext ctx, ExtInfo ext,
                           void (*deleter)(Container*), void* manager_ctx, void* data) {
  Container* c = new Container();
  try {
    AllocBear(c, kMinBearBytes);
  } catch (...) {
    delete c;
    throw;
  }
  SetShape(c, std::move(shape));
  c->dtype = dtype;
  c->ctx = ctx;
  c->ext = ext;
  c->deleter = deleter;
  c->manager_ctx = manager_ctx;
  c->data = data;
  return NDArray(c);
}

NDArray NDArray::Empty(size_t data_bytes, size_t bear_bytes) {
  Container* c = new Container();
  if (data_bytes > 0) {
    c->data = QOMemAlloc(data_bytes, 64);
    if (c->data == nullptr) {
      delete c;
      throw std::bad_alloc();
    }
  }
  try {
    AllocBear(c, bear_bytes);
  } catch (...) {
    QOMemFree(c->data);
    delete c;
    throw;
  }
  SetShape(c, {static_cast<int64_t>(data_bytes)});
  c->dtype = DLDataType{kDLInt, 8, 1};
  c->deleter = EmptyDeleter;
  return NDArray(c);
}

void NDArray::Shrink(std::vector<int64_t>& shape, size_t bear_size) {
  CHECK(data_ != nullptr) << "Shrink of an undefined array";
  if (!shape.empty()) {
    CHECK_LE(ByteSize(shape, data_->dtype), GetTensorDataSize()) << "Shrink cannot grow an array";
    SetShape(data_, shape);
  }
  data_->bear_size = bear_size < data_->bear_cap ? bear_size : data_->bear_cap;
}

void* NDArray::GetTensorData() const {
  if (data_ == nullptr || data_->data == nullptr) return nullptr;
  return static_cast<char*>(data_->data) + data_->byte_offset;
}

size_t NDArray::GetTensorDataSize() const {
  if (data_ == nullptr || data_->data == nullptr) return 0;
  return ByteSize(data_->shape_, data_->dtype);
}

std::vector<int64_t> NDArray::Shape() const {
  return data_ == nullptr ? std::vector<int64_t>() : data_->shape_;
}

}  // namespace qo
