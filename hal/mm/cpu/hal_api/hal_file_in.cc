// Elementary-stream file decoder: appsrc -> parser -> capsfilter -> appsink,
// fed with caller-owned packets and drained one access unit at a time.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>

#include "core/qo_c_runtime_api.h"
#include "core/qo_c_type.h"
#include "hal_log.h"
#include "hal_mm_file_in.h"

namespace {

constexpr guint64 kDefaultMaxBytes = 1024 * 1024;
constexpr guint kMinPercent = 70;
constexpr guint kSinkMaxBuffers = 2;
constexpr int kEosPolls = 40;
constexpr useconds_t kEosPollUs = 50000;

struct KvVideoFile {
  GstElement* pipeline;    // "video_file"; NULL once a failed start released it
  GstElement* source;      // "vf_src"; the record holds its own reference
  GstElement* parse;       // "parser", owned by the pipeline
  GstElement* demux;       // always NULL
  GstElement* out_filter;  // "filter", owned by the pipeline
  GstElement* sink;        // "vf_sink"; the record holds its own reference
  GstPad* src_pad;         // unused
  gboolean is_full;        // guarded by mutex
  gboolean demux_en;       // unused
  GCond cond;
  GMutex mutex;
  // A qoPixelFormat kept as a plain int: any value may be configured and
  // values outside the enumeration must not be loaded as the enum type.
  gint fmt;
  gint width;
  gint height;
  // Written by PutStream and GetFrame, polled by Stop on another thread.
  std::atomic<gboolean> eos;
};
static_assert(sizeof(std::atomic<gboolean>) == sizeof(gboolean), "eos keeps its width");

// Lines without their own line end in the message table are printed as whole
// lines; the ones that carry explicit white space are printed verbatim.
void PrintLine(const char* text) { HalEmitf(HalChannel::kVideoFile, "%s\n", text); }

// True once Stop brought the pipeline down to READY. A starting pipeline is
// in READY too while it prerolls, but its target is PLAYING.
bool Stopped(GstElement* element) {
  GST_OBJECT_LOCK(element);
  bool stopped =
      GST_STATE_TARGET(element) == GST_STATE_READY && GST_STATE(element) == GST_STATE_READY;
  GST_OBJECT_UNLOCK(element);
  return stopped;
}

GstState CurrentState(GstElement* element) {
  GST_OBJECT_LOCK(element);
  GstState state = GST_STATE(element);
  GST_OBJECT_UNLOCK(element);
  return state;
}

// Products stay 32-bit signed like the callers' int arithmetic, but wrap
// instead of overflowing into undefined behaviour.
gint32 WrappingProduct(gint32 a, gint32 b) {
  return static_cast<gint32>(static_cast<guint32>(a) * static_cast<guint32>(b));
}

void StartFeed(GstAppSrc* /*src*/, guint /*length*/, gpointer data) {
  KvVideoFile* pvf = static_cast<KvVideoFile*>(data);
  g_mutex_lock(&pvf->mutex);
  pvf->is_full = FALSE;
  g_cond_broadcast(&pvf->cond);
  g_mutex_unlock(&pvf->mutex);
}

void StopFeed(GstAppSrc* /*src*/, gpointer data) {
  KvVideoFile* pvf = static_cast<KvVideoFile*>(data);
  g_mutex_lock(&pvf->mutex);
  pvf->is_full = TRUE;
  g_mutex_unlock(&pvf->mutex);
}

void ReleaseElement(GstElement* element) {
  if (element != nullptr) gst_object_unref(element);
}

void FreeRecord(KvVideoFile* pvf) {
  g_mutex_clear(&pvf->mutex);
  g_cond_clear(&pvf->cond);
  pvf->~KvVideoFile();
  g_slice_free1(sizeof(KvVideoFile), pvf);
}

// Releases the pipeline after a failed start; the record stays usable for
// Stop and Close but no longer refers to the released elements.
void DropPipeline(KvVideoFile* pvf) {
  gst_element_set_state(pvf->pipeline, GST_STATE_NULL);
  gst_object_unref(pvf->pipeline);
  pvf->pipeline = nullptr;
  pvf->parse = nullptr;
  pvf->out_filter = nullptr;
}

// Makes the parser and capsfilter for fmt. Returns FALSE for pass-through.
gboolean ParserFor(gint fmt, const char** parser, const char** caps) {
  switch (fmt) {
    case QO_PIX_FMT_H264:
      *parser = "h264parse";
      *caps = "video/x-h264,stream-format=byte-stream,alignment=au";
      return TRUE;
    case QO_PIX_FMT_H265:
      *parser = "h265parse";
      *caps = "video/x-h265,stream-format=byte-stream,alignment=au";
      return TRUE;
    case QO_PIX_FMT_MJPEG:
      *parser = "jpegparse";
      *caps = "image/jpeg";
      return TRUE;
    default:
      return FALSE;
  }
}

// Adds the elements (all held by references of our own, so one the bin
// refuses, e.g. for a clashing name, is not left floating). Returns FALSE if
// any was refused.
gboolean AddElements(GstBin* bin, GstElement* const* elements, int count) {
  gboolean ok = TRUE;
  for (int i = 0; i < count; ++i) {
    if (!gst_bin_add(bin, elements[i])) ok = FALSE;
  }
  return ok;
}

// Adds and links the elements. Returns FALSE when anything could not be
// made, added or linked.
gboolean BuildChain(KvVideoFile* pvf) {
  const char* parser_name = nullptr;
  const char* caps_text = nullptr;
  GstBin* bin = GST_BIN(pvf->pipeline);
  if (!ParserFor(pvf->fmt, &parser_name, &caps_text)) {
    HalEmitf(HalChannel::kVideoFile, "KvVideoFile: just pass through(%d)\n", pvf->fmt);
    GstElement* const chain[] = {pvf->source, pvf->sink};
    if (!AddElements(bin, chain, 2)) return FALSE;
    return gst_element_link(pvf->source, pvf->sink);
  }
  GstElement* parse = gst_element_factory_make(parser_name, "parser");
  GstElement* filter = gst_element_factory_make("capsfilter", "filter");
  if (parse == nullptr || filter == nullptr) {
    if (parse != nullptr) gst_object_unref(gst_object_ref_sink(parse));
    if (filter != nullptr) gst_object_unref(gst_object_ref_sink(filter));
    return FALSE;
  }
  GstCaps* caps = gst_caps_from_string(caps_text);
  g_object_set(filter, "caps", caps, nullptr);
  gst_caps_unref(caps);
  // Take references so that an element the bin refuses can be released and
  // the others stay valid until the pipeline owns them.
  gst_object_ref_sink(parse);
  gst_object_ref_sink(filter);
  GstElement* const chain[] = {pvf->source, parse, filter, pvf->sink};
  gboolean added = AddElements(bin, chain, 4);
  if (added) {
    pvf->parse = parse;
    pvf->out_filter = filter;
  }
  gst_object_unref(parse);
  gst_object_unref(filter);
  return added && gst_element_link_many(pvf->source, parse, filter, pvf->sink, nullptr);
}

}  // namespace

QO_C_API qo_VideoFileHandle qo_VideoFileOpen(void) {
  gst_init(nullptr, nullptr);
  KvVideoFile* pvf = new (g_slice_alloc(sizeof(KvVideoFile))) KvVideoFile();
  g_mutex_init(&pvf->mutex);
  g_cond_init(&pvf->cond);
  pvf->is_full = FALSE;
  pvf->demux_en = FALSE;
  pvf->fmt = QO_PIX_FMT_NONE;
  pvf->width = 0;
  pvf->height = 0;
  pvf->eos.store(FALSE, std::memory_order_relaxed);

  pvf->source = gst_element_factory_make("appsrc", "vf_src");
  pvf->sink = gst_element_factory_make("appsink", "vf_sink");
  pvf->pipeline = gst_pipeline_new("video_file");
  if (pvf->source == nullptr || pvf->sink == nullptr || pvf->pipeline == nullptr) {
    PrintLine("KvVideoFile: some internal element create failed!");
    if (pvf->source != nullptr) gst_object_unref(gst_object_ref_sink(pvf->source));
    if (pvf->sink != nullptr) gst_object_unref(gst_object_ref_sink(pvf->sink));
    if (pvf->pipeline != nullptr) gst_object_unref(gst_object_ref_sink(pvf->pipeline));
    FreeRecord(pvf);
    return nullptr;
  }
  // Own references: the elements join the pipeline only at start, and a
  // failed start releases the pipeline while Cfg and Close still use them.
  gst_object_ref_sink(pvf->source);
  gst_object_ref_sink(pvf->sink);

  g_object_set(pvf->source, "max-bytes", kDefaultMaxBytes, "min-percent", kMinPercent, nullptr);
  g_signal_connect(pvf->source, "need-data", G_CALLBACK(StartFeed), pvf);
  g_signal_connect(pvf->source, "enough-data", G_CALLBACK(StopFeed), pvf);
  g_object_set(pvf->sink, "max-buffers", kSinkMaxBuffers, "sync", FALSE, nullptr);

  pvf->fmt = QO_PIX_FMT_H264;
  return pvf;
}

QO_C_API void qo_VideoFileCfg(qo_VideoFileHandle handle, const char* property, int value) {
  KvVideoFile* pvf = static_cast<KvVideoFile*>(handle);
  g_return_if_fail(pvf);
  if (property == nullptr) return;
  HalEmitf(HalChannel::kVideoFile, "KvVideoFile: set property %s=%d\n", property, value);
  if (pvf->pipeline != nullptr && CurrentState(pvf->pipeline) == GST_STATE_PLAYING) {
    HalEmitf(HalChannel::kVideoFile,
             "KvVideoFile: %s failed, unable to set property %s after pipeline has been "
             "launched!!!\n",
             __func__, property);
    return;
  }
  if (g_strcmp0(property, "stream-type") == 0) {
    pvf->fmt = value;
  } else if (g_strcmp0(property, "width") == 0) {
    pvf->width = value;
  } else if (g_strcmp0(property, "height") == 0) {
    pvf->height = value;
  } else if (g_strcmp0(property, "size") == 0) {
    if (value != 0) {
      // A negative product converts to a huge limit, i.e. no limit.
      guint64 max_bytes = static_cast<guint64>(static_cast<gint64>(WrappingProduct(value, 8)));
      g_object_set(pvf->source, "max-bytes", max_bytes, nullptr);
    } else {
      PrintLine("WARNING: size property is 0, ignored !!!");
    }
  } else {
    HalEmitf(HalChannel::kVideoFile, "KvVideoFile: property: %s is not supported !!!\n", property);
  }
}

QO_C_API int qo_VideoFileStart(qo_VideoFileHandle handle) {
  KvVideoFile* pvf = static_cast<KvVideoFile*>(handle);
  g_return_val_if_fail(pvf, -1);
  if (pvf->pipeline == nullptr) return -1;  // an earlier start failed
  if (GST_OBJECT_PARENT(pvf->source) != nullptr) {
    // Already started: leave the running pipeline alone.
    PrintLine("KvVideoFile: Elements could not be linked  !!!");
    return -1;
  }
  if (!BuildChain(pvf)) {
    PrintLine("KvVideoFile: Elements could not be linked  !!!");
    DropPipeline(pvf);
    return -1;
  }
  if (gst_element_set_state(pvf->pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    PrintLine("KvVideoFile: Unable to set the pipeline to the playing state");
    DropPipeline(pvf);
    return -1;
  }
  return 0;
}

QO_C_API int qo_VideoFileStop(qo_VideoFileHandle handle) {
  KvVideoFile* pvf = static_cast<KvVideoFile*>(handle);
  g_return_val_if_fail(pvf, -1);
  int ret = 0;
  if (pvf->pipeline == nullptr) {
    PrintLine("KvVideoFile: video decoder stop failed !!! ");
    ret = -1;
  } else {
    gst_app_src_end_of_stream(GST_APP_SRC(pvf->source));
    PrintLine("KvVideoFile sent EOS ");
    int polls = 0;
    while (polls < kEosPolls && !pvf->eos.load(std::memory_order_relaxed)) {
      usleep(kEosPollUs);
      ++polls;
    }
    // The reported figure is polls x 20 (800 when the wait ran out), not the
    // time slept; log readers compare against it.
    int cost = pvf->eos.load(std::memory_order_relaxed) ? polls * 20 : 800;
    HalEmitf(HalChannel::kVideoFile, "KvVideoFile getting EOS costs:%d ms \n", cost);
    if (gst_element_set_state(pvf->pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
      PrintLine("KvVideoFile: video decoder stop failed !!! ");
      return -1;
    }
  }
  // The READY switch emptied the input queue: it is no longer full, so a
  // feeder woken here, or coming later, goes on to a push that fails.
  g_mutex_lock(&pvf->mutex);
  pvf->is_full = FALSE;
  g_cond_broadcast(&pvf->cond);
  g_mutex_unlock(&pvf->mutex);
  return ret;
}

QO_C_API void qo_VideoFileClose(qo_VideoFileHandle handle) {
  KvVideoFile* pvf = static_cast<KvVideoFile*>(handle);
  g_return_if_fail(pvf);
  if (pvf->pipeline != nullptr) {
    gst_element_set_state(pvf->pipeline, GST_STATE_NULL);
    gst_object_unref(pvf->pipeline);
    pvf->pipeline = nullptr;
  }
  // Never-started or failed-start elements are outside any pipeline and may
  // still be in a non-NULL state.
  gst_element_set_state(pvf->source, GST_STATE_NULL);
  gst_element_set_state(pvf->sink, GST_STATE_NULL);
  ReleaseElement(pvf->source);
  ReleaseElement(pvf->sink);
  FreeRecord(pvf);
}

QO_C_API int qo_VideoFilePutStream(qo_VideoFileHandle handle, qo_VideoStream* stream, int timeout) {
  KvVideoFile* pvf = static_cast<KvVideoFile*>(handle);
  g_return_val_if_fail(pvf, -1);
  if (stream == nullptr) return -1;

  if (stream->stream.eos != 0) {
    HalEmitf(HalChannel::kVideoFile, "video file in recived eos from stream !!!!\n ");
    if (!pvf->eos.exchange(TRUE, std::memory_order_relaxed)) {
      gst_app_src_end_of_stream(GST_APP_SRC(pvf->source));
    }
    if (stream->free_func != nullptr) stream->free_func(stream->priv);
    return 0;
  }
  // Also refused once a failed start released the pipeline: the orphaned
  // appsrc would otherwise queue the bytes for nobody.
  if (stream->stream.size < 0 || stream->stream.data == nullptr || pvf->pipeline == nullptr) {
    if (stream->free_func != nullptr) stream->free_func(stream->priv);
    return -1;
  }

  g_mutex_lock(&pvf->mutex);
  if (pvf->is_full) {
    if (timeout < 1) {
      PrintLine("internal qin is full");
      g_cond_wait(&pvf->cond, &pvf->mutex);
    } else {
      gint64 deadline = g_get_monotonic_time() + WrappingProduct(timeout, 1000000);
      if (!g_cond_wait_until(&pvf->cond, &pvf->mutex, deadline)) {
        g_mutex_unlock(&pvf->mutex);
        PrintLine("KvVideoFile: send packet timeout !!!");
        return 1;
      }
    }
  }
  g_mutex_unlock(&pvf->mutex);

  gsize size = static_cast<gsize>(stream->stream.size);
  GstBuffer* buffer = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, stream->stream.data,
                                                  size, 0, size, stream->priv, stream->free_func);
  GstFlowReturn flow = gst_app_src_push_buffer(GST_APP_SRC(pvf->source), buffer);
  if (flow != GST_FLOW_OK) {
    HalEmitf(HalChannel::kVideoFile, "KvVideoFile: send packet failed: %d\n", flow);
    return -1;
  }
  return 0;
}

QO_C_API void qo_VideoFileGetFrame(qo_VideoFileHandle handle, qo_StreamInfo* strm, int timeout) {
  KvVideoFile* pvf = static_cast<KvVideoFile*>(handle);
  g_return_if_fail(pvf);
  if (strm == nullptr) return;
  strm->data = nullptr;
  strm->time_stamp = 0;
  strm->eos = 0;
  strm->size = 0;
  strm->format = pvf->fmt;

  if (pvf->pipeline == nullptr || CurrentState(pvf->pipeline) < GST_STATE_READY) {
    PrintLine("KvVideoFile: video decoder does not start yet !!!");
    return;
  }

  // A started pipeline plays until Stop, which sends end of stream and leaves
  // it in READY. A sink stays "started" in READY, so a pull there would sit
  // out its whole time-out and never see the end: report the end at once.
  bool stopped = Stopped(pvf->pipeline);
  GstClockTime wait =
      timeout > 0 ? static_cast<GstClockTime>(timeout) * GST_SECOND : GST_CLOCK_TIME_NONE;
  GstSample* sample =
      stopped ? nullptr : gst_app_sink_try_pull_sample(GST_APP_SINK(pvf->sink), wait);
  if (sample == nullptr) {
    if (stopped || Stopped(pvf->pipeline) || gst_app_sink_is_eos(GST_APP_SINK(pvf->sink))) {
      PrintLine("KvVideoFile: get eos");
      strm->eos = 1;
      pvf->eos.store(TRUE, std::memory_order_relaxed);
    } else {
      PrintLine("KvVideoFile: timeout");
    }
    return;
  }

  GstBuffer* buffer = gst_sample_get_buffer(sample);
  if (pvf->fmt == QO_PIX_FMT_H264 || pvf->fmt == QO_PIX_FMT_H265) {
    strm->time_stamp = GST_BUFFER_DTS(buffer);
  } else {
    strm->time_stamp = static_cast<uint64_t>(g_get_monotonic_time());
  }

  GstCaps* caps = gst_sample_get_caps(sample);
  strm->width = pvf->width;
  strm->height = pvf->height;
  if (caps != nullptr) {
    GstVideoInfo info;
    if (gst_video_info_from_caps(&info, caps)) {
      // Encoded caps parse even without a size (jpegparse fed in small
      // pieces never learns it); keep the configured size then.
      if (GST_VIDEO_INFO_WIDTH(&info) > 0 && GST_VIDEO_INFO_HEIGHT(&info) > 0) {
        strm->width = GST_VIDEO_INFO_WIDTH(&info);
        strm->height = GST_VIDEO_INFO_HEIGHT(&info);
      }
    } else {
      PrintLine("KvVideoFile:[WARNING]can not get videoinfo from sample caps !!!");
    }
  }

  GstMapInfo map;
  if (buffer != nullptr && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    strm->data = static_cast<uint8_t*>(QOMemAlloc(map.size, 64));
    if (strm->data != nullptr) {
      // Frames are int32-sized by contract; a parser never hands out 2 GiB.
      strm->size = static_cast<int32_t>(map.size);
      std::memcpy(strm->data, map.data, map.size);
    }
    gst_buffer_unmap(buffer, &map);
  }
  gst_sample_unref(sample);
}

QO_C_API void qo_VideoFileFrameFree(qo_StreamInfo* strm) {
  if (strm == nullptr) return;
  QOMemFree(strm->data);
  strm->data = nullptr;
}
