#include "node_player.h"

#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "node/qo_file_in_node.h"
#include "node/qo_video_in_node.h"

namespace qomm {

namespace {

constexpr size_t kQueueCapacity = 16;
// Pulls of one second keep a sync-mode host responsive to Ctrl-C and to the
// stream's reasons.
constexpr int kSyncPullSeconds = 1;
constexpr int kRetryBudget = 3;

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
    : kind_(kind),
      sync_(sync),
      node_(kind == NodeKind::kFileInput ? static_cast<qo::Thread*>(new qo::mm::FileInput())
                                         : new qo::mm::VideoInput()),
      queue_(kQueueCapacity) {
  if (sync_) SetInt("sync-mode", 1);
}

NodePlayer::~NodePlayer() {
  try {
    Close();
  } catch (const std::exception&) {
    // Nothing sensible is left to do with a node that cannot be stopped.
  }
  if (!sync_) node_->SetTxQue(nullptr, 0);
}

void NodePlayer::SetInt(const std::string& key, int value) {
  if (key == "timeout") timeout_s_ = value;
  if (key == "stream-id") stream_id_ = value;
  node_->GetProp().Set(key, value);
}

void NodePlayer::SetString(const std::string& key, const std::string& value) {
  node_->GetProp().Set(key, value);
}

void NodePlayer::SetDouble(const std::string& key, double value) {
  node_->GetProp().Set(key, value);
}

void NodePlayer::Open() {
  if (!sync_) node_->SetTxQue(&queue_, 0);
  node_->Start();
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
  const int r =
      kind_ == NodeKind::kFileInput
          ? static_cast<qo::mm::FileInput*>(node_.get())->GetFrame(frame, kSyncPullSeconds)
          : static_cast<qo::mm::VideoInput*>(node_.get())->GetFrame(frame, kSyncPullSeconds);
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
  node_->Stop();
  qo::TaskQueue::Task task;
  while (queue_.Pop(&task, 0)) qo::TaskQueue::Dispose(task);
}

int NodePlayer::LastError(std::string* text) const {
  text->clear();
  if (kind_ != NodeKind::kVideoInput) return -1;
  return static_cast<const qo::mm::VideoInput*>(node_.get())->LastError(text);
}

}  // namespace qomm
