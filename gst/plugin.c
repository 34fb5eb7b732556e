/* The plugin module libgstlive555src.so for GStreamer's plugin directory. */
#include "gstlive555src.h"

#ifndef PACKAGE
#define PACKAGE "qosdkmm"
#endif

static gboolean plugin_init(GstPlugin* plugin) { return GST_ELEMENT_REGISTER(live555src, plugin); }

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, live555src,
                  "RTSP video source delivering H.264, H.265 or JPEG elementary streams",
                  plugin_init, QO_VERSION, "Proprietary", "qosdkmm", "qosdkmm")
