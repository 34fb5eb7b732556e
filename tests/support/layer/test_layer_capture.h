// The diagnostics of both C layers (live streams and file decoder), taken
// through their sinks while a LayerCapture lives (one at a time), and echoed
// to standard output at the end for the test log; and a started live stream.
// Link `qotestlayer`.
#ifndef QO_TESTS_SUPPORT_LAYER_TEST_LAYER_CAPTURE_H_
#define QO_TESTS_SUPPORT_LAYER_TEST_LAYER_CAPTURE_H_

#include <mutex>
#include <string>

namespace qo {
namespace testutil {

// Opens uri with the live-stream layer, sets "stream-type" (and
// "lower-trans-type" when transport >= 0) and starts it, expecting success.
// The layer keeps the uri pointer: it must outlive the start.
void* StartStream(const char* uri, int type, int transport = -1);
// A stream whose start failed stays allocated by design (also once closed):
// kept reachable here for the leak checker.
void KeepStream(void* handle);

class LayerCapture {
 public:
  LayerCapture();
  ~LayerCapture() { Finish(); }
  LayerCapture(const LayerCapture&) = delete;
  LayerCapture& operator=(const LayerCapture&) = delete;

  std::string Text() const;
  bool Has(const std::string& needle) const { return Text().find(needle) != std::string::npos; }
  bool WaitFor(const std::string& needle, int timeout_ms) const;
  // Ends the capture (once) and returns everything captured.
  std::string Finish();

 private:
  bool finished_ = false;
  mutable std::mutex mutex_;  // the two layers may write at the same time
  std::string text_;
};

}  // namespace testutil
}  // namespace qo

#endif  // QO_TESTS_SUPPORT_LAYER_TEST_LAYER_CAPTURE_H_
