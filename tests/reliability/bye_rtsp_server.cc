#include "bye_rtsp_server.h"

#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <pthread.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace qo {
namespace reliability {

namespace {

constexpr char kLaunch[] =
    "( videotestsrc is-live=true pattern=ball ! "
    "video/x-raw,format=I420,width=320,height=240,framerate=30/1 ! "
    "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=15 ! "
    "rtph264pay name=pay0 pt=96 config-interval=1 )";

}  // namespace

struct ByeRtspServer::Impl {
  GMainContext* context = nullptr;
  GMainLoop* loop = nullptr;
  GstRTSPServer* server = nullptr;
  guint source_id = 0;
  std::thread thread;
  int port = 0;
  std::vector<GstRTSPMedia*> medias;  // server thread only

  // Runs fn on the server thread and waits for it.
  void Run(std::function<void()> fn) {
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

  static void OnMediaConfigure(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer data) {
    static_cast<Impl*>(data)->medias.push_back(GST_RTSP_MEDIA(g_object_ref(media)));
  }
};

ByeRtspServer::ByeRtspServer() : impl_(new Impl) {}

ByeRtspServer::~ByeRtspServer() { Stop(); }

bool ByeRtspServer::Start(std::string* error) {
  Impl* d = impl_.get();
  if (d->server) return true;
  d->context = g_main_context_new();
  d->loop = g_main_loop_new(d->context, FALSE);
  d->server = gst_rtsp_server_new();
  gst_rtsp_server_set_address(d->server, "127.0.0.1");
  gst_rtsp_server_set_service(d->server, "0");
  GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
  gst_rtsp_media_factory_set_launch(factory, kLaunch);
  // Every connection its own stream: one that got BYE is never handed out.
  gst_rtsp_media_factory_set_shared(factory, FALSE);
  g_signal_connect(factory, "media-configure", G_CALLBACK(Impl::OnMediaConfigure), d);
  GstRTSPMountPoints* mounts = gst_rtsp_server_get_mount_points(d->server);
  gst_rtsp_mount_points_add_factory(mounts, "/h264", factory);
  g_object_unref(mounts);

  GError* err = nullptr;
  GSource* source = gst_rtsp_server_create_source(d->server, nullptr, &err);
  if (!source) {
    if (error) *error = err ? err->message : "cannot listen";
    g_clear_error(&err);
    Stop();
    return false;
  }
  d->source_id = g_source_attach(source, d->context);
  g_source_unref(source);
  d->port = gst_rtsp_server_get_bound_port(d->server);
  d->thread = std::thread([d] {
    pthread_setname_np(pthread_self(), "bye-rtsp-srv");
    g_main_context_push_thread_default(d->context);
    g_main_loop_run(d->loop);
    g_main_context_pop_thread_default(d->context);
  });
  return true;
}

void ByeRtspServer::Stop() {
  Impl* d = impl_.get();
  if (!d->server) return;
  if (d->thread.joinable()) {
    d->Run([d] {
      GstRTSPSessionPool* pool = gst_rtsp_server_get_session_pool(d->server);
      gst_rtsp_session_pool_filter(
          pool,
          [](GstRTSPSessionPool*, GstRTSPSession*, gpointer) { return GST_RTSP_FILTER_REMOVE; },
          nullptr);
      g_object_unref(pool);
      gst_rtsp_server_client_filter(
          d->server,
          [](GstRTSPServer*, GstRTSPClient*, gpointer) { return GST_RTSP_FILTER_REMOVE; }, nullptr);
      if (d->source_id) {
        GSource* s = g_main_context_find_source_by_id(d->context, d->source_id);
        if (s) g_source_destroy(s);
        d->source_id = 0;
      }
    });
    d->Run([] {});  // let closed clients finish
    g_main_loop_quit(d->loop);
    d->thread.join();
  }
  g_main_context_push_thread_default(d->context);
  while (g_main_context_iteration(d->context, FALSE)) {
  }
  for (GstRTSPMedia* m : d->medias) {
    gst_rtsp_media_unprepare(m);
    g_object_unref(m);
  }
  d->medias.clear();
  while (g_main_context_iteration(d->context, FALSE)) {
  }
  g_main_context_pop_thread_default(d->context);
  g_object_unref(d->server);
  d->server = nullptr;
  g_main_loop_unref(d->loop);
  d->loop = nullptr;
  g_main_context_unref(d->context);
  d->context = nullptr;
}

std::string ByeRtspServer::Url() const {
  return "rtsp://127.0.0.1:" + std::to_string(impl_->port) + "/h264";
}

int ByeRtspServer::SendBye() {
  Impl* d = impl_.get();
  int n = 0;
  d->Run([d, &n] {
    for (GstRTSPMedia* m : d->medias) {
      if (gst_rtsp_media_get_status(m) != GST_RTSP_MEDIA_STATUS_PREPARED) continue;
      GstElement* e = gst_rtsp_media_get_element(m);
      // The end of the stream makes the RTP session send BYE.
      if (gst_element_send_event(e, gst_event_new_eos())) ++n;
      gst_object_unref(e);
    }
  });
  return n;
}

}  // namespace reliability
}  // namespace qo
