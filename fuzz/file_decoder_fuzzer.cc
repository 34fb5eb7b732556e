// libFuzzer target for the elementary-stream file decoder layer: arbitrary
// bytes are cut into packets and pushed through qo_VideoFileOpen / Cfg /
// Start / PutStream / GetFrame / FrameFree / Stop / Close, with a second
// thread pulling frames as the file input node does.
//
// Input layout:
//   byte 0      stream type: 0 -> 31 (H.264), 1 -> 32 (H.265), 2 -> 33
//               (MJPEG), 3 -> 8 (pass-through, with "size", "width" and
//               "height" configured); only the low two bits count
//   bytes 1-2   largest packet size, little endian, 1 to 65536
//   bytes 3-    the stream; packets take the largest size, half of it and a
//               third of it in turn, so splits fall at varied offsets
#include <gst/gst.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "hal_mm_file_in.h"

namespace {

constexpr int kTypes[4] = {31, 32, 33, 8};

void FreePacket(void* priv) {
  qo_VideoStream* packet = static_cast<qo_VideoStream*>(priv);
  std::free(packet->stream.data);
  delete packet;
}

qo_VideoStream* NewPacket(const uint8_t* data, size_t size, bool eos) {
  qo_VideoStream* packet = new qo_VideoStream();
  // malloc(0) may return NULL, which the layer refuses: keep one byte.
  packet->stream.data = static_cast<uint8_t*>(std::malloc(size > 0 ? size : 1));
  if (size > 0) std::memcpy(packet->stream.data, data, size);
  packet->stream.size = static_cast<int32_t>(size);
  packet->stream.eos = eos ? 1 : 0;
  packet->priv = packet;
  packet->free_func = FreePacket;
  return packet;
}

// Pulls until end of stream; once the feeder is done, a pull time-out also
// ends it (a parser that gave up on the stream never sends the end).
void Pull(qo_VideoFileHandle h, const std::atomic<bool>* fed) {
  for (;;) {
    qo_StreamInfo frame = {};
    qo_VideoFileGetFrame(h, &frame, 1);
    if (frame.data != nullptr) {
      // Touch the whole frame: its size must match its memory.
      volatile uint8_t sink = 0;
      for (int32_t i = 0; i < frame.size; i += 64) sink ^= frame.data[i];
      if (frame.size > 0) sink ^= frame.data[frame.size - 1];
      (void)sink;
      qo_VideoFileFrameFree(&frame);
      continue;
    }
    if (frame.eos != 0 || fed->load()) return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Quiet and once: the layer calls gst_init on every open.
  setenv("GST_DEBUG", "0", 0);
  gst_init(nullptr, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const int type = kTypes[data[0] & 3];
  const size_t largest = 1 + (static_cast<size_t>(data[1]) | static_cast<size_t>(data[2]) << 8);
  data += 3;
  size -= 3;

  qo_VideoFileHandle h = qo_VideoFileOpen();
  if (h == nullptr) return 0;
  if (type == 8) {
    qo_VideoFileCfg(h, "size", static_cast<int>(largest));
    qo_VideoFileCfg(h, "width", 64);
    qo_VideoFileCfg(h, "height", 48);
  }
  qo_VideoFileCfg(h, "stream-type", type);
  if (qo_VideoFileStart(h) != 0) {
    qo_VideoFileClose(h);
    return 0;
  }

  std::atomic<bool> fed{false};
  std::thread puller(Pull, h, &fed);
  size_t offset = 0;
  for (unsigned n = 0; offset < size; ++n) {
    const size_t cut = std::min(size - offset, std::max<size_t>(1, largest / (1 + n % 3)));
    qo_VideoStream* packet = NewPacket(data + offset, cut, false);
    int r;
    while ((r = qo_VideoFilePutStream(h, packet, 1)) > 0) {
    }
    // 0: the layer owns the packet; -1: it has released it.
    if (r < 0) break;
    offset += cut;
  }
  qo_VideoFilePutStream(h, NewPacket(nullptr, 0, true), 1);
  fed = true;
  puller.join();
  qo_VideoFileStop(h);
  qo_VideoFileClose(h);
  return 0;
}
