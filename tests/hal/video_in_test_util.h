// Helpers shared by the live-stream layer tests: capture of standard output
// (the layer reports everything there), the "Gstloop" thread count, frame
// draining and a puller thread.
#ifndef QO_TESTS_HAL_VIDEO_IN_TEST_UTIL_H_
#define QO_TESTS_HAL_VIDEO_IN_TEST_UTIL_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "hal_mm_video_in.h"

namespace qo {
namespace videoin_test {

// Redirects file descriptor 1 into a temporary file for its lifetime, so
// that lines printed by any thread are captured. The text is echoed to the
// real standard output when the capture ends, to keep test logs readable.
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  // Everything captured so far.
  std::string Text() const;
  // Waits until the captured text contains needle; false after timeout.
  bool WaitFor(const std::string& needle,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  // Ends the capture and returns the whole text.
  std::string Finish();

 private:
  int saved_fd_ = -1;
  int file_fd_ = -1;
  bool active_ = false;
  std::string text_;
};

size_t CountOccurrences(const std::string& text, const std::string& needle);

// Number of threads of this process named "Gstloop".
int GstloopThreadCount();

// Writes `size` bytes of filler into a new temporary file and returns its
// path (removed by the caller).
std::string MakeFillerFile(size_t size);

// A frame copied out of the layer (the layer's memory is released at once).
struct Frame {
  std::vector<uint8_t> data;
  uint64_t time_stamp = 0;
  int64_t wall_ns = 0;  // CLOCK_REALTIME when the pull returned
  int32_t format = 0;
  int32_t width = 0;
  int32_t height = 0;
};

// Pulls one frame; false when there was none (then *eos tells why).
bool PullFrame(qo_StrmHandle h, int timeout_s, Frame* frame, bool* eos);

struct DrainResult {
  std::vector<Frame> frames;
  bool eos = false;  // false: a pull timed out first
};

// Pulls frames until end of stream, a time-out, or max_frames frames.
DrainResult Drain(qo_StrmHandle h, int timeout_s, size_t max_frames = SIZE_MAX);

// Keeps pulling on its own thread until end of stream (or `Join`), the way
// the video input node's output thread does while another thread stops the
// stream.
class Puller {
 public:
  // delay_ms: time spent on each frame, like a consumer that does work.
  Puller(qo_StrmHandle h, int timeout_s, int delay_ms = 0);
  ~Puller();
  Puller(const Puller&) = delete;
  Puller& operator=(const Puller&) = delete;

  void Join();
  int frames() const { return frames_.load(); }
  bool saw_eos() const { return saw_eos_.load(); }
  // CLOCK_MONOTONIC time of the end of stream, in ns (0 before).
  int64_t eos_at_ns() const { return eos_at_ns_.load(); }

 private:
  void Run();

  qo_StrmHandle handle_;
  int timeout_s_;
  int delay_ms_;
  std::atomic<bool> quit_{false};
  std::atomic<int> frames_{0};
  std::atomic<bool> saw_eos_{false};
  std::atomic<int64_t> eos_at_ns_{0};
  std::thread thread_;
};

int64_t MonotonicNs();
int64_t RealtimeNs();

// Streams whose close only reports (never started, or the start failed)
// stay allocated by design; parking the handle keeps it reachable, so that
// the leak checker does not report what the layer keeps on purpose.
void ParkHandle(qo_StrmHandle h);

}  // namespace videoin_test
}  // namespace qo

#endif  // QO_TESTS_HAL_VIDEO_IN_TEST_UTIL_H_
