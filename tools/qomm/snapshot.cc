#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include <cstdio>
#include <utility>

#include "node/qo_media_facts.h"
#include "qomm.h"

namespace qomm {

namespace {

// A decoder needs a key frame; a camera sends one at least every few seconds.
constexpr int kMaxFedFrames = 600;
constexpr GstClockTime kPullPerFrame = 20 * GST_MSECOND;
constexpr GstClockTime kDrainWait = 5 * GST_SECOND;

}  // namespace

Snapshot::Snapshot(std::string path) : path_(std::move(path)) {}

Snapshot::~Snapshot() { Teardown(); }

void Snapshot::Teardown() {
  if (pipeline_ == nullptr) return;
  gst_element_set_state(pipeline_, GST_STATE_NULL);
  gst_object_unref(src_);
  gst_object_unref(sink_);
  gst_object_unref(pipeline_);
  pipeline_ = src_ = sink_ = nullptr;
}

void Snapshot::Fail(const std::string& why) {
  failed_ = true;
  error_ = why;
  Teardown();
}

bool Snapshot::Build(const FrameInfo& frame) {
  std::string caps;
  std::string decode;
  // One decoding thread: a picture comes out as soon as it can be decoded;
  // pictures decoded without their reference frames (a stream joined
  // between key frames) are dropped.
  if (frame.format == QO_PIX_FMT_H264 || frame.format == QO_PIX_FMT_H265) {
    const std::string codec = TypeName(frame.format);
    caps = "video/x-" + codec + ",stream-format=byte-stream,alignment=au";
    decode = codec + "parse ! avdec_" + codec + " max-threads=1 output-corrupt=false";
  } else if (frame.format == QO_PIX_FMT_MJPEG) {
    caps = "image/jpeg,parsed=true";
    decode = "jpegdec";
  } else {
    const qo::mm::StreamTypeFact* fact = qo::mm::FindStreamType(frame.format);
    const char* raw = fact != nullptr ? fact->raw_format : nullptr;
    if (raw == nullptr || frame.width <= 0 || frame.height <= 0) {
      Fail("cannot decode pictures of type " + TypeName(frame.format));
      return false;
    }
    caps = std::string("video/x-raw,format=") + raw + ",width=" + std::to_string(frame.width) +
           ",height=" + std::to_string(frame.height) + ",framerate=0/1";
    decode = "identity";
  }
  std::string launch = "appsrc name=src format=time caps=\"" + caps + "\" ! " + decode +
                       " ! videoconvert ! video/x-raw,format=RGB ! pngenc ! "
                       "appsink name=sink sync=false";
  GError* err = nullptr;
  gst_init(nullptr, nullptr);
  pipeline_ = gst_parse_launch(launch.c_str(), &err);
  if (err != nullptr) {
    std::string why = std::string("cannot build the decoder: ") + err->message;
    g_error_free(err);
    if (pipeline_ != nullptr) gst_object_unref(pipeline_);
    pipeline_ = nullptr;
    Fail(why);
    return false;
  }
  src_ = gst_bin_get_by_name(GST_BIN(pipeline_), "src");
  sink_ = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
  if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    Fail("cannot start the decoder");
    return false;
  }
  return true;
}

bool Snapshot::TakePicture(GstClockTime wait) {
  GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink_), wait);
  if (sample == nullptr) return false;
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  GstMapInfo map;
  bool written = false;
  if (buffer != nullptr && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    FILE* f = fopen(path_.c_str(), "wb");
    if (f != nullptr) {
      written = fwrite(map.data, 1, map.size, f) == map.size;
      written = (fclose(f) == 0) && written;
    }
    gst_buffer_unmap(buffer, &map);
  }
  GstCaps* caps = gst_sample_get_caps(sample);
  if (caps != nullptr) {
    const GstStructure* s = gst_caps_get_structure(caps, 0);
    gst_structure_get_int(s, "width", &width_);
    gst_structure_get_int(s, "height", &height_);
  }
  gst_sample_unref(sample);
  if (!written) {
    Fail("cannot write " + path_);
    return false;
  }
  done_ = true;
  Teardown();
  return true;
}

bool Snapshot::Feed(const FrameInfo& frame) {
  if (done_ || failed_ || frame.status != 0 || frame.data == nullptr || frame.bytes == 0) {
    return done_;
  }
  if (pipeline_ == nullptr && !Build(frame)) return false;
  if (fed_ >= kMaxFedFrames) return false;
  fed_++;
  GstBuffer* buffer = gst_buffer_new_memdup(frame.data, frame.bytes);
  if (gst_app_src_push_buffer(GST_APP_SRC(src_), buffer) != GST_FLOW_OK) {
    Fail("the decoder refused the stream");
    return false;
  }
  return TakePicture(kPullPerFrame);
}

bool Snapshot::Finish() {
  if (done_ || failed_) return done_;
  if (pipeline_ == nullptr) {
    Fail("no frame arrived");
    return false;
  }
  gst_app_src_end_of_stream(GST_APP_SRC(src_));
  if (TakePicture(kDrainWait) || failed_) return done_;
  Fail("no picture could be decoded from the first " + std::to_string(fed_) + " frames");
  return false;
}

}  // namespace qomm
