// Decodes the first picture of a source with GStreamer's decoders and writes
// it as a PNG file, so a user can see what the camera sees.
#ifndef QO_TOOLS_QOMM_SNAPSHOT_H_
#define QO_TOOLS_QOMM_SNAPSHOT_H_

#include <gst/gst.h>

#include <string>

#include "node_player.h"

namespace qomm {

class Snapshot {
 public:
  explicit Snapshot(std::string path);
  ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  // Feeds one frame (from the first one on, until a picture comes out).
  // True once the PNG file has been written.
  bool Feed(const FrameInfo& frame);
  // No more frames: drains the decoder. True when the file was written.
  bool Finish();

  bool done() const { return done_; }
  // Why there is no picture (after a false Finish).
  const std::string& error() const { return error_; }
  int width() const { return width_; }
  int height() const { return height_; }

 private:
  bool Build(const FrameInfo& frame);
  bool TakePicture(GstClockTime wait);
  void Fail(const std::string& why);
  void Teardown();

  std::string path_;
  GstElement* pipeline_ = nullptr;
  GstElement* src_ = nullptr;
  GstElement* sink_ = nullptr;
  int fed_ = 0;
  bool done_ = false;
  bool failed_ = false;
  int width_ = 0;
  int height_ = 0;
  std::string error_;
};

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_SNAPSHOT_H_
