#include "failure.h"

#include <fcntl.h>
#include <glib.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>

#include "library_output.h"

namespace qomm {

namespace {

constexpr int kConnectTimeoutMs = 3000;

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Host and port of rtsp://[user[:password]@]host[:port][/path], with
// [v6-address] accepted for the host.
bool SplitRtspAuthority(const std::string& uri, std::string* host, std::string* port) {
  const std::string scheme = "rtsp://";
  if (uri.compare(0, scheme.size(), scheme) != 0) return false;
  std::string rest = uri.substr(scheme.size());
  rest = rest.substr(0, rest.find_first_of("/?#"));
  size_t at = rest.rfind('@');
  if (at != std::string::npos) rest = rest.substr(at + 1);
  *port = "554";
  if (!rest.empty() && rest[0] == '[') {
    size_t close = rest.find(']');
    if (close == std::string::npos) return false;
    *host = rest.substr(1, close - 1);
    if (close + 1 < rest.size() && rest[close + 1] == ':') *port = rest.substr(close + 2);
  } else {
    size_t colon = rest.find(':');
    *host = rest.substr(0, colon);
    if (colon != std::string::npos) *port = rest.substr(colon + 1);
  }
  return !host->empty() && !port->empty();
}

// "" when connected within the time limit, else the reason. With `keep` the
// connected socket is handed over instead of closed.
std::string TryConnect(const struct addrinfo* ai, int* keep = nullptr) {
  int fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
  if (fd < 0) return Lower(std::strerror(errno));
  std::string reason;
  if (connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
    if (errno != EINPROGRESS) {
      reason = Lower(std::strerror(errno));
    } else {
      struct pollfd p = {fd, POLLOUT, 0};
      int r = poll(&p, 1, kConnectTimeoutMs);
      if (r == 0) {
        reason = "connection timed out";
      } else {
        int err = 0;
        socklen_t len = sizeof(err);
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (r < 0) err = errno;
        if (err != 0) reason = Lower(std::strerror(err));
      }
    }
  }
  if (keep != nullptr && reason.empty()) {
    *keep = fd;
  } else {
    close(fd);
  }
  return reason;
}

// Connects to the server of an rtsp:// URI: the socket, or -1 with *reason.
int ConnectRtsp(const std::string& uri, std::string* reason) {
  std::string host;
  std::string port;
  if (!SplitRtspAuthority(uri, &host, &port)) {
    *reason = "malformed rtsp:// address";
    return -1;
  }
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* list = nullptr;
  int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
  if (rc != 0) {
    *reason = rc == EAI_NONAME ? "host not found" : Lower(gai_strerror(rc));
    return -1;
  }
  *reason = "host not found";
  int fd = -1;
  for (const struct addrinfo* ai = list; ai != nullptr && fd < 0; ai = ai->ai_next) {
    *reason = TryConnect(ai, &fd);
  }
  freeaddrinfo(list);
  return fd;
}

// Splits "user:password@" off an rtsp:// URI (the request line carries the
// URI without it).
std::string SplitCredentials(const std::string& uri, std::string* userinfo) {
  size_t start = 7;
  size_t end = uri.find_first_of("/?#", start);
  size_t at = uri.rfind('@', end == std::string::npos ? uri.size() : end);
  userinfo->clear();
  if (at == std::string::npos || at < start) return uri;
  *userinfo = uri.substr(start, at - start);
  return uri.substr(0, start) + uri.substr(at + 1);
}

// Sends DESCRIBE (with basic authentication when the URI has credentials)
// and returns the status of a refusal ("404 Not Found"), or "" when the
// server offers the stream, wants another kind of authentication, or does
// not answer in time.
std::string DescribeRefusal(int fd, const std::string& uri) {
  std::string userinfo;
  std::string request = "DESCRIBE " + SplitCredentials(uri, &userinfo) +
                        " RTSP/1.0\r\nCSeq: 1\r\nAccept: application/sdp\r\nUser-Agent: qomm\r\n";
  if (!userinfo.empty()) {
    gchar* basic =
        g_base64_encode(reinterpret_cast<const guchar*>(userinfo.data()), userinfo.size());
    request += std::string("Authorization: Basic ") + basic + "\r\n";
    g_free(basic);
  }
  request += "\r\n";
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size())) {
    return "";
  }
  std::string reply;
  while (reply.find("\r\n\r\n") == std::string::npos && reply.size() < 8192) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, kConnectTimeoutMs) <= 0) break;
    char buf[1024];
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    if (n <= 0) break;
    reply.append(buf, static_cast<size_t>(n));
  }
  // "RTSP/1.0 404 Not Found"
  std::string line = reply.substr(0, reply.find("\r\n"));
  size_t sp = line.find(' ');
  if (line.compare(0, 5, "RTSP/") != 0 || sp == std::string::npos) return "";
  std::string status = line.substr(sp + 1);
  if (status.compare(0, 1, "2") == 0) return "";
  if (status.compare(0, 3, "401") == 0) {
    if (userinfo.empty()) return status + " (the stream needs a user name and password)";
    // Only a basic challenge proves the credentials wrong: other schemes
    // were not tried here.
    if (Lower(reply).find("www-authenticate: basic") == std::string::npos) return "";
    return status + " (check the user name and password)";
  }
  return status;
}

}  // namespace

std::string ErrorMessage(const std::string& what) {
  std::string line = what.substr(0, what.find('\n'));
  // "[hh:mm:ss:mmm] file:line: message"
  if (!line.empty() && line[0] == '[') {
    size_t close = line.find("] ");
    if (close != std::string::npos) line = line.substr(close + 2);
    size_t colon = line.find(": ");
    if (colon != std::string::npos && line.find(':') < colon) line = line.substr(colon + 2);
  }
  while (!line.empty() && (line.back() == '!' || line.back() == ' ')) line.pop_back();
  return line;
}

std::string CheckRtspReachable(const std::string& uri) {
  std::string reason;
  int fd = ConnectRtsp(uri, &reason);
  if (fd >= 0) close(fd);
  return reason;
}

std::string CheckRtspStream(const std::string& uri) {
  std::string reason;
  int fd = ConnectRtsp(uri, &reason);
  if (fd < 0) return reason;
  std::string refusal = DescribeRefusal(fd, uri);
  close(fd);
  return refusal.empty() ? "" : "the server answered " + refusal;
}

std::string CheckReadable(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::strerror(errno);
  struct stat st;
  bool dir = fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
  close(fd);
  return dir ? std::strerror(EISDIR) : "";
}

std::string ExplainSourceFailure(const std::string& uri, const std::string& fallback) {
  if (uri.compare(0, 7, "rtsp://") == 0) {
    std::string refused = CheckRtspStream(uri);
    if (!refused.empty()) return refused;
  }
  std::string gst = LibraryOutput::LastGstError();
  while (!gst.empty() && (gst.back() == '.' || gst.back() == ' ')) gst.pop_back();
  if (!gst.empty()) return Lower(gst.substr(0, 1)) + gst.substr(1);
  return fallback;
}

}  // namespace qomm
