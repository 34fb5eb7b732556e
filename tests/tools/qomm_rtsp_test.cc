// qomm over RTSP: "qomm serve" replays the bundled samples on 127.0.0.1, and
// probe, play (JSON, snapshot, TCP, sync, Ctrl-C) and the demo read them back.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "qomm_test_util.h"
#include "test_rtsp_server.h"

namespace qomm_test {
namespace {

std::vector<std::string> Samples() {
  return {SamplePath("sample.h264"), SamplePath("sample.h265"), SamplePath("sample.mjpeg")};
}

TEST(QommRtsp, ServeAndProbeEachCodec) {
  ServeProcess serve(Samples());
  ASSERT_EQ(serve.urls().size(), 3u) << serve.process().Err();
  const char* const codecs[] = {"h264", "h265", "mjpeg"};
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(serve.urls()[i]);
    EXPECT_EQ(serve.urls()[i].rfind("rtsp://127.0.0.1:", 0), 0u);
    EXPECT_NE(serve.urls()[i].find(std::string("/sample.") + codecs[i]), std::string::npos);
    RunResult r = RunQomm({"probe", serve.urls()[i]});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, std::string(codecs[i]) + "\n");
  }
  // An unknown mount: the server is there, the stream is not.
  std::string missing = serve.urls()[0] + "-missing";
  RunResult r = RunQomm({"probe", missing});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "unknown\n");
  EXPECT_EQ(r.err, "qomm: cannot detect the stream type of " + missing +
                       ": the server answered 404 Not Found\n");
  r = RunQomm({"play", missing, "--type", "h264"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qomm: cannot open " + missing + ": the server answered 404 Not Found\n");
  EXPECT_EQ(serve.Stop(), 0);
}

TEST(QommRtsp, PlayJsonSnapshotTcpAndSync) {
  ServeProcess serve(Samples());
  ASSERT_EQ(serve.urls().size(), 3u) << serve.process().Err();

  // 45 frames: a second and a half, long enough for the sender's first
  // reports to turn the time stamps into wall-clock times.
  RunResult r = RunQomm({"play", serve.urls()[0], "--frames", "45", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 45u);
  int aged = 0;
  for (const std::string& line : lines) {
    std::map<std::string, std::string> f;
    ASSERT_TRUE(ParseJsonObject(line, &f)) << line;
    EXPECT_EQ(f["status"], "0");
    EXPECT_EQ(f["codec"], "h264");
    EXPECT_EQ(f["width"], "320");
    EXPECT_NE(f["pts"], "null");
    if (f["ntp_age_ms"] != "null") {
      aged++;
      // Sender and receiver share this machine's clock.
      double age = std::atof(f["ntp_age_ms"].c_str());
      EXPECT_GT(age, -1000) << line;
      EXPECT_LT(age, 5000) << line;
    }
  }
  EXPECT_GT(aged, 0) << r.out;
  EXPECT_EQ(SummaryText(r.err, "end"), "stopped after 45 frames");
  EXPECT_NE(SummaryText(r.err, "frame age"), "") << r.err;

  const std::string png = TempPath("camera.png");
  r = RunQomm({"play", serve.urls()[2], "--tcp", "--snapshot", png});
  ASSERT_EQ(r.status, 0) << r.err;
  int width = 0;
  int height = 0;
  ASSERT_TRUE(PngSize(png, &width, &height));
  EXPECT_EQ(width, 320);
  EXPECT_EQ(height, 240);
  EXPECT_NE(r.out.find("(video input, mjpeg)"), std::string::npos) << r.out;

  r = RunQomm({"play", serve.urls()[1], "--sync", "--type", "h265", "--duration", "1.5"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_GT(SummaryNumber(r.out, "frames"), 10);
  EXPECT_EQ(SummaryText(r.out, "picture"), "h265 320x240, encoded");
  EXPECT_EQ(serve.Stop(), 0);
}

TEST(QommRtsp, CredentialsAreExplained) {
  qo::test::TestRtspServer::Options options;
  options.streams = {"cam=h264,size=320x240,fps=30"};
  options.user = "viewer";
  options.password = "secret";
  qo::test::TestRtspServer server(options);
  ASSERT_TRUE(server.Start()) << server.error();

  RunResult r = RunQomm({"probe", server.Url("cam")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "qomm: cannot detect the stream type of " + server.Url("cam") +
                       ": the server answered 401 Unauthorized (the stream needs a user name "
                       "and password)\n");
  const std::string wrong = server.UrlWithCredentials("cam", "viewer", "guess");
  r = RunQomm({"play", wrong, "--type", "h264"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("401 Unauthorized (check the user name and password)"), std::string::npos)
      << r.err;
  EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;

  r = RunQomm({"play", server.UrlWithCredentials("cam", "viewer", "secret"), "--frames", "5"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(SummaryNumber(r.out, "frames"), 5);
}

TEST(QommRtsp, CtrlCEndsPlayCleanly) {
  ServeProcess serve({SamplePath("sample.h264")});
  ASSERT_EQ(serve.urls().size(), 1u) << serve.process().Err();
  Background play({"play", serve.urls()[0]});
  sleep(3);
  EXPECT_EQ(play.Signal(SIGINT, 30), 0);
  std::string out;
  for (std::string line = play.ReadLine(1); !line.empty(); line = play.ReadLine(1)) {
    out += line + "\n";
  }
  EXPECT_GT(SummaryNumber(out, "frames"), 0) << out << play.Err();
  EXPECT_EQ(SummaryText(out, "end"), "interrupted");
  EXPECT_EQ(serve.Stop(), 0);
}

TEST(QommRtsp, DemoPlaysTheSampleBothWays) {
  RunResult r = RunQomm({}, 120);
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  std::vector<long> counts = AllFrameCounts(r.out);
  ASSERT_EQ(counts.size(), 2u) << r.out;
  EXPECT_EQ(counts[0], 90);
  EXPECT_GT(counts[1], 0);
  EXPECT_NE(r.out.find("(file input, h264)"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("(video input, h264)"), std::string::npos) << r.out;
#ifndef QO_SANITIZER_BUILD
  EXPECT_LT(r.seconds, 30);
#endif
}

}  // namespace
}  // namespace qomm_test
