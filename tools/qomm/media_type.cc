#include <gst/base/gsttypefindhelper.h>
#include <gst/gst.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "node/qo_media_facts.h"
#include "qomm.h"

namespace qomm {

namespace {

constexpr size_t kProbeBytes = 256 * 1024;

bool EndsWith(const std::string& s, const char* suffix) {
  size_t n = std::strlen(suffix);
  return s.size() >= n && strcasecmp(s.c_str() + s.size() - n, suffix) == 0;
}

}  // namespace

std::string TypeName(int type) {
  if (type == kTypeUnknown) return "unknown";
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
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || errno != 0 || v < -2147483647L - 1 || v > 2147483647L) return false;
  *type = static_cast<int>(v);
  return true;
}

int TypeFromFileName(const std::string& path) {
  if (EndsWith(path, ".h264") || EndsWith(path, ".264")) return kTypeH264;
  if (EndsWith(path, ".h265") || EndsWith(path, ".265") || EndsWith(path, ".hevc")) {
    return kTypeH265;
  }
  if (EndsWith(path, ".mjpeg") || EndsWith(path, ".mjpg") || EndsWith(path, ".jpeg") ||
      EndsWith(path, ".jpg")) {
    return kTypeMjpeg;
  }
  return kTypeUnknown;
}

int TypeFromContent(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = std::strerror(errno);
    return kTypeUnknown;
  }
  std::vector<char> head(kProbeBytes);
  in.read(head.data(), static_cast<std::streamsize>(head.size()));
  size_t n = static_cast<size_t>(in.gcount());
  if (n == 0) {
    *error = "the file is empty";
    return kTypeUnknown;
  }
  gst_init(nullptr, nullptr);
  GstBuffer* buffer = gst_buffer_new_memdup(head.data(), n);
  GstCaps* caps = gst_type_find_helper_for_buffer(nullptr, buffer, nullptr);
  gst_buffer_unref(buffer);
  if (caps == nullptr) return kTypeUnknown;
  int type = kTypeUnknown;
  const char* name = gst_structure_get_name(gst_caps_get_structure(caps, 0));
  if (std::strcmp(name, "video/x-h264") == 0) {
    type = kTypeH264;
  } else if (std::strcmp(name, "video/x-h265") == 0) {
    type = kTypeH265;
  } else if (std::strcmp(name, "image/jpeg") == 0) {
    type = kTypeMjpeg;
  }
  gst_caps_unref(caps);
  return type;
}

int DetectFileType(const std::string& path, std::string* error) {
  int type = TypeFromFileName(path);
  return type != kTypeUnknown ? type : TypeFromContent(path, error);
}

std::string CheckReadable(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || access(path.c_str(), R_OK) != 0) return std::strerror(errno);
  return S_ISDIR(st.st_mode) ? std::strerror(EISDIR) : "";
}

}  // namespace qomm
