// Test streams made at test time from videotestsrc with the system's GStreamer
// encoders, plus the parser's view of them as ground truth.
//
// Link the static library `qotestmedia`. Files are cached under
// <build dir>/test-media/ keyed by their parameters, so each distinct stream
// is encoded once per build tree; concurrent test processes are safe (each
// writes a private temporary file and renames it into place).
//
// Typical use:
//   qo::testmedia::StreamParams p;            // 320x240, 30 frames, H.264
//   p.b_frames = 2;
//   std::string path = qo::testmedia::GenerateStream(p);   // "" on failure
//   auto ref = qo::testmedia::ReferenceAccessUnits(path, p.codec);
//
// Every function may be called from any thread; it calls gst_init itself.
#ifndef QO_TESTS_SUPPORT_MEDIA_TEST_MEDIA_H_
#define QO_TESTS_SUPPORT_MEDIA_TEST_MEDIA_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qo {
namespace testmedia {

enum class Codec {
  kH264,   // Annex B byte stream, x264enc
  kH265,   // Annex B byte stream, x265enc
  kMjpeg,  // concatenated baseline JPEG pictures, jpegenc
};

struct StreamParams {
  Codec codec = Codec::kH264;
  int width = 320;
  int height = 240;
  int frames = 30;  // pictures encoded
  int fps_num = 30;
  int fps_den = 1;
  // H.264/H.265: number of consecutive B-frames (0 = none). With B-frames the
  // parser's DTS and PTS differ.
  int b_frames = 0;
  // H.264 only: slices per picture (> 1 gives several VCL NAL units per
  // access unit).
  int slices = 1;
  // H.264/H.265: maximum distance between key frames (0 = encoder default).
  int key_int = 0;
  // videotestsrc "pattern" (0 = smpte bars, 18 = ball, ...). A moving
  // pattern gives frames of varying size.
  int pattern = 18;
  // jpegenc "quality" for MJPEG.
  int jpeg_quality = 85;
  // H.264/H.265 target bit rate in kbit/s (0 = encoder default). Pair a high
  // rate with a busy pattern (1 = snow) for frames of realistic size.
  int bitrate_kbps = 0;
};

// One access unit (or JPEG picture) as the parser outputs it.
struct AccessUnit {
  std::vector<uint8_t> data;
  uint64_t pts = UINT64_MAX;  // GST_CLOCK_TIME_NONE when unset
  uint64_t dts = UINT64_MAX;
  bool key = false;  // not flagged DELTA_UNIT
};

// GStreamer element and caps strings for a codec, the same ones the file
// decoder layer uses after its parser: e.g. "h264parse" and
// "video/x-h264,stream-format=byte-stream,alignment=au".
const char* ParserName(Codec codec);
const char* ParserCaps(Codec codec);

// Directory holding the cached files (created on demand).
std::string MediaDir();

// Encodes the stream (cached) and returns its path, or "" on failure; the
// reason is printed to stderr.
std::string GenerateStream(const StreamParams& params);

// A file of `size` pseudo-random bytes from `seed` (cached). Not any codec:
// useful for pass-through and for garbage fed to a parser.
std::string GenerateRawBytes(size_t size, uint32_t seed = 1);

// Runs `filesrc location=path ! <parser> ! <caps> ! appsink` to the end and
// returns every access unit. Empty on failure (reason on stderr).
std::vector<AccessUnit> ReferenceAccessUnits(const std::string& path, Codec codec);

// Whole file contents; empty when it cannot be read.
std::vector<uint8_t> ReadFile(const std::string& path);

// Cuts `bytes` into consecutive chunks of at most `chunk` bytes.
std::vector<std::vector<uint8_t>> SplitIntoPackets(const std::vector<uint8_t>& bytes, size_t chunk);

}  // namespace testmedia
}  // namespace qo

#endif  // QO_TESTS_SUPPORT_MEDIA_TEST_MEDIA_H_
