// What the nodes' numbers mean, for hosts that name, check or print them:
// stream types with their names, the recorder's files and the pull retries.
// The codes themselves are qoPixelFormat and qo_RtspTransport
// (core/qo_c_type.h).
#ifndef QO_NODE_QO_MEDIA_FACTS_H_
#define QO_NODE_QO_MEDIA_FACTS_H_

#include <cstdint>
#include <cstring>

#include "core/qo_c_type.h"

namespace qo {
namespace mm {

struct StreamTypeFact {
  int type;  // a "stream-type" value (qoPixelFormat)
  const char* name;
  // GStreamer's video/x-raw format of a raw type; null for encoded types.
  const char* raw_format;
};

// The encoded types first; the raw ones are what a V4L2 camera can deliver.
constexpr StreamTypeFact kStreamTypes[] = {
    {QO_PIX_FMT_H264, "h264", nullptr},       {QO_PIX_FMT_H265, "h265", nullptr},
    {QO_PIX_FMT_MJPEG, "mjpeg", nullptr},     {QO_PIX_FMT_NV12, "nv12", "NV12"},
    {QO_PIX_FMT_NV21, "nv21", "NV21"},        {QO_PIX_FMT_YUV422_YUYV, "yuyv", "YUY2"},
    {QO_PIX_FMT_YUV422_UYVY, "uyvy", "UYVY"}, {QO_PIX_FMT_NV16, "nv16", "NV16"},
    {QO_PIX_FMT_YUV420P, "i420", "I420"},
};

// The entry of type, or null.
inline const StreamTypeFact* FindStreamType(int type) {
  for (const StreamTypeFact& t : kStreamTypes) {
    if (t.type == type) return &t;
  }
  return nullptr;
}

// The entry named name (exact, lower case), or null.
inline const StreamTypeFact* FindStreamType(const char* name) {
  for (const StreamTypeFact& t : kStreamTypes) {
    if (std::strcmp(t.name, name) == 0) return &t;
  }
  return nullptr;
}

// The nodes' "timeout" default: seconds one pull waits for a frame.
constexpr int kDefaultPullTimeoutSeconds = 3;

// H.264, H.265 or MJPEG: what RTSP and files carry and type probes find.
constexpr bool IsEncodedType(int type) {
  return type == QO_PIX_FMT_H264 || type == QO_PIX_FMT_H265 || type == QO_PIX_FMT_MJPEG;
}

// The video input node's recorder ("save_stream" 1): a ring of two files per
// stream id, written in turn, each holding this many frames before the next
// takes over. Fill in the stream id and the file's index (0 or 1).
constexpr char kRecordingPathPattern[] = "/tmp/strm_%02x_%u";
constexpr int kRecordingFiles = 2;
constexpr uint32_t kFramesPerRecordingFile = 251;

}  // namespace mm
}  // namespace qo

#endif  // QO_NODE_QO_MEDIA_FACTS_H_
