// File decoder layer: access units against GStreamer's own parser chain at
// several packet sizes, bad packets and end of stream; every packet is
// released exactly once. Flow control, stop and a failed start are in the
// lifecycle sweep (tests/reliability).
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <ostream>
#include <thread>

#include "hal_mm_file_in.h"
#include "test_common.h"
#include "test_layer_capture.h"
#include "test_media.h"

namespace qo {
namespace {

namespace media = testmedia;

// A packet whose bytes stay with the test; the layer's releases are counted.
struct Packet {
  explicit Packet(std::vector<uint8_t> b, bool eos = false) : bytes(std::move(b)) {
    vs.stream.data = bytes.data();
    vs.stream.size = static_cast<int32_t>(bytes.size());
    vs.stream.eos = eos;
    vs.priv = this;
    vs.free_func = [](void* p) { static_cast<Packet*>(p)->frees++; };
  }
  qo_VideoStream vs{};
  std::vector<uint8_t> bytes;
  std::atomic<int> frees{0};
};
using Packets = std::vector<std::unique_ptr<Packet>>;

// Pushes the file in packets of `size` bytes and then the end from its own
// thread, retrying on time-outs as the file node does.
std::thread Feed(qo_VideoFileHandle h, const std::vector<uint8_t>& file, size_t size,
                 Packets* out) {
  for (size_t at = 0; at < file.size(); at += size)
    out->push_back(std::make_unique<Packet>(
        std::vector<uint8_t>(file.begin() + at, file.begin() + std::min(file.size(), at + size))));
  out->push_back(std::make_unique<Packet>(std::vector<uint8_t>(), true));
  return std::thread([h, out] {
    for (auto& p : *out) {
      int r = 1;
      while (r > 0) r = qo_VideoFilePutStream(h, &p->vs, 60);
      ASSERT_EQ(r, 0);
    }
  });
}

struct Kind {
  const char* name;
  media::Codec codec;
  int type, b_frames, slices;
};

GstPadProbeReturn CountEos(GstPad*, GstPadProbeInfo* info, gpointer count) {
  if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS)
    static_cast<std::atomic<int>*>(count)->fetch_add(1);
  return GST_PAD_PROBE_OK;
}

void PrintTo(const Kind& k, std::ostream* os) { *os << k.name; }  // stable test names

class FileDecoderRoundTrip : public ::testing::TestWithParam<Kind> {};

// Also: bad packets are refused without touching their bytes, and released;
// a second end of stream is released and reaches GStreamer no more.
TEST_P(FileDecoderRoundTrip, AccessUnitsMatchTheParserChainAtEveryPacketSize) {
  const Kind k = GetParam();
  for (size_t packet : {size_t{1}, size_t{1000}, size_t{256 * 1024}}) {
    SCOPED_TRACE(packet);
    media::StreamParams p;
    p.codec = k.codec, p.b_frames = k.b_frames, p.slices = k.slices;
    if (packet == 1) p.width = 176, p.height = 144, p.frames = 8;  // a buffer per byte
    const std::string path = media::GenerateStream(p);
    const auto ref = media::ReferenceAccessUnits(path, k.codec);
    ASSERT_FALSE(ref.empty());
    // The streams have what they are named for: reordered pictures, or
    // pictures of several slices (H.264 slice NAL units 1 and 5).
    bool reordered = false;
    int most_slices = 0;
    for (const auto& au : ref) {
      reordered |= au.pts != au.dts;
      int slices = 0;
      for (size_t i = 0; i + 3 < au.data.size(); ++i)
        slices += au.data[i] == 0 && au.data[i + 1] == 0 && au.data[i + 2] == 1 &&
                  (au.data[i + 3] & 0x1b) == 1;
      most_slices = std::max(most_slices, slices);
    }
    EXPECT_TRUE((k.b_frames == 0 || reordered) && (k.slices == 1 || most_slices >= k.slices));

    testutil::LayerCapture cap;
    qo_VideoFileHandle h = qo_VideoFileOpen();
    qo_VideoFileCfg(h, "stream-type", k.type);
    qo_VideoFileCfg(h, "width", 64);
    qo_VideoFileCfg(h, "height", 48);
    ASSERT_EQ(qo_VideoFileStart(h), 0);
    EXPECT_EQ(qo_VideoFilePutStream(h, nullptr, 1), -1);
    Packet negative({1, 2, 3}), no_data({1, 2, 3}), eos2({}, true);
    negative.vs.stream.size = -5;
    no_data.vs.stream.data = nullptr;
    for (Packet* bad : {&negative, &no_data}) EXPECT_EQ(qo_VideoFilePutStream(h, &bad->vs, 1), -1);
    qo_VideoFileGetFrame(h, nullptr, 1);
    std::atomic<int> eos_events{0};
    // The record behind the handle starts with the pipeline and the appsrc.
    GstPad* pad = gst_element_get_static_pad(static_cast<GstElement**>(h)[1], "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, CountEos, &eos_events, nullptr);
    gst_object_unref(pad);
    Packets packets;
    std::thread feeder = Feed(h, media::ReadFile(path), packet, &packets);
    std::vector<testutil::Frame> got;
    EXPECT_TRUE(testutil::DrainFrames<qo_StreamInfo>(
        [&](qo_StreamInfo* info) { qo_VideoFileGetFrame(h, info, 20); }, qo_VideoFileFrameFree,
        &got))
        << "a pull timed out before the end of the stream";
    feeder.join();
    EXPECT_EQ(qo_VideoFilePutStream(h, &eos2.vs, 2), 0);
    const int eos_seen = eos_events;    // before the stop's own
    EXPECT_EQ(qo_VideoFileStop(h), 0);  // the end was seen: no wait
    qo_VideoFileClose(h);
    for (auto& pk : packets) ASSERT_EQ(pk->frees, 1);
    EXPECT_EQ(std::vector<int>({negative.frees, no_data.frees, eos2.frees, eos_seen}),
              std::vector<int>({1, 1, 1, 1}));
    const std::string text = cap.Finish();
    EXPECT_EQ(testutil::CountOf(text, "video file in recived eos from stream !!!!\n "), 2u);
    for (const char* line : {"KvVideoFile sent EOS ", "KvVideoFile getting EOS costs:0 ms \n"})
      EXPECT_NE(text.find(line), std::string::npos) << line;
    ASSERT_EQ(got.size(), ref.size());
    for (size_t i = 0; i < ref.size(); ++i) {
      const testutil::Frame& f = got[i];
      ASSERT_EQ(f.data, ref[i].data) << "access unit " << i;
      EXPECT_EQ(f.format, k.type);
      // The parser's coded size wins over the configured one; jpegparse fed
      // in small pieces may not learn it: then the configured one, never 0.
      const bool coded = f.width == p.width && f.height == p.height;
      EXPECT_TRUE(coded || (k.type == QO_PIX_FMT_MJPEG && f.width == 64 && f.height == 48));
      EXPECT_TRUE(k.type == QO_PIX_FMT_MJPEG || f.time_stamp == ref[i].dts) << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Streams, FileDecoderRoundTrip,
                         ::testing::Values(Kind{"H264", media::Codec::kH264, QO_PIX_FMT_H264, 2, 4},
                                           Kind{"H265", media::Codec::kH265, QO_PIX_FMT_H265, 2, 1},
                                           Kind{"Mjpeg", media::Codec::kMjpeg, QO_PIX_FMT_MJPEG, 0,
                                                1}),
                         [](const auto& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace qo
