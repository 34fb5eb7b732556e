// qomm play on the bundled files through the file input node: summaries,
// JSON lines, early stops, loops and lists, sync pulls, pacing and snapshots.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "qomm_test_util.h"

namespace qomm_test {
namespace {

using Fields = std::map<std::string, std::string>;

const char* const kCodecs[] = {"h264", "h265", "mjpeg"};
constexpr long kSampleFrames = 90;

std::vector<Fields> JsonLines(const std::string& out) {
  std::vector<Fields> objects;
  for (const std::string& line : Lines(out)) {
    Fields f;
    EXPECT_TRUE(ParseJsonObject(line, &f)) << line;
    objects.push_back(f);
  }
  return objects;
}

TEST(QommPlayFile, EachSamplePlaysToItsEnd) {
  for (const char* codec : kCodecs) {
    SCOPED_TRACE(codec);
    RunResult r = RunQomm({"play", SamplePath(std::string("sample.") + codec), "--framerate", "0"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(SummaryNumber(r.out, "frames"), kSampleFrames) << r.out;
    EXPECT_GT(SummaryNumber(r.out, "bytes"), 0);
    EXPECT_EQ(SummaryText(r.out, "picture"), std::string(codec) + " 320x240, encoded");
    EXPECT_EQ(SummaryText(r.out, "end"), "end of stream");
    EXPECT_NE(r.out.find("(file input, " + std::string(codec) + ")"), std::string::npos) << r.out;
  }
}

TEST(QommPlayFile, JsonLineForEveryTask) {
  RunResult r = RunQomm({"play", SamplePath("sample.h264"), "--framerate", "0", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<Fields> tasks = JsonLines(r.out);
  ASSERT_EQ(tasks.size(), static_cast<size_t>(kSampleFrames + 1));
  long long bytes = 0;
  long long last_pts = -1;
  for (size_t i = 0; i + 1 < tasks.size(); ++i) {
    Fields& t = tasks[i];
    SCOPED_TRACE(i);
    for (const char* key : {"index", "status", "format", "codec", "kind", "width", "height",
                            "bytes", "pts", "ntp_age_ms", "source_id", "t_ms"}) {
      EXPECT_EQ(t.count(key), 1u) << key;
    }
    EXPECT_EQ(t["index"], std::to_string(i));
    EXPECT_EQ(t["status"], "0");
    EXPECT_EQ(t["format"], "31");
    EXPECT_EQ(t["codec"], "h264");
    EXPECT_EQ(t["kind"], "3");
    EXPECT_EQ(t["width"], "320");
    EXPECT_EQ(t["height"], "240");
    EXPECT_EQ(t["ntp_age_ms"], "null");  // parser times, not wall-clock
    long long pts = std::atoll(t["pts"].c_str());
    EXPECT_GT(pts, last_pts);
    last_pts = pts;
    bytes += std::atoll(t["bytes"].c_str());
  }
  EXPECT_EQ(tasks.back()["status"], "1");
  EXPECT_EQ(tasks.back()["pts"], "null");
  // The human summary moves to standard error and agrees with the lines.
  EXPECT_EQ(SummaryNumber(r.err, "bytes"), bytes) << r.err;
  EXPECT_EQ(SummaryNumber(r.err, "frames"), kSampleFrames);
}

TEST(QommPlayFile, StopsEarlyLoopsAndLists) {
  // Closing a file input early waits out its output thread's time-outs: keep
  // them short.
  RunResult r = RunQomm(
      {"play", SamplePath("sample.mjpeg"), "--framerate", "0", "--frames", "10", "--timeout", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(SummaryNumber(r.out, "frames"), 10);
  EXPECT_EQ(SummaryText(r.out, "end"), "stopped after 10 frames");

  r = RunQomm({"play", SamplePath("sample.h265"), "--framerate", "0", "--loop", "2"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(SummaryNumber(r.out, "frames"), 2 * kSampleFrames);

  // Blank lines are skipped; entries 1 and 2, twice.
  const std::string list = TempPath("clips.txt");
  std::ofstream(list) << SamplePath("sample.h264") << "\n\n"
                      << SamplePath("sample.h264") << "\n"
                      << SamplePath("sample.h264") << "\n";
  r = RunQomm({"play", "--list", list, "--start-index", "1", "--loop", "2", "--framerate", "0"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(SummaryNumber(r.out, "frames"), 4 * kSampleFrames);
  EXPECT_EQ(SummaryText(r.out, "end"), "end of stream");
}

TEST(QommPlayFile, SyncPullsAndContentDetection) {
  // No extension: the type comes from the first bytes.
  const std::string clip = TempPath("clip");
  {
    std::ifstream in(SamplePath("sample.h265"), std::ios::binary);
    std::ofstream(clip, std::ios::binary) << in.rdbuf();
  }
  for (bool sync : {false, true}) {
    SCOPED_TRACE(sync);
    std::vector<std::string> args = {"play", clip, "--framerate", "0"};
    if (sync) args.push_back("--sync");
    RunResult r = RunQomm(args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(SummaryNumber(r.out, "frames"), kSampleFrames);
    EXPECT_EQ(SummaryText(r.out, "picture"), "h265 320x240, encoded");
    EXPECT_EQ(r.out.find(", sync)") != std::string::npos, sync) << r.out;
  }
}

TEST(QommPlayFile, FramerateReachesTheNode) {
  // 15 frames at 30 per second take about half a second, unpaced ones far less.
  RunResult paced = RunQomm(
      {"play", SamplePath("sample.h264"), "--framerate", "30", "--frames", "16", "--timeout", "1"});
  ASSERT_EQ(paced.status, 0) << paced.err;
  RunResult fast = RunQomm(
      {"play", SamplePath("sample.h264"), "--framerate", "0", "--frames", "16", "--timeout", "1"});
  ASSERT_EQ(fast.status, 0) << fast.err;
  auto span = [](const std::string& out) {
    std::string frames = SummaryText(out, "frames");
    return std::atof(frames.substr(frames.find("over ") + 5).c_str());
  };
  EXPECT_GT(span(paced.out), 0.4) << paced.out;
  EXPECT_LT(span(fast.out), 0.3) << fast.out;
}

TEST(QommPlayFile, SnapshotIsAPngOfThePicture) {
  for (const char* codec : kCodecs) {
    SCOPED_TRACE(codec);
    const std::string png = TempPath(std::string("first-") + codec + ".png");
    RunResult r = RunQomm(
        {"play", SamplePath(std::string("sample.") + codec), "--snapshot", png, "--timeout", "1"});
    ASSERT_EQ(r.status, 0) << r.err;
    int width = 0;
    int height = 0;
    ASSERT_TRUE(PngSize(png, &width, &height));
    EXPECT_EQ(width, 320);
    EXPECT_EQ(height, 240);
    EXPECT_EQ(SummaryText(r.out, "snapshot"), png + " (320x240)");
    // Without --frames or --duration the snapshot ends the run.
    EXPECT_EQ(SummaryText(r.out, "end"), "snapshot taken");
    EXPECT_LT(SummaryNumber(r.out, "frames"), kSampleFrames);
  }
  // A snapshot that cannot be written is a failure.
  RunResult r = RunQomm({"play", SamplePath("sample.h264"), "--snapshot",
                         TempPath("no-such-dir/x.png"), "--framerate", "0"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
}

}  // namespace
}  // namespace qomm_test
