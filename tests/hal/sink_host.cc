// A host program that runs both C layers on one H.264 file, with its own
// sinks for their texts (argument "sink": they go to standard error, not
// standard output) or without (the layers print to standard output).
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hal_mm_file_in.h"
#include "hal_mm_video_in.h"

namespace {

std::mutex g_mu;
std::string g_texts;

void Collect(const char* text, void*) {
  std::lock_guard<std::mutex> lock(g_mu);
  g_texts += text;
}

void PlayStream(const std::string& path) {
  const std::string uri = "file://" + path;  // the layer may keep the pointer
  qo_StrmHandle h = qo_VideoStreamOpen(uri.c_str());
  qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_H264);
  if (qo_VideoStreamStart(h) != 0) return;
  for (qo_StreamInfo info{}; qo_VideoStreamGetFrame(h, &info, 3), info.data != nullptr; info = {})
    qo_VideoStreamFrameFree(&info);
  qo_VideoStreamStop(h);
  qo_VideoStreamClose(h);
}

void Decode(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
  qo_VideoFileHandle h = qo_VideoFileOpen();
  qo_VideoFileCfg(h, "size", 4096);
  if (qo_VideoFileStart(h) != 0) return;
  // A decoder is fed and emptied at once, as a host's two threads do.
  std::thread puller([h] {
    for (qo_StreamInfo info{}; qo_VideoFileGetFrame(h, &info, 3), info.data != nullptr; info = {})
      qo_VideoFileFrameFree(&info);
  });
  for (size_t at = 0;; at += 4096) {
    // The last packet, with no bytes, is the end of the stream.
    const size_t n = at < bytes.size() ? std::min<size_t>(4096, bytes.size() - at) : 0;
    auto* packet = new qo_VideoStream{};
    packet->stream.data = n ? bytes.data() + at : nullptr;
    packet->stream.size = static_cast<int32_t>(n);
    packet->stream.eos = n == 0;
    packet->priv = packet;
    packet->free_func = [](void* p) { delete static_cast<qo_VideoStream*>(p); };
    if (qo_VideoFilePutStream(h, packet, 0) != 0 || n == 0) break;
  }
  puller.join();
  qo_VideoFileStop(h);
  qo_VideoFileClose(h);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const bool sink = argc > 2 && std::string(argv[2]) == "sink";
  if (sink) {
    qo_VideoStreamSetLogSink(Collect, nullptr);
    qo_VideoFileSetLogSink(Collect, nullptr);
  }
  PlayStream(argv[1]);
  Decode(argv[1]);
  if (sink) std::fputs(g_texts.c_str(), stderr);
  return 0;
}
