// Data path of the file decoder: encoded files cut into packets of several
// sizes must come out as exactly the access units GStreamer's own parser
// chain gives for the same file, with every packet released exactly once.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "file_in_test_util.h"
#include "test_media.h"

namespace qo {
namespace filein_test {
namespace {

using testmedia::Codec;
using testmedia::StreamParams;

enum class Kind { kH264BFrames, kH264Slices, kH265, kMjpeg, kRaw };

struct Case {
  Kind kind;
  size_t packet;
};

StreamParams ParamsFor(Kind kind) {
  StreamParams p;
  p.frames = 24;
  switch (kind) {
    case Kind::kH264BFrames:
      p.b_frames = 2;
      p.key_int = 12;
      break;
    case Kind::kH264Slices:
      p.slices = 4;
      break;
    case Kind::kH265:
      p.codec = Codec::kH265;
      p.b_frames = 2;
      break;
    case Kind::kMjpeg:
      p.codec = Codec::kMjpeg;
      p.width = 176;
      p.height = 144;
      p.frames = 12;
      break;
    case Kind::kRaw:
      break;
  }
  return p;
}

int StreamTypeFor(Kind kind) {
  switch (kind) {
    case Kind::kH264BFrames:
    case Kind::kH264Slices:
      return 31;
    case Kind::kH265:
      return 32;
    case Kind::kMjpeg:
      return 33;
    case Kind::kRaw:
      return 0;
  }
  return -1;
}

std::string KindName(Kind kind) {
  switch (kind) {
    case Kind::kH264BFrames:
      return "H264BFrames";
    case Kind::kH264Slices:
      return "H264Slices";
    case Kind::kH265:
      return "H265";
    case Kind::kMjpeg:
      return "Mjpeg";
    case Kind::kRaw:
      return "Raw";
  }
  return "?";
}

void PrintTo(const Case& c, std::ostream* os) { *os << KindName(c.kind) << "/" << c.packet; }

// Minimal Exp-Golomb reader over the first bytes of a slice header (the
// fields read come before any emulation-prevention byte can occur).
struct BitReader {
  const uint8_t* p;
  size_t n;
  size_t bit = 0;
  int Bit() {
    if (bit / 8 >= n) return 0;
    int b = (p[bit / 8] >> (7 - bit % 8)) & 1;
    ++bit;
    return b;
  }
  unsigned Ue() {
    int zeros = 0;
    while (Bit() == 0 && zeros < 31) ++zeros;
    unsigned v = 0;
    for (int i = 0; i < zeros; ++i) v = (v << 1) | Bit();
    return (1u << zeros) - 1 + v;
  }
};

// Counts, over an H.264 byte stream, B slices and the largest number of
// slices in one access unit; proves the fixtures exercise what they claim.
void H264SliceStats(const std::vector<testmedia::AccessUnit>& aus, int* b_slices, int* max_slices) {
  *b_slices = 0;
  *max_slices = 0;
  for (const auto& au : aus) {
    const auto& d = au.data;
    int slices = 0;
    for (size_t i = 0; i + 4 < d.size(); ++i) {
      if (d[i] != 0 || d[i + 1] != 0 || d[i + 2] != 1) continue;
      int type = d[i + 3] & 0x1f;
      if (type != 1 && type != 5) continue;
      ++slices;
      BitReader br{&d[i + 4], d.size() - i - 4};
      br.Ue();  // first_mb_in_slice
      if (br.Ue() % 5 == 1) ++*b_slices;
    }
    if (slices > *max_slices) *max_slices = slices;
  }
}

class FileInRoundTrip : public ::testing::TestWithParam<Case> {};

TEST_P(FileInRoundTrip, FramesMatchParserReference) {
  const Case c = GetParam();
  const bool raw = c.kind == Kind::kRaw;
  const int type = StreamTypeFor(c.kind);
  // Raw bytes come back one frame per packet: keep the 1-byte case short.
  std::string path = raw ? testmedia::GenerateRawBytes(c.packet == 1 ? 3000 : 300000, 7)
                         : testmedia::GenerateStream(ParamsFor(c.kind));
  ASSERT_FALSE(path.empty());
  std::vector<uint8_t> file = testmedia::ReadFile(path);
  ASSERT_FALSE(file.empty());

  std::vector<testmedia::AccessUnit> ref;
  if (!raw) {
    ref = testmedia::ReferenceAccessUnits(path, ParamsFor(c.kind).codec);
    ASSERT_FALSE(ref.empty());
    if (c.kind == Kind::kH264BFrames || c.kind == Kind::kH264Slices) {
      int b_slices = 0, max_slices = 0;
      H264SliceStats(ref, &b_slices, &max_slices);
      if (c.kind == Kind::kH264BFrames) {
        EXPECT_GT(b_slices, 0) << "fixture has no B slices";
      } else {
        EXPECT_GE(max_slices, 4) << "fixture has one slice per picture";
      }
    }
  }

  Packets packets = MakePackets(testmedia::SplitIntoPackets(file, c.packet));
  auto eos = MakeEosPacket();
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  qo_VideoFileCfg(h, "stream-type", type);
  qo_VideoFileCfg(h, "width", 64);
  qo_VideoFileCfg(h, "height", 48);
  ASSERT_EQ(qo_VideoFileStart(h), 0);

  DrainResult got;
  {
    Feeder feeder(h, &packets, eos.get());
    got = Drain(h);
    feeder.Join();
    EXPECT_EQ(feeder.failures(), 0);
  }
  EXPECT_TRUE(got.eos) << "a pull timed out before end of stream";
  EXPECT_EQ(qo_VideoFileStop(h), 0);
  qo_VideoFileClose(h);

  if (raw) {
    // Pass-through: one frame per packet, bytes unchanged, no caps so the
    // configured size is reported.
    ASSERT_EQ(got.frames.size(), packets.size());
    std::vector<uint8_t> joined;
    for (const auto& f : got.frames) {
      joined.insert(joined.end(), f.data.begin(), f.data.end());
      EXPECT_EQ(f.width, 64);
      EXPECT_EQ(f.height, 48);
    }
    EXPECT_EQ(joined, file);
  } else {
    ASSERT_EQ(got.frames.size(), ref.size());
    for (size_t i = 0; i < ref.size(); ++i) {
      ASSERT_EQ(got.frames[i].data, ref[i].data) << "access unit " << i;
      const Frame& f = got.frames[i];
      EXPECT_EQ(f.format, type);
      if (type == 31 || type == 32) {
        // The parser's caps carry the coded size; it wins over 64x48.
        EXPECT_EQ(f.width, ParamsFor(c.kind).width);
        EXPECT_EQ(f.height, ParamsFor(c.kind).height);
        EXPECT_EQ(f.time_stamp, ref[i].dts) << "access unit " << i;
      } else {
        // jpegparse fed in small pieces may not learn the size: then the
        // configured one, never a zero size.
        bool coded = f.width == ParamsFor(c.kind).width && f.height == ParamsFor(c.kind).height;
        bool configured = f.width == 64 && f.height == 48;
        EXPECT_TRUE(coded || configured) << f.width << "x" << f.height;
      }
    }
  }

  for (size_t i = 0; i < packets.size(); ++i) {
    ASSERT_EQ(packets[i]->frees.load(), 1) << "packet " << i;
  }
  EXPECT_EQ(eos->frees.load(), 1);
}

std::vector<Case> Cases() {
  std::vector<Case> cases;
  for (Kind k : {Kind::kH264BFrames, Kind::kH264Slices, Kind::kH265, Kind::kMjpeg, Kind::kRaw}) {
    for (size_t packet : {size_t{1}, size_t{1000}, size_t{256 * 1024}}) {
      cases.push_back({k, packet});
    }
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Streams, FileInRoundTrip, ::testing::ValuesIn(Cases()),
                         [](const ::testing::TestParamInfo<Case>& param_info) {
                           return KindName(param_info.param.kind) + "_" +
                                  std::to_string(param_info.param.packet);
                         });

}  // namespace
}  // namespace filein_test
}  // namespace qo
