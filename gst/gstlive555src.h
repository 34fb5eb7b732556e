/* live555src: RTSP client source with one always-present "src" pad that
 * delivers the depayloaded video elementary stream (H.264, H.265 or JPEG).
 *
 * Inside, GStreamer's rtspsrc and the depayloader matching the announced
 * encoding are built per connection; the ghost "src" pad stays for the life
 * of the element, so pipelines link at parse time. Buffers carry the
 * sender's wall-clock time (unix epoch, ns) as a GstReferenceTimestampMeta
 * with caps "timestamp/x-unix" once an RTCP sender report has arrived.
 *
 * A lost connection (closed, refused, or silent for "timeout" ms) is
 * re-established by the element itself ("reconnect", on by default) with a
 * jittered exponential back-off; the src pad stays and no end-of-stream goes
 * out for the loss. Connection states are posted as "live555src-state"
 * element messages. Writing "eos" TRUE ends the stream at once.
 */
#ifndef QO_GST_GSTLIVE555SRC_H_
#define QO_GST_GSTLIVE555SRC_H_

#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_LIVE555_SRC (gst_live555_src_get_type())
#define GST_LIVE555_SRC(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_LIVE555_SRC, GstLive555Src))
#define GST_IS_LIVE555_SRC(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GST_TYPE_LIVE555_SRC))

typedef struct _GstLive555Src GstLive555Src;
typedef struct _GstLive555SrcClass GstLive555SrcClass;

GType gst_live555_src_get_type(void);

/* Makes the built-in "live555src" the one gst_element_factory_make and
 * gst_parse_launch use in this process, also when the plugin module is
 * installed. Call after gst_init; calling again is harmless. Returns TRUE
 * when the element is available. */
gboolean qo_live555src_register_static(void);

GST_ELEMENT_REGISTER_DECLARE(live555src);

G_END_DECLS

#endif /* QO_GST_GSTLIVE555SRC_H_ */
