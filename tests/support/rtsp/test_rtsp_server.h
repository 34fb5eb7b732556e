// Runs qo-rtsp-server as a child process for tests: streams on 127.0.0.1,
// URLs, and fault injection (drop clients, refuse connections, freeze the
// whole process, kill it and start it again on the same port).
#ifndef QO_TESTS_SUPPORT_RTSP_TEST_RTSP_SERVER_H_
#define QO_TESTS_SUPPORT_RTSP_TEST_RTSP_SERVER_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace qo {
namespace test {

class TestRtspServer {
 public:
  struct Options {
    // Stream arguments as qo-rtsp-server takes them, e.g.
    // "h264=h264,size=320x240,fps=30" or "clip=h265,file=/path/clip.h265".
    // Empty: /h264, /h265 and /mjpeg live test patterns at 320x240@30.
    std::vector<std::string> streams;
    std::string user;  // basic authentication when not empty
    std::string password;
    int port = 0;  // 0: ephemeral
    int rtcp_interval_ms = 250;
  };

  TestRtspServer();
  explicit TestRtspServer(Options options);
  ~TestRtspServer();  // Kill()
  TestRtspServer(const TestRtspServer&) = delete;
  TestRtspServer& operator=(const TestRtspServer&) = delete;

  // Spawns the server and waits (up to 15 s) for it to listen. On failure
  // error() says why.
  bool Start();
  // Asks the server to quit and waits for it; SIGKILL if it does not.
  void Stop();
  // SIGKILL at once (also while frozen) and reap the process.
  void Kill();
  // Kill, then start a new server on the same port.
  bool Restart();

  // Fault controls; each returns once the server has done it.
  bool Drop();        // close all client connections and sessions
  bool Refuse();      // close the listening socket: connections get refused
  bool Accept();      // listen again on the same port
  void Freeze();      // SIGSTOP the server process
  void Thaw();        // SIGCONT
  int ClientCount();  // -1 on error

  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  int port() const { return port_; }
  const std::string& error() const { return error_; }
  // "rtsp://127.0.0.1:<port>/<mount>" (mount with or without leading '/').
  std::string Url(const std::string& mount) const;
  // The same with "user:password@" in front of the host.
  std::string UrlWithCredentials(const std::string& mount, const std::string& user,
                                 const std::string& password) const;

  // Path of the qo-rtsp-server program of this build.
  static std::string ProgramPath();

 private:
  bool Command(const std::string& cmd, std::string* reply);
  bool ReadLine(std::string* line, int timeout_ms);
  void CloseFds();

  Options options_;
  pid_t pid_ = -1;
  int port_ = 0;
  int to_child_ = -1;
  int from_child_ = -1;
  bool frozen_ = false;
  std::string buffered_;
  std::string error_;
};

}  // namespace test
}  // namespace qo

#endif  // QO_TESTS_SUPPORT_RTSP_TEST_RTSP_SERVER_H_
