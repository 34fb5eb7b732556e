// qo-rtsp-server: serves test streams over RTSP on the loopback interface.
//
// Prints "READY port=<n>" once listening (after one "URL <url>" line per
// stream) and then reads commands from standard input, one per line:
//   drop     close every client connection and session
//   refuse   stop listening: new connections are refused
//   accept   listen again on the same port
//   clients  print "CLIENTS <n>"
//   quit     exit
// Each command is answered by "OK <command>" (or "ERR <command> <reason>").
// SIGTERM, SIGINT and end of input end the program cleanly.
#include <glib-unix.h>
#include <gst/gst.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "rtsp_server.h"

namespace {

void Usage(const char* argv0) {
  std::fprintf(stderr,
               "usage: %s [--address A] [--port N] [--user U --password P]\n"
               "          [--rtcp-interval-ms N] [--stream] MOUNT=CODEC[,size=WxH][,fps=N]"
               "[,key-int=N][,file=PATH][,udp-only][,terse-sdp] ...\n"
               "CODEC is h264, h265 or mjpeg; with file=PATH that elementary stream is\n"
               "replayed in a loop instead of a live test pattern. udp-only refuses RTP\n"
               "over TCP (461); terse-sdp leaves out a=rtpmap for static payload types.\n"
               "Without streams:\n"
               "h264=h264 h265=h265 mjpeg=mjpeg.\n",
               argv0);
}

struct App {
  qo::tools::RtspServer* server = nullptr;
  GMainLoop* loop = nullptr;
  std::string pending;
  guint in_watch = 0;
};

void Reply(const std::string& line) {
  std::fputs(line.c_str(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void HandleCommand(App* app, const std::string& cmd) {
  if (cmd.empty()) return;
  if (cmd == "drop") {
    app->server->DropClients();
    Reply("OK drop");
  } else if (cmd == "refuse") {
    app->server->RefuseClients();
    Reply("OK refuse");
  } else if (cmd == "accept") {
    std::string err;
    if (app->server->AcceptClients(&err)) {
      Reply("OK accept");
    } else {
      Reply("ERR accept " + err);
    }
  } else if (cmd == "clients") {
    Reply("CLIENTS " + std::to_string(app->server->client_count()));
    Reply("OK clients");
  } else if (cmd == "quit") {
    Reply("OK quit");
    g_main_loop_quit(app->loop);
  } else {
    Reply("ERR " + cmd + " unknown command");
  }
}

gboolean OnStdin(GIOChannel*, GIOCondition cond, gpointer data) {
  auto* app = static_cast<App*>(data);
  if (cond & G_IO_IN) {
    char buf[256];
    // One read() returns what is there; a buffered channel read could block
    // waiting for a full buffer.
    ssize_t n = read(0, buf, sizeof(buf));
    if (n > 0) {
      app->pending.append(buf, static_cast<size_t>(n));
      size_t nl;
      while ((nl = app->pending.find('\n')) != std::string::npos) {
        std::string line = app->pending.substr(0, nl);
        app->pending.erase(0, nl + 1);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        HandleCommand(app, line);
      }
    }
    if (n > 0 || (n < 0 && errno == EINTR)) return G_SOURCE_CONTINUE;
  }
  // End of input, hang-up or error: the controlling side went away.
  g_main_loop_quit(app->loop);
  app->in_watch = 0;
  return G_SOURCE_REMOVE;
}

gboolean OnSignal(gpointer data) {
  g_main_loop_quit(static_cast<GMainLoop*>(data));
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  qo::tools::RtspServerOptions options;
  std::vector<std::string> stream_args;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](int* out_int, std::string* out_str) {
      if (i + 1 >= argc) {
        Usage(argv[0]);
        std::exit(2);
      }
      const char* v = argv[++i];
      if (out_int) *out_int = std::atoi(v);
      if (out_str) *out_str = v;
    };
    if (a == "--port") {
      value(&options.port, nullptr);
    } else if (a == "--address") {
      value(nullptr, &options.address);
    } else if (a == "--user") {
      value(nullptr, &options.user);
    } else if (a == "--password") {
      value(nullptr, &options.password);
    } else if (a == "--rtcp-interval-ms") {
      value(&options.rtcp_interval_ms, nullptr);
    } else if (a == "--stream") {
      std::string s;
      value(nullptr, &s);
      stream_args.push_back(s);
    } else if (a == "-h" || a == "--help") {
      Usage(argv[0]);
      return 0;
    } else if (!a.empty() && a[0] != '-') {
      stream_args.push_back(a);
    } else {
      Usage(argv[0]);
      return 2;
    }
  }
  if (stream_args.empty()) stream_args = {"h264=h264", "h265=h265", "mjpeg=mjpeg"};

  qo::tools::RtspServer server(options);
  for (const auto& text : stream_args) {
    qo::tools::RtspStreamSpec stream;
    std::string err;
    if (!qo::tools::RtspStreamSpec::Parse(text, &stream, &err) || !server.AddStream(stream, &err)) {
      std::fprintf(stderr, "qo-rtsp-server: %s\n", err.c_str());
      return 2;
    }
  }
  std::string err;
  if (!server.Start(&err)) {
    std::fprintf(stderr, "qo-rtsp-server: %s\n", err.c_str());
    return 1;
  }

  App app;
  app.server = &server;
  app.loop = g_main_loop_new(nullptr, FALSE);
  guint sig_term = g_unix_signal_add(SIGTERM, OnSignal, app.loop);
  guint sig_int = g_unix_signal_add(SIGINT, OnSignal, app.loop);
  GIOChannel* in = g_io_channel_unix_new(0);
  app.in_watch =
      g_io_add_watch(in, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), OnStdin, &app);

  for (const auto& s : server.streams()) Reply("URL " + server.Url(s.mount));
  Reply("READY port=" + std::to_string(server.port()));

  g_main_loop_run(app.loop);

  if (app.in_watch) g_source_remove(app.in_watch);
  g_io_channel_unref(in);
  g_source_remove(sig_term);
  g_source_remove(sig_int);
  g_main_loop_unref(app.loop);
  server.Stop();
  return 0;
}
