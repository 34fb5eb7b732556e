// Live-stream layer: detection of the encoded format a network or camera
// source delivers, through a short-lived typefind pipeline.
#include <gst/gst.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "hal_mm_video_in.h"
#include "hal_video_in_internal.h"

namespace {

constexpr size_t kTypefindStringSize = 512;
constexpr size_t kDevicePathSize = 64;
constexpr long kTypefindLimitSec = 10;

void CallbackTypefound(GstElement* /*typefind*/, guint /*probability*/, GstCaps* caps,
                       gpointer data) {
  std::atomic<int>* result = static_cast<std::atomic<int>*>(data);
  gchar* type = gst_caps_to_string(caps);
  if (strncmp(type, "video/x-h264", 12) == 0) {
    result->store(QO_PIX_FMT_H264, std::memory_order_relaxed);
  } else if (strncmp(type, "video/x-h265", 12) == 0) {
    result->store(QO_PIX_FMT_H265, std::memory_order_relaxed);
  } else if (strncmp(type, "image/jpeg", 10) == 0) {
    result->store(QO_PIX_FMT_MJPEG, std::memory_order_relaxed);
  } else {
    HalPrint("------>%s Media typed  is not found:%s...\n", __func__, type);
    result->store(-1, std::memory_order_relaxed);
  }
  g_free(type);
  // Release: the poller reads the result once it sees the flag.
  kGstProxy.typefind_flag.store(1, std::memory_order_release);
}

// Stops and drops a typefind pipeline whose start went wrong; it may already
// run streaming threads that call back into our result variable.
void ReleasePipeline(GstElement* pipeline, GstElement* type) {
  gst_element_set_state(pipeline, GST_STATE_NULL);
  if (type) gst_object_unref(type);
  gst_object_unref(pipeline);
}

// The probe's launch description for uri into launch; false (reported) when
// the URL cannot be probed.
bool ComposeTypefind(const char* uri, char* launch, size_t cap) {
  bool ok = true;
  if (strncmp(uri, "rtsp://", 7) == 0) {
    ok &= LaunchAppend(launch, cap, "%s%s", "live555src name=src location=", uri);
    ok &= LaunchAppend(launch, cap, " ! %s", "typefind name=type");
  } else if (strncmp(uri, "v4l2://", 7) == 0) {
    const char* path = uri + 7;
    if (strlen(path) >= kDevicePathSize) {
      HalPrint("#>%s()error: v4l2 device path is longer than %zu bytes!\n", "qo_VideoStreamType",
               kDevicePathSize - 1);
      return false;
    }
    char device[kDevicePathSize];
    strncpy(device, path, sizeof(device));
    ok &= LaunchAppend(launch, cap, "%s%s", "v4l2src name=src device=", device);
    // A camera is probed for JPEG output only.
    ok &= LaunchAppend(launch, cap, " ! %s", "image/jpeg ! typefind name=type");
  } else if (strncmp(uri, "file://", 7) == 0) {
    HalPrint("#>%s()warn: file:// is not support typefind!\n", "qo_VideoStreamType");
    return false;
  } else {
    HalPrint("#>%s()error: url is not support typefind protocol!\n", "qo_VideoStreamType");
    return false;
  }
  ok &= LaunchAppend(launch, cap, " ! %s", "fakesink name=sink async=false sync=false");
  if (!ok) {
    HalPrint("#>%s()error: typefind string is longer than %zu bytes!\n", "qo_VideoStreamType",
             cap - 1);
  }
  return ok;
}

// A refusal from the RTSP source that no retry will change (401, 404, 461,
// no video stream): waiting out the time limit would tell nothing more.
bool PermanentRefusal(GstBus* bus) {
  static const char* const kPermanent[] = {"unauthorized", "not-found", "unsupported-transport",
                                           "no-video"};
  bool refused = false;
  while (GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ELEMENT)) {
    const GstStructure* s = gst_message_get_structure(msg);
    const char* code = s && gst_structure_has_name(s, "live555src-state")
                           ? gst_structure_get_string(s, "reason-code")
                           : nullptr;
    for (const char* p : kPermanent) {
      if (code && strcmp(code, p) == 0 && !refused) {
        HalPrint("#>%s()error: %s!\n", "qo_VideoStreamType", gst_structure_get_string(s, "reason"));
        refused = true;
      }
    }
    gst_message_unref(msg);
  }
  return refused;
}

// Polls every millisecond until the callback reported, the source refused
// for good, or the whole-seconds limit passed.
void WaitForType(GstBus* bus) {
  struct timeval start, now;
  gettimeofday(&start, nullptr);
  auto elapsed_ms = [&] {
    return (now.tv_sec - start.tv_sec) * 1000 + (now.tv_usec - start.tv_usec) / 1000;
  };
  while (true) {
    usleep(1000);
    gettimeofday(&now, nullptr);
    if (kGstProxy.typefind_flag.load(std::memory_order_acquire)) {
      HalPrint("------>Media typed is found consum time:%ld ms\n", elapsed_ms());
      kGstProxy.typefind_flag.store(0, std::memory_order_relaxed);
      return;
    }
    const bool refused = PermanentRefusal(bus);
    if (refused || now.tv_sec - start.tv_sec > kTypefindLimitSec) {
      if (!refused) HalPrint("----->typefind connect timout 10s and exit");
      HalPrint("------>Media typed is not found consum time:%ld ms\n", elapsed_ms());
      return;
    }
  }
}

void StopTypefind(GstElement* pipeline, GstElement* type) {
  GstStateChangeReturn ret = gst_element_set_state(pipeline, GST_STATE_PAUSED);
  if (ret == GST_STATE_CHANGE_FAILURE)
    HalPrint("$$$$>%s state changed is failure return:%d...\n", "qo_VideoStreamType", ret);
  else if (ret == GST_STATE_CHANGE_NO_PREROLL)
    HalPrint("$$$$>%s state changed return:GST_STATE_CHANGE_NO_PREROLL\n", "qo_VideoStreamType");
  usleep(1000);
  ret = gst_element_set_state(pipeline, GST_STATE_NULL);
  if (ret == GST_STATE_CHANGE_FAILURE)
    HalPrint("$$$$>%s state changed is failure return:%d...\n", "qo_VideoStreamType", ret);
  gst_object_unref(type);
  gst_object_unref(pipeline);
}

}  // namespace

qoPixelFormat qo_VideoStreamType(const char* uri) {
  if (qo_VideoStreamInit() != 0) {
    HalPrint("$$$>%s():gst_init is failed !!!\n", __func__);
    return QO_PIX_FMT_NONE;
  }
  std::atomic<int> result{-1};
  if (!uri) {
    HalPrint("#>%s()error:url is null!\n", __func__);
    return QO_PIX_FMT_NONE;
  }
  char launch[kTypefindStringSize] = {0};
  if (!ComposeTypefind(uri, launch, sizeof(launch))) return QO_PIX_FMT_NONE;

  GError* error = nullptr;
  GstElement* pipeline = gst_parse_launch(launch, &error);
  if (error) {
    HalPrint("#>%s():gst_parse_launch full string error:%s!\n", __func__, error->message);
    g_error_free(error);
    if (pipeline) ReleasePipeline(pipeline, nullptr);
    return QO_PIX_FMT_NONE;
  }
  if (!pipeline) return QO_PIX_FMT_NONE;
  GstElement* type = gst_bin_get_by_name(GST_BIN(pipeline), "type");
  g_signal_connect(type, "have-type", G_CALLBACK(CallbackTypefound), &result);
  // A report left over from an earlier probe that timed out must not count.
  kGstProxy.typefind_flag.store(0, std::memory_order_relaxed);

  GstStateChangeReturn ret = gst_element_set_state(pipeline, GST_STATE_PLAYING);
  if (ret != GST_STATE_CHANGE_SUCCESS) {
    HalPrint("$$$$>%s state changed is failure return:%d...\n", __func__, ret);
    ReleasePipeline(pipeline, type);
    return QO_PIX_FMT_NONE;
  }
  GstBus* bus = gst_element_get_bus(pipeline);
  WaitForType(bus);
  gst_object_unref(bus);
  StopTypefind(pipeline, type);
  return static_cast<qoPixelFormat>(result.load(std::memory_order_relaxed));
}
