// What this process holds, read from /proc/self: threads by name, open
// descriptors, resident memory. Faults and open/close cycles must leave
// nothing behind.
#ifndef QO_TESTS_RELIABILITY_PROCESS_STATS_H_
#define QO_TESTS_RELIABILITY_PROCESS_STATS_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>

namespace qo {
namespace reliability {

#ifdef QO_SANITIZER_BUILD
constexpr int64_t kSlackMs = 2000;  // the sanitizers make everything slower
#else
constexpr int64_t kSlackMs = 0;
#endif

inline std::map<std::string, int> Threads() {
  std::map<std::string, int> names;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    ++names[name];
  }
  return names;
}
inline int ThreadCount() {
  return static_cast<int>(
      std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}
// The directory stream itself is one of the descriptors: not counted.
inline int OpenFdCount() {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})) -
         1;
}
inline int64_t ResidentBytes() {
  int64_t size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}
inline int64_t MonotonicMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}
// Polls `pred` every 10 ms for up to `timeout_ms`; true once it holds.
inline bool WaitUntil(const std::function<bool()>& pred, int timeout_ms) {
  for (const int64_t end = MonotonicMs() + timeout_ms; !pred();) {
    if (MonotonicMs() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// None of the threads our code names is left, and the process is back to
// `before` threads (GLib's pool may keep a couple of idle ones a while).
inline void ExpectNoThreadLeft(int before) {
  for (const char* name : {"strm_out", "strm_in", "Gstloop", "live555src", "bye-rtsp-srv"}) {
    EXPECT_EQ(Threads()[name], 0) << name;
  }
  EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= before + 2; }, 5000))
      << before << " threads before, now " << ::testing::PrintToString(Threads());
}

}  // namespace reliability
}  // namespace qo

#endif  // QO_TESTS_RELIABILITY_PROCESS_STATS_H_
