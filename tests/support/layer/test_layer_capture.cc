#include "test_layer_capture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "hal_mm_file_in.h"
#include "hal_mm_video_in.h"
#include "test_common.h"

namespace qo {
namespace testutil {

void* StartStream(const char* uri, int type, int transport) {
  qo_StrmHandle h = qo_VideoStreamOpen(uri);
  qo_VideoStreamCfg(h, "stream-type", type);
  if (transport >= 0) qo_VideoStreamCfg(h, "lower-trans-type", transport);
  EXPECT_EQ(qo_VideoStreamStart(h), 0) << uri;
  return h;
}

void KeepStream(void* handle) {
  static auto* kept = new std::vector<void*>();
  kept->push_back(handle);
}

LayerCapture::LayerCapture() {
  auto append = [](const char* text, void* self) {
    auto* capture = static_cast<LayerCapture*>(self);
    std::lock_guard<std::mutex> lock(capture->mutex_);
    capture->text_ += text;
  };
  qo_VideoStreamSetLogSink(append, this);
  qo_VideoFileSetLogSink(append, this);
}

std::string LayerCapture::Text() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return text_;
}

bool LayerCapture::WaitFor(const std::string& needle, int timeout_ms) const {
  return WaitUntil([&] { return Has(needle); }, timeout_ms);
}

std::string LayerCapture::Finish() {
  if (!finished_) {
    // Once the sinks are replaced no layer writes here any more.
    qo_VideoStreamSetLogSink(nullptr, nullptr);
    qo_VideoFileSetLogSink(nullptr, nullptr);
    finished_ = true;
    const std::string text = Text();
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
  }
  return Text();
}

}  // namespace testutil
}  // namespace qo
