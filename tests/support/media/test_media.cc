// Encodes the test streams in-process with gst_parse_launch and caches them
// in the build tree.
#include "test_media.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <sstream>

#ifndef QO_TEST_MEDIA_DIR
#error "QO_TEST_MEDIA_DIR must be defined by the build"
#endif

namespace qo {
namespace testmedia {
namespace {

// Serialises generation inside one process; other processes are handled by
// the write-then-rename scheme.
std::mutex g_generate_mutex;

bool FileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

bool EnsureDir(const std::string& dir) {
  if (mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST) return true;
  std::fprintf(stderr, "testmedia: cannot create %s\n", dir.c_str());
  return false;
}

std::string TempNameFor(const std::string& path) {
  static std::atomic_uint counter{0};
  std::ostringstream os;
  os << path << ".tmp." << getpid() << "." << counter++;
  return os.str();
}

const char* CodecTag(Codec codec) {
  switch (codec) {
    case Codec::kH264:
      return "h264";
    case Codec::kH265:
      return "h265";
    case Codec::kMjpeg:
      return "mjpeg";
  }
  return "unknown";
}

std::string EncoderDescription(const StreamParams& p) {
  std::ostringstream os;
  switch (p.codec) {
    case Codec::kH264: {
      // threads=1 keeps the encoder cheap on a loaded machine and makes slice
      // counts come from option-string only.
      os << "x264enc speed-preset=veryfast threads=1 b-adapt=false bframes=" << p.b_frames;
      if (p.key_int > 0) os << " key-int-max=" << p.key_int;
      if (p.bitrate_kbps > 0) os << " bitrate=" << p.bitrate_kbps;
      if (p.slices > 1) os << " option-string=\"slices=" << p.slices << "\"";
      break;
    }
    case Codec::kH265: {
      os << "x265enc speed-preset=veryfast";
      if (p.key_int > 0) os << " key-int-max=" << p.key_int;
      if (p.bitrate_kbps > 0) os << " bitrate=" << p.bitrate_kbps;
      os << " option-string=\"bframes=" << p.b_frames << ":pools=1:frame-threads=1\"";
      break;
    }
    case Codec::kMjpeg:
      os << "jpegenc quality=" << p.jpeg_quality;
      break;
  }
  return os.str();
}

std::string CacheName(const StreamParams& p) {
  std::ostringstream os;
  os << CodecTag(p.codec) << "_" << p.width << "x" << p.height << "_n" << p.frames << "_r"
     << p.fps_num << "-" << p.fps_den << "_b" << p.b_frames << "_s" << p.slices << "_k" << p.key_int
     << "_p" << p.pattern;
  if (p.codec == Codec::kMjpeg) os << "_q" << p.jpeg_quality;
  if (p.bitrate_kbps > 0) os << "_kb" << p.bitrate_kbps;
  os << (p.codec == Codec::kMjpeg ? ".mjpeg" : p.codec == Codec::kH265 ? ".h265" : ".h264");
  return os.str();
}

// Runs the pipeline until EOS or error. Returns false on error.
bool RunToEos(GstElement* pipeline, const std::string& what) {
  if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    std::fprintf(stderr, "testmedia: %s: cannot play\n", what.c_str());
    gst_element_set_state(pipeline, GST_STATE_NULL);
    return false;
  }
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* msg = gst_bus_timed_pop_filtered(
      bus, 600 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  bool ok = msg != nullptr && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
  if (msg != nullptr && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR) {
    GError* err = nullptr;
    gchar* dbg = nullptr;
    gst_message_parse_error(msg, &err, &dbg);
    std::fprintf(stderr, "testmedia: %s: %s (%s)\n", what.c_str(), err->message,
                 dbg != nullptr ? dbg : "");
    g_error_free(err);
    g_free(dbg);
  } else if (msg == nullptr) {
    std::fprintf(stderr, "testmedia: %s: no end of stream\n", what.c_str());
  }
  if (msg != nullptr) gst_message_unref(msg);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  return ok;
}

bool Encode(const StreamParams& p, const std::string& out) {
  std::ostringstream desc;
  desc << "videotestsrc num-buffers=" << p.frames << " pattern=" << p.pattern
       << " ! video/x-raw,format=I420,width=" << p.width << ",height=" << p.height
       << ",framerate=" << p.fps_num << "/" << p.fps_den << " ! " << EncoderDescription(p) << " ! "
       << ParserName(p.codec) << " ! " << ParserCaps(p.codec) << " ! filesink location=\"" << out
       << "\"";
  GError* err = nullptr;
  GstElement* pipeline = gst_parse_launch(desc.str().c_str(), &err);
  if (pipeline == nullptr || err != nullptr) {
    std::fprintf(stderr, "testmedia: cannot build \"%s\": %s\n", desc.str().c_str(),
                 err != nullptr ? err->message : "?");
    if (err != nullptr) g_error_free(err);
    if (pipeline != nullptr) gst_object_unref(pipeline);
    return false;
  }
  bool ok = RunToEos(pipeline, desc.str());
  gst_object_unref(pipeline);
  return ok;
}

// Generates into a private temporary file, then renames it into place so a
// reader never sees a half-written file.
template <typename Writer>
std::string Cached(const std::string& name, Writer write) {
  std::lock_guard<std::mutex> lock(g_generate_mutex);
  std::string dir = MediaDir();
  if (dir.empty()) return "";
  std::string path = dir + "/" + name;
  if (FileExists(path)) return path;
  std::string tmp = TempNameFor(path);
  if (!write(tmp) || !FileExists(tmp)) {
    unlink(tmp.c_str());
    return "";
  }
  if (rename(tmp.c_str(), path.c_str()) != 0) {
    std::fprintf(stderr, "testmedia: cannot rename %s\n", tmp.c_str());
    unlink(tmp.c_str());
    return "";
  }
  return path;
}

}  // namespace

const char* ParserName(Codec codec) {
  switch (codec) {
    case Codec::kH264:
      return "h264parse";
    case Codec::kH265:
      return "h265parse";
    case Codec::kMjpeg:
      return "jpegparse";
  }
  return "identity";
}

const char* ParserCaps(Codec codec) {
  switch (codec) {
    case Codec::kH264:
      return "video/x-h264,stream-format=byte-stream,alignment=au";
    case Codec::kH265:
      return "video/x-h265,stream-format=byte-stream,alignment=au";
    case Codec::kMjpeg:
      return "image/jpeg";
  }
  return "ANY";
}

std::string MediaDir() {
  std::string dir = QO_TEST_MEDIA_DIR;
  return EnsureDir(dir) ? dir : std::string();
}

std::string GenerateStream(const StreamParams& params) {
  gst_init(nullptr, nullptr);
  return Cached(CacheName(params), [&](const std::string& tmp) { return Encode(params, tmp); });
}

std::string GenerateRawBytes(size_t size, uint32_t seed) {
  std::ostringstream name;
  name << "raw_" << size << "_" << seed << ".bin";
  return Cached(name.str(), [&](const std::string& tmp) {
    std::mt19937 rng(seed);
    std::vector<char> bytes(size);
    for (auto& b : bytes) b = static_cast<char>(rng() & 0xff);
    std::ofstream f(tmp, std::ios::binary);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(f);
  });
}

std::vector<AccessUnit> ReferenceAccessUnits(const std::string& path, Codec codec) {
  gst_init(nullptr, nullptr);
  std::vector<AccessUnit> units;
  std::ostringstream desc;
  desc << "filesrc location=\"" << path << "\" ! " << ParserName(codec) << " ! "
       << ParserCaps(codec) << " ! appsink name=sink sync=false";
  GError* err = nullptr;
  GstElement* pipeline = gst_parse_launch(desc.str().c_str(), &err);
  if (pipeline == nullptr || err != nullptr) {
    std::fprintf(stderr, "testmedia: cannot build \"%s\": %s\n", desc.str().c_str(),
                 err != nullptr ? err->message : "?");
    if (err != nullptr) g_error_free(err);
    if (pipeline != nullptr) gst_object_unref(pipeline);
    return units;
  }
  GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  bool failed = gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE;
  while (!failed) {
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 60 * GST_SECOND);
    if (sample == nullptr) {
      failed = !gst_app_sink_is_eos(GST_APP_SINK(sink));
      break;
    }
    GstBuffer* buf = gst_sample_get_buffer(sample);
    AccessUnit au;
    au.pts = GST_BUFFER_PTS(buf);
    au.dts = GST_BUFFER_DTS(buf);
    au.key = !GST_BUFFER_FLAG_IS_SET(buf, GST_BUFFER_FLAG_DELTA_UNIT);
    GstMapInfo map;
    if (gst_buffer_map(buf, &map, GST_MAP_READ)) {
      au.data.assign(map.data, map.data + map.size);
      gst_buffer_unmap(buf, &map);
    }
    gst_sample_unref(sample);
    units.push_back(std::move(au));
  }
  // An error message on the bus means the parser gave up part way.
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
  if (msg != nullptr) {
    failed = true;
    gst_message_unref(msg);
  }
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
  if (failed) {
    std::fprintf(stderr, "testmedia: reading %s failed\n", path.c_str());
    units.clear();
  }
  return units;
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return {};
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

std::vector<std::vector<uint8_t>> SplitIntoPackets(const std::vector<uint8_t>& bytes,
                                                   size_t chunk) {
  std::vector<std::vector<uint8_t>> packets;
  if (chunk == 0) return packets;
  for (size_t off = 0; off < bytes.size(); off += chunk) {
    size_t n = std::min(chunk, bytes.size() - off);
    packets.emplace_back(bytes.begin() + off, bytes.begin() + off + n);
  }
  return packets;
}

}  // namespace testmedia
}  // namespace qo
