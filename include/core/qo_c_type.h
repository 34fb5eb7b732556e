/* Pixel formats and RTSP transports shared by the hal layers, the nodes and
 * their callers. The numbers are part of the external interface. */
#ifndef QO_CORE_QO_C_TYPE_H_
#define QO_CORE_QO_C_TYPE_H_

typedef enum {
  QO_PIX_FMT_NONE = -1,
  QO_PIX_FMT_NV12 = 0,
  QO_PIX_FMT_NV21 = 1,
  QO_PIX_FMT_YUV422_YUYV = 3,
  QO_PIX_FMT_YUV422_UYVY = 4,
  QO_PIX_FMT_BGR888_PLANE = 6,
  QO_PIX_FMT_RGB888_PLANE = 7,
  QO_PIX_FMT_GRAY8 = 8,
  QO_PIX_FMT_NV16 = 9,
  QO_PIX_FMT_YUV420P = 10,
  QO_PIX_FMT_RGB565 = 11,
  QO_PIX_FMT_BGR565 = 12,
  QO_PIX_FMT_RGB555 = 13,
  QO_PIX_FMT_BGR555 = 14,
  QO_PIX_FMT_RGB444 = 15,
  QO_PIX_FMT_BGR444 = 16,
  QO_PIX_FMT_RGB101010 = 17,
  QO_PIX_FMT_BGR101010 = 18,
  QO_PIX_FMT_H264 = 31,
  QO_PIX_FMT_H265 = 32,
  QO_PIX_FMT_MJPEG = 33,
  QO_PIX_FMT_JPEG = 34,
  QO_PIX_FMT_RGB888 = 40,
  QO_PIX_FMT_BGR888 = 41,
  QO_PIX_FMT_YUV422P = 42,
} qoPixelFormat;

/* Same values as GStreamer's RTSP lower-transport flags. */
typedef enum {
  RTSP_TRANS_UNKNOWN = 0,
  RTSP_TRANS_UDP = 1,
  RTSP_TRANS_UDP_MCAST = 2,
  RTSP_TRANS_TCP = 4,
} qo_RtspTransport;

#endif /* QO_CORE_QO_C_TYPE_H_ */
