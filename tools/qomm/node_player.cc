#include "node_player.h"

#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "sdk_library.h"

namespace qomm {

namespace {

constexpr size_t kQueueCapacity = 16;
// Pulls of one second keep a sync-mode host responsive to Ctrl-C.
constexpr int kSyncPullSeconds = 1;
constexpr int kRetryBudget = 3;

// GetFrame is reached through the node's class, not through a registered
// function. qomm loads the library at run time and so takes the exported
// method from it by its symbol. The x86-64 C++ ABI passes `this` as the first
// argument of a non-virtual member function, which makes the method callable
// as a function of (node, frame, timeout).
using PullFunction = int (*)(void* node, qo::NDArray& frame, int timeout);

PullFunction PullFromLibrary(const char* mangled_name) {
  void* address = SdkLibrary::Symbol(mangled_name);
  if (address == nullptr) {
    throw qo::Error("the media-input library exports no GetFrame for sync mode");
  }
  return reinterpret_cast<PullFunction>(address);
}

int PullFrame(NodeKind kind, void* node, qo::NDArray& frame, int timeout) {
  // qo::mm::FileInput::GetFrame and qo::mm::VideoInput::GetFrame.
  static const PullFunction pull_file =
      PullFromLibrary("_ZN2qo2mm9FileInput8GetFrameERNS_7NDArrayEi");
  static const PullFunction pull_video =
      PullFromLibrary("_ZN2qo2mm10VideoInput8GetFrameERNS_7NDArrayEi");
  return (kind == NodeKind::kFileInput ? pull_file : pull_video)(node, frame, timeout);
}

void Describe(const qo::NDArray& array, FrameInfo* info) {
  info->array = array;
  const qo::ExtInfo* ext = array.GetExtInfo();
  if (ext != nullptr) {
    info->format = ext->format;
    info->kind = ext->kind;
    info->width = ext->width;
    info->height = ext->height;
  }
  info->bytes = array.GetTensorDataSize();
  info->data = static_cast<const uint8_t*>(array.GetTensorData());
}

}  // namespace

NodePlayer::NodePlayer(NodeKind kind, bool sync)
    : kind_(kind), sync_(sync), queue_(kQueueCapacity) {
  qo::QORetValue rv = SdkLibrary::Function(Name("create"))();
  node_ = rv;
  if (node_ == nullptr) throw qo::Error(Name("create") + " returned no node");
  if (sync_) SetInt("sync-mode", 1);
}

NodePlayer::~NodePlayer() {
  try {
    Close();
    if (!sync_) thread()->SetTxQue(nullptr, 0);
    SdkLibrary::Function(Name("destroy"))(node_);
  } catch (const std::exception&) {
    // Nothing sensible is left to do with a node that cannot be destroyed.
  }
}

std::string NodePlayer::Name(const char* verb) const {
  return std::string(kind_ == NodeKind::kFileInput ? "qo.mm.file.in." : "qo.mm.video.in.") + verb;
}

// Both nodes derive from the node base alone, so the handle "create" returns
// is the address of their base as well.
qo::Thread* NodePlayer::thread() const { return static_cast<qo::Thread*>(node_); }

void NodePlayer::SetInt(const std::string& key, int value) {
  if (key == "timeout") timeout_s_ = value;
  if (key == "stream-id") stream_id_ = value;
  SdkLibrary::Function(Name("set.attr.int"))(node_, key, value);
}

void NodePlayer::SetString(const std::string& key, const std::string& value) {
  SdkLibrary::Function(Name("set.attr.string"))(node_, key, value);
}

void NodePlayer::SetDouble(const std::string& key, double value) {
  thread()->GetProp().Set(key, value);
}

void NodePlayer::Open() {
  if (!sync_) thread()->SetTxQue(&queue_, 0);
  SdkLibrary::Function(Name("open"))(node_);
  opened_ = true;
}

bool NodePlayer::Next(FrameInfo* info, int slice_ms) {
  *info = FrameInfo();
  if (sync_) return PullSync(info);
  qo::TaskQueue::Task task;
  if (!queue_.Pop(&task, slice_ms)) return false;
  const qo::MediaTask* media = static_cast<const qo::MediaTask*>(task.data);
  if (media != nullptr) {
    info->status = media->flag;
    info->source_id = media->source_id;
    info->pts = static_cast<uint64_t>(media->time_stamp);
    Describe(media->data, info);
  }
  qo::TaskQueue::Dispose(task);
  return true;
}

bool NodePlayer::PullSync(FrameInfo* info) {
  qo::NDArray frame;
  int r = PullFrame(kind_, node_, frame, kSyncPullSeconds);
  if (r < 0) throw qo::Error("the node refused the pull: it is not running in sync mode");
  info->source_id = stream_id_;
  if (r == 2) {
    // A non-positive time-out waits without end, as the node's does.
    if (timeout_s_ <= 0 || ++empty_pulls_ < timeout_s_ * kRetryBudget) return false;
  }
  empty_pulls_ = 0;
  info->status = r;
  if (r == 0) {
    Describe(frame, info);
    const qo::ExtInfo* ext = frame.GetExtInfo();
    if (ext != nullptr) info->pts = ext->time_stamp;
  }
  return true;
}

void NodePlayer::Close() {
  if (!opened_) return;
  opened_ = false;
  // A closed queue makes the node's sends fail at once instead of waiting
  // for room, so its output thread can run to its end while it stops.
  queue_.Close();
  SdkLibrary::Function(Name("close"))(node_);
  qo::TaskQueue::Task task;
  while (queue_.Pop(&task, 0)) qo::TaskQueue::Dispose(task);
}

}  // namespace qomm
