// File decoder layer: access units against GStreamer's own parser chain at
// several packet sizes, flow control with its time-out, end of stream, stop,
// failed starts and bad input. Every packet is released exactly once.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <ostream>
#include <thread>

#include "hal_mm_file_in.h"
#include "test_common.h"
#include "test_media.h"

namespace qo {
namespace {

namespace media = testmedia;
using testutil::Frame;
using testutil::StdoutCapture;

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

// The file in packets of `size` bytes, then an end-of-stream packet.
Packets Split(const std::vector<uint8_t>& file, size_t size) {
  Packets out;
  for (auto& chunk : media::SplitIntoPackets(file, size))
    out.push_back(std::make_unique<Packet>(chunk));
  out.push_back(std::make_unique<Packet>(std::vector<uint8_t>(), true));
  return out;
}

// Pushes the packets from its own thread, retrying on time-outs as the file
// node does.
std::thread Feed(qo_VideoFileHandle h, Packets* packets) {
  return std::thread([h, packets] {
    for (auto& p : *packets) {
      int r;
      while ((r = qo_VideoFilePutStream(h, &p->vs, 60)) > 0) {
      }
      ASSERT_EQ(r, 0);
    }
  });
}

bool Drain(qo_VideoFileHandle h, std::vector<Frame>* frames, int timeout_s = 20) {
  return testutil::DrainFrames<qo_StreamInfo>(
      [&](qo_StreamInfo* info) { qo_VideoFileGetFrame(h, info, timeout_s); }, qo_VideoFileFrameFree,
      frames);
}

void ExpectEachFreedOnce(const Packets& packets) {
  for (size_t i = 0; i < packets.size(); ++i) ASSERT_EQ(packets[i]->frees, 1) << "packet " << i;
}

qo_VideoFileHandle Start(int type, int size = 0) {
  qo_VideoFileHandle h = qo_VideoFileOpen();
  qo_VideoFileCfg(h, "stream-type", type);
  if (size != 0) qo_VideoFileCfg(h, "size", size);
  EXPECT_EQ(qo_VideoFileStart(h), 0);
  return h;
}

// The record behind a handle starts with its pipeline and its appsrc.
GstElement* PipelineOf(qo_VideoFileHandle h) { return static_cast<GstElement**>(h)[0]; }
GstElement* SourceOf(qo_VideoFileHandle h) { return static_cast<GstElement**>(h)[1]; }

guint64 MaxBytes(qo_VideoFileHandle h) {
  guint64 v = 0;
  g_object_get(SourceOf(h), "max-bytes", &v, nullptr);
  return v;
}

struct Kind {
  const char* name;
  media::Codec codec;
  int type, b_frames, slices;
};

void PrintTo(const Kind& k, std::ostream* os) { *os << k.name; }

class FileDecoderRoundTrip : public ::testing::TestWithParam<Kind> {};

TEST_P(FileDecoderRoundTrip, AccessUnitsMatchTheParserChainAtEveryPacketSize) {
  const Kind k = GetParam();
  for (size_t packet : {size_t{1}, size_t{1000}, size_t{256 * 1024}}) {
    SCOPED_TRACE(packet);
    media::StreamParams p;
    p.codec = k.codec;
    p.b_frames = k.b_frames;
    p.slices = k.slices;
    if (packet == 1) {  // one GStreamer buffer per byte: keep the stream small
      p.width = 176;
      p.height = 144;
      p.frames = 8;
    }
    const std::string path = k.type == 0 ? media::GenerateRawBytes(packet == 1 ? 3000 : 300000, 7)
                                         : media::GenerateStream(p);
    const std::vector<uint8_t> file = media::ReadFile(path);
    ASSERT_FALSE(file.empty());
    std::vector<media::AccessUnit> ref;
    if (k.type != 0) ref = media::ReferenceAccessUnits(path, k.codec);
    // The streams have what they are named for: reordered pictures, or
    // pictures of several slices.
    bool reordered = false;
    size_t most_slices = 0;
    for (const auto& au : ref) {
      reordered |= au.pts != au.dts;
      size_t slices = 0;
      for (size_t i = 0; i + 3 < au.data.size(); ++i) {
        const uint8_t nal = au.data[i + 3] & 0x1f;
        slices +=
            au.data[i] == 0 && au.data[i + 1] == 0 && au.data[i + 2] == 1 && (nal == 1 || nal == 5);
      }
      most_slices = std::max(most_slices, slices);
    }
    EXPECT_TRUE(k.b_frames == 0 || reordered);
    EXPECT_TRUE(k.slices == 1 || most_slices >= static_cast<size_t>(k.slices));

    Packets packets = Split(file, packet);
    qo_VideoFileHandle h = qo_VideoFileOpen();
    qo_VideoFileCfg(h, "stream-type", k.type);
    qo_VideoFileCfg(h, "width", 64);
    qo_VideoFileCfg(h, "height", 48);
    ASSERT_EQ(qo_VideoFileStart(h), 0);
    std::thread feeder = Feed(h, &packets);
    std::vector<Frame> got;
    EXPECT_TRUE(Drain(h, &got)) << "a pull timed out before the end of the stream";
    feeder.join();
    EXPECT_EQ(qo_VideoFileStop(h), 0);
    qo_VideoFileClose(h);
    ExpectEachFreedOnce(packets);

    if (k.type == 0) {  // pass-through: the packets as they are, configured size
      ASSERT_EQ(got.size() + 1, packets.size());
      std::vector<uint8_t> joined;
      for (const Frame& f : got) {
        joined.insert(joined.end(), f.data.begin(), f.data.end());
        EXPECT_EQ(f.width * 1000 + f.height, 64048);
      }
      EXPECT_EQ(joined, file);
      continue;
    }
    ASSERT_EQ(got.size(), ref.size());
    for (size_t i = 0; i < ref.size(); ++i) {
      const Frame& f = got[i];
      ASSERT_EQ(f.data, ref[i].data) << "access unit " << i;
      EXPECT_EQ(f.format, k.type);
      if (k.type == QO_PIX_FMT_MJPEG) {
        // jpegparse fed in small pieces may not learn the size: then the
        // configured one, never a zero size.
        EXPECT_TRUE((f.width == p.width && f.height == p.height) ||
                    (f.width == 64 && f.height == 48));
      } else {  // the parser's coded size wins over the configured one
        EXPECT_EQ(f.width * 1000 + f.height, p.width * 1000 + p.height);
        EXPECT_EQ(f.time_stamp, ref[i].dts) << "access unit " << i;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Streams, FileDecoderRoundTrip,
                         ::testing::Values(Kind{"H264BFrames", media::Codec::kH264, 31, 2, 1},
                                           Kind{"H264Slices", media::Codec::kH264, 31, 0, 4},
                                           Kind{"H265", media::Codec::kH265, 32, 2, 1},
                                           Kind{"Mjpeg", media::Codec::kMjpeg, 33, 0, 1},
                                           Kind{"Raw", media::Codec::kH264, 0, 0, 1}),
                         [](const ::testing::TestParamInfo<Kind>& p) {
                           return std::string(p.param.name);
                         });

TEST(FileDecoderFlow, FullQueueTimesOutThenStopReleasesABlockedFeeder) {
  StdoutCapture cap;
  qo_VideoFileHandle h = Start(0, 100);
  EXPECT_EQ(MaxBytes(h), 800u);
  // Nobody pulls: the appsink (2 buffers) and then the 800-byte queue fill.
  Packets accepted;
  std::unique_ptr<Packet> refused;
  int64_t waited_ns = 0;
  for (int i = 0; i < 64 && refused == nullptr; ++i) {
    auto p = std::make_unique<Packet>(std::vector<uint8_t>(1000, static_cast<uint8_t>(i)));
    const int64_t t0 = testutil::MonotonicNs();
    const int r = qo_VideoFilePutStream(h, &p->vs, 2);
    waited_ns = testutil::MonotonicNs() - t0;
    (r == 1 ? refused : accepted.emplace_back()) = std::move(p);
    ASSERT_GE(r, 0);
  }
  ASSERT_NE(refused, nullptr) << "the queue never filled";
  EXPECT_GE(waited_ns, 1900e6);
  EXPECT_LT(waited_ns, 6000e6);
  EXPECT_EQ(refused->frees, 0);  // still the caller's
  // Without a limit the put waits until stop wakes it; the push after stop
  // fails and releases the packet.
  std::atomic<int> result{99};
  std::thread blocked([&] { result = qo_VideoFilePutStream(h, &refused->vs, 0); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(result, 99) << "put did not wait for room";
  EXPECT_EQ(qo_VideoFileStop(h), 0);  // nobody pulls: it waits out its limit
  ASSERT_TRUE(testutil::WaitUntil([&] { return result != 99; }, 10000)) << "feeder still blocked";
  blocked.join();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(refused->frees, 1);
  // The stopped decoder ends a pull at once instead of waiting out its limit.
  qo_StreamInfo after{};
  const int64_t t1 = testutil::MonotonicNs();
  qo_VideoFileGetFrame(h, &after, 3);
  EXPECT_LT(testutil::MonotonicNs() - t1, 1000e6);
  EXPECT_EQ(after.eos, 1);
  EXPECT_EQ(after.data, nullptr);
  qo_VideoFileClose(h);
  ExpectEachFreedOnce(accepted);
  const std::string text = cap.Finish();
  for (const char* line :
       {"KvVideoFile: set property size=100\n", "KvVideoFile: just pass through(0)\n",
        "KvVideoFile: send packet timeout !!!", "internal qin is full",
        "KvVideoFile getting EOS costs:800 ms \n"})
    EXPECT_NE(text.find(line), std::string::npos) << line;
}

GstPadProbeReturn CountEos(GstPad*, GstPadProbeInfo* info, gpointer count) {
  if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS)
    static_cast<std::atomic<int>*>(count)->fetch_add(1);
  return GST_PAD_PROBE_OK;
}

TEST(FileDecoderEos, SecondEndOfStreamReachesGStreamerOnce) {
  media::StreamParams p;
  p.frames = 12;
  const std::vector<uint8_t> file = media::ReadFile(media::GenerateStream(p));
  ASSERT_FALSE(file.empty());
  StdoutCapture cap;
  qo_VideoFileHandle h = Start(QO_PIX_FMT_H264);
  // Bad packets are refused without touching their bytes, and released.
  EXPECT_EQ(qo_VideoFilePutStream(h, nullptr, 1), -1);
  Packet negative({1, 2, 3}), no_data({1, 2, 3});
  negative.vs.stream.size = -5;
  no_data.vs.stream.data = nullptr;
  for (Packet* bad : {&negative, &no_data}) {
    EXPECT_EQ(qo_VideoFilePutStream(h, &bad->vs, 1), -1);
    EXPECT_EQ(bad->frees, 1);
  }
  qo_VideoFileGetFrame(h, nullptr, 1);

  std::atomic<int> eos_events{0};
  GstPad* pad = gst_element_get_static_pad(SourceOf(h), "src");
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, CountEos, &eos_events, nullptr);
  gst_object_unref(pad);
  Packets packets = Split(file, 1000);
  std::thread feeder = Feed(h, &packets);
  // PLAYING once the first frame is out; configuration is refused from then.
  std::vector<Frame> frames;
  qo_StreamInfo first{};
  qo_VideoFileGetFrame(h, &first, 20);
  ASSERT_NE(first.data, nullptr);
  qo_VideoFileFrameFree(&first);
  GstState state = GST_STATE_NULL;
  gst_element_get_state(PipelineOf(h), &state, nullptr, 10 * GST_SECOND);
  ASSERT_EQ(state, GST_STATE_PLAYING);
  qo_VideoFileCfg(h, "size", 100);
  EXPECT_EQ(MaxBytes(h), 1048576u);
  feeder.join();
  Packet eos2({}, true);
  EXPECT_EQ(qo_VideoFilePutStream(h, &eos2.vs, 2), 0);
  EXPECT_TRUE(Drain(h, &frames));
  EXPECT_EQ(frames.size() + 1, 12u);
  EXPECT_EQ(eos_events, 1);
  EXPECT_EQ(eos2.frees, 1);
  EXPECT_EQ(qo_VideoFileStop(h), 0);  // the end was seen: no wait
  qo_VideoFileClose(h);
  ExpectEachFreedOnce(packets);
  const std::string text = cap.Finish();
  EXPECT_EQ(testutil::CountOf(text, "video file in recived eos from stream !!!!\n "), 2u);
  for (const char* line : {"KvVideoFile: qo_VideoFileCfg failed, unable to set property size after "
                           "pipeline has been launched!!!\n",
                           "KvVideoFile sent EOS ", "KvVideoFile getting EOS costs:0 ms \n"})
    EXPECT_NE(text.find(line), std::string::npos) << line;
}

TEST(FileDecoderLifecycle, GetBeforeStartAndAFailedStart) {
  StdoutCapture cap;
  qo_VideoFileHandle h = qo_VideoFileOpen();
  qo_VideoFileCfg(h, "stream-type", 33);
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
  EXPECT_EQ(qo_VideoFileStart(h), -1);
  Packet packet({0, 0, 0, 1, 9});
  EXPECT_EQ(qo_VideoFilePutStream(h, &packet.vs, 1), -1);
  EXPECT_EQ(packet.frees, 1);
  EXPECT_EQ(qo_VideoFileStop(h), -1);
  qo_VideoFileClose(h);
  const std::string text = cap.Finish();
  EXPECT_NE(text.find("KvVideoFile: video decoder does not start yet !!!"), std::string::npos);
  EXPECT_NE(text.find("KvVideoFile: Elements could not be linked  !!!"), std::string::npos);
}

TEST(FileDecoderLifecycle, GarbageAsH264EndsCleanly) {
  Packets packets = Split(media::ReadFile(media::GenerateRawBytes(64 * 1024, 3)), 1000);
  qo_VideoFileHandle h = Start(QO_PIX_FMT_H264);
  std::thread feeder = Feed(h, &packets);
  std::vector<Frame> frames;
  EXPECT_TRUE(Drain(h, &frames, 10));
  feeder.join();
  const int64_t t0 = testutil::MonotonicNs();
  EXPECT_EQ(qo_VideoFileStop(h), 0);
  EXPECT_LT(testutil::MonotonicNs() - t0, 1500e6);  // the end was seen
  qo_VideoFileClose(h);
  ExpectEachFreedOnce(packets);
}

}  // namespace
}  // namespace qo
