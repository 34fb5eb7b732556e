// Helpers for the live-stream layer tests: standard output capture (the
// layer reports everything there), the "Gstloop" thread count, frame pulls.
#ifndef QO_TESTS_HAL_VIDEO_IN_TEST_UTIL_H_
#define QO_TESTS_HAL_VIDEO_IN_TEST_UTIL_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "hal_mm_video_in.h"

namespace qo {
namespace videoin_test {

// Redirects file descriptor 1 (all threads) into a temporary file; the text
// is echoed to the real output when the capture ends.
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture() { Finish(); }
  std::string Text() const;
  bool WaitFor(const std::string& needle, int timeout_ms = 10000) const;
  std::string Finish();
  bool Has(const std::string& needle) const { return Text().find(needle) != std::string::npos; }

 private:
  int saved_fd_ = -1;
  int file_fd_ = -1;
  std::string text_;
};

size_t Count(const std::string& text, const std::string& needle);
int GstloopThreads();
int64_t MonotonicNs();

struct Frame {
  std::vector<uint8_t> data;
  uint64_t time_stamp = 0;
  int64_t wall_ns = 0;  // CLOCK_REALTIME when the pull returned
  int32_t format = 0, width = 0, height = 0;
};

// One pull; false when there was no frame (then *eos tells why).
bool PullFrame(qo_StrmHandle h, int timeout_s, Frame* frame, bool* eos);
// Pulls until end of stream (true) or a time-out (false).
bool Drain(qo_StrmHandle h, int timeout_s, std::vector<Frame>* frames);

// Pulls on its own thread until end of stream, like the node's output
// thread while another thread stops the stream.
class Puller {
 public:
  Puller(qo_StrmHandle h, int timeout_s, int delay_ms = 0);
  ~Puller() { Join(); }
  void Join();
  std::atomic<int> frames{0};
  std::atomic<bool> saw_eos{false};

 private:
  std::atomic<bool> quit_{false};
  std::thread thread_;
};

// A stream whose start failed or never ran stays allocated by design; a
// parked handle stays reachable, so the leak checker accepts it.
void Park(qo_StrmHandle h);

}  // namespace videoin_test
}  // namespace qo

#endif  // QO_TESTS_HAL_VIDEO_IN_TEST_UTIL_H_
