// Live-stream layer: the process-wide proxy with its "Gstloop" main-loop
// thread, the bus watch, state switching, pipeline installation, and the
// public stream lifecycle with the frame pull.
#include <fcntl.h>
#include <gst/app/gstappsink.h>
#include <gst/base/gstbasesink.h>
#include <gst/gst.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/qo_c_runtime_api.h"
#include "gstlive555src.h"
#include "hal_log.h"
#include "hal_mm_video_in.h"
#include "hal_video_in_internal.h"

MultiStreamProxy kGstProxy = {nullptr, 0, 0, 0, 0, PTHREAD_MUTEX_INITIALIZER, {}, {0}};

namespace {

constexpr gint kRtspMaxBytes = 5 * 1024 * 1024;
constexpr GstClockTime kSinkMaxLateness = 70 * GST_MSECOND;
constexpr guint kQueuedSamples = 8;
constexpr int kStopPolls = 100;
constexpr useconds_t kStopPollUs = 40000;
// Bound on waiting for a bus watch that is being dispatched right now.
constexpr int kWatchReleasePolls = 50000;  // x 100 us = 5 s
// Descriptors a stream must find free before it starts. One RTSP stream
// holds about 14 (sockets, the buses' and the tasks' wake-up pipes); a start
// that runs out half-way fails in some element, late and with an unclear
// message, so the whole need is checked up front.
constexpr int kStartDescriptors = 24;
// Streams started but without a first frame open their descriptors later,
// on their own threads, and GLib aborts the process when it cannot make a
// wake-up pipe: a start leaves room for them too (counted up to a bound).
constexpr int kPendingDescriptors = 16;
constexpr int kPendingCounted = 64;
std::atomic<int> g_starting{0};
constexpr int64_t kWallFloorNs = 1000000000LL * 1000000000LL;  // Unix-epoch stamps are above
constexpr char kTooManyFiles[] = "too many open files";

void* GstLoopTask(void* usrdata) {
  MultiStreamProxy* proxy = static_cast<MultiStreamProxy*>(usrdata);
  HalPrint("------->task: running main loop!");
  g_main_loop_run(proxy->loop);
  HalPrint("------->task: exit main loop!");
  return nullptr;
}

void SetReason(MultiStreamPipeline* proxy, int reason, const char* text) {
  pthread_mutex_lock(&proxy->reason_lock);
  proxy->reason = reason;
  g_strlcpy(proxy->reason_text, text ? text : "", sizeof(proxy->reason_text));
  pthread_mutex_unlock(&proxy->reason_lock);
}

// Elements report running out of descriptors only in their message text.
bool IsTooManyFiles(const char* text) {
  return text && (strstr(text, "Too many open files") || strstr(text, kTooManyFiles));
}

// True when `need` more descriptors can be opened now.
bool DescriptorsLeft(int need) {
  std::vector<int> fds;
  fds.reserve(static_cast<size_t>(need));
  for (int fd; static_cast<int>(fds.size()) < need;) {
    fd = fcntl(0, F_DUPFD_CLOEXEC, 0);
    // fd 0 may be closed: then a fresh descriptor serves as well.
    if (fd < 0 && errno == EBADF) fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0) break;
    fds.push_back(fd);
  }
  const bool ok = static_cast<int>(fds.size()) == need;
  for (int fd : fds) close(fd);
  return ok;
}

// The stream has its descriptors (first frame) or needs none any more.
void StartingDone(MultiStreamPipeline* proxy) {
  if (proxy->starting.exchange(0, std::memory_order_relaxed) != 0)
    g_starting.fetch_sub(1, std::memory_order_relaxed);
}

// The RTSP source's connection states ("live555src-state" messages): a loss
// and the retries after it carry a reason, frames flowing again clear it.
void OnSourceState(MultiStreamPipeline* proxy, const GstStructure* s) {
  static const struct {
    const char* nick;
    qo_StreamError code;
  } kReasons[] = {
      {"refused", QO_STREAM_REFUSED},
      {"host-not-found", QO_STREAM_HOST_NOT_FOUND},
      {"unauthorized", QO_STREAM_UNAUTHORIZED},
      {"not-found", QO_STREAM_NOT_FOUND},
      {"unsupported-transport", QO_STREAM_UNSUPPORTED_TRANSPORT},
      {"no-video", QO_STREAM_NO_VIDEO},
      {"no-data", QO_STREAM_NO_DATA},
      {"ended", QO_STREAM_ENDED},
  };
  const char* state = gst_structure_get_string(s, "state");
  guint attempt = 0;
  if (g_strcmp0(state, "connecting") == 0 && gst_structure_get_uint(s, "attempt", &attempt) &&
      attempt > 0)
    proxy->stat_reconnects.fetch_add(1, std::memory_order_relaxed);
  if (g_strcmp0(state, "streaming") == 0) {
    SetReason(proxy, QO_STREAM_OK, "");
    return;
  }
  const char* nick = gst_structure_get_string(s, "reason-code");
  if (!nick) return;
  qo_StreamError code = QO_STREAM_ERROR;
  for (const auto& r : kReasons) {
    if (strcmp(r.nick, nick) == 0) code = r.code;
  }
  const char* text = gst_structure_get_string(s, "reason");
  if (IsTooManyFiles(text)) code = QO_STREAM_TOO_MANY_FILES;
  SetReason(proxy, code, text);
}

gboolean BusWatchCallback(GstBus* /*bus*/, GstMessage* msg, gpointer user_data) {
  MultiStreamPipeline* proxy = static_cast<MultiStreamPipeline*>(user_data);
  switch (GST_MESSAGE_TYPE(msg)) {
    case GST_MESSAGE_EOS:
      HalPrint("$$$$>pl#%d receive EOS msg!\n", proxy->iId);
      break;
    case GST_MESSAGE_ERROR:
    case GST_MESSAGE_WARNING:
    case GST_MESSAGE_INFO: {
      GError* err = nullptr;
      gchar* debug = nullptr;
      const char* kind;
      if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR) {
        gst_message_parse_error(msg, &err, &debug);
        kind = "ERROR";
      } else if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_WARNING) {
        gst_message_parse_warning(msg, &err, &debug);
        kind = "WARNING";
      } else {
        gst_message_parse_info(msg, &err, &debug);
        kind = "INFO";
      }
      HalPrint("GStreamer %s: %s; debug info: %s", kind, err ? err->message : "(null)",
               debug ? debug : "(null)");
      if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR &&
          qo_VideoStreamLastError(proxy, nullptr, 0) == QO_STREAM_OK)
        SetReason(proxy,
                  IsTooManyFiles(err ? err->message : nullptr) || IsTooManyFiles(debug)
                      ? QO_STREAM_TOO_MANY_FILES
                      : QO_STREAM_ERROR,
                  err ? err->message : "error");
      if (err) g_error_free(err);
      g_free(debug);
      break;
    }
    case GST_MESSAGE_STATE_CHANGED:
      // Only the pipeline's own transitions count; children are ignored.
      if (GST_MESSAGE_SRC(msg) == GST_OBJECT_CAST(proxy->pl)) {
        GstState old_state, new_state, pending;
        gst_message_parse_state_changed(msg, &old_state, &new_state, &pending);
        HalPrint("#########pl#%d state change:old: %s,current: %s,pending: %s #########\n",
                 proxy->iId, gst_element_state_get_name(old_state),
                 gst_element_state_get_name(new_state), gst_element_state_get_name(pending));
        if (new_state == proxy->wait_state.load(std::memory_order_relaxed)) {
          HalPrint("############# pl#%d switch state[%d] #############\n", proxy->iId, new_state);
          proxy->state.store(new_state, std::memory_order_relaxed);
        }
      }
      break;
    case GST_MESSAGE_LATENCY:
      HalPrint("$>pl#%d redistributing latency\n", proxy->iId);
      gst_bin_recalculate_latency(GST_BIN(proxy->pl));
      break;
    case GST_MESSAGE_REQUEST_STATE: {
      GstState requested;
      gst_message_parse_request_state(msg, &requested);
      HalPrint("$>pl#%d state change to %s was requested", proxy->iId,
               gst_element_state_get_name(requested));
      GstStateChangeReturn res = gst_element_set_state(proxy->pl, requested);
      HalPrint("res=%d\n", res);
      break;
    }
    case GST_MESSAGE_ELEMENT: {
      const GstStructure* s = gst_message_get_structure(msg);
      if (s && gst_structure_has_name(s, "live555src-state")) OnSourceState(proxy, s);
      break;
    }
    default:
      break;
  }
  return TRUE;
}

// h264parse posts bitrate tags, dozens in a stream's first seconds, and the
// watch has no use for them; dropped where they are posted, they never wake
// "Gstloop". A dropped message is ours to unref; each one holds its poster.
GstBusSyncReply DropTags(GstBus* /*bus*/, GstMessage* msg, gpointer /*user_data*/) {
  if (GST_MESSAGE_TYPE(msg) != GST_MESSAGE_TAG) return GST_BUS_PASS;
  gst_message_unref(msg);
  return GST_BUS_DROP;
}

// Runs once GLib has let go of the watch's data: after the removal, or after
// a dispatch that was running at that moment has returned.
void BusWatchReleased(gpointer user_data) {
  static_cast<MultiStreamPipeline*>(user_data)->watch_released.store(1, std::memory_order_release);
}

int GstPipelineStart(MultiStreamPipeline* proxy) {
  // A file can fill the appsink before the switch to PLAYING returns, and
  // nobody pulls yet: the streaming thread then waits in the sink holding
  // locks the rest of the switch needs. The sink takes whatever arrives
  // during the switch and gets its limits back afterwards.
  GstAppSink* sink = GST_APP_SINK(proxy->appsink);
  const guint max_buffers = gst_app_sink_get_max_buffers(sink);
  const gboolean wait_on_eos = gst_app_sink_get_wait_on_eos(sink);
  gst_app_sink_set_max_buffers(sink, 0);
  gst_app_sink_set_wait_on_eos(sink, FALSE);
  int ret = PipelineSwitchState(proxy, GST_STATE_PLAYING, GST_STATE_PLAYING);
  gst_app_sink_set_max_buffers(sink, max_buffers);
  gst_app_sink_set_wait_on_eos(sink, wait_on_eos);
  if (ret == -1) {
    HalPrint("$$$$>pl set state changed is failure return:%d...\n", ret);
    return -1;
  }
  return 0;
}

// One step down when the pipeline is in `from`: 0 done or not needed, -1
// (reported) when the switch failed.
int StepDown(MultiStreamPipeline* proxy, GstState from, GstState to) {
  if (proxy->state.load(std::memory_order_relaxed) != from) return 0;
  int ret = PipelineSwitchState(proxy, to, to);
  if (ret == -1) {
    HalPrint("$$$$>pl set state changed is failure return:%d...\n", ret);
    return -1;
  }
  return 0;
}

int GstPipelineStop(MultiStreamPipeline* proxy) {
  return StepDown(proxy, GST_STATE_PLAYING, GST_STATE_PAUSED);
}

int GstPipelineDestory(MultiStreamPipeline* proxy) {
  int ret;
  const bool playing = proxy->state.load(std::memory_order_relaxed) == GST_STATE_PLAYING;
  if (StepDown(proxy, GST_STATE_PLAYING, GST_STATE_PAUSED) != 0) return -1;
  if (playing) usleep(1000);
  const bool paused = proxy->state.load(std::memory_order_relaxed) == GST_STATE_PAUSED;
  if (StepDown(proxy, GST_STATE_PAUSED, GST_STATE_READY) != 0) return -1;
  if (paused) usleep(1000);
  int state = proxy->state.load(std::memory_order_relaxed);
  if (state != -1 && state != GST_STATE_NULL) {
    ret = PipelineSwitchState(proxy, GST_STATE_NULL, GST_STATE_NULL);
    if (ret == -1) HalPrint("$$$$> state changed is failure return:%d...\n", ret);
    PiplineUninstall(proxy);
  }
  return 0;
}

// Sets an integer property through a G_TYPE_INT value, letting GObject
// convert it to the property's own integer type.
void SetIntProperty(GstElement* element, const char* name, int value) {
  GValue v = G_VALUE_INIT;
  g_value_init(&v, G_TYPE_INT);
  g_value_set_int(&v, value);
  g_object_set_property(G_OBJECT(element), name, &v);
  g_value_unset(&v);
}

// The appsink reports QoS for every frame it takes. Nothing upstream (the
// parsers, capsfilter, the sources) acts on it, and passing it up through
// each of them cost the streaming thread a few hops per frame.
GstPadProbeReturn DropQos(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer /*user_data*/) {
  return GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_QOS ? GST_PAD_PROBE_DROP
                                                                         : GST_PAD_PROBE_OK;
}

// An integer field of the caps, 0 if absent. By quark: a field name given as
// text is looked up under GLib's one process-wide quark lock.
gint CapsInt(const GstStructure* s, GQuark field) {
  const GValue* v = gst_structure_id_get_value(s, field);
  return v && G_VALUE_HOLDS_INT(v) ? g_value_get_int(v) : 0;
}

// Width and height from the sample's caps, read again only when they change.
void FrameSize(MultiStreamPipeline* proxy, GstSample* sample, qo_StreamInfo* frame) {
  static const GQuark kWidth = g_quark_from_static_string("width");
  static const GQuark kHeight = g_quark_from_static_string("height");
  GstCaps* caps = gst_sample_get_caps(sample);
  if (caps != proxy->frame_caps) {
    proxy->frame_width = proxy->frame_height = 0;
    if (caps && gst_caps_get_size(caps) > 0) {
      const GstStructure* s = gst_caps_get_structure(caps, 0);
      proxy->frame_width = CapsInt(s, kWidth);
      proxy->frame_height = CapsInt(s, kHeight);
    }
    // Held so that the address cannot come back as other caps.
    gst_caps_replace(&proxy->frame_caps, caps);
  }
  frame->width = proxy->frame_width;
  frame->height = proxy->frame_height;
}

// Copies the sample out into frame memory owned by the caller.
void StreamOutDefault(GstSample* sample, GstBuffer* buffer, qo_StreamInfo* frame) {
  gsize size = buffer ? gst_buffer_get_size(buffer) : 0;
  frame->data = static_cast<uint8_t*>(QOMemAlloc(size, 64));
  if (!frame->data) {
    HalPrint("#>%s():QOMemAlloc %zu bytes is failed!\n", __func__, static_cast<size_t>(size));
    size = 0;
  } else if (size > 0) {
    gst_buffer_extract(buffer, 0, frame->data, size);
  }
  frame->size = static_cast<int32_t>(size);
  gst_sample_unref(sample);
}

void SampleGetFrame(MultiStreamPipeline* proxy, GstSample* sample, qo_StreamInfo* frame) {
  proxy->frame_counter++;
  frame->format = proxy->source_stream_type;
  GstClockTime ts = GST_CLOCK_TIME_NONE;
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  if (proxy->protocol == kProtoRtsp) {
    GstReferenceTimestampMeta* meta =
        buffer ? gst_buffer_get_reference_timestamp_meta(buffer, nullptr) : nullptr;
    if (meta)
      ts = meta->timestamp;
    else
      HalPrint("########>%s():gst_buffer_get_reference_timestamp_meta get timestamp is failed!\n",
               __func__);
  } else if (buffer) {
    ts = GST_BUFFER_DTS(buffer);
    if (!GST_CLOCK_TIME_IS_VALID(ts)) ts = GST_BUFFER_PTS(buffer);
  }
  if (!GST_CLOCK_TIME_IS_VALID(ts)) ts = static_cast<GstClockTime>(g_get_monotonic_time());
  frame->time_stamp = ts;
  if (proxy->stat_frames.fetch_add(1, std::memory_order_relaxed) == 0) StartingDone(proxy);
  if (buffer) proxy->stat_bytes.fetch_add(gst_buffer_get_size(buffer), std::memory_order_relaxed);
  if (static_cast<int64_t>(ts) >= kWallFloorNs) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t age = now.tv_sec * 1000000000LL + now.tv_nsec - static_cast<int64_t>(ts);
    const uint64_t slot = proxy->stat_aged.load(std::memory_order_relaxed);
    proxy->stat_ages[slot % kStatAgeRing].store(age, std::memory_order_relaxed);
    proxy->stat_aged.store(slot + 1, std::memory_order_release);
  }
  FrameSize(proxy, sample, frame);
  StreamOutDefault(sample, buffer, frame);
}

}  // namespace

int qo_VideoStreamInit() {
  MultiStreamProxy* proxy = &kGstProxy;
  pthread_mutex_lock(&proxy->lock);
  if (proxy->gst_init_flag) {
    HalPrint("$>%s():gst_init is already inited!\n", __func__);
    if (proxy->main_loop_deinit_flag == 0) {
      pthread_mutex_unlock(&proxy->lock);
      return 0;
    }
    proxy->main_loop_deinit_flag = 0;
  } else {
    proxy->gst_init_flag = 1;
    gst_init(nullptr, nullptr);
    // Our RTSP source is built in: no plugin path to set up.
    if (!qo_live555src_register_static())
      HalPrint("#>%s():live555src is not available!\n", __func__);
  }
  proxy->loop = g_main_loop_new(nullptr, FALSE);
  if (!proxy->loop) {
    HalPrint("#>%s():create main loop failed!\n", __func__);
    pthread_mutex_unlock(&proxy->lock);
    return -1;
  }
  if (pthread_create(&proxy->loop_thread, nullptr, GstLoopTask, proxy) != 0) {
    HalPrint("-------Create (main_loop) pthread is failure!");
    g_main_loop_unref(proxy->loop);
    proxy->loop = nullptr;
    // Let the next open try again to start a loop.
    proxy->main_loop_deinit_flag = 1;
    pthread_mutex_unlock(&proxy->lock);
    return -1;
  }
  if (pthread_setname_np(proxy->loop_thread, "Gstloop") != 0)
    HalPrint("------Mainloop pthread_setname_np is failure!");
  // A quit issued before the thread entered the loop would be lost and the
  // join in the last close would hang: wait until the loop really runs.
  while (!g_main_loop_is_running(proxy->loop)) g_usleep(100);
  pthread_mutex_unlock(&proxy->lock);
  return 0;
}

void qo_VideoStreamDeinit() {
  MultiStreamProxy* proxy = &kGstProxy;
  proxy->pipeline_count--;
  if (proxy->pipeline_count > 0) {
    HalPrint("#>%s():warn ! %d pipelines active!\n", __func__, proxy->pipeline_count);
    return;
  }
  g_main_loop_quit(proxy->loop);
  // Joined before the last reference goes, so the thread never runs a loop
  // that is being freed.
  pthread_join(proxy->loop_thread, nullptr);
  g_main_loop_unref(proxy->loop);
  proxy->loop = nullptr;
  proxy->main_loop_deinit_flag = 1;
}

int PipelineSwitchState(MultiStreamPipeline* proxy, GstState to_state, GstState chk_state) {
  proxy->wait_state.store(chk_state, std::memory_order_relaxed);
  GstStateChangeReturn ret = gst_element_set_state(proxy->pl, to_state);
  switch (ret) {
    case GST_STATE_CHANGE_SUCCESS:
      proxy->state.store(chk_state, std::memory_order_relaxed);
      return 0;
    case GST_STATE_CHANGE_NO_PREROLL:
      HalPrint("$$$$>pl#%d state changed return:GST_STATE_CHANGE_NO_PREROLL\n", proxy->iId);
      proxy->state.store(chk_state, std::memory_order_relaxed);
      return -2;
    default:
      // Failure, or an asynchronous change that the bus watch completes.
      HalPrint("$$$$>pl#%d state changed is failure return:%d...\n", proxy->iId, ret);
      return -1;
  }
}

int PiplineInstall(MultiStreamPipeline* proxy) {
  GError* error = nullptr;
  HalPrint("$$$$>p#%d full string=%s\n", proxy->iId, proxy->full_string);
  proxy->pl = gst_parse_launch(proxy->full_string, &error);
  if (!proxy->pl) HalPrint("#>%s():gst_parse_launch failed!\n", __func__);
  if (error) {
    HalPrint("#>%s():gst_parse_launch full string error:%s!\n", __func__, error->message);
    g_error_free(error);
    return -1;
  }
  if (!proxy->pl) return -1;

  if (proxy->protocol == kProtoRtsp) {
    GstElement* src = gst_bin_get_by_name(GST_BIN(proxy->pl), "src");
    if (!src) {
      HalPrint("#>%s():get element src failed!\n", __func__);
      return -1;
    }
    SetIntProperty(src, "max-bytes", kRtspMaxBytes);
    SetIntProperty(src, "protocols", proxy->rtsp_trans);
    proxy->live555src.store(src, std::memory_order_release);
  }

  proxy->appsink = gst_bin_get_by_name(GST_BIN(proxy->pl), "appsink");
  if (!proxy->appsink) {
    HalPrint("#>%s():get element appsink failed!\n", __func__);
    return -1;
  }
  gst_base_sink_set_max_lateness(GST_BASE_SINK(proxy->appsink), kSinkMaxLateness);
  gst_base_sink_set_qos_enabled(GST_BASE_SINK(proxy->appsink), TRUE);
  if (GstPad* sinkpad = gst_element_get_static_pad(proxy->appsink, "sink")) {
    gst_pad_add_probe(sinkpad, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, DropQos, nullptr, nullptr);
    gst_object_unref(sinkpad);
  }
  if (proxy->protocol == kProtoV4l2) {
    // A camera keeps only its newest frame.
    gst_app_sink_set_drop(GST_APP_SINK(proxy->appsink), TRUE);
    gst_app_sink_set_max_buffers(GST_APP_SINK(proxy->appsink), 1);
  } else {
    // Network and file sources are held back while the caller is slow.
    gst_app_sink_set_max_buffers(GST_APP_SINK(proxy->appsink), kQueuedSamples);
  }

  proxy->bus = gst_pipeline_get_bus(GST_PIPELINE(proxy->pl));
  gst_bus_set_sync_handler(proxy->bus, DropTags, nullptr, nullptr);
  proxy->watch_released.store(0, std::memory_order_relaxed);
  proxy->bus_id = gst_bus_add_watch_full(proxy->bus, G_PRIORITY_DEFAULT, BusWatchCallback, proxy,
                                         BusWatchReleased);
  return 0;
}

int PiplineUninstall(MultiStreamPipeline* proxy) {
  // The watch goes first: BusWatchCallback uses the pipeline and the record,
  // and it may be running on "Gstloop" at this very moment.
  if (proxy->bus_id != 0) {
    g_source_remove(proxy->bus_id);
    int polls = 0;
    while (!proxy->watch_released.load(std::memory_order_acquire) && polls < kWatchReleasePolls) {
      g_usleep(100);
      polls++;
    }
    if (!proxy->watch_released.load(std::memory_order_acquire)) {
      // Still in use by a dispatch that does not return: keep the record.
      HalPrint("#>%s():pl#%d bus watch is busy, record kept!\n", __func__, proxy->iId);
      return 0;
    }
  }
  if (GstElement* src = proxy->live555src.exchange(nullptr, std::memory_order_relaxed))
    gst_object_unref(src);
  proxy->state.store(-1, std::memory_order_relaxed);
  if (proxy->appsink) gst_object_unref(proxy->appsink);
  gst_caps_replace(&proxy->frame_caps, nullptr);
  if (proxy->pl) gst_object_unref(proxy->pl);
  if (proxy->bus) gst_object_unref(proxy->bus);
  pthread_mutex_destroy(&proxy->reason_lock);
  memset(static_cast<void*>(proxy), 0, sizeof(*proxy));
  free(proxy);
  return 0;
}

qo_StrmHandle qo_VideoStreamOpen(const char* uri) {
  if (qo_VideoStreamInit() != 0) {
    HalPrint("#>%s(): gst_init is failed\n", __func__);
    return nullptr;
  }
  MultiStreamProxy* gproxy = &kGstProxy;
  pthread_mutex_lock(&gproxy->lock);
  MultiStreamPipeline* proxy =
      static_cast<MultiStreamPipeline*>(calloc(1, sizeof(MultiStreamPipeline)));
  if (!proxy) {
    HalPrint("#>%s():malloc MultiStreamPipeline is failed!\n", __func__);
    pthread_mutex_unlock(&gproxy->lock);
    return nullptr;
  }
  proxy->uri_param = uri;
  proxy->protocol = PipelineParamParse(proxy);
  if (!proxy->protocol) {
    HalPrint("#>%s():input url is error!\n", __func__);
    free(proxy);
    pthread_mutex_unlock(&gproxy->lock);
    return nullptr;
  }
  proxy->state.store(-1, std::memory_order_relaxed);
  proxy->rtsp_trans = RTSP_TRANS_UDP;
  proxy->source_stream_type = QO_PIX_FMT_NONE;
  proxy->expo = -1;
  proxy->expo_auto = -1;
  proxy->test_pattern = -1;
  proxy->gain = -1;
  proxy->desc.src_w = 0;
  proxy->desc.src_h = 0;
  proxy->desc.src_fps = 0;
  proxy->video_mode = 0;
  proxy->frame_counter = 0;
  proxy->wait_eos.store(0, std::memory_order_relaxed);
  pthread_mutex_init(&proxy->reason_lock, nullptr);
  proxy->reason = QO_STREAM_OK;
  proxy->iId = gproxy->id_count;
  gproxy->id_count++;
  gproxy->pipeline_count++;
  pthread_mutex_unlock(&gproxy->lock);
  return proxy;
}

int qo_VideoStreamStart(qo_StrmHandle handle) {
  MultiStreamPipeline* proxy = static_cast<MultiStreamPipeline*>(handle);
  if (!proxy) {
    HalPrint("#>%s():Error handle is null\n", __func__);
    return -1;
  }
  // A second pipeline built over the first would leave the first one running
  // with a bus watch on this record after close frees it.
  if (proxy->pl) {
    HalPrint("#>%s():pl#%d pipeline is already built!\n", __func__, proxy->iId);
    return -1;
  }
  const int need =
      kStartDescriptors + kPendingDescriptors * std::min(kPendingCounted, g_starting.load());
  if (!DescriptorsLeft(need)) {
    char text[128];
    snprintf(text, sizeof(text),
             "%s: fewer than %d descriptors free for this stream and %d starting", kTooManyFiles,
             need, g_starting.load());
    HalPrint("#>%s():pl#%d %s\n", __func__, proxy->iId, text);
    SetReason(proxy, QO_STREAM_TOO_MANY_FILES, text);
    return -1;
  }
  proxy->starting.store(1, std::memory_order_relaxed);
  g_starting.fetch_add(1, std::memory_order_relaxed);
  if (PipelinelCompose(proxy) != 0 || PiplineInstall(proxy) != 0 || GstPipelineStart(proxy) != 0) {
    StartingDone(proxy);
    return -1;
  }
  return 0;
}

int qo_VideoStreamStop(qo_StrmHandle handle) {
  MultiStreamPipeline* proxy = static_cast<MultiStreamPipeline*>(handle);
  if (!proxy) {
    HalPrint("#>%s():Error handle is null\n", __func__);
    return -1;
  }
  if (proxy->state.load(std::memory_order_relaxed) < GST_STATE_PLAYING) {
    HalPrint("#>%s():video stream state is error\n", __func__);
    return -1;
  }
  GstElement* src = gst_bin_get_by_name(GST_BIN(proxy->pl), "src");
  if (src) {
    if (proxy->protocol == kProtoRtsp)
      g_object_set(src, "eos", TRUE, nullptr);  // the source ends its own stream
    else
      gst_element_send_event(src, gst_event_new_eos());
    gst_object_unref(src);
  }
  // A thread pulling frames sets wait_eos when the end arrives.
  int polls = 0;
  while (polls < kStopPolls && !proxy->wait_eos.load(std::memory_order_acquire)) {
    usleep(kStopPollUs);
    polls++;
  }
  HalPrint("----->pl%d spent time:%d ms or wait eos\n", proxy->iId, polls * 20);
  return GstPipelineStop(proxy);
}

void qo_VideoStreamClose(qo_StrmHandle handle) {
  MultiStreamPipeline* proxy = static_cast<MultiStreamPipeline*>(handle);
  if (!proxy) {
    HalPrint("#>%s():Error handle is null\n", __func__);
    return;
  }
  if (proxy->state.load(std::memory_order_relaxed) == -1) {
    // Never started (or the start failed): the record stays allocated.
    HalPrint("#>%s():video stream state is error\n", __func__);
    return;
  }
  MultiStreamProxy* gproxy = &kGstProxy;
  StartingDone(proxy);
  pthread_mutex_lock(&gproxy->lock);
  GstPipelineDestory(proxy);
  qo_VideoStreamDeinit();
  pthread_mutex_unlock(&gproxy->lock);
}

void qo_VideoStreamGetFrame(qo_StrmHandle handle, qo_StreamInfo* frame, int timeout) {
  MultiStreamPipeline* proxy = static_cast<MultiStreamPipeline*>(handle);
  if (!frame) {
    HalPrint("#>%s():Error frame is null\n", __func__);
    return;
  }
  if (!proxy) {
    HalPrint("#>%s():Error handle is null\n", __func__);
    frame->eos = 1;
    frame->data = nullptr;
    return;
  }
  frame->eos = 0;
  if (!proxy->appsink) {
    // Not started: no frame will ever come.
    HalPrint("#>%s():video stream state is error\n", __func__);
    frame->eos = 1;
    frame->data = nullptr;
    return;
  }
  GstClockTime wait =
      timeout < 1 ? GST_CLOCK_TIME_NONE : static_cast<GstClockTime>(timeout) * GST_SECOND;
  GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(proxy->appsink), wait);
  if (!sample) {
    if (gst_app_sink_is_eos(GST_APP_SINK(proxy->appsink))) {
      HalEmit(HalChannel::kVideoStream, "--------->video in recived eos from stream !!!!");
      frame->eos = 1;
      frame->data = nullptr;
      proxy->wait_eos.store(1, std::memory_order_release);
    } else {
      HalPrint("########> retry timeout:%dS!\n", timeout);
      proxy->stat_timeouts.fetch_add(1, std::memory_order_relaxed);
      frame->eos = 0;
      frame->data = nullptr;
    }
    return;
  }
  SampleGetFrame(proxy, sample, frame);
}

int qo_VideoStreamLastError(qo_StrmHandle handle, char* buf, int len) {
  MultiStreamPipeline* proxy = static_cast<MultiStreamPipeline*>(handle);
  if (!proxy) return -1;
  pthread_mutex_lock(&proxy->reason_lock);
  const int reason = proxy->reason;
  if (buf && len > 0) g_strlcpy(buf, proxy->reason_text, static_cast<size_t>(len));
  pthread_mutex_unlock(&proxy->reason_lock);
  return reason;
}

int qo_VideoStreamGetStats(qo_StrmHandle handle, qo_StreamStats* stats) {
  MultiStreamPipeline* proxy = static_cast<MultiStreamPipeline*>(handle);
  if (!proxy || !stats) return -1;
  stats->frames = proxy->stat_frames.load(std::memory_order_relaxed);
  stats->bytes = proxy->stat_bytes.load(std::memory_order_relaxed);
  stats->timeouts = proxy->stat_timeouts.load(std::memory_order_relaxed);
  stats->reconnects = proxy->stat_reconnects.load(std::memory_order_relaxed);
  const uint64_t aged = proxy->stat_aged.load(std::memory_order_acquire);
  const size_t n = static_cast<size_t>(std::min<uint64_t>(aged, kStatAgeRing));
  int64_t ages[kStatAgeRing];
  for (size_t i = 0; i < n; ++i) ages[i] = proxy->stat_ages[i].load(std::memory_order_relaxed);
  stats->last_age_ns =
      n ? proxy->stat_ages[(aged - 1) % kStatAgeRing].load(std::memory_order_relaxed) : -1;
  std::nth_element(ages, ages + n / 2, ages + n);
  stats->median_age_ns = n ? ages[n / 2] : -1;
  stats->reason = qo_VideoStreamLastError(handle, stats->reason_text,
                                          static_cast<int>(sizeof(stats->reason_text)));
  guint64 gaps = 0;
  if (GstElement* src = proxy->live555src.load(std::memory_order_acquire))
    g_object_get(src, "gaps", &gaps, nullptr);
  stats->gaps = gaps;
  return 0;
}

void qo_VideoStreamFrameFree(qo_StreamInfo* frame) {
  if (frame) QOMemFree(frame->data);
}
