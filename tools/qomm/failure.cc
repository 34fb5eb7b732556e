#include "failure.h"

#include <fcntl.h>
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

// "" when connected within the time limit, else the reason.
std::string TryConnect(const struct addrinfo* ai) {
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
  close(fd);
  return reason;
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
  std::string host;
  std::string port;
  if (!SplitRtspAuthority(uri, &host, &port)) return "malformed rtsp:// address";
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* list = nullptr;
  int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
  if (rc != 0) return rc == EAI_NONAME ? "host not found" : Lower(gai_strerror(rc));
  std::string reason = "host not found";
  for (const struct addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    reason = TryConnect(ai);
    if (reason.empty()) break;
  }
  freeaddrinfo(list);
  return reason;
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
    std::string unreachable = CheckRtspReachable(uri);
    if (!unreachable.empty()) return unreachable;
  }
  std::string gst = LibraryOutput::LastGstError();
  while (!gst.empty() && (gst.back() == '.' || gst.back() == ' ')) gst.pop_back();
  if (!gst.empty()) return Lower(gst.substr(0, 1)) + gst.substr(1);
  return fallback;
}

}  // namespace qomm
