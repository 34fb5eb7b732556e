// qomm serve: elementary-stream files replayed over RTSP on 127.0.0.1.
#include <gst/gst.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "qomm.h"
#include "rtsp_server.h"

namespace qomm {

namespace {

constexpr int kDefaultPort = 8554;

std::string BaseName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

const char* ServeUsage() {
  return "usage: qomm serve FILE... [--port N] [--fps N]\n"
         "\n"
         "Serves H.264, H.265 and MJPEG elementary-stream files over RTSP on 127.0.0.1,\n"
         "each replayed in real time and looped, at rtsp://127.0.0.1:PORT/<file name>.\n"
         "The type comes from the extension (.h264 .264 .h265 .265 .hevc .mjpeg .mjpg)\n"
         "or from the content. Prints one line per stream (URL, type, file) and runs\n"
         "until Ctrl-C or SIGTERM.\n"
         "  --port N   port to listen on (default 8554; 0 picks a free one)\n"
         "  --fps N    frames per second of the replay (default 30)\n";
}

int RunServe(ArgReader& args) {
  int port = kDefaultPort;
  int fps = 30;
  std::vector<std::string> files;
  while (!args.done()) {
    std::string a = args.Next();
    if (a == "--port") {
      port = args.IntValue(a, 0, 65535);
    } else if (a == "--fps") {
      fps = args.IntValue(a, 1, 240);
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("unknown option " + a);
    } else {
      files.push_back(a);
    }
  }
  if (files.empty()) throw UsageError("serve needs at least one FILE");

  gst_init(nullptr, nullptr);
  qo::tools::RtspServerOptions server_options;
  server_options.address = "127.0.0.1";
  server_options.port = port;
  qo::tools::RtspServer server(server_options);
  std::set<std::string> mounts;
  std::vector<std::string> types;
  for (const std::string& file : files) {
    std::string why = CheckReadable(file);
    if (!why.empty()) {
      fprintf(stderr, "qomm: cannot open %s: %s\n", file.c_str(), why.c_str());
      return 1;
    }
    std::string error;
    int type = DetectFileType(file, &error);
    qo::tools::RtspStreamSpec stream;
    using qo::tools::RtspCodec;
    constexpr RtspCodec kCodecs[] = {RtspCodec::kH264, RtspCodec::kH265, RtspCodec::kMjpeg};
    if (!qo::mm::IsEncodedType(type)) {
      fprintf(stderr, "qomm: cannot serve %s: %s\n", file.c_str(),
              error.empty() ? "neither H.264, H.265 nor MJPEG" : error.c_str());
      return 1;
    }
    stream.codec = kCodecs[type - kTypeH264];
    std::string mount = "/" + BaseName(file);
    for (int n = 2; mounts.count(mount) > 0; ++n)
      mount = "/" + BaseName(file) + "-" + std::to_string(n);
    mounts.insert(mount);
    stream.mount = mount;
    stream.fps = fps;
    stream.file = file;
    if (!server.AddStream(stream, &error)) {
      fprintf(stderr, "qomm: cannot serve %s: %s\n", file.c_str(), error.c_str());
      return 1;
    }
    types.push_back(TypeName(type));
  }
  std::string error;
  if (!server.Start(&error)) {
    fprintf(stderr, "qomm: cannot serve on 127.0.0.1:%d: %s\n", port, error.c_str());
    return 1;
  }
  FILE* out = stdout;
  for (size_t i = 0; i < server.streams().size(); ++i) {
    const qo::tools::RtspStreamSpec& s = server.streams()[i];
    fprintf(out, "%s  %s  %s\n", server.Url(s.mount).c_str(), types[i].c_str(), s.file.c_str());
  }
  fflush(out);
  fprintf(stderr, "qomm: serving %zu stream(s) on 127.0.0.1:%d at %d fps; Ctrl-C stops\n",
          server.streams().size(), server.port(), fps);
  while (!StopSignal::Requested()) usleep(100 * 1000);
  server.Stop();
  return 0;
}

}  // namespace qomm
