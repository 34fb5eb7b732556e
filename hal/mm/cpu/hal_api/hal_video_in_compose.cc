// Live-stream layer: URL parsing, stream properties and the composition of
// the launch description of each stream.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "hal_mm_video_in.h"
#include "hal_video_in_internal.h"

namespace {

constexpr char kRtspPrefix[] = "rtsp://";
constexpr char kFilePrefix[] = "file://";
constexpr char kV4l2Prefix[] = "v4l2://";
constexpr size_t kPrefixLen = 7;

constexpr char kRtspSource[] = "live555src name=src location=";
constexpr char kFileSource[] = "filesrc name=src location=";
constexpr char kV4l2Source[] = "v4l2src name=src device=";
constexpr char kH264Stage[] =
    "h264parse ! video/x-h264,stream-format=byte-stream,alignment=(string) au";
constexpr char kH265Stage[] =
    "h265parse ! video/x-h265,stream-format=byte-stream,alignment=(string) au";
constexpr char kJpegCaps[] = "image/jpeg";
constexpr char kAppSink[] = "appsink name=appsink async=false sync=false";
constexpr char kUyvyCaps[] = "video/x-raw,format=(string)UYVY";

// Raw camera caps, or the parser stage for encoded camera output.
const char* V4l2SourceFormat(int type) {
  switch (type) {
    case QO_PIX_FMT_NV12:
      return "video/x-raw,format=(string)NV12";
    case QO_PIX_FMT_NV21:
      return "video/x-raw,format=(string)NV21";
    case QO_PIX_FMT_YUV422_YUYV:
      return "video/x-raw,format=(string)YUY2";
    case QO_PIX_FMT_YUV422_UYVY:
      return kUyvyCaps;
    case QO_PIX_FMT_NV16:
      return "video/x-raw,format=(string)NV16";
    case QO_PIX_FMT_YUV420P:
      return "video/x-raw,format=(string)I420";
    case QO_PIX_FMT_H264:
      return kH264Stage;
    case QO_PIX_FMT_H265:
      return kH265Stage;
    case QO_PIX_FMT_MJPEG:
      return kJpegCaps;
    default:
      return nullptr;
  }
}

// The encoded cases shared by network and file sources.
int ComposeEncoded(MultiStreamPipeline* proxy, const char* func) {
  switch (proxy->source_stream_type) {
    case QO_PIX_FMT_H264:
      proxy->desc.filter = kH264Stage;
      return 0;
    case QO_PIX_FMT_H265:
      proxy->desc.filter = kH265Stage;
      return 0;
    case QO_PIX_FMT_MJPEG:
      proxy->desc.src_fmt = kJpegCaps;  // no parser
      return 0;
    default:
      HalPrint("#>%s():invalid or unsupport stream type %d for %s pipeline!\n", func,
               proxy->source_stream_type, proxy->protocol);
      return -1;
  }
}

int ComposeRTSP(MultiStreamPipeline* proxy) {
  proxy->desc.src = kRtspSource;
  return ComposeEncoded(proxy, __func__);
}

int ComposeLocalFile(MultiStreamPipeline* proxy) {
  proxy->desc.src = kFileSource;
  return ComposeEncoded(proxy, __func__);
}

int ComposeV4L2(MultiStreamPipeline* proxy) {
  proxy->desc.src = kV4l2Source;
  if (proxy->video_mode != 0) {
    // Special camera mode: side-by-side UYVY of twice the width.
    proxy->desc.src_w *= 2;
    proxy->source_stream_type = QO_PIX_FMT_YUV422_UYVY;
    proxy->desc.src_fmt = kUyvyCaps;
    return 0;
  }
  proxy->desc.src_fmt = V4l2SourceFormat(proxy->source_stream_type);
  if (!proxy->desc.src_fmt) {
    HalPrint("#>%s():invalid or unsupport stream type %d for %s pipeline!\n", __func__,
             proxy->source_stream_type, proxy->protocol);
    return -1;
  }
  return 0;
}

// Copies the text after a URL prefix into param, refusing what does not fit.
bool CopyParam(MultiStreamPipeline* proxy, const char* text, const char* func) {
  size_t len = strlen(text);
  if (len >= sizeof(proxy->param)) {
    HalPrint("#>%s():input url is too long (%zu bytes, at most %zu)!\n", func, len,
             sizeof(proxy->param) - 1);
    return false;
  }
  memcpy(proxy->param, text, len + 1);
  return true;
}

}  // namespace

const char* PipelineParamParse(MultiStreamPipeline* proxy) {
  const char* uri = proxy->uri_param;
  if (!uri) {
    HalPrint("#>%s():uri string is null!\n", __func__);
    return nullptr;
  }
  if (strncmp(uri, kRtspPrefix, kPrefixLen) == 0) {
    if (!CopyParam(proxy, uri, __func__)) return nullptr;
    return kProtoRtsp;
  }
  if (strncmp(uri, kFilePrefix, kPrefixLen) == 0) {
    if (!CopyParam(proxy, uri + kPrefixLen, __func__)) return nullptr;
    if (access(proxy->param, F_OK) != 0) {
      HalPrint("#>%s():file %s is not exist!\n", __func__, proxy->param);
      return nullptr;
    }
    return kProtoFile;
  }
  if (strncmp(uri, kV4l2Prefix, kPrefixLen) == 0) {
    if (!CopyParam(proxy, uri + kPrefixLen, __func__)) return nullptr;
    return kProtoV4l2;
  }
  HalPrint("#>%s():current input url:%s is no support or error!!!\n", __func__, uri);
  return nullptr;
}

void qo_VideoStreamCfg(qo_StrmHandle handle, const char* property, int value) {
  MultiStreamPipeline* proxy = static_cast<MultiStreamPipeline*>(handle);
  if (!proxy) {
    HalPrint("#>%s():Error handle is null\n", __func__);
    return;
  }
  const char* name = property ? property : "(null)";
  bool stored = false;
  if (property && proxy->state.load(std::memory_order_relaxed) == -1) {
    stored = true;
    if (strcmp(property, "lower-trans-type") == 0) {
      proxy->rtsp_trans = value;
    } else if (strcmp(property, "stream-type") == 0) {
      proxy->source_stream_type = value;
    } else if (strcmp(property, "width") == 0) {
      proxy->desc.src_w = value;
    } else if (strcmp(property, "height") == 0) {
      proxy->desc.src_h = value;
    } else if (strcmp(property, "framerate") == 0) {
      proxy->desc.src_fps = value;
    } else if (strcmp(property, "exposure-auto") == 0) {
      proxy->expo_auto = value;
    } else if (strcmp(property, "exposure") == 0) {
      proxy->expo = value;
    } else if (strcmp(property, "gain") == 0) {
      proxy->gain = value;
    } else if (strcmp(property, "mode") == 0 && value == 0 && proxy->protocol == kProtoV4l2) {
      // Only the normal mode can be chosen here; the special mode and the
      // test pattern stay out of reach on purpose.
      proxy->video_mode = 0;
    } else {
      stored = false;
    }
  }
  if (!stored) {
    HalPrint("#>%s():warn,unable to set property \"%s\"=%d to %s pipeline!\n", __func__, name,
             value, proxy->protocol);
    return;
  }
  HalPrint("$>%s():set pipeline[%d] property \"%s\"=%d success!\n", __func__, proxy->iId, name,
           value);
}

int PipelinelCompose(MultiStreamPipeline* proxy) {
  PipelineDesc* desc = &proxy->desc;
  // Nothing left over from an earlier, failed start.
  desc->src_fmt = nullptr;
  desc->filter = nullptr;
  desc->sink_fmt = nullptr;
  desc->sink = kAppSink;
  int ret;
  if (proxy->protocol == kProtoRtsp) {
    ret = ComposeRTSP(proxy);
  } else if (proxy->protocol == kProtoFile) {
    ret = ComposeLocalFile(proxy);
  } else if (proxy->protocol == kProtoV4l2) {
    ret = ComposeV4L2(proxy);
  } else {
    HalPrint("#>%s():invalid protocol!\n", __func__);
    return -1;
  }
  if (ret != 0) return -1;

  char* out = proxy->full_string;
  const size_t cap = sizeof(proxy->full_string);
  out[0] = '\0';
  bool ok = true;
  if (proxy->protocol == kProtoV4l2) {
    ok &= LaunchAppend(out, cap, "%s%s extra-controls=controls", desc->src, proxy->param);
    if (proxy->expo_auto > 0) {
      if (proxy->expo >= 1)
        ok &= LaunchAppend(out, cap, ",%s%d,%s%d", "exposure_auto=", proxy->expo_auto,
                           "exposure=", proxy->expo);
      else
        ok &= LaunchAppend(out, cap, ",%s%d", "exposure_auto=", proxy->expo_auto);
    }
    if (proxy->test_pattern >= 0)
      ok &= LaunchAppend(out, cap, ",%s%d", "test_pattern=", proxy->test_pattern);
    if (proxy->gain > 0) ok &= LaunchAppend(out, cap, ",%s%d", "gain=", proxy->gain);
  } else {
    ok &= LaunchAppend(out, cap, "%s%s", desc->src, proxy->param);
  }
  if (desc->src_fmt) {
    ok &= LaunchAppend(out, cap, " ! %s", desc->src_fmt);
    if (desc->src_w != 0) ok &= LaunchAppend(out, cap, ",width=%d", desc->src_w);
    if (desc->src_h != 0) ok &= LaunchAppend(out, cap, ",height=%d", desc->src_h);
    if (desc->src_fps != 0) ok &= LaunchAppend(out, cap, ",framerate=%d/1", desc->src_fps);
  }
  if (desc->filter) ok &= LaunchAppend(out, cap, " ! %s", desc->filter);
  if (desc->sink_fmt) ok &= LaunchAppend(out, cap, " ! %s", desc->sink_fmt);
  ok &= LaunchAppend(out, cap, " ! %s", desc->sink);
  if (!ok) {
    // Running a cut description could open something else entirely.
    HalPrint("#>%s():pl#%d launch string is longer than %zu bytes!\n", __func__, proxy->iId,
             cap - 1);
    return -1;
  }
  return 0;
}
