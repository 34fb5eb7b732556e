// The log sink, its mutex, the log level and the exception type's identity.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>

#include "core/qo_logging.h"

namespace qo {

int g_log_level = 2;

Error::~Error() = default;

std::mutex LogMessage::mutex_;

namespace {

// Guarded by LogMessage::mutex_. Function-local so a module that logs from
// its static initialisation still finds it constructed.
std::function<void(const std::string&)>& Sink() {
  static auto* sink = new std::function<void(const std::string&)>();
  return *sink;
}

void WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
}

}  // namespace

std::chrono::steady_clock::time_point LogStartTime() {
  static const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  return start;
}

void LogMessage::Log(const std::string& msg) {
  std::function<void(const std::string&)>& sink = Sink();
  if (sink) {
    sink(msg);
  } else {
    WriteAll(STDERR_FILENO, msg.data(), msg.size());
  }
}

void SetLogSink(std::function<void(const std::string&)> sink) {
  std::lock_guard<std::mutex> lock(LogMessage::mutex_);
  Sink() = std::move(sink);
}

}  // namespace qo
