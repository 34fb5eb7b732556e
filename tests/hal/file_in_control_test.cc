// Control path of the file decoder: configuration, flow control with its
// time-out, end of stream, stop and the life cycle around start.
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "file_in_test_util.h"
#include "test_media.h"

namespace qo {
namespace filein_test {
namespace {

using Clock = std::chrono::steady_clock;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

double SecondsSince(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

guint64 MaxBytes(qo_VideoFileHandle h) {
  guint64 v = 0;
  g_object_get(SourceOf(h), "max-bytes", &v, nullptr);
  return v;
}

bool Contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

size_t Count(const std::string& haystack, const std::string& needle) {
  size_t n = 0;
  for (size_t pos = haystack.find(needle); pos != std::string::npos;
       pos = haystack.find(needle, pos + needle.size())) {
    ++n;
  }
  return n;
}

std::vector<uint8_t> H264File() {
  testmedia::StreamParams p;
  p.frames = 12;
  std::string path = testmedia::GenerateStream(p);
  return path.empty() ? std::vector<uint8_t>() : testmedia::ReadFile(path);
}

// A started pass-through decoder whose 800-byte input queue is full: nobody
// pulls, so the appsink (2 buffers) and then the appsrc queue back up.
// Returns the packets accepted; *timed_out is the first packet refused.
Packets FillQueue(qo_VideoFileHandle h, std::unique_ptr<TestPacket>* timed_out, double* wait_s) {
  Packets accepted;
  for (int i = 0; i < 64; ++i) {
    auto p = MakePacket(std::vector<uint8_t>(1000, static_cast<uint8_t>(i)));
    auto t0 = Clock::now();
    int r = qo_VideoFilePutStream(h, &p->vs, 2);
    if (r == 1) {
      *wait_s = SecondsSince(t0);
      *timed_out = std::move(p);
      return accepted;
    }
    EXPECT_EQ(r, 0);
    accepted.push_back(std::move(p));
  }
  return accepted;
}

qo_VideoFileHandle StartPassThroughWithSmallQueue() {
  qo_VideoFileHandle h = qo_VideoFileOpen();
  if (h == nullptr) return nullptr;
  qo_VideoFileCfg(h, "stream-type", 0);
  qo_VideoFileCfg(h, "size", 100);
  if (qo_VideoFileStart(h) != 0) {
    qo_VideoFileClose(h);
    return nullptr;
  }
  return h;
}

TEST(FileInConfig, SizeSetsQueueLimit) {
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(MaxBytes(h), 1048576u);
  CaptureStdout();
  qo_VideoFileCfg(h, "size", 100);
  EXPECT_EQ(MaxBytes(h), 800u);
  qo_VideoFileCfg(h, "size", 0);  // ignored, the limit stays
  EXPECT_EQ(MaxBytes(h), 800u);
  std::string out = GetCapturedStdout();
  EXPECT_TRUE(Contains(out, "WARNING: size property is 0, ignored !!!")) << out;
  qo_VideoFileClose(h);
}

TEST(FileInConfig, RefusedOncePlaying) {
  std::vector<uint8_t> file = H264File();
  ASSERT_FALSE(file.empty());
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(qo_VideoFileStart(h), 0);
  Packets packets = MakePackets(testmedia::SplitIntoPackets(file, 4096));
  auto eos = MakeEosPacket();
  Feeder feeder(h, &packets, eos.get());

  // PLAYING is reached once the appsink has prerolled on the first frame.
  qo_StreamInfo first{};
  qo_VideoFileGetFrame(h, &first, 20);
  ASSERT_NE(first.data, nullptr);
  qo_VideoFileFrameFree(&first);
  GstState state = GST_STATE_NULL;
  gst_element_get_state(PipelineOf(h), &state, nullptr, 10 * GST_SECOND);
  ASSERT_EQ(state, GST_STATE_PLAYING);

  CaptureStdout();
  qo_VideoFileCfg(h, "size", 100);
  std::string out = GetCapturedStdout();
  EXPECT_TRUE(Contains(out,
                       "KvVideoFile: qo_VideoFileCfg failed, unable to set property size after "
                       "pipeline has been launched!!!\n"))
      << out;
  EXPECT_EQ(MaxBytes(h), 1048576u);

  DrainResult rest = Drain(h);
  feeder.Join();
  EXPECT_TRUE(rest.eos);
  EXPECT_EQ(qo_VideoFileStop(h), 0);
  qo_VideoFileClose(h);
}

TEST(FileInFlow, FullQueueTimesOutAndLeavesPacketWithCaller) {
  qo_VideoFileHandle h = StartPassThroughWithSmallQueue();
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(MaxBytes(h), 800u);
  std::unique_ptr<TestPacket> refused;
  double wait_s = 0;
  CaptureStdout();
  Packets accepted = FillQueue(h, &refused, &wait_s);
  std::string out = GetCapturedStdout();
  ASSERT_NE(refused, nullptr) << "the queue never filled";
  EXPECT_GE(wait_s, 1.9);
  EXPECT_LT(wait_s, 6.0);
  EXPECT_TRUE(Contains(out, "KvVideoFile: send packet timeout !!!")) << out;
  EXPECT_EQ(refused->frees.load(), 0);

  EXPECT_EQ(qo_VideoFileStop(h), 0);
  qo_VideoFileClose(h);
  EXPECT_EQ(refused->frees.load(), 0);
  for (const auto& p : accepted) EXPECT_EQ(p->frees.load(), 1);
}

TEST(FileInFlow, StopReleasesFeederBlockedWithoutLimit) {
  qo_VideoFileHandle h = StartPassThroughWithSmallQueue();
  ASSERT_NE(h, nullptr);
  std::unique_ptr<TestPacket> refused;
  double wait_s = 0;
  Packets accepted = FillQueue(h, &refused, &wait_s);
  ASSERT_NE(refused, nullptr);

  std::atomic<bool> done{false};
  std::atomic<int> result{99};
  std::thread feeder([&] {
    pthread_setname_np(pthread_self(), "test_blocked");
    result = qo_VideoFilePutStream(h, &refused->vs, 0);
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(done.load()) << "put did not wait for room";

  auto t0 = Clock::now();
  EXPECT_EQ(qo_VideoFileStop(h), 0);
  while (!done.load() && SecondsSince(t0) < 10) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(done.load()) << "stop left the feeder blocked";
  feeder.join();
  EXPECT_EQ(result.load(), -1);  // the push after stop fails
  EXPECT_EQ(refused->frees.load(), 1);

  // Any later put fails at once, so a feeder loop ends after stop.
  auto late = MakePacket(std::vector<uint8_t>(10, 1));
  t0 = Clock::now();
  EXPECT_EQ(qo_VideoFilePutStream(h, &late->vs, 0), -1);
  EXPECT_LT(SecondsSince(t0), 1.0);
  EXPECT_EQ(late->frees.load(), 1);

  qo_VideoFileClose(h);
  for (const auto& p : accepted) EXPECT_EQ(p->frees.load(), 1);
}

GstPadProbeReturn CountEos(GstPad*, GstPadProbeInfo* info, gpointer data) {
  if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS) {
    static_cast<std::atomic<int>*>(data)->fetch_add(1);
  }
  return GST_PAD_PROBE_OK;
}

TEST(FileInEos, SecondEosPacketReachesGstreamerOnce) {
  std::vector<uint8_t> file = H264File();
  ASSERT_FALSE(file.empty());
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(qo_VideoFileStart(h), 0);
  std::atomic<int> eos_events{0};
  GstPad* pad = gst_element_get_static_pad(SourceOf(h), "src");
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, CountEos, &eos_events, nullptr);
  gst_object_unref(pad);

  Packets packets = MakePackets(testmedia::SplitIntoPackets(file, 1000));
  auto eos1 = MakeEosPacket();
  auto eos2 = MakeEosPacket();
  CaptureStdout();
  {
    Feeder feeder(h, &packets, eos1.get());
    feeder.Join();
  }
  EXPECT_EQ(qo_VideoFilePutStream(h, &eos2->vs, 2), 0);
  DrainResult got = Drain(h);
  EXPECT_TRUE(got.eos);
  EXPECT_EQ(got.frames.size(), 12u);
  EXPECT_EQ(eos_events.load(), 1);
  EXPECT_EQ(eos1->frees.load(), 1);
  EXPECT_EQ(eos2->frees.load(), 1);

  // End of stream was seen already: stop does not wait for it.
  EXPECT_EQ(qo_VideoFileStop(h), 0);
  std::string out = GetCapturedStdout();
  EXPECT_EQ(Count(out, "video file in recived eos from stream !!!!\n "), 2u) << out;
  EXPECT_TRUE(Contains(out, "KvVideoFile sent EOS ")) << out;
  EXPECT_TRUE(Contains(out, "KvVideoFile getting EOS costs:0 ms \n")) << out;
  EXPECT_EQ(eos_events.load(), 1);
  qo_VideoFileClose(h);
  for (const auto& p : packets) EXPECT_EQ(p->frees.load(), 1);
}

TEST(FileInEos, StopWithoutEndOfStreamWaitsAndReportsFullWait) {
  std::vector<uint8_t> file = H264File();
  ASSERT_FALSE(file.empty());
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(qo_VideoFileStart(h), 0);
  auto packet = MakePacket(file);
  ASSERT_EQ(qo_VideoFilePutStream(h, &packet->vs, 2), 0);
  // Nobody pulls: the end of stream sent by stop is never seen.
  CaptureStdout();
  auto t0 = Clock::now();
  EXPECT_EQ(qo_VideoFileStop(h), 0);
  double took = SecondsSince(t0);
  std::string out = GetCapturedStdout();
  EXPECT_GE(took, 1.9);
  EXPECT_LT(took, 6.0);
  EXPECT_TRUE(Contains(out, "KvVideoFile getting EOS costs:800 ms \n")) << out;
  qo_VideoFileClose(h);
  EXPECT_EQ(packet->frees.load(), 1);
}

TEST(FileInLifecycle, GetBeforeStartReportsNotStarted) {
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  qo_VideoFileCfg(h, "stream-type", 33);
  uint8_t junk = 0;
  qo_StreamInfo info{};
  info.data = &junk;
  info.size = 7;
  info.eos = 1;
  info.time_stamp = 99;
  CaptureStdout();
  qo_VideoFileGetFrame(h, &info, 1);
  std::string out = GetCapturedStdout();
  EXPECT_TRUE(Contains(out, "KvVideoFile: video decoder does not start yet !!!")) << out;
  EXPECT_EQ(info.data, nullptr);
  EXPECT_EQ(info.size, 0);
  EXPECT_EQ(info.eos, 0);
  EXPECT_EQ(info.time_stamp, 0u);
  EXPECT_EQ(info.format, 33);
  qo_VideoFileClose(h);
}

TEST(FileInLifecycle, PassThroughForStreamTypeZero) {
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  qo_VideoFileCfg(h, "stream-type", 0);
  CaptureStdout();
  ASSERT_EQ(qo_VideoFileStart(h), 0);
  std::string out = GetCapturedStdout();
  EXPECT_TRUE(Contains(out, "KvVideoFile: just pass through(0)\n")) << out;
  GstElement* parser = ElementOf(h, "parser");
  EXPECT_EQ(parser, nullptr);
  if (parser != nullptr) gst_object_unref(parser);

  // A second start leaves the running pipeline alone.
  EXPECT_EQ(qo_VideoFileStart(h), -1);
  auto packet = MakePacket({1, 2, 3, 4, 5});
  ASSERT_EQ(qo_VideoFilePutStream(h, &packet->vs, 2), 0);
  qo_StreamInfo info{};
  qo_VideoFileGetFrame(h, &info, 10);
  ASSERT_EQ(info.size, 5);
  EXPECT_EQ(info.data[4], 5);
  qo_VideoFileFrameFree(&info);
  qo_VideoFileClose(h);  // closing without stop releases everything
  EXPECT_EQ(packet->frees.load(), 1);
}

TEST(FileInLifecycle, GarbageWithStreamTypeH264EndsCleanly) {
  std::string path = testmedia::GenerateRawBytes(64 * 1024, 3);
  ASSERT_FALSE(path.empty());
  Packets packets = MakePackets(testmedia::SplitIntoPackets(testmedia::ReadFile(path), 1000));
  auto eos = MakeEosPacket();
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  qo_VideoFileCfg(h, "stream-type", 31);
  ASSERT_EQ(qo_VideoFileStart(h), 0);
  DrainResult got;
  {
    Feeder feeder(h, &packets, eos.get());
    got = Drain(h, 10);
    feeder.Join();
    EXPECT_EQ(feeder.failures(), 0);
  }
  EXPECT_TRUE(got.eos);
  auto t0 = Clock::now();
  EXPECT_EQ(qo_VideoFileStop(h), 0);
  EXPECT_LT(SecondsSince(t0), 1.5);
  qo_VideoFileClose(h);
  for (const auto& p : packets) EXPECT_EQ(p->frees.load(), 1);
  EXPECT_EQ(eos->frees.load(), 1);
}

TEST(FileInLifecycle, FailedStartLeavesAHandleThatClosesSafely) {
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  // An element already named "parser" makes building the chain fail.
  GstElement* squatter = gst_element_factory_make("identity", "parser");
  ASSERT_TRUE(gst_bin_add(GST_BIN(PipelineOf(h)), squatter));
  CaptureStdout();
  EXPECT_EQ(qo_VideoFileStart(h), -1);
  EXPECT_EQ(PipelineOf(h), nullptr);
  EXPECT_EQ(qo_VideoFileStart(h), -1);
  qo_StreamInfo info{};
  qo_VideoFileGetFrame(h, &info, 1);
  auto packet = MakePacket({0, 0, 0, 1, 9});
  EXPECT_EQ(qo_VideoFilePutStream(h, &packet->vs, 1), -1);
  EXPECT_EQ(qo_VideoFileStop(h), -1);
  std::string out = GetCapturedStdout();
  EXPECT_TRUE(Contains(out, "KvVideoFile: Elements could not be linked  !!!")) << out;
  EXPECT_TRUE(Contains(out, "KvVideoFile: video decoder does not start yet !!!")) << out;
  EXPECT_EQ(info.data, nullptr);
  EXPECT_EQ(packet->frees.load(), 1) << out;
  qo_VideoFileClose(h);
}

TEST(FileInBadInput, RefusedWithoutTouchingMemory) {
  qo_VideoFileHandle h = qo_VideoFileOpen();
  ASSERT_NE(h, nullptr);
  qo_VideoFileCfg(h, "stream-type", 0);
  ASSERT_EQ(qo_VideoFileStart(h), 0);
  EXPECT_EQ(qo_VideoFilePutStream(h, nullptr, 1), -1);
  auto negative = MakePacket({1, 2, 3});
  negative->vs.stream.size = -5;
  EXPECT_EQ(qo_VideoFilePutStream(h, &negative->vs, 1), -1);
  EXPECT_EQ(negative->frees.load(), 1);
  auto no_data = MakePacket({1, 2, 3});
  no_data->vs.stream.data = nullptr;
  EXPECT_EQ(qo_VideoFilePutStream(h, &no_data->vs, 1), -1);
  EXPECT_EQ(no_data->frees.load(), 1);
  qo_VideoFileGetFrame(h, nullptr, 1);

  auto eos = MakeEosPacket();
  EXPECT_EQ(qo_VideoFilePutStream(h, &eos->vs, 1), 0);
  EXPECT_EQ(qo_VideoFileStop(h), 0);
  qo_VideoFileClose(h);
}

}  // namespace
}  // namespace filein_test
}  // namespace qo
