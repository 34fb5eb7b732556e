// qomm probe: the stream type of a source.
#include <cstdio>
#include <string>

#include "qomm.h"

namespace qomm {

const char kProbeUsage[] =
    "usage: qomm probe URI\n"
    "\n"
    "Prints the stream type of a source: h264, h265, mjpeg or unknown. rtsp:// and\n"
    "v4l2:// sources are asked through the video input node's stream.type function\n"
    "(cameras are probed for JPEG only; up to about 10 s); files (a path or file://)\n"
    "are recognised from their first bytes.\n"
    "Exit status: 0 when the type is known, 1 when not, 2 for bad usage.\n";

int RunProbe(ArgReader& args) {
  std::string uri;
  while (!args.done()) {
    std::string a = args.Next();
    if (a.size() > 1 && a[0] == '-') throw UsageError("unknown option " + a);
    if (!uri.empty()) throw UsageError("probe takes one URI");
    uri = a;
  }
  if (uri.empty()) throw UsageError("probe needs a URI");

  const bool live = uri.rfind("rtsp://", 0) == 0 || uri.rfind("v4l2://", 0) == 0;
  if (uri.find("://") != std::string::npos && !live && uri.rfind("file://", 0) != 0) {
    throw UsageError("cannot probe " + uri + " (rtsp://, v4l2://, file:// or a path)");
  }
  const std::string path = uri.find("://") != std::string::npos ? uri.substr(7) : uri;
  std::string why = uri.rfind("rtsp://", 0) == 0 ? "" : CheckReadable(path);
  int type = QO_PIX_FMT_NONE;
  if (why.empty()) {
    type = live ? ProbeStreamType(uri, std::nullopt, &why) : TypeFromContent(path, &why);
    if (type == QO_PIX_FMT_NONE && why.empty()) why = "neither H.264, H.265 nor JPEG";
  }
  // Only the three encoded types are detected; anything else reads as unknown.
  if (!qo::mm::IsEncodedType(type)) type = QO_PIX_FMT_NONE;
  printf("%s\n", TypeName(type).c_str());
  fflush(stdout);
  return type == QO_PIX_FMT_NONE ? Fail("cannot detect the stream type of " + uri + ": " + why) : 0;
}

}  // namespace qomm
