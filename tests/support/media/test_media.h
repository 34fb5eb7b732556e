// Test streams encoded at test time with GStreamer's own encoders, cached in
// the build tree, and the parser's own access units to compare against. Any
// thread may call these; they call gst_init themselves.
#ifndef QO_TESTS_SUPPORT_MEDIA_TEST_MEDIA_H_
#define QO_TESTS_SUPPORT_MEDIA_TEST_MEDIA_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qo {
namespace testmedia {

enum class Codec { kH264, kH265, kMjpeg };  // Annex B byte streams; concatenated JPEGs

struct StreamParams {
  Codec codec = Codec::kH264;
  int width = 320, height = 240;
  int frames = 30;       // pictures encoded, at 30 frames/s
  int b_frames = 0;      // H.264/H.265: consecutive B-frames (DTS and PTS then differ)
  int slices = 1;        // H.264: slices per picture
  int key_int = 0;       // H.264/H.265: most pictures between key frames (0: encoder default)
  int pattern = 18;      // videotestsrc "pattern": 18 moves (frames of varying size), 1 is snow
  int bitrate_kbps = 0;  // H.264/H.265 (0: encoder default)
};

// One access unit (or JPEG picture) as the parser outputs it.
struct AccessUnit {
  std::vector<uint8_t> data;
  uint64_t pts = UINT64_MAX, dts = UINT64_MAX;  // GST_CLOCK_TIME_NONE when unset
};

// The encoded stream's path, or "" on failure (the reason goes to stderr).
std::string GenerateStream(const StreamParams& params);
// A file of `size` pseudo-random bytes from `seed`: garbage for a parser.
std::string GenerateRawBytes(size_t size, uint32_t seed = 1);
// `filesrc ! <parser> ! <caps> ! appsink` to the end; empty on failure.
std::vector<AccessUnit> ReferenceAccessUnits(const std::string& path, Codec codec);
// Whole file contents; empty when it cannot be read.
std::vector<uint8_t> ReadFile(const std::string& path);

}  // namespace testmedia
}  // namespace qo

#endif  // QO_TESTS_SUPPORT_MEDIA_TEST_MEDIA_H_
