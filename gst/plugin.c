/* The plugin module libgstlive555src.so for GStreamer's plugin directory. */
#include "gstlive555src.h"

#ifndef PACKAGE
#define PACKAGE "qosdkmm"
#endif

static gboolean plugin_init(GstPlugin* plugin) { return qo_live555src_register(plugin); }

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, live555src,
                  "RTSP video source delivering H.264, H.265 or JPEG elementary streams",
                  plugin_init, "0.1.0", "Proprietary", "qosdkmm", "qosdkmm")
