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

int RunProbe(Args& args) {
  if (args.words.size() != 1) {
    throw UsageError(args.words.empty() ? "probe needs a URI" : "probe takes one URI");
  }
  const std::string& uri = args.words[0];
  const std::string scheme = Scheme(uri);
  const bool live = scheme == "rtsp" || scheme == "v4l2";
  if (!scheme.empty() && !live && scheme != "file") {
    throw UsageError("cannot probe " + uri + " (rtsp://, v4l2://, file:// or a path)");
  }
  const std::string path = scheme.empty() ? uri : uri.substr(scheme.size() + 3);
  std::string why = scheme == "rtsp" ? "" : CheckReadable(path);
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
