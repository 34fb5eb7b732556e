// qomm probe: the stream type of a source.
#include <cstdio>
#include <string>

#include "commands.h"
#include "failure.h"
#include "library_output.h"
#include "media_type.h"
#include "sdk_library.h"

namespace qomm {

const char* ProbeUsage() {
  return "usage: qomm probe URI\n"
         "\n"
         "Prints the stream type of a source: h264, h265, mjpeg or unknown. rtsp:// and\n"
         "v4l2:// sources are asked through the video input node's stream.type function\n"
         "(cameras are probed for JPEG only; up to about 10 s); files (a path or file://)\n"
         "are recognised from their first bytes.\n"
         "Exit status: 0 when the type is known, 1 when not, 2 for bad usage.\n";
}

int RunProbe(ArgReader& args) {
  std::string uri;
  while (!args.done()) {
    std::string a = args.Next();
    if (a.size() > 1 && a[0] == '-') throw UsageError("unknown option " + a);
    if (!uri.empty()) throw UsageError("probe takes one URI");
    uri = a;
  }
  if (uri.empty()) throw UsageError("probe needs a URI");

  int type = kTypeUnknown;
  std::string why;
  const bool live = uri.rfind("rtsp://", 0) == 0 || uri.rfind("v4l2://", 0) == 0;
  if (uri.find("://") != std::string::npos && !live && uri.rfind("file://", 0) != 0) {
    throw UsageError("cannot probe " + uri + " (rtsp://, v4l2://, file:// or a path)");
  }
  if (live) {
    SdkLibrary::Require();
    why = uri[0] == 'r' ? CheckRtspStream(uri) : CheckReadable(uri.substr(7));
    if (why.empty()) {
      LibraryOutput::Hold();
      qo::QORetValue rv = SdkLibrary::Function("qo.mm.video.in.stream.type")(uri);
      type = rv;
      LibraryOutput::Release(type != kTypeUnknown);
      if (type == kTypeUnknown) {
        why = ExplainSourceFailure(uri, "no H.264, H.265 or JPEG video found");
      }
    }
  } else {
    std::string path = uri.rfind("file://", 0) == 0 ? uri.substr(7) : uri;
    why = CheckReadable(path);
    if (why.empty()) {
      type = TypeFromContent(path, &why);
      if (type == kTypeUnknown && why.empty()) why = "neither H.264, H.265 nor JPEG";
    }
  }
  // Only the three encoded types are detected; anything else reads as unknown.
  if (type != kTypeH264 && type != kTypeH265 && type != kTypeMjpeg) type = kTypeUnknown;
  fprintf(LibraryOutput::Out(), "%s\n", TypeName(type).c_str());
  fflush(LibraryOutput::Out());
  if (type == kTypeUnknown) {
    fprintf(stderr, "qomm: cannot detect the stream type of %s: %s\n", uri.c_str(), why.c_str());
    return 1;
  }
  return 0;
}

}  // namespace qomm
