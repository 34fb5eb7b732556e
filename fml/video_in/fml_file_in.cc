// File input node: file sequence, feeding and output threads, and its
// registration with the framework.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/qo_c_runtime_api.h"
#include "core/qo_c_type.h"
#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "core/qo_packed_func.h"
#include "core/qo_registry.h"
#include "hal_mm_file_in.h"
#include "hal_mm_video_common.h"
#include "node/qo_file_in_node.h"
#include "node_common.h"

namespace qo {
namespace mm {

namespace {

constexpr int kPutTimeoutSec = 60;
constexpr int kTimeoutAllowance = 3;

bool IsParsedType(int type) {
  return type == QO_PIX_FMT_H264 || type == QO_PIX_FMT_H265 || type == QO_PIX_FMT_MJPEG;
}

// Shape and kind (2 picture, 3 byte buffer) of a frame by its pixel format.
std::vector<int64_t> FrameShape(const qo_StreamInfo& info, int32_t* kind) {
  const int64_t h = info.height;
  const int64_t w = info.width;
  *kind = 2;
  switch (info.format) {
    case QO_PIX_FMT_NV12:
    case QO_PIX_FMT_NV21:
    case QO_PIX_FMT_YUV420P:
      return {h * 3 / 2, w};
    case QO_PIX_FMT_YUV422_YUYV:
    case QO_PIX_FMT_YUV422_UYVY:
    case QO_PIX_FMT_NV16:
    case QO_PIX_FMT_YUV422P:
      return {2 * h, w};
    case QO_PIX_FMT_BGR888_PLANE:
    case QO_PIX_FMT_RGB888_PLANE:
      return {3 * h, w};
    case QO_PIX_FMT_GRAY8:
      return {h, w};
    case QO_PIX_FMT_RGB888:
    case QO_PIX_FMT_BGR888:
      return {h, 3 * w};
    default:
      *kind = 3;
      return {info.size};
  }
}

}  // namespace

FileInput::FileInput() {
  for (int i = 0; i < kFramePorts; ++i) {
    pout_[i]->SetTypeInfo("qo::MediaTask", TaskSerializeCustom<MediaTask>, nullptr);
  }
  prop_.SetDefault("stream-id", 0, kIntMin, kIntMax);
  prop_.SetDefault("size", 0, 0, kIntMax);
  prop_.SetDefault("start-index", -1, -1, kIntMax);
  prop_.SetDefault("stop-index", -1, -1, kIntMax);
  prop_.SetDefault("loop", 0, kIntMin, kIntMax);
  prop_.SetDefault("framerate", 25.0, 0.0, 120.0);
  prop_.SetDefault("stream-type", static_cast<int>(QO_PIX_FMT_H264), kIntMin, kIntMax);
  prop_.SetDefault("file", std::string());
  prop_.SetDefault("file-list", std::string());
  prop_.SetDefault("timeout", 3, kIntMin, kIntMax);
  prop_.SetDefault("sync-mode", 0, 0, 1);
  prop_.SetDefault("width", 0, 0, kIntMax);
  prop_.SetDefault("height", 0, 0, kIntMax);
  name_ = "file_in";
}

FileInput::~FileInput() { LOG(1) << "class FileInput instance destoryed !!!"; }

// ---------------------------------------------------------------------------
// File sequence

std::string FileInput::GetNextFile() {
  std::string name;
  if (use_list_) {
    GetNextFileFromList(name);
  } else {
    GetNextFileSingle(name);
  }
  return name;
}

void FileInput::GetNextFileSingle(std::string& name) {
  if (loop_cnt_ == 0) {
    eos_.store(true, std::memory_order_relaxed);
  } else if (loop_cnt_ > 0) {
    if (loop_ >= loop_cnt_) {
      eos_.store(true, std::memory_order_relaxed);
      return;
    }
    ++loop_;
  }
  if (file_list_.empty()) {  // cannot happen after CreateFileList; stay safe
    eos_.store(true, std::memory_order_relaxed);
    return;
  }
  LOG(1) << "single file: loop=" << loop_ << " loop_cnt=" << loop_cnt_;
  name = file_list_[0];
}

void FileInput::GetNextFileFromList(std::string& name) {
  const int64_t n = static_cast<int64_t>(file_list_.size());
  bool in_range;
  if (start_index_ <= stop_index_) {
    in_range = index_ <= stop_index_;
  } else {
    // Wrapped range: only indexes up to the stop are accepted, so the entry
    // at the start is repeated, each time as a restart.
    if (index_ >= n) index_ = 0;
    in_range = index_ <= stop_index_;
  }
  if (!in_range) {
    if (loop_cnt_ == 0) {
      eos_.store(true, std::memory_order_relaxed);
      return;
    } else if (loop_cnt_ < 0) {
      index_ = start_index_;
    } else {
      if (loop_ >= loop_cnt_ - 1) {
        eos_.store(true, std::memory_order_relaxed);
        return;
      }
      ++loop_;
      index_ = start_index_;
    }
  }
  // An empty or unreadable list leaves the indexes at -1 (or stale): any
  // position outside the list is the end of the files.
  if (index_ < 0 || index_ >= n) {
    eos_.store(true, std::memory_order_relaxed);
    return;
  }
  LOG(1) << "file list: loop=" << loop_ << " index=" << index_ << " loop_cnt=" << loop_cnt_;
  name = file_list_[index_];
  ++index_;
}

void FileInput::CreateFileList() {
  if (!use_list_) {
    file_list_.push_back(path_);
    return;
  }
  std::string line;
  std::ifstream list(path_);
  if (!list.is_open()) {
    // The line buffer is still empty here: the message carries no path.
    LOG(4) << "open " << line << " faild\n";
    return;
  }
  file_list_.clear();
  while (std::getline(list, line, '\n')) {
    if (!line.empty()) file_list_.push_back(line);
  }
  list.close();

  const int n = static_cast<int>(file_list_.size());
  if (start_index_ == -1) start_index_ = 0;
  if (stop_index_ == -1 || stop_index_ >= n) stop_index_ = n - 1;
  if (start_index_ >= n) start_index_ = n - 1;
  index_ = start_index_;
}

int FileInput::GetData(unsigned char* buf, int len) {
  if (!in_file_.is_open()) {
    std::string name = GetNextFile();
    if (name.empty()) return 0;
    in_file_.open(name, std::ios::in | std::ios::binary);
    if (!in_file_.is_open()) {
      LOG(4) << "open " << name << " failed\n";
      return 0;
    }
    in_file_.clear();
    LOG(1) << name << " opened\n";
  }
  if (len > 0) in_file_.read(reinterpret_cast<char*>(buf), len);
  const std::streamsize n = len > 0 ? in_file_.gcount() : 0;
  if (n > 0) return static_cast<int>(n);
  in_file_.close();
  return 0;
}

// ---------------------------------------------------------------------------
// Streaming

void FileInput::Start() {
  if (decoder_ != nullptr) {
    LOG(3) << "restart video_in !!!";
    return;
  }
  SetOutputsReleased(false);
  qo_VideoFileHandle h = qo_VideoFileOpen();
  if (h == nullptr) {
    LOG(5) << "Stream Open failed !!!";
    return;
  }

  std::string file;
  std::string file_list;
  prop_.Get("stream-id", stream_id_);
  prop_.Get("file", file);
  prop_.Get("file-list", file_list);
  prop_.Get("loop", loop_cnt_);

  if (!file_list.empty()) {
    prop_.Get("start-index", start_index_);
    prop_.Get("stop-index", stop_index_);
    path_ = file_list;
    use_list_ = true;
  } else if (!file.empty()) {
    path_ = file;
  } else {
    // h is deliberately left open: this path has always abandoned it.
    LOG(4) << "file is NULL !!!";
    return;
  }
  if (path_.find("file://") != std::string::npos) path_ = path_.substr(7);
  CreateFileList();

  int type = QO_PIX_FMT_H264;
  prop_.Get("stream-type", type);
  if (!IsParsedType(type)) {
    int width = 0;
    int height = 0;
    prop_.Get("size", read_size_);
    qo_VideoFileCfg(h, "size", read_size_);
    prop_.Get("width", width);
    prop_.Get("height", height);
    qo_VideoFileCfg(h, "width", width);
    qo_VideoFileCfg(h, "height", height);
  }
  qo_VideoFileCfg(h, "stream-type", type);
  if (qo_VideoFileStart(h) != 0) {
    // Nothing was started on h; release it before reporting.
    qo_VideoFileClose(h);
    LOG(5) << "Stream start failed !!!";
    return;
  }

  decoder_ = h;
  strm_in_thread_ = std::thread(StreamIn, this);
  LOG(1) << "created a stream in thread!!!";

  prop_.Get("sync-mode", sync_mode_);
  if (sync_mode_ != 1) {
    strm_out_thread_ = std::thread(StreamOut, this);
    LOG(1) << "created a stream out thread!!!";
  }
}

void FileInput::Stop() {
  if (decoder_ == nullptr) {
    LOG(3) << "stream obj is NULL !!!";
    return;
  }
  eos_.store(true, std::memory_order_relaxed);
  // StreamOut may be waiting on a consumer's full queue (see VideoInput::Stop).
  SetOutputsReleased(true);
  // Stopping the decoder makes a pending or next put fail, which ends
  // StreamIn; StreamOut ends at the decoder's end of stream.
  if (qo_VideoFileStop(decoder_) != 0) LOG(3) << "Stream stop failed !!!";
  if (strm_in_thread_.joinable()) strm_in_thread_.join();
  if (strm_out_thread_.joinable()) strm_out_thread_.join();
  qo_VideoFileClose(decoder_);
  decoder_ = nullptr;
  LOG(1) << "FileInput(" << static_cast<void*>(this) << ") stopped !!!";
}

void FileInput::Proc(void*, int, POutType) {
  LOG(3) << "video file operator does not need rx queue  !!!";
}

int FileInput::GetFrame(NDArray& out, int timeout) {
  if (decoder_ == nullptr) {
    LOG(3) << "stream obj is NULL !!!";
    return -1;
  }
  if (sync_mode_ == 0) {
    LOG(3) << "sync mode error !!!";
    return -1;
  }
  int r = GetFrameInternal(out, timeout);
  if (r == 1) {
    LOG(2) << "end of stream !!!";
    return 1;
  }
  if (r == 2) {
    LOG(2) << "get stream timeout !!!";
    return 2;
  }
  return 0;
}

void FileInput::StreamFree(void* priv) {
  qo_VideoStream* packet = static_cast<qo_VideoStream*>(priv);
  delete[] packet->stream.data;
  delete packet;
}

void FileInput::FrameFree(NDArray::Container* c) { ReleaseFrame(c, qo_VideoFileFrameFree); }

void FileInput::StreamIn(void* node) {
  FileInput* self = static_cast<FileInput*>(node);
  set_thread_name_by_prctl("strm_in");
  for (;;) {
    const int size = self->read_size_ > 0 ? self->read_size_ : 0;
    qo_VideoStream* packet = new qo_VideoStream();
    packet->stream.data = new uint8_t[size];
    packet->priv = packet;
    packet->free_func = StreamFree;

    const int n = self->GetData(packet->stream.data, size);
    bool last = false;
    if (n == 0) {
      if (!self->eos_.load(std::memory_order_relaxed)) {
        // A file ended or failed to open: the next read opens the next one.
        StreamFree(packet);
        continue;
      }
      packet->stream.eos = 1;
      last = true;
    }
    packet->stream.size = n;

    int r;
    while ((r = qo_VideoFilePutStream(self->decoder_, packet, kPutTimeoutSec)) > 0) {
      LOG(1) << "VideoFile internal input timeout";
    }
    if (r < 0) {
      // The decoder has released the packet itself.
      LOG(1) << "VideoFile internal input failed, exit StreamIn!!!";
      return;
    }
    if (last) {
      LOG(1) << "Getted EOS, StreamIn exit";
      return;
    }
  }
}

int FileInput::GetFrameInternal(NDArray& out, int timeout) {
  qo_StreamInfo* info = new qo_StreamInfo();
  qo_VideoFileGetFrame(decoder_, info, timeout);
  if (info->data == nullptr) {
    out = NDArray::Empty(0, 0);
    // The record of an empty poll is not released: kept as it always was.
    return info->eos != 0 ? 1 : 2;
  }

  ExtInfo ext;
  std::vector<int64_t> shape = FrameShape(*info, &ext.kind);
  ext.format = info->format;
  ext.width = info->width;
  ext.height = info->height;
  ext.time_stamp = info->time_stamp;
  try {
    // No copy: the array owns the record and returns its buffer on release.
    out = NDArray::UserEmpty(std::move(shape), DLDataType{kDLInt, 8, 1}, DLContext{kDLCPU, 0}, ext,
                             FrameFree, info, info->data);
  } catch (...) {
    qo_VideoFileFrameFree(info);
    delete info;
    throw;
  }
  return 0;
}

void FileInput::SendStream(NDArray& frame, unsigned int status) {
  SendToPorts(pout_, frame, stream_id_, status);
}

void FileInput::StreamOut(void* node) {
  FileInput* self = static_cast<FileInput*>(node);
  LOG(1) << ">>> Enter stream out thread";
  set_thread_name_by_prctl("strm_out");
  int timeout = 3;
  self->prop_.Get("timeout", timeout);

  NDArray frame;
  int retries = kTimeoutAllowance;
  for (;;) {
    const int r = self->GetFrameInternal(frame, timeout);
    unsigned int status = 0;
    if (r == 1) {
      LOG(2) << "end of stream !!!";
      status = 1;
    } else if (r == 2) {
      retries -= 1;
      LOG(2) << "get stream timeout:" << retries;
      if (retries != 0) continue;
      status = 2;
    }
    self->SendStream(frame, status);
    if (status != 0) break;

    // Read before every sleep so that a new frame rate applies at once.
    double framerate = 1.0;
    if (!self->prop_.Get("framerate", framerate)) framerate = 1.0;
    // Stop releases the ports and then waits for the decoder's end of
    // stream: what is left before it drains unpaced, or Stop would sit out
    // a frame interval per queued frame.
    if (!self->pout_[0]->released()) PaceFrame(framerate);
    retries = kTimeoutAllowance;
  }
  LOG(1) << "<<< Exit stream out thread";
  frame.reset();
}

// ---------------------------------------------------------------------------
// Registration

namespace {

FileInput* NodeOf(void* p) { return static_cast<FileInput*>(p); }

}  // namespace

QO_REGISTER_GLOBAL("qo.mm.file.in.create").set_body([](QOArgs, QORetValue* rv) {
  FileInput* node = new FileInput();
  *rv = static_cast<void*>(node);
});

QO_REGISTER_GLOBAL("qo.mm.file.in.destroy").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(3) << "FileInput is NULL !!!";
    return;
  }
  delete NodeOf(p);
});

QO_REGISTER_GLOBAL("qo.mm.file.in.open").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(4) << "FileInput is NULL !!!";
    return;
  }
  NodeOf(p)->Start();
});

QO_REGISTER_GLOBAL("qo.mm.file.in.close").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(3) << "FileInput is NULL !!!";
    return;
  }
  NodeOf(p)->Stop();
});

QO_REGISTER_GLOBAL("qo.mm.file.in.update.para").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(4) << "FileInput is NULL !!!";
    return;
  }
  NodeOf(p)->UpdatePara();
});

QO_REGISTER_GLOBAL("qo.mm.file.in.set.attr.int").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(4) << "FileInput is NULL !!!";
    return;
  }
  std::string key = args[1];
  int v = args[2];
  NodeOf(p)->GetProp().Set(key, v);
});

QO_REGISTER_GLOBAL("qo.mm.file.in.set.attr.string").set_body([](QOArgs args, QORetValue*) {
  void* p = args[0];
  if (p == nullptr) {
    LOG(4) << "FileInput is NULL !!!";
    return;
  }
  std::string key = args[1];
  std::string v = args[2];
  NodeOf(p)->GetProp().Set(key, v);
});

}  // namespace mm

QO_REGISTER_NODE_CLASS(
    "qo::FileInput", []() -> void* { return static_cast<void*>(new mm::FileInput()); },
    [](void* node) {
      if (node != nullptr) delete static_cast<mm::FileInput*>(node);
    });

}  // namespace qo
