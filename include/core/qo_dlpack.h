// DLPack record layouts used by arrays and packed-function values.
#ifndef QO_CORE_QO_DLPACK_H_
#define QO_CORE_QO_DLPACK_H_

#include <dlpack/dlpack.h>

// DLPack 0.6 renamed DLContext to DLDevice; the layout (device_type,
// device_id) is unchanged, so the old name stays an alias.
typedef DLDevice DLContext;

#endif  // QO_CORE_QO_DLPACK_H_
