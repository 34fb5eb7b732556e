#include "test_rtsp_server.h"

#include <glib.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qo {
namespace test {

static int64_t NowMs() { return g_get_monotonic_time() / 1000; }

bool TestRtspServer::Start() {
  if (pid_ > 0) return true;
  error_.clear();
  signal(SIGPIPE, SIG_IGN);  // a dead child must not kill the test when told something
  std::vector<std::string> args = {QO_RTSP_SERVER_PROGRAM, "--port", std::to_string(port_),
                                   "--rtcp-interval-ms", "250"};
  if (!options_.user.empty()) {
    args.insert(args.end(), {"--user", options_.user, "--password", options_.password});
  }
  for (const auto& s : options_.streams) args.insert(args.end(), {"--stream", s});
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);

  // GLib spawns safely from a process that already runs GStreamer threads;
  // the child is reaped here, not by a GLib source.
  GError* err = nullptr;
  GPid pid = -1;
  if (!g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                                nullptr, &pid, &to_child_, &from_child_, nullptr, &err)) {
    error_ = "cannot start " + args[0] + ": " + err->message;
    g_error_free(err);
    to_child_ = from_child_ = -1;
    return false;
  }
  pid_ = pid;
  std::string line;
  for (int64_t end = NowMs() + 15000; ReadLine(&line, static_cast<int>(end - NowMs()));) {
    if (line.rfind("READY port=", 0) == 0) return (port_ = std::atoi(line.c_str() + 11)) > 0;
  }
  Kill();
  return error_ = "qo-rtsp-server did not report READY", false;
}

void TestRtspServer::Kill() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);  // ends a stopped process too
    waitpid(pid_, nullptr, 0);
  }
  if (to_child_ >= 0) close(to_child_);
  if (from_child_ >= 0) close(from_child_);
  to_child_ = from_child_ = pid_ = -1;
  frozen_ = false;
  buffered_.clear();
}

bool TestRtspServer::ReadLine(std::string* line, int timeout_ms) {
  for (int64_t end = NowMs() + timeout_ms;;) {
    size_t nl = buffered_.find('\n');
    if (nl != std::string::npos) {
      *line = buffered_.substr(0, nl);
      buffered_.erase(0, nl + 1);
      return true;
    }
    int left = static_cast<int>(end - NowMs());
    pollfd p{from_child_, POLLIN, 0};
    if (left <= 0 || from_child_ < 0 || poll(&p, 1, left) <= 0) return false;
    char buf[512];
    ssize_t n = read(from_child_, buf, sizeof(buf));
    if (n <= 0) return false;
    buffered_.append(buf, static_cast<size_t>(n));
  }
}

bool TestRtspServer::Command(const std::string& cmd) {
  if (pid_ <= 0 || frozen_) return false;
  std::string text = cmd + "\n";
  ssize_t n = write(to_child_, text.data(), text.size());
  std::string line;
  while (n == static_cast<ssize_t>(text.size()) && ReadLine(&line, 10000)) {
    if (line == "OK " + cmd) return true;
    if (line.rfind("ERR ", 0) == 0) return error_ = line, false;
  }
  return false;
}

std::string TestRtspServer::UrlWithCredentials(const std::string& mount, const std::string& user,
                                               const std::string& password) const {
  std::string path = mount.empty() || mount[0] == '/' ? mount : "/" + mount;
  std::string auth = user.empty() ? "" : user + ":" + password + "@";
  return "rtsp://" + auth + "127.0.0.1:" + std::to_string(port_) + path;
}

}  // namespace test
}  // namespace qo
