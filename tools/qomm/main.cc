// qomm: loads the media-input library and lists the global functions and
// node classes it registered.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/qo_registry.h"

namespace {

void Usage(const char* prog) {
  std::printf(
      "usage: %s [--lib PATH]\n"
      "  --lib PATH  load the media-input library from PATH\n",
      prog);
}

// Directory of this program, without the trailing slash.
std::string ProgramDir() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return ".";
  buf[n] = '\0';
  std::string path(buf);
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// The build tree keeps the library one level above the program, an install
// in the library directory next to bin/; last comes the loader's own search.
std::vector<std::string> LibraryCandidates() {
  const std::string dir = ProgramDir();
  return {dir + "/../" QO_SDKMM_SONAME, dir + "/../" QO_INSTALL_LIBDIR "/" QO_SDKMM_SONAME,
          QO_SDKMM_SONAME, "libqosdkmm.so"};
}

void* LoadLibrary(const std::vector<std::string>& candidates, std::string* loaded) {
  std::string errors;
  for (const std::string& path : candidates) {
    // Never closed: the registries keep functions that live in the library.
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (handle != nullptr) {
      *loaded = path;
      return handle;
    }
    const char* err = dlerror();
    errors += "  ";
    errors += err != nullptr ? err : path;
    errors += "\n";
  }
  std::fprintf(stderr, "qomm: cannot load the media-input library:\n%s", errors.c_str());
  return nullptr;
}

void PrintList(const char* title, const std::vector<std::string>& names) {
  std::printf("%s (%zu):\n", title, names.size());
  for (const std::string& name : names) std::printf("  %s\n", name.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> candidates;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--lib") == 0 && i + 1 < argc) {
      candidates.push_back(argv[++i]);
    } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      Usage(argv[0]);
      return 0;
    } else {
      Usage(argv[0]);
      return 2;
    }
  }
  if (candidates.empty()) candidates = LibraryCandidates();

  std::string loaded;
  if (LoadLibrary(candidates, &loaded) == nullptr) return 1;
  std::printf("loaded %s\n", loaded.c_str());
  PrintList("global functions", qo::Registry::ListNames());
  PrintList("node classes", qo::NodeClassRegistry::ListNames());
  return 0;
}
