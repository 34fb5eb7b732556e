#include "frame.h"

#include <string>
#include <vector>

#include "core/qo_dlpack.h"

namespace py = pybind11;

namespace qopy {

namespace {

// Stamps from this value on are the sender's wall clock in ns since the
// epoch; smaller ones count µs of the receiver's monotonic clock.
constexpr int64_t kWallClockFrom = 1000000000000000000LL;

// The nodes tag their byte buffers int8; bytes of a bitstream or of a
// picture are unsigned, and that is what consumers expect.
DLDataType Exposed(DLDataType t) {
  if (t.code == kDLInt && t.bits == 8 && t.lanes == 1) t.code = kDLUInt;
  return t;
}

std::string BufferFormat(DLDataType t) {
  struct Entry {
    uint8_t code, bits;
    const char* format;
  };
  static constexpr Entry kFormats[] = {
      {kDLUInt, 8, "B"},  {kDLUInt, 16, "H"},  {kDLUInt, 32, "I"},
      {kDLUInt, 64, "Q"}, {kDLInt, 16, "h"},   {kDLInt, 32, "i"},
      {kDLInt, 64, "q"},  {kDLFloat, 32, "f"}, {kDLFloat, 64, "d"}};
  for (const Entry& e : kFormats) {
    if (t.lanes == 1 && t.code == e.code && t.bits == e.bits) return e.format;
  }
  throw py::type_error("frame element type has no buffer format");
}

const qo::NDArray::Container& Checked(const Frame& f) {
  if (f.array.get() == nullptr || f.array.get()->data == nullptr) {
    throw py::value_error("the frame holds no data");
  }
  return *f.array.get();
}

// What a DLPack consumer holds: a reference to the array plus the shape and
// strides the tensor record points to.
struct DlpackHolder {
  qo::NDArray array;
  std::vector<int64_t> shape;
  std::vector<int64_t> strides;
  DLManagedTensor tensor{};
};

void DeleteHolder(DLManagedTensor* t) { delete static_cast<DlpackHolder*>(t->manager_ctx); }

// A consumer renames the capsule "used_dltensor" and calls the deleter itself;
// an unconsumed capsule still owns the tensor.
void CapsuleDestructor(PyObject* capsule) {
  if (!PyCapsule_IsValid(capsule, "dltensor")) return;
  auto* t = static_cast<DLManagedTensor*>(PyCapsule_GetPointer(capsule, "dltensor"));
  if (t != nullptr && t->deleter != nullptr) t->deleter(t);
}

py::capsule ToDlpack(const Frame& f) {
  const qo::NDArray::Container& c = Checked(f);
  auto* h = new DlpackHolder{f.array, f.array.Shape(), {}, {}};
  if (c.strides != nullptr) h->strides.assign(c.strides, c.strides + h->shape.size());
  DLTensor& t = h->tensor.dl_tensor;
  t.data = c.data;
  t.device = c.ctx;
  t.ndim = static_cast<int32_t>(h->shape.size());
  t.dtype = Exposed(c.dtype);
  t.shape = h->shape.data();
  t.strides = h->strides.empty() ? nullptr : h->strides.data();
  t.byte_offset = c.byte_offset;
  h->tensor.manager_ctx = h;
  h->tensor.deleter = DeleteHolder;
  PyObject* capsule = PyCapsule_New(&h->tensor, "dltensor", CapsuleDestructor);
  if (capsule == nullptr) {
    delete h;
    throw py::error_already_set();
  }
  return py::reinterpret_steal<py::capsule>(capsule);
}

py::buffer_info ToBuffer(const Frame& f) {
  const qo::NDArray::Container& c = Checked(f);
  const DLDataType t = Exposed(c.dtype);
  const py::ssize_t item = t.bits / 8;
  std::vector<py::ssize_t> shape(c.shape_.begin(), c.shape_.end()), strides(shape.size());
  py::ssize_t step = item;
  for (size_t i = shape.size(); i-- > 0;) {
    strides[i] = c.strides != nullptr ? c.strides[i] * item : step;
    step *= shape[i];
  }
  // Read-only: every consumer of the task shares these bytes.
  return py::buffer_info(f.array.GetTensorData(), item, BufferFormat(t),
                         static_cast<py::ssize_t>(shape.size()), shape, strides, true);
}

py::object WallTime(const Frame& f) {
  if (f.time_stamp < kWallClockFrom) return py::none();
  py::module_ dt = py::module_::import("datetime");
  const int64_t ns = f.time_stamp;
  return dt.attr("datetime")
      .attr("fromtimestamp")(ns / 1000000000, dt.attr("timezone").attr("utc"))
      .attr("replace")(py::arg("microsecond") = (ns % 1000000000) / 1000);
}

const qo::ExtInfo& Ext(const Frame& f) {
  static const qo::ExtInfo kNone;
  const qo::ExtInfo* e = f.array.GetExtInfo();
  return e != nullptr ? *e : kNone;
}

}  // namespace

void BindFrame(py::module_& m) {
  py::class_<Frame>(m, "Frame", py::buffer_protocol(),
                    "One frame: its bytes (shared with the node, never copied) and header.")
      .def_buffer(&ToBuffer)
      .def_property_readonly(
          "data", [](py::object self) { return py::memoryview(self); },
          "The frame's bytes as a read-only memoryview (no copy).")
      .def_property_readonly("nbytes", [](const Frame& f) { return f.array.GetTensorDataSize(); })
      .def("__len__", [](const Frame& f) { return f.array.GetTensorDataSize(); })
      .def_readonly("time_stamp", &Frame::time_stamp,
                    "Sender's wall clock in ns since the epoch (>= 1e18), else monotonic µs.")
      .def_property_readonly("wall_time", &WallTime,
                             "The time stamp as an aware UTC datetime when it is the sender's "
                             "wall clock, else None.")
      .def_readonly("stream_id", &Frame::stream_id)
      .def_property_readonly("format", [](const Frame& f) { return Ext(f).format; })
      .def_property_readonly("width", [](const Frame& f) { return Ext(f).width; })
      .def_property_readonly("height", [](const Frame& f) { return Ext(f).height; })
      .def_property_readonly("kind",
                             [](const Frame& f) -> py::object {
                               const int k = Ext(f).kind;
                               if (k == 3) return py::str("encoded");
                               if (k == 2) return py::str("raw");
                               return py::int_(k);
                             })
      // CPU memory: there is no stream to synchronise with.
      .def(
          "__dlpack__", [](const Frame& f, const py::object&) { return ToDlpack(f); },
          py::arg("stream") = py::none())
      .def("__dlpack_device__",
           [](const Frame& f) {
             const DLDevice d = Checked(f).ctx;
             return py::make_tuple(static_cast<int>(d.device_type), d.device_id);
           })
      .def("__repr__", [](const Frame& f) {
        return "<qosdkmm.Frame " + std::to_string(f.array.GetTensorDataSize()) + " bytes, format " +
               std::to_string(Ext(f).format) + ", " + std::to_string(Ext(f).width) + "x" +
               std::to_string(Ext(f).height) + ", stream " + std::to_string(f.stream_id) +
               ", time " + std::to_string(f.time_stamp) + ">";
      });
}

}  // namespace qopy
