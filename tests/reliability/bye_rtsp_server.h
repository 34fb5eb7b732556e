// An RTSP server inside the test process whose sender can end its stream:
// the media pipeline gets an end-of-stream, so every receiver is sent an
// RTCP BYE, while the server goes on accepting connections (each with a
// stream of its own). The program qo-rtsp-server has no such control.
#ifndef QO_TESTS_RELIABILITY_BYE_RTSP_SERVER_H_
#define QO_TESTS_RELIABILITY_BYE_RTSP_SERVER_H_

#include <memory>
#include <string>

namespace qo {
namespace reliability {

class ByeRtspServer {
 public:
  ByeRtspServer();
  ~ByeRtspServer();  // Stop()
  ByeRtspServer(const ByeRtspServer&) = delete;
  ByeRtspServer& operator=(const ByeRtspServer&) = delete;

  // Serves an H.264 test pattern (320x240@30, a key frame every 15 frames)
  // at /h264 on 127.0.0.1 from its own thread. gst_init must have run.
  bool Start(std::string* error);
  void Stop();
  std::string Url() const;

  // Ends the stream of every connected receiver with RTCP BYE. Returns how
  // many streams were ended.
  int SendBye();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace reliability
}  // namespace qo

#endif  // QO_TESTS_RELIABILITY_BYE_RTSP_SERVER_H_
