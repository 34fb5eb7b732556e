// What a host program sees on its standard output: nothing of the library's
// once it installed the layers' sinks (which then get every text), and
// without them the very same texts as before. sink_host runs both layers in
// a process of its own.
#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "test_media.h"

namespace qo {
namespace {

struct Output {
  std::string out, err;
};

Output SinkHost(const std::string& path, const char* mode) {
  gchar* out = nullptr;
  gchar* err = nullptr;
  gint status = -1;
  const gchar* argv[] = {QO_SINK_HOST, path.c_str(), mode, nullptr};
  GError* error = nullptr;
  EXPECT_TRUE(g_spawn_sync(nullptr, const_cast<gchar**>(argv), nullptr, G_SPAWN_DEFAULT, nullptr,
                           nullptr, &out, &err, &status, &error))
      << (error ? error->message : "");
  g_clear_error(&error);
  EXPECT_TRUE(g_spawn_check_wait_status(status, nullptr)) << mode;
  Output r{out ? out : "", err ? err : ""};
  g_free(out);
  g_free(err);
  return r;
}

// The distinct lines of a text, digits left out (ids and timings vary from
// run to run), each text that ends without a line end taken as a line of its
// own, and without the bus watch's lines: whether those come before a close
// varies from run to run.
std::set<std::string> Lines(std::string text) {
  text.erase(std::remove_if(text.begin(), text.end(), ::isdigit), text.end());
  std::set<std::string> lines;
  std::istringstream in(std::regex_replace(text, std::regex("!!!!"), "!!!!\n"));
  for (std::string line; std::getline(in, line);) {
    if (!std::regex_search(line, std::regex("receive EOS msg|state change|switch state|latency")))
      lines.insert(line);
  }
  return lines;
}

TEST(LayerSinks, AHostWithSinksSeesNoLibraryTextOnItsOutputAndOneWithoutSeesTodays) {
  testmedia::StreamParams p;
  const std::string path = testmedia::GenerateStream(p);
  ASSERT_FALSE(path.empty());
  const Output plain = SinkHost(path, "plain"), sunk = SinkHost(path, "sink");
  EXPECT_EQ(sunk.out, "");
  for (const char* text :
       {"------->task: running main loop!",
        "$>qo_VideoStreamCfg():set pipeline[0] property \"stream-type\"=31 success!\n",
        "--------->video in recived eos from stream !!!!", "KvVideoFile: set property size=4096\n",
        "KvVideoFile sent EOS \n", "video file in recived eos from stream !!!!\n "}) {
    EXPECT_NE(plain.out.find(text), std::string::npos) << text;
    EXPECT_NE(sunk.err.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(Lines(plain.out), Lines(sunk.err)) << "the sinks got other texts";
}

}  // namespace
}  // namespace qo
