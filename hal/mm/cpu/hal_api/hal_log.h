// The diagnostics channel of the two C layers: one replaceable sink per
// layer, standard output by default. Internal to the library.
#ifndef HAL_LOG_H_
#define HAL_LOG_H_

#include "hal_mm_video_common.h"

enum class HalChannel { kVideoStream = 0, kVideoFile = 1 };

void HalSetSink(HalChannel channel, qo_LogSinkFunction sink, void* user_data);
// Hands text, exactly as it would be printed, to the channel's sink.
void HalEmit(HalChannel channel, const char* text);
void HalEmitf(HalChannel channel, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

#endif  // HAL_LOG_H_
