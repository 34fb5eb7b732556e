// Stream types as the nodes number them (the pixel-format codes of their
// "stream-type" parameter), their names on the command line, and detection
// from file names and file contents.
#ifndef QO_TOOLS_QOMM_MEDIA_TYPE_H_
#define QO_TOOLS_QOMM_MEDIA_TYPE_H_

#include <string>

namespace qomm {

constexpr int kTypeUnknown = -1;
constexpr int kTypeH264 = 31;
constexpr int kTypeH265 = 32;
constexpr int kTypeMjpeg = 33;

// "h264", "h265", "mjpeg", a raw format name ("nv12", "yuyv", ...), the
// number itself for other codes, or "unknown" for -1.
std::string TypeName(int type);

// Parses a --type value: a name TypeName gives, "hevc"/"jpeg", or a number.
bool ParseType(const std::string& text, int* type);

// From the extension: .h264/.264, .h265/.265/.hevc, .mjpeg/.mjpg/.jpeg/.jpg;
// kTypeUnknown otherwise.
int TypeFromFileName(const std::string& path);

// Looks at the first bytes of the file with GStreamer's type finders:
// H.264, H.265 or JPEG, else kTypeUnknown. *error says why on a read error.
int TypeFromContent(const std::string& path, std::string* error);

// The extension first, then the content.
int DetectFileType(const std::string& path, std::string* error);

// Why a local file or device cannot be read, "" when it can.
std::string CheckReadable(const std::string& path);

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_MEDIA_TYPE_H_
