// qomm serve: elementary-stream files replayed over RTSP on 127.0.0.1.
#include <gst/gst.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "qomm.h"
#include "rtsp_server.h"

namespace qomm {

const char kServeUsage[] =
    "usage: qomm serve FILE... [--port N] [--fps N]\n"
    "\n"
    "Serves H.264, H.265 and MJPEG elementary-stream files over RTSP on 127.0.0.1,\n"
    "each replayed in real time and looped, at rtsp://127.0.0.1:PORT/<file name>.\n"
    "The type comes from the extension (.h264 .264 .h265 .265 .hevc .mjpeg .mjpg)\n"
    "or from the content. Prints one line per stream (URL, type, file) and runs\n"
    "until Ctrl-C or SIGTERM.\n"
    "  --port N   port to listen on (default 8554; 0 picks a free one)\n"
    "  --fps N    frames per second of the replay (default 30)\n";

std::unique_ptr<qo::tools::RtspServer> ServeFiles(const std::vector<std::string>& files, int port,
                                                  int fps) {
  gst_init(nullptr, nullptr);
  qo::tools::RtspServerOptions server_options;
  server_options.address = "127.0.0.1";
  server_options.port = port;
  auto server = std::make_unique<qo::tools::RtspServer>(server_options);
  std::set<std::string> mounts;
  for (const std::string& file : files) {
    std::string why = CheckReadable(file);
    if (!why.empty()) throw std::runtime_error("cannot open " + file + ": " + why);
    const int type = DetectFileType(file, &why);
    if (!qo::mm::IsEncodedType(type)) {
      throw std::runtime_error("cannot serve " + file + ": " +
                               (why.empty() ? "neither H.264, H.265 nor MJPEG" : why));
    }
    qo::tools::RtspStreamSpec stream;
    // RtspCodec lists the encoded types in the order of their codes.
    stream.codec = static_cast<qo::tools::RtspCodec>(type - QO_PIX_FMT_H264);
    const std::string base = "/" + std::filesystem::path(file).filename().string();
    stream.mount = base;
    for (int n = 2; mounts.count(stream.mount) > 0; ++n)
      stream.mount = base + "-" + std::to_string(n);
    mounts.insert(stream.mount);
    stream.fps = fps;
    stream.file = file;
    if (!server->AddStream(stream, &why))
      throw std::runtime_error("cannot serve " + file + ": " + why);
  }
  std::string why;
  if (!server->Start(&why)) {
    throw std::runtime_error("cannot serve on 127.0.0.1:" + std::to_string(port) + ": " + why);
  }
  return server;
}

int RunServe(Args& args) {
  const int port = args.Int("--port", 0, 65535).value_or(8554);
  const int fps = args.Int("--fps", 1, 240).value_or(30);
  if (args.words.empty()) throw UsageError("serve needs at least one FILE");

  std::unique_ptr<qo::tools::RtspServer> server = ServeFiles(args.words, port, fps);
  for (const qo::tools::RtspStreamSpec& s : server->streams()) {
    printf("%s  %s  %s\n", server->Url(s.mount).c_str(),
           TypeName(QO_PIX_FMT_H264 + static_cast<int>(s.codec)).c_str(), s.file.c_str());
  }
  fflush(stdout);
  fprintf(stderr, "qomm: serving %zu stream(s) on 127.0.0.1:%d at %d fps; Ctrl-C stops\n",
          server->streams().size(), server->port(), fps);
  while (!StopRequested()) usleep(100 * 1000);
  server->Stop();
  return 0;
}

}  // namespace qomm
