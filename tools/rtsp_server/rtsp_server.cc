#include "rtsp_server.h"

#include <gio/gio.h>
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace qo {
namespace tools {

namespace {

bool ParseInt(const std::string& s, int* out) {
  if (s.empty()) return false;
  char* end = nullptr;
  long v = std::strtol(s.c_str(), &end, 10);
  if (*end != '\0' || v <= 0 || v > 100000) return false;
  *out = static_cast<int>(v);
  return true;
}

// Paths end up inside a quoted launch-string value and a printf pattern
// (multifilesrc formats its location with the file index).
std::string QuoteLocation(const std::string& path) {
  std::string out;
  for (char c : path) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '%') out += '%';
    out += c;
  }
  return out;
}

// What each codec's stream is made of: a live encoder (its key-frame
// interval follows), or the parser and caps to replay a file with, and the
// payloader.
struct CodecPipeline {
  const char *encoder, *caps, *parser, *payloader;
};

// Parameter sets once per second, not before every IDR slice: x264's
// zerolatency tuning cuts pictures into several slices, and parameter sets
// between two slices of one picture make the depayloader start a new access
// unit in the middle of the picture.
const CodecPipeline kPipelines[] = {
    {"x264enc tune=zerolatency speed-preset=ultrafast key-int-max=%d",
     "video/x-h264,stream-format=byte-stream", "h264parse",
     "rtph264pay name=pay0 pt=96 config-interval=1"},
    {"x265enc tune=zerolatency speed-preset=ultrafast key-int-max=%d",
     "video/x-h265,stream-format=byte-stream", "h265parse",
     "rtph265pay name=pay0 pt=96 config-interval=-1"},
    {"jpegenc quality=80", "image/jpeg", "jpegparse", "rtpjpegpay name=pay0 pt=26"},
};

std::string LaunchFor(const RtspStreamSpec& s) {
  const CodecPipeline& p = kPipelines[static_cast<int>(s.codec)];
  char buf[1024];
  if (s.file.empty()) {
    char encoder[256];
    std::snprintf(encoder, sizeof(encoder), p.encoder, s.key_int);
    std::snprintf(buf, sizeof(buf),
                  "videotestsrc is-live=true pattern=ball ! "
                  "video/x-raw,format=I420,width=%d,height=%d,framerate=%d/1 ! %s ! ",
                  s.width, s.height, s.fps, encoder);
  } else {
    std::snprintf(buf, sizeof(buf),
                  "multifilesrc location=\"%s\" loop=true caps=\"%s,framerate=%d/1\" ! %s ! ",
                  QuoteLocation(s.file).c_str(), p.caps, s.fps, p.parser);
  }
  return std::string("( ") + buf + p.payloader + " )";
}

}  // namespace

const char* RtspCodecName(RtspCodec codec) {
  switch (codec) {
    case RtspCodec::kH264:
      return "h264";
    case RtspCodec::kH265:
      return "h265";
    case RtspCodec::kMjpeg:
      return "mjpeg";
  }
  return "?";
}

bool RtspStreamSpec::Parse(const std::string& text, RtspStreamSpec* out, std::string* error) {
  RtspStreamSpec s;
  auto fail = [&](const std::string& why) {
    if (error) *error = "bad stream \"" + text + "\": " + why;
    return false;
  };
  size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0) return fail("expected MOUNT=CODEC[,...]");
  s.mount = text.substr(0, eq);
  if (s.mount[0] != '/') s.mount = "/" + s.mount;
  std::vector<std::string> fields;
  size_t pos = eq + 1;
  while (true) {
    size_t comma = text.find(',', pos);
    fields.push_back(
        text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos));
    if (comma == std::string::npos) break;
    pos = comma + 1;
  }
  const std::string& codec = fields[0];
  if (codec == "h264") {
    s.codec = RtspCodec::kH264;
  } else if (codec == "h265") {
    s.codec = RtspCodec::kH265;
  } else if (codec == "mjpeg" || codec == "jpeg") {
    s.codec = RtspCodec::kMjpeg;
  } else {
    return fail("unknown codec \"" + codec + "\"");
  }
  for (size_t i = 1; i < fields.size(); ++i) {
    const std::string& f = fields[i];
    size_t e = f.find('=');
    std::string key = f.substr(0, e);
    std::string val = e == std::string::npos ? "" : f.substr(e + 1);
    if (key == "size") {
      size_t x = val.find('x');
      if (x == std::string::npos || !ParseInt(val.substr(0, x), &s.width) ||
          !ParseInt(val.substr(x + 1), &s.height)) {
        return fail("size must be WxH");
      }
    } else if (key == "fps") {
      if (!ParseInt(val, &s.fps)) return fail("fps must be a positive number");
    } else if (key == "key-int") {
      if (!ParseInt(val, &s.key_int)) return fail("key-int must be a positive number");
    } else if ((key == "udp-only" || key == "terse-sdp") && e == std::string::npos) {
      (key == "udp-only" ? s.udp_only : s.terse_sdp) = true;
    } else if (key == "file") {
      if (val.empty()) return fail("file needs a path");
      s.file = val;
    } else {
      return fail("unknown field \"" + key + "\"");
    }
  }
  *out = s;
  return true;
}

struct RtspServer::Impl {
  RtspServerOptions options;
  std::vector<RtspStreamSpec> streams;

  GMainContext* context = nullptr;
  GMainLoop* loop = nullptr;
  GstRTSPServer* server = nullptr;
  GSocket* listen_socket = nullptr;
  GSource* listen_source = nullptr;
  std::thread thread;
  std::atomic<int> port{0};
  std::atomic<int> clients{0};
  bool started = false;

  // Runs `fn` on the server thread and waits for it.
  void RunOnServer(std::function<void()> fn) {
    if (g_main_context_is_owner(context)) {
      fn();
      return;
    }
    struct Call {
      std::function<void()> fn;
      std::mutex mu;
      std::condition_variable cv;
      bool done = false;
    } call;
    call.fn = std::move(fn);
    g_main_context_invoke(
        context,
        [](gpointer data) -> gboolean {
          auto* c = static_cast<Call*>(data);
          c->fn();
          std::lock_guard<std::mutex> lock(c->mu);
          c->done = true;
          c->cv.notify_all();
          return G_SOURCE_REMOVE;
        },
        &call);
    std::unique_lock<std::mutex> lock(call.mu);
    call.cv.wait(lock, [&] { return call.done; });
  }

  // Server thread only.
  bool Listen(GError** err) {
    listen_socket = gst_rtsp_server_create_socket(server, nullptr, err);
    if (!listen_socket) return false;
    listen_source = g_socket_create_source(listen_socket, G_IO_IN, nullptr);
    GSocketSourceFunc accept_fn = [](GSocket* socket, GIOCondition cond, gpointer data) {
      return gst_rtsp_server_io_func(socket, cond, GST_RTSP_SERVER(data));
    };
    g_source_set_callback(listen_source, G_SOURCE_FUNC(accept_fn), g_object_ref(server),
                          g_object_unref);
    g_source_attach(listen_source, context);
    GSocketAddress* local = g_socket_get_local_address(listen_socket, nullptr);
    if (local && G_IS_INET_SOCKET_ADDRESS(local)) {
      port = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(local));
    }
    if (local) g_object_unref(local);
    // Later re-listens (after RefuseClients) must come back on this port.
    std::string service = std::to_string(port.load());
    gst_rtsp_server_set_service(server, service.c_str());
    return true;
  }

  void Unlisten() {
    if (listen_source) {
      g_source_destroy(listen_source);
      g_source_unref(listen_source);
      listen_source = nullptr;
    }
    if (listen_socket) {
      g_socket_close(listen_socket, nullptr);
      g_object_unref(listen_socket);
      listen_socket = nullptr;
    }
  }

  void Drop() {
    GstRTSPSessionPool* pool = gst_rtsp_server_get_session_pool(server);
    gst_rtsp_session_pool_filter(
        pool, [](GstRTSPSessionPool*, GstRTSPSession*, gpointer) { return GST_RTSP_FILTER_REMOVE; },
        nullptr);
    g_object_unref(pool);
    gst_rtsp_server_client_filter(
        server, [](GstRTSPServer*, GstRTSPClient*, gpointer) { return GST_RTSP_FILTER_REMOVE; },
        nullptr);
  }

  static void OnClientClosed(GstRTSPClient*, gpointer data) { static_cast<Impl*>(data)->clients--; }

  static void OnClientConnected(GstRTSPServer*, GstRTSPClient* client, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    self->clients++;
    // RTP over TCP goes out on this connection in small writes; with Nagle's
    // algorithm a write waits for the receiver's delayed ACK (about 40 ms).
    GstRTSPConnection* conn = gst_rtsp_client_get_connection(client);
    GSocket* socket = conn ? gst_rtsp_connection_get_write_socket(conn) : nullptr;
    if (socket) g_socket_set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1, nullptr);
    g_signal_connect(client, "closed", G_CALLBACK(OnClientClosed), self);
    g_signal_connect(client, "send-message", G_CALLBACK(OnSendMessage), self);
  }

  bool IsTerse(const GstRTSPUrl* url) const {
    if (!url || !url->abspath) return false;
    for (const auto& s : streams) {
      if (s.terse_sdp && s.mount == url->abspath) return true;
    }
    return false;
  }

  // Drops the a=rtpmap lines of static payload types (below 96) from the
  // DESCRIBE answer of a terse mount.
  static void OnSendMessage(GstRTSPClient*, GstRTSPContext* ctx, GstRTSPMessage* msg,
                            gpointer data) {
    if (!ctx || ctx->method != GST_RTSP_DESCRIBE || !static_cast<Impl*>(data)->IsTerse(ctx->uri))
      return;
    guint8* body = nullptr;
    guint size = 0;
    if (gst_rtsp_message_get_body(msg, &body, &size) != GST_RTSP_OK || size == 0) return;
    std::string in(reinterpret_cast<const char*>(body), size), out;
    for (size_t pos = 0; pos < in.size();) {
      size_t end = in.find('\n', pos);
      end = end == std::string::npos ? in.size() : end + 1;
      const std::string line = in.substr(pos, end - pos);
      pos = end;
      if (line.rfind("a=rtpmap:", 0) == 0 && std::atoi(line.c_str() + 9) < 96) continue;
      out += line;
    }
    gst_rtsp_message_set_body(msg, reinterpret_cast<const guint8*>(out.data()),
                              static_cast<guint>(out.size()));
  }

  static void OnMediaPrepared(GstRTSPMedia* media, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    guint64 interval = static_cast<guint64>(self->options.rtcp_interval_ms) * GST_MSECOND;
    for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i) {
      GstRTSPStream* stream = gst_rtsp_media_get_stream(media, i);
      GObject* session = stream ? gst_rtsp_stream_get_rtpsession(stream) : nullptr;
      if (!session) continue;
      if (g_object_class_find_property(G_OBJECT_GET_CLASS(session), "rtcp-min-interval")) {
        g_object_set(session, "rtcp-min-interval", interval, nullptr);
      }
      g_object_unref(session);
    }
  }

  // The H.264/H.265 parsers give replayed elementary streams decoding times
  // only, and the payloader would then stamp every packet with the same RTP
  // time: receivers would see no frame times and no sender clock. Without
  // B-frames (as in our generated streams) presentation = decoding time;
  // with them the times are still monotonic, if out of display order.
  static GstPadProbeReturn StampPresentationTime(GstPad*, GstPadProbeInfo* info, gpointer) {
    GstBuffer* buf = GST_PAD_PROBE_INFO_BUFFER(info);
    if (GST_BUFFER_PTS_IS_VALID(buf) || !GST_BUFFER_DTS_IS_VALID(buf)) return GST_PAD_PROBE_OK;
    buf = gst_buffer_make_writable(buf);
    GST_BUFFER_PTS(buf) = GST_BUFFER_DTS(buf);
    GST_PAD_PROBE_INFO_DATA(info) = buf;
    return GST_PAD_PROBE_OK;
  }

  static void OnMediaConfigure(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer data) {
    g_signal_connect(media, "prepared", G_CALLBACK(OnMediaPrepared), data);
    GstElement* bin = gst_rtsp_media_get_element(media);
    GstElement* pay = bin ? gst_bin_get_by_name(GST_BIN(bin), "pay0") : nullptr;
    GstPad* pad = pay ? gst_element_get_static_pad(pay, "sink") : nullptr;
    if (pad) {
      gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, StampPresentationTime, nullptr, nullptr);
      gst_object_unref(pad);
    }
    if (pay) gst_object_unref(pay);
    if (bin) gst_object_unref(bin);
  }
};

RtspServer::RtspServer(RtspServerOptions options) : impl_(new Impl) {
  impl_->options = std::move(options);
}

RtspServer::~RtspServer() { Stop(); }

bool RtspServer::AddStream(const RtspStreamSpec& stream, std::string* error) {
  if (impl_->started) {
    if (error) *error = "streams must be added before Start";
    return false;
  }
  for (const auto& s : impl_->streams) {
    if (s.mount == stream.mount) {
      if (error) *error = "mount " + stream.mount + " used twice";
      return false;
    }
  }
  impl_->streams.push_back(stream);
  return true;
}

bool RtspServer::Start(std::string* error) {
  Impl* d = impl_.get();
  if (d->started) return true;
  d->context = g_main_context_new();
  d->loop = g_main_loop_new(d->context, FALSE);
  d->server = gst_rtsp_server_new();
  gst_rtsp_server_set_address(d->server, d->options.address.c_str());
  gst_rtsp_server_set_service(d->server, std::to_string(d->options.port).c_str());
  g_signal_connect(d->server, "client-connected", G_CALLBACK(Impl::OnClientConnected), d);

  GstRTSPAuth* auth = nullptr;
  if (!d->options.user.empty()) {
    auth = gst_rtsp_auth_new();
    GstRTSPToken* token =
        gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, "user", nullptr);
    gchar* basic = gst_rtsp_auth_make_basic(d->options.user.c_str(), d->options.password.c_str());
    gst_rtsp_auth_add_basic(auth, basic, token);
    g_free(basic);
    gst_rtsp_token_unref(token);
    gst_rtsp_server_set_auth(d->server, auth);
    g_object_unref(auth);
  }

  GstRTSPMountPoints* mounts = gst_rtsp_server_get_mount_points(d->server);
  for (const auto& s : d->streams) {
    GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
    gst_rtsp_media_factory_set_launch(factory, LaunchFor(s).c_str());
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    if (s.udp_only) gst_rtsp_media_factory_set_protocols(factory, GST_RTSP_LOWER_TRANS_UDP);
    if (auth) {
      gst_rtsp_media_factory_add_role(factory, "user", GST_RTSP_PERM_MEDIA_FACTORY_ACCESS,
                                      G_TYPE_BOOLEAN, TRUE, GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT,
                                      G_TYPE_BOOLEAN, TRUE, nullptr);
    }
    g_signal_connect(factory, "media-configure", G_CALLBACK(Impl::OnMediaConfigure), d);
    gst_rtsp_mount_points_add_factory(mounts, s.mount.c_str(), factory);  // takes it
  }
  g_object_unref(mounts);

  // Bind before the thread starts so that a failure is reported here; the
  // listening source is attached to the server's own context.
  GError* err = nullptr;
  g_main_context_push_thread_default(d->context);
  bool ok = d->Listen(&err);
  g_main_context_pop_thread_default(d->context);
  if (!ok) {
    if (error) *error = std::string("cannot listen: ") + (err ? err->message : "unknown error");
    g_clear_error(&err);
    g_object_unref(d->server);
    d->server = nullptr;
    g_main_loop_unref(d->loop);
    d->loop = nullptr;
    g_main_context_unref(d->context);
    d->context = nullptr;
    return false;
  }
  d->thread = std::thread([d] {
    pthread_setname_np(pthread_self(), "qo-rtsp-srv");
    // Clients attach to the thread-default context of the accepting thread.
    g_main_context_push_thread_default(d->context);
    g_main_loop_run(d->loop);
    g_main_context_pop_thread_default(d->context);
  });
  d->started = true;
  return true;
}

void RtspServer::Stop() {
  Impl* d = impl_.get();
  if (!d->started) return;
  d->RunOnServer([d] {
    d->Unlisten();
    d->Drop();
  });
  // Let the closed clients and torn-down media finish on the loop.
  d->RunOnServer([] {});
  g_main_loop_quit(d->loop);
  d->thread.join();
  // Dispatch what is still pending (client finalisation) before dropping the
  // context, so nothing refers to it afterwards.
  g_main_context_push_thread_default(d->context);
  while (g_main_context_iteration(d->context, FALSE)) {
  }
  g_main_context_pop_thread_default(d->context);
  g_object_unref(d->server);
  d->server = nullptr;
  g_main_loop_unref(d->loop);
  d->loop = nullptr;
  g_main_context_unref(d->context);
  d->context = nullptr;
  d->started = false;
}

int RtspServer::port() const { return impl_->port; }

std::string RtspServer::Url(const std::string& mount) const {
  std::string m = mount.empty() || mount[0] == '/' ? mount : "/" + mount;
  return "rtsp://" + impl_->options.address + ":" + std::to_string(impl_->port.load()) + m;
}

const std::vector<RtspStreamSpec>& RtspServer::streams() const { return impl_->streams; }

void RtspServer::DropClients() {
  Impl* d = impl_.get();
  if (!d->started) return;
  d->RunOnServer([d] { d->Drop(); });
}

bool RtspServer::RefuseClients() {
  Impl* d = impl_.get();
  if (!d->started) return false;
  d->RunOnServer([d] { d->Unlisten(); });
  return true;
}

bool RtspServer::AcceptClients(std::string* error) {
  Impl* d = impl_.get();
  if (!d->started) return false;
  bool ok = true;
  d->RunOnServer([d, &ok, error] {
    if (d->listen_socket) return;
    GError* err = nullptr;
    ok = d->Listen(&err);
    if (!ok && error) *error = err ? err->message : "unknown error";
    g_clear_error(&err);
  });
  return ok;
}

int RtspServer::client_count() const { return impl_->clients; }

}  // namespace tools
}  // namespace qo
