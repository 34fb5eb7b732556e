// Live-stream layer: what its other units share (protocol names, printing,
// building launch descriptions), so that none of them depends on another.
#include <glib.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "hal_log.h"
#include "hal_video_in_internal.h"

const char kProtoRtsp[] = "rtsp";
const char kProtoFile[] = "file";
const char kProtoV4l2[] = "v4l2";

void HalPrint(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char* text = g_strdup_vprintf(fmt, ap);
  va_end(ap);
  HalEmit(HalChannel::kVideoStream, text);
  g_free(text);
}

bool LaunchAppend(char* buf, size_t cap, const char* fmt, ...) {
  size_t len = strnlen(buf, cap);
  if (len + 1 >= cap) return false;
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf + len, cap - len, fmt, ap);
  va_end(ap);
  return n >= 0 && static_cast<size_t>(n) < cap - len;
}
