// qomm without a command: the bundled sample through both source nodes, from
// its file and over RTSP.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "qomm.h"
#include "rtsp_server.h"

namespace qomm {

namespace {

constexpr char kSample[] = "sample.h264";
constexpr int kSampleFps = 30;
// Three seconds of the looped replay, with room for a slow start.
constexpr char kRtspFrames[] = "90";
constexpr char kRtspLimitS[] = "12";

// Where the bundled samples are looked for, in order.
std::vector<std::string> SampleDirs() {
  // An installed tree may have been moved: look beside the program first.
  std::error_code ec;
  const std::string exe_dir = std::filesystem::read_symlink("/proc/self/exe", ec).parent_path();
  return {exe_dir + "/../" QO_SAMPLES_RELATIVE_DIR, QO_SAMPLES_INSTALL_DIR, QO_SAMPLES_SOURCE_DIR};
}

// Path of the sample `name`, or "" when none is readable.
std::string FindSample(const std::string& name) {
  for (const std::string& dir : SampleDirs()) {
    std::error_code ec;
    const std::string path = dir + "/" + name;
    if (access(path.c_str(), R_OK) == 0) return std::filesystem::weakly_canonical(path, ec);
  }
  return "";
}

}  // namespace

const char kDemoUsage[] =
    "usage: qomm [-v|-q] [COMMAND [ARGS]]\n"
    "\n"
    "Without a command qomm plays its bundled sample (H.264, 320x240, 3 s) through\n"
    "the file input node, then serves it over RTSP on 127.0.0.1 and plays it through\n"
    "the video input node, with a summary of each.\n"
    "\n"
    "Commands:\n"
    "  play SOURCE     play a camera, stream or file and report what arrives\n"
    "  probe URI       print the stream type of a source\n"
    "  serve FILE...   serve elementary-stream files over RTSP on 127.0.0.1\n"
    "  ingest FILE     run every camera URL listed in FILE, with their counters\n"
    "  list            list what the media-input library registers\n"
    "Run qomm COMMAND --help for the options of a command.\n"
    "\n"
    "Options of every command:\n"
    "  -v           more library messages (repeat for more: -vv, -vvv)\n"
    "  -q           quiet: no library messages and no progress display\n";

int RunDemo(Args& args) {
  if (!args.words.empty()) throw UsageError("unknown command or option " + args.words[0]);
  std::string sample = FindSample(kSample);
  if (sample.empty()) {
    std::string dirs;
    for (const std::string& dir : SampleDirs()) dirs += " " + dir;
    return Fail("the bundled " + std::string(kSample) + " is missing (looked in" + dirs + ")");
  }
  printf("Playing the bundled sample through the file input node...\n");
  fflush(stdout);
  int status = Play({{sample}, {{"--framerate", std::to_string(kSampleFps)}}},
                    "1. file input node: " + sample);
  if (status != 0 || StopRequested()) return status;

  std::unique_ptr<qo::tools::RtspServer> server = ServeFiles({sample}, 0, kSampleFps);
  const std::string url = server->Url(server->streams()[0].mount);
  printf("\nServing it at %s and playing that through the video input node...\n", url.c_str());
  fflush(stdout);
  status = Play({{url}, {{"--frames", kRtspFrames}, {"--duration", kRtspLimitS}}},
                "2. video input node: " + url);
  server->Stop();
  if (status == 0) printf("\nNext: qomm play --help, qomm serve --help, qomm probe --help\n");
  return status;
}

}  // namespace qomm
