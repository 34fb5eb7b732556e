// Captures log lines through the core's sink and restores the log level.
#ifndef QO_TESTS_CORE_LOG_CAPTURE_H_
#define QO_TESTS_CORE_LOG_CAPTURE_H_

#include <mutex>
#include <string>
#include <vector>

#include "core/qo_logging.h"

class LogCapture {
 public:
  explicit LogCapture(int level) : saved_level_(qo::g_log_level) {
    qo::g_log_level = level;
    // The sink runs under the log mutex, which also guards lines_.
    qo::SetLogSink([this](const std::string& line) { lines_.push_back(line); });
  }
  ~LogCapture() {
    qo::SetLogSink(nullptr);
    qo::g_log_level = saved_level_;
  }
  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(qo::LogMessage::mutex_);
    return lines_;
  }

 private:
  int saved_level_;
  std::vector<std::string> lines_;
};

// Runs f and returns the text of the qo::Error it throws ("" if none).
template <typename F>
std::string ErrorText(F f) {
  try {
    f();
  } catch (const qo::Error& e) {
    return e.what();
  }
  return "";
}

#endif  // QO_TESTS_CORE_LOG_CAPTURE_H_
