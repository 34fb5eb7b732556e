// End-to-end runs of the built qomm program: command line, files, RTSP
// against "qomm serve", refusals, credentials, and the demo.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "test_common.h"
#include "test_rtsp_server.h"

namespace {

using qo::testutil::kSlackMs;

const std::string kData = QO_TEST_SOURCE_DIR "/data/";
const char* const kCodecs[] = {"h264", "h265", "mjpeg"};

std::string Temp(const std::string& name) {
  static const std::string dir = [] {
    std::string t = QO_TEST_BINARY_DIR "/tests/tools/qomm-XXXXXX";
    return std::string(mkdtemp(&t[0]) != nullptr ? t : "/tmp");
  }();
  return dir + "/" + name;
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

struct Output {
  int status;
  std::string out, err;
  long ms;  // how long it ran
};

// Runs a shell command line, its output in files.
Output Shell(const std::string& cmd) {
  const auto t0 = std::chrono::steady_clock::now();
  const int raw = std::system((cmd + " </dev/null >" + Temp("out") + " 2>" + Temp("err")).c_str());
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - t0);
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, Slurp(Temp("out")), Slurp(Temp("err")),
          static_cast<long>(ms.count())};
}
Output Qomm(const std::vector<std::string>& args) {
  std::string cmd = QO_QOMM_PATH;
  for (const std::string& a : args) cmd += " '" + a + "'";
  return Shell(cmd);
}

// The rest of the summary line "  <field>: ...", and the number it starts with.
std::string Line(const std::string& text, const std::string& field) {
  std::smatch m;
  return std::regex_search(text, m, std::regex("  " + field + ": *([^\r\n]*)")) ? m[1].str() : "";
}
long Field(const std::string& text, const std::string& field) {
  return std::atol(Line(text, field).c_str());
}

// A snapshot of the samples' test pattern: decoded, its upper rows cross
// saturated red and blue bars.
void ExpectBars(const std::string& png) {
  ASSERT_EQ(Shell("gst-launch-1.0 -q filesrc location=" + png + " ! pngdec ! videoconvert ! " +
                  "video/x-raw,format=RGB,width=320,height=240 ! filesink location=" + png + ".rgb")
                .status,
            0);
  const std::string px = Slurp(png + ".rgb");
  ASSERT_EQ(px.size(), 320u * 240 * 3);
  bool red = false, blue = false;
  for (size_t i = 40 * 320 * 3; i < 41 * 320 * 3; i += 3) {
    const auto* p = reinterpret_cast<const unsigned char*>(&px[i]);
    red |= p[0] > 150 && p[1] < 60 && p[2] < 60;
    blue |= p[2] > 150 && p[0] < 60 && p[1] < 60;
  }
  EXPECT_TRUE(red && blue) << png;
}

// Bad usage exits 2 with one line and a pointer to --help; an unusable
// source exits 1 with one line. probe reads the first bytes, never the name.
TEST(Qomm, CommandLine) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"bogus"},
           {"play"},
           {"play", kData + "sample.h264", "--frames", "x"},
           {"play", kData + "sample.h264", "--frames=0"},
           {"serve", "a.h264", "--port", "70000"}}) {
    auto r = Qomm(args);
    EXPECT_EQ(r.status, 2) << args[0];
    EXPECT_TRUE(std::regex_match(r.err, std::regex("qomm: [^\n]*\n[^\n]*--help[^\n]*\n"))) << r.err;
  }
  const std::string missing = Temp("missing.h264"), text = QO_TEST_SOURCE_DIR "/CMakeLists.txt";
  for (const auto& [args, err] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"play", missing}, "cannot open " + missing + ": No such file or directory"},
           {{"probe", "v4l2://" + missing},
            "cannot detect the stream type of v4l2://" + missing + ": No such file or directory"},
           {{"play", text}, "cannot tell the stream type of " + text + ": give it with --type"}}) {
    auto r = Qomm(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qomm: " + err + "\n");
  }
  EXPECT_EQ(Qomm({"serve", "--help"}).out.rfind("usage: qomm", 0), 0u);
  auto r = Qomm({"list"});
  for (const char* name :
       {"qo.mm.file.in.create", "qo.mm.video.in.stream.type", "qo::FileInput", "qo::VideoInput"}) {
    EXPECT_NE(r.out.find(std::string("  ") + name + "\n"), std::string::npos) << name;
  }
  std::ofstream(Temp("clip"), std::ios::binary) << std::ifstream(kData + "sample.h265").rdbuf();
  EXPECT_EQ(Qomm({"probe", Temp("clip")}).out, "h265\n");
  r = Qomm({"probe", "file://" + text});
  EXPECT_EQ(std::make_pair(r.status, r.out), std::make_pair(1, std::string("unknown\n")));
}

// Each refusal ends in one line with the stream's own reason: the permanent
// ones (401, 404, 461) at once, played or probed; a refused connection only
// when the node gives up, since the server may still come. The password
// never leaves qomm: not in the header, the JSON lines, the library's
// messages (-vvv) nor a failure line.
TEST(Qomm, RefusalsAreExplainedAndPasswordsNeverShown) {
  qo::test::TestRtspServer server(
      {{"cam=h264,size=320x240,fps=30", "udp=h264,udp-only"}, "viewer", "secret"});
  ASSERT_TRUE(server.Start()) << server.error();
  const std::string missing = server.UrlWithCredentials("nope", "viewer", "secret");
  const struct {
    std::vector<std::string> args;
    std::string code;  // in the reason
  } cases[] = {
      {{"play", "rtsp://127.0.0.1:1/cam", "--type", "h264", "--timeout", "1"}, "refused"},
      {{"play", server.UrlWithCredentials("cam", "viewer", "guess")}, "401"},
      {{"play", missing, "--type", "h264", "--sync"}, "404"},
      {{"play", server.UrlWithCredentials("udp", "viewer", "secret"), "--tcp", "--json"}, "461"},
      {{"probe", missing}, "404"},
  };
  std::set<std::string> reasons;
  for (const auto& c : cases) {
    auto r = Qomm(c.args);
    const std::string shown = std::regex_replace(c.args[1], std::regex(":[a-z]+@"), ":***@");
    std::smatch m;
    EXPECT_EQ(r.status, 1) << c.args[1];
    ASSERT_TRUE(
        std::regex_match(r.err, m,
                         std::regex("qomm: (cannot open|cannot detect the stream type of) " +
                                    std::regex_replace(shown, std::regex("[*.]"), "\\$&") +
                                    ": ([^\n]*" + c.code + "[^\n]*)\n")))
        << r.err;
    reasons.insert(m[2]);
    if (c.code == "refused") {
      EXPECT_GE(r.ms, 3000) << "three empty pulls of a second";
    } else {  // sync mode pulls for a second at a time, and its stop waits 4 s
      EXPECT_LT(r.ms, (c.args.back() == "--sync" ? 6500 : 2000) + kSlackMs) << r.err;
    }
  }
  EXPECT_EQ(reasons.size(), 4u) << "refused, 401, 404 and 461 read differently";

  const std::string url = server.UrlWithCredentials("cam", "viewer", "secret");
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"play", url, "--frames", "5"},
           {"play", url, "--frames", "5", "--json", "-vvv"},
           {"play", url + "-missing", "-v"},
           {"probe", url, "-vvv"}}) {
    auto r = Qomm(args);
    EXPECT_EQ(r.status, args[1] == url + "-missing" ? 1 : 0) << r.err;
    EXPECT_EQ((r.out + r.err).find("secret"), std::string::npos) << r.out << r.err;
    EXPECT_NE((r.out + r.err).find("viewer:***@"), std::string::npos) << r.out << r.err;
    if (args.size() == 4) {
      EXPECT_EQ(Field(r.out, "frames"), 5) << r.err;
      EXPECT_NE(r.out.find("play rtsp://viewer:***@"), std::string::npos) << r.out;
    }
  }
}

TEST(Qomm, PlaysFiles) {
  for (const std::string codec : kCodecs) {
    const std::string png = Temp(codec + ".png");
    // --frames keeps the run going past the snapshot, to the end.
    auto r = Qomm({"play", kData + "sample." + codec, "--framerate", "0", "--snapshot", png,
                   "--frames", "1000"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Field(r.out, "frames"), 90) << r.out;
    EXPECT_GT(Field(r.out, "bytes"), 0);
    EXPECT_EQ(Line(r.out, "picture"), codec + " 320x240, encoded");
    EXPECT_EQ(Line(r.out, "end"), "end of stream");
    EXPECT_EQ(Line(r.out, "snapshot"), png + " (320x240)");
    EXPECT_NE(r.out.find("(file input, " + codec + ")"), std::string::npos);
    ExpectBars(png);
  }
  // Without --frames the snapshot ends the run.
  auto r = Qomm({"play", kData + "sample.h264", "--snapshot", Temp("first.png"), "--timeout", "1"});
  EXPECT_EQ(Line(r.out, "end"), "snapshot taken");

  // One JSON line per task, end of stream last; the summary moves to
  // standard error.
  r = Qomm({"play", kData + "sample.h264", "--framerate", "0", "--json"});
  const std::regex frame(R"(\{"index": *\d+,.*"status": *0,.*"codec": *"h264",.*"width": *320,)"
                         R"(.*"pts": *\d+,.*"ntp_age_ms": *null.*\})");
  std::istringstream json(r.out);
  int lines = 0;
  for (std::string s; std::getline(json, s) && ++lines <= 90;) {
    EXPECT_TRUE(std::regex_match(s, frame)) << s;
  }
  EXPECT_EQ(lines, 91);
  EXPECT_TRUE(std::regex_search(r.out, std::regex(R"(\n\{.*"status": *1,.*"pts": *null.*\}\n$)")));
  EXPECT_EQ(Field(r.err, "frames"), 90);

  r = Qomm({"play", kData + "sample.mjpeg", "--framerate", "0", "--frames", "10", "--timeout", "1"});
  EXPECT_EQ(Line(r.out, "end"), "stopped after 10 frames");

  // Blank lines are skipped; entries 1 and 2, twice, pulled in sync mode.
  const std::string h264 = kData + "sample.h264\n";
  std::ofstream(Temp("clips.txt")) << h264 << "\n" << h264 << h264;
  r = Qomm({"play", "--list", Temp("clips.txt"), "--start-index", "1", "--loop", "2", "--framerate",
            "0", "--sync"});
  EXPECT_EQ(Field(r.out, "frames"), 4 * 90) << r.err;
  EXPECT_NE(r.out.find(", sync)"), std::string::npos);

  // 15 frame intervals at 30 per second take half a second.
  r = Qomm({"play", kData + "sample.h264", "--framerate", "30", "--frames", "16", "--timeout", "1"});
  EXPECT_TRUE(std::regex_search(r.out, std::regex("over (0\\.[4-9]|[1-9])[0-9.]* s"))) << r.out;
}

TEST(Qomm, RtspAgainstServe) {
  // exec: the shell's pid is qomm's, for Ctrl-C.
  const std::string cmd = "exec " QO_QOMM_PATH " serve --port 0 " + kData + "sample.h264 " + kData +
                          "sample.h265 " + kData + "sample.mjpeg >" + Temp("urls") + " 2>/dev/null";
  const char* argv[] = {"/bin/sh", "-c", cmd.c_str(), nullptr};
  pid_t serve = -1;
  ASSERT_EQ(posix_spawn(&serve, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ), 0);
  struct Reap {  // on an early return
    pid_t& pid;
    ~Reap() { pid > 0 && kill(pid, SIGKILL) == 0 && waitpid(pid, nullptr, 0); }
  } reap{serve};
  std::vector<std::string> urls;
  for (int i = 0; i < 300 && urls.size() < 3; ++i, usleep(100000)) {
    std::istringstream lines(Slurp(Temp("urls")));
    urls.clear();
    for (std::string url, rest; lines >> url && std::getline(lines, rest);) urls.push_back(url);
  }
  ASSERT_EQ(urls.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Qomm({"probe", urls[i]}).out, kCodecs[i] + std::string("\n"));
  // A second and a half: the sender's first reports turn the time stamps
  // into wall-clock times, and sender and receiver share this clock.
  auto r = Qomm({"play", urls[0], "--frames", "45", "--json"});
  std::istringstream json(r.out);
  int lines = 0, aged = 0;
  for (std::string s; std::getline(json, s); ++lines) {
    std::smatch m;
    if (!std::regex_search(s, m, std::regex(R"("codec": *"h264",.*"ntp_age_ms": *(-?[0-9.]+))")))
      continue;
    ++aged;
    EXPECT_TRUE(std::stod(m[1]) > -1000 && std::stod(m[1]) < 5000) << s;
  }
  EXPECT_EQ(lines, 45);
  EXPECT_GT(aged, 0);

  r = Qomm({"play", urls[2], "--tcp", "--snapshot", Temp("camera.png")});
  EXPECT_NE(r.out.find("(video input, mjpeg)"), std::string::npos) << r.out << r.err;
  ExpectBars(Temp("camera.png"));

  // On a terminal a live progress line; Ctrl-C ends with the summary.
  r = Shell("script -qec \"timeout --foreground --preserve-status -s INT 2 " QO_QOMM_PATH " play " +
            urls[1] + " --sync --type h265\" /dev/null");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(std::regex_search(r.out, std::regex("\r\x1b\\[K[1-9][0-9]* frames  [0-9.]+ fps")));
  EXPECT_GT(Field(r.out, "frames"), 10) << r.out;
  EXPECT_EQ(Line(r.out, "picture"), "h265 320x240, encoded");
  EXPECT_EQ(Line(r.out, "end"), "interrupted");
  int status = -1;
  kill(serve, SIGINT) == 0 && waitpid(serve, &status, 0);
  serve = -1;
  EXPECT_EQ(status, 0);
}

TEST(Qomm, DemoPlaysTheSampleBothWays) {
  auto r = Qomm({});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(std::regex_search(
      r.out, std::regex(R"(\(file input, h264\)[\s\S]*  frames: *90,)"
                        R"([\s\S]*\(video input, h264\)[\s\S]*  frames: *[1-9])")))
      << r.out;
}

}  // namespace
