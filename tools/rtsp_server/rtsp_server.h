// A small RTSP server on the loopback interface: live test-pattern streams
// and looped replays of elementary-stream files, with fault controls.
#ifndef QO_TOOLS_RTSP_SERVER_RTSP_SERVER_H_
#define QO_TOOLS_RTSP_SERVER_RTSP_SERVER_H_

#include <memory>
#include <string>
#include <vector>

namespace qo {
namespace tools {

enum class RtspCodec { kH264, kH265, kMjpeg };

// One mount point. Without `file` the stream is a live test pattern encoded
// at `width`x`height`@`fps`; with `file` the elementary stream in that file
// is replayed at `fps` frames per second, over and over.
struct RtspStreamSpec {
  std::string mount;  // "/h264"
  RtspCodec codec = RtspCodec::kH264;
  int width = 320;
  int height = 240;
  int fps = 30;
  int key_int = 30;  // frames between key frames (H.264 / H.265)
  std::string file;
  // As some cameras do: RTP over UDP only (a TCP-interleaved SETUP gets
  // "461 Unsupported transport"), and an SDP without a=rtpmap lines for
  // static payload types (RFC 3551 allows it: JPEG is "m=video 0 RTP/AVP 26").
  bool udp_only = false;
  bool terse_sdp = false;

  // Parses "MOUNT=CODEC[,size=WxH][,fps=N][,key-int=N][,file=PATH][,udp-only][,terse-sdp]",
  // e.g. "cam=h264,size=1920x1080,fps=30" or "clip=h265,file=/tmp/a.h265".
  static bool Parse(const std::string& text, RtspStreamSpec* out, std::string* error);
};

struct RtspServerOptions {
  std::string address = "127.0.0.1";
  int port = 0;  // 0: an ephemeral port, see RtspServer::port()
  // Basic authentication is required when `user` is not empty.
  std::string user;
  std::string password;
  // Smallest interval between RTCP reports; short so that receivers get a
  // sender report (and with it wall-clock time) soon after PLAY.
  int rtcp_interval_ms = 250;
};

// Runs on its own thread and main context; every method is thread-safe.
class RtspServer {
 public:
  explicit RtspServer(RtspServerOptions options);
  ~RtspServer();
  RtspServer(const RtspServer&) = delete;
  RtspServer& operator=(const RtspServer&) = delete;

  // Streams are added before Start.
  bool AddStream(const RtspStreamSpec& stream, std::string* error);
  // Binds, starts listening and serving. gst_init must have been called.
  bool Start(std::string* error);
  // Closes all connections and the listening socket, joins the thread.
  void Stop();

  int port() const;
  std::string Url(const std::string& mount) const;
  const std::vector<RtspStreamSpec>& streams() const;

  // Fault controls for tests.
  void DropClients();                      // closes every client connection and session
  bool RefuseClients();                    // closes the listening socket: connects get refused
  bool AcceptClients(std::string* error);  // listens again on the same port
  int client_count() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

const char* RtspCodecName(RtspCodec codec);

}  // namespace tools
}  // namespace qo

#endif  // QO_TOOLS_RTSP_SERVER_RTSP_SERVER_H_
