// Helpers shared by the tests: log capture, waiting with a deadline, what the
// process holds, frame copies and scratch files. Link `qotestcommon`.
#ifndef QO_TESTS_SUPPORT_COMMON_TEST_COMMON_H_
#define QO_TESTS_SUPPORT_COMMON_TEST_COMMON_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/qo_logging.h"

namespace qo {
namespace testutil {

// Runs f and returns the text of the qo::Error it throws ("" if none).
template <typename F>
std::string ErrorText(F&& f) {
  try {
    f();
  } catch (const Error& e) {
    return e.what();
  }
  return "";
}

// Log lines through the core's sink at the given level; both are restored
// on destruction.
class LogCapture {
 public:
  explicit LogCapture(int level);
  ~LogCapture();
  std::vector<std::string> Lines() const;
  size_t Count(const std::string& needle) const;  // lines containing needle
  bool WaitFor(const std::string& needle, int timeout_ms) const;
  // The numbers right after `prefix` in the lines that have it, in order.
  std::vector<int> NumbersAfter(const std::string& prefix) const;

 private:
  int saved_level_;
  std::vector<std::string> lines_;  // guarded by LogMessage::mutex_
};

#ifdef QO_SANITIZER_BUILD
constexpr int64_t kSlackMs = 2000;  // the sanitizers make everything slower
#else
constexpr int64_t kSlackMs = 0;
#endif

size_t CountOf(const std::string& text, const std::string& needle);
// Polls pred every few milliseconds; false when it still fails at the end.
bool WaitUntil(const std::function<bool()>& pred, int timeout_ms);
// What this process holds, from /proc/self.
int ThreadCount(const std::string& name = "");  // threads with this name ("": all)
int OpenFdCount();
int64_t ResidentBytes();
// None of the threads our code names is left, and the process is back to
// `before` threads (GLib's pool may keep a couple of idle ones a while).
void ExpectNoThreadLeft(int before);
inline int64_t MonotonicNs() { return std::chrono::steady_clock::now().time_since_epoch().count(); }
inline int64_t MonotonicMs() { return MonotonicNs() / 1000000; }
inline int64_t RealtimeNs() { return std::chrono::system_clock::now().time_since_epoch().count(); }
// A fresh directory for the running test, in the build tree.
std::string ScratchDir();
// Writes text to path and returns path.
std::string WriteText(const std::string& path, const std::string& text);

// A frame copied out of either hal layer (which frees its own buffer).
struct Frame {
  std::vector<uint8_t> data;
  uint64_t time_stamp = 0;
  int32_t format = 0, width = 0, height = 0;
  int64_t wall_ns = 0;  // CLOCK_REALTIME when copied
};

// Pulls with pull(&info) and releases with release(&info) until a pull
// brings no frame; returns that pull's end-of-stream flag.
template <typename Info, typename Pull, typename Release>
bool DrainFrames(Pull pull, Release release, std::vector<Frame>* frames) {
  for (;;) {
    Info info{};
    pull(&info);
    if (info.data == nullptr) return info.eos != 0;
    frames->push_back(Frame{{info.data, info.data + info.size},
                            info.time_stamp,
                            info.format,
                            info.width,
                            info.height,
                            RealtimeNs()});
    release(&info);
  }
}

}  // namespace testutil
}  // namespace qo

#endif  // QO_TESTS_SUPPORT_COMMON_TEST_COMMON_H_
