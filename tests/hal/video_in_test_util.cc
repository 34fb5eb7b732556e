#include "video_in_test_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>

namespace qo {
namespace videoin_test {

StdoutCapture::StdoutCapture() {
  fflush(stdout);
  char path[] = "/tmp/qo-video-in-stdout-XXXXXX";
  file_fd_ = mkstemp(path);
  if (file_fd_ < 0) return;
  unlink(path);
  saved_fd_ = dup(STDOUT_FILENO);
  dup2(file_fd_, STDOUT_FILENO);
  active_ = true;
}

StdoutCapture::~StdoutCapture() { Finish(); }

std::string StdoutCapture::Text() const {
  if (!active_) return text_;
  fflush(stdout);
  std::string text;
  char buf[4096];
  off_t off = 0;
  for (;;) {
    ssize_t n = pread(file_fd_, buf, sizeof(buf), off);
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
    off += n;
  }
  return text;
}

bool StdoutCapture::WaitFor(const std::string& needle, std::chrono::milliseconds timeout) const {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (Text().find(needle) != std::string::npos) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string StdoutCapture::Finish() {
  if (!active_) return text_;
  text_ = Text();
  dup2(saved_fd_, STDOUT_FILENO);
  close(saved_fd_);
  close(file_fd_);
  active_ = false;
  fwrite(text_.data(), 1, text_.size(), stdout);
  fflush(stdout);
  return text_;
}

size_t CountOccurrences(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t pos = text.find(needle); pos != std::string::npos;
       pos = text.find(needle, pos + needle.size()))
    n++;
  return n;
}

int GstloopThreadCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (!dir) return -1;
  while (struct dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
    std::string name;
    if (std::getline(comm, name) && name == "Gstloop") count++;
  }
  closedir(dir);
  return count;
}

std::string MakeFillerFile(size_t size) {
  char path[] = "/tmp/qo-video-in-filler-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return "";
  std::string bytes(size, '\x5a');
  ssize_t n = write(fd, bytes.data(), bytes.size());
  close(fd);
  if (n != static_cast<ssize_t>(size)) return "";
  return path;
}

bool PullFrame(qo_StrmHandle h, int timeout_s, Frame* frame, bool* eos) {
  qo_StreamInfo info{};
  qo_VideoStreamGetFrame(h, &info, timeout_s);
  if (info.data == nullptr) {
    *eos = info.eos != 0;
    return false;
  }
  *eos = false;
  frame->wall_ns = RealtimeNs();
  frame->data.assign(info.data, info.data + info.size);
  frame->time_stamp = info.time_stamp;
  frame->format = info.format;
  frame->width = info.width;
  frame->height = info.height;
  qo_VideoStreamFrameFree(&info);
  return true;
}

DrainResult Drain(qo_StrmHandle h, int timeout_s, size_t max_frames) {
  DrainResult r;
  while (r.frames.size() < max_frames) {
    Frame f;
    bool eos = false;
    if (!PullFrame(h, timeout_s, &f, &eos)) {
      r.eos = eos;
      break;
    }
    r.frames.push_back(std::move(f));
  }
  return r;
}

Puller::Puller(qo_StrmHandle h, int timeout_s, int delay_ms)
    : handle_(h), timeout_s_(timeout_s), delay_ms_(delay_ms), thread_([this] { Run(); }) {}

Puller::~Puller() { Join(); }

void Puller::Join() {
  quit_.store(true);
  if (thread_.joinable()) thread_.join();
}

void Puller::Run() {
  pthread_setname_np(pthread_self(), "test_puller");
  while (!quit_.load()) {
    Frame f;
    bool eos = false;
    if (PullFrame(handle_, timeout_s_, &f, &eos)) {
      frames_.fetch_add(1);
      if (delay_ms_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms_));
      continue;
    }
    if (eos) {
      eos_at_ns_.store(MonotonicNs());
      saw_eos_.store(true);
      return;
    }
  }
}

int64_t MonotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t RealtimeNs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void ParkHandle(qo_StrmHandle h) {
  static std::mutex mu;
  static std::vector<qo_StrmHandle>* parked = new std::vector<qo_StrmHandle>();
  std::lock_guard<std::mutex> lock(mu);
  parked->push_back(h);
}

}  // namespace videoin_test
}  // namespace qo
