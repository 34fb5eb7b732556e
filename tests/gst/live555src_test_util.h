// Shared by the live555src tests: a receiving pipeline that records what
// reaches its appsink (with wall-clock arrival times) and the element's
// connection-state messages.
#ifndef QO_TESTS_GST_LIVE555SRC_TEST_UTIL_H_
#define QO_TESTS_GST_LIVE555SRC_TEST_UTIL_H_

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gstlive555src.h"

namespace qo {
namespace test {

inline void InitGstWithLive555Src() {
  gst_init(nullptr, nullptr);
  qo_live555src_register_static();
}

inline int64_t RealtimeNs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

inline int64_t MonotonicMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

struct ReceivedSample {
  std::string caps;
  size_t size = 0;
  bool has_unix_ts = false;
  bool has_other_ts = false;  // a reference meta with other caps
  int64_t unix_ts = 0;
  int64_t arrival = 0;  // CLOCK_REALTIME ns
  bool delta = false;   // GST_BUFFER_FLAG_DELTA_UNIT
};

// One "live555src-state" element message.
struct StateMessage {
  std::string state;
  unsigned attempt = 0;
  unsigned delay_ms = 0;  // "retrying" only
  std::string reason;     // "lost" only
  int64_t at_ms = 0;      // MonotonicMs() when posted
};

// `launch` must name the source "src" and end in "appsink name=sink".
class Receiver {
 public:
  explicit Receiver(const std::string& launch) {
    GError* err = nullptr;
    pipeline_ = gst_parse_launch(launch.c_str(), &err);
    if (err) {
      parse_error_ = err->message;
      g_error_free(err);
    }
    if (!pipeline_) return;
    src_ = gst_bin_get_by_name(GST_BIN(pipeline_), "src");
    GstBus* bus = gst_element_get_bus(pipeline_);
    gst_bus_set_sync_handler(
        bus,
        [](GstBus*, GstMessage* m, gpointer d) {
          static_cast<Receiver*>(d)->OnMessage(m);
          return GST_BUS_PASS;
        },
        this, nullptr);
    gst_object_unref(bus);
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
    if (sink) {
      GstAppSinkCallbacks cb = {};
      cb.eos = [](GstAppSink*, gpointer d) { static_cast<Receiver*>(d)->OnEos(); };
      cb.new_sample = [](GstAppSink* s, gpointer d) {
        return static_cast<Receiver*>(d)->OnSample(s);
      };
      gst_app_sink_set_callbacks(GST_APP_SINK(sink), &cb, this, nullptr);
      gst_object_unref(sink);
    }
  }
  ~Receiver() {
    if (pipeline_) {
      gst_element_set_state(pipeline_, GST_STATE_NULL);
      GstBus* bus = gst_element_get_bus(pipeline_);
      gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
      gst_object_unref(bus);
      gst_object_unref(pipeline_);
    }
    if (src_) gst_object_unref(src_);
  }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  bool ok() const { return pipeline_ && src_ && parse_error_.empty(); }
  const std::string& parse_error() const { return parse_error_; }
  GstElement* pipeline() const { return pipeline_; }
  GstElement* src() const { return src_; }

  // Going below PAUSED starts a new run: what was recorded is forgotten.
  GstStateChangeReturn SetState(GstState state) {
    GstStateChangeReturn ret = gst_element_set_state(pipeline_, state);
    if (state <= GST_STATE_READY) {
      std::lock_guard<std::mutex> lock(mu_);
      samples_.clear();
      eos_ = false;
      after_eos_ = 0;
    }
    return ret;
  }

  bool WaitSamples(size_t n, int timeout_ms) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
      return samples_.size() >= n || eos_;
    }) && samples_.size() >= n;
  }
  bool WaitEos(int timeout_ms) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return eos_; });
  }
  std::vector<ReceivedSample> samples() {
    std::lock_guard<std::mutex> lock(mu_);
    return samples_;
  }
  size_t samples_after_eos() {
    std::lock_guard<std::mutex> lock(mu_);
    return after_eos_;
  }
  std::vector<StateMessage> states() {
    std::lock_guard<std::mutex> lock(mu_);
    return states_;
  }
  // Waits for a state message `state` at index >= from; returns its index or -1.
  int WaitState(const std::string& state, int timeout_ms, size_t from = 0) {
    std::unique_lock<std::mutex> lock(mu_);
    int found = -1;
    cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
      for (size_t i = from; i < states_.size(); ++i) {
        if (states_[i].state == state) {
          found = static_cast<int>(i);
          return true;
        }
      }
      return false;
    });
    return found;
  }
  // The next sample is taken only after `ms` (downstream holds a buffer).
  void HoldNextSample(int ms) { hold_next_ms_ = ms; }
  // Errors and end-of-stream messages that reached the pipeline's bus.
  size_t bus_errors() {
    std::lock_guard<std::mutex> lock(mu_);
    return bus_errors_;
  }
  size_t bus_eos() {
    std::lock_guard<std::mutex> lock(mu_);
    return bus_eos_;
  }

  // The first error message on the bus within `timeout_ms`, or "".
  std::string WaitError(int timeout_ms) {
    GstBus* bus = gst_element_get_bus(pipeline_);
    GstMessage* msg = gst_bus_timed_pop_filtered(bus, timeout_ms * GST_MSECOND, GST_MESSAGE_ERROR);
    gst_object_unref(bus);
    if (!msg) return "";
    GError* err = nullptr;
    gst_message_parse_error(msg, &err, nullptr);
    std::string text = err && err->message ? err->message : "error";
    g_clear_error(&err);
    gst_message_unref(msg);
    return text;
  }

 private:
  void OnEos() {
    std::lock_guard<std::mutex> lock(mu_);
    eos_ = true;
    cv_.notify_all();
  }
  GstFlowReturn OnSample(GstAppSink* sink) {
    // A consumer that holds the streaming thread for a while.
    if (int ms = hold_next_ms_.exchange(0))
      std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    int64_t now = RealtimeNs();
    GstSample* sample = gst_app_sink_pull_sample(sink);
    if (!sample) return GST_FLOW_EOS;
    ReceivedSample r;
    r.arrival = now;
    GstCaps* caps = gst_sample_get_caps(sample);
    if (caps) {
      gchar* s = gst_caps_to_string(caps);
      r.caps = s;
      g_free(s);
    }
    GstBuffer* buf = gst_sample_get_buffer(sample);
    r.size = gst_buffer_get_size(buf);
    r.delta = GST_BUFFER_FLAG_IS_SET(buf, GST_BUFFER_FLAG_DELTA_UNIT);
    gpointer state = nullptr;
    GstMeta* m;
    while ((
        m = gst_buffer_iterate_meta_filtered(buf, &state, GST_REFERENCE_TIMESTAMP_META_API_TYPE))) {
      auto* meta = reinterpret_cast<GstReferenceTimestampMeta*>(m);
      if (gst_structure_has_name(gst_caps_get_structure(meta->reference, 0), "timestamp/x-unix")) {
        r.has_unix_ts = true;
        r.unix_ts = static_cast<int64_t>(meta->timestamp);
      } else {
        r.has_other_ts = true;
      }
    }
    gst_sample_unref(sample);
    std::lock_guard<std::mutex> lock(mu_);
    if (eos_) ++after_eos_;
    samples_.push_back(r);
    cv_.notify_all();
    return GST_FLOW_OK;
  }

  void OnMessage(GstMessage* m) {
    std::lock_guard<std::mutex> lock(mu_);
    if (GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR) ++bus_errors_;
    if (GST_MESSAGE_TYPE(m) == GST_MESSAGE_EOS) ++bus_eos_;
    const GstStructure* s = gst_message_get_structure(m);
    if (GST_MESSAGE_TYPE(m) != GST_MESSAGE_ELEMENT || !s ||
        !gst_structure_has_name(s, "live555src-state")) {
      cv_.notify_all();
      return;
    }
    StateMessage st;
    st.at_ms = MonotonicMs();
    if (const char* v = gst_structure_get_string(s, "state")) st.state = v;
    if (const char* v = gst_structure_get_string(s, "reason")) st.reason = v;
    gst_structure_get_uint(s, "attempt", &st.attempt);
    gst_structure_get_uint(s, "delay-ms", &st.delay_ms);
    states_.push_back(st);
    cv_.notify_all();
  }

  GstElement* pipeline_ = nullptr;
  GstElement* src_ = nullptr;
  std::string parse_error_;
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<ReceivedSample> samples_;
  bool eos_ = false;
  size_t after_eos_ = 0;
  std::vector<StateMessage> states_;
  size_t bus_errors_ = 0;
  size_t bus_eos_ = 0;
  std::atomic<int> hold_next_ms_{0};
};

// Threads of this process with the given name (from /proc/self/task).
inline int ThreadsNamed(const std::string& name) {
  int n = 0;
  GDir* dir = g_dir_open("/proc/self/task", 0, nullptr);
  if (!dir) return -1;
  while (const char* tid = g_dir_read_name(dir)) {
    gchar* path = g_strdup_printf("/proc/self/task/%s/comm", tid);
    gchar* comm = nullptr;
    if (g_file_get_contents(path, &comm, nullptr, nullptr)) {
      g_strchomp(comm);
      if (name == comm) ++n;
      g_free(comm);
    }
    g_free(path);
  }
  g_dir_close(dir);
  return n;
}

}  // namespace test
}  // namespace qo

#endif  // QO_TESTS_GST_LIVE555SRC_TEST_UTIL_H_
