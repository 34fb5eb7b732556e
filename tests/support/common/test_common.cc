#include "test_common.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

namespace qo {
namespace testutil {

LogCapture::LogCapture(int level) : saved_level_(g_log_level) {
  g_log_level = level;
  SetLogSink([this](const std::string& line) { lines_.push_back(line); });  // under the log mutex
}

LogCapture::~LogCapture() {
  SetLogSink(nullptr);
  g_log_level = saved_level_;
}

std::vector<std::string> LogCapture::Lines() const {
  std::lock_guard<std::mutex> lock(LogMessage::mutex_);
  return lines_;
}

size_t LogCapture::Count(const std::string& needle) const {
  size_t n = 0;
  for (const std::string& line : Lines()) n += line.find(needle) != std::string::npos;
  return n;
}

bool LogCapture::WaitFor(const std::string& needle, int timeout_ms) const {
  return WaitUntil([&] { return Count(needle) > 0; }, timeout_ms);
}

std::vector<int> LogCapture::NumbersAfter(const std::string& prefix) const {
  std::vector<int> numbers;
  for (const std::string& line : Lines()) {
    const size_t at = line.find(prefix);
    if (at != std::string::npos) numbers.push_back(std::stoi(line.substr(at + prefix.size())));
  }
  return numbers;
}

size_t CountOf(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1)) n++;
  return n;
}

bool WaitUntil(const std::function<bool()>& pred, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

namespace {
std::string ThreadNames() {
  std::string names;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string line;
    std::getline(std::ifstream(task.path() / "comm"), line);
    names += line + "\n";
  }
  return names;
}
}  // namespace

int ThreadCount(const std::string& name) {
  return name.empty() ? static_cast<int>(CountOf(ThreadNames(), "\n"))
                      : static_cast<int>(CountOf("\n" + ThreadNames(), "\n" + name + "\n"));
}

// The directory stream itself is one of the descriptors: not counted.
int OpenFdCount() {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})) -
         1;
}

int64_t ResidentBytes() {
  int64_t size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

void ExpectNoThreadLeft(int before) {
  for (const char* name : {"strm_out", "strm_in", "Gstloop", "live555src", "bye-rtsp-srv"})
    EXPECT_EQ(ThreadCount(name), 0) << name;
  EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= before + 2; }, 5000))
      << before << " threads before, now:\n"
      << ThreadNames();
}

std::string ScratchDir() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string dir = std::string(QO_TEST_SCRATCH_DIR) + "/" + info->test_suite_name() + "." +
                    info->name() + "." + std::to_string(getpid());
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

std::string WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

}  // namespace testutil
}  // namespace qo
