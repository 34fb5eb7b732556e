// Live-stream layer life cycle: the shared "Gstloop" thread, stream ids, the
// bus watch's reports, refused properties and null handles. Every stream
// here is closed properly, so the thread count always returns to zero.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "hal_mm_video_in.h"
#include "video_in_test_util.h"

namespace qo {
namespace videoin_test {
namespace {

class VideoInLifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = MakeFillerFile(4096);
    ASSERT_FALSE(path_.empty());
    uri_ = "file://" + path_;
  }
  void TearDown() override { unlink(path_.c_str()); }

  // Opens and starts a file stream (filler bytes: the parser finds nothing
  // and the stream simply ends).
  qo_StrmHandle OpenStarted() {
    qo_StrmHandle h = qo_VideoStreamOpen(uri_.c_str());
    if (!h) return nullptr;
    qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_H264);
    if (qo_VideoStreamStart(h) != 0) {
      ADD_FAILURE() << "start failed";
      ParkHandle(h);
      return nullptr;
    }
    return h;
  }

  std::string path_;
  std::string uri_;
};

TEST_F(VideoInLifecycleTest, MainLoopThreadComesWithFirstOpenAndGoesWithLastClose) {
  ASSERT_EQ(GstloopThreadCount(), 0);
  StdoutCapture cap;

  qo_StrmHandle a = OpenStarted();
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(GstloopThreadCount(), 1);
  EXPECT_EQ(CountOccurrences(cap.Text(), "------->task: running main loop!"), 1u);

  // A second stream shares the loop: no new thread.
  qo_StrmHandle b = OpenStarted();
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(GstloopThreadCount(), 1);
  EXPECT_NE(cap.Text().find("$>qo_VideoStreamInit():gst_init is already inited!\n"),
            std::string::npos);

  qo_VideoStreamClose(a);
  EXPECT_NE(cap.Text().find("#>qo_VideoStreamDeinit():warn ! 1 pipelines active!\n"),
            std::string::npos);
  EXPECT_EQ(GstloopThreadCount(), 1);

  qo_VideoStreamClose(b);
  EXPECT_EQ(GstloopThreadCount(), 0);
  EXPECT_EQ(CountOccurrences(cap.Text(), "------->task: exit main loop!"), 1u);

  // The next open brings a new loop and thread; GStreamer is not set up
  // again.
  qo_StrmHandle c = OpenStarted();
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(GstloopThreadCount(), 1);
  EXPECT_EQ(CountOccurrences(cap.Text(), "------->task: running main loop!"), 2u);
  qo_VideoStreamClose(c);
  EXPECT_EQ(GstloopThreadCount(), 0);
  EXPECT_EQ(CountOccurrences(cap.Text(), "------->task: exit main loop!"), 2u);
}

TEST_F(VideoInLifecycleTest, StreamIdsRepeatAfter256Opens) {
  StdoutCapture cap;
  for (int i = 0; i < 257; i++) {
    qo_StrmHandle h = OpenStarted();
    ASSERT_NE(h, nullptr) << "open " << i;
    qo_VideoStreamClose(h);
  }
  std::string text = cap.Finish();
  std::regex id_re("\\$\\$\\$\\$>p#(\\d+) full string=");
  std::vector<int> ids;
  for (std::sregex_iterator it(text.begin(), text.end(), id_re), end; it != end; ++it)
    ids.push_back(std::stoi((*it)[1]));
  ASSERT_EQ(ids.size(), 257u);
  for (size_t i = 1; i < ids.size(); i++) EXPECT_EQ(ids[i], (ids[i - 1] + 1) % 256) << i;
  EXPECT_EQ(ids[256], ids[0]);
  EXPECT_EQ(GstloopThreadCount(), 0);
}

TEST_F(VideoInLifecycleTest, ReportsLinesOfAFileStreamExactly) {
  StdoutCapture cap;
  qo_StrmHandle h = qo_VideoStreamOpen(uri_.c_str());
  ASSERT_NE(h, nullptr);
  qo_VideoStreamCfg(h, "stream-type", QO_PIX_FMT_H265);
  std::regex set_re(
      "\\$>qo_VideoStreamCfg\\(\\):set pipeline\\[(\\d+)\\] property \"stream-type\"=32 "
      "success!\n");
  std::smatch m;
  std::string text = cap.Text();
  ASSERT_TRUE(std::regex_search(text, m, set_re)) << text;
  const std::string id = m[1];

  ASSERT_EQ(qo_VideoStreamStart(h), 0);
  EXPECT_NE(cap.Text().find("$$$$>p#" + id + " full string=filesrc name=src location=" + path_ +
                            " ! h265parse ! video/x-h265,stream-format=byte-stream,"
                            "alignment=(string) au ! appsink name=appsink async=false "
                            "sync=false\n"),
            std::string::npos);

  // The bus watch reports the pipeline's own transitions only, and applies
  // the one the start waits for.
  const std::string pl = "#########pl#" + id + " state change:";
  ASSERT_TRUE(cap.WaitFor("############# pl#" + id + " switch state[4] #############\n"));
  text = cap.Text();
  EXPECT_NE(text.find(pl + "old: NULL,current: READY,pending: PLAYING #########\n"),
            std::string::npos);
  EXPECT_NE(text.find(pl + "old: READY,current: PAUSED,pending: PLAYING #########\n"),
            std::string::npos);
  EXPECT_NE(text.find(pl + "old: PAUSED,current: PLAYING,pending: VOID_PENDING #########\n"),
            std::string::npos);
  EXPECT_EQ(CountOccurrences(text, pl), 3u);
  EXPECT_EQ(CountOccurrences(text, " switch state["), 1u);

  // Properties are frozen once the pipeline runs.
  qo_VideoStreamCfg(h, "width", 640);
  EXPECT_NE(cap.Text().find("#>qo_VideoStreamCfg():warn,unable to set property \"width\"=640 "
                            "to file pipeline!\n"),
            std::string::npos);

  // Filler bytes give no picture: the stream ends, the bus reports it.
  Frame f;
  bool eos = false;
  EXPECT_FALSE(PullFrame(h, 5, &f, &eos));
  EXPECT_TRUE(eos);
  EXPECT_TRUE(cap.WaitFor("--------->video in recived eos from stream !!!!"));
  EXPECT_TRUE(cap.WaitFor("$$$$>pl#" + id + " receive EOS msg!\n"));

  EXPECT_EQ(qo_VideoStreamStop(h), 0);
  EXPECT_NE(cap.Text().find("----->pl" + id + " spent time:0 ms or wait eos\n"), std::string::npos);
  qo_VideoStreamClose(h);
  text = cap.Finish();
  // Close walks the pipeline down one state at a time.
  EXPECT_NE(text.find(pl + "old: PLAYING,current: PAUSED,pending: VOID_PENDING #########\n"),
            std::string::npos);
  EXPECT_EQ(GstloopThreadCount(), 0);
}

TEST_F(VideoInLifecycleTest, SecondStartIsRefusedAndCloseStillCleansUp) {
  StdoutCapture cap;
  qo_StrmHandle h = OpenStarted();
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(qo_VideoStreamStart(h), -1);
  EXPECT_NE(cap.Text().find("#>qo_VideoStreamStart():pl#"), std::string::npos);
  EXPECT_EQ(CountOccurrences(cap.Text(), " full string="), 1u);
  qo_VideoStreamClose(h);
  EXPECT_EQ(GstloopThreadCount(), 0);
}

TEST(VideoInNullHandleTest, EveryEntryReportsANullHandle) {
  StdoutCapture cap;
  EXPECT_EQ(qo_VideoStreamStart(nullptr), -1);
  EXPECT_EQ(qo_VideoStreamStop(nullptr), -1);
  qo_VideoStreamClose(nullptr);
  qo_VideoStreamCfg(nullptr, "width", 1);
  qo_StreamInfo info{};
  info.data = reinterpret_cast<uint8_t*>(&info);  // must be overwritten
  qo_VideoStreamGetFrame(nullptr, &info, 1);
  EXPECT_EQ(info.eos, 1);
  EXPECT_EQ(info.data, nullptr);
  qo_VideoStreamFrameFree(nullptr);
  std::string text = cap.Finish();
  for (const char* fn : {"qo_VideoStreamStart", "qo_VideoStreamStop", "qo_VideoStreamClose",
                         "qo_VideoStreamCfg", "qo_VideoStreamGetFrame"})
    EXPECT_NE(text.find(std::string("#>") + fn + "():Error handle is null\n"), std::string::npos)
        << fn;
  // None of this needs GStreamer, so no loop was started.
  EXPECT_EQ(GstloopThreadCount(), 0);
}

}  // namespace
}  // namespace videoin_test
}  // namespace qo
