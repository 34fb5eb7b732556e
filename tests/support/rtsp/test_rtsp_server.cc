#include "test_rtsp_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

extern char** environ;

namespace qo {
namespace test {

namespace {

long long NowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// Waits for `pid` up to `timeout_ms`; true when it was reaped.
bool WaitFor(pid_t pid, int timeout_ms) {
  long long end = NowMs() + timeout_ms;
  while (true) {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid || (r < 0 && errno == ECHILD)) return true;
    if (NowMs() >= end) return false;
    usleep(5000);
  }
}

std::string Mount(const std::string& mount) {
  return mount.empty() || mount[0] == '/' ? mount : "/" + mount;
}

}  // namespace

TestRtspServer::TestRtspServer() = default;

TestRtspServer::TestRtspServer(Options options) : options_(std::move(options)) {}

TestRtspServer::~TestRtspServer() { Kill(); }

std::string TestRtspServer::ProgramPath() {
#ifdef QO_RTSP_SERVER_PROGRAM
  return QO_RTSP_SERVER_PROGRAM;
#else
  return std::string(QO_TEST_BINARY_DIR) + "/tools/qo-rtsp-server";
#endif
}

bool TestRtspServer::Start() {
  if (pid_ > 0) return true;
  error_.clear();
  buffered_.clear();
  int in_pipe[2], out_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0) {
    error_ = "pipe failed";
    return false;
  }
  if (pipe2(out_pipe, O_CLOEXEC) != 0) {
    close(in_pipe[0]);
    close(in_pipe[1]);
    error_ = "pipe failed";
    return false;
  }
  std::vector<std::string> args = {ProgramPath(), "--port",
                                   std::to_string(port_ ? port_ : options_.port),
                                   "--rtcp-interval-ms", std::to_string(options_.rtcp_interval_ms)};
  if (!options_.user.empty()) {
    args.insert(args.end(), {"--user", options_.user, "--password", options_.password});
  }
  for (const auto& s : options_.streams) args.insert(args.end(), {"--stream", s});
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);

  // posix_spawn: safe in a process that already runs GStreamer threads.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in_pipe[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in_pipe[0]);
  close(out_pipe[1]);
  if (rc != 0) {
    close(in_pipe[1]);
    close(out_pipe[0]);
    error_ = "cannot start " + args[0] + ": " + std::strerror(rc);
    return false;
  }
  pid_ = pid;
  frozen_ = false;
  to_child_ = in_pipe[1];
  from_child_ = out_pipe[0];

  std::string line;
  long long end = NowMs() + 15000;
  while (true) {
    int left = static_cast<int>(end - NowMs());
    if (left <= 0 || !ReadLine(&line, left)) {
      error_ = "qo-rtsp-server did not report READY";
      Kill();
      return false;
    }
    if (line.rfind("READY port=", 0) == 0) {
      port_ = std::atoi(line.c_str() + 11);
      return port_ > 0;
    }
  }
}

void TestRtspServer::CloseFds() {
  if (to_child_ >= 0) close(to_child_);
  if (from_child_ >= 0) close(from_child_);
  to_child_ = from_child_ = -1;
}

void TestRtspServer::Stop() {
  if (pid_ <= 0) return;
  if (frozen_) Thaw();
  std::string reply;
  Command("quit", &reply);
  CloseFds();
  if (!WaitFor(pid_, 10000)) {
    kill(pid_, SIGKILL);
    WaitFor(pid_, 10000);
  }
  pid_ = -1;
}

void TestRtspServer::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  WaitFor(pid_, 10000);
  CloseFds();
  pid_ = -1;
  frozen_ = false;
}

bool TestRtspServer::Restart() {
  Kill();
  return Start();  // port_ is kept, so the new server binds the same port
}

bool TestRtspServer::ReadLine(std::string* line, int timeout_ms) {
  long long end = NowMs() + timeout_ms;
  while (true) {
    size_t nl = buffered_.find('\n');
    if (nl != std::string::npos) {
      *line = buffered_.substr(0, nl);
      buffered_.erase(0, nl + 1);
      return true;
    }
    int left = static_cast<int>(end - NowMs());
    if (left <= 0 || from_child_ < 0) return false;
    pollfd p{from_child_, POLLIN, 0};
    int r = poll(&p, 1, left);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    char buf[512];
    ssize_t n = read(from_child_, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    buffered_.append(buf, static_cast<size_t>(n));
  }
}

bool TestRtspServer::Command(const std::string& cmd, std::string* reply) {
  if (pid_ <= 0 || to_child_ < 0 || frozen_) return false;
  std::string text = cmd + "\n";
  // A dead child must not kill the test with SIGPIPE.
  sighandler_t old = signal(SIGPIPE, SIG_IGN);
  ssize_t n = write(to_child_, text.data(), text.size());
  signal(SIGPIPE, old);
  if (n != static_cast<ssize_t>(text.size())) return false;
  std::string line;
  reply->clear();
  while (ReadLine(&line, 10000)) {
    if (line == "OK " + cmd) return true;
    if (line.rfind("ERR ", 0) == 0) {
      error_ = line;
      return false;
    }
    *reply = line;
  }
  return false;
}

bool TestRtspServer::Drop() {
  std::string r;
  return Command("drop", &r);
}

bool TestRtspServer::Refuse() {
  std::string r;
  return Command("refuse", &r);
}

bool TestRtspServer::Accept() {
  std::string r;
  return Command("accept", &r);
}

int TestRtspServer::ClientCount() {
  std::string r;
  if (!Command("clients", &r) || r.rfind("CLIENTS ", 0) != 0) return -1;
  return std::atoi(r.c_str() + 8);
}

void TestRtspServer::Freeze() {
  if (pid_ > 0 && !frozen_) {
    kill(pid_, SIGSTOP);
    frozen_ = true;
  }
}

void TestRtspServer::Thaw() {
  if (pid_ > 0 && frozen_) {
    kill(pid_, SIGCONT);
    frozen_ = false;
  }
}

std::string TestRtspServer::Url(const std::string& mount) const {
  return "rtsp://127.0.0.1:" + std::to_string(port_) + Mount(mount);
}

std::string TestRtspServer::UrlWithCredentials(const std::string& mount, const std::string& user,
                                               const std::string& password) const {
  return "rtsp://" + user + ":" + password + "@127.0.0.1:" + std::to_string(port_) + Mount(mount);
}

}  // namespace test
}  // namespace qo
