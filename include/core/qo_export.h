/* Symbol visibility for the shared libraries. Everything is built with
 * -fvisibility=hidden; only what carries QO_EXPORT is part of the ABI. */
#ifndef QO_CORE_QO_EXPORT_H_
#define QO_CORE_QO_EXPORT_H_

#define QO_EXPORT __attribute__((visibility("default")))
#define QO_HIDDEN __attribute__((visibility("hidden")))

#ifdef __cplusplus
#define QO_EXTERN_C extern "C"
#define QO_EXTERN_C_BEGIN extern "C" {
#define QO_EXTERN_C_END }
#else
#define QO_EXTERN_C
#define QO_EXTERN_C_BEGIN
#define QO_EXTERN_C_END
#endif

/* An unmangled function exported from a shared library. */
#define QO_C_API QO_EXTERN_C QO_EXPORT

#endif /* QO_CORE_QO_EXPORT_H_ */
