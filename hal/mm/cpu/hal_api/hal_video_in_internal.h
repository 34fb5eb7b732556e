// Private records and helpers of the live-stream layer, shared by its source
// files. Nothing here is exported.
#ifndef HAL_VIDEO_IN_INTERNAL_H_
#define HAL_VIDEO_IN_INTERNAL_H_

#include <gst/gst.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "hal_mm_video_in.h"

// Pieces of one launch description; see PipelinelCompose.
struct PipelineDesc {
  const char* src;      // source element prefix, followed directly by param
  const char* src_fmt;  // caps or parser stage right after the source
  int src_w;            // appended to src_fmt when non-zero
  int src_h;
  int src_fps;
  const char* filter;    // parser-and-caps stage
  const char* sink_fmt;  // caps before the sink (unused)
  const char* sink;
};

// The process-wide state. There is no table of pipelines: only counters.
struct MultiStreamProxy {
  GMainLoop* loop;                // run by the "Gstloop" thread
  uint8_t gst_init_flag;          // gst_init has run (never reset)
  uint8_t main_loop_deinit_flag;  // the loop was stopped by the last close
  uint8_t id_count;               // next stream id; wraps after 255
  int pipeline_count;             // streams opened and not yet closed (hosts open 1000+)
  pthread_mutex_t lock;           // init, open and close
  pthread_t loop_thread;
  // Set by the have-type callback on a streaming thread, cleared by the
  // poller in qo_VideoStreamType.
  std::atomic<uint8_t> typefind_flag;
};

constexpr size_t kFullStringSize = 1024;
constexpr size_t kParamSize = 512;
constexpr size_t kStatAgeRing = 32;  // recent frame ages kept for the median

// One opened stream, from open (calloc) to close (free).
struct MultiStreamPipeline {
  uint8_t iId;
  int rtsp_trans;          // a qo_RtspTransport, but any int the caller set
  int source_stream_type;  // a qoPixelFormat, but any int the caller set
  int expo;
  int expo_auto;
  PipelineDesc desc;
  char full_string[kFullStringSize];
  const char* protocol;   // kProtoRtsp, kProtoFile or kProtoV4l2
  const char* uri_param;  // the caller's URL, not copied
  char param[kParamSize];
  GstElement* pl;
  GstBus* bus;
  guint bus_id;
  char name[32];
  // Written by callers and by the bus watch on "Gstloop"; last writer wins.
  std::atomic<int> state;  // a GstState, -1 while no pipeline is installed
  std::atomic<int> wait_state;
  int frame_counter;
  GstElement* appsink;
  // The caps of the last frame pulled (a reference) and their picture size:
  // an appsink hands out the same caps with every frame until they change.
  GstCaps* frame_caps;
  int frame_width;
  int frame_height;
  // RTSP only; atomic because qo_VideoStreamGetStats reads its "gaps" from
  // any thread.
  std::atomic<GstElement*> live555src;
  int video_mode;
  int test_pattern;
  int gain;
  std::atomic<int> wait_eos;  // the frame pull saw end-of-stream
  // Set once the bus watch's data is released, i.e. BusWatchCallback can no
  // longer be running for this record.
  std::atomic<int> watch_released;
  // Why frames are not flowing: written by the bus watch, read by any thread.
  pthread_mutex_t reason_lock;
  int reason;  // a qo_StreamError
  char reason_text[256];
  // Counters for qo_VideoStreamGetStats: written by the pulling thread and
  // the bus watch, read by any thread.
  std::atomic<uint64_t> stat_frames;
  std::atomic<uint64_t> stat_bytes;
  std::atomic<uint64_t> stat_timeouts;
  std::atomic<uint64_t> stat_reconnects;
  std::atomic<uint64_t> stat_aged;  // stamped frames seen; next ring slot
  std::atomic<int64_t> stat_ages[kStatAgeRing];
  // 1 from a start until the first frame (or the close): the stream's
  // sockets may still be opened, see DescriptorsLeft.
  std::atomic<int> starting;
};

extern const char kProtoRtsp[];
extern const char kProtoFile[];
extern const char kProtoV4l2[];

extern MultiStreamProxy kGstProxy;

int qo_VideoStreamInit();
void qo_VideoStreamDeinit();

const char* PipelineParamParse(MultiStreamPipeline* proxy);
int PipelinelCompose(MultiStreamPipeline* proxy);

int PipelineSwitchState(MultiStreamPipeline* proxy, GstState to_state, GstState chk_state);
int PiplineInstall(MultiStreamPipeline* proxy);
int PiplineUninstall(MultiStreamPipeline* proxy);

// One text through the layer's diagnostics sink (standard output unless the
// host set one).
void HalPrint(const char* fmt, ...) G_GNUC_PRINTF(1, 2);

// Appends a formatted piece to the NUL-terminated text in buf (capacity
// cap). Returns false when the piece had to be cut, so that a truncated
// description is never run.
bool LaunchAppend(char* buf, size_t cap, const char* fmt, ...) G_GNUC_PRINTF(3, 4);

#endif  // HAL_VIDEO_IN_INTERNAL_H_
