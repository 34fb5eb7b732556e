// Runs the built qomm program for end-to-end tests and reads what it printed:
// exit status, summary fields, JSON lines and PNG headers.
#ifndef QO_TESTS_TOOLS_QOMM_TEST_UTIL_H_
#define QO_TESTS_TOOLS_QOMM_TEST_UTIL_H_

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace qomm_test {

struct RunResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
  double seconds = 0;
};

// Path of the qomm program and of a bundled sample ("sample.h264").
std::string QommPath();
std::string SamplePath(const std::string& name);

// Runs qomm with args; kills it after timeout_s.
RunResult RunQomm(const std::vector<std::string>& args, double timeout_s = 60);

// A qomm (or other) process running in the background, its standard output
// read line by line.
class Background {
 public:
  explicit Background(const std::vector<std::string>& args);
  ~Background();  // SIGKILL if still running
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  // Next complete line of standard output within timeout_s ("" on none).
  std::string ReadLine(double timeout_s);
  // Sends sig and waits up to timeout_s for the exit; returns the status
  // (as RunResult::status) or -1 when it did not end.
  int Signal(int sig, double timeout_s);
  // Everything printed on standard error so far (after the exit: all of it).
  std::string Err();

 private:
  void Pump(int timeout_ms);
  pid_t pid_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
  std::string out_;
  std::string err_;
  int status_ = -1;
};

// "qomm serve" of the given files on an ephemeral port; the URLs it printed.
class ServeProcess {
 public:
  explicit ServeProcess(const std::vector<std::string>& files);
  const std::vector<std::string>& urls() const { return urls_; }
  // Ctrl-C; the exit status.
  int Stop();
  Background& process() { return process_; }

 private:
  Background process_;
  std::vector<std::string> urls_;
};

// The number after "<field>:" in the first summary line with it, -1 if none
// ("frames" reads "  frames:      90, 30.0 fps ...").
long SummaryNumber(const std::string& text, const std::string& field);
// The text after "<field>:" (trimmed) in the first line with it.
std::string SummaryText(const std::string& text, const std::string& field);
// Count of summary blocks (lines "  frames: N ...").
std::vector<long> AllFrameCounts(const std::string& text);

// A flat JSON object: keys to raw value texts (strings without quotes,
// "null" for null). False when the line is not such an object.
bool ParseJsonObject(const std::string& line, std::map<std::string, std::string>* fields);

// Non-empty lines of text.
std::vector<std::string> Lines(const std::string& text);

// Width and height from a PNG file's signature and IHDR chunk.
bool PngSize(const std::string& path, int* width, int* height);

// A fresh path under the test's temporary directory.
std::string TempPath(const std::string& name);

}  // namespace qomm_test

#endif  // QO_TESTS_TOOLS_QOMM_TEST_UTIL_H_
