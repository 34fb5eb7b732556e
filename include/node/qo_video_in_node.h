// The video input node: one live stream ("rtsp://", "v4l2://" or "file://")
// turned into MediaTasks on the first four output ports, or pulled by the
// host itself in sync mode.
#ifndef QO_NODE_QO_VIDEO_IN_NODE_H_
#define QO_NODE_QO_VIDEO_IN_NODE_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/qo_export.h"
#include "core/qo_logging.h"
#include "core/qo_ndarray.h"
#include "core/qo_node.h"
#include "hal_mm_video_common.h"
#include "hal_mm_video_in.h"

namespace qo {
namespace mm {

class QO_EXPORT VideoInput : public Thread {
 public:
  // Result of a pull, also the flag of the task sent downstream.
  enum Status : int {
    kFrame = 0,
    kEndOfStream = 1,
    kTimeout = 2,
  };

  // Empty pulls in a row (of "timeout" seconds each) before the node ends
  // the stream with a time-out task.
  static constexpr int kRetryBudget = 3;

  VideoInput();
  // Neither stops the stream nor joins the stream-out thread: call Stop first.
  ~VideoInput() override {
    LOG(1) << "class VideoInput instance destoryed !!!"
           << "\n";
    ForgetStats();
  }

  void Start() override;
  void Stop() override;
  void Proc(void* task, int port, POutType type) override;

  // Host pull in sync mode ("sync-mode" 1): 0 frame, 1 end of stream,
  // 2 time-out, -1 no stream or not in sync mode.
  int GetFrame(NDArray& frame, int timeout);

  // The encoded format of an "rtsp://" or "v4l2://" source, or -1.
  static int StreamType(const std::string& uri);
  // Camera mode (0-3) and gain (0-63). With a stream they go to it at once;
  // without one the mode is kept for the next start of a v4l2 source, while
  // the gain is kept but never applied.
  void SetMode(unsigned char mode);
  void SetGain(unsigned char gain);

  // Why the running stream delivers no frames: a qo_StreamError code (0 when
  // nothing is wrong) and its one-line text; -1 and "" without a stream (read
  // it before Stop). Safe from any thread while the node runs.
  // After a failed Start (stream_ unset), the reason of that failure, e.g.
  // QO_STREAM_TOO_MANY_FILES.
  int LastError(std::string* text) const;

  // The stream's counters (see qo_StreamStats; zeros and the last failure's
  // reason without a stream) and the time-out tasks this node sent. Cheap:
  // meant to be read every second for every node.
  void Stats(qo_StreamStats* stream, uint64_t* timeout_tasks) const;
  // The same as one JSON object with stable keys: "frames", "bytes",
  // "timeouts", "timeout_tasks", "reconnects", "gaps", "last_age_ms",
  // "median_age_ms" (null until a sender-stamped frame), "reason_code",
  // "reason".
  std::string StatsJson() const;

 protected:
  static void* StreamOut(void* self);
  // Pulls one frame into frame; returns a Status.
  int GetStream(NDArray& frame, int timeout);
  // One task per connected port among the first four.
  void SendStream(NDArray& frame, unsigned int status);
  // Deleter of frame arrays: returns the frame to the stream layer.
  static void FrameFree(NDArray::Container* container);
  // Wraps a pulled frame record (data set) into an array that owns it.
  static NDArray WrapFrame(qo_StreamInfo* record);
  void strm_file_save(void* data, unsigned long size, unsigned int id);
  void strm_file_close();

  static constexpr int kOutputPorts = 4;
  // Frames per recording file before switching to the other one of the ring.
  static constexpr uint32_t kFramesPerRecording = 250;

  qo_StrmHandle stream_ = nullptr;
  pthread_t stream_out_thread_{};
  uint32_t stream_id_ = 0;
  int32_t sync_mode_ = 0;
  int32_t mode_ = 0;
  // Set by Stop, polled by the stream-out thread; never cleared.
  std::atomic<uint8_t> stopping_{0};
  uint8_t gain_ = 32;
  int32_t save_stream_ = 0;
  FILE* strm_file_ = nullptr;
  uint32_t strm_file_index_ = 0;
  uint8_t strm_file_opened_ = 0;
  uint32_t strm_frame_count_ = 0;
  // The stream layer keeps a pointer to the URI it was opened with.
  std::string stream_uri_;
  // True from a successful pthread_create until the join.
  bool stream_out_joinable_ = false;

 private:
  void StreamOutLoop();
  // Drops the node's entry in the counters' side table.
  void ForgetStats();
};

}  // namespace mm
}  // namespace qo

#endif  // QO_NODE_QO_VIDEO_IN_NODE_H_
