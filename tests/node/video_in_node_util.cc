#include "video_in_node_util.h"

#include <dirent.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

namespace qo {
namespace node_test {

LogCapture::LogCapture(int level) : saved_level_(g_log_level) {
  g_log_level = level;
  SetLogSink([this](const std::string& line) { lines_.push_back(line); });
}

LogCapture::~LogCapture() {
  SetLogSink(nullptr);
  g_log_level = saved_level_;
}

std::vector<std::string> LogCapture::Matching(const std::string& needle) const {
  std::lock_guard<std::mutex> lock(LogMessage::mutex_);
  std::vector<std::string> out;
  for (const std::string& line : lines_) {
    if (line.find(needle) != std::string::npos) out.push_back(line);
  }
  return out;
}

bool LogCapture::WaitFor(const std::string& needle, int timeout_ms) const {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (Count(needle) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

StdoutCapture::StdoutCapture() {
  fflush(stdout);
  char path[] = "/tmp/qo-node-video-in-stdout-XXXXXX";
  file_fd_ = mkstemp(path);
  if (file_fd_ < 0) return;
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
  while ((n = pread(file_fd_, buf, sizeof(buf), static_cast<off_t>(text.size()))) > 0) {
    text.append(buf, static_cast<size_t>(n));
  }
  return text;
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

PortSink::PortSink(bool keep_bytes, size_t capacity)
    : keep_bytes_(keep_bytes), collector_(capacity) {
  // Runs on the collector's thread before the task is disposed of.
  collector_.SetInspector([this](const MediaTask& t) {
    TaskRecord r{t.flag,         t.source_id,          t.reserved,
                 t.time_stamp,   t.extra.size(),       t.data.GetTensorData(),
                 t.data.Shape(), *t.data.GetExtInfo(), {},
                 RealtimeNs()};
    const size_t size = t.data.GetTensorDataSize();
    if (keep_bytes_ && size > 0) {
      const uint8_t* p = static_cast<const uint8_t*>(t.data.GetTensorData());
      r.bytes.assign(p, p + size);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(std::move(r));
  });
}

std::vector<TaskRecord> PortSink::Tasks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

size_t PortSink::Count(int32_t flag) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return CountLocked(flag);
}

size_t PortSink::CountLocked(int32_t flag) const {
  size_t n = 0;
  for (const TaskRecord& r : records_) n += r.flag == flag ? 1 : 0;
  return n;
}

bool PortSink::WaitUntil(const std::function<bool(const std::vector<TaskRecord>&)>& pred,
                         int timeout_ms) {
  // The collector wakes up after each task; our records are complete by then.
  return collector_.WaitFor(
      [&](const std::vector<testhost::ReceivedTask>&) {
        std::lock_guard<std::mutex> lock(mutex_);
        return pred(records_);
      },
      timeout_ms);
}

int64_t RealtimeNs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t MonotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int ThreadCount(const std::string& name) {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  while (struct dirent* e = readdir(dir)) {
    std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
    std::string line;
    if (e->d_name[0] != '.' && std::getline(comm, line) && line == name) count++;
  }
  closedir(dir);
  return count;
}

std::vector<uint8_t> ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace node_test
}  // namespace qo
