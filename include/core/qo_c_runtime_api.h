/* Process-wide services of the framework core that C code may call:
 * aligned frame memory and thread naming. */
#ifndef QO_CORE_QO_C_RUNTIME_API_H_
#define QO_CORE_QO_C_RUNTIME_API_H_

#include <stddef.h>

#include "qo_export.h"

QO_EXTERN_C_BEGIN

/* Allocates size bytes aligned to alignment (a power of two; callers use
 * 64). Returns NULL on failure. Release with QOMemFree. */
QO_EXPORT void* QOMemAlloc(size_t size, size_t alignment);
QO_EXPORT void QOMemFree(void* ptr);

/* Names the calling thread (at most 15 characters are kept). */
QO_EXPORT void set_thread_name_by_prctl(const char* name);

QO_EXTERN_C_END

#endif /* QO_CORE_QO_C_RUNTIME_API_H_ */
