/* Elementary-stream file decoder: the caller pushes encoded packets (H.264,
 * H.265, MJPEG or any byte stream) and pulls whole parsed access units back.
 *
 * Pipeline: appsrc "vf_src" -> parser -> capsfilter -> appsink "vf_sink"
 * (appsrc -> appsink for stream types other than 31, 32 and 33).
 *
 * Life cycle: Open -> Cfg* -> Start -> (PutStream / GetFrame) -> Stop -> Close.
 * A stopped decoder is not restarted; open a new one. Diagnostics go to
 * standard output with the "KvVideoFile" tag, or to the sink set with
 * qo_VideoFileSetLogSink. */
#ifndef HAL_MM_FILE_IN_H_
#define HAL_MM_FILE_IN_H_

#include "core/qo_export.h"
#include "hal_mm_video_common.h"

QO_EXTERN_C_BEGIN

typedef void* qo_VideoFileHandle;

/* Returns a new decoder (stream type 31, H.264), or NULL on failure. */
QO_EXPORT qo_VideoFileHandle qo_VideoFileOpen(void);

/* Sets "stream-type", "width", "height" (reported for frames whose caps carry
 * no size) or "size" (appsrc queue limit = 8 x size bytes). Refused once the
 * pipeline plays. */
QO_EXPORT void qo_VideoFileCfg(qo_VideoFileHandle handle, const char* property, int value);

/* Builds the pipeline for the configured stream type and plays it.
 * 0 on success, -1 on failure. After a failure the decoder holds no pipeline:
 * it must not be started again, but Stop, GetFrame and Close stay safe
 * (Stop returns -1, GetFrame reports "not started", Close releases the rest). */
QO_EXPORT int qo_VideoFileStart(qo_VideoFileHandle handle);

/* Pushes one packet without copying it.
 * - stream->stream.eos != 0: end of stream (sent to GStreamer once); the
 *   packet is released at once; returns 0.
 * - otherwise the bytes are wrapped and stream->free_func(stream->priv) runs
 *   when GStreamer releases them; returns 0, or -1 if the push failed (the
 *   packet is released then too).
 * - While the input queue is full, waits for room: up to `timeout` seconds
 *   (then returns 1 and the caller still owns the packet), or without limit
 *   when timeout < 1.
 * A packet with a negative size or no data, or any packet after a failed
 * start, is released and refused (-1). */
QO_EXPORT int qo_VideoFilePutStream(qo_VideoFileHandle handle, qo_VideoStream* stream, int timeout);

/* Pulls one frame, waiting up to `timeout` seconds (forever when < 1).
 * On success strm->data holds strm->size bytes from QOMemAlloc (release with
 * qo_VideoFileFrameFree); time_stamp is the decode time stamp for H.264 and
 * H.265, the monotonic clock in microseconds otherwise. On end of stream
 * strm->eos is 1 and data NULL; on time-out data is NULL and eos 0. */
QO_EXPORT void qo_VideoFileGetFrame(qo_VideoFileHandle handle, qo_StreamInfo* strm, int timeout);

/* Releases the frame data handed out by GetFrame (the record itself belongs
 * to the caller). */
QO_EXPORT void qo_VideoFileFrameFree(qo_StreamInfo* strm);

/* Sends end of stream, waits up to 2 s for it to be seen, stops the pipeline
 * and releases a feeder blocked in PutStream (whose push then fails).
 * 0 on success, -1 on failure. */
QO_EXPORT int qo_VideoFileStop(qo_VideoFileHandle handle);

/* Releases the decoder; the handle is invalid afterwards. */
QO_EXPORT void qo_VideoFileClose(qo_VideoFileHandle handle);

/* Sends the layer's diagnostic texts to sink instead of standard output;
 * NULL restores standard output. Takes effect for the next text. */
QO_EXPORT void qo_VideoFileSetLogSink(qo_LogSinkFunction sink, void* user_data);

QO_EXTERN_C_END

#endif /* HAL_MM_FILE_IN_H_ */
