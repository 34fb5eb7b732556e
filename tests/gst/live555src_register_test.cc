// How live555src becomes available: the built-in registration, with and
// without the plugin module in GStreamer's search path, and the module
// itself as gst-inspect-1.0 sees it.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "gstlive555src.h"

namespace {

const std::string kPluginDir = std::string(QO_TEST_BINARY_DIR) + "/gst-plugins";

// Runs in a child process (a fresh GStreamer registry each time); exits 0
// when the element that gst_parse_launch gives is the built-in one and works.
[[noreturn]] void CheckBuiltInWins(bool with_module) {
  if (with_module) {
    setenv("GST_PLUGIN_PATH", kPluginDir.c_str(), 1);
  } else {
    unsetenv("GST_PLUGIN_PATH");
  }
  // A fresh registry: neither a cached copy nor another test's view.
  std::string registry = std::string(QO_TEST_BINARY_DIR) + "/gst-registry-live555src-" +
                         (with_module ? "module" : "plain") + ".bin";
  setenv("GST_REGISTRY", registry.c_str(), 1);
  // Only the build's module, never a copy installed on this machine.
  std::string empty = std::string(QO_TEST_BINARY_DIR) + "/gst-no-system-plugins";
  mkdir(empty.c_str(), 0755);
  setenv("GST_PLUGIN_SYSTEM_PATH_1_0", empty.c_str(), 1);
  setenv("G_DEBUG", "fatal-criticals", 1);  // a GType clash would abort
  gst_init(nullptr, nullptr);

  GstPluginFeature* before = gst_registry_lookup_feature(gst_registry_get(), "live555src");
  if ((before != nullptr) != with_module) _exit(10);  // the module is (not) found
  if (before) gst_object_unref(before);

  if (!qo_live555src_register_static() || !qo_live555src_register_static()) _exit(11);
  GstElement* e = gst_element_factory_make("live555src", nullptr);
  if (!e) _exit(12);
  if (G_OBJECT_TYPE(e) != GST_TYPE_LIVE555_SRC) _exit(13);
  gst_object_unref(e);

  if (with_module) {
    // The module can still be loaded next to the built-in copy.
    GstPlugin* plugin =
        gst_plugin_load_file((kPluginDir + "/libgstlive555src.so").c_str(), nullptr);
    if (!plugin) _exit(14);
    GType module_type = g_type_from_name("GstLive555Src");
    if (!module_type || module_type == GST_TYPE_LIVE555_SRC) _exit(15);
    GstElement* m = GST_ELEMENT(g_object_new(module_type, nullptr));
    if (!m) _exit(16);
    gst_object_unref(m);
    gst_object_unref(plugin);
  }
  _exit(0);
}

TEST(Live555SrcRegisterTest, BuiltInElementWithoutTheModule) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(CheckBuiltInWins(false), ::testing::ExitedWithCode(0), "");
}

TEST(Live555SrcRegisterTest, BuiltInElementReplacesTheInstalledModule) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(CheckBuiltInWins(true), ::testing::ExitedWithCode(0), "");
}

// What users of the plugin module see: it loads and offers the properties the
// live-stream layer sets.
TEST(Live555SrcRegisterTest, PluginModuleShowsItsProperties) {
  // The build's module, not one installed on this machine.
  std::string cmd = "GST_PLUGIN_SYSTEM_PATH_1_0='" + std::string(QO_TEST_BINARY_DIR) +
                    "/gst-no-system-plugins' GST_PLUGIN_PATH='" + kPluginDir + "' GST_REGISTRY='" +
                    std::string(QO_TEST_BINARY_DIR) +
                    "/gst-registry-live555src-inspect.bin' gst-inspect-1.0 live555src 2>&1";
  mkdir((std::string(QO_TEST_BINARY_DIR) + "/gst-no-system-plugins").c_str(), 0755);
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
  EXPECT_EQ(pclose(p), 0) << out;
  EXPECT_NE(out.find("libgstlive555src.so"), std::string::npos) << out;
  for (const char* prop : {"location", "max-bytes", "protocols", "eos"}) {
    EXPECT_NE(out.find(std::string("  ") + prop + " "), std::string::npos) << prop;
  }
  EXPECT_NE(out.find("Integer. Range: 0 - 7"), std::string::npos) << "protocols is a plain int";
}

}  // namespace
