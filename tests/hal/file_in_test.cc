// File decoder layer: access units against GStreamer's own parser chain at
// several packet sizes, flow control with its time-out, end of stream, stop
// and a failed start. Every packet is released exactly once.
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
using testutil::MonotonicNs;

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

bool Drain(qo_VideoFileHandle h, std::vector<testutil::Frame>* frames) {
  return testutil::DrainFrames<qo_StreamInfo>(
      [&](qo_StreamInfo* info) { qo_VideoFileGetFrame(h, info, 20); }, qo_VideoFileFrameFree,
      frames);
}

// The record behind a handle starts with its pipeline and its appsrc.
GstElement* PipelineOf(qo_VideoFileHandle h) { return static_cast<GstElement**>(h)[0]; }
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
// a second end of stream is released and reaches GStreamer no more; the
// configuration is refused once the pipeline plays.
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
    GstPad* pad = gst_element_get_static_pad(static_cast<GstElement**>(h)[1], "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, CountEos, &eos_events, nullptr);
    gst_object_unref(pad);
    Packets packets;
    std::thread feeder = Feed(h, media::ReadFile(path), packet, &packets);
    std::vector<testutil::Frame> got;
    EXPECT_TRUE(Drain(h, &got)) << "a pull timed out before the end of the stream";
    feeder.join();
    EXPECT_EQ(qo_VideoFilePutStream(h, &eos2.vs, 2), 0);
    gst_element_get_state(PipelineOf(h), nullptr, nullptr, 10 * GST_SECOND);  // PLAYING by now
    qo_VideoFileCfg(h, "size", 100);
    const int eos_seen = eos_events;    // before the stop's own
    EXPECT_EQ(qo_VideoFileStop(h), 0);  // the end was seen: no wait
    qo_VideoFileClose(h);
    for (auto& pk : packets) ASSERT_EQ(pk->frees, 1);
    EXPECT_EQ(std::vector<int>({negative.frees, no_data.frees, eos2.frees, eos_seen}),
              std::vector<int>({1, 1, 1, 1}));
    const std::string text = cap.Finish();
    EXPECT_EQ(testutil::CountOf(text, "video file in recived eos from stream !!!!\n "), 2u);
    for (const char* line : {"KvVideoFile: qo_VideoFileCfg failed, unable to set property size "
                             "after pipeline has been launched!!!\n",
                             "KvVideoFile sent EOS ", "KvVideoFile getting EOS costs:0 ms \n"})
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

TEST(FileDecoderFlow, FullQueueTimesOutThenStopReleasesABlockedFeeder) {
  testutil::LayerCapture cap;
  qo_VideoFileHandle h = qo_VideoFileOpen();
  qo_VideoFileCfg(h, "stream-type", QO_PIX_FMT_NV12);
  qo_VideoFileCfg(h, "size", 100);
  ASSERT_EQ(qo_VideoFileStart(h), 0);
  // Nobody pulls: the appsink (2 buffers) and then the 800-byte queue fill.
  Packets accepted;
  std::unique_ptr<Packet> refused;
  int64_t waited_ns = 0;
  for (int i = 0; i < 64 && refused == nullptr; ++i) {
    auto p = std::make_unique<Packet>(std::vector<uint8_t>(1000, static_cast<uint8_t>(i)));
    const int64_t t0 = MonotonicNs();
    const int r = qo_VideoFilePutStream(h, &p->vs, 2);
    waited_ns = MonotonicNs() - t0;
    ASSERT_GE(r, 0);
    (r == 1 ? refused : accepted.emplace_back()) = std::move(p);
  }
  ASSERT_NE(refused, nullptr) << "the queue never filled";
  EXPECT_TRUE(waited_ns >= 1900e6 && waited_ns < 6000e6) << waited_ns;
  EXPECT_EQ(refused->frees, 0);  // still the caller's
  // Without a limit the put waits until stop wakes it; the push then fails
  // and releases the packet.
  std::atomic<int> result{99};
  std::thread blocked([&] { result = qo_VideoFilePutStream(h, &refused->vs, 0); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(result, 99);              // waits for room
  EXPECT_EQ(qo_VideoFileStop(h), 0);  // nobody pulls: it waits out its limit
  blocked.join();
  EXPECT_EQ(std::make_pair(result.load(), refused->frees.load()), std::make_pair(-1, 1));
  // The stopped decoder ends a pull at once instead of waiting out its limit.
  qo_StreamInfo after{};
  const int64_t t1 = MonotonicNs();
  qo_VideoFileGetFrame(h, &after, 3);
  EXPECT_LT(MonotonicNs() - t1, 1000e6);
  EXPECT_TRUE(after.eos == 1 && after.data == nullptr);
  qo_VideoFileClose(h);
  for (auto& pk : accepted) ASSERT_EQ(pk->frees, 1);
  const std::string text = cap.Finish();
  for (const char* line :
       {"KvVideoFile: set property size=100\n", "KvVideoFile: just pass through(0)\n",
        "KvVideoFile: send packet timeout !!!", "internal qin is full",
        "KvVideoFile getting EOS costs:800 ms \n"})
    EXPECT_NE(text.find(line), std::string::npos) << line;
}

TEST(FileDecoderLifecycle, GetBeforeStartAndAFailedStart) {
  testutil::LayerCapture cap;
  qo_VideoFileHandle h = qo_VideoFileOpen();
  qo_VideoFileCfg(h, "stream-type", QO_PIX_FMT_MJPEG);
  uint8_t junk = 0;
  qo_StreamInfo info{99, &junk, 0, 7, 1, 1, 1};
  qo_VideoFileGetFrame(h, &info, 1);
  EXPECT_TRUE(info.data == nullptr && info.size == 0 && info.eos == 0 && info.time_stamp == 0);
  EXPECT_EQ(info.format, 33);
  // An element already named "parser" makes building the chain fail; the
  // handle stays safe to use and to close.
  ASSERT_TRUE(gst_bin_add(GST_BIN(PipelineOf(h)), gst_element_factory_make("identity", "parser")));
  EXPECT_EQ(qo_VideoFileStart(h), -1);
  EXPECT_EQ(PipelineOf(h), nullptr);
  Packet packet({0, 0, 0, 1, 9});
  EXPECT_EQ(qo_VideoFilePutStream(h, &packet.vs, 1), -1);
  EXPECT_EQ(packet.frees, 1);
  EXPECT_EQ(qo_VideoFileStop(h), -1);
  qo_VideoFileClose(h);
  EXPECT_TRUE(cap.Has("KvVideoFile: video decoder does not start yet !!!"));
  EXPECT_TRUE(cap.Has("KvVideoFile: Elements could not be linked  !!!"));
}

}  // namespace
}  // namespace qo
