/* Records shared by the live-stream layer, the file decoder layer and the
 * nodes: one frame or packet, and a packet handed to the file decoder. */
#ifndef HAL_MM_VIDEO_COMMON_H_
#define HAL_MM_VIDEO_COMMON_H_

#include <stdint.h>

#include "core/qo_c_type.h"
#include "core/qo_export.h"

QO_EXTERN_C_BEGIN

typedef struct {
  uint64_t time_stamp;
  uint8_t* data;  /* QOMemAlloc(size, 64) for frames handed out */
  int32_t format; /* a qoPixelFormat */
  int32_t size;
  int32_t width;
  int32_t height;
  int32_t eos;
} qo_StreamInfo;

/* Called with the packet's priv cookie once the layer is done with it. */
typedef void (*qo_StreamFreeFunction)(void* priv);

typedef struct {
  qo_StreamInfo stream;
  void* priv;
  qo_StreamFreeFunction free_func; /* always set */
} qo_VideoStream;

/* A replacement for standard output as the destination of a layer's
 * diagnostic texts: called with each text exactly as the layer would print
 * it (with its own line ends, if any), one call at a time per layer. */
typedef void (*qo_LogSinkFunction)(const char* text, void* user_data);

QO_EXTERN_C_END

#endif /* HAL_MM_VIDEO_COMMON_H_ */
