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
  bool ok = true;
  if (strncmp(uri, "rtsp://", 7) == 0) {
    ok &= LaunchAppend(launch, sizeof(launch), "%s%s", "live555src name=src location=", uri);
    ok &= LaunchAppend(launch, sizeof(launch), " ! %s", "typefind name=type");
  } else if (strncmp(uri, "v4l2://", 7) == 0) {
    const char* path = uri + 7;
    if (strlen(path) >= kDevicePathSize) {
      HalPrint("#>%s()error: v4l2 device path is longer than %zu bytes!\n", __func__,
               kDevicePathSize - 1);
      return QO_PIX_FMT_NONE;
    }
    char device[kDevicePathSize];
    strncpy(device, path, sizeof(device));
    ok &= LaunchAppend(launch, sizeof(launch), "%s%s", "v4l2src name=src device=", device);
    // A camera is probed for JPEG output only.
    ok &= LaunchAppend(launch, sizeof(launch), " ! %s", "image/jpeg ! typefind name=type");
  } else if (strncmp(uri, "file://", 7) == 0) {
    HalPrint("#>%s()warn: file:// is not support typefind!\n", __func__);
    return QO_PIX_FMT_NONE;
  } else {
    HalPrint("#>%s()error: url is not support typefind protocol!\n", __func__);
    return QO_PIX_FMT_NONE;
  }
  ok &= LaunchAppend(launch, sizeof(launch), " ! %s", "fakesink name=sink async=false sync=false");
  if (!ok) {
    HalPrint("#>%s()error: typefind string is longer than %zu bytes!\n", __func__,
             sizeof(launch) - 1);
    return QO_PIX_FMT_NONE;
  }

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

  struct timeval start, now;
  gettimeofday(&start, nullptr);
  while (true) {
    usleep(1000);
    gettimeofday(&now, nullptr);
    if (kGstProxy.typefind_flag.load(std::memory_order_acquire)) {
      long ms = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_usec - start.tv_usec) / 1000;
      HalPrint("------>Media typed is found consum time:%ld ms\n", ms);
      kGstProxy.typefind_flag.store(0, std::memory_order_relaxed);
      break;
    }
    if (now.tv_sec - start.tv_sec > kTypefindLimitSec) {
      long ms = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_usec - start.tv_usec) / 1000;
      HalPrint("----->typefind connect timout 10s and exit");
      HalPrint("------>Media typed is not found consum time:%ld ms\n", ms);
      break;
    }
  }

  ret = gst_element_set_state(pipeline, GST_STATE_PAUSED);
  if (ret == GST_STATE_CHANGE_FAILURE)
    HalPrint("$$$$>%s state changed is failure return:%d...\n", __func__, ret);
  else if (ret == GST_STATE_CHANGE_NO_PREROLL)
    HalPrint("$$$$>%s state changed return:GST_STATE_CHANGE_NO_PREROLL\n", __func__);
  usleep(1000);
  ret = gst_element_set_state(pipeline, GST_STATE_NULL);
  if (ret == GST_STATE_CHANGE_FAILURE)
    HalPrint("$$$$>%s state changed is failure return:%d...\n", __func__, ret);
  gst_object_unref(type);
  gst_object_unref(pipeline);
  return static_cast<qoPixelFormat>(result.load(std::memory_order_relaxed));
}
