#include "decoder.h"

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <cstring>
#include <stdexcept>
#include <utility>

namespace qopy {

namespace {

struct Chain {
  const char* codec;
  const char* caps;
  const char* elements;
};
constexpr Chain kChains[] = {
    {"h264", "video/x-h264", "h264parse name=parse ! avdec_h264"},
    {"h265", "video/x-h265", "h265parse name=parse ! avdec_h265"},
    {"mjpeg", "image/jpeg", "jpegparse name=parse ! jpegdec"},
};

void UnrefArray(gpointer p) { delete static_cast<qo::NDArray*>(p); }

}  // namespace

Picture::Picture(GstSample* sample) : sample_(sample) {
  GstVideoInfo info;
  if (gst_video_info_from_caps(&info, gst_sample_get_caps(sample_))) {
    width_ = GST_VIDEO_INFO_WIDTH(&info);
    height_ = GST_VIDEO_INFO_HEIGHT(&info);
    channels_ = static_cast<int>(GST_VIDEO_INFO_COMP_PSTRIDE(&info, 0));
  }
}

Picture::~Picture() { gst_sample_unref(sample_); }

bool Picture::CopyTo(uint8_t* out) const {
  GstVideoInfo info;
  GstVideoFrame frame;
  if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample_)) ||
      !gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample_), GST_MAP_READ)) {
    return false;
  }
  const auto* in = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
  const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
  const size_t row = static_cast<size_t>(width_) * static_cast<size_t>(channels_);
  for (int y = 0; y < height_; ++y) std::memcpy(out + row * y, in + stride * y, row);
  gst_video_frame_unmap(&frame);
  return true;
}

Decoder::Decoder(const std::string& codec, const std::string& out) {
  const Chain* chain = nullptr;
  for (const Chain& c : kChains) chain = codec == c.codec ? &c : chain;
  if (chain == nullptr)
    throw std::invalid_argument("codec must be h264, h265 or mjpeg, not " + codec);
  const char* format = out == "bgr"    ? "BGR"
                       : out == "rgb"  ? "RGB"
                       : out == "gray" ? "GRAY8"
                                       : nullptr;
  if (format == nullptr) throw std::invalid_argument("out must be bgr, rgb or gray, not " + out);
  gst_init(nullptr, nullptr);
  const std::string desc = std::string(chain->elements) +
                           " ! videoconvert ! video/x-raw,format=" + format +
                           " ! appsink name=sink sync=false";
  GError* err = nullptr;
  pipeline_ = gst_parse_launch(desc.c_str(), &err);
  if (err != nullptr) {
    const std::string why = err->message;
    g_error_free(err);
    if (pipeline_ != nullptr) gst_object_unref(pipeline_);
    throw std::runtime_error("cannot build the " + codec + " decoder (" + desc + "): " + why);
  }
  sink_ = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
  // Taken from the sink as they arrive, on the pushing thread: an appsink
  // holding samples would make end of stream wait for them to be pulled.
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = [](GstAppSink* sink, gpointer self) {
    if (GstSample* s = gst_app_sink_pull_sample(sink)) {
      static_cast<Decoder*>(self)->decoded_.push_back(std::make_unique<Picture>(s));
    }
    return GST_FLOW_OK;
  };
  gst_app_sink_set_callbacks(GST_APP_SINK(sink_), &callbacks, this, nullptr);
  GstElement* parser = gst_bin_get_by_name(GST_BIN(pipeline_), "parse");
  GstPad* parser_sink = gst_element_get_static_pad(parser, "sink");
  gst_object_unref(parser);
  src_ = gst_pad_new("src", GST_PAD_SRC);
  const bool linked = gst_pad_link(src_, parser_sink) == GST_PAD_LINK_OK;
  gst_object_unref(parser_sink);
  caps_ = gst_caps_from_string(chain->caps);
  if (!linked || gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    Release();
    throw std::runtime_error("cannot start the " + codec + " decoder");
  }
  gst_pad_set_active(src_, TRUE);
  gst_pad_push_event(src_, gst_event_new_stream_start("qosdkmm-decoder"));
  gst_pad_push_event(src_, gst_event_new_caps(caps_));
  StartSegment();
}

Decoder::~Decoder() { Release(); }

void Decoder::Release() {
  if (pipeline_ != nullptr) {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
    pipeline_ = nullptr;
  }
  if (sink_ != nullptr) gst_object_unref(sink_), sink_ = nullptr;
  if (src_ != nullptr) {
    gst_pad_set_active(src_, FALSE);
    gst_object_unref(src_);
    src_ = nullptr;
  }
  if (caps_ != nullptr) gst_caps_unref(caps_), caps_ = nullptr;
}

void Decoder::StartSegment() {
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  gst_pad_push_event(src_, gst_event_new_segment(&segment));
}

void Decoder::Decode(const uint8_t* data, size_t size, const qo::NDArray& array,
                     std::vector<std::unique_ptr<Picture>>* pictures) {
  GstBuffer* buffer = array.defined() ? gst_buffer_new_wrapped_full(
                                            GST_MEMORY_FLAG_READONLY, const_cast<uint8_t*>(data),
                                            size, 0, size, new qo::NDArray(array), UnrefArray)
                                      : gst_buffer_new_memdup(data, size);
  std::lock_guard<std::mutex> lock(mutex_);
  Push(buffer);
  TakeDecoded(pictures);
}

void Decoder::Flush(std::vector<std::unique_ptr<Picture>>* pictures) {
  std::lock_guard<std::mutex> lock(mutex_);
  // End of stream drains the decoder; a flush then readies it for more.
  gst_pad_push_event(src_, gst_event_new_eos());
  CheckBus();
  TakeDecoded(pictures);
  gst_pad_push_event(src_, gst_event_new_flush_start());
  gst_pad_push_event(src_, gst_event_new_flush_stop(TRUE));
  StartSegment();
}

void Decoder::Push(GstBuffer* buffer) {
  const GstFlowReturn flow = gst_pad_push(src_, buffer);
  try {
    CheckBus();
  } catch (...) {
    decoded_.clear();
    throw;
  }
  if (flow != GST_FLOW_OK && flow != GST_FLOW_EOS) {
    throw std::runtime_error(std::string("decoding failed: ") + gst_flow_get_name(flow));
  }
}

void Decoder::TakeDecoded(std::vector<std::unique_ptr<Picture>>* pictures) {
  for (auto& p : decoded_) pictures->push_back(std::move(p));
  decoded_.clear();
}

void Decoder::CheckBus() {
  // Every message is taken off, or state changes would pile up on the bus.
  GstBus* bus = gst_element_get_bus(pipeline_);
  std::string why;
  while (GstMessage* msg = gst_bus_pop(bus)) {
    if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR && why.empty()) {
      GError* err = nullptr;
      gst_message_parse_error(msg, &err, nullptr);
      why = err != nullptr ? err->message : "unknown error";
      if (err != nullptr) g_error_free(err);
    }
    gst_message_unref(msg);
  }
  gst_object_unref(bus);
  if (!why.empty()) throw std::runtime_error("decoding failed: " + why);
}

}  // namespace qopy
