/* Live video streams: "rtsp://", "v4l2://" and "file://" sources played by
 * GStreamer pipelines, pulled frame by frame.
 *
 * Calling order: Open -> Cfg* -> Start -> GetFrame/FrameFree* -> Stop -> Close.
 * qo_VideoStreamType may be called before Open to learn the "stream-type".
 * Diagnostics go to standard output, or to the sink set with
 * qo_VideoStreamSetLogSink; nothing throws. */
#ifndef HAL_MM_VIDEO_IN_H_
#define HAL_MM_VIDEO_IN_H_

#include "core/qo_c_type.h"
#include "core/qo_export.h"
#include "hal_mm_video_common.h"

/* Opaque: the layer's record of one opened stream. */
typedef void* qo_StrmHandle;

/* Probes an "rtsp://" or "v4l2://" source for its encoded format:
 * QO_PIX_FMT_H264, QO_PIX_FMT_H265, QO_PIX_FMT_MJPEG, or -1 (unknown, error,
 * "file://", or nothing found within about 11 s). One probe at a time. */
QO_C_API qoPixelFormat qo_VideoStreamType(const char* uri);

/* Opens a stream for uri ("rtsp://...", "v4l2:///dev/videoN",
 * "file:///path"). The uri string is referenced, not copied: keep it alive
 * until Close. Returns NULL on failure. */
QO_C_API qo_StrmHandle qo_VideoStreamOpen(const char* uri);

/* Sets one property before Start: "lower-trans-type", "stream-type",
 * "width", "height", "framerate", "exposure-auto", "exposure", "gain",
 * "mode" (0 only, v4l2 only). Anything else, or any call after Start, is
 * refused with a warning. */
QO_C_API void qo_VideoStreamCfg(qo_StrmHandle handle, const char* property, int value);

/* Builds the pipeline and sets it playing. 0 on success, -1 on failure. */
QO_C_API int qo_VideoStreamStart(qo_StrmHandle handle);

/* Pulls one frame, waiting up to timeout seconds (timeout < 1: no limit).
 * On return frame->data is a copy owned by the caller (release it with
 * qo_VideoStreamFrameFree), or NULL: then frame->eos tells end of stream (1)
 * from a time-out (0). */
QO_C_API void qo_VideoStreamGetFrame(qo_StrmHandle handle, qo_StreamInfo* frame, int timeout);

/* Releases frame->data (the pointer itself is left as it is). */
QO_C_API void qo_VideoStreamFrameFree(qo_StreamInfo* frame);

/* Ends the stream with an end-of-stream, waits (up to 4 s) for a thread
 * pulling frames to see it, then pauses the pipeline. 0 / -1. */
QO_C_API int qo_VideoStreamStop(qo_StrmHandle handle);

/* Tears the pipeline down and releases the handle. A stream that was never
 * started is only reported and stays allocated. The last close stops the
 * layer's main-loop thread. */
QO_C_API void qo_VideoStreamClose(qo_StrmHandle handle);

/* Why a stream is not delivering frames, as qo_VideoStreamLastError tells it.
 * The values are stable. */
typedef enum {
  QO_STREAM_OK = 0,                    /* nothing wrong (or not known yet) */
  QO_STREAM_REFUSED = 1,               /* the server refused the connection */
  QO_STREAM_HOST_NOT_FOUND = 2,        /* the host name does not resolve */
  QO_STREAM_UNAUTHORIZED = 3,          /* 401: missing or wrong credentials */
  QO_STREAM_NOT_FOUND = 4,             /* 404: no such stream on the server */
  QO_STREAM_UNSUPPORTED_TRANSPORT = 5, /* 461: every allowed transport refused */
  QO_STREAM_NO_VIDEO = 6,              /* no H.264, H.265 or JPEG video stream */
  QO_STREAM_NO_DATA = 7,               /* connected, but no data arrives */
  QO_STREAM_ENDED = 8,                 /* the server ended the stream */
  QO_STREAM_ERROR = 9,                 /* any other failure (see the text) */
  QO_STREAM_TOO_MANY_FILES = 10,       /* the process is out of descriptors */
} qo_StreamError;

/* The reason of the stream's last connection loss or failure, cleared when
 * frames flow again: returns a qo_StreamError (-1 for a NULL handle) and
 * copies a one-line explanation, NUL-terminated and cut to len bytes, into
 * buf when buf is not NULL. Passwords in URLs are shown as "***". Any thread,
 * any time between Open and Close. */
QO_C_API int qo_VideoStreamLastError(qo_StrmHandle handle, char* buf, int len);

/* A stream's counters since Open, as qo_VideoStreamGetStats copies them.
 * Frame ages are measured only for frames stamped with the sender's wall
 * clock (RTSP with sender reports): age = this host's CLOCK_REALTIME when the
 * frame is pulled minus the stamp, so they include any clock offset between
 * the two hosts. -1 while no stamped frame has been pulled. */
typedef struct {
  uint64_t frames;        /* frames pulled by GetFrame */
  uint64_t bytes;         /* their payload bytes */
  uint64_t timeouts;      /* GetFrame calls that ended without a frame or EOS */
  uint64_t reconnects;    /* reconnection attempts of the RTSP source */
  int64_t last_age_ns;    /* age of the last stamped frame */
  int64_t median_age_ns;  /* median age over the last 32 stamped frames */
  int reason;             /* qo_VideoStreamLastError's code */
  char reason_text[256];  /* and its text */
  uint64_t gaps;          /* RTSP: losses of data inside a connection (each
                             run of lost packets once); 0 for other sources */
} qo_StreamStats;

/* Copies the stream's counters into *stats: 0, or -1 for a NULL argument.
 * Cheap (a few atomic loads and the reason lock); any thread, any time
 * between Open and Close. */
QO_C_API int qo_VideoStreamGetStats(qo_StrmHandle handle, qo_StreamStats* stats);

/* Sends the layer's diagnostic texts to sink instead of standard output;
 * NULL restores standard output. Takes effect for the next text. */
QO_C_API void qo_VideoStreamSetLogSink(qo_LogSinkFunction sink, void* user_data);

#endif /* HAL_MM_VIDEO_IN_H_ */
