// The video input node: parameters, registration, stream start and stop, the
// stream-out thread with its retry budget, frame arrays and the recorder.
#include <pthread.h>

#include <cassert>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "core/qo_packed_func.h"
#include "core/qo_registry.h"
#include "hal_log.h"
#include "hal_mm_video_in.h"
#include "node/qo_video_in_node.h"
#include "node_common.h"

namespace qo {
namespace mm {

namespace {

bool StartsWith(const std::string& s, const char* prefix) { return s.find(prefix) == 0; }

// Raw formats by qoPixelFormat value (0-9): 4:2:2 pictures have two bytes
// per pixel, 4:2:0 ones one and a half.
constexpr uint32_t kYuv422Mask = 0x218;  // YUYV 3, UYVY 4, NV16 9
constexpr uint32_t kYuv420Mask = 0x3;    // NV12 0, NV21 1

bool InMask(int32_t format, uint32_t mask) {
  return format >= 0 && format <= 9 && ((1u << format) & mask) != 0;
}

VideoInput* NodeOf(void* handle) { return static_cast<VideoInput*>(handle); }

// What a node counts beyond its stream's own counters. Kept beside the nodes
// (keyed by node) so that the node's layout stays as hosts compiled it.
struct NodeCounters {
  std::atomic<uint64_t> timeout_tasks{0};
  // The reason of the last failed start; guarded by g_counters_lock.
  int start_code = -1;
  std::string start_text;
};
std::mutex g_counters_lock;
// The layer keeps the record of every stream whose start failed, as it
// always has, also after the node is gone: reachable here, not lost.
// Guarded by g_counters_lock.
std::vector<qo_StrmHandle>* g_failed_streams = new std::vector<qo_StrmHandle>();
std::unordered_map<const VideoInput*, std::shared_ptr<NodeCounters>> g_counters;

std::shared_ptr<NodeCounters> CountersOf(const VideoInput* node) {
  std::lock_guard<std::mutex> lock(g_counters_lock);
  auto& slot = g_counters[node];
  if (!slot) slot = std::make_shared<NodeCounters>();
  return slot;
}

void JsonString(std::string* out, const char* text) {
  *out += '"';
  for (const char* c = text; *c != '\0'; ++c) {
    const auto u = static_cast<unsigned char>(*c);
    if (u == '"' || u == '\\') {
      *out += '\\';
      *out += *c;
    } else if (u < 0x20) {
      char esc[8];
      snprintf(esc, sizeof(esc), "\\u%04x", u);
      *out += esc;
    } else {
      *out += *c;
    }
  }
  *out += '"';
}

void JsonAgeMs(std::string* out, const char* key, int64_t ns) {
  char buf[64];
  if (ns == -1)
    snprintf(buf, sizeof(buf), ",\"%s\":null", key);
  else
    snprintf(buf, sizeof(buf), ",\"%s\":%.3f", key, static_cast<double>(ns) / 1e6);
  *out += buf;
}

}  // namespace

VideoInput::VideoInput() {
  for (int i = 0; i < kOutputPorts; ++i) {
    pout_[i]->SetTypeInfo("qo::MediaTask", TaskSerializeCustom<MediaTask>, nullptr);
  }
  prop_.int_paras_["stream-id"] = {0, kIntMax, kIntMin};
  prop_.int_paras_["width"] = {1920, 4096, 0};
  prop_.int_paras_["height"] = {1080, 4096, 0};
  prop_.double_paras_["framerate"] = {25.0, 120.0, 0.0};
  prop_.int_paras_["lower-trans-type"] = {1, kIntMax, kIntMin};
  prop_.int_paras_["stream-type"] = {31, kIntMax, kIntMin};
  prop_.string_paras_["uri"] = "";
  prop_.int_paras_["timeout"] = {3, kIntMax, kIntMin};
  prop_.int_paras_["sync-mode"] = {0, 1, 0};
  prop_.int_paras_["test-pattern"] = {0, 1, 0};
  prop_.int_paras_["save_stream"] = {0, 1, 0};
  name_ = "video_in";
}

int VideoInput::StreamType(const std::string& uri) {
  int type = qo_VideoStreamType(uri.c_str());
  if (type == -1) LOG(4) << "get stream type failed !!!";
  return type;
}

void VideoInput::SetMode(unsigned char mode) {
  int m = mode < 3 ? mode : 3;
  if (stream_ != nullptr) {
    qo_VideoStreamCfg(stream_, "mode", m);
    return;
  }
  mode_ = m;
  LOG(3) << "stream obj is NULL !!!";
}

void VideoInput::SetGain(unsigned char gain) {
  int g = gain < 63 ? gain : 63;
  if (stream_ != nullptr) {
    qo_VideoStreamCfg(stream_, "gain", g);
    return;
  }
  LOG(3) << "stream obj is NULL !!!";
  // Kept only: a gain takes effect when set on a running node.
  gain_ = static_cast<uint8_t>(g);
}

int VideoInput::LastError(std::string* text) const {
  if (stream_ == nullptr) {
    std::lock_guard<std::mutex> lock(g_counters_lock);
    auto it = g_counters.find(this);
    const bool failed = it != g_counters.end() && it->second->start_code >= 0;
    if (text) *text = failed ? it->second->start_text : "";
    return failed ? it->second->start_code : -1;
  }
  char buf[256] = "";
  const int code = qo_VideoStreamLastError(stream_, buf, sizeof(buf));
  if (text) *text = buf;
  return code;
}

void VideoInput::Stats(qo_StreamStats* stream, uint64_t* timeout_tasks) const {
  if (stream_ == nullptr || qo_VideoStreamGetStats(stream_, stream) != 0) {
    *stream = qo_StreamStats{};
    stream->last_age_ns = stream->median_age_ns = -1;
    std::string text;
    stream->reason = LastError(&text);
    snprintf(stream->reason_text, sizeof(stream->reason_text), "%s", text.c_str());
  }
  *timeout_tasks = CountersOf(this)->timeout_tasks.load(std::memory_order_relaxed);
}

std::string VideoInput::StatsJson() const {
  qo_StreamStats s;
  uint64_t timeout_tasks = 0;
  Stats(&s, &timeout_tasks);
  char buf[256];
  snprintf(buf, sizeof(buf),
           "{\"frames\":%llu,\"bytes\":%llu,\"timeouts\":%llu,\"timeout_tasks\":%llu,"
           "\"reconnects\":%llu,\"gaps\":%llu",
           static_cast<unsigned long long>(s.frames), static_cast<unsigned long long>(s.bytes),
           static_cast<unsigned long long>(s.timeouts),
           static_cast<unsigned long long>(timeout_tasks),
           static_cast<unsigned long long>(s.reconnects), static_cast<unsigned long long>(s.gaps));
  std::string out = buf;
  JsonAgeMs(&out, "last_age_ms", s.last_age_ns);
  JsonAgeMs(&out, "median_age_ms", s.median_age_ns);
  out += ",\"reason_code\":" + std::to_string(s.reason) + ",\"reason\":";
  JsonString(&out, s.reason_text);
  return out + "}";
}

void VideoInput::ForgetStats() {
  std::lock_guard<std::mutex> lock(g_counters_lock);
  g_counters.erase(this);
}

void VideoInput::Start() {
  if (stream_ != nullptr) {
    LOG(3) << "restart video_in !!!";
    return;
  }
  std::string uri;
  prop_.Get("uri", uri);
  if (uri.empty()) {
    LOG(5) << "uri is NULL !!!";
    return;
  }
  SetOutputsReleased(false);
  // The stream layer refers to the URI text instead of copying it.
  stream_uri_ = uri;
  qo_StrmHandle stream = qo_VideoStreamOpen(stream_uri_.c_str());
  if (stream == nullptr) {
    LOG(5) << "Stream Open failed !!!";
    return;
  }
  int value = 0;
  if (prop_.Get("stream-id", value)) stream_id_ = static_cast<uint32_t>(value);
  value = 0;
  prop_.Get("stream-type", value);
  qo_VideoStreamCfg(stream, "stream-type", value);
  value = 0;
  prop_.Get("lower-trans-type", value);
  qo_VideoStreamCfg(stream, "lower-trans-type", value);
  value = 0;
  if (prop_.Get("save_stream", value)) save_stream_ = value;
  if (StartsWith(uri, "v4l2://")) {
    for (const char* key : {"width", "height"}) {
      value = 0;
      prop_.Get(key, value);
      qo_VideoStreamCfg(stream, key, value);
    }
    double framerate = 1.0;
    prop_.Get("framerate", framerate);
    qo_VideoStreamCfg(stream, "framerate", static_cast<int>(framerate));
    value = 0;
    prop_.Get("test-pattern", value);
    qo_VideoStreamCfg(stream, "test-pattern", value);
    qo_VideoStreamCfg(stream, "mode", mode_);
  }
  // A stream whose start failed stays open: the layer keeps its record.
  if (qo_VideoStreamStart(stream) != 0) {
    char text[256] = "";
    const int code = qo_VideoStreamLastError(stream, text, sizeof(text));
    {
      std::shared_ptr<NodeCounters> counters = CountersOf(this);
      std::lock_guard<std::mutex> lock(g_counters_lock);
      counters->start_code = code == QO_STREAM_OK ? QO_STREAM_ERROR : code;
      counters->start_text = text[0] != '\0' ? text : "the stream did not start";
      g_failed_streams->push_back(stream);
    }
    // The reason is the host's to read (last.error); the message stays as it is.
    LOG(5) << "Stream start failed !!!";
    return;
  }
  stream_ = stream;
  {
    std::lock_guard<std::mutex> lock(g_counters_lock);
    auto it = g_counters.find(this);
    if (it != g_counters.end()) it->second->start_code = -1;
  }
  value = 0;
  if (prop_.Get("sync-mode", value)) sync_mode_ = value;
  if (sync_mode_ == 1) return;

  int err = pthread_create(&stream_out_thread_, nullptr, StreamOut, this);
  if (err != 0) {
    LOG(5) << "create stream out thread failed:" << err;
    stream_ = nullptr;
    return;
  }
  stream_out_joinable_ = true;
  err = pthread_setname_np(stream_out_thread_, "strm_out");
  if (err != 0) LOG(4) << "set stream out thread name failed:" << err;
  LOG(1) << "created a stream out thread!!!";
}

void VideoInput::Stop() {
  if (stream_ == nullptr) {
    LOG(3) << "stream obj is NULL !!!";
    return;
  }
  stopping_.store(1, std::memory_order_relaxed);
  // The output thread may be waiting on a consumer's full queue: its last
  // tasks are dropped rather than the stop waiting for a consumer that is gone.
  SetOutputsReleased(true);
  if (qo_VideoStreamStop(stream_) != 0) LOG(3) << "Stream stop failed !!!";
  // The layer's stop ends the stream; the thread sees the end (or runs out
  // of retries), sends the last task and exits.
  if (sync_mode_ == 0 && stream_out_joinable_) {
    pthread_join(stream_out_thread_, nullptr);
    stream_out_joinable_ = false;
  }
  qo_VideoStreamClose(stream_);
  stream_ = nullptr;
  LOG(1) << "VideoInput(" << static_cast<void*>(this) << ") stopped !!!";
}

void VideoInput::Proc(void*, int, POutType) {
  LOG(3) << "video input operator does not need rx queue  !!!"
         << "\n";
}

int VideoInput::GetFrame(NDArray& frame, int timeout) {
  if (stream_ == nullptr) {
    LOG(3) << "stream obj is NULL !!!";
    return -1;
  }
  if (sync_mode_ == 0) {
    LOG(3) << "sync mode error !!!"
           << "\n";
    return -1;
  }
  int r = GetStream(frame, timeout);
  if (r == kEndOfStream) {
    LOG(2) << "end of stream !!!";
    return kEndOfStream;
  }
  if (r == kTimeout) {
    LOG(2) << "get stream timeout !!!";
    return kTimeout;
  }
  return kFrame;
}

void* VideoInput::StreamOut(void* self) {
  static_cast<VideoInput*>(self)->StreamOutLoop();
  return nullptr;
}

void VideoInput::StreamOutLoop() {
  LOG(1) << ">>> Enter stream out thread";
  int timeout = 3;
  prop_.Get("timeout", timeout);
  int budget = kRetryBudget;
  NDArray frame;
  // Reused for every frame's "uri" read: its buffer is kept, not reallocated.
  std::string uri;
  // A fatal error (an unsupported frame format) is not caught here: it ends
  // the process with its message, as it would on the host's own thread.
  for (;;) {
    unsigned int status;
    int r = GetStream(frame, timeout);
    if (r == kEndOfStream) {
      LOG(2) << "end of stream !!!";
      status = kEndOfStream;
    } else if (r == kTimeout) {
      budget--;
      LOG(2) << "get stream timeout:" << budget;
      if (budget != 0) continue;
      status = kTimeout;
      CountersOf(this)->timeout_tasks.fetch_add(1, std::memory_order_relaxed);
    } else {
      if (save_stream_ != 0) {
        strm_file_save(frame.GetTensorData(), frame.GetTensorDataSize(), stream_id_);
      }
      // After Stop the frames are only drained, not sent.
      if (stopping_.load(std::memory_order_relaxed) != 0) continue;
      status = kFrame;
    }
    SendStream(frame, status);
    if (status != kFrame) break;

    uri.clear();
    if (prop_.Get("uri", uri) && StartsWith(uri, "file://")) {
      // A file plays as fast as it is read: pace it to its frame rate.
      double framerate = 1.0;
      prop_.Get("framerate", framerate);
      PaceFrame(framerate);
    }
    budget = kRetryBudget;
  }
  if (save_stream_ != 0) strm_file_close();
  LOG(1) << "<<< Exit stream out thread";
}

NDArray VideoInput::WrapFrame(qo_StreamInfo* record) {
  std::vector<int64_t> shape;
  int32_t kind;
  const int32_t format = record->format;
  if (format == QO_PIX_FMT_H264 || format == QO_PIX_FMT_H265 || format == QO_PIX_FMT_MJPEG) {
    shape = {record->size};
    kind = 3;
  } else if (InMask(format, kYuv422Mask) || InMask(format, kYuv420Mask)) {
    // 32-bit row count, wrapping instead of overflowing on absurd heights.
    const uint32_t h = static_cast<uint32_t>(record->height);
    const int32_t rows = InMask(format, kYuv422Mask) ? static_cast<int32_t>(h * 2u)
                                                     : static_cast<int32_t>(h * 3u) / 2;
    const int64_t width = record->width;
    if (rows > 0 && width > 0 && rows * width <= static_cast<int64_t>(record->size)) {
      shape = {rows, width};
    } else {
      // A picture larger than its buffer is described by the bytes there are,
      // so no consumer reads past the end.
      shape = {record->size > 0 ? record->size : 0};
    }
    kind = 2;
  } else {
    qo_VideoStreamFrameFree(record);
    delete record;
    LOG(5) << "unsupported yuv format:" << format << "!!!\n";
    assert(false && "unsupported yuv format");
    return NDArray();
  }
  ExtInfo ext;
  ext.format = format;
  ext.kind = kind;
  ext.zero0 = 0;
  ext.zero1 = 0;
  ext.width = record->width;
  ext.height = record->height;
  ext.zero2 = 0;
  ext.time_stamp = record->time_stamp;
  const DLDataType dtype{kDLInt, 8, 1};
  const DLContext ctx{kDLCPU, 0};
  try {
    return NDArray::UserEmpty(std::move(shape), dtype, ctx, ext, FrameFree, record, record->data);
  } catch (...) {
    qo_VideoStreamFrameFree(record);
    delete record;
    throw;
  }
}

int VideoInput::GetStream(NDArray& frame, int timeout) {
  qo_StreamInfo* record = new qo_StreamInfo();
  qo_VideoStreamGetFrame(stream_, record, timeout);
  if (record->data != nullptr) {
    frame = WrapFrame(record);
    // Only reached with fatal messages silenced: the frame was dropped.
    if (!frame.defined()) {
      frame = NDArray::Empty(0, 0);
      return kTimeout;
    }
    return kFrame;
  }
  frame = NDArray::Empty(0, 0);
  // The record of an empty poll is not freed (kept on purpose).
  return record->eos != 0 ? kEndOfStream : kTimeout;
}

void VideoInput::FrameFree(NDArray::Container* container) {
  ReleaseFrame(container, qo_VideoStreamFrameFree);
}

void VideoInput::SendStream(NDArray& frame, unsigned int status) {
  SendToPorts(pout_, frame, static_cast<int32_t>(stream_id_), status);
}

void VideoInput::strm_file_save(void* data, unsigned long size, unsigned int id) {
  if (strm_file_opened_ == 0) {
    char path[32];
    snprintf(path, sizeof(path), "/tmp/strm_%02x_%u", id, strm_file_index_ & 1u);
    strm_file_ = fopen(path, "wb");
    if (strm_file_ != nullptr) {
      strm_file_opened_ = 1;
    } else {
      HalEmit(HalChannel::kVideoStream, "strm storage file open failed\n");
    }
  }
  if (strm_file_ == nullptr) return;
  if (data != nullptr && size > 0) fwrite(data, 1, size, strm_file_);
  strm_frame_count_++;
  if (strm_frame_count_ > kFramesPerRecording) {
    strm_file_close();
    strm_file_opened_ = 0;
    strm_file_index_++;
    strm_frame_count_ = 0;
  }
}

void VideoInput::strm_file_close() {
  if (strm_file_ != nullptr) {
    fclose(strm_file_);
    strm_file_ = nullptr;
  }
}

// Global functions: argument 0 is the node, except for create and
// stream.type. Arguments are converted before the null test.
QO_REGISTER_GLOBAL("qo.mm.video.in.create").set_body([](QOArgs, QORetValue* rv) {
  VideoInput* node = new VideoInput();
  *rv = static_cast<void*>(node);
});

QO_REGISTER_GLOBAL("qo.mm.video.in.destroy").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(3) << "VideoInput is NULL !!!";
    return;
  }
  delete NodeOf(p);
});

QO_REGISTER_GLOBAL("qo.mm.video.in.open").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(4) << "VideoInput is NULL !!!";
    return;
  }
  NodeOf(p)->Start();
});

QO_REGISTER_GLOBAL("qo.mm.video.in.close").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(3) << "VideoInput is NULL !!!";
    return;
  }
  NodeOf(p)->Stop();
});

QO_REGISTER_GLOBAL("qo.mm.video.in.update.para").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(4) << "VideoInput is NULL !!!";
    return;
  }
  NodeOf(p)->UpdatePara();
});

QO_REGISTER_GLOBAL("qo.mm.video.in.set.attr.int").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  std::string key = args[1];
  int v = args[2];
  if (p == nullptr) {
    LOG(4) << "VideoInput is NULL !!!";
    return;
  }
  NodeOf(p)->GetProp().Set(key, v);
});

QO_REGISTER_GLOBAL("qo.mm.video.in.set.attr.string").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  std::string key = args[1];
  std::string v = args[2];
  if (p == nullptr) {
    LOG(4) << "VideoInput is NULL !!!";
    return;
  }
  NodeOf(p)->GetProp().Set(key, v);
});

// Why the node's stream delivers no frames: the text, and its
// qo_StreamError code (-1 for a node without a running stream).
QO_REGISTER_GLOBAL("qo.mm.video.in.last.error").set_body([](QOArgs args, QORetValue* rv) {
  void* p = args[0];
  std::string text;
  if (p != nullptr) NodeOf(p)->LastError(&text);
  *rv = text;
});

QO_REGISTER_GLOBAL("qo.mm.video.in.last.error.code").set_body([](QOArgs args, QORetValue* rv) {
  void* p = args[0];
  *rv = p != nullptr ? NodeOf(p)->LastError(nullptr) : -1;
});

// The node's counters as a JSON object (VideoInput::StatsJson); "" for a
// null node.
QO_REGISTER_GLOBAL("qo.mm.video.in.stats").set_body([](QOArgs args, QORetValue* rv) {
  void* p = args[0];
  *rv = p != nullptr ? NodeOf(p)->StatsJson() : std::string();
});

QO_REGISTER_GLOBAL("qo.mm.video.in.stream.type").set_body([](QOArgs args, QORetValue* rv) {
  std::string uri = args[0];
  *rv = static_cast<int64_t>(VideoInput::StreamType(uri));
});

}  // namespace mm

QO_REGISTER_NODE_CLASS(
    "qo::VideoInput", []() -> void* { return static_cast<void*>(new mm::VideoInput()); },
    [](void* node) {
      if (node != nullptr) delete static_cast<mm::VideoInput*>(node);
    });

}  // namespace qo
