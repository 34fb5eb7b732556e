#include "library_output.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>

#include "core/qo_logging.h"

namespace qomm {

namespace {

constexpr size_t kTailBytes = 32 * 1024;
constexpr char kGstError[] = "GStreamer ERROR: ";
constexpr char kDebugInfo[] = "; debug info: ";

void WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

}  // namespace

LibraryOutput& LibraryOutput::Get() {
  static LibraryOutput* instance = new LibraryOutput();  // lives until exit
  return *instance;
}

void LibraryOutput::Start(int verbosity) {
  LibraryOutput& self = Get();
  self.verbosity_ = verbosity;
  qo::SetLogSink([&self](const std::string& line) { self.OnLogLine(line); });

  std::fflush(stdout);
  int fds[2];
  int saved = dup(STDOUT_FILENO);
  if (saved < 0 || pipe2(fds, O_CLOEXEC) != 0) {
    if (saved >= 0) close(saved);
    return;  // everything stays on standard output
  }
  // qomm prints through its own stream on the saved descriptor; whatever
  // the library writes to descriptor 1 goes into the pipe.
  self.saved_stdout_ = saved;
  self.out_ = fdopen(dup(saved), "w");
  dup2(fds[1], STDOUT_FILENO);
  close(fds[1]);
  const int read_fd = fds[0];
  self.reader_ = std::thread([&self, read_fd] {
    pthread_setname_np(pthread_self(), "qomm-libout");
    self.ReadLoop(read_fd);
    close(read_fd);
  });
}

void LibraryOutput::Finish() {
  LibraryOutput& self = Get();
  std::fflush(stdout);
  if (self.out_ != nullptr) std::fflush(self.out_);
  if (self.saved_stdout_ >= 0) {
    // Closes the pipe's only write end: the reader sees the end.
    dup2(self.saved_stdout_, STDOUT_FILENO);
    close(self.saved_stdout_);
    self.saved_stdout_ = -1;
  }
  if (self.reader_.joinable()) self.reader_.join();
  Release(true);
}

FILE* LibraryOutput::Out() {
  LibraryOutput& self = Get();
  return self.out_ != nullptr ? self.out_ : stdout;
}

void LibraryOutput::ReadLoop(int fd) {
  char buf[4096];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (verbosity_ > 0) WriteAll(STDERR_FILENO, buf, static_cast<size_t>(n));
    tail_.append(buf, static_cast<size_t>(n));
    if (tail_.size() > kTailBytes) tail_.erase(0, tail_.size() - kTailBytes / 2);
  }
}

void LibraryOutput::OnLogLine(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (holding_ && verbosity_ == 0) {
    held_.push_back(line);
    return;
  }
  WriteAll(STDERR_FILENO, line.data(), line.size());
}

void LibraryOutput::Hold() {
  LibraryOutput& self = Get();
  std::lock_guard<std::mutex> lock(self.mutex_);
  self.holding_ = true;
}

void LibraryOutput::Release(bool show) {
  LibraryOutput& self = Get();
  std::lock_guard<std::mutex> lock(self.mutex_);
  if (show) {
    for (const std::string& line : self.held_) WriteAll(STDERR_FILENO, line.data(), line.size());
  }
  self.held_.clear();
  self.holding_ = false;
}

std::string LibraryOutput::LastGstError(bool with_debug) {
  LibraryOutput& self = Get();
  std::lock_guard<std::mutex> lock(self.mutex_);
  size_t at = self.tail_.rfind(kGstError);
  if (at == std::string::npos) return "";
  at += sizeof(kGstError) - 1;
  size_t debug = self.tail_.find(kDebugInfo, at);
  std::string message =
      self.tail_.substr(at, debug == std::string::npos ? std::string::npos : debug - at);
  if (with_debug && debug != std::string::npos) {
    size_t from = debug + sizeof(kDebugInfo) - 1;
    size_t end = self.tail_.find('\n', from);
    message += " (" + self.tail_.substr(from, end == std::string::npos ? end : end - from) + ")";
  }
  size_t nl = message.find('\n');
  if (nl != std::string::npos) message.erase(nl);
  return message;
}

void LibraryOutput::Forget() {
  LibraryOutput& self = Get();
  std::lock_guard<std::mutex> lock(self.mutex_);
  self.tail_.clear();
}

}  // namespace qomm
