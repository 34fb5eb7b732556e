#include "test_media.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <sstream>

namespace qo {
namespace testmedia {
namespace {

const char* Parser(Codec codec) {
  return codec == Codec::kH264   ? "h264parse ! video/x-h264,stream-format=byte-stream,alignment=au"
         : codec == Codec::kH265 ? "h265parse ! video/x-h265,stream-format=byte-stream,alignment=au"
                                 : "jpegparse ! image/jpeg";
}

GstElement* Launch(const std::string& desc) {
  gst_init(nullptr, nullptr);
  GError* err = nullptr;
  GstElement* pipeline = gst_parse_launch(desc.c_str(), &err);
  if (err != nullptr) {
    std::fprintf(stderr, "testmedia: cannot build \"%s\": %s\n", desc.c_str(), err->message);
    g_error_free(err);
    if (pipeline != nullptr) gst_object_unref(pipeline);
    return nullptr;
  }
  return pipeline;
}

// Plays until the end; false on an error message (or none of both).
bool PlayToEos(GstElement* pipeline) {
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* msg = gst_bus_timed_pop_filtered(
      bus, 600 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  const bool ok = msg != nullptr && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
  if (msg != nullptr) gst_message_unref(msg);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return ok;
}

// Writes through write(tmp) to a private name, then renames into place so
// that a reader in another process never sees half a file.
template <typename Writer>
std::string Cached(const std::string& name, Writer write) {
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  mkdir(QO_TEST_MEDIA_DIR, 0755);
  const std::string path = std::string(QO_TEST_MEDIA_DIR) + "/" + name;
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && st.st_size > 0) return path;
  const std::string tmp = path + ".tmp." + std::to_string(getpid());
  if (write(tmp) && rename(tmp.c_str(), path.c_str()) == 0) return path;
  std::fprintf(stderr, "testmedia: cannot make %s\n", path.c_str());
  unlink(tmp.c_str());
  return "";
}

}  // namespace

std::string GenerateStream(const StreamParams& p) {
  std::ostringstream enc, name;
  if (p.codec == Codec::kMjpeg) {
    enc << "jpegenc quality=85";
  } else {
    // One thread keeps the encoders cheap on a loaded machine.
    const bool h264 = p.codec == Codec::kH264;
    enc << (h264 ? "x264enc threads=1 b-adapt=false bframes=" + std::to_string(p.b_frames)
                 : std::string("x265enc"))
        << " speed-preset=veryfast";
    if (p.key_int > 0) enc << " key-int-max=" << p.key_int;
    if (p.bitrate_kbps > 0) enc << " bitrate=" << p.bitrate_kbps;
    if (h264 && p.slices > 1) enc << " option-string=\"slices=" << p.slices << "\"";
    if (!h264) enc << " option-string=\"bframes=" << p.b_frames << ":pools=1:frame-threads=1\"";
  }
  name << static_cast<int>(p.codec) << "_" << p.width << "x" << p.height << "_n" << p.frames << "_b"
       << p.b_frames << "_s" << p.slices << "_k" << p.key_int << "_p" << p.pattern << "_kb"
       << p.bitrate_kbps << ".es";
  return Cached(name.str(), [&](const std::string& tmp) {
    std::ostringstream desc;
    desc << "videotestsrc num-buffers=" << p.frames << " pattern=" << p.pattern
         << " ! video/x-raw,format=I420,width=" << p.width << ",height=" << p.height
         << ",framerate=30/1 ! " << enc.str() << " ! " << Parser(p.codec)
         << " ! filesink location=\"" << tmp << "\"";
    GstElement* pipeline = Launch(desc.str());
    return pipeline != nullptr && PlayToEos(pipeline);
  });
}

std::string GenerateRawBytes(size_t size, uint32_t seed) {
  const std::string name = "raw_" + std::to_string(size) + "_" + std::to_string(seed) + ".bin";
  return Cached(name, [&](const std::string& tmp) {
    std::mt19937 rng(seed);
    std::string bytes(size, '\0');
    for (char& b : bytes) b = static_cast<char>(rng());
    return static_cast<bool>(std::ofstream(tmp, std::ios::binary) << bytes);
  });
}

std::vector<AccessUnit> ReferenceAccessUnits(const std::string& path, Codec codec) {
  std::vector<AccessUnit> units;
  GstElement* pipeline = Launch("filesrc location=\"" + path + "\" ! " + Parser(codec) +
                                " ! appsink name=sink sync=false");
  if (pipeline == nullptr) return units;
  GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  while (GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 60 * GST_SECOND)) {
    GstBuffer* buf = gst_sample_get_buffer(sample);
    GstMapInfo map;
    gst_buffer_map(buf, &map, GST_MAP_READ);
    units.push_back({{map.data, map.data + map.size}, GST_BUFFER_PTS(buf), GST_BUFFER_DTS(buf)});
    gst_buffer_unmap(buf, &map);
    gst_sample_unref(sample);
  }
  // Stopped short of the end, or the parser gave up part way: no reference.
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* error = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
  if (error != nullptr || !gst_app_sink_is_eos(GST_APP_SINK(sink))) {
    std::fprintf(stderr, "testmedia: reading %s failed\n", path.c_str());
    units.clear();
  }
  if (error != nullptr) gst_message_unref(error);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
  return units;
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

}  // namespace testmedia
}  // namespace qo
