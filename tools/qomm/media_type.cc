#include <gst/base/gsttypefindhelper.h>
#include <gst/gst.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "qomm.h"

namespace qomm {

namespace {

constexpr size_t kProbeBytes = 256 * 1024;

// The encoded types by their file name extensions and GStreamer's caps names.
const struct {
  int type;
  const char* caps;
  std::vector<const char*> extensions;
} kEncodedTypes[] = {
    {QO_PIX_FMT_H264, "video/x-h264", {".h264", ".264"}},
    {QO_PIX_FMT_H265, "video/x-h265", {".h265", ".265", ".hevc"}},
    {QO_PIX_FMT_MJPEG, "image/jpeg", {".mjpeg", ".mjpg", ".jpeg", ".jpg"}},
};

}  // namespace

std::string TypeName(int type) {
  if (type == QO_PIX_FMT_NONE) return "unknown";
  if (type == QO_PIX_FMT_JPEG) return "jpeg";
  const qo::mm::StreamTypeFact* t = qo::mm::FindStreamType(type);
  return t != nullptr ? t->name : std::to_string(type);
}

bool ParseType(const std::string& text, int* type) {
  std::string name(text);
  for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  // "jpeg" on the command line means a motion-JPEG stream.
  if (name == "hevc" || name == "jpeg") name = name == "hevc" ? "h265" : "mjpeg";
  if (const qo::mm::StreamTypeFact* t = qo::mm::FindStreamType(name.c_str())) {
    *type = t->type;
    return true;
  }
  const char* end = text.data() + text.size();
  auto [stop, error] = std::from_chars(text.data(), end, *type);
  return error == std::errc() && stop == end;
}

int TypeFromContent(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = std::strerror(errno);
    return QO_PIX_FMT_NONE;
  }
  std::vector<char> head(kProbeBytes);
  in.read(head.data(), static_cast<std::streamsize>(head.size()));
  size_t n = static_cast<size_t>(in.gcount());
  if (n == 0) {
    *error = "the file is empty";
    return QO_PIX_FMT_NONE;
  }
  gst_init(nullptr, nullptr);
  g_autoptr(GstCaps) caps =
      gst_type_find_helper_for_data(nullptr, reinterpret_cast<guint8*>(head.data()), n, nullptr);
  const char* name = caps != nullptr ? gst_structure_get_name(gst_caps_get_structure(caps, 0)) : "";
  int type = QO_PIX_FMT_NONE;
  for (const auto& t : kEncodedTypes) {
    if (std::strcmp(name, t.caps) == 0) type = t.type;
  }
  return type;
}

int DetectFileType(const std::string& path, std::string* error) {
  const char* extension = std::strrchr(path.c_str(), '.');
  for (const auto& t : kEncodedTypes) {
    for (const char* e : t.extensions) {
      if (extension != nullptr && strcasecmp(extension, e) == 0) return t.type;
    }
  }
  return TypeFromContent(path, error);
}

std::string CheckReadable(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || access(path.c_str(), R_OK) != 0) return std::strerror(errno);
  return S_ISDIR(st.st_mode) ? std::strerror(EISDIR) : "";
}

}  // namespace qomm
