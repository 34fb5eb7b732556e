// Live-stream layer life cycle: the shared "Gstloop" thread, stream ids, the
// bus watch's reports, refused properties and null handles. Every stream
// here is closed properly, so the thread count always returns to zero.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "test_media.h"
#include "video_in_test_util.h"

namespace qo {
namespace videoin_test {
namespace {

class VideoInLifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE((path_ = qo::testmedia::GenerateRawBytes(4096)).empty()); }

  // A started file stream of random bytes: the parser finds nothing and the
  // stream simply ends.
  qo_StrmHandle OpenStarted(int type = QO_PIX_FMT_H264) {
    qo_StrmHandle h = qo_VideoStreamOpen(uri_.assign("file://" + path_).c_str());
    qo_VideoStreamCfg(h, "stream-type", type);
    EXPECT_EQ(qo_VideoStreamStart(h), 0);
    return h;
  }

  std::string path_, uri_;
};

TEST_F(VideoInLifecycleTest, MainLoopThreadComesWithFirstOpenAndGoesWithLastClose) {
  ASSERT_EQ(GstloopThreads(), 0);
  StdoutCapture cap;
  qo_StrmHandle a = OpenStarted();
  EXPECT_EQ(GstloopThreads(), 1);
  qo_StrmHandle b = OpenStarted();  // shares the loop
  EXPECT_EQ(GstloopThreads(), 1);
  EXPECT_TRUE(cap.Has("$>qo_VideoStreamInit():gst_init is already inited!\n"));
  // A second start would leave a pipeline behind that nobody tears down.
  EXPECT_EQ(qo_VideoStreamStart(b), -1);
  EXPECT_EQ(Count(cap.Text(), " full string="), 2u);
  qo_VideoStreamClose(a);
  EXPECT_TRUE(cap.Has("#>qo_VideoStreamDeinit():warn ! 1 pipelines active!\n"));
  EXPECT_EQ(GstloopThreads(), 1);
  qo_VideoStreamClose(b);
  EXPECT_EQ(GstloopThreads(), 0);
  // The next open brings a new loop and thread; GStreamer is not set up again.
  qo_VideoStreamClose(OpenStarted());
  EXPECT_EQ(GstloopThreads(), 0);
  std::string text = cap.Finish();
  EXPECT_EQ(Count(text, "------->task: running main loop!"), 2u);
  EXPECT_EQ(Count(text, "------->task: exit main loop!"), 2u);
}

TEST_F(VideoInLifecycleTest, StreamIdsRepeatAfter256Opens) {
  StdoutCapture cap;
  for (int i = 0; i < 257; i++) qo_VideoStreamClose(OpenStarted());
  std::string text = cap.Finish();
  std::regex id_re("\\$\\$\\$\\$>p#(\\d+) full string=");
  std::vector<int> ids;
  for (std::sregex_iterator it(text.begin(), text.end(), id_re), end; it != end; ++it)
    ids.push_back(std::stoi((*it)[1]));
  ASSERT_EQ(ids.size(), 257u);
  for (size_t i = 1; i < ids.size(); i++) EXPECT_EQ(ids[i], (ids[i - 1] + 1) % 256) << i;
  EXPECT_EQ(ids[256], ids[0]);
}

TEST_F(VideoInLifecycleTest, ReportsTheStreamsLinesAndRefusesLateProperties) {
  StdoutCapture cap;
  qo_StrmHandle h = OpenStarted(QO_PIX_FMT_H265);
  std::smatch m;
  std::string text = cap.Text();
  ASSERT_TRUE(
      std::regex_search(text, m,
                        std::regex("\\$>qo_VideoStreamCfg\\(\\):set pipeline\\[(\\d+)\\] property "
                                   "\"stream-type\"=32 success!\n")));
  const std::string id = m[1], pl = "#########pl#" + id + " state change:old: ";
  EXPECT_TRUE(cap.Has("$$$$>p#" + id + " full string=filesrc name=src location=" + path_ +
                      " ! h265parse ! video/x-h265,stream-format=byte-stream,alignment=(string) "
                      "au ! appsink name=appsink async=false sync=false\n"));
  // Only the pipeline's own transitions are reported, and the one the start
  // waits for is applied.
  ASSERT_TRUE(cap.WaitFor("############# pl#" + id + " switch state[4] #############\n"));
  EXPECT_TRUE(cap.Has(pl + "NULL,current: READY,pending: PLAYING #########\n"));
  EXPECT_TRUE(cap.Has(pl + "PAUSED,current: PLAYING,pending: VOID_PENDING #########\n"));
  EXPECT_EQ(Count(cap.Text(), pl), 3u);
  qo_VideoStreamCfg(h, "width", 640);
  EXPECT_TRUE(
      cap.Has("#>qo_VideoStreamCfg():warn,unable to set property \"width\"=640 to file "
              "pipeline!\n"));
  // The parser's error is only reported; the end of stream still arrives.
  Frame f;
  bool eos = false;
  EXPECT_FALSE(PullFrame(h, 5, &f, &eos));
  EXPECT_TRUE(eos);
  EXPECT_TRUE(cap.WaitFor("GStreamer ERROR: No valid frames found before end of stream"));
  EXPECT_TRUE(cap.WaitFor("$$$$>pl#" + id + " receive EOS msg!\n"));
  EXPECT_TRUE(cap.Has("--------->video in recived eos from stream !!!!"));
  EXPECT_EQ(qo_VideoStreamStop(h), 0);
  EXPECT_TRUE(cap.Has("----->pl" + id + " spent time:0 ms or wait eos\n"));
  qo_VideoStreamClose(h);
  EXPECT_TRUE(cap.Has(pl + "PLAYING,current: PAUSED,pending: VOID_PENDING #########\n"));
}

}  // namespace
}  // namespace videoin_test
}  // namespace qo
