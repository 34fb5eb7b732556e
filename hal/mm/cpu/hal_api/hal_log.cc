#include "hal_log.h"

#include <glib.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "hal_mm_file_in.h"
#include "hal_mm_video_in.h"

namespace {

void StdoutSink(const char* text, void*) {
  std::fputs(text, stdout);
  // Flushed at once: lines stay in order with other writers of the stream.
  std::fflush(stdout);
}

struct Sink {
  std::mutex mu;  // also keeps the texts of one channel from interleaving
  qo_LogSinkFunction fn = StdoutSink;
  void* user_data = nullptr;
};

Sink& SinkOf(HalChannel channel) {
  static Sink sinks[2];
  return sinks[static_cast<int>(channel)];
}

}  // namespace

void HalSetSink(HalChannel channel, qo_LogSinkFunction sink, void* user_data) {
  Sink& s = SinkOf(channel);
  std::lock_guard<std::mutex> lock(s.mu);
  s.fn = sink ? sink : StdoutSink;
  s.user_data = sink ? user_data : nullptr;
}

void HalEmit(HalChannel channel, const char* text) {
  Sink& s = SinkOf(channel);
  std::lock_guard<std::mutex> lock(s.mu);
  s.fn(text, s.user_data);
}

void HalEmitf(HalChannel channel, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char* text = g_strdup_vprintf(fmt, ap);
  va_end(ap);
  HalEmit(channel, text);
  g_free(text);
}

void qo_VideoStreamSetLogSink(qo_LogSinkFunction sink, void* user_data) {
  HalSetSink(HalChannel::kVideoStream, sink, user_data);
}

void qo_VideoFileSetLogSink(qo_LogSinkFunction sink, void* user_data) {
  HalSetSink(HalChannel::kVideoFile, sink, user_data);
}
