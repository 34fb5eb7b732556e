/* The key-frame gate of live555src: after a new connection or lost packets
 * nothing may go downstream before a picture a decoder can start with.
 *
 * Access units are H.264 or H.265, as byte streams with start codes or with
 * NAL length prefixes (avc/hvc), or JPEG pictures (always key). While
 * waiting, delta pictures are dropped; the parameter sets they carried are
 * kept and put in front of the key picture that ends the wait. */
#ifndef QO_GST_LIVE555KEYGATE_H_
#define QO_GST_LIVE555KEYGATE_H_

#include <gst/gst.h>

G_BEGIN_DECLS

typedef enum { LIVE555_CODEC_H264, LIVE555_CODEC_H265, LIVE555_CODEC_JPEG } Live555Codec;

typedef struct {
  Live555Codec codec;
  guint nal_length_size; /* 0: start codes; else bytes of each NAL length prefix */
  gboolean waiting;      /* still before the first key picture */
  GByteArray* headers;   /* parameter sets of the units dropped so far, or NULL */
} Live555KeyWait;

/* Bytes of the NAL length prefix that @caps (the depayloader's output, may
 * be NULL) announce; 0 for a byte stream with start codes. */
guint live555_nal_length_size(GstCaps* caps, Live555Codec codec);

/* Applies the wait to one access unit: FALSE when it is to be dropped. A key
 * unit gets the kept parameter sets in front (*buf may be replaced by a
 * writable copy) and ends the wait. */
gboolean live555_key_wait_apply(GstBuffer** buf, Live555KeyWait* wait);

/* The same as a GstBufferListFunc: a dropped unit is removed from the list. */
gboolean live555_key_wait_apply_in_list(GstBuffer** buf, guint idx, gpointer wait);

G_END_DECLS

#endif /* QO_GST_LIVE555KEYGATE_H_ */
