// Logging, checks and stack traces shared by the framework core and every
// node module. The message objects are header code; the sink, its mutex and
// the level live in libqocore.
#ifndef QO_CORE_QO_LOGGING_H_
#define QO_CORE_QO_LOGGING_H_

#include <cxxabi.h>
#include <execinfo.h>
#include <sys/time.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/qo_export.h"

namespace qo {

// The one exception type of failed checks and fatal messages. The destructor
// is defined in libqocore so the type's identity is shared by all modules.
class QO_EXPORT Error : public std::runtime_error {
 public:
  explicit Error(const std::string& s) : std::runtime_error(s) {}
  ~Error() override;
};

// Lowest severity that is produced (0 detail ... 5 fatal; 6 silences all).
extern QO_EXPORT int g_log_level;

// Time of the first log message of the process.
QO_EXPORT std::chrono::steady_clock::time_point LogStartTime();

// Replaces the line sink; an empty function restores standard error. The
// sink is called with the log mutex held, so it must not log itself.
QO_EXPORT void SetLogSink(std::function<void(const std::string&)> sink);

// Demangles the first mangled symbol of one backtrace_symbols line.
inline std::string Demangle(const char* msg_str) {
  std::string msg(msg_str);
  size_t symbol_start = msg.find("_Z");
  if (symbol_start == std::string::npos) return msg;
  size_t symbol_end = msg.find_first_of(" +", symbol_start);
  if (symbol_end == 0) return msg;
  if (symbol_end == std::string::npos) symbol_end = msg.size();
  std::string left = msg.substr(0, symbol_start);
  std::string symbol = msg.substr(symbol_start, symbol_end - symbol_start);
  std::string right = msg.substr(symbol_end);
  int status = 0;
  char* demangled = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
  if (demangled != nullptr) {
    std::string name(demangled);
    std::free(demangled);
    if (status == 0 && !name.empty()) return left + name + right;
  }
  return msg;
}

inline std::string StackTrace(size_t start_frame = 1, size_t max_frames = 10) {
  std::ostringstream os;
  std::vector<void*> stack(max_frames);
  int nframes = backtrace(stack.data(), static_cast<int>(max_frames));
  os << "Stack trace:\n";
  char** msgs = backtrace_symbols(stack.data(), nframes);
  if (msgs != nullptr && nframes > static_cast<int>(start_frame)) {
    for (int i = static_cast<int>(start_frame); i < nframes; ++i) {
      os << "  [bt] (" << i - static_cast<int>(start_frame) << ") " << Demangle(msgs[i]) << "\n";
    }
  }
  std::free(msgs);
  return os.str();
}

// Formats the wall-clock time as "hh:mm:ss:mmm" into a 13-byte buffer.
inline void FormatLogTime(char (&buf)[13]) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm now;
  time_t secs = tv.tv_sec;
  localtime_r(&secs, &now);
  snprintf(buf, sizeof(buf), "%02d:%02d:%02d:%03d", now.tm_hour, now.tm_min, now.tm_sec,
           static_cast<int>(tv.tv_usec / 1000));
}

// One log line. Holds the global log mutex from construction until the line
// has been handed to the sink, so lines of different threads never mix.
class QO_EXPORT LogMessage {
 public:
  LogMessage(const char* file, int line) {
    std::chrono::steady_clock::time_point start = LogStartTime();
    lock_ = std::unique_lock<std::mutex>(mutex_);
    int64_t elapsed_us = std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::steady_clock::now() - start)
                             .count() /
                         1000;
    FormatLogTime(time_text_);
    stream_ << "Host-" << elapsed_us << "[" << time_text_ << "] ";
    if (file == nullptr) {
      // Without a location the rest of the statement is dropped.
      stream_.setstate(std::ios_base::badbit);
    } else {
      stream_ << file << ":" << line << ": ";
    }
  }
  ~LogMessage() {
    stream_ << "\n";
    Log(stream_.str());
  }
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  std::ostream& stream() { return stream_; }

  // Hands one finished line to the sink (standard error by default).
  static void Log(const std::string& msg);
  static std::mutex mutex_;

 private:
  std::unique_lock<std::mutex> lock_;
  char time_text_[13];
  std::ostringstream stream_;
};

// A fatal message: no lock and no sink; the text and a stack trace become the
// message of the qo::Error thrown when the statement ends.
class LogMessageFatal {
 public:
  LogMessageFatal(const char* file, int line) {
    FormatLogTime(time_text_);
    stream_ << "[" << time_text_ << "] ";
    if (file == nullptr) {
      stream_.setstate(std::ios_base::badbit);
    } else {
      stream_ << file << ":" << line << ": ";
    }
  }
  ~LogMessageFatal() noexcept(false) {
    // When building the message threw (e.g. a nested fatal lookup), let that
    // exception travel instead of ending the process.
    if (std::uncaught_exceptions() > uncaught_) return;
    stream_ << "\n" << StackTrace(1, 10) << "\n";
    throw Error(stream_.str());
  }
  LogMessageFatal(const LogMessageFatal&) = delete;
  LogMessageFatal& operator=(const LogMessageFatal&) = delete;

  std::ostream& stream() { return stream_; }

 private:
  int uncaught_ = std::uncaught_exceptions();
  char time_text_[13];
  std::ostringstream stream_;
};

// Result of a comparison check: empty when it held, else " (x vs. y) ".
struct LogCheckError {
  LogCheckError() : str(nullptr) {}
  explicit LogCheckError(const std::string& s) : str(new std::string(s)) {}
  LogCheckError(LogCheckError&& other) noexcept : str(other.str) { other.str = nullptr; }
  LogCheckError(const LogCheckError&) = delete;
  LogCheckError& operator=(const LogCheckError&) = delete;
  ~LogCheckError() { delete str; }
  explicit operator bool() const { return str != nullptr; }
  std::string* str;
};

#define QO_DEFINE_CHECK_FUNC(name, op)                           \
  template <typename X, typename Y>                              \
  inline LogCheckError LogCheck_##name(const X& x, const Y& y) { \
    if (x op y) return LogCheckError();                          \
    std::ostringstream os;                                       \
    os << " (" << x << " vs. " << y << ") ";                     \
    return LogCheckError(os.str());                              \
  }

QO_DEFINE_CHECK_FUNC(LT, <)
QO_DEFINE_CHECK_FUNC(GT, >)
QO_DEFINE_CHECK_FUNC(LE, <=)
QO_DEFINE_CHECK_FUNC(GE, >=)
QO_DEFINE_CHECK_FUNC(EQ, ==)
QO_DEFINE_CHECK_FUNC(NE, !=)

#undef QO_DEFINE_CHECK_FUNC

// Turns the streamed expression into void so it fits the ?: of LOG().
class LogMessageVoidify {
 public:
  LogMessageVoidify() {}
  void operator&(std::ostream&) {}
};

}  // namespace qo

// Failed checks are never filtered by the log level. The while form keeps an
// "else" after a check from binding to a hidden "if".
#define QO_CHECK_BINARY_OP(name, op, x, y)                                \
  while (::qo::LogCheckError _qo_check_err = ::qo::LogCheck_##name(x, y)) \
  ::qo::LogMessageFatal(__FILE__, __LINE__).stream()                      \
      << "Check failed: " << #x " " #op " " #y << *(_qo_check_err.str) << ": "

#define CHECK(cond) \
  while (!(cond))   \
  ::qo::LogMessageFatal(__FILE__, __LINE__).stream() << "Check failed: " #cond << ": "

#define CHECK_LT(x, y) QO_CHECK_BINARY_OP(LT, <, x, y)
#define CHECK_GT(x, y) QO_CHECK_BINARY_OP(GT, >, x, y)
#define CHECK_LE(x, y) QO_CHECK_BINARY_OP(LE, <=, x, y)
#define CHECK_GE(x, y) QO_CHECK_BINARY_OP(GE, >=, x, y)
#define CHECK_EQ(x, y) QO_CHECK_BINARY_OP(EQ, ==, x, y)
#define CHECK_NE(x, y) QO_CHECK_BINARY_OP(NE, !=, x, y)

// LOG(n) for a literal severity 0 (detail) to 5 (fatal, throws). A filtered
// statement evaluates none of its streamed arguments.
#define QO_LOG_GATE(sev) !(::qo::g_log_level <= (sev)) ? (void)0 : ::qo::LogMessageVoidify()&
#define LOG_0 QO_LOG_GATE(0)::qo::LogMessage(__FILE__, __LINE__).stream()
#define LOG_1 QO_LOG_GATE(1)::qo::LogMessage(__FILE__, __LINE__).stream()
#define LOG_2 QO_LOG_GATE(2)::qo::LogMessage(__FILE__, __LINE__).stream()
#define LOG_3 QO_LOG_GATE(3)::qo::LogMessage(__FILE__, __LINE__).stream()
#define LOG_4 QO_LOG_GATE(4)::qo::LogMessage(__FILE__, __LINE__).stream()
#define LOG_5 QO_LOG_GATE(5)::qo::LogMessageFatal(__FILE__, __LINE__).stream()
#define LOG(severity) LOG_##severity

#endif  // QO_CORE_QO_LOGGING_H_
