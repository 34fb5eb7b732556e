#include "video_in_test_util.h"

#include <dirent.h>
#include <unistd.h>

#include <chrono>
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
  unlink(path);
  saved_fd_ = dup(STDOUT_FILENO);
  dup2(file_fd_, STDOUT_FILENO);
}

std::string StdoutCapture::Text() const {
  if (file_fd_ < 0) return text_;
  fflush(stdout);
  std::string text;
  char buf[4096];
  ssize_t n;
  while ((n = pread(file_fd_, buf, sizeof(buf), static_cast<off_t>(text.size()))) > 0)
    text.append(buf, static_cast<size_t>(n));
  return text;
}

bool StdoutCapture::WaitFor(const std::string& needle, int timeout_ms) const {
  for (int waited = 0; !Has(needle); waited += 5) {
    if (waited >= timeout_ms) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string StdoutCapture::Finish() {
  if (file_fd_ < 0) return text_;
  text_ = Text();
  dup2(saved_fd_, STDOUT_FILENO);
  close(saved_fd_);
  close(file_fd_);
  file_fd_ = -1;
  fwrite(text_.data(), 1, text_.size(), stdout);
  fflush(stdout);
  return text_;
}

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1)) n++;
  return n;
}

int GstloopThreads() {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  while (struct dirent* e = dir ? readdir(dir) : nullptr) {
    std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
    std::string name;
    if (std::getline(comm, name) && name == "Gstloop") count++;
  }
  if (dir) closedir(dir);
  return count;
}

int64_t MonotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

bool PullFrame(qo_StrmHandle h, int timeout_s, Frame* frame, bool* eos) {
  qo_StreamInfo info{};
  qo_VideoStreamGetFrame(h, &info, timeout_s);
  *eos = info.eos != 0;
  if (info.data == nullptr) return false;
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  frame->wall_ns = static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
  frame->data.assign(info.data, info.data + info.size);
  frame->time_stamp = info.time_stamp;
  frame->format = info.format;
  frame->width = info.width;
  frame->height = info.height;
  qo_VideoStreamFrameFree(&info);
  return true;
}

bool Drain(qo_StrmHandle h, int timeout_s, std::vector<Frame>* frames) {
  for (;;) {
    Frame f;
    bool eos = false;
    if (!PullFrame(h, timeout_s, &f, &eos)) return eos;
    frames->push_back(std::move(f));
  }
}

Puller::Puller(qo_StrmHandle h, int timeout_s, int delay_ms)
    : thread_([this, h, timeout_s, delay_ms] {
        while (!quit_.load()) {
          Frame f;
          bool eos = false;
          if (PullFrame(h, timeout_s, &f, &eos)) {
            frames++;
            std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
          } else if (eos) {
            saw_eos = true;
            return;
          }
        }
      }) {}

void Puller::Join() {
  quit_ = true;
  if (thread_.joinable()) thread_.join();
}

void Park(qo_StrmHandle h) {
  static std::mutex mu;
  static auto* parked = new std::vector<qo_StrmHandle>();
  std::lock_guard<std::mutex> lock(mu);
  parked->push_back(h);
}

}  // namespace videoin_test
}  // namespace qo
