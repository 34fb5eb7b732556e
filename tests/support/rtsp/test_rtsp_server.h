// Runs qo-rtsp-server as a child process for tests: streams on 127.0.0.1,
// URLs, and fault injection (drop clients, refuse connections, freeze the
// whole process, kill it and start it again on the same port).
#ifndef QO_TESTS_SUPPORT_RTSP_TEST_RTSP_SERVER_H_
#define QO_TESTS_SUPPORT_RTSP_TEST_RTSP_SERVER_H_

#include <signal.h>
#include <sys/types.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace qo {
namespace test {

class TestRtspServer {
 public:
  struct Options {
    // As qo-rtsp-server takes them ("h264=h264,size=320x240,fps=30"); empty:
    // /h264, /h265 and /mjpeg live test patterns at 320x240@30.
    std::vector<std::string> streams;
    std::string user;  // basic authentication when not empty
    std::string password;
  };

  TestRtspServer() = default;
  explicit TestRtspServer(Options options) : options_(std::move(options)) {}
  ~TestRtspServer() { Kill(); }
  TestRtspServer(const TestRtspServer&) = delete;
  TestRtspServer& operator=(const TestRtspServer&) = delete;

  // Spawns the server (on the port of the last run, if any) and waits up to
  // 15 s for it to listen. On failure error() says why.
  bool Start();
  void Kill();  // SIGKILL at once (also while frozen) and reap it

  // Fault controls; each returns once the server has done it.
  bool Drop() { return Command("drop"); }      // close all client connections
  bool Refuse() { return Command("refuse"); }  // stop listening
  bool Accept() { return Command("accept"); }  // listen again on the same port
  void Freeze() { frozen_ = frozen_ || (pid_ > 0 && kill(pid_, SIGSTOP) == 0); }
  void Thaw() { frozen_ = frozen_ && !(pid_ > 0 && kill(pid_, SIGCONT) == 0); }

  const std::string& error() const { return error_; }
  // "rtsp://127.0.0.1:<port>/<mount>" (mount with or without leading '/').
  std::string Url(const std::string& mount) const { return UrlWithCredentials(mount, "", ""); }
  // The same with "user:password@" in front of the host (none when empty).
  std::string UrlWithCredentials(const std::string& mount, const std::string& user,
                                 const std::string& password) const;

 private:
  bool Command(const std::string& cmd);
  bool ReadLine(std::string* line, int timeout_ms);

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
