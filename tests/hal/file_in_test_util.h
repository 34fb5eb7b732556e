// Helpers shared by the file decoder tests: packets that count their own
// releases, a feeder thread and a frame drain.
#ifndef QO_TESTS_HAL_FILE_IN_TEST_UTIL_H_
#define QO_TESTS_HAL_FILE_IN_TEST_UTIL_H_

#include <gst/gst.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hal_mm_file_in.h"

namespace qo {
namespace filein_test {

// One packet whose bytes stay owned by the test; the layer reports the end of
// its use through free_func, which we count.
struct TestPacket {
  qo_VideoStream vs{};
  std::vector<uint8_t> bytes;
  std::atomic<int> frees{0};

  static void Free(void* priv) { static_cast<TestPacket*>(priv)->frees.fetch_add(1); }
};

inline std::unique_ptr<TestPacket> MakePacket(std::vector<uint8_t> bytes) {
  auto p = std::make_unique<TestPacket>();
  p->bytes = std::move(bytes);
  p->vs.stream.data = p->bytes.data();
  p->vs.stream.size = static_cast<int32_t>(p->bytes.size());
  p->vs.priv = p.get();
  p->vs.free_func = &TestPacket::Free;
  return p;
}

inline std::unique_ptr<TestPacket> MakeEosPacket() {
  auto p = MakePacket({});
  p->vs.stream.eos = 1;
  return p;
}

using Packets = std::vector<std::unique_ptr<TestPacket>>;

inline Packets MakePackets(const std::vector<std::vector<uint8_t>>& chunks) {
  Packets packets;
  for (const auto& c : chunks) packets.push_back(MakePacket(c));
  return packets;
}

// A frame copied out of the layer (the layer's buffer is freed at once).
struct Frame {
  std::vector<uint8_t> data;
  uint64_t time_stamp = 0;
  int32_t format = 0;
  int32_t width = 0;
  int32_t height = 0;
};

struct DrainResult {
  std::vector<Frame> frames;
  bool eos = false;  // false: a pull timed out first
};

// Pulls frames until end of stream or until one pull times out.
inline DrainResult Drain(qo_VideoFileHandle h, int timeout_s = 20) {
  DrainResult r;
  for (;;) {
    qo_StreamInfo info{};
    qo_VideoFileGetFrame(h, &info, timeout_s);
    if (info.data == nullptr) {
      r.eos = info.eos != 0;
      return r;
    }
    Frame f;
    f.data.assign(info.data, info.data + info.size);
    f.time_stamp = info.time_stamp;
    f.format = info.format;
    f.width = info.width;
    f.height = info.height;
    qo_VideoFileFrameFree(&info);
    r.frames.push_back(std::move(f));
  }
}

// Feeds packets (and an end-of-stream packet when given) from its own named
// thread, retrying on time-outs as the file node does; joined on destruction.
class Feeder {
 public:
  Feeder(qo_VideoFileHandle h, Packets* packets, TestPacket* eos)
      : thread_([this, h, packets, eos] {
          pthread_setname_np(pthread_self(), "test_feeder");
          for (auto& p : *packets) {
            if (!Put(h, p.get())) return;
          }
          if (eos != nullptr) Put(h, eos);
        }) {}
  ~Feeder() { Join(); }
  void Join() {
    if (thread_.joinable()) thread_.join();
  }
  int failures() const { return failures_.load(); }

 private:
  bool Put(qo_VideoFileHandle h, TestPacket* p) {
    int r;
    while ((r = qo_VideoFilePutStream(h, &p->vs, 60)) > 0) {
    }
    if (r < 0) failures_.fetch_add(1);
    return r == 0;
  }

  std::atomic<int> failures_{0};
  std::thread thread_;
};

// The record behind a handle starts with its pipeline and its appsrc.
inline GstElement* PipelineOf(qo_VideoFileHandle h) { return static_cast<GstElement**>(h)[0]; }
inline GstElement* SourceOf(qo_VideoFileHandle h) { return static_cast<GstElement**>(h)[1]; }

// Returns a new reference to a named element of the decoder's pipeline.
inline GstElement* ElementOf(qo_VideoFileHandle h, const char* name) {
  return gst_bin_get_by_name(GST_BIN(PipelineOf(h)), name);
}

}  // namespace filein_test
}  // namespace qo

#endif  // QO_TESTS_HAL_FILE_IN_TEST_UTIL_H_
