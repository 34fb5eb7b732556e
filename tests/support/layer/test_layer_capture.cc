#include "test_layer_capture.h"

#include <cstdio>

#include "hal_mm_file_in.h"
#include "hal_mm_video_in.h"
#include "test_common.h"

namespace qo {
namespace testutil {

namespace {

std::mutex g_mutex;  // guards g_innermost and the order of captures
LayerCapture* g_innermost = nullptr;

// Points both layers at capture, or at standard output for null.
void Route(LayerCapture* capture, qo_LogSinkFunction sink) {
  qo_VideoStreamSetLogSink(capture != nullptr ? sink : nullptr, capture);
  qo_VideoFileSetLogSink(capture != nullptr ? sink : nullptr, capture);
}

}  // namespace

LayerCapture::LayerCapture() {
  std::lock_guard<std::mutex> lock(g_mutex);
  outer_ = g_innermost;
  g_innermost = this;
  Route(this, Append);
}

void LayerCapture::Append(const char* text, void* self) {
  auto* capture = static_cast<LayerCapture*>(self);
  std::lock_guard<std::mutex> lock(capture->mutex_);
  capture->text_ += text;
}

std::string LayerCapture::Text() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return text_;
}

bool LayerCapture::WaitFor(const std::string& needle, int timeout_ms) const {
  return WaitUntil([&] { return Has(needle); }, timeout_ms);
}

std::string LayerCapture::Finish() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (finished_) return Text();
  finished_ = true;
  // Once the sinks are replaced no layer writes here any more.
  if (g_innermost == this) {
    g_innermost = outer_;
    Route(outer_, Append);
  }
  for (LayerCapture* c = g_innermost; c != nullptr; c = c->outer_) {
    if (c->outer_ == this) c->outer_ = outer_;  // finished out of order
  }
  // The echo goes where the layers would have written without this capture.
  const std::string text = Text();
  if (outer_ != nullptr) {
    Append(text.c_str(), outer_);
  } else {
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
  }
  return text;
}

}  // namespace testutil
}  // namespace qo
