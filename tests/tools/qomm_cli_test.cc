// qomm's command line: usage errors, help, and sources that cannot work,
// each reported in one line with the documented exit status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qomm_test_util.h"

namespace qomm_test {
namespace {

TEST(QommCli, BadUsageExitsWithTwoAndOneHint) {
  const std::vector<std::vector<std::string>> cases = {
      {"bogus"},
      {"play"},
      {"play", SamplePath("sample.h264"), "--frames", "x"},
      {"play", SamplePath("sample.h264"), "--frames"},
      {"play", SamplePath("sample.h264"), "--framerate", "121"},
      {"play", SamplePath("sample.h264"), "--type", "vp9"},
      {"play", SamplePath("sample.h264"), "--no-such-option"},
      {"play", SamplePath("sample.h264"), "--tcp"},
      {"play", "rtsp://127.0.0.1:1/x", "--loop", "2"},
      {"play", "rtsp://127.0.0.1:1/x", "--type", "nv12"},
      {"play", "file:///x.h264", "--type", "99"},
      {"play", "http://127.0.0.1/x"},
      {"play", "a.h264", "b.h264"},
      {"play", "a.h264", "--json=yes"},
      {"probe"},
      {"serve"},
      {"serve", "a.h264", "--port", "70000"},
      {"list", "extra"},
      {"-q", "-v", "list"},
  };
  for (const auto& args : cases) {
    std::string joined;
    for (const auto& a : args) joined += " " + a;
    SCOPED_TRACE("qomm" + joined);
    RunResult r = RunQomm(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.out.empty()) << r.out;
    std::vector<std::string> lines = Lines(r.err);
    ASSERT_EQ(lines.size(), 2u) << r.err;
    EXPECT_EQ(lines[0].rfind("qomm: ", 0), 0u);
    EXPECT_NE(lines[1].find("--help"), std::string::npos);
  }
}

TEST(QommCli, HelpOnEveryCommand) {
  const std::vector<std::vector<std::string>> cases = {
      {"--help"},          {"-h"},
      {"play", "--help"},  {"play", SamplePath("x"), "-h"},
      {"probe", "--help"}, {"serve", "--help"},
      {"list", "--help"},  {"help", "play"},
  };
  for (const auto& args : cases) {
    SCOPED_TRACE(args.back());
    RunResult r = RunQomm(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("usage: qomm", 0), 0u) << r.out;
    EXPECT_TRUE(r.err.empty()) << r.err;
  }
  // Each command documents its own options.
  EXPECT_NE(RunQomm({"play", "--help"}).out.find("--snapshot"), std::string::npos);
  EXPECT_NE(RunQomm({"serve", "--help"}).out.find("--port"), std::string::npos);
}

TEST(QommCli, UnusableSourcesFailInOneLine) {
  const std::string missing = TempPath("missing.h264");
  struct Case {
    std::vector<std::string> args;
    std::string line;
  };
  const std::vector<Case> cases = {
      {{"play", missing}, "qomm: cannot open " + missing + ": No such file or directory"},
      {{"play", "--list", missing}, "qomm: cannot open " + missing + ": No such file or directory"},
      {{"play", "file://" + missing},
       "qomm: cannot open file://" + missing + ": No such file or directory"},
      {{"play", "rtsp://127.0.0.1:1/cam"},
       "qomm: cannot open rtsp://127.0.0.1:1/cam: connection refused"},
      {{"play", "rtsp://127.0.0.1:1/cam", "--type", "h264", "--tcp"},
       "qomm: cannot open rtsp://127.0.0.1:1/cam: connection refused"},
      {{"probe", "rtsp://127.0.0.1:1/cam"},
       "qomm: cannot detect the stream type of rtsp://127.0.0.1:1/cam: connection refused"},
      {{"play", QO_TEST_SOURCE_DIR "/CMakeLists.txt"},
       "qomm: cannot tell the stream type of " QO_TEST_SOURCE_DIR
       "/CMakeLists.txt: give it with --type"},
      {{"serve", missing}, "qomm: cannot open " + missing + ": No such file or directory"},
      {{"--lib", missing, "list"},
       "qomm: cannot load the media-input library (" + missing +
           ": cannot open shared object file: No such file or directory)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    RunResult r = RunQomm(c.args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, c.line + "\n");
    EXPECT_LT(r.seconds, 20);
  }
}

TEST(QommCli, ProbeRecognisesFilesByContent) {
  // probe reads the first bytes, never the name.
  for (const char* codec : {"h264", "h265", "mjpeg"}) {
    SCOPED_TRACE(codec);
    RunResult r = RunQomm({"probe", SamplePath(std::string("sample.") + codec)});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, std::string(codec) + "\n");
  }
  RunResult r = RunQomm({"probe", "file://" QO_TEST_SOURCE_DIR "/CMakeLists.txt"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "unknown\n");
  EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
}

TEST(QommCli, ListShowsBothNodes) {
  RunResult r = RunQomm({"list"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* name :
       {"qo.mm.file.in.create", "qo.mm.video.in.stream.type", "qo::FileInput", "qo::VideoInput"}) {
    EXPECT_NE(r.out.find(std::string("  ") + name + "\n"), std::string::npos) << name;
  }
}

}  // namespace
}  // namespace qomm_test
