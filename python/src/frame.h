// Frame: one frame task's array and header as a Python object whose bytes
// are shared, not copied, through the buffer protocol and DLPack.
#ifndef QO_PYTHON_FRAME_H_
#define QO_PYTHON_FRAME_H_

#include <pybind11/pybind11.h>

#include <cstdint>

#include "core/qo_ndarray.h"

namespace qopy {

struct Frame {
  qo::NDArray array;  // its reference keeps the node's buffer alive
  int32_t stream_id = 0;
  int64_t time_stamp = 0;
};

void BindFrame(pybind11::module_& m);

}  // namespace qopy

#endif  // QO_PYTHON_FRAME_H_
